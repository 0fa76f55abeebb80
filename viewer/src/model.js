// The recording as the page's parts use it: names, threads, and the sources of weights that can be drawn.
import { binned, gridOf } from './aggregate.js';
import * as format from './format.js';

// Values of the heap's grid, as rumbel/view/HeapHistory.h numbers them.
export const heapValue = { allocations: 0, allocatedBytes: 1, frees: 2, freedBytes: 3, left: 4, leftBytes: 5 };
const kNotKernel = 4; // PageFunctions: kinds from here on are the kernel's
const kFunctionKind = 0;

export class Model {
  /** @param {import('./data.js').PageData} data */
  constructor(data) {
    const { json } = data;
    this.data = data;
    this.json = json;
    this.names = json.functions.names;
    this.modules = data.column(json.functions.module);
    this.kinds = data.column(json.functions.kind);
    this.moduleNames = json.functions.moduleNames;
    this.modulePaths = json.functions.modulePaths;
    this.hues = hues(this.moduleNames);
    this.threads = json.threads.names.map((name, index) => ({
      index,
      pid: data.column(json.threads.pid)[index],
      tid: data.column(json.threads.tid)[index],
      name,
    }));
    this.stacks = json.stacks && { ...json.stacks, grid: gridOf(data, json.stacks.grid), calls: this.callsOf(json.stacks.tree) };
    this.heap = json.heap && { ...json.heap, grid: gridOf(data, json.heap.grid), calls: this.callsOf(json.heap.tree) };
    this.trace = json.trace && {
      ...json.trace,
      types: json.trace.types.map((type) => ({ ...type, name: type.name.replace(/^\w+:/, '') })), // without the tracepoint's group
      counts: gridOf(data, json.trace.counts),
      off: gridOf(data, json.trace.off),
      calls: this.callsOf(json.trace.tree),
    };
    this.sources = this._sources();
    this._addThreadTimes();
  }

  /** A call tree of the page's data. */
  callsOf(json) {
    return { caller: this.data.column(json.caller), function: this.data.column(json.function), pruned: json.pruned };
  }

  /** What can be drawn as a flame graph. */
  _sources() {
    const sources = [];
    const { stacks, heap, trace } = this;
    if (stacks) {
      const interval = stacks.intervalNs || 1;
      sources.push({ key: 'cpu', name: 'On the processor', part: stacks, grid: stacks.grid, value: 0, scale: interval, format: format.time, threads: true });
      if (stacks.hasBlocked)
        sources.push({ key: 'blocked', name: 'Off the processor', part: stacks, grid: stacks.grid, value: 1, scale: 1, format: format.time, threads: true });
    }
    if (trace && trace.off.from.length > 0 && trace.calls.caller.length > 1)
      sources.push({ key: 'off', name: 'Off the processor (kernel events)', part: trace, grid: trace.off, value: 1, scale: 1, format: format.time, threads: true });
    if (heap && heap.grid.from.length > 0) {
      const byBytes = { part: heap, grid: heap.grid, scale: 1, format: format.bytes, threads: false };
      sources.push(
        { key: 'allocated', name: 'Allocated bytes', value: heapValue.allocatedBytes, ...byBytes },
        { key: 'left', name: 'Never freed bytes', value: heapValue.leftBytes, ...byBytes },
        { key: 'blocks', name: 'Allocated blocks', value: heapValue.allocations, ...byBytes, format: (n) => format.plural(n, 'block') },
      );
    }
    return sources;
  }

  /** Processor and waiting time of each thread, over all. */
  _addThreadTimes() {
    for (const thread of this.threads) thread.cpuNs = thread.offNs = thread.events = 0;
    const add = (grid, value, key, scale) => {
      for (let i = 0; i < grid.from.length; ++i) this.threads[grid.thread[i]][key] += grid.values[value][i] * scale;
    };
    if (this.stacks) {
      add(this.stacks.grid, 0, 'cpuNs', this.stacks.intervalNs || 1);
      if (this.stacks.hasBlocked) add(this.stacks.grid, 1, 'offNs', 1);
    }
    if (this.trace) {
      add(this.trace.counts, 0, 'events', 1);
      if (!this.offByStacks) add(this.trace.off, 1, 'offNs', 1);
    }
  }
  /** Waiting is known from samples; else from kernel events. */
  get offByStacks() {
    return Boolean(this.stacks && this.stacks.hasBlocked);
  }

  /** Threads worth choosing from: those that ran or waited. */
  activeThreads() {
    return this.threads.filter((thread) => thread.cpuNs > 0 || thread.offNs > 0).sort((a, b) => b.cpuNs - a.cpuNs || b.offNs - a.offNs);
  }

  nameOf(label) {
    return label >= 0 ? this.names[label] : this.threadName(-1 - label);
  }
  moduleOf(label) {
    return label >= 0 ? this.moduleNames[this.modules[label]] : '';
  }
  pathOf(label) {
    return label >= 0 ? this.modulePaths[this.modules[label]] : '';
  }
  threadName(index) {
    const thread = this.threads[index];
    return `${thread.name || 'thread'} (${thread.tid})`;
  }
  /** Colours tell modules apart; shades, functions. */
  hueOf(label) {
    if (label < 0) return { hue: 210, kind: 'thread', shade: 0.5 };
    const kind = this.kinds[label];
    const shade = ((label * 2654435761) % 997) / 997;
    if (kind % kNotKernel !== kFunctionKind) return { hue: 0, kind: 'unknown', shade };
    return { hue: this.hues[this.modules[label]], kind: kind >= kNotKernel ? 'kernel' : 'function', shade };
  }

  /** What one thread or all did, in equal parts of a span. */
  binned(grid, from, until, bins, weight, thread) {
    return binned(grid, from, until, bins, weight, thread);
  }
}

/** Neighbours in the list get hues that are far apart; the kernel has its own. */
function hues(moduleNames) {
  const kKernelHue = 18;
  let next = 0;
  return moduleNames.map((name) => {
    if (name.startsWith('[')) return kKernelHue;
    const hue = (95 + next++ * 137.5) % 360;
    return hue < 40 || hue > 340 ? (hue + 70) % 360 : hue; // away from the kernel's
  });
}
