// One number for all that dist/page.html is made of: a test tells when it was not made anew after a change.
import { createHash } from 'node:crypto';
import { readFileSync, readdirSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

const here = (path) => fileURLToPath(new URL(path, import.meta.url));

export function sourceHash() {
  const hash = createHash('sha256');
  const files = ['package-lock.json', 'build.mjs', ...readdirSync(here('src')).sort().map((name) => `src/${name}`)];
  for (const file of files) hash.update(file).update('\0').update(readFileSync(here(file))).update('\0');
  return hash.digest('hex');
}
