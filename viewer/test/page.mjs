// Uses a page as people do, in a real browser: node page.mjs PAGE [DIRECTORY FOR PICTURES]. The page is that of
// rumbel/view/TestRecording.h, whose numbers are checked here. Ends with status 1 and the reason at the first fault.
import assert from 'node:assert/strict';
import { mkdirSync } from 'node:fs';
import { Browser } from './browser.mjs';

const [page, pictures] = process.argv.slice(2);
const browser = await Browser.start();
const text = (selector) => browser.evaluate(`document.querySelector(${JSON.stringify(selector)}).innerText`);
const rowsOf = (label) =>
  browser.evaluate(
    `[...document.querySelectorAll('table[aria-label="${label}"] tbody tr:not(.gap)')].map((row) => [...row.cells].map((cell) => cell.innerText))`,
  );
const cell = async (label, name, column) => {
  const rows = await rowsOf(label);
  const row = rows.find((cells) => cells.some((content) => content.startsWith(name)));
  return row && row[column];
};
const tab = (key) => browser.click(`#tab-${key}`);
const steps = [];
const step = (name, run) => steps.push([name, run]);

step('opens, whole and without a request', async () => {
  await browser.open(page);
  await browser.until(`document.documentElement?.dataset.state === 'ready' || document.documentElement?.dataset.state === 'failed'`);
  assert.equal(await browser.evaluate('document.documentElement.dataset.state'), 'ready');
  const requests = browser.requests.filter((url) => !url.startsWith('chrome'));
  assert.equal(requests.length, 1, requests.join('\n'));
  assert.match(requests[0], /^file:/);
});

step('losses, cost and remarks are in sight', async () => {
  const strip = await text('.strip');
  assert.match(strip, /7 samples lost/);
  assert.match(strip, /cost 0\.20 %/);
  assert.match(await text('.more'), /1 limitation/);
  await browser.click('.more');
  assert.match(await text('.cards'), /1\.500 s altogether/);
  await browser.click('.more');
});

step('names from the recording stay text', async () => {
  assert.equal(await browser.evaluate('document.images.length + document.querySelectorAll("main u, main i, main script").length'), 0);
  assert.match(await text('header h1'), /^evil<i>\.vnt$/);
  assert.ok((await browser.evaluate('[...document.querySelectorAll("header option")].map((o) => o.text)')).some((name) => name.startsWith('hot<img')));
});

step('the flame graph is walked through, searched and zoomed with the keyboard', async () => {
  await tab('flame');
  await browser.evaluate('document.querySelector(".flame-box").focus()');
  assert.equal(await text('.flame-line'), 'all: 900.00 ms');
  await browser.press('ArrowUp');
  assert.match(await text('.flame-line'), /^main \(prog<b>ram\): 900\.00 ms, 100\.0 %$/);
  await browser.press('ArrowUp');
  assert.match(await text('.flame-line'), /^work<img src=x onerror=alert\(1\)> .*800\.00 ms, 88\.9 %; itself 200\.00 ms/);
  await browser.press('ArrowLeft');
  assert.match(await text('.flame-line'), /^hugezzz+…/);
  await browser.press('/');
  await browser.type('leaf');
  assert.match(await text('.found'), /1 frame, 66\.7 %/);
  await browser.press('Enter');
  assert.match(await text('.flame-line'), /^leaf<\/script><script>alert\(2\)<\/script>\\x1b\[31m/);
  await browser.press('Escape');
  assert.equal(await browser.evaluate('document.activeElement.className'), 'flame-box');
  await browser.press('Enter');
  await browser.press('Backspace');
  await browser.press('Escape');
  assert.equal(await text('.flame-line'), 'all: 900.00 ms');
});

step('a click in the flame graph zooms', async () => {
  const place = await browser.place('.flame-box');
  const y = place.top + place.height - 3 * 19 + 9; // the third row from below: huge and work
  await browser.mouse('mousePressed', place.left + place.width * 0.9, y);
  await browser.mouse('mouseReleased', place.left + place.width * 0.9, y);
  await browser.frame();
  assert.match(await text('.flame-line'), /^work<img/);
  await browser.click('.flame-panel .toolbar button:last-child');
  for (const choice of ['Icicle', 'Callers', 'By thread']) {
    const place = `[...document.querySelectorAll('.flame-panel .toggle')].find((b) => b.textContent === '${choice}')`;
    await browser.evaluate(`${place}.click()`);
    await browser.frame();
    assert.equal(await text('.flame-line'), 'all: 900.00 ms', choice);
    if (choice !== 'By thread') await browser.evaluate(`${place}.click()`);
    await browser.frame();
  }
  await browser.evaluate('document.querySelector(".flame-box").focus()');
  await browser.press('ArrowUp');
  assert.match(await text('.flame-line'), /^hot<img src=x onerror=alert\(1\)> \(42\): 900/);
  await browser.evaluate(`[...document.querySelectorAll('.flame-panel .toggle')][2].click()`);
});

step('off the processor is a graph of its own', async () => {
  await browser.evaluate(`(() => { const s = document.querySelector('.flame-panel select'); s.value = 'blocked'; s.dispatchEvent(new Event('change')); })()`);
  await browser.frame();
  assert.equal(await text('.flame-line'), 'all: 1.500 s');
  await browser.evaluate(`(() => { const s = document.querySelector('.flame-panel select'); s.value = 'cpu'; s.dispatchEvent(new Event('change')); })()`);
});

step('a span brushed over the time line filters everything', async () => {
  const place = await browser.place('.timeline-box');
  const from = place.left + 132 + (place.width - 142) * 0.498; // a little before 1.0 s
  const to = place.left + place.width - 10;
  await browser.drag({ x: from, y: place.top + 40 }, { x: to, y: place.top + 40 });
  assert.match(await text('.span-text'), /selected/);
  await tab('functions');
  await browser.until(`document.querySelectorAll('table[aria-label="Functions"] tbody tr').length > 1`);
  assert.equal(await cell('Functions', 'leaf', 0), undefined, 'ran in the first second only');
  assert.equal(await cell('Functions', 'work', 0), '200.00 ms');
  await tab('threads');
  assert.match(await cell('Threads', 'waiter', 4), /^7\d\d\.\d\d ms$/); // 0.2 to 1.7 s, of which 1.0 on is selected
  await tab('heap');
  assert.equal(await cell('Allocation sites', 'work', 1), '1'); // the last of a hundred, at 1.0 s
  assert.equal(await cell('Allocation sites', 'work', 3), '24.4 KiB'); // what is live at the end was allocated before
  await tab('events');
  assert.match(await text('.events-panel .found'), /^2 shown/); // the time off the processor, and the other one
  await browser.press('Escape');
  assert.equal(await text('.span-text'), 'all of it');
  assert.match(await text('.events-panel .found'), /^52 shown/);
});

step('the time line listens to keys', async () => {
  await browser.press('t');
  await browser.press('ArrowRight');
  assert.match(await text('.span-text'), /200\.00 ms selected/);
  await browser.press('ArrowRight', { shift: true });
  assert.match(await text('.span-text'), /240\.00 ms selected/);
  await browser.press('Enter');
  await browser.press('Escape');
  await browser.press('Home');
  assert.equal(await text('.span-text'), 'all of it');
});

step('events are filtered by text, class and duration, and show their stack', async () => {
  await tab('events');
  await browser.press('/');
  await browser.type('EAGAIN');
  assert.match(await text('.events-panel .found'), /^1 shown/);
  await browser.evaluate(`document.querySelector('div.table-box[aria-label="Events"]').focus()`);
  await browser.press('ArrowDown');
  assert.match(await text('.events-panel .paths'), /= EAGAIN[^]*main/);
  await browser.press('/');
  await browser.press('Escape');
  await browser.evaluate(`(() => { const f = document.querySelector('.events-panel .search'); f.value = ''; f.dispatchEvent(new Event('input')); })()`);
  await browser.evaluate(`(() => { const f = document.querySelector('.events-panel .seconds'); f.value = '2000'; f.dispatchEvent(new Event('input')); })()`);
  await browser.frame();
  assert.match(await text('.events-panel .found'), /^1 shown/); // 700 ms off the processor
  await browser.evaluate(`(() => { const f = document.querySelector('.events-panel .seconds'); f.value = ''; f.dispatchEvent(new Event('input')); })()`);
  await browser.click('.classes .toggle');
  assert.match(await text('.events-panel .found'), /^2 shown/);
  await browser.click('.classes .toggle');
});

step('a thread picked in the table filters the page', async () => {
  await tab('threads');
  await browser.evaluate(`document.querySelector('div.table-box[aria-label="Threads"]').focus()`);
  await browser.press('End');
  const name = (await rowsOf('Threads')).at(-1)[0];
  assert.equal(name, 'waiter');
  await tab('functions');
  assert.deepEqual(await rowsOf('Functions'), [['Nothing in this span and thread.']]);
  await browser.evaluate(`(() => { const s = document.querySelector('header select'); s.value = '-1'; s.dispatchEvent(new Event('change')); })()`);
});

step('sites show who called them', async () => {
  await tab('heap');
  await browser.click('table[aria-label="Allocation sites"] tbody tr');
  assert.match(await text('.heap-panel .paths'), /97\.7 KiB in 100 blocks, never freed 24\.4 KiB[^]*work<img[^]*main/);
});

step('leaks are trees of what holds what', async () => {
  await tab('leaks');
  await browser.until('document.querySelector("[role=treeitem]")');
  await browser.evaluate('document.querySelector("[role=treeitem]").focus()');
  for (const key of ['ArrowRight', 'ArrowDown', 'ArrowRight', 'ArrowDown', 'ArrowRight']) await browser.press(key);
  const tree = await text('.tree');
  assert.match(tree, /187 B\s+work<img[^]*2 leaks[^]*157 B[^]*holds 2 blocks · “<\/script>[^]*57 B[^]*holds 1 block[^]*7 B[^]*“<img[^]*30 B\s+cycle/);
  assert.match(await text('[aria-label="Where the block was allocated"]'), /50 B, allocated at[^]*work<img[^]*main/);
  await browser.press('ArrowLeft');
  assert.equal(await browser.evaluate('document.activeElement.getAttribute("aria-expanded")'), 'false');
});

step('the census draws its curves', async () => {
  await tab('census');
  await browser.until('document.querySelectorAll(".census-panel canvas").length === 4');
  assert.match(await cell('Processes', '◆', 0), /<img src=x/);
  assert.match(await cell('Processes', '◆ </script>', 9), /signal 9/);
});

step('everything that takes input has a name', async () => {
  for (const key of ['flame', 'functions', 'threads', 'heap', 'leaks', 'events', 'census']) {
    await tab(key);
    const { nodes } = await browser.send('Accessibility.getFullAXTree');
    const roles = ['button', 'textbox', 'searchbox', 'combobox', 'tab', 'application', 'region', 'table', 'tree', 'tabpanel'];
    for (const node of nodes) {
      if (!node.ignored && roles.includes(node.role?.value)) assert.ok(node.name?.value, `${key}: a ${node.role.value} without a name`);
    }
    if (pictures) await browser.screenshot(`${pictures}/${key}.png`);
  }
});

step('dark, light and the list of keys', async () => {
  const theme = () => browser.evaluate('document.documentElement.dataset.theme');
  const before = await theme();
  await browser.press('d');
  assert.notEqual(await theme(), before);
  await browser.press('1');
  if (pictures) await browser.screenshot(`${pictures}/other-theme.png`);
  await browser.press('?');
  assert.equal(await browser.evaluate('document.querySelector("dialog").open'), true);
  await browser.press('Escape');
  assert.equal(await browser.evaluate('document.querySelector("dialog").open'), false);
});

step('nothing was complained of, and the policy holds', async () => {
  assert.equal(await browser.evaluate(`document.querySelectorAll('img, main u, main i, main script, main b img').length`), 0);
  assert.deepEqual(browser.problems, []);
  const ran = await browser.evaluate(
    `(() => { const s = document.createElement('script'); s.text = 'window.evil = 1'; document.body.append(s); return window.evil; })()`,
  );
  assert.equal(ran, undefined);
  assert.equal(await browser.evaluate(`fetch('data:,x').then(() => 'fetched', () => 'refused')`), 'refused');
});

let status = 0;
try {
  if (pictures) mkdirSync(pictures, { recursive: true });
  for (const [name, run] of steps) {
    try {
      await run();
    } catch (error) {
      console.error(`FAILED: ${name}\n${error.message}\nThe browser says: ${browser.problems.join('\n')}`);
      if (pictures) await browser.screenshot(`${pictures}/failed.png`);
      status = 1;
      break;
    }
  }
} finally {
  await browser.stop();
}
console.log(status === 0 ? `${steps.length} steps` : 'failed');
process.exitCode = status;
