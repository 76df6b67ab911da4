// The live frame, what the stage says over it, and the console's own marks on it.

import { $, setText } from './dom.js';
import { tools } from './tools.js';

export const frame = {
  img: $('frame'),
  sessionId: null,
  shown: -1, // the frame count of the image on screen
  loading: false,
  reset() {
    this.sessionId = null;
    this.shown = -1;
    this.img.hidden = true;
    this.img.removeAttribute('src');
    delete this.img.dataset.frame;
  },

  sync(s) {
    if (!s) return this.reset();
    if (s.sessionId !== this.sessionId) {
      this.reset();
      this.sessionId = s.sessionId;
    }
    if (s.frameUrl && s.frames > this.shown && !this.loading) this.load(s);
  },

  // Loaded and decoded aside, then swapped in: the browser reuses the decoded image, so the
  // picture never flickers or shows half a frame. The cookie set with the page authorises it.
  async load(s) {
    this.loading = true;
    const n = s.frames;
    const url = `${s.frameUrl}${s.frameUrl.includes('?') ? '&' : '?'}n=${n}`;
    try {
      const next = new Image();
      next.src = url;
      await next.decode();
      if (this.sessionId === s.sessionId) {
        this.img.src = url;
        this.shown = n;
        this.img.dataset.frame = String(n);
        this.img.hidden = false;
        sizing.fit();
        marks.draw();
      }
    } catch {
      // The next poll tries again.
    } finally {
      this.loading = false;
    }
  },
};

// What the stage says over the frame, and whether the pointer acts on it.
export const stage = {
  node: $('stage'),
  session: null,

  sync(device, s) {
    this.session = s;
    let state = 'none';
    let label = '';
    if (!device.connected) {
      state = 'disconnected';
      label = 'device disconnected';
    } else if (s && s.state === 'requested') {
      state = 'requested';
      label = 'waiting for the customer to allow';
    } else if (s && s.state === 'active' && s.stale) {
      state = 'stale';
      label = s.frameAgeMs != null ? `stale · no frame for ${(s.frameAgeMs / 1000).toFixed(1)} s` : 'stale · no frame yet';
    } else if (s && s.state === 'active') {
      state = 'live';
    } else if (s && s.state === 'ended') {
      state = 'ended';
      label = 'live view ended';
    }
    this.node.dataset.state = state;
    const tag = $('stale-label');
    tag.hidden = !label;
    if (tag.textContent !== label) tag.textContent = label;
    $('stage-empty').hidden = Boolean(s && s.frames > 0);
    if (!(s && s.frames > 0)) setText('stage-empty', s && s.state === 'active' ? 'Waiting for the first frame…' : 'Start the live view to watch the screen here.');
    setText('stage-help', this.help(s));
  },

  live() {
    const s = this.session;
    return s && s.state === 'active' && !this.node.hidden && !frame.img.hidden;
  },

  help(s) {
    if (!s || s.state !== 'active') return '';
    switch (tools.current) {
      case 'laser': return 'Move the mouse over the screen to point at something.';
      case 'arrow': return 'Drag to draw an arrow.';
      case 'box': return 'Drag to draw a box.';
      case 'fill': return 'Drag to cover an area.';
      case 'label': return 'Click where the label goes, type, press Enter.';
      case 'control': return 'Click to tap, use the wheel to scroll, type to send text (Backspace and Enter work too).';
      default: return '';
    }
  },

  // A pointer position as fractions of the frame, which are fractions of the app's window.
  at(e) {
    const r = frame.img.getBoundingClientRect();
    const clamp = (v) => Math.min(1, Math.max(0, v));
    return { x: clamp((e.clientX - r.left) / r.width), y: clamp((e.clientY - r.top) / r.height) };
  },
};

const MARK_ECHO_MS = 4000; // the device fades its marks after about as long
const WINDOW_POINTS = 390; // a phone's window, in points, about; the frame does not say
const FILL_WORD_POINTS = 9.5; // the device's size for the word on a fill

// The console's own picture of the guides it sent: frames carry the app without its overlay,
// so the agent would otherwise not see what they drew.
export const marks = {
  svg: $('marks'),
  list: [],
  preview: null,
  timer: null,
  version: 0, // counts redraws, for the pictures made of the marks

  clear() {
    this.list = [];
    this.draw();
  },

  echo(body, color) {
    this.list.push({ body, color, until: performance.now() + MARK_ECHO_MS });
    this.draw();
    this.expireLater();
  },

  ripple(p) {
    this.list.push({ body: { kind: 'tap', x: p.x, y: p.y }, color: '#111827', until: performance.now() + 700 });
    this.draw();
    this.expireLater();
  },

  expireLater() {
    if (this.timer) return;
    this.timer = setTimeout(() => {
      this.timer = null;
      const now = performance.now();
      this.list = this.list.filter((m) => m.until > now);
      this.draw();
      if (this.list.length) this.expireLater();
    }, 200);
  },

  // Drawn in the frame's own pixels, so strokes and text keep their shape at any size.
  draw() {
    const w = frame.img.clientWidth || 1;
    const h = frame.img.clientHeight || 1;
    this.svg.setAttribute('viewBox', `0 0 ${w} ${h}`);
    const ns = 'http://www.w3.org/2000/svg';
    const make = (tag, attrs) => {
      const n = document.createElementNS(ns, tag);
      for (const [k, v] of Object.entries(attrs)) n.setAttribute(k, String(v));
      return n;
    };
    const shapes = [];
    const pt = w / WINDOW_POINTS; // one of the app's points, in the stage's pixels
    const add = (b, color, preview) => {
      const opacity = preview ? 0.7 : 1;
      if (b.kind === 'fill') {
        // As the customer sees it, even while dragged: solid, with the word in white at the
        // device's size, cut off at the fill's edges.
        const bw = (b.w ?? 0.16) * w;
        const bh = (b.h ?? 0.11) * h;
        const inner = make('svg', { x: b.x * w, y: b.y * h, width: bw, height: bh, 'data-kind': 'fill' });
        const word = make('text', {
          x: bw / 2, y: bh / 2, fill: '#fff', 'font-size': FILL_WORD_POINTS * pt, 'font-weight': 700,
          'letter-spacing': 0.5 * pt, 'text-anchor': 'middle', 'dominant-baseline': 'central',
          'font-family': 'system-ui, sans-serif',
        });
        word.textContent = 'REDACTED';
        inner.append(make('rect', { width: bw, height: bh, rx: Math.min(6 * pt, bw / 2, bh / 2), fill: color }), word);
        shapes.push(inner);
      } else if (b.kind === 'box') {
        const bw = (b.w ?? 0.16) * w;
        const bh = (b.h ?? 0.11) * h;
        shapes.push(make('rect', {
          x: b.x * w, y: b.y * h, width: bw, height: bh, rx: Math.min(15 * pt, bw / 2, bh / 2),
          fill: 'none', stroke: color, 'stroke-width': 2.5, opacity,
        }));
      } else if (b.kind === 'arrow') {
        const x1 = b.x * w, y1 = b.y * h;
        const x2 = (b.x2 ?? b.x + 0.09) * w, y2 = (b.y2 ?? b.y + 0.09) * h;
        const t = Math.atan2(y2 - y1, x2 - x1);
        const head = 12;
        const d = `M${x1},${y1} L${x2},${y2} M${x2 + head * Math.cos(t + 2.356)},${y2 + head * Math.sin(t + 2.356)} L${x2},${y2} L${x2 + head * Math.cos(t - 2.356)},${y2 + head * Math.sin(t - 2.356)}`;
        shapes.push(make('path', { d, stroke: color, 'stroke-width': 3.5, fill: 'none', 'stroke-linecap': 'round', 'stroke-linejoin': 'round', opacity }));
      } else if (b.kind === 'label') {
        const g = make('g', { transform: `translate(${b.x * w},${b.y * h})` });
        const text = make('text', { x: 8, y: 4, fill: '#fff', 'font-size': 12, 'font-family': 'system-ui, sans-serif' });
        text.textContent = b.text;
        g.append(make('rect', { x: 0, y: -10, rx: 7, height: 20, width: 16 + 6.6 * [...b.text].length, fill: color }), text);
        shapes.push(g);
      } else if (b.kind === 'tap') {
        shapes.push(make('circle', { cx: b.x * w, cy: b.y * h, r: 14, fill: 'none', stroke: color, 'stroke-width': 2, opacity: 0.8 }));
        shapes.push(make('circle', { cx: b.x * w, cy: b.y * h, r: 3, fill: color }));
      }
    };
    for (const m of this.list) add(m.body, m.color, false);
    const p = this.preview;
    if (p) {
      if (p.kind === 'arrow') add({ kind: 'arrow', x: p.from.x, y: p.from.y, x2: p.to.x, y2: p.to.y }, p.color, true);
      else add({ kind: p.kind, x: Math.min(p.from.x, p.to.x), y: Math.min(p.from.y, p.to.y), w: Math.abs(p.to.x - p.from.x), h: Math.abs(p.to.y - p.from.y) }, p.color, true);
    }
    this.svg.replaceChildren(...shapes);
    this.version++;
  },
};

// The picture as large as its place allows, keeping its shape: the width the live card gives
// it and the height of the window below its top. Enlarged, the stage takes the whole window.
export const sizing = {
  wrap: $('stage').closest('.stage-wrap'),
  enlarged: false,

  fit() {
    const img = frame.img;
    const nw = img.naturalWidth;
    const nh = img.naturalHeight;
    if (!nw || !nh) return;
    let width;
    let height;
    if (this.enlarged) {
      width = window.innerWidth - 48;
      height = window.innerHeight - 90;
    } else {
      width = this.wrap.clientWidth;
      const top = this.wrap.getBoundingClientRect().top + window.scrollY;
      height = Math.max(MIN_STAGE_HEIGHT, window.innerHeight - top - 48);
    }
    const scale = Math.min(width / nw, height / nh);
    const w = `${Math.floor(nw * scale)}px`;
    const h = `${Math.floor(nh * scale)}px`;
    if (img.style.width !== w || img.style.height !== h) {
      img.style.width = w;
      img.style.height = h;
    }
  },

  toggle(on = !this.enlarged) {
    this.enlarged = on;
    this.wrap.classList.toggle('enlarged', on);
    const button = $('stage-enlarge');
    button.setAttribute('aria-pressed', String(on));
    button.textContent = on ? 'Back to the panel' : 'Enlarge';
    this.fit();
  },
};

const MIN_STAGE_HEIGHT = 360;

// The frame with the marks over it, drawn on `canvas` at the frame's own size: what snapshots
// and recordings keep. The marks come from the stage's drawing, as an image made again only
// when they change.
export const picture = {
  marks: null,
  marksVersion: -1,
  marksSize: '',
  making: null,

  async refreshMarks(w, h) {
    const size = `${w}x${h}`;
    if (this.marksVersion === marks.version && this.marksSize === size) return;
    if (this.making) return this.making;
    const version = marks.version;
    const svg = marks.svg.cloneNode(true);
    svg.setAttribute('xmlns', 'http://www.w3.org/2000/svg');
    svg.setAttribute('width', String(w));
    svg.setAttribute('height', String(h));
    const url = `data:image/svg+xml;charset=utf-8,${encodeURIComponent(new XMLSerializer().serializeToString(svg))}`;
    this.making = (async () => {
      const image = new Image();
      image.src = url;
      try {
        await image.decode();
        this.marks = svg.childElementCount ? image : null;
        this.marksVersion = version;
        this.marksSize = size;
      } catch {
        // Drawn without marks this time; the next call tries again.
      } finally {
        this.making = null;
      }
    })();
    return this.making;
  },

  // False when there is no frame to draw.
  async draw(canvas, { wait = true } = {}) {
    const img = frame.img;
    const w = img.naturalWidth;
    const h = img.naturalHeight;
    if (!w || !h || img.hidden) return false;
    if (canvas.width !== w || canvas.height !== h) {
      canvas.width = w;
      canvas.height = h;
    }
    const refresh = this.refreshMarks(w, h);
    if (wait) await refresh;
    const ctx = canvas.getContext('2d');
    ctx.drawImage(img, 0, 0, w, h);
    if (this.marks) ctx.drawImage(this.marks, 0, 0, w, h);
    return true;
  },
};
