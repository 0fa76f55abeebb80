// A tree whose branches are made when they are opened. One tab stop; arrows walk, open and close.
import { h, replaceChildren } from './dom.js';

/**
 * @typedef {{text: string, detail?: string, weight?: string, mark?: string, children?: () => Item[], onPick?: () => void}} Item
 */

export class TreeView {
  /** @param {{label: string}} options */
  constructor(options) {
    this.element = h('ul.tree', { role: 'tree', 'aria-label': options.label });
    this.element.addEventListener('keydown', (event) => this._onKey(event));
  }

  /** @param {Item[]} items */
  show(items) {
    replaceChildren(this.element, items.map((item) => this._branch(item, 1)));
    const first = this.element.querySelector('[role=treeitem]');
    if (first) first.tabIndex = 0;
  }

  _branch(item, level) {
    const line = h(
      'div.tree-line',
      {},
      h('span.twist', { 'aria-hidden': 'true' }, item.children ? '▸' : ''),
      item.weight ? h('span.weight', {}, item.weight) : null,
      item.mark ? h('span.badge', {}, item.mark) : null,
      h('span.tree-text', { title: item.text }, item.text),
      item.detail ? h('span.dim', {}, item.detail) : null,
    );
    const element = h(
      'li',
      { role: 'treeitem', tabindex: -1, 'aria-level': String(level), 'aria-expanded': item.children ? 'false' : null, 'aria-label': [item.mark, item.text, item.weight, item.detail].filter(Boolean).join(', ') },
      line,
    );
    element.treeItem = item;
    line.addEventListener('click', () => {
      this._focus(element);
      if (item.children) this._toggle(element);
    });
    return element;
  }

  _toggle(element, open = element.getAttribute('aria-expanded') !== 'true') {
    const item = element.treeItem;
    if (!item.children) return;
    element.setAttribute('aria-expanded', String(open));
    element.querySelector('.twist').textContent = open ? '▾' : '▸';
    let group = element.querySelector(':scope > ul');
    if (open && !group) {
      const level = Number(element.getAttribute('aria-level')) + 1;
      group = h('ul', { role: 'group' }, item.children().map((child) => this._branch(child, level)));
      element.append(group);
    }
    if (group) group.hidden = !open;
  }

  _focus(element) {
    const before = this.element.querySelector('[tabindex="0"]');
    if (before) before.tabIndex = -1;
    element.tabIndex = 0;
    element.focus();
    if (element.treeItem.onPick) element.treeItem.onPick();
  }

  _onKey(event) {
    const at = document.activeElement.closest('[role=treeitem]');
    if (!at) return;
    const shown = [...this.element.querySelectorAll('[role=treeitem]')].filter((item) => !item.parentElement.closest('ul[hidden]'));
    const index = shown.indexOf(at);
    const isOpen = at.getAttribute('aria-expanded') === 'true';
    const to = (place) => shown[place] && this._focus(shown[place]);
    const keys = {
      ArrowDown: () => to(index + 1),
      ArrowUp: () => to(index - 1),
      Home: () => to(0),
      End: () => to(shown.length - 1),
      ArrowRight: () => (at.treeItem.children && !isOpen ? this._toggle(at, true) : isOpen && to(index + 1)),
      ArrowLeft: () => {
        const parent = at.parentElement.closest('[role=treeitem]');
        if (isOpen) this._toggle(at, false);
        else if (parent) this._focus(parent);
      },
      Enter: () => this._toggle(at),
      ' ': () => this._toggle(at),
    };
    if (!keys[event.key]) return;
    keys[event.key]();
    event.preventDefault();
    event.stopPropagation();
  }
}
