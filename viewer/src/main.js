// Reads the page's data and puts the parts together.
import { CensusPanel } from './censuspanel.js';
import { EventsPanel } from './eventspanel.js';
import { FlamePanel } from './flamepanel.js';
import { FunctionsPanel, ThreadsPanel } from './tablepanels.js';
import { HeapPanel } from './heappanel.js';
import { LeaksPanel } from './leakspanel.js';
import { Model } from './model.js';
import { Store } from './store.js';
import { Timeline } from './timeline.js';
import { readPageData } from './data.js';
import { stripOf } from './strip.js';
import { tracksOf } from './tracks.js';
import { h, replaceChildren, select, setOptions } from './dom.js';
import * as format from './format.js';
import 'uplot/dist/uPlot.min.css';
import './style.css';

const kMostThreadsListed = 400;

class Page {
  constructor(model) {
    const { json } = model;
    this.model = model;
    this.store = new Store(json.fromNs, json.untilNs);
    document.title = `${json.bundle} – rumbel`;
    this.panels = this._panels();
    this.place = h('main', { id: 'panel', role: 'tabpanel', tabindex: -1 });
    this.tabs = h('div.tabs', { role: 'tablist', 'aria-label': 'Views' });
    this.help = helpDialog();
    const strip = stripOf(json);
    const timeline = new Timeline(this.store, tracksOf(model, this.store));
    replaceChildren(document.body, h('a.skip', { href: '#panel' }, 'To the view'), this._header(strip.button), strip.element, timeline.element, this._tabBar(), this.place, this.help);
    this.show(this.panels[0] ? this.panels[0].key : '');
    document.addEventListener('keydown', (event) => this._onKey(event));
  }

  _panels() {
    const { model, store } = this;
    const panels = [];
    if (model.sources.length > 0) {
      this.flame = new FlamePanel(model, store);
      panels.push(this.flame);
      panels.push(
        new FunctionsPanel(model, store, (name, source) => {
          this.flame.setSource(source);
          store.setSearch(name);
          this.show('flame');
        }),
      );
    }
    if (model.stacks || model.trace) panels.push(new ThreadsPanel(model, store));
    if (model.heap)
      panels.push(
        new HeapPanel(model, store, (source) => {
          this.flame.setSource(source);
          this.show('flame');
        }),
      );
    if (model.json.orphans) panels.push(new LeaksPanel(model, store));
    if (model.trace) panels.push(new EventsPanel(model, store));
    if (model.json.census) panels.push(new CensusPanel(model, store));
    return panels;
  }

  _header(factsButton) {
    const { json } = this.model;
    const when = format.date(Math.min(...json.instruments.map((instrument) => instrument.start || Infinity)));
    return h(
      'header',
      {},
      h('h1', {}, json.bundle),
      h('span.dim', {}, [when, format.time(json.untilNs - json.fromNs)].filter(Boolean).join(' · ')),
      h('span.grow'),
      factsButton,
      this._threadSelect(),
      h('button', { type: 'button', onclick: () => this._turnTheme(), title: 'Dark or light ( d )' }, 'Dark / light'),
      h('button', { type: 'button', onclick: () => this.help.showModal(), title: 'Keys ( ? )' }, 'Keys'),
    );
  }

  _threadSelect() {
    const { model, store } = this;
    const threads = model.activeThreads().slice(0, kMostThreadsListed);
    const element = select('Thread', [['-1', 'All threads'], ...threads.map((thread) => [String(thread.index), model.threadName(thread.index)])], '-1', (value) => store.setThread(Number(value)));
    store.on(['thread'], () => {
      const wanted = String(store.thread);
      if (![...element.options].some((option) => option.value === wanted))
        element.append(h('option', { value: wanted }, model.threadName(store.thread)));
      element.value = wanted;
      element.classList.toggle('chosen', store.thread >= 0);
    });
    return element;
  }

  _tabBar() {
    replaceChildren(
      this.tabs,
      this.panels.map((panel, index) =>
        h('button', { type: 'button', role: 'tab', id: `tab-${panel.key}`, 'aria-controls': 'panel', title: `( ${index + 1} )`, onclick: () => this.show(panel.key) }, panel.name)),
    );
    this.tabs.addEventListener('keydown', (event) => {
      const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
      if (!step) return;
      const at = this.panels.indexOf(this.current);
      this.show(this.panels[(at + step + this.panels.length) % this.panels.length].key);
      this.tabs.querySelector('[aria-selected=true]').focus();
      event.preventDefault();
    });
    return h('nav', { 'aria-label': 'Views' }, this.tabs);
  }

  show(key) {
    this.current = this.panels.find((panel) => panel.key === key);
    for (const tab of this.tabs.children) {
      const isCurrent = tab.id === `tab-${key}`;
      tab.setAttribute('aria-selected', String(isCurrent));
      tab.tabIndex = isCurrent ? 0 : -1;
    }
    this.place.setAttribute('aria-labelledby', `tab-${key}`);
    replaceChildren(this.place, this.current ? this.current.element : h('p.dim', {}, 'The recording holds nothing that could be shown.'));
    if (this.current) this.current.shown();
  }

  _turnTheme() {
    setTheme(document.documentElement.dataset.theme === 'dark' ? 'light' : 'dark');
    this.store.tell('theme');
  }

  _onKey(event) {
    const isTyping = /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName);
    if (isTyping || event.ctrlKey || event.metaKey || event.altKey || this.help.open) return;
    const panel = this.panels[Number(event.key) - 1];
    if (panel) this.show(panel.key);
    else if (event.key === '/') (this.current && this.current.focusSearch ? this.current : this._showFlame()).focusSearch();
    else if (event.key === '?') this.help.showModal();
    else if (event.key === 'd') this._turnTheme();
    else if (event.key === 't') document.querySelector('.timeline-box').focus();
    else if (event.key === 'Escape') this.store.setRange(null);
    else return;
    event.preventDefault();
  }
  _showFlame() {
    this.show('flame');
    return this.flame;
  }
}

function helpDialog() {
  const keys = [
    ['1 – 9', 'the views, in their order'],
    ['t', 'to the time line: arrows move the selected span, Shift and arrows its end, + and − zoom, Enter zooms to it, Escape clears it'],
    ['/', 'search or filter in the present view'],
    ['Arrows', 'in the flame graph: to callers, callees and neighbours; Enter zooms, Backspace zooms out, Escape shows all, n and p go through what was found'],
    ['Arrows, Page, Home, End', 'in tables and trees: through the rows; Enter opens a branch'],
    ['d', 'dark or light'],
    ['?', 'this list'],
    ['Mouse', 'drag over the time line or a chart to select a span, drag its edges, Shift and drag to move it; the wheel zooms; double click zooms to the span'],
  ];
  const dialog = h('dialog', { 'aria-labelledby': 'keys-title' });
  dialog.append(
    h('h2', { id: 'keys-title' }, 'Keys'),
    h('dl.keys', {}, keys.map(([key, what]) => [h('dt', {}, h('kbd', {}, key)), h('dd', {}, what)])),
    h('p.dim', {}, 'A selected span and a chosen thread filter every view.'),
    h('button', { type: 'button', autofocus: true, onclick: () => dialog.close() }, 'Close'),
  );
  return dialog;
}

function setTheme(theme) {
  document.documentElement.dataset.theme = theme;
}

async function start() {
  setTheme(window.matchMedia('(prefers-color-scheme: dark)').matches ? 'dark' : 'light');
  const place = document.getElementById('vnt-data');
  try {
    const data = await readPageData(place.textContent);
    place.remove();
    const page = new Page(new Model(data));
    document.documentElement.dataset.state = page.panels.length > 0 ? 'ready' : 'empty';
  } catch (error) {
    replaceChildren(document.body, h('p.failed', { role: 'alert' }, `The page's data cannot be read: ${error.message}`));
    document.documentElement.dataset.state = 'failed';
    throw error;
  }
}

start();
