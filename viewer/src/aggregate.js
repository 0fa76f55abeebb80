// From a grid (what happened in which slice of time, in which thread, at which node) to weights of nodes, and from call
// trees to those that are drawn. No page is needed for any of it.

/**
 * One of rumbel/view/TimeGrid.h's grids.
 * @typedef {{sliceNs: number, from: ArrayLike<number>, span: ArrayLike<number>, thread: ArrayLike<number>,
 *            node: ArrayLike<number>, values: ArrayLike<number>[]}} Grid
 */

/** @returns {Grid} */
export function gridOf(data, json) {
  return {
    sliceNs: json.sliceNs,
    from: data.column(json.from),
    span: data.column(json.span),
    thread: data.column(json.thread),
    node: data.column(json.node),
    values: json.values.map((number) => data.column(number)),
  };
}

/**
 * Calls `onCell(index, share)` for each cell of the range and threads; `share` is the part of a longer span that lies in
 * the range. Costs a few ns a cell.
 * @param {[number, number] | null} range in ns; null: all
 * @param {number} thread -1: all
 */
export function forEachCell(grid, range, thread, onCell) {
  const { from, span, sliceNs } = grid;
  const first = range ? range[0] / sliceNs : -Infinity;
  const last = range ? range[1] / sliceNs : Infinity;
  for (let i = 0; i < from.length; ++i) {
    if (thread >= 0 && grid.thread[i] !== thread) continue;
    const begin = from[i];
    const length = span[i];
    if (length === 0) {
      // An instant belongs to the range that its slice's middle lies in, so that neighbouring ranges share none.
      if (begin + 0.5 >= first && begin + 0.5 < last) onCell(i, 1);
      continue;
    }
    const overlap = Math.min(last, begin + length + 0.5) - Math.max(first, begin + 0.5);
    if (overlap > 0) onCell(i, Math.min(1, overlap / length));
  }
}

/** Sums of one value for each node. */
export function nodeWeights(grid, value, nodeCount, range, thread) {
  const sums = new Float64Array(nodeCount);
  const column = grid.values[value];
  forEachCell(grid, range, thread, (i, share) => {
    sums[grid.node[i]] += column[i] * share;
  });
  return sums;
}

/**
 * A tree to draw. Node 0 is above all; a node's parent stands before it.
 * `label`: a function's number, or -1 less a thread's.
 * @typedef {{parent: Int32Array, label: Int32Array, self: Float64Array, total: Float64Array}} Tree
 */

/** Adds up what each node weighs with all below it. @returns {Tree} */
function withTotals(parent, label, self) {
  const total = Float64Array.from(self);
  for (let i = total.length - 1; i > 0; --i) total[parent[i]] += total[i];
  return { parent: Int32Array.from(parent), label: Int32Array.from(label), self: Float64Array.from(self), total };
}

/** @param {{caller: ArrayLike<number>, function: ArrayLike<number>}} calls */
export function callTree(calls, weights) {
  return withTotals(calls.caller, calls.function, weights);
}

/** Trees grow node by node here; a node is found again by its parent and label. */
class Growing {
  constructor() {
    this.parent = [0];
    this.label = [0];
    this.self = [0];
    this._children = new Map();
  }
  child(parent, label) {
    const key = parent * 0x80000000 + (label + 0x40000000);
    let node = this._children.get(key);
    if (node === undefined) {
      node = this.parent.length;
      this.parent.push(parent);
      this.label.push(label);
      this.self.push(0);
      this._children.set(key, node);
    }
    return node;
  }
  tree() {
    return withTotals(this.parent, this.label, this.self);
  }
}

/** The same paths from the innermost function outwards: who calls what costs most. Bounded by `maxNodes`. */
export function callerTree(calls, weights, maxNodes = 400_000) {
  const growing = new Growing();
  for (let leaf = 1; leaf < weights.length; ++leaf) {
    if (weights[leaf] <= 0) continue;
    let place = 0;
    for (let node = leaf; node !== 0; node = calls.caller[node]) {
      if (growing.parent.length >= maxNodes && place !== 0) break;
      place = growing.child(place, calls.function[node]);
    }
    growing.self[place] += weights[leaf];
  }
  return growing.tree();
}

/** Call paths below the thread that they ran in. */
export function threadTree(grid, value, calls, range, thread) {
  const growing = new Growing();
  const known = new Map(); // thread and node of the call tree -> node of the growing tree
  const place = (inThread, node) => {
    if (node === 0) return growing.child(0, -1 - inThread);
    const key = inThread * 0x4000000 + node;
    let found = known.get(key);
    if (found === undefined) {
      found = growing.child(place(inThread, calls.caller[node]), calls.function[node]);
      known.set(key, found);
    }
    return found;
  };
  const column = grid.values[value];
  forEachCell(grid, range, thread, (i, share) => {
    const weight = column[i] * share;
    if (weight > 0) growing.self[place(grid.thread[i], grid.node[i])] += weight;
  });
  return growing.tree();
}

/**
 * Weights of functions: of their own, and with what they called. A path counts once for a function however often that
 * stands in it.
 * @returns {{label: number, self: number, total: number}[]}
 */
export function functionWeights(tree) {
  const byLabel = new Map();
  const entry = (label) => {
    let known = byLabel.get(label);
    if (!known) byLabel.set(label, (known = { label, self: 0, total: 0, open: 0 }));
    return known;
  };
  // Depth first, so that it is known which functions are open above a node.
  const { first, next } = childLists(tree);
  const stack = [first[0]];
  const path = [];
  while (stack.length > 0) {
    const node = stack[stack.length - 1];
    if (node === -1) {
      stack.pop();
      const done = path.pop();
      if (done) --done.open;
      continue;
    }
    stack[stack.length - 1] = next[node];
    const known = entry(tree.label[node]);
    known.self += tree.self[node];
    if (known.open === 0) known.total += tree.total[node];
    ++known.open;
    path.push(known);
    stack.push(first[node]);
  }
  return [...byLabel.values()].filter((known) => known.total > 0).map(({ label, self, total }) => ({ label, self, total }));
}

/** For each node its first child and its next sibling, -1 where there is none. */
export function childLists(tree) {
  const size = tree.parent.length;
  const first = new Int32Array(size).fill(-1);
  const next = new Int32Array(size).fill(-1);
  for (let node = size - 1; node > 0; --node) {
    const parent = tree.parent[node];
    next[node] = first[parent];
    first[parent] = node;
  }
  return { first, next };
}

/**
 * Sums of a grid for `bins` equal parts of [from, until).
 * @param {(cell: number) => number} weight of a cell
 */
export function binned(grid, from, until, bins, weight, thread = -1) {
  const sums = new Float64Array(bins);
  const width = (until - from) / bins;
  const slice = grid.sliceNs;
  forEachCell(grid, [from, until], thread, (i) => {
    const value = weight(i);
    if (value === 0) return;
    const begin = grid.from[i] * slice;
    const end = (grid.from[i] + (grid.span[i] || 1)) * slice;
    const firstBin = Math.max(0, Math.floor((begin - from) / width));
    const lastBin = Math.min(bins - 1, Math.floor((end - from) / width));
    if (firstBin >= lastBin) {
      sums[Math.min(bins - 1, firstBin)] += value * Math.min(1, (end - Math.max(begin, from)) / (end - begin));
      return;
    }
    for (let bin = firstBin; bin <= lastBin; ++bin) {
      const overlap = Math.min(end, from + (bin + 1) * width) - Math.max(begin, from + bin * width);
      sums[bin] += (value * Math.max(0, overlap)) / (end - begin);
    }
  });
  return sums;
}
