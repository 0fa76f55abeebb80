// A headless Chromium driven through the DevTools protocol over a pipe: no port is opened, nothing is downloaded.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { pathToFileURL } from 'node:url';

const kDeadlineMs = 60_000; // of any one wait: only a browser that hangs comes here

export class Browser {
  /** @param {{width?: number, height?: number}} [size] */
  static async start({ width = 1440, height = 900 } = {}) {
    const profile = mkdtempSync(join(tmpdir(), 'view-browser-'));
    const options = [
      '--headless=new',
      '--remote-debugging-pipe',
      `--user-data-dir=${profile}`,
      `--window-size=${width},${height}`,
      '--disable-gpu',
      '--disable-dev-shm-usage',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-extensions',
      '--no-first-run',
      '--hide-scrollbars',
      '--force-color-profile=srgb',
      ...(process.getuid() === 0 ? ['--no-sandbox'] : []),
    ];
    const child = spawn(process.env.VNT_CHROMIUM || 'chromium', options, {
      stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'],
      env: { ...process.env, HOME: profile, LD_PRELOAD: '' },
    });
    const browser = new Browser(child, profile);
    const { targetInfos } = await browser.send('Target.getTargets');
    const { targetId } = targetInfos.find((info) => info.type === 'page') || (await browser.send('Target.createTarget', { url: 'about:blank' }));
    browser.session = (await browser.send('Target.attachToTarget', { targetId, flatten: true })).sessionId;
    for (const domain of ['Page', 'Runtime', 'Network', 'Log', 'Accessibility']) await browser.send(`${domain}.enable`);
    await browser.send('Emulation.setDeviceMetricsOverride', { width, height, deviceScaleFactor: 1, mobile: false });
    return browser;
  }

  constructor(child, profile) {
    this.child = child;
    this.profile = profile;
    this.problems = []; // what the console, the policy and the network complain of
    this.requests = [];
    this._waiting = new Map();
    this._last = 0;
    let text = '';
    child.stdio[4].setEncoding('utf8');
    child.stdio[4].on('data', (piece) => {
      text += piece;
      for (let end = text.indexOf('\0'); end !== -1; end = text.indexOf('\0')) {
        this._receive(JSON.parse(text.slice(0, end)));
        text = text.slice(end + 1);
      }
    });
    child.stdio[3].on('error', () => {});
    this.ended = new Promise((resolve) => child.on('exit', resolve));
    this.ended.then(() => this._failAll('the browser ended'));
    child.on('error', (error) => this._failAll(`the browser did not start: ${error.message}`));
  }

  _failAll(why) {
    for (const { reject } of this._waiting.values()) reject(new Error(why));
    this._waiting.clear();
    this.gone = why;
  }

  _receive(message) {
    if (message.id) {
      const waiting = this._waiting.get(message.id);
      this._waiting.delete(message.id);
      if (waiting && message.error) waiting.reject(new Error(message.error.message));
      else if (waiting) waiting.resolve(message.result);
      return;
    }
    const { method, params } = message;
    if (method === 'Runtime.exceptionThrown')
      this.problems.push(params.exceptionDetails.exception?.description || params.exceptionDetails.text);
    if (method === 'Runtime.consoleAPICalled' && ['error', 'warning', 'assert'].includes(params.type))
      this.problems.push(params.args.map((arg) => arg.value ?? arg.description).join(' '));
    if (method === 'Log.entryAdded' && ['error', 'warning'].includes(params.entry.level)) this.problems.push(params.entry.text);
    if (method === 'Network.requestWillBeSent') this.requests.push(params.request.url);
  }

  send(method, params = {}) {
    if (this.gone) return Promise.reject(new Error(this.gone));
    const id = ++this._last;
    this.child.stdio[3].write(`${JSON.stringify({ id, method, params, sessionId: this.session })}\0`);
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`${method}: no answer`)), kDeadlineMs);
      const done = (run) => (value) => {
        clearTimeout(timer);
        run(value);
      };
      this._waiting.set(id, { resolve: done(resolve), reject: done(reject) });
    });
  }

  async open(path) {
    await this.send('Page.navigate', { url: pathToFileURL(path).href });
  }

  /** The value of an expression in the page; a promise is waited for. */
  async evaluate(expression) {
    const { result, exceptionDetails } = await this.send('Runtime.evaluate', { expression, returnByValue: true, awaitPromise: true });
    if (exceptionDetails) throw new Error(exceptionDetails.exception?.description || exceptionDetails.text);
    return result.value;
  }

  /** Waits until the expression is true. */
  async until(expression, what = expression) {
    const end = Date.now() + kDeadlineMs;
    for (;;) {
      const value = await this.evaluate(expression);
      if (value) return value;
      if (Date.now() > end) throw new Error(`waited in vain for: ${what}`);
      await this.frame();
    }
  }
  /** After the page's next picture. */
  frame() {
    return this.evaluate('new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)))').then(() => undefined);
  }

  async click(selector) {
    const place = await this.place(selector);
    await this.mouse('mousePressed', place.x, place.y);
    await this.mouse('mouseReleased', place.x, place.y);
    await this.frame();
  }
  /** The middle of an element. */
  async place(selector) {
    const box = await this.evaluate(
      `(() => { const e = document.querySelector(${JSON.stringify(selector)}); if (!e) return null; e.scrollIntoView({ block: 'nearest' });
        const r = e.getBoundingClientRect(); return { x: r.x + r.width / 2, y: r.y + r.height / 2, left: r.x, top: r.y, width: r.width, height: r.height }; })()`,
    );
    if (!box) throw new Error(`no ${selector}`);
    return box;
  }
  mouse(type, x, y) {
    return this.send('Input.dispatchMouseEvent', { type, x, y, button: type === 'mouseMoved' ? 'none' : 'left', buttons: type === 'mouseReleased' ? 0 : 1, clickCount: 1 });
  }
  async drag(from, to) {
    await this.mouse('mousePressed', from.x, from.y);
    for (let step = 1; step <= 4; ++step)
      await this.mouse('mouseMoved', from.x + ((to.x - from.x) * step) / 4, from.y + ((to.y - from.y) * step) / 4);
    await this.mouse('mouseReleased', to.x, to.y);
    await this.frame();
  }
  /** A key by its name, as KeyboardEvent.key has it. */
  async press(key, { shift = false } = {}) {
    const named = { Enter: 13, Escape: 27, Backspace: 8, Tab: 9, ArrowLeft: 37, ArrowUp: 38, ArrowRight: 39, ArrowDown: 40, Home: 36, End: 35, PageDown: 34 };
    const modifiers = shift ? 8 : 0;
    const common = { key, modifiers, windowsVirtualKeyCode: named[key] || key.toUpperCase().charCodeAt(0) };
    const text = named[key] ? (key === 'Enter' ? '\r' : undefined) : key;
    await this.send('Input.dispatchKeyEvent', { type: text ? 'keyDown' : 'rawKeyDown', text, ...common });
    await this.send('Input.dispatchKeyEvent', { type: 'keyUp', ...common });
    await this.frame();
  }
  async type(text) {
    await this.send('Input.insertText', { text });
    await this.frame();
  }

  async screenshot(path) {
    const { data } = await this.send('Page.captureScreenshot', { format: 'png' });
    writeFileSync(path, Buffer.from(data, 'base64'));
  }

  async stop() {
    this.session = undefined;
    await this.send('Browser.close').catch(() => {});
    const timer = setTimeout(() => this.child.kill('SIGKILL'), 10_000);
    await this.ended;
    clearTimeout(timer);
    rmSync(this.profile, { recursive: true, force: true, maxRetries: 20, retryDelay: 50 });
  }
}
