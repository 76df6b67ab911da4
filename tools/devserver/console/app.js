// The agent's console. Everything it shows comes from polling /console/api/state, so a second
// tab, or a reload, shows the same thing; actions are plain POSTs whose effects come back
// through the next poll.

const POLL_MS = 300;
const RETRY_MS = 1000;
const GUIDE_INTERVAL_MS = 125; // laser and scroll: about eight a second
const TYPE_BATCH_MS = 300;
const MARK_ECHO_MS = 4000; // the device fades its marks after about as long
const MAX_EVENTS = 1000;
const DEFAULT_MARK_COLOR = '#DC3834'; // the device's own red, when no colour is chosen

const token = new URLSearchParams(location.search).get('token');
// The cookie set with the page covers <img>; the header goes with every fetch all the same.
const authHeaders = token ? { Authorization: `Bearer ${token}` } : {};

const $ = (id) => document.querySelector(`[data-testid="${id}"]`);

const view = {
  snapshot: { devices: [], captures: [], sessions: [], refusing: {} },
  since: 0,
  events: [],
  clockOffsetMs: 0, // the backend's clock minus ours
  selected: new URLSearchParams(location.hash.slice(1)).get('device') || null,
  rendered: { devices: '', captures: '', eventsShown: -1, logFilter: '' },
};

// ---------------------------------------------------------------------------------------------
// Talking to the backend

let pollTimer = null;
let polling = false;
let pollAgain = false;

async function poll() {
  clearTimeout(pollTimer);
  if (polling) {
    pollAgain = true;
    return;
  }
  polling = true;
  let delay = POLL_MS;
  try {
    const res = await fetch(`/console/api/state?since=${view.since}`, {
      headers: authHeaders,
      cache: 'no-store',
    });
    if (res.status === 401) {
      setBackend('refused', 'token refused: open the console URL the backend printed');
      delay = RETRY_MS * 2;
    } else if (!res.ok) {
      setBackend('down', `backend answered ${res.status}; retrying`);
      delay = RETRY_MS;
    } else {
      apply(await res.json());
      setBackend('ok', 'connected');
    }
  } catch {
    setBackend('down', 'backend unreachable; retrying');
    delay = RETRY_MS;
  } finally {
    polling = false;
  }
  if (pollAgain) {
    pollAgain = false;
    delay = 0;
  }
  pollTimer = setTimeout(poll, delay);
}

function setBackend(state, text) {
  const el = $('backend-status');
  if (el.dataset.state === state && el.textContent === text) return;
  el.dataset.state = state;
  el.textContent = text;
}

async function act(what, path, body = {}) {
  let res;
  try {
    res = await fetch(path, {
      method: 'POST',
      headers: { ...authHeaders, 'Content-Type': 'application/json' },
      body: JSON.stringify(body),
    });
  } catch {
    showError(`${what}: the backend did not answer.`);
    return null;
  }
  let answer = null;
  try {
    answer = await res.json();
  } catch {
    // An answer without JSON still has its status.
  }
  poll();
  if (!res.ok) {
    const message = answer && typeof answer.message === 'string' ? answer.message : res.statusText;
    showError(`${what}: ${message} (${res.status})`);
    return null;
  }
  return answer ?? {};
}

// Guides and inputs go out one at a time, in order: a typed word must not overtake the
// Backspace after it.
let sendChain = Promise.resolve();
function sendInOrder(what, path, body) {
  sendChain = sendChain.then(() => act(what, path, body));
  return sendChain;
}

function showError(text) {
  const box = $('errors');
  // A repeated failure (say, the laser against a device that went away) counts up instead of
  // piling up.
  const last = box.lastElementChild;
  if (last && last.dataset.text === text) {
    const n = Number(last.dataset.count) + 1;
    last.dataset.count = String(n);
    last.querySelector('.count').textContent = `×${n}`;
    clearTimeout(Number(last.dataset.timer));
    last.dataset.timer = String(setTimeout(() => last.remove(), 10000));
    return;
  }
  const item = el('div', { class: 'error', 'data-testid': 'error', role: 'alert' },
    el('span', { class: 'text' }, text), el('span', { class: 'count' }),
    el('button', { type: 'button', class: 'close', 'aria-label': 'Dismiss', onclick: () => item.remove() }, '×'));
  item.dataset.text = text;
  item.dataset.count = '1';
  item.dataset.timer = String(setTimeout(() => item.remove(), 10000));
  box.append(item);
  while (box.children.length > 4) box.firstElementChild.remove();
}

// ---------------------------------------------------------------------------------------------
// State

function apply(body) {
  if (typeof body.nextSeq === 'number' && body.nextSeq < view.since) {
    // The backend started again: its journal begins anew.
    view.events = [];
    view.since = 0;
    view.rendered.eventsShown = -1;
    pollAgain = true;
  } else {
    const last = view.events.length ? view.events[view.events.length - 1].seq : 0;
    for (const e of body.events ?? []) if (e.seq > last) view.events.push(e);
    if (view.events.length > MAX_EVENTS) view.events.splice(0, view.events.length - MAX_EVENTS);
    if (typeof body.nextSeq === 'number') view.since = body.nextSeq;
  }
  const now = Date.parse(body.now);
  if (!Number.isNaN(now)) view.clockOffsetMs = now - Date.now();
  view.snapshot = {
    devices: body.devices ?? [],
    captures: body.captures ?? [],
    sessions: body.sessions ?? [],
    refusing: body.refusing ?? {},
  };
  if (!deviceById(view.selected)) {
    const pick = view.snapshot.devices.find((d) => d.connected) ?? view.snapshot.devices[0];
    if (pick) select(pick.deviceId, false);
  }
  render();
}

const deviceById = (id) => view.snapshot.devices.find((d) => d.deviceId === id);

// The session the panel is about: the one under way, else the latest, for its final state.
function currentSession(deviceId) {
  const mine = view.snapshot.sessions.filter((s) => s.deviceId === deviceId);
  return mine.filter((s) => s.state === 'requested' || s.state === 'active').pop() ?? mine.pop() ?? null;
}

const isOpen = (s) => s && (s.state === 'requested' || s.state === 'active');
const controlOn = (s) => s && s.state === 'active' && s.control && s.control.state === 'active';

function select(deviceId, render_ = true) {
  if (view.selected !== deviceId) {
    view.selected = deviceId;
    frame.reset();
    marks.clear();
    history.replaceState(null, '', `${location.pathname}${location.search}#device=${encodeURIComponent(deviceId)}`);
  }
  if (render_) render();
}

// ---------------------------------------------------------------------------------------------
// Rendering

function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs)) {
    if (v === undefined || v === null || v === false) continue;
    if (k.startsWith('on')) node.addEventListener(k.slice(2), v);
    else node.setAttribute(k, v === true ? '' : String(v));
  }
  for (const c of children.flat()) if (c !== null && c !== undefined && c !== false) node.append(c);
  return node;
}

function setText(id, text) {
  const node = $(id);
  if (node.textContent !== text) node.textContent = text;
}

function render() {
  renderDevices();
  const device = deviceById(view.selected);
  $('device-panel').hidden = !device;
  $('shots').hidden = !device;
  if (device) {
    renderPanelHead(device);
    renderCaptures(device);
    renderLive(device);
  }
  renderLog();
}

const HEALTH_NAMES = {
  battery: 'Battery', batteryState: 'Battery state', network: 'Network', storage: 'Storage',
  memory: 'Memory', appearance: 'Appearance', textSize: 'Text size', accessibility: 'Accessibility',
};

function healthCard(health) {
  if (!health || typeof health !== 'object' || Object.keys(health).length === 0) {
    return el('p', { class: 'health none', 'data-testid': 'device-health' }, 'No health report yet');
  }
  const rows = Object.entries(health)
    .filter(([, v]) => v !== null && v !== undefined && v !== '')
    .map(([k, v]) => el('div', {}, el('dt', {}, HEALTH_NAMES[k] ?? k),
      el('dd', {}, typeof v === 'object' ? JSON.stringify(v) : String(v))));
  return el('dl', { class: 'health', 'data-testid': 'device-health' }, rows);
}

function renderDevices() {
  const devices = view.snapshot.devices;
  const key = JSON.stringify([devices, view.selected]);
  if (key === view.rendered.devices) return;
  view.rendered.devices = key;
  $('no-devices').hidden = devices.length > 0;
  const items = devices.map((d) => {
    const user = d.user ? [d.user.name, d.user.id && `(${d.user.id})`].filter(Boolean).join(' ') : 'no user identified';
    return el('li', {},
      el('button', {
        type: 'button',
        class: `device${d.deviceId === view.selected ? ' selected' : ''}${d.connected ? '' : ' offline'}`,
        'data-testid': 'device',
        'data-device-id': d.deviceId,
        'aria-pressed': d.deviceId === view.selected ? 'true' : 'false',
        onclick: () => select(d.deviceId),
      },
      el('span', { class: 'device-top' },
        el('span', { class: 'device-id' }, d.deviceId),
        el('span', { class: `badge ${d.connected ? 'on' : 'off'}`, 'data-testid': 'device-connection' },
          d.connected ? 'connected' : 'disconnected')),
      el('span', { class: 'device-line' }, 'Support code ',
        el('strong', { 'data-testid': 'device-support-code' }, d.supportCode ?? '–')),
      el('span', { class: 'device-line', 'data-testid': 'device-user' }, user),
      el('span', { class: 'device-line', 'data-testid': 'device-app-state' },
        d.appState ? `app in the ${d.appState}` : 'app state not reported'),
      healthCard(d.health)));
  });
  $('device-list').replaceChildren(...items);
}

function renderPanelHead(device) {
  setText('panel-device-id', device.deviceId);
  setText('panel-support-code', device.supportCode ? `· ${device.supportCode}` : '');
  const badge = $('panel-connection');
  badge.className = `badge ${device.connected ? 'on' : 'off'}`;
  setText('panel-connection', device.connected ? `connected · ${device.appState ?? 'state unknown'}` : 'disconnected');
  $('device-disconnected').hidden = device.connected;
  for (const id of ['shot-once', 'shot-call']) $(id).disabled = !device.connected;
}

function captureStatus(c) {
  if (c.answer === false) return 'declined';
  if (c.captureId) return 'received';
  if (c.answer === true) return 'allowed';
  if (c.promptShown) return 'prompt shown';
  return 'asked';
}

function timeLeft(iso) {
  const ms = Date.parse(iso) - (Date.now() + view.clockOffsetMs);
  if (!(ms > 0)) return null;
  const s = Math.ceil(ms / 1000);
  return `${Math.floor(s / 60)}:${String(s % 60).padStart(2, '0')}`;
}

function renderCaptures(device) {
  const mine = view.snapshot.captures.filter((c) => c.deviceId === device.deviceId);
  // Newest first; the time left moves once a second, so it is part of what decides a redraw.
  const rows = mine.slice().reverse();
  const key = JSON.stringify([rows, device.connected, rows.map((c) => c.sessionExpiresAt && timeLeft(c.sessionExpiresAt))]);
  if (key === view.rendered.captures) return;
  view.rendered.captures = key;
  const items = rows.flatMap((c) => {
    const left = c.mode === 'PerSession' && c.answer === true && c.sessionExpiresAt ? timeLeft(c.sessionExpiresAt) : null;
    // A call's request brings several images; each gets its own tile, the newest first, and
    // the newest carries the request's state.
    const images = (c.images?.length ? c.images : c.captureId ? [{ captureId: c.captureId, imageUrl: c.imageUrl }] : [])
      .slice().reverse();
    const tiles = images.length ? images : [{ captureId: null, imageUrl: null }];
    return tiles.map((image, i) => el('li', {
      class: 'capture', 'data-testid': 'capture', 'data-request-id': c.requestId, 'data-capture-id': image.captureId ?? '',
    },
    image.imageUrl
      ? el('a', { href: image.imageUrl, target: '_blank', rel: 'noopener', class: 'thumb', title: 'Open the full image' },
        el('img', { src: image.imageUrl, alt: `Screenshot ${image.captureId ?? ''}`, 'data-testid': 'capture-image' }))
      : el('span', { class: 'thumb pending' }, c.answer === false ? '✕' : '…'),
    el('span', { class: 'capture-line' },
      image.captureId ? el('strong', { class: 'capture-id', 'data-testid': 'capture-id' }, image.captureId) : el('strong', {}, c.requestId)),
    el('span', { class: 'capture-line' }, c.mode === 'PerSession' ? 'for the call' : 'once', i === 0 && ' · ',
      i === 0 && el('span', { class: `status ${c.answer === false ? 'bad' : image.captureId ? 'good' : ''}`, 'data-testid': 'capture-status' }, captureStatus(c))),
    i === 0 && left && el('span', { class: 'capture-line left' }, `${left} left`),
    i === 0 && left && el('button', {
      type: 'button', 'data-testid': 'capture-another', disabled: !device.connected,
      onclick: () => act('Take another screenshot', `/console/api/devices/${enc(device.deviceId)}/capture`, { requestId: c.requestId }),
    }, 'Take another')));
  });
  if (!items.length) items.push(el('li', { class: 'empty' }, 'No screenshot asked for yet.'));
  $('capture-list').replaceChildren(...items);
}

const enc = encodeURIComponent;

function renderLive(device) {
  const s = currentSession(device.deviceId);
  const open = isOpen(s);
  const active = s && s.state === 'active';
  setText('session-id', s ? s.sessionId : 'none');
  setText('session-state', s ? sessionStateText(s) : 'none');
  setText('session-generation', s?.generation ?? '–');
  setText('frame-count', String(s?.frames ?? 0));
  setText('frame-rate', active && typeof s.frameRate === 'number' ? s.frameRate.toFixed(1) : '–');
  renderIndicators(s);

  $('live-start').disabled = !device.connected || open;
  $('live-end').disabled = !open;
  for (const id of ['note-frame-saved', 'note-recording-start', 'note-recording-stop']) $(id).disabled = !active;

  const c = s?.control ?? null;
  const controlState = c && c.state ? c.state : 'none';
  const lapsed = controlState === 'active' && (s?.lapsed ?? []).includes('control');
  setText('control-state', lapsed ? 'active, lease lapsed: taps are dropped' : controlState);
  setText('control-generation', c?.generation ?? '–');
  setText('control-inputs', String(c?.inputs ?? 0));
  setText('control-feedback', c && c.feedback?.length ? c.feedback.join(', ') : '–');
  $('control-ask').disabled = !active || controlState === 'requested' || controlState === 'active';
  $('control-release').disabled = !active || !(controlState === 'requested' || controlState === 'active');

  for (const box of document.querySelectorAll('input[data-kind]')) {
    if (!box.dataset.pending) box.checked = Boolean(view.snapshot.refusing[box.dataset.kind]);
  }

  tools.sync(s);
  stage.sync(device, s);
  frame.sync(s);
}

// The backend sends the latest confirmation of each kind. A lapsed kind (a confirmation refused
// and none accepted since) is one whose frames or input the backend drops until the device
// confirms again.
function renderIndicators(s) {
  const lapsed = new Set(s?.lapsed ?? []);
  const list = (s?.indicators ?? []).map((i) => ({ ...i, lapsed: lapsed.has(i.kind) }));
  const node = $('indicators');
  const key = JSON.stringify(list);
  if (node.dataset.key === key) return;
  node.dataset.key = key;
  if (!list.length) return node.replaceChildren('–');
  node.replaceChildren(...list.map((i) => el('span', {
    class: `chip ${i.lapsed || !i.accepted ? 'bad' : 'good'}`, 'data-testid': 'indicator', 'data-kind': i.kind,
    title: i.lapsed
      ? 'lease lapsed: the backend drops this kind until the device confirms again'
      : 'confirmed by the device',
  }, `${i.kind} ${i.generation ?? ''} ${i.lapsed ? 'lapsed' : i.accepted ? '✓' : 'refused'}`)));
}

function sessionStateText(s) {
  if (s.state === 'requested') return 'asked, waiting for the customer';
  if (s.state === 'ended' && s.answers?.length && s.answers[s.answers.length - 1] === false) return 'declined';
  if (s.state === 'active' && s.stale) return 'active, stale';
  return s.state;
}

const KIND_CLASS = {
  asked: 'consent', 'prompt-shown': 'consent', answer: 'consent', 'live-requested': 'consent',
  'live-answer': 'consent', 'control-requested': 'consent', 'control-answer': 'consent',
  upload: 'image', 'frames-started': 'image', 'live-active': 'live', 'live-ended': 'live', note: 'live',
  'control-active': 'control', 'control-ended': 'control', feedback: 'control', input: 'control',
  guide: 'live', refuse: 'indicator',
  view: 'view', indicator: 'indicator', connected: 'link', disconnected: 'link', registered: 'link',
  identified: 'link', state: 'link', health: 'link',
};

function renderLog() {
  const all = $('log-all-devices').checked;
  const filter = all ? '*' : view.selected ?? '';
  const list = $('event-log');
  const shown = view.events.length ? view.events[view.events.length - 1].seq : 0;
  if (filter === view.rendered.logFilter && shown === view.rendered.eventsShown) return;
  const atBottom = list.scrollHeight - list.scrollTop - list.clientHeight < 24;
  const fresh = filter !== view.rendered.logFilter || view.rendered.eventsShown < 0;
  const from = fresh ? view.events : view.events.filter((e) => e.seq > view.rendered.eventsShown);
  const items = from.filter((e) => all || e.deviceId === view.selected).map(eventItem);
  if (fresh) list.replaceChildren(...items);
  else list.append(...items);
  while (list.children.length > MAX_EVENTS) list.firstElementChild.remove();
  view.rendered.logFilter = filter;
  view.rendered.eventsShown = shown;
  if (atBottom || fresh) list.scrollTop = list.scrollHeight;
  for (const e of from) if (e.kind === 'view' && e.deviceId === view.selected) marks.clear();
}

function eventItem(e) {
  const at = new Date(e.at);
  const time = Number.isNaN(at.getTime()) ? '' : at.toLocaleTimeString([], { hour12: false });
  const bad = e.kind === 'indicator' && /refused/.test(e.text ?? '');
  return el('li', { class: `event ${KIND_CLASS[e.kind] ?? ''}${bad ? ' bad' : ''}`, 'data-testid': 'event', 'data-kind': e.kind, 'data-seq': e.seq },
    el('time', {}, time),
    // The device's id only matters once there are several.
    el('span', { class: 'who' }, view.snapshot.devices.length > 1 ? [e.deviceId, e.sessionId].filter(Boolean).join(' · ') : e.sessionId ?? ''),
    el('span', { class: 'kind' }, e.kind),
    el('span', { class: 'text' }, e.text ?? ''));
}

// ---------------------------------------------------------------------------------------------
// The live frame

const frame = {
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
const stage = {
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

const round = (v) => Math.round(v * 10000) / 10000;

// ---------------------------------------------------------------------------------------------
// Tools over the frame

const tools = {
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
  sendInOrder(`Send the ${body.action}`, `/console/api/sessions/${enc(s.sessionId)}/input`, body);
}

const laser = {
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
const drag = {
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
const label = {
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
const control = {
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

// The console's own picture of the guides it sent: frames carry the app without its overlay,
// so the agent would otherwise not see what they drew.
const marks = {
  svg: $('marks'),
  list: [],
  preview: null,
  timer: null,

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
    const add = (b, color, preview) => {
      const opacity = preview ? 0.7 : 1;
      if (b.kind === 'box' || b.kind === 'fill') {
        const bw = (b.w ?? 0.16) * w;
        const bh = (b.h ?? 0.11) * h;
        shapes.push(make('rect', {
          x: b.x * w, y: b.y * h, width: bw, height: bh, rx: Math.min(b.kind === 'box' ? 15 : 6, bw / 2, bh / 2) * w / 390,
          fill: b.kind === 'fill' ? color : 'none', 'fill-opacity': b.kind === 'fill' ? 0.85 * opacity : 0,
          stroke: color, 'stroke-width': 2.5, opacity,
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
  },
};

// ---------------------------------------------------------------------------------------------
// Wiring

function sessionAction(what, suffix, body = {}) {
  const s = stage.session;
  if (!s) return;
  act(what, `/console/api/sessions/${enc(s.sessionId)}/${suffix}`, body);
}

function wire() {
  $('shot-once').addEventListener('click', () =>
    act('Ask for a screenshot', `/console/api/devices/${enc(view.selected)}/screenshot`, { mode: 'AskEveryTime' }));
  $('shot-call').addEventListener('click', () =>
    act('Ask for screenshots for the call', `/console/api/devices/${enc(view.selected)}/screenshot`, { mode: 'PerSession' }));
  $('live-start').addEventListener('click', () =>
    act('Start the live view', `/console/api/devices/${enc(view.selected)}/live`));
  $('live-end').addEventListener('click', () => sessionAction('End the live view', 'end'));
  $('note-frame-saved').addEventListener('click', () => sessionAction('Snapshot saved', 'note', { kind: 'frameSaved' }));
  $('note-recording-start').addEventListener('click', () => sessionAction('Start recording', 'note', { kind: 'recordingStarted' }));
  $('note-recording-stop').addEventListener('click', () => sessionAction('Stop recording', 'note', { kind: 'recordingStopped' }));
  $('control-ask').addEventListener('click', () => sessionAction('Ask for control', 'control'));
  $('control-release').addEventListener('click', () => sessionAction('Release control', 'control/end'));

  for (const box of document.querySelectorAll('input[data-kind]')) {
    box.addEventListener('change', async () => {
      box.dataset.pending = '1';
      await act(`Refuse ${box.dataset.kind}`, '/console/api/refuse', { kind: box.dataset.kind, refuse: box.checked });
      delete box.dataset.pending;
      poll();
    });
  }
  for (const radio of document.querySelectorAll('input[name="tool"]')) {
    radio.addEventListener('change', () => tools.choose(radio.value));
  }
  $('log-all-devices').addEventListener('change', renderLog);

  const node = stage.node;
  node.addEventListener('pointerdown', (e) => {
    if (!stage.live() || e.button !== 0 || e.target === label.box) return;
    const p = stage.at(e);
    if (['arrow', 'box', 'fill'].includes(tools.current)) {
      e.preventDefault();
      node.setPointerCapture(e.pointerId);
      node.focus();
      drag.begin(p);
    }
  });
  node.addEventListener('pointermove', (e) => {
    if (!stage.live()) return;
    if (tools.current === 'laser') laser.move(stage.at(e));
    else drag.move(stage.at(e));
  });
  node.addEventListener('pointerup', (e) => {
    if (drag.start) drag.finish(stage.at(e));
  });
  node.addEventListener('pointercancel', () => drag.cancel());
  node.addEventListener('pointerleave', () => {
    if (tools.current === 'laser') laser.off();
  });
  node.addEventListener('click', (e) => {
    if (!stage.live() || e.target === label.box) return;
    if (tools.current === 'label') label.open(stage.at(e));
    else if (tools.current === 'control') control.tap(stage.at(e));
  });
  node.addEventListener('wheel', (e) => {
    if (!stage.live() || !controlOn(stage.session)) return;
    e.preventDefault();
    control.wheel(e);
  }, { passive: false });
  node.addEventListener('keydown', (e) => {
    if (e.target !== node || !stage.live() || !controlOn(stage.session)) return;
    control.key(e);
  });
  node.addEventListener('blur', () => control.flushText());

  label.box.addEventListener('keydown', (e) => {
    if (e.key === 'Enter') {
      e.preventDefault();
      label.send();
    } else if (e.key === 'Escape') {
      label.hide();
    }
  });
  label.box.addEventListener('blur', () => label.hide());

  new ResizeObserver(() => marks.draw()).observe(frame.img);
  // The time left for a screenshot call moves even when nothing else does.
  setInterval(() => {
    const d = deviceById(view.selected);
    if (d) renderCaptures(d);
  }, 1000);
}

wire();
poll();
