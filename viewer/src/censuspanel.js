// The machine's processes: curves of the machine and of the processes picked, and a table of all.
import { Chart, byteSteps } from './charts.js';
import { DataTable } from './table.js';
import { h, scheduled } from './dom.js';
import * as format from './format.js';

const kDrawnFirst = 5;
const kMostDrawn = 10;

export class CensusPanel {
  constructor(model, store) {
    this.model = model;
    this.store = store;
    this.name = 'Census';
    this.key = 'census';
    const { census } = model.json;
    const { data } = model;
    this.time = data.column(census.machine.time);
    this.processes = census.processes;
    const hasCurves = this.processes.filter((process) => process.cpuCurve !== undefined);
    this.drawn = new Set(hasCurves.slice(0, kDrawnFirst));
    this.machineChart = new Chart({ label: 'Processors busy over time', height: 110, format: (value) => `${value.toFixed(0)} %`, max: 100, store });
    this.memoryChart = new Chart({ label: 'Memory in use over time', height: 110, format: (value) => format.bytes(value * 1024), steps: byteSteps(), store });
    this.cpuChart = new Chart({ label: 'Processor time of processes over time', height: 150, format: (value) => `${value.toFixed(0)} %`, store });
    this.residentChart = new Chart({ label: 'Resident memory of processes over time', height: 150, format: (value) => format.bytes(value * 1024), steps: byteSteps(), store });
    this.filter = h('input.search', { type: 'search', placeholder: 'Filter processes', 'aria-label': 'Filter processes', spellcheck: 'false', oninput: () => this._showRows() });
    this.table = this._table();
    const chart = (title, one) => h('figure', {}, h('figcaption', {}, title), one.element);
    const { seen } = census;
    this.element = h(
      'div.panel.census-panel',
      {},
      h('div.charts', {}, chart('Processors busy', this.machineChart), chart('Memory in use', this.memoryChart), chart('Processor time of the processes picked', this.cpuChart), chart('Resident memory of the processes picked', this.residentChart)),
      h(
        'div.toolbar',
        {},
        this.filter,
        h('span.note', {}, 'Picking a process adds its curves or takes them away.'),
        h('span.grow'),
        h('span.note', {}, this.processes.length < seen ? `the ${format.count(this.processes.length)} largest of ${format.plural(seen, 'process').replace('processs', 'processes')}` : ''),
      ),
      this.table.element,
    );
    this.update = scheduled(() => this._update());
    store.on(['range', 'theme'], this.update);
  }

  _table() {
    const number = (key, title, text, width = '6.5rem') => ({ key, title, right: true, width, text: (row) => text(row[key]), order: (row) => row[key] });
    const most = Math.max(1, ...this.processes.map((process) => process.cpuNs));
    const mostKiB = Math.max(1, ...this.processes.map((process) => process.peakKiB));
    return new DataTable({
      label: 'Processes',
      sort: 'cpuNs',
      isMarked: (row) => this.drawn.has(row),
      onPick: (row) => this._toggle(row),
      empty: 'No process passes the filter.',
      columns: [
        { key: 'name', title: 'Process', text: (row) => `${this.drawn.has(row) ? '◆ ' : ''}${row.name}${row.firstName ? ` (was ${row.firstName})` : ''}`, order: (row) => row.name, first: 'up' },
        { ...number('pid', 'Number', String, '6rem'), first: 'up' },
        { ...number('cpuNs', 'Processor', format.time, '7rem'), bar: (row) => row.cpuNs / most },
        { ...number('peakKiB', 'Memory', (value) => format.bytes(value * 1024), '7rem'), bar: (row) => row.peakKiB / mostKiB },
        number('threads', 'Threads', format.count, '5rem'),
        number('descriptors', 'Files', format.count, '5rem'),
        number('readBytes', 'Read', format.bytes),
        number('writtenBytes', 'Written', format.bytes),
        number('switches', 'Switches', format.count),
        { key: 'life', title: 'Lived', width: '12rem', text: (row) => this._life(row), order: (row) => row.fromNs || 0 },
      ],
    });
  }

  _life(row) {
    const at = (ns) => (ns === undefined ? '' : `${(ns / 1e9).toFixed(2)} s`);
    if (row.fromNs === undefined && row.untilNs === undefined) return row.end;
    return `${at(row.fromNs)} – ${at(row.untilNs)} ${row.end}`;
  }

  _toggle(row) {
    if (this.drawn.has(row)) this.drawn.delete(row);
    else if (row.cpuCurve !== undefined && this.drawn.size < kMostDrawn) this.drawn.add(row);
    this.update();
  }

  /** Busy share between two points of a growing sum, in percent of `whole`. */
  _rates(values, whole) {
    const rates = [null];
    for (let i = 1; i < values.length; ++i) {
      const all = whole(i);
      rates.push(all > 0 ? Math.max(0, (100 * (values[i] - values[i - 1])) / all) : 0);
    }
    return rates;
  }

  _update() {
    if (!this.element.isConnected) return;
    const { data, json } = this.model;
    const { machine, memoryKiB } = json.census;
    const whole = data.column(machine.wholeMs);
    this.machineChart.show(this.time, [
      { name: 'Busy', values: this._rates(data.column(machine.busyMs), (i) => whole[i] - whole[i - 1]), fill: true, color: 0 },
    ]);
    this.memoryChart.show(this.time, [
      { name: 'In use', values: Array.from(data.column(machine.availableKiB), (available) => Math.max(0, memoryKiB - available)), fill: true, color: 3 },
    ]);
    const curves = (values) => [...this.drawn].map((process) => ({ name: `${process.name} ${process.pid}`, values: values(process) }));
    this.cpuChart.show(this.time, curves((process) => this._rates(data.column(process.cpuCurve), (i) => this.time[i] - this.time[i - 1])));
    this.residentChart.show(this.time, curves((process) => Array.from(data.column(process.residentCurve), (kib) => kib || null)));
    this._showRows();
  }

  _showRows() {
    const wanted = this.filter.value.toLowerCase();
    const { range } = this.store;
    this.table.show(
      this.processes.filter((process) => {
        if (range && (process.fromNs > range[1] || process.untilNs < range[0])) return false;
        return !wanted || `${process.name} ${process.pid} ${process.executable}`.toLowerCase().includes(wanted);
      }),
    );
  }

  shown() {
    this.update();
  }
  focusSearch() {
    this.filter.focus();
  }
}
