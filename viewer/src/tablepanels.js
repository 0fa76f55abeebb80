// Functions and threads as tables.
import { callTree, forEachCell, functionWeights, nodeWeights } from './aggregate.js';
import { DataTable } from './table.js';
import { h, scheduled, select } from './dom.js';
import * as format from './format.js';

/** Every function with its weights; picking one finds it in the flame graph. */
export class FunctionsPanel {
  constructor(model, store, onFind) {
    this.model = model;
    this.store = store;
    this.name = 'Functions';
    this.key = 'functions';
    this.source = model.sources[0];
    this.all = 0;
    this.filter = h('input.search', {
      type: 'search',
      placeholder: 'Filter',
      'aria-label': 'Filter functions and modules',
      spellcheck: 'false',
      oninput: () => store.setSearch(this.filter.value),
    });
    const weight = (value) => this.source.format(value * this.source.scale);
    this.table = new DataTable({
      label: 'Functions',
      sort: 'self',
      onPick: (row) => (this.detail.textContent = `${row.name}\n${model.pathOf(row.label) || row.module}`),
      columns: [
        { key: 'self', title: 'Self', right: true, width: '6.5rem', text: (row) => weight(row.self), order: (row) => row.self, help: 'Of the function itself' },
        { key: 'selfShare', title: '%', right: true, width: '5rem', text: (row) => format.percent(row.self, this.all), order: (row) => row.self, bar: (row) => row.self / (this.all || 1) },
        { key: 'total', title: 'Total', right: true, width: '6.5rem', text: (row) => weight(row.total), order: (row) => row.total, help: 'With all that it called' },
        { key: 'totalShare', title: '%', right: true, width: '5rem', text: (row) => format.percent(row.total, this.all), order: (row) => row.total, bar: (row) => row.total / (this.all || 1) },
        { key: 'name', title: 'Function', text: (row) => row.name, first: 'up' },
        { key: 'module', title: 'Module', width: '14rem', text: (row) => row.module, first: 'up' },
      ],
    });
    this.detail = h('div.detail', { 'aria-live': 'polite' });
    this.element = h(
      'div.panel',
      {},
      h(
        'div.toolbar',
        {},
        select('What is shown', model.sources.map((source) => [source.key, source.name]), this.source && this.source.key, (key) => {
          this.source = model.sources.find((source) => source.key === key);
          this.update();
        }),
        this.filter,
        h('span.grow'),
        h('button', { type: 'button', onclick: () => this._find(onFind) }, 'Find in flame graph'),
      ),
      this.table.element,
      this.detail,
    );
    this.update = scheduled(() => this._update());
    store.on(['range', 'thread', 'search'], this.update);
  }

  _find(onFind) {
    const row = this.table.rows[Math.max(0, this.table.active)];
    if (row) onFind(row.name, this.source.key);
  }
  _update() {
    if (!this.source || !this.element.isConnected) return;
    const { source, store, model } = this;
    const calls = source.part.calls;
    const weights = nodeWeights(source.grid, source.value, calls.caller.length, store.range, source.threads ? store.thread : -1);
    const tree = callTree(calls, weights);
    this.all = tree.total[0];
    const wanted = store.search.toLowerCase();
    if (this.filter.value !== store.search) this.filter.value = store.search;
    const rows = functionWeights(tree).map((entry) => ({ ...entry, name: model.nameOf(entry.label), module: model.moduleOf(entry.label) }));
    this.table.show(rows.filter((row) => !wanted || `${row.name}\n${row.module}`.toLowerCase().includes(wanted)));
  }
  shown() {
    this.update();
  }
  focusSearch() {
    this.filter.focus();
  }
}

/** Every thread with its time on and off the processor; picking one filters everything. */
export class ThreadsPanel {
  constructor(model, store) {
    this.model = model;
    this.store = store;
    this.name = 'Threads';
    this.key = 'threads';
    const nothing = (text) => (value) => (value > 0 ? text(value) : '–');
    const time = nothing(format.time);
    this.table = new DataTable({
      label: 'Threads',
      sort: 'cpu',
      isMarked: (row) => row.index === store.thread,
      onPick: (row) => store.setThread(row.index === store.thread ? -1 : row.index),
      columns: [
        { key: 'name', title: 'Thread', text: (row) => row.name || '–', first: 'up' },
        { key: 'tid', title: 'Number', right: true, width: '6rem', text: (row) => String(row.tid), order: (row) => row.tid, first: 'up' },
        { key: 'pid', title: 'Process', right: true, width: '6rem', text: (row) => String(row.pid), order: (row) => row.pid, first: 'up' },
        { key: 'cpu', title: 'On processor', right: true, width: '8rem', text: (row) => time(row.cpu), order: (row) => row.cpu, bar: (row) => row.cpu / this.span },
        { key: 'off', title: 'Off processor', right: true, width: '8rem', text: (row) => time(row.off), order: (row) => row.off, bar: (row) => row.off / this.span },
        { key: 'waits', title: 'Times', right: true, width: '6rem', text: (row) => nothing(format.count)(row.waits), order: (row) => row.waits, help: 'How often it left the processor' },
        { key: 'longest', title: 'Longest', right: true, width: '7rem', text: (row) => time(row.longest), order: (row) => row.longest, help: 'Longest time off the processor' },
        { key: 'events', title: 'Kernel events', right: true, width: '8rem', text: (row) => nothing(format.count)(row.events), order: (row) => row.events },
      ],
    });
    this.element = h(
      'div.panel',
      {},
      h('div.toolbar', {}, h('span.note', {}, 'Picking a thread filters the whole page by it; picking it again lifts the filter.')),
      this.table.element,
    );
    this.update = scheduled(() => this._update());
    store.on(['range', 'thread'], this.update);
  }

  _update() {
    if (!this.element.isConnected) return;
    const { model, store } = this;
    const rows = model.threads.map((thread) => ({ ...thread, cpu: 0, off: 0, waits: 0, longest: 0, events: 0 }));
    const { stacks, trace } = model;
    if (stacks) {
      forEachCell(stacks.grid, store.range, -1, (i, share) => {
        const row = rows[stacks.grid.thread[i]];
        row.cpu += stacks.grid.values[0][i] * stacks.intervalNs * share;
        const blocked = stacks.grid.values[1][i];
        if (blocked > 0) this._addWait(row, blocked, share, 1);
      });
    }
    if (trace) {
      forEachCell(trace.counts, store.range, -1, (i, share) => {
        rows[trace.counts.thread[i]].events += trace.counts.values[0][i] * share;
      });
      if (!model.offByStacks) {
        forEachCell(trace.off, store.range, -1, (i, share) =>
          this._addWait(rows[trace.off.thread[i]], trace.off.values[1][i], share, trace.off.values[0][i]));
      }
    }
    const span = store.span();
    this.span = span[1] - span[0];
    this.table.show(rows.filter((row) => row.cpu > 0 || row.off > 0 || row.events > 0));
  }
  _addWait(row, ns, share, times) {
    row.off += ns * share;
    row.waits += times * share;
    row.longest = Math.max(row.longest, ns / times);
  }
  shown() {
    this.update();
  }
}
