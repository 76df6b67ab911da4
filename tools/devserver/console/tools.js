// The tools over the frame: the laser, drawn marks, labels, and control of the device.

import { sendInOrder } from './api.js';
import { $, enc, round, setText } from './dom.js';
import { frame, marks, stage } from './stage.js';
import { controlOn } from './state.js';

const GUIDE_INTERVAL_MS = 125; // laser and scroll: about eight a second
const TYPE_BATCH_MS = 300;
const DEFAULT_MARK_COLOR = '#DC3834'; // the device's own red, when no colour is chosen

export const tools = {
  current: 'laser',

  color() {
    return document.querySelector('input[name="color"]:checked')?.value ?? '';
  },

  sync(s) {
    const control = controlOn(s);
    const box = $('tool-control');
    box.disabled = !control;
    // Control starts with the tap tool in hand and gives the pointer back when it ends.
    if (control && !this.hadControl) this.choose('control');
    if (!control && this.current === 'control') this.choose('laser');
    this.hadControl = control;
    const active = s && s.state === 'active';
    for (const input of document.querySelectorAll('input[name="tool"]')) {
      if (input.value !== 'control') input.disabled = !active;
    }
  },
  hadControl: false,

  choose(tool) {
    this.current = tool;
    const input = document.querySelector(`input[name="tool"][value="${tool}"]`);
    if (input) input.checked = true;
    stage.node.dataset.tool = tool;
    label.hide();
    drag.cancel();
    laser.off();
    setText('stage-help', stage.help(stage.session));
  },
};

function guide(body) {
  const s = stage.session;
  if (!s) return;
  const color = tools.color();
  if (color && body.kind !== 'laser' && body.kind !== 'laser-off') body.color = color;
  sendInOrder(`Send the ${body.kind}`, `/console/api/sessions/${enc(s.sessionId)}/guide`, body);
}

function input(body) {
  const s = stage.session;
  if (!s) return;
  sendInOrder(`Send the ${body.action}`, `/console/api/sessions/${enc(s.sessionId)}/input`, body,
    (code, message) => inputFeedback.refused(code, message))
    .then((answer) => {
      if (answer) inputFeedback.sent();
    });
}

export const laser = {
  last: 0,
  timer: null,
  pending: null,
  shown: false,

  move(p) {
    this.pending = p;
    if (this.timer) return;
    const wait = Math.max(0, this.last + GUIDE_INTERVAL_MS - performance.now());
    this.timer = setTimeout(() => this.flush(), wait);
  },

  flush() {
    this.timer = null;
    if (!this.pending) return;
    this.last = performance.now();
    const { x, y } = this.pending;
    this.pending = null;
    this.shown = true;
    guide({ kind: 'laser', x: round(x), y: round(y) });
  },

  off() {
    clearTimeout(this.timer);
    this.timer = null;
    this.pending = null;
    if (!this.shown) return;
    this.shown = false;
    guide({ kind: 'laser-off' });
  },
};

// Arrow, box and fill: a drag drawn on the console while it lasts, sent when it ends.
export const drag = {
  start: null,
  end: null,

  begin(p) {
    this.start = p;
    this.end = p;
    marks.preview = { kind: tools.current, from: p, to: p, color: tools.color() || DEFAULT_MARK_COLOR };
    marks.draw();
  },

  move(p) {
    if (!this.start) return;
    this.end = p;
    marks.preview.to = p;
    marks.draw();
  },

  finish(p) {
    if (!this.start) return;
    const from = this.start;
    const to = p ?? this.end;
    const kind = marks.preview.kind;
    this.cancel();
    const r = frame.img.getBoundingClientRect();
    const moved = Math.hypot((to.x - from.x) * r.width, (to.y - from.y) * r.height) > 4;
    const body = { kind, x: round(from.x), y: round(from.y) };
    if (kind === 'arrow') {
      // A click without a drag leaves the arrow's end to the device's default.
      if (moved) Object.assign(body, { x2: round(to.x), y2: round(to.y) });
    } else {
      body.x = round(Math.min(from.x, to.x));
      body.y = round(Math.min(from.y, to.y));
      if (moved) Object.assign(body, { w: round(Math.abs(to.x - from.x)), h: round(Math.abs(to.y - from.y)) });
    }
    guide(body);
    marks.echo(body, tools.color() || DEFAULT_MARK_COLOR);
  },

  cancel() {
    this.start = null;
    this.end = null;
    marks.preview = null;
    marks.draw();
  },
};

// The label tool: a small text box where the click was; Enter sends it.
export const label = {
  box: $('label-input'),
  at: null,

  open(p) {
    this.at = p;
    this.box.value = '';
    this.box.style.left = `${p.x * 100}%`;
    this.box.style.top = `${p.y * 100}%`;
    this.box.hidden = false;
    this.box.focus();
  },

  hide() {
    this.at = null;
    this.box.hidden = true;
  },

  send() {
    const text = this.box.value.trim();
    const p = this.at;
    this.hide();
    if (!text || !p) return;
    const body = { kind: 'label', x: round(p.x), y: round(p.y), text };
    guide(body);
    marks.echo(body, tools.color() || DEFAULT_MARK_COLOR);
    stage.node.focus();
  },
};

// Control: taps, scrolls batched to about eight a second, typed text batched briefly.
export const control = {
  dx: 0,
  dy: 0,
  at: { x: 0.5, y: 0.5 },
  scrollTimer: null,
  lastScroll: 0,
  text: '',
  textTimer: null,

  tap(p) {
    this.flushText();
    input({ action: 'tap', x: round(p.x), y: round(p.y) });
    marks.ripple(p);
  },

  wheel(e) {
    const r = frame.img.getBoundingClientRect();
    const unit = e.deltaMode === 1 ? 16 : e.deltaMode === 2 ? r.height : 1;
    this.dx += (e.deltaX * unit) / r.width;
    this.dy += (e.deltaY * unit) / r.height;
    this.at = stage.at(e);
    if (this.scrollTimer) return;
    const wait = Math.max(0, this.lastScroll + GUIDE_INTERVAL_MS - performance.now());
    this.scrollTimer = setTimeout(() => this.flushScroll(), wait);
  },

  flushScroll() {
    this.scrollTimer = null;
    const clamp = (v) => round(Math.min(1, Math.max(-1, v)));
    const dx = clamp(this.dx);
    const dy = clamp(this.dy);
    this.dx = 0;
    this.dy = 0;
    if (!dx && !dy) return;
    this.lastScroll = performance.now();
    this.flushText();
    input({ action: 'scroll', x: round(this.at.x), y: round(this.at.y), dx, dy });
  },

  key(e) {
    if (e.ctrlKey || e.metaKey || e.altKey) return;
    if (e.key === 'Backspace' || e.key === 'Enter') {
      e.preventDefault();
      this.flushText();
      input({ action: 'key', key: e.key === 'Backspace' ? 'backspace' : 'enter' });
    } else if ([...e.key].length === 1) {
      // Named keys (Shift, ArrowLeft, Dead, …) are longer than one character.
      e.preventDefault();
      this.text += e.key;
      clearTimeout(this.textTimer);
      this.textTimer = setTimeout(() => this.flushText(), TYPE_BATCH_MS);
    }
  },

  flushText() {
    clearTimeout(this.textTimer);
    this.textTimer = null;
    if (!this.text) return;
    const text = this.text;
    this.text = '';
    input({ action: 'type', text });
  },
};

// What became of the agent's input, when it did not simply work: the backend refused to pass
// it on, or the device said the tap did nothing. Cleared by the next input that went through.
export const inputFeedback = {
  sessionId: null,
  seen: 0, // the device's feedback already shown
  text: '',

  refused(code, message) {
    const why = {
      lease_mismatch: 'Not sent: the control lease lapsed (the device has not confirmed control). Wait for it to confirm again, or ask again.',
      no_control: 'Not sent: control is not granted.',
      not_connected: 'Not sent: the device is not connected.',
      not_active: 'Not sent: the live view is not running.',
    }[code];
    this.show(why ?? `Not sent: ${message}`, 'bad');
  },

  sent() {
    this.show('', '');
  },

  sync(s) {
    const feedback = s?.control?.feedback ?? [];
    if (!s || s.sessionId !== this.sessionId) {
      this.sessionId = s?.sessionId ?? null;
      this.seen = feedback.length;
      this.show('', '');
      return;
    }
    if (feedback.length > this.seen) {
      const kind = feedback[feedback.length - 1];
      this.seen = feedback.length;
      const said = {
        menuItemInert: 'The device reports the tap hit a menu item that does nothing: nothing fired.',
        menuOpened: 'The device reports the tap opened a menu.',
        locked: 'The device refused the tap: that control is locked.',
      }[kind];
      this.show(said ?? `The device reports: ${kind}.`, kind === 'menuOpened' ? '' : 'bad');
    }
  },

  show(text, tone) {
    const node = $('input-feedback');
    node.hidden = !text;
    node.className = `input-feedback ${tone}`;
    setText('input-feedback', text);
  },
};
