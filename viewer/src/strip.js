// What every reader has to know of a recording, always in sight: what is missing in it, and what the recorder cost.
import { h, replaceChildren } from './dom.js';
import * as format from './format.js';

const kAlways = ['Lost', 'Recorder'];

/** A line of instruments with their losses and cost, and the button that opens all that they say about themselves. */
export function stripOf(json) {
  const lost = json.instruments.reduce((sum, instrument) => sum + instrument.facts.filter((fact) => fact.loss).length, 0);
  const problems = lost + json.remarks.length;
  const cards = h('div.cards', { id: 'facts', hidden: true }, json.instruments.map(card), remarksOf(json));
  const button = h(
    problems > 0 ? 'button.more.badge.loss' : 'button.more.badge.good',
    {
      type: 'button',
      'aria-expanded': 'false',
      'aria-controls': 'facts',
      onclick: () => {
        cards.hidden = !cards.hidden;
        button.setAttribute('aria-expanded', String(!cards.hidden));
      },
    },
    `${problems > 0 ? format.plural(problems, 'limitation') : 'nothing lost'} – all facts`,
  );
  const element = h(
    'section.strip',
    { 'aria-label': 'Losses and cost of the recording' },
    h('div.strip-line', {}, json.instruments.map(summary)),
    json.remarks.length > 0 ? h('p.remark', {}, h('b', {}, 'Remark: '), json.remarks[0], json.remarks.length > 1 ? ` (and ${json.remarks.length - 1} more under “all facts”)` : '') : null,
    cards,
  );
  return { element, button };
}

function summary(instrument) {
  const parts = instrument.facts.filter((fact) => kAlways.includes(fact.label) || fact.loss);
  return h(
    'span.summary',
    {},
    h('b', {}, instrument.name),
    parts.map((fact) => h(fact.loss ? 'span.fact.loss' : 'span.fact', { title: `${fact.label}: ${fact.text}` }, fact.loss ? '▲ ' : '', shortFact(fact))),
  );
}

function shortFact(fact) {
  if (fact.label === 'Recorder') return `cost ${(/([\d.]+ %)/.exec(fact.text) || [''])[0]}`;
  if (fact.label === 'Lost') return `${fact.text.replace(/ \(.*/, '').replace(/,.*/, '')} lost`;
  if (fact.label === 'Truncated') return `${fact.text.split(' ')[0]} cut stacks`;
  return `${fact.label}: ${fact.text}`;
}

function card(instrument) {
  const rows = instrument.facts.map((fact) => [h('dt', {}, fact.label), h(fact.loss ? 'dd.loss' : 'dd', {}, fact.text)]);
  const pid = instrument.pid === undefined ? '' : instrument.pid === -3 ? 'all processes' : instrument.pid === 0 ? 'the kernel' : `process ${instrument.pid}`;
  return h('section.card', {}, h('h3', {}, instrument.name, h('span.dim', {}, ` ${pid}`)), h('dl', {}, rows));
}

function remarksOf(json) {
  if (json.remarks.length === 0) return null;
  return h('section.card.wide', {}, h('h3', {}, 'Remarks'), h('ul', {}, json.remarks.map((text) => h('li', {}, text))));
}
