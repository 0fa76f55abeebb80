// What the user has chosen; every part of the page listens.

/** @typedef {'range' | 'view' | 'thread' | 'theme' | 'tab' | 'search'} Topic */

export class Store {
  constructor(fromNs, untilNs) {
    this.fromNs = fromNs;
    this.untilNs = Math.max(untilNs, fromNs + 1000);
    /** @type {[number, number] | null} selected span in ns; null: all of it */
    this.range = null;
    /** @type {[number, number]} what the time line shows */
    this.view = [this.fromNs, this.untilNs];
    this.thread = -1; // -1: all
    this.search = '';
    this._listeners = new Map();
  }

  /** @param {Topic[]} topics */
  on(topics, listener) {
    for (const topic of topics) {
      if (!this._listeners.has(topic)) this._listeners.set(topic, []);
      this._listeners.get(topic).push(listener);
    }
  }
  tell(topic) {
    for (const listener of this._listeners.get(topic) || []) listener(topic);
  }

  /** A span smaller than a microsecond selects nothing. */
  setRange(range) {
    if (range) {
      const a = Math.max(this.fromNs, Math.min(range[0], range[1]));
      const b = Math.min(this.untilNs, Math.max(range[0], range[1]));
      range = b - a >= 1000 ? [a, b] : null;
    }
    if (String(range) === String(this.range)) return;
    this.range = range;
    this.tell('range');
  }
  setView(view) {
    const length = Math.min(this.untilNs - this.fromNs, Math.max(10_000, view[1] - view[0]));
    const from = Math.max(this.fromNs, Math.min(view[0], this.untilNs - length));
    this.view = [from, from + length];
    this.tell('view');
  }
  setThread(thread) {
    if (thread === this.thread) return;
    this.thread = thread;
    this.tell('thread');
  }
  setSearch(text) {
    if (text === this.search) return;
    this.search = text;
    this.tell('search');
  }
  /** The selected span, or all. */
  span() {
    return this.range || [this.fromNs, this.untilNs];
  }
}
