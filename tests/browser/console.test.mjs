// The agent's console in Debian's Chromium, against the demo's device and local backend: what
// the agent does in the page must reach the device, and what the device does must show in the
// page. The cases run in order on one demo, as an agent's session would.

import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const demoPath = path.resolve(root, process.env.VIRELA_DEMO ?? 'build/test/apps/demo/virela-demo');

const REDACTION = [226, 59, 55]; // the library's default redaction colour
const BOX = [0x25, 0x63, 0xeb]; // the console's blue swatch

let demo;
let browser;
let page;
let consoleUrl;
const layout = {}; // control name -> centre as fractions of the window

// The demo's standard output, line by line, with waits on what it has said or will say.
class Demo {
  constructor(outDir) {
    this.outDir = outDir;
    this.lines = [];
    this.waiters = new Set();
    this.proc = spawn(demoPath, ['--console', '--out', outDir], {
      env: { ...process.env, VIRELA_STATE_DIR: path.join(outDir, 'state') },
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    // Taken at once, so that an exit before anyone waits for it is not missed.
    this.exited = once(this.proc, 'exit');
    this.stderr = '';
    this.proc.stderr.on('data', (d) => { this.stderr += d; });
    readline.createInterface({ input: this.proc.stdout }).on('line', (line) => {
      this.lines.push(line);
      for (const w of this.waiters) w();
    });
  }

  // The first line from index `from` on that matches; rejects after `ms`.
  line(pattern, { from = 0, ms = 10000 } = {}) {
    return new Promise((resolve, reject) => {
      const check = () => {
        const i = this.lines.findIndex((l, k) => k >= from && pattern.test(l));
        if (i < 0) return false;
        cleanup();
        const m = this.lines[i].match(pattern);
        m.at = i;
        resolve(m);
        return true;
      };
      const timer = setTimeout(() => {
        cleanup();
        reject(new Error(`the demo did not print ${pattern} within ${ms} ms; its last lines:\n` +
          this.lines.slice(-15).join('\n') + `\nstderr tail:\n${this.stderr.slice(-1500)}`));
      }, ms);
      const cleanup = () => { clearTimeout(timer); this.waiters.delete(check); };
      if (!check()) this.waiters.add(check);
    });
  }

  mark() {
    return this.lines.length;
  }

  // The customer's action at the demo's terminal.
  type(line) {
    this.proc.stdin.write(`${line}\n`);
  }
}

const byId = (id) => page.getByTestId(id);
const text = (id) => byId(id).textContent();

async function until(what, fn, ms = 10000) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await fn();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, 100));
  }
}

// Pixel facts of an image, read in the page: the share of `rect` (fractions) in `color`, the
// rect's mean colour, and the bounding box (fractions) of every pixel in that colour. `source`
// is a URL or 'frame', the image on the stage.
function colorFacts(source, color, rect = { x: 0, y: 0, w: 1, h: 1 }) {
  return page.evaluate(async ({ source, color, rect }) => {
    let image;
    if (source === 'frame') {
      // The next frame may replace the picture while it is read; a few tries outlast that.
      image = document.querySelector('[data-testid="frame"]');
      for (let i = 0; ; i++) {
        try {
          await image.decode();
          break;
        } catch (e) {
          if (i === 3) throw e;
        }
      }
    } else {
      image = new Image();
      image.src = source;
      await image.decode();
    }
    const w = image.naturalWidth;
    const h = image.naturalHeight;
    const canvas = document.createElement('canvas');
    canvas.width = w;
    canvas.height = h;
    const ctx = canvas.getContext('2d');
    ctx.drawImage(image, 0, 0);
    const data = ctx.getImageData(0, 0, w, h).data;
    const near = (i) => Math.abs(data[i] - color[0]) <= 24 && Math.abs(data[i + 1] - color[1]) <= 24 &&
      Math.abs(data[i + 2] - color[2]) <= 24;
    let inRect = 0;
    let rectTotal = 0;
    const sum = [0, 0, 0];
    let box = null;
    const [x0, y0, x1, y1] = [rect.x * w, rect.y * h, (rect.x + rect.w) * w, (rect.y + rect.h) * h].map(Math.round);
    for (let y = 0; y < h; y++) {
      for (let x = 0; x < w; x++) {
        const hit = near((y * w + x) * 4);
        if (x >= x0 && x < x1 && y >= y0 && y < y1) {
          rectTotal++;
          if (hit) inRect++;
          for (let c = 0; c < 3; c++) sum[c] += data[(y * w + x) * 4 + c];
        }
        if (hit) {
          box ??= { x0: x, y0: y, x1: x, y1: y };
          box.x0 = Math.min(box.x0, x); box.x1 = Math.max(box.x1, x);
          box.y0 = Math.min(box.y0, y); box.y1 = Math.max(box.y1, y);
        }
      }
    }
    return {
      share: rectTotal ? inRect / rectTotal : 0,
      mean: sum.map((v) => v / Math.max(1, rectTotal)),
      box: box && { x: box.x0 / w, y: box.y0 / h, x2: (box.x1 + 1) / w, y2: (box.y1 + 1) / h },
    };
  }, { source, color, rect });
}

// The middle of a control, as a small rect of fractions around its printed centre.
const around = ({ x, y }, w = 0.02, h = 0.01) => ({ x: x - w, y: y - h, w: 2 * w, h: 2 * h });

async function frameBox() {
  const box = await byId('frame').boundingBox();
  assert.ok(box, 'the frame is on screen');
  return box;
}

async function clickFrame({ x, y }) {
  const r = await frameBox();
  await page.mouse.click(r.x + x * r.width, r.y + y * r.height);
}

async function dragFrame(from, to) {
  const r = await frameBox();
  await page.mouse.move(r.x + from.x * r.width, r.y + from.y * r.height);
  await page.mouse.down();
  await page.mouse.move(r.x + to.x * r.width, r.y + to.y * r.height, { steps: 6 });
  await page.mouse.up();
}

const frameNumber = async () => Number(await byId('frame').getAttribute('data-frame') ?? -1);

before(async () => {
  assert.ok(fs.existsSync(demoPath), `no demo binary at ${demoPath} (set VIRELA_DEMO)`);
  demo = new Demo(fs.mkdtempSync(path.join(os.tmpdir(), 'virela-console-')));
  consoleUrl = (await demo.line(/^console: (http:\/\/127\.0\.0\.1:\d+\/console\?token=\S+)$/))[1];
  await demo.line(/^app: ready$/);
  for (const line of demo.lines) {
    const m = line.match(/^app: layout: \S+ "([^"]+)" at ([\d.]+),([\d.]+)$/);
    if (m) layout[m[1]] = { x: Number(m[2]), y: Number(m[3]) };
  }
  browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  // A context of its own, so that a test can open another page beside it with the same cookies.
  const context = await browser.newContext({ viewport: { width: 1440, height: 900 } });
  page = await context.newPage();
  page.on('pageerror', (e) => assert.fail(`the page threw: ${e.message}`));
});

after(async () => {
  await browser?.close();
  if (demo && demo.proc.exitCode === null) {
    demo.proc.kill('SIGINT');
    await demo.line(/^stopped$/, { ms: 5000 }).catch(() => demo.proc.kill('SIGKILL'));
    await demo.exited;
  }
  if (demo) fs.rmSync(demo.outDir, { recursive: true, force: true });
});

test('without the token the console, its API and its images are refused and say nothing', async () => {
  const base = new URL(consoleUrl).origin;
  const token = new URL(consoleUrl).searchParams.get('token');
  const asks = [
    ['GET', '/console'], ['GET', '/console/app.js'], ['GET', '/console/api/state'],
    ['POST', '/console/api/devices/x/live'], ['GET', '/live/live_1/latest.jpg'],
    ['GET', `/console?token=${token}x`],
  ];
  for (const [method, where] of asks) {
    const res = await fetch(base + where, { method, body: method === 'POST' ? '{}' : undefined });
    const body = await res.text();
    assert.equal(res.status, 401, `${method} ${where}`);
    assert.equal(res.headers.get('set-cookie'), null, `${method} ${where} sets no cookie`);
    assert.equal(JSON.parse(body).error, 'unauthorized', `${method} ${where}`);
    assert.doesNotMatch(body, /<html|dev_|live_|cap_|virela-demo/i, `${method} ${where} reveals nothing`);
  }
});

test('the console lists the demo device, connected, with its user and health', async () => {
  await page.goto(consoleUrl);
  const device = byId('device');
  await device.first().waitFor();
  assert.equal(await device.count(), 1);
  await until('the device shows as connected', async () => (await text('device-connection')) === 'connected');
  assert.match(await text('device-support-code'), /\S/);
  assert.match(await text('device-user'), /\S/);
  assert.ok(await byId('device-panel').isVisible(), 'the only device is selected');
});

test('a page of another local origin cannot act with the console cookie', async () => {
  const origin = new URL(consoleUrl).origin;
  const token = new URL(consoleUrl).searchParams.get('token');
  const state = async () => (await fetch(`${origin}/console/api/state?token=${token}`)).json();
  const before = await state();
  const deviceId = before.devices[0].deviceId;
  // Another server of this machine: the same site to the browser, so the cookie goes along.
  const elsewhere = http.createServer((req, res) => {
    res.writeHead(200, { 'Content-Type': 'text/html' });
    res.end('<!doctype html><title>elsewhere</title>');
  });
  elsewhere.listen(0, '127.0.0.1');
  await once(elsewhere, 'listening');
  const other = await page.context().newPage();
  try {
    await other.goto(`http://127.0.0.1:${elsewhere.address().port}/`);
    const from = demo.lines.length;
    await other.evaluate(async (url) => {
      // A simple request, so no preflight stops it first: only the backend can refuse it.
      await fetch(url, { method: 'POST', mode: 'no-cors', credentials: 'include', body: '{}' });
    }, `${origin}/console/api/devices/${deviceId}/live`);
    await new Promise((resolve) => setTimeout(resolve, 1000));
    const after = await state();
    assert.equal(after.sessions.length, before.sessions.length, 'no live session was asked for');
    assert.ok(!demo.lines.slice(from).some((l) => /live|Share your screen/i.test(l)),
      `the customer saw nothing: ${demo.lines.slice(from).join(' | ')}`);
  } finally {
    await other.close();
    elsewhere.close();
  }
});

test('screenshots arrive with their sensitive views painted over, once and for the call', async () => {
  await byId('shot-once').click();
  const received = page.locator('[data-testid="capture"][data-capture-id]:not([data-capture-id=""])');
  await received.first().waitFor();
  const url = await byId('capture-image').first().getAttribute('src');
  assert.match(await byId('capture-id').first().textContent(), /\S/);

  const card = await colorFacts(url, REDACTION, around(layout['Card number'], 0.25, 0.012));
  const password = await colorFacts(url, REDACTION, around(layout.Password, 0.25, 0.012));
  const name = await colorFacts(url, REDACTION, around(layout.Name, 0.25, 0.012));
  assert.ok(card.share > 0.6, `card number painted over (${card.share})`);
  assert.ok(password.share > 0.6, `password painted over (${password.share})`);
  assert.ok(name.share < 0.05, `name left as it is (${name.share})`);

  // For the call: one prompt, then another image without one.
  const asked = demo.mark();
  await byId('shot-call').click();
  await byId('capture-another').waitFor();
  await demo.line(/^host: onAllowed: capture/, { from: asked });
  await until('the first image of the call', async () => (await received.count()) === 2);
  const prompts = demo.mark();
  await byId('capture-another').click();
  await until('the second image of the call', async () => (await received.count()) === 3);
  assert.equal(demo.lines.slice(prompts).filter((l) => /^host: onRequestShown/.test(l)).length, 0,
    'no prompt for a shot inside the call');
});

test('the live view shows frames as they change, in a second tab too', async () => {
  await byId('live-start').click();
  await until('the session to be active', async () => (await text('session-state')) === 'active', 15000);
  await page.locator('[data-testid="frame"]:not([hidden])').waitFor();
  const first = await frameNumber();
  await until('a later frame on screen', async () => (await frameNumber()) > first);
  assert.match(await text('session-generation'), /\S/);
  await until('a frame rate', async () => Number(await text('frame-rate')) > 1);
  await page.locator('[data-testid="event"][data-kind="indicator"]').first().waitFor();
  assert.equal(await byId('stage').getAttribute('data-state'), 'live');

  const second = await browser.newPage();
  await second.goto(consoleUrl);
  await until('the second tab to show the session', async () =>
    (await second.getByTestId('session-id').textContent()) === (await text('session-id')) &&
    (await second.getByTestId('session-state').textContent()) === 'active');
  assert.equal(await second.getByTestId('session-generation').textContent(), await text('session-generation'));
  await second.close();
});

test('a box drawn on the frame shows on the customer\'s own screen', async () => {
  const row = layout['Save card'];
  const from = { x: 0.04, y: row.y - 0.035 };
  const to = { x: 0.96, y: row.y + 0.035 };
  await byId('tool-box').check({ force: true });
  await byId('color-blue').check({ force: true });
  const viewPath = path.join(demo.outDir, 'customer-view.png');
  await dragFrame(from, to);

  const seen = await until('the box on the customer\'s view', async () => {
    if (!fs.existsSync(viewPath)) return null;
    const png = `data:image/png;base64,${fs.readFileSync(viewPath).toString('base64')}`;
    return (await colorFacts(png, BOX)).box;
  });
  for (const [k, want] of [['x', from.x], ['y', from.y], ['x2', to.x], ['y2', to.y]]) {
    assert.ok(Math.abs(seen[k] - want) < 0.02, `box ${k} at ${seen[k].toFixed(3)}, drawn at ${want.toFixed(3)}`);
  }

  // The picture in the README: an arrow to the switch beside the box, the log, the images.
  await byId('tool-arrow').check({ force: true });
  await dragFrame({ x: 0.55, y: row.y + 0.16 }, { x: row.x - 0.02, y: row.y + 0.04 });
  await page.evaluate(() => window.scrollTo(0, 0));
  const shot = await page.screenshot();
  fs.mkdirSync(path.join(root, 'build/browser'), { recursive: true });
  fs.writeFileSync(path.join(root, 'build/browser/console.png'), shot);
  if (process.env.VIRELA_UPDATE_SCREENSHOT === '1') {
    fs.mkdirSync(path.join(root, 'docs'), { recursive: true });
    fs.writeFileSync(path.join(root, 'docs/console.png'), shot);
  }
});

test('under control a click taps, keys type, the wheel scrolls; control ends on release', async () => {
  const from = demo.mark();
  await byId('control-ask').click();
  await until('control to be granted', async () => (await text('control-state')) === 'active', 15000);
  await demo.line(/^host: onRemoteControl: true$/, { from });
  assert.equal(await byId('stage').getAttribute('data-tool'), 'control');

  const save = layout['Save card'];
  const switchColour = async () => (await colorFacts('frame', [0, 0, 0], around(save, 0.04, 0.01))).mean;
  const off = await switchColour();
  await clickFrame(save);
  await demo.line(/^app: switch "Save card" on$/, { from });
  // A frame taken after the tap shows the switch turned on.
  await until('a frame with the switch on', async () => {
    const on = await switchColour();
    return on.some((v, c) => Math.abs(v - off[c]) > 20);
  });

  await clickFrame(layout.Name);
  await demo.line(/^app: field "Name" focused$/, { from });
  await page.keyboard.type('Ada');
  await page.keyboard.press('Backspace');
  const typed = await demo.line(/^app: field "Name" text "Ada"$/, { from });
  await demo.line(/^app: field "Name" text "Ad"$/, { from: typed.at + 1 });

  // Leaving a marked screen takes the marks away and tells the agent, here and on the device.
  await byId('tool-box').check({ force: true });
  await dragFrame({ x: 0.1, y: 0.58 }, { x: 0.9, y: 0.66 });
  await byId('tool-control').check({ force: true });
  await clickFrame(layout['Order details']);
  const shown = await demo.line(/^app: screen "Order details" shown$/, { from });
  await page.locator('[data-testid="event"][data-kind="view"]').first().waitFor();
  assert.match(await page.locator('[data-testid="event"][data-kind="view"]').first().textContent(), /nav/);
  assert.equal(await byId('marks').evaluate((svg) => svg.childElementCount), 0, 'the console drops its marks too');
  const back = await demo.line(/^app: layout: button "Back" at ([\d.]+),([\d.]+)$/, { from: shown.at });
  await clickFrame({ x: Number(back[1]), y: Number(back[2]) });
  await demo.line(/^app: screen "Checkout" shown$/, { from: shown.at });

  const r = await frameBox();
  await page.mouse.move(r.x + r.width / 2, r.y + layout.Amount.y * r.height);
  await page.mouse.wheel(0, 240);
  await demo.line(/^app: scroll "Checkout" offset [\d.]+,[1-9]/, { from });
  assert.ok(Number(await text('control-inputs')) >= 4, 'each input counted');

  await byId('control-release').click();
  await until('control to end', async () => (await text('control-state')) === 'ended');
  await demo.line(/^host: onRemoteControl: false$/, { from });
  assert.equal(await byId('stage').getAttribute('data-tool'), 'laser');
});

test('refusing the recording confirmation shows the lease lapse, and the page keeps the switch', async () => {
  await byId('refuse-recording').check();
  await page.waitForFunction(() => !document.querySelector('[data-testid="refuse-recording"]').dataset.pending);
  await byId('note-recording-start').click();
  await page.locator('[data-testid="event"][data-kind="indicator"].bad').first().waitFor();
  await page.locator('[data-testid="indicator"][data-kind="recording"].bad').waitFor();
  assert.match(await page.locator('[data-testid="indicator"][data-kind="recording"]').textContent(), /lapsed/);
  await page.waitForTimeout(700); // a few polls: the switch follows the backend, not the click
  assert.ok(await byId('refuse-recording').isChecked());
  await byId('refuse-recording').uncheck();
});

test('the customer leaving the app turns the picture stale, and a lost connection shows and comes back', async () => {
  const stage = () => byId('stage').getAttribute('data-state');
  demo.type('background');
  await until('the picture to turn stale', async () => (await stage()) === 'stale');
  assert.match(await text('device-app-state'), /background/);
  demo.type('foreground');
  await until('frames to flow again', async () => (await stage()) === 'live');
  demo.type('offline');
  // The device is back within about a second; the log keeps the moment it was gone.
  await page.locator('[data-testid="event"][data-kind="disconnected"]').first().waitFor();
  await until('the device to be connected again', async () => (await text('device-connection')) === 'connected');
  assert.match(await text('device-app-state'), /foreground/);
});

test('ending the live view ends it on the device and greys the last frame', async () => {
  const from = demo.mark();
  await byId('live-end').click();
  await demo.line(/^host: onLiveEnded: /, { from });
  await until('the session to be ended', async () => (await text('session-state')) === 'ended');
  assert.equal(await byId('stage').getAttribute('data-state'), 'ended');
  assert.ok(await byId('live-start').isEnabled(), 'a new live view can start');
});
