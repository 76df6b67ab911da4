// Drawing the state: the device list, the panel of the selected device, and the event log.

import { act } from './api.js';
import { $, el, enc, setText } from './dom.js';
import { frame, marks, stage } from './stage.js';
import { MAX_EVENTS, currentSession, deviceById, isOpen, view } from './state.js';
import { tools } from './tools.js';

export function select(deviceId, render_ = true) {
  if (view.selected !== deviceId) {
    view.selected = deviceId;
    frame.reset();
    marks.clear();
    history.replaceState(null, '', `${location.pathname}${location.search}#device=${encodeURIComponent(deviceId)}`);
  }
  if (render_) render();
}

export function render() {
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

export function renderCaptures(device) {
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

export function renderLog() {
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
