// The heap over time, and the sites behind it.
import { forEachCell } from './aggregate.js';
import { Chart, byteSteps } from './charts.js';
import { DataTable } from './table.js';
import { heapValue } from './model.js';
import { h, replaceChildren, scheduled } from './dom.js';
import * as format from './format.js';

const kMostPaths = 12;
const kMostFrames = 24;

export class HeapPanel {
  constructor(model, store, onFlame) {
    this.model = model;
    this.store = store;
    this.name = 'Heap';
    this.key = 'heap';
    this.chart = new Chart({ label: 'Live bytes over time', height: 160, format: format.bytes, steps: byteSteps(), store });
    const column = (key, title, help, text = format.bytes) => ({
      key,
      title,
      help,
      right: true,
      width: '5.9rem',
      text: (row) => (row[key] > 0 ? text(row[key]) : '–'),
      order: (row) => row[key],
    });
    this.table = new DataTable({
      label: 'Allocation sites',
      sort: 'bytes',
      empty: 'Nothing was allocated in this span.',
      onPick: (row) => this._showPaths(row),
      columns: [
        { ...column('bytes', 'Allocated', 'Bytes allocated in the span'), bar: (row) => row.bytes / (this.most.bytes || 1) },
        column('blocks', 'Blocks', 'Blocks allocated in the span', format.count),
        column('freed', 'Freed', 'Bytes freed in the span, whenever they were allocated'),
        { ...column('live', 'Live', 'Bytes live at the end of the span'), bar: (row) => row.live / (this.most.live || 1) },
        { ...column('left', 'Never freed', 'Bytes allocated in the span and not freed by the end of the recording'), bar: (row) => row.left / (this.most.left || 1) },
        { key: 'name', title: 'Site', text: (row) => row.name, first: 'up' },
        { key: 'module', title: 'Module', width: '8rem', text: (row) => row.module, first: 'up' },
      ],
    });
    this.most = {};
    this.paths = h('div.paths', { 'aria-live': 'polite' });
    this.numbers = h('div.numbers');
    this.element = h(
      'div.panel.heap-panel',
      {},
      this.chart.element,
      h(
        'div.toolbar',
        {},
        this.numbers,
        h('span.grow'),
        h('button', { type: 'button', onclick: () => onFlame('allocated') }, 'Flame graph: allocated'),
        h('button', { type: 'button', onclick: () => onFlame('left') }, 'never freed'),
      ),
      h('div.split', {}, this.table.element, h('aside.side', { 'aria-label': 'Call paths of the site' }, this.paths)),
    );
    this.update = scheduled(() => this._update());
    store.on(['range', 'theme'], this.update);
  }

  _update() {
    if (!this.element.isConnected) return;
    const { curve } = this.model.heap;
    const { data } = this.model;
    const slices = data.column(curve.slice);
    const last = data.column(curve.last);
    // The last level holds until the end.
    const times = [...Array.from(slices, (slice) => slice * curve.sliceNs), this.store.untilNs];
    const levels = [...data.column(curve.highest), last.length > 0 ? last[last.length - 1] : 0];
    this.chart.show(times, [{ name: 'Live bytes', values: levels, fill: true, color: 2 }]);
    this._sum();
    const sites = [...this._sites().values()];
    for (const key of ['bytes', 'live', 'left']) this.most[key] = Math.max(0, ...sites.map((site) => site[key]));
    this.table.show(sites.filter((site) => site.blocks > 0 || site.live > 0 || site.freed > 0));
    this._showNumbers();
    if (this.picked) this._showPaths(sites.find((site) => site.label === this.picked.label));
    else if (this.model.heap.faultCount > 0) this._showFaults();
    else replaceChildren(this.paths, h('p.dim', {}, 'Pick a site to see who called it.'));
  }

  /** For each node of the call tree what happened in the span. */
  _sum() {
    const { grid, calls } = this.model.heap;
    const size = calls.caller.length;
    const sums = { bytes: new Float64Array(size), blocks: new Float64Array(size), freed: new Float64Array(size), live: new Float64Array(size), left: new Float64Array(size) };
    const [allocations, allocated, , freed, , left] = grid.values;
    forEachCell(grid, this.store.range, -1, (i) => {
      const node = grid.node[i];
      sums.bytes[node] += allocated[i];
      sums.blocks[node] += allocations[i];
      sums.freed[node] += freed[i];
      sums.left[node] += left[i];
    });
    // Live at the end is all that came before it, not only in the span.
    const before = this.store.range ? [-1, this.store.range[1]] : null;
    forEachCell(grid, before, -1, (i) => (sums.live[grid.node[i]] += allocated[i] - freed[i]));
    this.sums = sums;
  }

  _sites() {
    const { model, sums } = this;
    const { calls } = model.heap;
    const sites = new Map();
    for (let node = 0; node < calls.caller.length; ++node) {
      if (sums.blocks[node] === 0 && sums.live[node] === 0 && sums.freed[node] === 0) continue;
      const label = calls.function[node];
      let site = sites.get(label);
      if (!site) {
        site = { label, name: model.nameOf(label), module: model.moduleOf(label), nodes: [], bytes: 0, blocks: 0, freed: 0, live: 0, left: 0 };
        sites.set(label, site);
      }
      site.nodes.push(node);
      for (const key of ['bytes', 'blocks', 'freed', 'live', 'left']) site[key] += sums[key][node];
    }
    return sites;
  }

  _showNumbers() {
    const total = (key) => this.sums[key].reduce((all, value) => all + value, 0);
    const item = (name, value) => h('span.number', {}, h('b', {}, value), ` ${name}`);
    replaceChildren(
      this.numbers,
      item('allocated', format.bytes(total('bytes'))),
      item('blocks', format.count(total('blocks'))),
      item('live at the end', format.bytes(Math.max(0, total('live')))),
      item('never freed', format.bytes(total('left'))),
      item('at the peak', format.bytes(this.model.heap.peakBytes)),
    );
  }

  _showPaths(site) {
    this.picked = site;
    if (!site) {
      replaceChildren(this.paths, h('p.dim', {}, 'Pick a site to see who called it.'));
      return;
    }
    const { sums, model } = this;
    const paths = site.nodes.slice().sort((a, b) => sums.left[b] - sums.left[a] || sums.bytes[b] - sums.bytes[a]);
    const rest = paths.length - kMostPaths;
    replaceChildren(
      this.paths,
      h('h3', {}, format.shortName(site.name, 80)),
      h('p.dim', {}, `${format.plural(paths.length, 'call path')}, those with most that was never freed first`),
      paths.slice(0, kMostPaths).map((node) => {
        const text = `${format.bytes(sums.bytes[node])} in ${format.plural(sums.blocks[node], 'block')}, never freed ${format.bytes(sums.left[node])}`;
        return h('section.path', {}, h('h4', {}, text), pathList(model, callersOf(model.heap.calls, node)));
      }),
      rest > 0 ? h('p.dim', {}, `and ${format.plural(rest, 'further path')}`) : null,
    );
  }

  _showFaults() {
    const { model } = this;
    const { faults, faultCount } = model.heap;
    const path = (title, labels) => [h('h4', {}, title), pathList(model, labels)];
    replaceChildren(
      this.paths,
      h('h3.loss', {}, `${format.plural(faultCount, 'use')} of freed blocks`),
      faults.map((fault) =>
        h('section.path', {}, h('h4', {}, `${fault.address} ${fault.kind}`), path('Allocated', fault.allocated), path('Freed', fault.freed), path('Noticed', fault.noticed))),
    );
  }

  shown() {
    this.update();
  }
}

/** Functions from a node outwards. */
export function callersOf(calls, node) {
  const labels = [];
  for (; node !== 0; node = calls.caller[node]) labels.push(calls.function[node]);
  return labels;
}

/** A stack as a list, the innermost function first. */
export function pathList(model, labels) {
  const shown = labels.slice(0, kMostFrames);
  return h(
    'ol.stack',
    {},
    shown.map((label) => h('li', { title: model.nameOf(label) }, format.shortName(model.nameOf(label), 90), h('span.dim', {}, ` ${model.moduleOf(label)}`))),
    labels.length > shown.length ? h('li.dim', {}, `and ${labels.length - shown.length} outer frames`) : null,
    labels.length === 0 ? h('li.dim', {}, 'no stack') : null,
  );
}
