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
const GREEN = [0x16, 0xa3, 0x4a]; // its green one

let demo;
let browser;
let page;
let consoleUrl;
let demoDevice; // the demo's own device id
const layout = {}; // control name -> centre as fractions of the window

// The demo's standard output, line by line, with waits on what it has said or will say.
class Demo {
  constructor(outDir, args = ['--console']) {
    this.outDir = outDir;
    this.lines = [];
    this.waiters = new Set();
    this.proc = spawn(demoPath, [...args, '--out', outDir], {
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

// The backend's answer to an authorised GET of `where` (a path).
function backend(where) {
  const url = new URL(consoleUrl);
  return fetch(`${url.origin}${where}`, { headers: { Authorization: `Bearer ${url.searchParams.get('token')}` } });
}

// What the page offers for download behind `link`, as the browser saves it.
async function download(link) {
  const [file] = await Promise.all([page.waitForEvent('download'), link.click()]);
  return { name: file.suggestedFilename(), bytes: fs.readFileSync(await file.path()) };
}

// A video file played through in the page: its duration, the frames it showed and decoded, its
// size, and the share of each of `rects` (fractions) in its last frame near `color`.
function videoFacts(bytes, color, rects) {
  return page.evaluate(async ({ b64, color, rects }) => {
    const data = Uint8Array.from(atob(b64), (c) => c.charCodeAt(0));
    const video = document.createElement('video');
    video.muted = true;
    video.src = URL.createObjectURL(new Blob([data], { type: 'video/webm' }));
    const event = (name) => new Promise((resolve, reject) => {
      video.addEventListener(name, resolve, { once: true });
      video.addEventListener('error', () => reject(new Error(`the video does not play: ${video.error?.message}`)), { once: true });
    });
    await event('loadedmetadata');
    // A recorder's file does not say how long it is; a seek past its end makes the browser find out.
    if (!Number.isFinite(video.duration)) {
      const found = event('durationchange');
      video.currentTime = 1e6;
      await found;
      video.currentTime = 0;
      await event('seeked');
    }
    const duration = video.duration;
    let shown = 0;
    const count = () => {
      shown++;
      video.requestVideoFrameCallback(count);
    };
    video.requestVideoFrameCallback(count);
    const ended = event('ended');
    video.playbackRate = 2;
    await video.play();
    await ended;
    const decoded = video.getVideoPlaybackQuality().totalVideoFrames;
    const canvas = document.createElement('canvas');
    canvas.width = video.videoWidth;
    canvas.height = video.videoHeight;
    const ctx = canvas.getContext('2d');
    ctx.drawImage(video, 0, 0);
    const shares = rects.map((rect) => {
      const [x, y, w, h] = [rect.x * canvas.width, rect.y * canvas.height, rect.w * canvas.width, rect.h * canvas.height].map(Math.round);
      const px = ctx.getImageData(x, y, w, h).data;
      let near = 0;
      for (let i = 0; i < px.length; i += 4) {
        if (Math.abs(px[i] - color[0]) < 40 && Math.abs(px[i + 1] - color[1]) < 40 && Math.abs(px[i + 2] - color[2]) < 40) near++;
      }
      return near / (px.length / 4);
    });
    return { duration, shown, decoded, width: video.videoWidth, height: video.videoHeight, shares };
  }, { b64: bytes.toString('base64'), color, rects });
}

const naturalSize = () => byId('frame').evaluate((img) => ({ width: img.naturalWidth, height: img.naturalHeight }));
const noteEvent = (kind) => page.locator('[data-testid="event"][data-kind="note"]', { hasText: kind });
const chip = (kind) => page.locator(`[data-testid="indicator"][data-kind="${kind}"]`);

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
  demoDevice = await text('panel-device-id');
});

test('the header\'s link opens the protocol reference, styled, with nothing loaded from elsewhere', async () => {
  const origin = new URL(consoleUrl).origin;
  const [reference] = await Promise.all([page.waitForEvent('popup'), byId('docs-link').click()]);
  const requests = [];
  const refused = [];
  reference.on('request', (r) => requests.push(r.url()));
  reference.on('console', (m) => { if (m.type() === 'error') refused.push(m.text()); });
  try {
    await reference.reload();
    await reference.waitForLoadState('load');
    assert.equal(new URL(reference.url()).pathname, '/docs');
    assert.match(await reference.title(), /protocol reference/i);
    assert.ok(await reference.locator('#op-registerDevice').isVisible());
    assert.ok(await reference.locator('#msg-control-input').count());
    // The style sheet got past the page's policy: the contents stay beside the text.
    assert.equal(await reference.locator('nav').evaluate((n) => getComputedStyle(n).position), 'sticky');
    assert.deepEqual(requests.filter((u) => !u.startsWith(`${origin}/docs`)), []);
    assert.deepEqual(refused, []);
  } finally {
    await reference.close();
  }
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

test('a screenshot opens full size in the page and downloads as the device sent it', async () => {
  const tile = byId('capture').filter({ has: byId('capture-image') }).first();
  const src = await tile.getByTestId('capture-image').getAttribute('src');
  const served = Buffer.from(await (await backend(src)).arrayBuffer());
  await tile.locator('a.thumb').click();
  await byId('viewer').waitFor();
  const shown = await byId('viewer-image').evaluate(async (img) => {
    await img.decode();
    return { natural: img.naturalWidth, width: img.getBoundingClientRect().width };
  });
  assert.ok(shown.natural > 0 && Math.abs(shown.width - shown.natural) < 1, `full size: ${JSON.stringify(shown)}`);
  const file = await download(byId('viewer-download'));
  assert.match(file.name, /^cap_\w+\.png$/);
  assert.ok(file.bytes.equals(served), 'the viewer\'s download is the image itself');
  await page.keyboard.press('Escape');
  await until('the viewer to close', async () => !(await byId('viewer').isVisible()));
  assert.ok((await download(tile.getByTestId('capture-download'))).bytes.equals(served), 'so is the list\'s');
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

test('a snapshot keeps the frame with the agent\'s marks beside the screenshots, and only then tells the customer', async () => {
  await byId('tool-box').check({ force: true });
  await byId('color-green').check({ force: true });
  const from = { x: 0.1, y: 0.45 };
  const to = { x: 0.6, y: 0.55 };
  await dragFrame(from, to);
  const before = await noteEvent('frameSaved').count();
  await byId('note-frame-saved').click();
  const tile = page.locator('[data-testid="saved"][data-kind="snapshot"]');
  await tile.waitFor();
  await until('the note to the customer', async () => (await noteEvent('frameSaved').count()) > before);
  assert.ok(await tile.getByTestId('saved-image').evaluate(async (img) => (await img.decode(), img.naturalWidth > 0)), 'its thumbnail shows');
  const file = await download(tile.getByTestId('saved-download'));
  assert.match(file.name, /\.png$/);
  const png = `data:image/png;base64,${file.bytes.toString('base64')}`;
  const size = await page.evaluate(async (src) => {
    const image = new Image();
    image.src = src;
    await image.decode();
    return { width: image.naturalWidth, height: image.naturalHeight };
  }, png);
  assert.deepEqual(size, await naturalSize(), 'the frame at its own size');
  const seen = (await colorFacts(png, GREEN)).box;
  assert.ok(seen, 'the box is in the snapshot');
  for (const [k, want] of [['x', from.x], ['y', from.y], ['x2', to.x], ['y2', to.y]]) {
    assert.ok(Math.abs(seen[k] - want) < 0.02, `box ${k} at ${seen[k].toFixed(3)}, drawn at ${want.toFixed(3)}`);
  }
});

test('a recording keeps what the agent saw as a video that plays, and its chip and Stop last as long as it', async (t) => {
  const start = byId('note-recording-start');
  const stop = byId('note-recording-stop');
  assert.ok(await stop.isDisabled(), 'nothing to stop yet');
  await start.click();
  await until('the recorder to run', () => stop.isEnabled());
  assert.ok(await start.isDisabled());
  await noteEvent('recordingStarted').first().waitFor();
  await chip('recording').waitFor();
  // A mark drawn while it records is in the file.
  const mark = { x: 0.1, y: 0.3, x2: 0.9, y2: 0.4 };
  await dragFrame(mark, { x: mark.x2, y: mark.y2 });
  await page.waitForTimeout(2000);
  await stop.click();
  await noteEvent('recordingStopped').first().waitFor();
  await until('the recording chip to go', async () => (await chip('recording').count()) === 0);
  assert.ok(await stop.isDisabled(), 'Stop is off once stopped');
  assert.ok(await start.isEnabled(), 'and another can start');

  const file = await download(page.locator('[data-testid="saved"][data-kind="recording"] [data-testid="saved-download"]'));
  assert.match(file.name, /\.webm$/);
  // The box's top edge, and the same strip just under it.
  const edge = { x: 0.2, y: mark.y - 0.006, w: 0.6, h: 0.012 };
  const video = await videoFacts(file.bytes, GREEN, [edge, { ...edge, y: mark.y + 0.03 }]);
  t.diagnostic(`${file.name}: ${file.bytes.length} bytes, ${JSON.stringify(video)}`);
  assert.ok(video.duration > 1.5 && video.duration < 10, `duration ${video.duration}`);
  assert.ok(video.shown > 1 && video.decoded > 1, `frames shown ${video.shown}, decoded ${video.decoded}`);
  const size = await naturalSize();
  assert.deepEqual({ width: video.width, height: video.height }, size, 'the frame at its own size');
  const [onEdge, under] = video.shares;
  assert.ok(onEdge > 0.15 && under < 0.02, `the mark in the last frame (${onEdge}, beside it ${under})`);
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

test('the picture fills its place and enlarges; frame age and round trip read out', async () => {
  const wrap = page.locator('.stage-wrap');
  const fits = async (width, height) => {
    const r = await frameBox();
    return Math.abs(r.width - width) < 2 || Math.abs(r.height - height) < 2;
  };
  const placed = await frameBox();
  const room = await wrap.evaluate((w) => ({ width: w.clientWidth, top: w.getBoundingClientRect().top + scrollY }));
  assert.ok(await fits(room.width, 900 - room.top - 48), `fills its place: ${JSON.stringify([placed, room])}`);
  await byId('stage-enlarge').click();
  assert.ok(await fits(1440 - 48, 900 - 90), 'fills the window');
  assert.ok((await frameBox()).height > placed.height + 50, 'larger');
  await byId('stage-enlarge').click();
  assert.ok(Math.abs((await frameBox()).height - placed.height) < 2, 'and back');

  await until('a frame age', async () => /^\d+\.\d s$/.test(await text('frame-age')));
  assert.ok(parseFloat(await text('frame-age')) < 2.5, await text('frame-age'));
  assert.match(await text('round-trip'), /^\d+ ms$/);
});

test('a fill shows as the customer sees it while it is dragged, and the device draws it the same', async () => {
  const PURPLE = [0x93, 0x33, 0xea];
  await byId('tool-fill').check({ force: true });
  await byId('color-purple').check({ force: true });
  const from = { x: 0.06, y: 0.41 };
  const to = { x: 0.7, y: 0.45 };
  const r = await frameBox();
  await page.mouse.move(r.x + from.x * r.width, r.y + from.y * r.height);
  await page.mouse.down();
  await page.mouse.move(r.x + to.x * r.width, r.y + to.y * r.height, { steps: 6 });
  const preview = await page.evaluate(() => {
    const fill = document.querySelector('[data-testid="marks"] svg[data-kind="fill"]');
    const rect = fill?.querySelector('rect');
    return fill && { word: fill.textContent, color: rect.getAttribute('fill'), opacity: getComputedStyle(fill).opacity, own: rect.getAttribute('fill-opacity') };
  });
  await page.mouse.up();
  assert.deepEqual(preview, { word: 'REDACTED', color: '#9333EA', opacity: '1', own: null });

  const viewPath = path.join(demo.outDir, 'customer-view.png');
  const seen = await until('the fill on the customer\'s view', async () => {
    const png = `data:image/png;base64,${fs.readFileSync(viewPath).toString('base64')}`;
    const facts = await colorFacts(png, PURPLE);
    return facts.box && Math.abs(facts.box.x - from.x) < 0.02 && { png, box: facts.box };
  });
  for (const [k, want] of [['y', from.y], ['x2', to.x], ['y2', to.y]]) {
    assert.ok(Math.abs(seen.box[k] - want) < 0.02, `fill ${k} at ${seen.box[k].toFixed(3)}, drawn at ${want.toFixed(3)}`);
  }
  const middle = { x: from.x, y: from.y, w: to.x - from.x, h: to.y - from.y };
  const solid = await colorFacts(seen.png, PURPLE, middle);
  const word = await colorFacts(seen.png, [255, 255, 255], middle);
  assert.ok(solid.share > 0.75, `solid (${solid.share})`);
  assert.ok(word.share > 0.008, `with its word (${word.share})`);
});

test('the keys the page lists pick tools and colours, clear the marks and enlarge the picture', async () => {
  const listed = await byId('shortcuts').textContent();
  for (const key of ['P', 'A', 'B', 'F', 'L', 'T', '1–5', 'C', 'Z', 'Esc', 'Shift+E']) {
    assert.ok(listed.includes(key), `${key} is listed`);
  }
  await page.locator('h1').click();
  await page.keyboard.press('a');
  assert.ok(await byId('tool-arrow').isChecked());
  await page.keyboard.press('4');
  assert.ok(await byId('color-amber').isChecked());
  await page.keyboard.press('b');
  assert.ok(await byId('tool-box').isChecked());
  await dragFrame({ x: 0.2, y: 0.2 }, { x: 0.5, y: 0.3 });
  const marks = () => byId('marks').evaluate((svg) => svg.childElementCount);
  assert.ok((await marks()) > 0);
  await page.keyboard.press('c');
  assert.equal(await marks(), 0, 'cleared');
  await page.keyboard.press('z');
  assert.match(await page.locator('.stage-wrap').getAttribute('class'), /enlarged/);
  await page.keyboard.press('Escape');
  assert.doesNotMatch(await page.locator('.stage-wrap').getAttribute('class'), /enlarged/);
  // Letters typed into a label are the label's.
  await page.keyboard.press('l');
  await clickFrame({ x: 0.3, y: 0.3 });
  await page.keyboard.type('bad');
  assert.ok(await byId('tool-label').isChecked());
  assert.equal(await byId('label-input').inputValue(), 'bad');
  await page.keyboard.press('Escape');
  await page.keyboard.press('p');
  assert.ok(await byId('tool-point').isChecked());
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

test('input the device did not take shows in the panel: what the device reported, a lapsed lease', async () => {
  await byId('control-ask').click();
  await until('control to be granted', async () => (await text('control-state')) === 'active', 15000);
  await chip('control').waitFor();
  // Scrolled back to the top, where the layout was read.
  const from = demo.mark();
  const r = await frameBox();
  await page.mouse.move(r.x + r.width / 2, r.y + layout.Amount.y * r.height);
  await page.mouse.wheel(0, -2000);
  await demo.line(/^app: scroll "Checkout" offset [\d.]+,0(\.0+)?$/, { from });
  await clickFrame(layout.Delivery);
  await until('the device\'s feedback', async () => /opened a menu/.test(await text('input-feedback')));
  await clickFrame({ x: 0.5, y: 0.04 }); // the menu goes
  await byId('control-release').click();
  await until('control to end', async () => (await text('control-state')) === 'ended');
  assert.equal(await text('session-notice'), 'You released control.');
  await until('the control chip to go', async () => (await chip('control').count()) === 0);

  await byId('refuse-control').check();
  await page.waitForFunction(() => !document.querySelector('[data-testid="refuse-control"]').dataset.pending);
  await byId('control-ask').click();
  await until('the control lease to lapse', async () => /lapsed/.test(await text('control-state')), 15000);
  await clickFrame(layout.Name);
  await until('the refusal', async () => /lease lapsed/.test(await text('input-feedback')));
  assert.equal(await byId('errors').locator('[data-testid="error"]').count(), 0, 'said in the panel, not as an error');
  await byId('refuse-control').uncheck();
  await byId('control-release').click();
  await until('control to end', async () => (await text('control-state')) === 'ended');
});

test('refusing the recording confirmation shows the lease lapse; a page reloaded mid-recording tells the customer it stopped', async () => {
  await byId('refuse-recording').check();
  await page.waitForFunction(() => !document.querySelector('[data-testid="refuse-recording"]').dataset.pending);
  await byId('note-recording-start').click();
  await page.locator('[data-testid="event"][data-kind="indicator"].bad').first().waitFor();
  await page.locator('[data-testid="indicator"][data-kind="recording"].bad').waitFor();
  assert.match(await page.locator('[data-testid="indicator"][data-kind="recording"]').textContent(), /lapsed/);
  await page.waitForTimeout(700); // a few polls: the switch follows the backend, not the click
  assert.ok(await byId('refuse-recording').isChecked());
  await byId('refuse-recording').uncheck();
  const stopped = await noteEvent('recordingStopped').count();
  await page.reload();
  await until('the customer told it stopped', async () => (await noteEvent('recordingStopped').count()) > stopped);
  await chip('sharing').waitFor();
  assert.equal(await chip('recording').count(), 0);
  await page.locator('[data-testid="frame"]:not([hidden])').waitFor();
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

test('the log folds repeated confirmations into one counted line, filters by kind and keeps the newest in view', async () => {
  const session = await text('session-id');
  const confirmations = async () => {
    const all = (await (await backend('/console/api/state')).json()).events;
    return all.filter((e) => e.sessionId === session && e.kind === 'indicator' && /sharing .* confirmed/.test(e.text));
  };
  // The device confirms every 10 s.
  const journal = await until('a second sharing confirmation', async () => {
    const list = await confirmations();
    return list.length >= 2 && list;
  }, 12000);
  const lines = page.locator('[data-testid="event"][data-kind="indicator"]', { hasText: journal[0].text });
  // Another may come in while this looks: the page catches up with the journal.
  await until('the count to match the journal', async () =>
    (await lines.getByTestId('event-count').textContent()) === `×${(await confirmations()).length}`);
  assert.equal(await lines.count(), 1, 'one line');

  const list = byId('event-log');
  const newestInView = () => list.evaluate((ol) => {
    const last = ol.lastElementChild.getBoundingClientRect();
    const box = ol.getBoundingClientRect();
    return ol.scrollHeight > ol.clientHeight && last.bottom <= box.bottom + 1 && last.top >= box.top;
  });
  assert.ok(await newestInView(), 'the newest line is in view');
  await byId('log-kind').selectOption('control');
  const kinds = await page.locator('[data-testid="event"]').evaluateAll((items) => items.map((i) => i.dataset.kind));
  assert.ok(kinds.length > 0);
  assert.deepEqual([...new Set(kinds)].filter((k) => !['control-active', 'control-ended', 'feedback', 'input'].includes(k)), []);
  await byId('log-kind').selectOption('');
  assert.ok(await newestInView(), 'and again after the filter');
});

test('many devices: search by support code, user or device id; the ones away fold; the screenshots stay put', async () => {
  const base = new URL(consoleUrl).origin;
  const fleet = [];
  for (let i = 0; i < 24; i++) {
    const res = await fetch(`${base}/v1/sdk/devices`, {
      method: 'POST', headers: { 'X-Virela-Key': 'vk_demo_local', 'Content-Type': 'application/json' },
      body: JSON.stringify({ installId: `fleet-${i}` }),
    });
    const device = await res.json();
    await fetch(`${base}/v1/sdk/devices/identify`, {
      method: 'POST', headers: { 'X-Virela-Device': device.deviceToken, 'Content-Type': 'application/json' },
      body: JSON.stringify({ id: `fleet-user-${i}`, name: `Customer ${i}` }),
    });
    fleet.push(device);
  }
  await until('the fold', async () => /24 not connected \(24 never connected\)/.test(await text('device-fold-summary')));
  assert.equal(await byId('device-list').getByTestId('device').count(), 1, 'only the connected device in the list');
  // Unfolded, the devices scroll in their own box, and the screenshots stay in the window.
  await page.locator('[data-testid="device-fold"] summary').click();
  assert.ok(await byId('device-scroll').evaluate((box) => box.scrollHeight > box.clientHeight * 2), 'the list scrolls');
  const ask = await byId('shot-once').boundingBox();
  assert.ok(ask.y + ask.height < 900, `Ask once at ${ask.y}`);

  const search = async (words) => {
    await byId('device-search').fill(words);
    return page.locator('[data-testid="device"]:visible').evaluateAll((items) => items.map((i) => i.dataset.deviceId));
  };
  const seven = fleet[7];
  assert.deepEqual(await search(seven.supportCode), [seven.deviceId], 'by support code');
  assert.deepEqual(await search(seven.supportCode.replace('-', '')), [seven.deviceId], 'without its dash');
  assert.deepEqual(await search('fleet-user-12'), [fleet[12].deviceId], 'by user id');
  assert.deepEqual(await search(fleet[3].deviceId), [fleet[3].deviceId], 'by device id');
  assert.deepEqual(await search('nobody-at-all'), []);
  assert.ok(await byId('no-match').isVisible());
  await search('');
  await page.locator('[data-testid="device-fold"] summary').click(); // folded again
  assert.equal(await byId('device-list-away').isVisible(), false);
  await page.evaluate(() => window.scrollTo(0, 0));
});

test('a customer who declines reads as declined, for the live view and for control', async () => {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'virela-console-other-'));
  const other = new Demo(dir, ['--base-url', new URL(consoleUrl).origin, '--consent', 'ask', '--state-dir', path.join(dir, 'state')]);
  try {
    const id = await until('the second device to connect', async () => {
      const devices = (await (await backend('/console/api/state')).json()).devices;
      return devices.find((d) => d.connected && d.deviceId !== demoDevice)?.deviceId;
    });
    await page.locator(`[data-testid="device"][data-device-id="${id}"]`).click();
    await until('the second device\'s panel', async () => (await text('panel-device-id')) === id);

    let asked = other.mark();
    await byId('live-start').click();
    await other.line(/allow\? \[y\/N\]/, { from: asked });
    other.type('n');
    await until('the decline', async () => (await text('session-state')) === 'declined');
    assert.equal(await text('session-notice'), 'The customer declined the live view.');

    asked = other.mark();
    await byId('live-start').click();
    await other.line(/allow\? \[y\/N\]/, { from: asked });
    other.type('y');
    await until('the session to be active', async () => (await text('session-state')).startsWith('active'), 15000);
    asked = other.mark();
    await byId('control-ask').click();
    await other.line(/allow\? \[y\/N\]/, { from: asked });
    other.type('n');
    await until('the decline of control', async () => (await text('control-state')) === 'declined by the customer');
    assert.equal(await text('session-notice'), 'The customer declined control.');
    await byId('live-end').click();
    await until('the end', async () => (await text('session-notice')) === 'You ended the live view.');
  } finally {
    other.proc.kill('SIGINT');
    await other.exited;
    fs.rmSync(dir, { recursive: true, force: true });
  }
  // Gone, it folds away with the others once the agent is back on the demo's device.
  await page.locator(`[data-testid="device"][data-device-id="${demoDevice}"]`).click();
  await until('the demo device\'s panel', async () => (await text('panel-device-id')) === demoDevice);
  await until('the second device to fold', async () => /25 not connected/.test(await text('device-fold-summary')));
});

test('the customer taking back control and stopping reads as theirs, and every chip goes with its lease', async () => {
  await byId('control-ask').click();
  await until('control to be granted', async () => (await text('control-state')) === 'active', 15000);
  await chip('control').waitFor();
  demo.type('take back');
  await until('control taken back', async () => (await text('control-state')) === 'taken back by the customer');
  assert.equal(await text('session-notice'), 'The customer took back control.');
  await until('the control chip to go', async () => (await chip('control').count()) === 0);
  assert.ok(await chip('sharing').count() === 1, 'sharing goes on');

  demo.type('stop');
  await until('the session to end', async () => (await text('session-state')) === 'ended by the customer');
  assert.equal(await text('session-notice'), 'The customer stopped sharing: the live view has ended.');
  assert.equal(await text('indicators'), '–', 'no chip once the session ended');
});

test('Shift+E ends the live view on the device, greys the last frame and says who ended it', async () => {
  await byId('live-start').click();
  await until('the session to be active', async () => (await text('session-state')) === 'active', 15000);
  await page.locator('[data-testid="frame"]:not([hidden])').waitFor();
  await chip('sharing').waitFor();
  const from = demo.mark();
  await page.locator('h1').click();
  await page.keyboard.press('Shift+E');
  await demo.line(/^host: onLiveEnded: /, { from });
  await until('the session to be ended', async () => (await text('session-state')) === 'ended');
  assert.equal(await text('session-notice'), 'You ended the live view.');
  assert.equal(await byId('stage').getAttribute('data-state'), 'ended');
  assert.equal(await text('indicators'), '–');
  assert.ok(await byId('live-start').isEnabled(), 'a new live view can start');
});
