// A table of any length: only the rows in sight are elements. Sorted by its headings, walked through with the keyboard.
import { h, replaceChildren, scheduled } from './dom.js';

const kRow = 24;

/**
 * @typedef {{key: string, title: string, help?: string, width?: string, right?: boolean, text: (row: any) => string,
 *   order?: (row: any) => number | string, first?: 'up' | 'down', bar?: (row: any) => number}} Column
 */

export class DataTable {
  /**
   * @param {{label: string, columns: Column[], sort?: string, onPick?: (row: any) => void,
   *   isMarked?: (row: any) => boolean, empty?: string}} options
   */
  constructor(options) {
    this.options = options;
    this.rows = [];
    this.active = -1;
    this.sortKey = options.sort || null;
    this.down = true;
    this.body = h('tbody');
    this.head = h('thead');
    this.table = h(
      'table.data',
      { 'aria-label': options.label, 'aria-multiselectable': null },
      h('colgroup', {}, options.columns.map((column) => {
        const element = h('col');
        element.style.width = column.width || 'auto';
        return element;
      })),
      this.head,
      this.body,
    );
    this.box = h('div.table-box', { tabindex: 0, role: 'region', 'aria-label': options.label }, this.table);
    this.element = this.box;
    this.id = `table-${(DataTable.count = (DataTable.count || 0) + 1)}`;
    this.draw = scheduled(() => this._draw());
    this.box.addEventListener('scroll', this.draw);
    new ResizeObserver(this.draw).observe(this.box);
    this.box.addEventListener('keydown', (event) => this._onKey(event));
    const column = options.columns.find((candidate) => candidate.key === this.sortKey);
    if (column) this.down = (column.first || 'down') === 'down';
    this._drawHead();
  }

  /** @param {any[]} rows in their own order, which is kept where no heading was chosen */
  show(rows) {
    this.unsorted = rows;
    const picked = this.active >= 0 ? this.rows[this.active] : null;
    this._sort();
    this.active = picked ? this.rows.indexOf(picked) : -1;
    this.draw();
  }

  _sort() {
    const column = this.options.columns.find((candidate) => candidate.key === this.sortKey);
    if (!column) {
      this.rows = this.unsorted;
      return;
    }
    const order = column.order || column.text;
    const keyed = this.unsorted.map((row) => [order(row), row]);
    const sign = this.down ? -1 : 1;
    keyed.sort(([a], [b]) => (a < b ? -sign : a > b ? sign : 0));
    this.rows = keyed.map(([, row]) => row);
  }

  _drawHead() {
    const cells = this.options.columns.map((column) => {
      const isSorted = column.key === this.sortKey;
      const sort = () => {
        this.down = isSorted ? !this.down : (column.first || 'down') === 'down';
        this.sortKey = column.key;
        this._sort();
        this.active = -1;
        this._drawHead();
        this.draw();
        this.head.querySelector(`button[data-key="${CSS.escape(column.key)}"]`).focus();
      };
      return h(
        column.right ? 'th.right' : 'th',
        { scope: 'col', 'aria-sort': isSorted ? (this.down ? 'descending' : 'ascending') : 'none', title: column.help },
        h(
          'button',
          { type: 'button', onclick: sort, 'data-key': column.key },
          column.title,
          h('span.arrow', { 'aria-hidden': 'true' }, isSorted ? (this.down ? ' ▾' : ' ▴') : ''),
        ),
      );
    });
    replaceChildren(this.head, h('tr', {}, cells));
  }

  _draw() {
    const height = this.box.clientHeight;
    if (height === 0) return;
    const first = Math.max(0, Math.floor(this.box.scrollTop / kRow) - 4);
    const last = Math.min(this.rows.length, Math.ceil((this.box.scrollTop + height) / kRow) + 4);
    this.table.setAttribute('aria-rowcount', String(this.rows.length + 1));
    const rows = [];
    const span = String(this.options.columns.length);
    const gap = (count, key) => {
      const element = h('tr.gap', { 'aria-hidden': 'true', 'data-gap': key }, h('td', { colspan: span }));
      element.style.height = `${count * kRow}px`;
      return element;
    };
    if (first > 0) rows.push(gap(first, 'above'));
    for (let i = first; i < last; ++i) rows.push(this._row(i));
    if (last < this.rows.length) rows.push(gap(this.rows.length - last, 'below'));
    if (this.rows.length === 0)
      rows.push(h('tr', {}, h('td.dim', { colspan: span }, this.options.empty || 'Nothing in this span and thread.')));
    replaceChildren(this.body, rows);
    if (this.active >= first && this.active < last) this.box.setAttribute('aria-activedescendant', `${this.id}-${this.active}`);
    else this.box.removeAttribute('aria-activedescendant');
  }

  _row(index) {
    const row = this.rows[index];
    const { isMarked, columns } = this.options;
    const cells = columns.map((column) => {
      const text = column.text(row);
      const cell = h(column.right ? 'td.right' : 'td', { title: text.length > 24 ? text : null }, text);
      if (column.bar) {
        const share = Math.max(0, Math.min(1, column.bar(row)));
        cell.style.backgroundSize = `${(100 * share).toFixed(1)}% 100%`;
        cell.classList.add('bar');
      }
      return cell;
    });
    return h(
      'tr',
      {
        id: `${this.id}-${index}`,
        'aria-rowindex': String(index + 2),
        'aria-selected': String(index === this.active),
        class: `${index === this.active ? 'active ' : ''}${isMarked && isMarked(row) ? 'marked' : ''}`,
        onclick: () => this._pick(index),
      },
      cells,
    );
  }

  _pick(index) {
    if (index < 0 || index >= this.rows.length) return;
    this.active = index;
    const y = index * kRow;
    const head = this.head.offsetHeight;
    if (y < this.box.scrollTop) this.box.scrollTop = y;
    else if (y + kRow + head > this.box.scrollTop + this.box.clientHeight)
      this.box.scrollTop = y + kRow + head - this.box.clientHeight;
    this.draw();
    if (this.options.onPick) this.options.onPick(this.rows[index]);
  }

  _onKey(event) {
    if (event.target !== this.box) return;
    const page = Math.max(1, Math.floor(this.box.clientHeight / kRow) - 2);
    const to = {
      ArrowDown: this.active + 1,
      ArrowUp: Math.max(0, this.active - 1),
      PageDown: Math.min(this.rows.length - 1, this.active + page),
      PageUp: Math.max(0, this.active - page),
      Home: 0,
      End: this.rows.length - 1,
    }[event.key];
    if (to === undefined) return;
    this._pick(Math.min(to, this.rows.length - 1));
    event.preventDefault();
    event.stopPropagation();
  }
}
