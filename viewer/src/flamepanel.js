// The flame graph with its choices.
import { callerTree, callTree, nodeWeights, threadTree } from './aggregate.js';
import { FlameGraph } from './flamegraph.js';
import { h, replaceChildren, scheduled, select, toggle } from './dom.js';
import * as format from './format.js';

export class FlamePanel {
  constructor(model, store) {
    this.model = model;
    this.store = store;
    this.name = 'Flame graph';
    this.key = 'flame';
    this.source = model.sources[0];
    this.inverted = false;
    this.byThread = false;
    this.graph = new FlameGraph();
    this.found = h('output.found', { 'aria-live': 'polite' });
    this.note = h('span.note');
    this.searchBox = h('input.search', {
      type: 'search',
      placeholder: 'Search functions ( / )',
      'aria-label': 'Search functions and modules',
      spellcheck: 'false',
      oninput: () => store.setSearch(this.searchBox.value),
      onkeydown: (event) => this._onSearchKey(event),
    });
    this.sourceSelect = select('What is shown', model.sources.map((source) => [source.key, source.name]), this.source && this.source.key, (key) => this.setSource(key));
    this.legend = h('div.legend', { 'aria-label': 'Colours of modules', role: 'list' });
    this.element = h('div.panel.flame-panel', {}, this._toolbar(), this.graph.element, this.legend);
    this.update = scheduled(() => this._update());
    store.on(['range', 'thread', 'theme'], this.update);
    store.on(['search'], () => this._search());
  }

  _toolbar() {
    return h(
      'div.toolbar',
      {},
      this.sourceSelect,
      toggle('Icicle', false, (on) => this.graph.setIcicle(on), 'Callers on top, callees below'),
      toggle('Callers', false, (on) => this._set({ inverted: on }), 'Innermost functions first: who calls what costs most'),
      (this.threadToggle = toggle('By thread', false, (on) => this._set({ byThread: on }), 'A branch for each thread')),
      this.searchBox,
      this.found,
      h('span.grow'),
      this.note,
      h('button', { type: 'button', title: 'Show all again', onclick: () => this.graph.zoom(0) }, 'Reset zoom'),
    );
  }

  setSource(key) {
    this.source = this.model.sources.find((source) => source.key === key) || this.source;
    this.sourceSelect.value = this.source.key;
    this.graph.zoom(0);
    this.update();
  }
  _set(choices) {
    Object.assign(this, choices);
    this.graph.root = this.graph.focus = 0;
    this.update();
  }

  /** The tree as chosen. */
  tree() {
    const { source, store } = this;
    const thread = source.threads ? store.thread : -1;
    const weights = nodeWeights(source.grid, source.value, source.part.calls.caller.length, store.range, thread);
    if (this.inverted) return callerTree(source.part.calls, weights);
    if (this.byThread && source.threads) return threadTree(source.grid, source.value, source.part.calls, store.range, thread);
    return callTree(source.part.calls, weights);
  }

  _update() {
    if (!this.source || !this.element.isConnected) return;
    const { model, source } = this;
    this.threadToggle.disabled = !source.threads || this.inverted;
    this.graph.show({
      tree: this.tree(),
      nameOf: (label) => model.nameOf(label),
      moduleOf: (label) => model.moduleOf(label),
      hueOf: (label) => model.hueOf(label),
      format: (weight) => source.format(weight * source.scale),
    });
    const { pruned } = source.part.calls;
    this.note.textContent = pruned > 0 ? `${format.count(pruned)} rare call paths are counted at their callers` : '';
    this._showLegend();
    this._search();
  }

  _showLegend() {
    const { model, graph } = this;
    const byModule = new Map();
    const { tree } = graph.data;
    for (let node = 1; node < tree.parent.length; ++node) {
      const label = tree.label[node];
      if (label < 0 || !(tree.self[node] > 0)) continue;
      const module = model.moduleOf(label) || 'unknown';
      byModule.set(module, (byModule.get(module) || 0) + tree.self[node]);
    }
    const largest = [...byModule].sort((a, b) => b[1] - a[1]).slice(0, 8);
    replaceChildren(
      this.legend,
      largest.map(([module, weight]) => {
        const swatch = h('span.swatch', { 'aria-hidden': 'true' });
        const number = model.moduleNames.indexOf(module === 'unknown' ? '' : module);
        const hue = number >= 0 ? model.hues[number] : 0;
        const dark = document.documentElement.dataset.theme === 'dark';
        swatch.style.background = `hsl(${hue} ${module === 'unknown' ? 0 : dark ? 42 : 62}% ${dark ? 38 : 76}%)`;
        return h('span.legend-item', { role: 'listitem' }, swatch, `${module} ${format.percent(weight, tree.total[0])}`);
      }),
    );
  }

  _search() {
    if (this.searchBox.value !== this.store.search) this.searchBox.value = this.store.search;
    const found = this.graph.layout ? this.graph.search(this.store.search) : null;
    const { data } = this.graph;
    this.found.textContent = !this.store.search || !data
      ? ''
      : found && found.nodes.length > 0
        ? `${format.plural(found.nodes.length, 'frame')}, ${format.percent(found.weight, data.tree.total[0])}`
        : 'nothing found';
  }
  _onSearchKey(event) {
    if (event.key === 'Enter') {
      this.graph.goFound(event.shiftKey ? -1 : 1);
      event.preventDefault();
    } else if (event.key === 'Escape') {
      this.store.setSearch('');
      this.graph.box.focus();
      event.preventDefault();
      event.stopPropagation();
    }
  }

  shown() {
    this.update();
  }
  focusSearch() {
    this.searchBox.focus();
    this.searchBox.select();
  }
}
