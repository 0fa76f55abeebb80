// The parts that need no page: `node --test viewer/test/`.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { deflateSync } from 'node:zlib';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { binned, callerTree, callTree, forEachCell, functionWeights, nodeWeights, threadTree } from '../src/aggregate.js';
import { FlameLayout } from '../src/flamelayout.js';
import { LeakTree } from '../src/leaks.js';
import { readPageData, summedUp } from '../src/data.js';
import { sourceHash } from '../sourcehash.mjs';
import * as format from '../src/format.js';

// 1 main > 2 work > 3 main (again), 4 main > 5 leaf
const calls = { caller: [0, 0, 1, 2, 1], function: [0, 10, 11, 10, 12] };
const names = { 10: 'main', 11: 'work', 12: 'leaf' };
const grid = {
  sliceNs: 10,
  from: [0, 1, 5, 9],
  span: [0, 0, 0, 4],
  thread: [0, 0, 1, 1],
  node: [3, 4, 3, 2],
  values: [[1, 2, 4, 8]],
};

test('columns come back as they were written, and a foreign version is refused', async () => {
  const page = (version) => {
    const json = Buffer.from(JSON.stringify({ version, columns: [[0, 1, 3, 0], [8, 2, 3, 1], [16, 8, 1, 0]] }));
    const columnsAt = Math.ceil((4 + json.length) / 8) * 8;
    const bytes = Buffer.alloc(columnsAt + 24);
    bytes.writeUInt32LE(json.length, 0);
    json.copy(bytes, 4);
    bytes.set([7, 8, 255], columnsAt);
    [2000, 1, 4].forEach((value, i) => bytes.writeUInt16LE(value, columnsAt + 8 + 2 * i));
    bytes.writeDoubleLE(2 ** 40, columnsAt + 16);
    return deflateSync(bytes).toString('base64');
  };
  const data = await readPageData(`\n${page(1)}\n`);
  assert.deepEqual([...data.column(0)], [7, 8, 255]);
  assert.deepEqual([...data.column(1)], [1000, 999, 1001]);
  assert.deepEqual([...data.column(2)], [2 ** 40]);
  await assert.rejects(readPageData(page(2)), /version 2/);
  await assert.rejects(readPageData('AAAA'));
  assert.deepEqual([...summedUp([2 ** 33 + 1])], [-(2 ** 32) - 1]);
});

test('weights are those of the span and thread asked for', () => {
  const rows = [
    [null, -1, [0, 0, 8, 5, 2]],
    [null, 1, [0, 0, 8, 4, 0]],
    [[0, 20], -1, [0, 0, 0, 1, 2]],
    [[10, 60], 0, [0, 0, 0, 0, 2]],
    [[0, 115], -1, [0, 0, 4, 5, 2]], // half of the longer one, from 95 to 135
    [[200, 300], -1, [0, 0, 0, 0, 0]],
  ];
  for (const [range, thread, expected] of rows)
    assert.deepEqual([...nodeWeights(grid, 0, 5, range, thread)], expected, `${range} ${thread}`);
  // Neighbouring spans share nothing and lose nothing.
  let parts = 0;
  for (let from = -3; from < 200; from += 7) forEachCell(grid, [from, from + 7], -1, (i, share) => (parts += share * grid.values[0][i]));
  assert.ok(Math.abs(parts - 15) < 1e-9, String(parts));
  const bins = binned(grid, 0, 140, 14, (i) => grid.values[0][i]);
  assert.equal(bins[0], 1);
  assert.ok(Math.abs(bins.reduce((a, b) => a + b) - 15) < 1e-9);
});

test('trees add up, whichever way they are turned', () => {
  const weights = nodeWeights(grid, 0, 5, null, -1);
  const tree = callTree(calls, weights);
  assert.equal(tree.total[0], 15);
  assert.equal(tree.total[2], 13);
  const functions = Object.fromEntries(functionWeights(tree).map((entry) => [names[entry.label], entry]));
  assert.deepEqual({ ...functions.main }, { label: 10, self: 5, total: 15 }, 'a function below itself counts once');
  assert.equal(functions.work.total, 13);

  const callers = callerTree(calls, weights);
  assert.equal(callers.total[0], 15);
  const roots = [...callers.parent.keys()].filter((node) => node > 0 && callers.parent[node] === 0);
  assert.deepEqual(roots.map((node) => [names[callers.label[node]], callers.total[node]]).sort(), [['leaf', 2], ['main', 5], ['work', 8]]);

  const byThread = threadTree(grid, 0, calls, null, -1);
  assert.equal(byThread.total[0], 15);
  assert.deepEqual([...byThread.parent.keys()].filter((node) => node > 0 && byThread.parent[node] === 0).map((node) => [byThread.label[node], byThread.total[node]]), [[-1, 3], [-2, 12]]);
});

test('frames lie beside each other, in their callers, and thin ones are left out', () => {
  const tree = callTree(calls, [0, 1, 0, 5, 2]);
  const layout = new FlameLayout(tree, (label) => names[label]);
  const seen = [];
  layout.forEachVisible(0, 80, 1, (node, x, width) => seen.push([node, x, width]));
  assert.deepEqual(seen.sort((a, b) => a[0] - b[0]), [[0, 0, 80], [1, 0, 80], [2, 20, 50], [3, 20, 50], [4, 0, 20]]);
  const wide = [];
  layout.forEachVisible(2, 80, 1, (node, x, width) => wide.push([node, x, width]));
  assert.deepEqual(wide.sort((a, b) => a[0] - b[0]), [[0, 0, 80], [1, 0, 80], [2, 0, 80], [3, 0, 80]]);
  const few = [];
  layout.forEachVisible(0, 80, 30, (node) => few.push(node));
  assert.deepEqual(few.sort(), [0, 1, 2, 3]);
  assert.deepEqual(layout.matches(new Set([10])), { nodes: [1, 3], weight: 8 }, 'matches within matches count once');
  assert.equal(layout.heaviestChild(1), 2);
  assert.equal(layout.sibling(4, 1), 2);
  assert.equal(layout.sibling(4, -1), 4);
});

test('leaks hang below what holds them, also when the recording lies', () => {
  const tree = new LeakTree({ size: [10, 20, 5, 1], holder: [0, 1, 2, 9], node: [3, 4, 4, 3], kind: [0, 2, 2, 0] });
  assert.equal(tree.heldBytes[0], 35);
  assert.equal(tree.heldBlocks[0], 3);
  assert.deepEqual(tree.heldBy(1), [1]);
  assert.deepEqual(tree.bySite().map((site) => [site.node, site.bytes, site.leaks]), [[3, 36, [0, 3]]]);
});

test('names and numbers read well', () => {
  const rows = [
    [format.shortName('main'), 'main'],
    [format.shortName(`ns::${'x'.repeat(40)}<std::vector<int, std::allocator<int> > >::run(int, char const*)`), `ns::${'x'.repeat(40)}<…>::run(…)`],
    [format.shortName('y'.repeat(100)), `${'y'.repeat(59)}…`],
    [format.shortName(`(anonymous namespace)::f(${'int, '.repeat(20)}int)`), '(anon)::f(…)'],
    [format.time(999), '999 ns'],
    [format.time(1.5e6), '1.50 ms'],
    [format.bytes(1536), '1.50 KiB'],
    [format.percent(1, 0), '0 %'],
    [format.plural(1, 'block'), '1 block'],
    [format.plural(1234, 'block'), '1,234 blocks'],
  ];
  for (const [got, expected] of rows) assert.equal(got, expected);
});

test('dist/page.html was made of these sources', () => {
  const page = readFileSync(fileURLToPath(new URL('../dist/page.html', import.meta.url)), 'utf8');
  assert.ok(page.includes(`<meta name="source" content="${sourceHash()}">`), 'run: cd viewer && npm ci && npm run build');
  assert.match(page, /default-src 'none'; script-src 'sha256-/);
  assert.doesNotMatch(page.replace(/http:\/\/www\.w3\.org\/[\w/]+/g, ''), /<(link|img|iframe|object)\b|https?:\/\/(?!github)/);
});
