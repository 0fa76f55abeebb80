// Leaks of one search: who holds whom, and what a leak takes with it. No page is needed for it.

/**
 * @typedef {{kind: ArrayLike<number>, holder: ArrayLike<number>, size: ArrayLike<number>, node: ArrayLike<number>}} Leaks
 * `holder`: number from 1 of the leak that points to it, always a smaller one; 0: none.
 */

export class LeakTree {
  /** @param {Leaks} leaks */
  constructor(leaks) {
    const count = leaks.size.length;
    this.leaks = leaks;
    this.heldBytes = Float64Array.from(leaks.size); // with all that it holds
    this.heldBlocks = new Uint32Array(count).fill(1);
    this.first = new Int32Array(count + 1).fill(-1); // by holder
    this.next = new Int32Array(count).fill(-1);
    for (let i = count - 1; i >= 0; --i) {
      const holder = leaks.holder[i] <= i ? leaks.holder[i] : 0;
      this.next[i] = this.first[holder];
      this.first[holder] = i;
      if (holder > 0) {
        this.heldBytes[holder - 1] += this.heldBytes[i];
        this.heldBlocks[holder - 1] += this.heldBlocks[i];
      }
    }
  }

  /** What leak number `holder` (from 1) points to; 0: what no leak holds. Most bytes first. */
  heldBy(holder) {
    const list = [];
    for (let i = this.first[holder]; i !== -1; i = this.next[i]) list.push(i);
    return list.sort((a, b) => this.heldBytes[b] - this.heldBytes[a]);
  }

  /** Leaks that no leak holds, by where they were allocated; most bytes first. */
  bySite() {
    const groups = new Map();
    for (const leak of this.heldBy(0)) {
      const node = this.leaks.node[leak];
      let group = groups.get(node);
      if (!group) groups.set(node, (group = { node, leaks: [], bytes: 0, blocks: 0 }));
      group.leaks.push(leak);
      group.bytes += this.heldBytes[leak];
      group.blocks += this.heldBlocks[leak];
    }
    return [...groups.values()].sort((a, b) => b.bytes - a.bytes);
  }
}
