// Where the frames of a flame graph lie. No page is needed for it.
import { childLists } from './aggregate.js';

/** A tree laid out: every frame has its place in the width, callers beside each other by name. */
export class FlameLayout {
  /**
   * @param {import('./aggregate.js').Tree} tree
   * @param {(label: number) => string} nameOf
   */
  constructor(tree, nameOf) {
    this.tree = tree;
    const size = tree.parent.length;
    this.depth = new Uint16Array(size);
    this.x = new Float64Array(size); // in the tree's weights
    const { first, next } = childLists(tree);
    const names = new Map();
    const name = (node) => {
      const label = tree.label[node];
      let known = names.get(label);
      if (known === undefined) names.set(label, (known = nameOf(label)));
      return known;
    };
    this.first = first;
    this.next = next;
    this.maxDepth = 0;
    for (let node = 0; node < size; ++node) {
      const children = [];
      for (let child = first[node]; child !== -1; child = next[child]) {
        if (tree.total[child] > 0) children.push(child);
      }
      if (children.length > 1) children.sort((a, b) => (name(a) < name(b) ? -1 : name(a) > name(b) ? 1 : a - b));
      let x = this.x[node];
      for (let i = 0; i < children.length; ++i) {
        const child = children[i];
        this.x[child] = x;
        x += tree.total[child];
        this.depth[child] = Math.min(0xffff, this.depth[node] + 1);
        if (this.depth[child] > this.maxDepth) this.maxDepth = this.depth[child];
        next[child] = i + 1 < children.length ? children[i + 1] : -1;
      }
      first[node] = children.length > 0 ? children[0] : -1;
    }
  }

  /**
   * Calls `onFrame(node, x, width)` for each frame at least `least` wide when `root` fills `width`; its callers fill it,
   * too. All in pixels.
   */
  forEachVisible(root, width, least, onFrame) {
    const { tree } = this;
    if (!(tree.total[root] > 0)) return;
    const scale = width / tree.total[root];
    for (let node = root; node !== 0; node = tree.parent[node]) {
      if (node !== root) onFrame(node, 0, width);
    }
    if (root !== 0) onFrame(0, 0, width);
    const waiting = [root];
    while (waiting.length > 0) {
      const node = waiting.pop();
      onFrame(node, (this.x[node] - this.x[root]) * scale, tree.total[node] * scale);
      for (let child = this.first[node]; child !== -1; child = this.next[child]) {
        if (tree.total[child] * scale >= least) waiting.push(child);
      }
    }
  }

  /** Frames whose label is in `labels`, and the weight below them, none counted twice. */
  matches(labels) {
    const { tree } = this;
    const nodes = [];
    let weight = 0;
    const inside = new Uint8Array(tree.parent.length);
    for (let node = 1; node < tree.parent.length; ++node) {
      if (!(tree.total[node] > 0)) continue;
      const isMatch = labels.has(tree.label[node]);
      if (isMatch) nodes.push(node);
      if (isMatch && !inside[tree.parent[node]]) weight += tree.total[node];
      inside[node] = isMatch || inside[tree.parent[node]] ? 1 : 0;
    }
    nodes.sort((a, b) => tree.total[b] - tree.total[a]);
    return { nodes, weight };
  }

  /** The child that weighs most, or -1. */
  heaviestChild(node) {
    let best = -1;
    for (let child = this.first[node]; child !== -1; child = this.next[child]) {
      if (best === -1 || this.tree.total[child] > this.tree.total[best]) best = child;
    }
    return best;
  }

  /** The frame beside this one, `step` 1 to the right and -1 to the left; itself at an end. */
  sibling(node, step) {
    if (node === 0) return 0;
    let before = -1;
    for (let child = this.first[this.tree.parent[node]]; child !== -1; child = this.next[child]) {
      if (child === node) return (step > 0 ? this.next[child] : before) === -1 ? node : step > 0 ? this.next[child] : before;
      before = child;
    }
    return node;
  }

  /** Whether `node` is `above` or below it. */
  isWithin(node, above) {
    while (node !== 0 && node !== above) node = this.tree.parent[node];
    return node === above;
  }
}
