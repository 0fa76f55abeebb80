// The time line: every instrument's course over the same span, and the brush that selects a part of it.
import { h, color, scheduled, sized } from './dom.js';
import * as format from './format.js';

const kGutter = 132;
const kRight = 10;
const kAxis = 20;
const kGap = 3; // between tracks

/**
 * A track is one row: `values(bins, from, until)` gives what is drawn.
 * @typedef {{name: string, height: number, kind: 'area' | 'stack' | 'heat' | 'line', color: string,
 *   layers?: {name: string, color: string}[], max?: number, unit: (value: number) => string,
 *   values: (bins: number, from: number, until: number) => Float64Array | Float64Array[]}} Track
 */

export class Timeline {
  /** @param {import('./store.js').Store} store @param {Track[]} tracks */
  constructor(store, tracks) {
    this.store = store;
    this.tracks = tracks;
    this.canvas = h('canvas', { 'aria-hidden': 'true' });
    this.tip = h('div.tip', { hidden: true, 'aria-hidden': 'true' });
    this.box = h(
      'div.timeline-box',
      {
        tabindex: 0,
        role: 'application',
        'aria-roledescription': 'time line',
        'aria-label':
          'Time line. Arrow keys move the selected span, with Shift its end, plus and minus zoom, Enter zooms to the ' +
          'selection, Escape clears it.',
      },
      this.canvas,
      this.tip,
    );
    this.fromInput = this._secondsInput('Selection from, in seconds');
    this.untilInput = this._secondsInput('Selection to, in seconds');
    this.status = h('output.span-text', { 'aria-live': 'polite' });
    this.element = h('section.timeline', { 'aria-label': 'Time line' }, this._toolbar(), this.box);
    this._cache = new Map();
    this.draw = scheduled(() => this._draw());
    this._listen();
    store.on(['view', 'thread', 'theme'], () => {
      this._cache.clear();
      this.draw();
    });
    store.on(['range', 'view'], () => this._showRange());
    new ResizeObserver(() => {
      this._cache.clear();
      this.draw();
    }).observe(this.box);
    this._showRange();
  }

  _secondsInput(label) {
    const input = h('input.seconds', { type: 'text', inputmode: 'decimal', 'aria-label': label, spellcheck: 'false' });
    input.addEventListener('change', () => {
      const span = this.store.span();
      const parse = (text, fallback) => (Number.isFinite(parseFloat(text)) ? parseFloat(text) * 1e9 : fallback);
      this.store.setRange([parse(this.fromInput.value, span[0]), parse(this.untilInput.value, span[1])]);
      this._showRange();
    });
    return input;
  }

  _toolbar() {
    const button = (text, title, run) => h('button', { type: 'button', title, 'aria-label': title, onclick: run }, text);
    return h(
      'div.toolbar',
      {},
      h('span.toolbar-title', {}, 'Time'),
      this.fromInput,
      h('span', { 'aria-hidden': 'true' }, 'to'),
      this.untilInput,
      h('span.dim', { 'aria-hidden': 'true' }, 's'),
      this.status,
      h('span.grow'),
      button('Zoom to selection', 'Zoom to the selection', () => this._zoomToRange()),
      button('−', 'Zoom out', () => this._zoom(2)),
      button('+', 'Zoom in', () => this._zoom(0.5)),
      button('Show all', 'Show the whole recording', () => this.store.setView([this.store.fromNs, this.store.untilNs])),
      button('Clear', 'Clear the selection', () => this.store.setRange(null)),
    );
  }

  _showRange() {
    const { store } = this;
    const span = store.span();
    const digits = Math.max(3, Math.min(9, 4 - Math.floor(Math.log10((span[1] - span[0]) / 1e9))));
    this.fromInput.value = (span[0] / 1e9).toFixed(digits);
    this.untilInput.value = (span[1] / 1e9).toFixed(digits);
    this.status.textContent = store.range ? `${format.time(span[1] - span[0])} selected` : 'all of it';
    this.element.classList.toggle('has-range', Boolean(store.range));
    this.draw();
  }

  // Places.
  _width() {
    return Math.max(10, this.box.clientWidth - kGutter - kRight);
  }
  _x(ns) {
    const [from, until] = this.store.view;
    return kGutter + ((ns - from) / (until - from)) * this._width();
  }
  _ns(x) {
    const [from, until] = this.store.view;
    return from + ((x - kGutter) / this._width()) * (until - from);
  }

  _listen() {
    const { box, store } = this;
    let drag = null;
    box.addEventListener('pointerdown', (event) => {
      if (event.button !== 0) return;
      const x = event.clientX - box.getBoundingClientRect().left;
      if (x < kGutter) return;
      box.setPointerCapture(event.pointerId);
      const range = store.range;
      const near = (ns) => range && Math.abs(this._x(ns) - x) < 6;
      // An edge is dragged; inside the selection, with Shift, all of it; elsewhere a new one begins.
      if (range && near(range[0])) drag = { anchor: range[1] };
      else if (range && near(range[1])) drag = { anchor: range[0] };
      else if (range && event.shiftKey && x > this._x(range[0]) && x < this._x(range[1]))
        drag = { move: this._ns(x), range };
      else drag = { anchor: this._ns(x), isNew: true, x };
    });
    box.addEventListener('pointermove', (event) => {
      const x = event.clientX - box.getBoundingClientRect().left;
      this._showTip(x, event.clientY - box.getBoundingClientRect().top);
      if (!drag) return;
      const ns = this._ns(Math.max(kGutter, Math.min(kGutter + this._width(), x)));
      if (drag.move !== undefined) store.setRange(this._moved(drag.range, ns - drag.move));
      else if (!drag.isNew || Math.abs(x - drag.x) > 3) store.setRange([drag.anchor, ns]);
    });
    const end = (event) => {
      if (drag && drag.isNew && Math.abs(event.clientX - box.getBoundingClientRect().left - drag.x) <= 3)
        store.setRange(null);
      drag = null;
    };
    box.addEventListener('pointerup', end);
    box.addEventListener('pointercancel', () => (drag = null));
    box.addEventListener('pointerleave', () => (this.tip.hidden = true));
    box.addEventListener('dblclick', () => this._zoomToRange());
    box.addEventListener(
      'wheel',
      (event) => {
        if (!event.ctrlKey && Math.abs(event.deltaX) <= Math.abs(event.deltaY) && !event.shiftKey && !event.altKey) {
          event.preventDefault();
          const at = this._ns(event.clientX - box.getBoundingClientRect().left);
          this._zoom(event.deltaY > 0 ? 1.25 : 0.8, at);
        } else {
          event.preventDefault();
          const [from, until] = store.view;
          const by = ((event.deltaX || event.deltaY) / this._width()) * (until - from);
          store.setView([from + by, until + by]);
        }
      },
      { passive: false },
    );
    box.addEventListener('keydown', (event) => this._onKey(event));
  }

  _moved(range, by) {
    const { store } = this;
    const room = Math.max(store.fromNs - range[0], Math.min(store.untilNs - range[1], by));
    return [range[0] + room, range[1] + room];
  }

  _onKey(event) {
    const { store } = this;
    const [from, until] = store.view;
    const step = (until - from) / (event.ctrlKey ? 500 : 50);
    const range = store.range || [from, from + (until - from) / 10];
    const keys = {
      ArrowLeft: () => store.setRange(event.shiftKey ? [range[0], range[1] - step] : this._moved(range, store.range ? -step : 0)),
      ArrowRight: () => store.setRange(event.shiftKey ? [range[0], range[1] + step] : this._moved(range, store.range ? step : 0)),
      '+': () => this._zoom(0.5),
      '=': () => this._zoom(0.5),
      '-': () => this._zoom(2),
      Enter: () => this._zoomToRange(),
      Escape: () => store.setRange(null),
      Home: () => store.setView([store.fromNs, store.untilNs]),
    };
    if (!keys[event.key]) return;
    keys[event.key]();
    event.preventDefault();
    event.stopPropagation();
  }

  _zoom(factor, at) {
    const { store } = this;
    const [from, until] = store.view;
    const centre = at === undefined ? (store.range ? (store.range[0] + store.range[1]) / 2 : (from + until) / 2) : at;
    store.setView([centre - (centre - from) * factor, centre + (until - centre) * factor]);
  }
  _zoomToRange() {
    const { store } = this;
    if (!store.range) return;
    const margin = (store.range[1] - store.range[0]) / 20;
    store.setView([store.range[0] - margin, store.range[1] + margin]);
  }

  _values(track) {
    const bins = Math.max(10, Math.floor(this._width() / 2));
    let values = this._cache.get(track);
    if (!values) {
      values = track.values(bins, this.store.view[0], this.store.view[1]);
      if (values instanceof Float64Array) values = [values];
      this._cache.set(track, values);
    }
    return values;
  }

  _height() {
    return this.tracks.reduce((sum, track) => sum + track.height + kGap, kAxis);
  }

  _draw() {
    const width = this.box.clientWidth;
    if (width === 0) return;
    const height = this._height();
    const context = sized(this.canvas, width, height);
    context.clearRect(0, 0, width, height);
    this._drawAxis(context, height);
    let y = kAxis;
    for (const track of this.tracks) {
      this._drawTrack(context, track, y);
      y += track.height + kGap;
    }
    this._drawBrush(context, height);
  }

  _drawAxis(context, height) {
    const [from, until] = this.store.view;
    const width = this._width();
    const span = until - from;
    const rough = span / Math.max(2, width / 110);
    const power = 10 ** Math.floor(Math.log10(rough));
    const step = [1, 2, 5, 10].map((factor) => factor * power).find((candidate) => candidate >= rough);
    context.font = `11px ${color('font')}`;
    context.textBaseline = 'middle';
    for (let ns = Math.ceil(from / step) * step; ns <= until; ns += step) {
      const x = Math.round(this._x(ns)) + 0.5;
      context.fillStyle = color('line');
      context.fillRect(x - 0.5, kAxis - 4, 1, height - kAxis + 4);
      context.fillStyle = color('dim');
      context.textAlign = ns - from < step / 3 ? 'left' : 'center';
      context.fillText(format.clock(ns, span), x, 8);
    }
  }

  _drawTrack(context, track, y) {
    const width = this._width();
    context.fillStyle = color('text');
    context.font = `12px ${color('font')}`;
    context.textAlign = 'left';
    context.textBaseline = 'middle';
    const labelY = track.height < 24 ? y + track.height / 2 : y + 8;
    context.save();
    context.beginPath();
    context.rect(0, y - kGap, kGutter - 6, track.height + 2 * kGap);
    context.clip();
    if (track.height < 14) context.font = `10.5px ${color('font')}`;
    context.fillText(track.name, 4, labelY + 0.5);
    context.restore();
    const layers = this._values(track);
    const bins = layers[0].length;
    let max = track.max || 0;
    if (!track.max) {
      for (let bin = 0; bin < bins; ++bin) {
        const sum = layers.reduce((all, layer) => all + layer[bin], 0);
        if (sum > max) max = sum;
      }
    }
    if (track.height >= 24) {
      context.fillStyle = color('dim');
      context.font = `10.5px ${color('font')}`;
      context.fillText(max > 0 ? `to ${track.unit(max)}` : 'nothing', 4, y + 21);
    }
    context.fillStyle = color('track');
    context.fillRect(kGutter, y, width, track.height);
    if (!(max > 0)) return;
    if (track.kind === 'heat') this._drawHeat(context, track, layers[0], max, y);
    else this._drawLayers(context, track, layers, max, y);
  }

  _drawHeat(context, track, values, max, y) {
    const step = this._width() / values.length;
    context.fillStyle = color(track.color);
    for (let bin = 0; bin < values.length; ++bin) {
      if (!(values[bin] > 0)) continue;
      context.globalAlpha = 0.25 + 0.75 * Math.min(1, values[bin] / max);
      context.fillRect(kGutter + bin * step, y, Math.ceil(step), track.height);
    }
    context.globalAlpha = 1;
  }

  _drawLayers(context, track, layers, max, y) {
    const bins = layers[0].length;
    const step = this._width() / bins;
    const base = new Float64Array(bins);
    const bottom = y + track.height;
    const scale = (track.height - 2) / max;
    layers.forEach((layer, index) => {
      context.fillStyle = color(track.layers ? track.layers[index].color : track.color);
      context.globalAlpha = track.kind === 'line' ? 0.35 : 0.9;
      context.beginPath();
      for (let bin = 0; bin < bins; ++bin) {
        if (!(layer[bin] > 0)) continue;
        const top = Math.min(track.height, (base[bin] + layer[bin]) * scale);
        const from = base[bin] * scale;
        context.rect(kGutter + bin * step, bottom - top, step + 0.3, Math.max(0.75, top - from));
        base[bin] += layer[bin];
      }
      context.fill();
    });
    context.globalAlpha = 1;
    if (track.kind !== 'line') return;
    context.strokeStyle = color(track.color);
    context.lineWidth = 1.5;
    context.beginPath();
    for (let bin = 0; bin < bins; ++bin)
      context.lineTo(kGutter + (bin + 0.5) * step, bottom - Math.min(track.height, base[bin] * scale));
    context.stroke();
  }

  _drawBrush(context, height) {
    const { range } = this.store;
    if (!range) return;
    const left = kGutter;
    const right = kGutter + this._width();
    const a = Math.max(left, Math.min(right, this._x(range[0])));
    const b = Math.max(left, Math.min(right, this._x(range[1])));
    context.fillStyle = color('veil');
    context.fillRect(left, kAxis - 4, a - left, height);
    context.fillRect(b, kAxis - 4, right - b, height);
    context.fillStyle = color('accent');
    context.fillRect(a - 1, kAxis - 6, 2, height);
    context.fillRect(b - 1, kAxis - 6, 2, height);
    context.fillRect(a, kAxis - 6, b - a, 3);
    for (const x of [a, b]) {
      context.beginPath();
      context.roundRect(x - 3.5, kAxis + 4, 7, 16, 3);
      context.fill();
    }
  }

  _showTip(x, y) {
    let top = kAxis;
    const track = this.tracks.find((candidate) => {
      const isHit = y >= top && y < top + candidate.height + kGap;
      top += candidate.height + kGap;
      return isHit;
    });
    if (!track || x < kGutter || x > kGutter + this._width()) {
      this.tip.hidden = true;
      return;
    }
    const layers = this._values(track);
    const bin = Math.min(layers[0].length - 1, Math.floor(((x - kGutter) / this._width()) * layers[0].length));
    const lines = [`${format.clock(this._ns(x), (this.store.view[1] - this.store.view[0]) / 100)}  ${track.name}`];
    layers.forEach((layer, index) => {
      if (layers.length === 1) lines.push(track.unit(layer[bin]));
      else if (layer[bin] > 0) lines.push(`${track.layers[index].name}: ${track.unit(layer[bin])}`);
    });
    this.tip.textContent = lines.join('\n');
    this.tip.hidden = false;
    const width = this.tip.offsetWidth;
    this.tip.style.left = `${Math.min(x + 14, this.box.clientWidth - width - 4)}px`;
    this.tip.style.top = `${Math.min(y + 14, this.box.clientHeight - this.tip.offsetHeight)}px`;
  }
}
