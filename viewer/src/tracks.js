// The rows of the time line, as far as the recording has them.
import { forEachCell } from './aggregate.js';
import { heapValue } from './model.js';
import * as format from './format.js';

const kMostThreads = 6;
const kLeastShare = 0.005; // of the busiest thread; others have no strip

/** @returns {import('./timeline.js').Track[]} */
export function tracksOf(model, store) {
  return [
    ...stackTracks(model, store),
    ...threadTracks(model),
    ...heapTracks(model),
    ...traceTracks(model, store),
    ...censusTracks(model),
  ];
}

const perBin = (from, until, bins) => (until - from) / bins;

function stackTracks(model, store) {
  const { stacks, trace } = model;
  const tracks = [];
  if (stacks) {
    const { grid } = stacks;
    tracks.push({
      name: 'Processor',
      height: 32,
      kind: 'area',
      color: 'cpu',
      unit: (value) => `${value.toFixed(2)} running`,
      values: (bins, from, until) =>
        scaled(model.binned(grid, from, until, bins, (i) => grid.values[0][i] * stacks.intervalNs, store.thread), 1 / perBin(from, until, bins)),
    });
  }
  const off = model.offByStacks ? { grid: stacks.grid, value: 1 } : trace && { grid: trace.off, value: 1 };
  if (off && off.grid.from.length > 0) {
    tracks.push({
      name: 'Off processor',
      height: 26,
      kind: 'area',
      color: 'off',
      unit: (value) => `${value.toFixed(2)} waiting`,
      values: (bins, from, until) =>
        scaled(model.binned(off.grid, from, until, bins, (i) => off.grid.values[off.value][i], store.thread), 1 / perBin(from, until, bins)),
    });
  }
  return tracks;
}

function threadTracks(model) {
  const { stacks } = model;
  const threads = model.activeThreads();
  const busiest = threads.length > 0 ? threads[0].cpuNs : 0;
  const drawn = threads.filter((thread) => thread.cpuNs > busiest * kLeastShare).slice(0, kMostThreads);
  if (!stacks || drawn.length < 2) return [];
  return drawn
    .map((thread) => ({
      name: `· ${thread.name || thread.tid}`,
      height: 11,
      kind: 'heat',
      color: 'cpu',
      max: 1,
      unit: (value) => `${(100 * value).toFixed(0)} % running`,
      values: (bins, from, until) =>
        scaled(
          model.binned(stacks.grid, from, until, bins, (i) => stacks.grid.values[0][i] * stacks.intervalNs, thread.index),
          1 / perBin(from, until, bins),
        ),
    }));
}

function heapTracks(model) {
  const { heap, data } = model;
  if (!heap) return [];
  const slice = data.column(heap.curve.slice);
  const highest = data.column(heap.curve.highest);
  const last = data.column(heap.curve.last);
  return [
    {
      name: 'Heap, live',
      height: 32,
      kind: 'line',
      color: 'heap',
      unit: format.bytes,
      values: (bins, from, until) => levels(slice, highest, last, heap.curve.sliceNs, bins, from, until),
    },
    {
      name: 'Allocations',
      height: 16,
      kind: 'area',
      color: 'heap',
      unit: (value) => `${format.count(value)} per second`,
      values: (bins, from, until) =>
        scaled(
          model.binned(heap.grid, from, until, bins, (i) => heap.grid.values[heapValue.allocations][i], -1),
          1e9 / perBin(from, until, bins),
        ),
    },
  ];
}

function traceTracks(model, store) {
  const { trace } = model;
  if (!trace) return [];
  const { counts } = trace;
  const classOf = trace.types.map((type) => type.class);
  const used = [...new Set(classOf)].sort((a, b) => a - b);
  return [
    {
      name: 'Kernel events',
      height: 30,
      kind: 'stack',
      color: 'class-0',
      layers: used.map((number) => ({ name: trace.classes[number], color: `class-${number}` })),
      unit: (value) => `${format.count(value)} per second`,
      values: (bins, from, until) => {
        const layers = used.map(() => new Float64Array(bins));
        const width = perBin(from, until, bins);
        const place = new Map(used.map((number, index) => [number, index]));
        forEachCell(counts, [from, until], store.thread, (i) => {
          const bin = Math.min(bins - 1, Math.max(0, Math.floor(((counts.from[i] + 0.5) * counts.sliceNs - from) / width)));
          layers[place.get(classOf[counts.node[i]])][bin] += (counts.values[0][i] * 1e9) / width;
        });
        return layers;
      },
    },
  ];
}

function censusTracks(model) {
  const { json, data } = model;
  if (!json.census) return [];
  const { machine } = json.census;
  const time = data.column(machine.time);
  const busy = data.column(machine.busyMs);
  const whole = data.column(machine.wholeMs);
  if (time.length < 2) return [];
  return [
    {
      name: 'Machine busy',
      height: 26,
      kind: 'line',
      color: 'census',
      max: 100,
      unit: (value) => `${value.toFixed(0)} %`,
      values: (bins, from, until) => {
        const values = new Float64Array(bins);
        const width = perBin(from, until, bins);
        for (let bin = 0, i = 1; bin < bins; ++bin) {
          const at = from + (bin + 0.5) * width;
          while (i < time.length - 1 && time[i] < at) ++i;
          if (at < time[0] || at > time[time.length - 1]) continue;
          const all = whole[i] - whole[i - 1];
          values[bin] = all > 0 ? (100 * (busy[i] - busy[i - 1])) / all : 0;
        }
        return values;
      },
    },
  ];
}

function scaled(values, factor) {
  for (let i = 0; i < values.length; ++i) values[i] *= factor;
  return values;
}

/** A curve of levels that hold until the next: the highest within each bin. */
function levels(slice, highest, last, sliceNs, bins, from, until) {
  const values = new Float64Array(bins);
  const width = perBin(from, until, bins);
  let i = 0;
  let level = 0;
  for (let bin = 0; bin < bins; ++bin) {
    const end = from + (bin + 1) * width;
    let top = level;
    while (i < slice.length && slice[i] * sliceNs < end) {
      if (slice[i] * sliceNs >= from + bin * width) top = Math.max(top, highest[i]);
      else top = last[i];
      level = last[i++];
    }
    values[bin] = top;
  }
  return values;
}
