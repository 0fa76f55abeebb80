// Curves over time, drawn by uPlot in the page's colours; selecting a part of one selects it everywhere.
import uPlot from 'uplot';
import { color, h } from './dom.js';

/** Round numbers of bytes, times `unit`. */
export const byteSteps = (unit = 1) => Array.from({ length: 50 }, (_, power) => 2 ** power / unit).filter((step) => step >= 1 / unit);

const kColors = 10; // --curve-0 and on in the style sheet

export class Chart {
  /**
   * @param {{label: string, height: number, format: (value: number) => string, store: import('./store.js').Store,
   *   max?: number, steps?: number[]}} options `steps`: distances that the marks of the value axis may have
   */
  constructor(options) {
    this.options = options;
    this.element = h('div.chart', { role: 'group', 'aria-label': options.label });
    this.plot = null;
    new ResizeObserver(() => {
      if (this.plot && this.element.clientWidth > 0) this.plot.setSize({ width: this.element.clientWidth, height: options.height });
    }).observe(this.element);
  }

  /**
   * @param {ArrayLike<number>} times in ns, ascending
   * @param {{name: string, values: ArrayLike<number>, fill?: boolean, color?: number}[]} curves null values are gaps
   */
  show(times, curves) {
    const width = this.element.clientWidth;
    if (width === 0) return;
    if (this.plot) this.plot.destroy();
    const { height, store, max } = this.options;
    const axis = { stroke: color('dim'), grid: { stroke: color('line'), width: 1 }, ticks: { stroke: color('line') }, font: `11px ${color('font')}` };
    const span = store.span();
    this.plot = new uPlot(
      {
        width,
        height,
        legend: { show: curves.length > 1 },
        cursor: { drag: { x: true, y: false, setScale: false }, points: { size: 6 } },
        scales: { x: { time: false, range: () => [span[0] / 1e9, span[1] / 1e9] }, y: { range: (_, low, high) => [0, max || high * 1.05 || 1] } },
        axes: [
          { ...axis, size: 30, values: (_, ticks) => ticks.map((tick) => `${+tick.toFixed(6)} s`) },
          { ...axis, size: 74, ...(this.options.steps ? { incrs: this.options.steps } : {}), values: (_, ticks) => ticks.map((tick) => this.options.format(tick)) },
        ],
        series: [
          { label: 'Time', value: (_, value) => (value === null ? '–' : `${value.toFixed(3)} s`) },
          ...curves.map((curve, index) => this._series(curve, index)),
        ],
        hooks: { setSelect: [(plot) => this._select(plot)] },
      },
      [Float64Array.from(times, (ns) => ns / 1e9), ...curves.map((curve) => curve.values)],
      this.element,
    );
    const legend = this.element.querySelector('.u-legend');
    if (legend) legend.setAttribute('aria-label', `${this.options.label}: values at the pointer`);
  }

  _series(curve, index) {
    const stroke = color(`curve-${(curve.color === undefined ? index : curve.color) % kColors}`);
    return {
      label: curve.name,
      stroke,
      width: 1.5,
      fill: curve.fill ? `${stroke}30` : undefined, // the style sheet has six digits,
      points: { show: false },
      value: (_, value) => (value === null || value === undefined ? '–' : this.options.format(value)),
    };
  }

  _select(plot) {
    if (plot.select.width < 3) return;
    const from = plot.posToVal(plot.select.left, 'x') * 1e9;
    const until = plot.posToVal(plot.select.left + plot.select.width, 'x') * 1e9;
    plot.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
    this.options.store.setRange([from, until]);
  }
}
