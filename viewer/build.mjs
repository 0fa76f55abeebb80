// Makes dist/page.html of src/: one file without anything from outside, and the content security policy that says so.
//   npm ci && npm run build
import { createHash } from 'node:crypto';
import { readFileSync, mkdirSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { build } from 'esbuild';
import { sourceHash } from './sourcehash.mjs';

const here = (path) => fileURLToPath(new URL(path, import.meta.url));

const result = await build({
  entryPoints: [here('src/main.js')],
  bundle: true,
  minify: true,
  charset: 'utf8',
  format: 'iife',
  target: ['chrome110', 'firefox115', 'safari16.4'],
  legalComments: 'inline',
  outdir: here('dist'),
  write: false,
});
const text = (suffix) => result.outputFiles.find((file) => file.path.endsWith(suffix)).text;
const script = text('.js');
const style = text('.css');
const hash = (content) => `'sha256-${createHash('sha256').update(content).digest('base64')}'`;

// Nothing may be fetched, sent or embedded; only this very script and style run.
const policy = [
  "default-src 'none'",
  `script-src ${hash(script)}`,
  `style-src ${hash(style)}`,
  "base-uri 'none'",
  "form-action 'none'",
].join('; ');

const parts = { CSP: policy, STYLE: style, SCRIPT: script, SOURCE: sourceHash() };
const page = readFileSync(here('src/page.html'), 'utf8').replace(/@VNT_(CSP|STYLE|SCRIPT|SOURCE)@/g, (_, part) => parts[part]);
if (page.split('@VNT_DATA@').length !== 2) throw new Error('the page has to have one place for its data');
mkdirSync(here('dist'), { recursive: true });
writeFileSync(here('dist/page.html'), page);
console.log(`dist/page.html: ${(page.length / 1024).toFixed(1)} KiB`);
