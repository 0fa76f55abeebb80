// A flame graph on a canvas: some ten thousand frames are drawn within a few milliseconds, and only those in sight.
import { FlameLayout } from './flamelayout.js';
import { h, color, scheduled, sized } from './dom.js';
import * as format from './format.js';

const kRow = 19;
const kLeastWidth = 0.5; // pixels; thinner frames are not drawn
const kTextWidth = 26; // thinner frames have no room for a name

/**
 * What it shows.
 * @typedef {{tree: import('./aggregate.js').Tree, nameOf: (label: number) => string, moduleOf: (label: number) => string,
 *   hueOf: (label: number) => {hue: number, kind: string}, format: (weight: number) => string}} FlameData
 */

export class FlameGraph {
  /** @param {{onZoom?: () => void}} [options] */
  constructor(options = {}) {
    this.options = options;
    this.canvas = h('canvas', { 'aria-hidden': 'true' });
    this.spacer = h('div.flame-spacer', {}, this.canvas);
    this.tip = h('div.tip', { hidden: true, 'aria-hidden': 'true' });
    this.box = h(
      'div.flame-box',
      {
        tabindex: 0,
        role: 'application',
        'aria-roledescription': 'flame graph',
        'aria-label':
          'Flame graph. Arrow keys go to callers, callees and neighbours, Enter zooms to a frame, Backspace zooms out, ' +
          'Escape shows all, slash searches, n and p go through what was found.',
      },
      this.spacer,
    );
    this.line = h('output.flame-line', { 'aria-live': 'polite' });
    this.element = h('div.flame', {}, h('div.flame-place', {}, this.box, this.tip), this.line);
    this.isIcicle = false;
    this.root = 0;
    this.focus = 0;
    this.found = null;
    this.foundAt = -1;
    /** @type {FlameLayout | null} */
    this.layout = null;
    this.draw = scheduled(() => this._draw());
    this.box.addEventListener('scroll', this.draw);
    new ResizeObserver(this.draw).observe(this.box);
    this._listen();
  }

  /** Shows other data; what was zoomed to or focused stays, where the new tree has that path. @param {FlameData} data */
  show(data) {
    const rootPath = this.layout ? this._pathOf(this.root) : [];
    const focusPath = this.layout ? this._pathOf(this.focus) : [];
    this.data = data;
    this.layout = new FlameLayout(data.tree, data.nameOf);
    this.root = this._nodeAt(rootPath);
    this.focus = this._nodeAt(focusPath);
    if (this._search) this.search(this._search);
    this._place();
    this._tell(this.focus);
  }

  _pathOf(node) {
    const path = [];
    for (; node !== 0; node = this.data.tree.parent[node]) path.push(this.data.tree.label[node]);
    return path.reverse();
  }
  _nodeAt(path) {
    let node = 0;
    for (const label of path) {
      let child = this.layout.first[node];
      while (child !== -1 && this.data.tree.label[child] !== label) child = this.layout.next[child];
      if (child === -1) break;
      node = child;
    }
    return node;
  }

  setIcicle(isIcicle) {
    this.isIcicle = isIcicle;
    this._place();
  }

  /** Marks the functions whose name or module holds the text. Returns how many frames and how much weight. */
  search(text) {
    this._search = text;
    this.found = null;
    this.foundAt = -1;
    if (text && this.layout) {
      const wanted = text.toLowerCase();
      const labels = new Set();
      for (const label of new Set(this.data.tree.label)) {
        if (`${this.data.nameOf(label)}\n${this.data.moduleOf(label)}`.toLowerCase().includes(wanted)) labels.add(label);
      }
      this.found = { labels, ...this.layout.matches(labels) };
    }
    this.draw();
    return this.found;
  }

  /** Goes to the next of what was found, or to the one before. */
  goFound(step) {
    if (!this.found || this.found.nodes.length === 0) return;
    const { nodes } = this.found;
    this.foundAt = (this.foundAt + step + nodes.length) % nodes.length;
    const node = nodes[this.foundAt];
    if (!this.layout.isWithin(node, this.root)) this.root = 0;
    this._go(node);
  }

  zoom(node) {
    this.root = node;
    this._go(node);
    this._place();
    if (this.options.onZoom) this.options.onZoom();
  }

  _depthHeight() {
    return this.layout ? (this.layout.maxDepth + 1) * kRow + 2 : 0;
  }
  _y(depth) {
    return this.isIcicle ? depth * kRow : this._fullHeight() - (depth + 1) * kRow;
  }
  _fullHeight() {
    return Math.max(this._depthHeight(), this.box.clientHeight);
  }

  /** After other data or another direction: the height, and the root in sight. */
  _place() {
    this.spacer.style.height = `${this._depthHeight()}px`;
    this.box.scrollTop = this.isIcicle ? 0 : this.box.scrollHeight;
    if (this.root !== 0) this._reveal(this.root);
    this.draw();
  }
  _reveal(node) {
    const y = this._y(this.layout.depth[node]);
    const { scrollTop, clientHeight } = this.box;
    if (y < scrollTop) this.box.scrollTop = y - kRow;
    else if (y + kRow > scrollTop + clientHeight) this.box.scrollTop = y + 2 * kRow - clientHeight;
  }

  _go(node) {
    this.focus = node;
    this._reveal(node);
    this._tell(node);
    this.draw();
  }

  /** Says what a frame is, in words. */
  describe(node) {
    const { tree } = this.data;
    const all = tree.total[0];
    const weight = `${this.data.format(tree.total[node])}, ${format.percent(tree.total[node], all)}`;
    if (node === 0) return `all: ${this.data.format(all)}`;
    const label = tree.label[node];
    const module = this.data.moduleOf(label);
    const self = tree.self[node] > 0 ? `; itself ${this.data.format(tree.self[node])}, ${format.percent(tree.self[node], all)}` : '';
    return `${this.data.nameOf(label)}${module ? ` (${module})` : ''}: ${weight}${self}`;
  }
  _tell(node) {
    this.line.textContent = this.layout ? this.describe(node) : '';
  }

  _draw() {
    if (!this.layout) return;
    const width = this.box.clientWidth;
    const height = this.box.clientHeight;
    if (width === 0 || height === 0) return;
    const context = sized(this.canvas, width, height);
    const top = this.box.scrollTop;
    context.clearRect(0, 0, width, height);
    context.font = `12px ${color('font')}`;
    context.textBaseline = 'middle';
    const colors = this._colors();
    this.drawn = [];
    const { depth } = this.layout;
    this.layout.forEachVisible(this.root, width, kLeastWidth, (node, x, w) => {
      const y = this._y(depth[node]) - top;
      if (y + kRow < 0 || y > height) return;
      this.drawn.push({ node, x, w, y });
      this._drawFrame(context, colors, node, x, y, w);
    });
    const focused = this.drawn.find((frame) => frame.node === this.focus);
    if (focused && document.activeElement === this.box) {
      context.strokeStyle = colors.text;
      context.lineWidth = 2;
      context.strokeRect(focused.x + 1, focused.y + 1, Math.max(2, focused.w - 2), kRow - 3);
    }
    if (!(this.data.tree.total[0] > 0)) {
      context.fillStyle = colors.dim;
      context.textAlign = 'center';
      context.fillText('Nothing in this span and thread.', width / 2, height / 2);
    }
  }

  _colors() {
    const dark = document.documentElement.dataset.theme === 'dark';
    return {
      dark,
      text: color('text'),
      dim: color('dim'),
      frame: color('frame'),
      found: color('found'),
      onFound: color('on-found'),
      cache: new Map(),
      rootColor: color('frame-root'),
    };
  }

  _colorOf(label, colors) {
    let known = colors.cache.get(label);
    if (!known) {
      const { hue, kind, shade } = this.data.hueOf(label);
      const light = colors.dark ? 32 + shade * 10 : 72 + shade * 10;
      const strength = kind === 'unknown' ? 0 : colors.dark ? 42 : 62;
      known = `hsl(${hue} ${strength}% ${light}%)`;
      colors.cache.set(label, known);
    }
    return known;
  }

  _drawFrame(context, colors, node, x, y, w) {
    const { tree } = this.data;
    const label = tree.label[node];
    const isFound = this.found && this.found.labels.has(label) && node !== 0;
    context.globalAlpha = (this.found && !isFound) || !this.layout.isWithin(node, this.root) ? 0.45 : 1;
    context.fillStyle = node === 0 ? colors.rootColor : isFound ? colors.found : this._colorOf(label, colors);
    context.fillRect(x, y, Math.max(0.6, w - (w > 3 ? 1 : 0)), kRow - 1);
    context.globalAlpha = this.found && !isFound ? 0.75 : 1;
    if (w < kTextWidth) return;
    context.fillStyle = isFound ? colors.onFound : colors.frame;
    const name = node === 0 ? 'all' : this.data.nameOf(label);
    const shown = fitted(context, name, w - 8);
    context.textAlign = 'left';
    if (shown) context.fillText(shown, Math.max(x, 0) + 4, y + kRow / 2);
    context.globalAlpha = 1;
  }

  _hit(event) {
    const box = this.box.getBoundingClientRect();
    const x = event.clientX - box.left;
    const y = event.clientY - box.top;
    let best = -1;
    for (const frame of this.drawn || []) {
      if (y >= frame.y && y < frame.y + kRow && x >= frame.x - 0.5 && x < frame.x + Math.max(frame.w, 1.5)) best = frame.node;
    }
    return best;
  }

  _listen() {
    const { box } = this;
    box.addEventListener('pointermove', (event) => {
      const node = this._hit(event);
      box.style.cursor = node > 0 ? 'pointer' : 'default';
      this.tip.hidden = node <= 0;
      if (node <= 0) return;
      this.tip.textContent = this.describe(node);
      const place = this.tip.parentElement.getBoundingClientRect();
      const x = event.clientX - place.left;
      const y = event.clientY - place.top;
      const below = y + 18 + this.tip.offsetHeight < place.height;
      this.tip.style.left = `${Math.max(0, Math.min(x + 12, place.width - this.tip.offsetWidth - 8))}px`;
      this.tip.style.top = `${Math.max(0, below ? y + 18 : y - this.tip.offsetHeight - 8)}px`;
    });
    box.addEventListener('pointerleave', () => (this.tip.hidden = true));
    box.addEventListener('click', (event) => {
      const node = this._hit(event);
      if (node >= 0) this.zoom(node);
    });
    box.addEventListener('focus', this.draw);
    box.addEventListener('blur', this.draw);
    box.addEventListener('keydown', (event) => this._onKey(event));
  }

  _onKey(event) {
    if (!this.layout || event.ctrlKey || event.metaKey || event.altKey) return;
    const { tree } = this.data;
    const inward = () => this.layout.heaviestChild(this.focus);
    const outward = () => (this.focus === 0 ? 0 : tree.parent[this.focus]);
    const go = (node) => {
      if (node === -1) return;
      if (!this.layout.isWithin(node, this.root)) this.root = node;
      this._go(node);
    };
    const keys = {
      ArrowUp: () => go(this.isIcicle ? outward() : inward()),
      ArrowDown: () => go(this.isIcicle ? inward() : outward()),
      ArrowLeft: () => go(this.layout.sibling(this.focus, -1)),
      ArrowRight: () => go(this.layout.sibling(this.focus, 1)),
      Home: () => go(0),
      Enter: () => this.zoom(this.focus),
      ' ': () => this.zoom(this.focus),
      Backspace: () => this.zoom(this.root === 0 ? 0 : tree.parent[this.root]),
      Escape: () => this.zoom(0),
      n: () => this.goFound(1),
      p: () => this.goFound(-1),
    };
    if (!keys[event.key]) return;
    keys[event.key]();
    event.preventDefault();
    event.stopPropagation();
  }
}

/** As much of a name as fits, with an ellipsis; empty when hardly anything does. */
function fitted(context, name, width) {
  const text = format.shortName(name, Math.max(10, Math.floor(width / 5)));
  if (context.measureText(text).width <= width) return text;
  let low = 0;
  let high = text.length;
  while (low < high) {
    const middle = (low + high + 1) >> 1;
    if (context.measureText(`${text.slice(0, middle)}…`).width <= width) low = middle;
    else high = middle - 1;
  }
  return low < 2 ? '' : `${text.slice(0, low)}…`;
}
