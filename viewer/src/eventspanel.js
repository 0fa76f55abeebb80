// Kernel events: what kinds there were, and one by one, filtered.
import { forEachCell } from './aggregate.js';
import { callersOf, pathList } from './heappanel.js';
import { DataTable } from './table.js';
import { h, replaceChildren, scheduled, toggle } from './dom.js';
import * as format from './format.js';

export class EventsPanel {
  constructor(model, store) {
    this.model = model;
    this.store = store;
    this.name = 'Events';
    this.key = 'events';
    this.type = -1;
    const { trace, data } = model;
    this.columns = Object.fromEntries(
      ['time', 'duration', 'cpu', 'thread', 'type', 'node', 'detail'].map((key) => [key, data.column(trace.rows[key])]),
    );
    this.hidden = new Set(); // classes
    this.haystacks = []; // by row, made when first searched
    this.filter = h('input.search', {
      type: 'search',
      placeholder: 'Filter: name, detail, thread',
      'aria-label': 'Filter events',
      spellcheck: 'false',
      oninput: () => this.update(),
    });
    this.least = h('input.seconds', {
      type: 'text',
      inputmode: 'decimal',
      placeholder: '0',
      'aria-label': 'Least duration in microseconds',
      oninput: () => this.update(),
    });
    this.counted = h('output.found', { 'aria-live': 'polite' });
    this.stack = h('div.paths', { 'aria-live': 'polite' }, h('p.dim', {}, 'Pick an event to see all of it and its stack; pick a kind to see only that.'));
    this.kinds = this._kindsTable();
    this.table = this._rowsTable();
    this.element = h(
      'div.panel.events-panel',
      {},
      h('div.toolbar', {}, this.filter, h('label', {}, 'at least ', this.least, ' µs'), this.counted),
      h('div.toolbar.classes', { role: 'group', 'aria-label': 'Classes of events' }, this._classToggles()),
      h('div.split.three', {}, this.kinds.element, this.table.element, h('aside.side', { 'aria-label': 'Stack of the event' }, this.stack)),
    );
    this.update = scheduled(() => this._update());
    store.on(['range', 'thread'], this.update);
  }

  _classToggles() {
    const { trace } = this.model;
    const used = [...new Set(trace.types.map((type) => type.class))].sort((a, b) => a - b);
    return used.map((number) => {
      const element = toggle(trace.classes[number], true, (on) => {
        if (on) this.hidden.delete(number);
        else this.hidden.add(number);
        this.update();
      });
      const swatch = h('span.swatch', { 'aria-hidden': 'true' });
      swatch.style.background = `var(--class-${number})`;
      element.prepend(swatch);
      return element;
    });
  }

  _kindsTable() {
    return new DataTable({
      label: 'Kinds of events',
      sort: 'time',
      isMarked: (row) => row.type === this.type,
      onPick: (row) => {
        this.type = this.type === row.type ? -1 : row.type;
        this.update();
      },
      columns: [
        { key: 'name', title: 'Kind', text: (row) => row.name, first: 'up' },
        { key: 'count', title: 'Count', right: true, width: '4.4rem', text: (row) => format.count(row.count), order: (row) => row.count },
        { key: 'time', title: 'Time', right: true, width: '5.8rem', text: (row) => (row.time > 0 ? format.time(row.time) : '–'), order: (row) => row.time * 1e6 + row.count },
      ],
    });
  }

  _rowsTable() {
    const { model, columns } = this;
    const { texts } = model.trace.rows;
    return new DataTable({
      label: 'Events',
      onPick: (row) => this._showStack(row),
      empty: 'No event passes the filters.',
      columns: [
        { key: 'time', title: 'Time', right: true, width: '6.2rem', text: (row) => `${(columns.time[row] / 1e9).toFixed(6)} s`, order: (row) => columns.time[row], first: 'up' },
        { key: 'duration', title: 'Duration', right: true, width: '5.6rem', text: (row) => (columns.duration[row] > 0 ? format.time(columns.duration[row] - 1) : ''), order: (row) => columns.duration[row] },
        { key: 'cpu', title: 'CPU', right: true, width: '3.2rem', text: (row) => String(columns.cpu[row]), order: (row) => columns.cpu[row], first: 'up' },
        { key: 'thread', title: 'Thread', width: '8rem', text: (row) => model.threadName(columns.thread[row]), first: 'up' },
        { key: 'type', title: 'Event', width: '8.4rem', text: (row) => model.trace.types[columns.type[row]].name, first: 'up' },
        { key: 'detail', title: 'Detail', text: (row) => texts[columns.detail[row]], first: 'up' },
      ],
    });
  }

  _haystack(row) {
    const { columns, model } = this;
    let text = this.haystacks[row];
    if (text === undefined) {
      text = `${model.trace.types[columns.type[row]].name}\n${model.trace.rows.texts[columns.detail[row]]}\n${model.threadName(columns.thread[row])}`.toLowerCase();
      this.haystacks[row] = text;
    }
    return text;
  }

  _update() {
    if (!this.element.isConnected) return;
    const { columns, store, model } = this;
    const range = store.range || [-Infinity, Infinity];
    const words = this.filter.value.toLowerCase().split(/\s+/).filter(Boolean);
    const least = (parseFloat(this.least.value) || 0) * 1000;
    const { types } = model.trace;
    const rows = [];
    for (let row = 0; row < columns.time.length; ++row) {
      const begin = columns.time[row];
      if (begin >= range[1] || begin + Math.max(0, columns.duration[row] - 1) < range[0]) continue;
      if (store.thread >= 0 && columns.thread[row] !== store.thread) continue;
      const type = columns.type[row];
      if (this.type >= 0 && type !== this.type) continue;
      if (this.hidden.has(types[type].class)) continue;
      if (least > 0 && columns.duration[row] - 1 < least) continue;
      if (words.length > 0 && !words.every((word) => this._haystack(row).includes(word))) continue;
      rows.push(row);
    }
    this.table.show(rows);
    this._showKinds();
    const { seen } = model.trace.rows;
    const all = columns.time.length;
    this.counted.textContent =
      `${format.count(rows.length)} shown` +
      (seen > all ? `; the page holds ${format.count(all)} of ${format.count(seen)} events, the longest among them; counts are of all` : '');
  }

  _showKinds() {
    const { counts, types } = this.model.trace;
    const rows = types.map((type, number) => ({ type: number, name: type.name, count: 0, time: 0 }));
    forEachCell(counts, this.store.range, this.store.thread, (i, share) => {
      rows[counts.node[i]].count += counts.values[0][i] * share;
      rows[counts.node[i]].time += counts.values[1][i] * share;
    });
    this.kinds.show(rows.filter((row) => row.count > 0 && !this.hidden.has(types[row.type].class)));
  }

  _showStack(row) {
    const { columns, model } = this;
    const node = columns.node[row];
    replaceChildren(
      this.stack,
      h('h3', {}, model.trace.types[columns.type[row]].name),
      h('p', {}, model.trace.rows.texts[columns.detail[row]]),
      h('p.dim', {}, `${model.threadName(columns.thread[row])}, processor ${columns.cpu[row]}, ${(columns.time[row] / 1e9).toFixed(6)} s`),
      node > 0 ? pathList(model, callersOf(model.trace.calls, node)) : h('p.dim', {}, 'no stack recorded'),
    );
  }

  shown() {
    this.update();
  }
  focusSearch() {
    this.filter.focus();
  }
}
