// What nothing points to any more, as trees of what holds what.
import { callersOf, pathList } from './heappanel.js';
import { LeakTree } from './leaks.js';
import { TreeView } from './treeview.js';
import { h, replaceChildren, scheduled } from './dom.js';
import * as format from './format.js';

const kKinds = ['', 'cycle', '']; // what nothing points to, and what hangs below a leak, need no word
const kMostChildren = 300; // of one branch; further ones are counted

export class LeaksPanel {
  constructor(model, store) {
    this.model = model;
    this.store = store;
    this.name = 'Leaks';
    this.key = 'leaks';
    const { orphans } = model.json;
    const { data } = model;
    this.search = orphans.searches[orphans.searches.length - 1];
    this.calls = model.callsOf(orphans.tree);
    this.leaks = Object.fromEntries(['kind', 'holder', 'size', 'node', 'time', 'isNew', 'address'].map((key) => [key, data.column(orphans.leaks[key])]));
    this.contents = orphans.leaks.contents;
    this.leakTree = new LeakTree(this.leaks);
    this.tree = new TreeView({ label: 'Leaks by where they were allocated' });
    this.stack = h('div.paths', { 'aria-live': 'polite' });
    this.note = h('p.note');
    this.element = h(
      'div.panel',
      {},
      h('div.toolbar', {}, this._numbers(orphans)),
      this.note,
      h('div.split', {}, h('div.tree-box', {}, this.tree.element), h('aside.side', { 'aria-label': 'Where the block was allocated' }, this.stack)),
    );
    this.isCurrent = false; // the tree is that of the selected span
    this.update = scheduled(() => this._update());
    store.on(['range'], () => {
      this.isCurrent = false;
      this.update();
    });
  }

  _numbers(orphans) {
    const item = (name, value) => h('span.number', {}, h('b', {}, value), ` ${name}`);
    const { search } = this;
    if (!search) return h('p.loss', {}, orphans.notSearched.join('; ') || 'The target was not searched.');
    const told = this.leaks.size.length;
    const before = orphans.searches.slice(0, -1).map((one) => `search ${one.number} at ${format.clock(one.timeNs, 1e9)}: ${format.plural(one.leaks, 'block')}, ${format.bytes(one.leakedBytes)}`);
    return h(
      'div.numbers',
      {},
      item('leaked', format.bytes(search.leakedBytes)),
      item('blocks', format.count(search.leaks)),
      before.length > 0 ? item('new since the search before', format.count(search.newLeaks)) : null,
      item('live blocks looked at', format.count(search.blocks)),
      item('pause', format.time(search.pauseNs)),
      told < search.leaks ? item('of them shown here', format.count(told)) : null,
      [...search.notes, ...before, ...orphans.notSearched].map((text) => h('span.note', {}, text)),
    );
  }

  _update() {
    if (!this.element.isConnected || this.isCurrent) return;
    this.isCurrent = true; // what is open stays open while other views are looked at
    const { range } = this.store;
    const inRange = (leak) => !range || (this.leaks.time[leak] >= range[0] && this.leaks.time[leak] < range[1]);
    const groups = this.leakTree
      .bySite()
      .map((group) => ({ ...group, leaks: group.leaks.filter(inRange) }))
      .filter((group) => group.leaks.length > 0)
      .map((group) => ({ ...group, bytes: group.leaks.reduce((sum, leak) => sum + this.leakTree.heldBytes[leak], 0) }))
      .sort((a, b) => b.bytes - a.bytes);
    this.note.textContent = range ? 'Only leaks that were allocated in the selected span.' : 'A branch is where leaked blocks were allocated; below a block stands what it holds.';
    this.tree.show(groups.map((group) => this._group(group)));
    replaceChildren(this.stack, h('p.dim', {}, groups.length > 0 ? 'Pick a leak to see where it was allocated.' : 'There are no leaks.'));
  }

  /** The innermost function, and who called it. */
  _siteName(node) {
    if (node === 0) return 'allocated at an unknown place';
    const names = callersOf(this.calls, node).slice(0, 2).map((label) => format.shortName(this.model.nameOf(label), 70));
    return names.join(' ← ');
  }
  _group(group) {
    return {
      text: this._siteName(group.node),
      weight: format.bytes(group.bytes),
      detail: format.plural(group.leaks.length, 'leak'),
      onPick: () => this._showStack(group.node),
      children: () => this._limited(group.leaks),
    };
  }
  _limited(leaks) {
    const items = leaks.slice(0, kMostChildren).map((leak) => this._leak(leak));
    if (leaks.length > kMostChildren) items.push({ text: `and ${format.plural(leaks.length - kMostChildren, 'further block')}` });
    return items;
  }
  _leak(leak) {
    const holds = this.leakTree.heldBlocks[leak] - 1;
    const { node, size, kind, isNew, holder, address } = this.leaks;
    const contents = this.contents[leak];
    const isHeld = holder[leak] > 0;
    return {
      text: `${format.bytes(size[leak])} at 0x${address[leak].toString(16)}`,
      weight: format.bytes(this.leakTree.heldBytes[leak]),
      mark: [kKinds[kind[leak]], isNew[leak] && this.search && this.search.number > 1 ? 'new' : ''].filter(Boolean).join(', '),
      detail: [isHeld ? this._siteName(node[leak]) : '', holds > 0 ? `holds ${format.plural(holds, 'block')}` : '', contents ? `“${contents}”` : ''].filter(Boolean).join(' · '),
      onPick: () => this._showStack(node[leak], leak),
      children: holds > 0 ? () => this._limited(this.leakTree.heldBy(leak + 1)) : undefined,
    };
  }

  _showStack(node, leak) {
    const { size, time } = this.leaks;
    replaceChildren(
      this.stack,
      h('h3', {}, leak === undefined ? 'Allocated here' : `${format.bytes(size[leak])}, allocated at ${format.clock(time[leak], 1e7)}`),
      node > 0 ? pathList(this.model, callersOf(this.calls, node)) : h('p.dim', {}, 'no stack recorded'),
    );
  }

  shown() {
    this.update();
  }
}
