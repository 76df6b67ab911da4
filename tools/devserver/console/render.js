// Drawing the state: the device list, the panel of the selected device, and the event log.

import { act } from './api.js';
import { $, el, enc, setText } from './dom.js';
import { frame, marks, stage } from './stage.js';
import { MAX_EVENTS, currentSession, deviceById, isOpen, outcomes, recordingNoted, view } from './state.js';
import { recorder } from './record.js';
import { inputFeedback, tools } from './tools.js';

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

// A device matches when each word of the search is in its support code, user or device id.
function matches(d, words) {
  if (!words.length) return true;
  const hay = [d.deviceId, d.supportCode, d.user?.id, d.user?.name, d.user?.phone]
    .filter(Boolean).join(' ').toLowerCase();
  // Support codes are read out with or without their dash.
  const bare = hay.replace(/-/g, '');
  return words.every((w) => hay.includes(w) || bare.includes(w.replace(/-/g, '')));
}

function deviceItem(d) {
  const user = d.user ? [d.user.name, d.user.id && `(${d.user.id})`].filter(Boolean).join(' ') : 'no user identified';
  const link = d.connected ? 'connected' : d.appState === null ? 'never connected' : 'disconnected';
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
      el('span', { class: `badge ${d.connected ? 'on' : 'off'}`, 'data-testid': 'device-connection' }, link)),
    el('span', { class: 'device-line' }, 'Support code ',
      el('strong', { 'data-testid': 'device-support-code' }, d.supportCode ?? '–')),
    el('span', { class: 'device-line', 'data-testid': 'device-user' }, user),
    el('span', { class: 'device-line', 'data-testid': 'device-app-state' },
      d.appState ? `app in the ${d.appState}` : 'app state not reported'),
    healthCard(d.health)));
}

// Connected devices first; the ones away (disconnected, or never connected) folded below, all
// but the selected one, which stays in view whatever its state.
function renderDevices() {
  const devices = view.snapshot.devices;
  const words = $('device-search').value.trim().toLowerCase().split(/\s+/).filter(Boolean);
  const key = JSON.stringify([devices, view.selected, words]);
  if (key === view.rendered.devices) return;
  view.rendered.devices = key;
  $('no-devices').hidden = devices.length > 0;
  const shown = devices.filter((d) => matches(d, words));
  const here = shown.filter((d) => d.connected || d.deviceId === view.selected);
  const away = shown.filter((d) => !d.connected && d.deviceId !== view.selected);
  $('no-match').hidden = !devices.length || shown.length > 0;
  $('device-list').replaceChildren(...here.map(deviceItem));
  $('device-list-away').replaceChildren(...away.map(deviceItem));
  const fold = $('device-fold');
  fold.hidden = away.length === 0;
  const never = away.filter((d) => d.appState === null).length;
  setText('device-fold-summary', `${away.length} not connected${never ? ` (${never} never connected)` : ''}`);
  // A search that finds only devices away shows them.
  if (words.length && !here.length && away.length) fold.open = true;
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
  const saved = view.saved.filter((item) => item.deviceId === device.deviceId).reverse();
  const key = JSON.stringify([rows, device.connected, rows.map((c) => c.sessionExpiresAt && timeLeft(c.sessionExpiresAt)), saved.map((i) => i.url)]);
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
      ? el('a', { href: image.imageUrl, class: 'thumb', title: 'Open the full image', onclick: (e) => openViewer(e, image.imageUrl, image.captureId, `${image.captureId}.png`) },
        el('img', { src: image.imageUrl, alt: `Screenshot ${image.captureId ?? ''}`, 'data-testid': 'capture-image' }))
      : el('span', { class: 'thumb pending' }, c.answer === false ? '✕' : '…'),
    el('span', { class: 'capture-line' },
      image.captureId ? el('strong', { class: 'capture-id', 'data-testid': 'capture-id' }, image.captureId) : el('strong', {}, c.requestId),
      image.imageUrl && ' · ',
      image.imageUrl && el('a', { href: image.imageUrl, download: `${image.captureId}.png`, 'data-testid': 'capture-download' }, 'download')),
    el('span', { class: 'capture-line' }, c.mode === 'PerSession' ? 'for the call' : 'once', i === 0 && ' · ',
      i === 0 && el('span', { class: `status ${c.answer === false ? 'bad' : image.captureId ? 'good' : ''}`, 'data-testid': 'capture-status' }, captureStatus(c))),
    i === 0 && left && el('span', { class: 'capture-line left' }, `${left} left`),
    i === 0 && left && el('button', {
      type: 'button', 'data-testid': 'capture-another', disabled: !device.connected,
      onclick: () => act('Take another screenshot', `/console/api/devices/${enc(device.deviceId)}/capture`, { requestId: c.requestId }),
    }, 'Take another')));
  });
  items.unshift(...saved.map(savedItem));
  if (!items.length) items.push(el('li', { class: 'empty' }, 'No screenshot asked for yet.'));
  $('capture-list').replaceChildren(...items);
}

// A snapshot or recording this page saved: kept in the page (a reload forgets it), offered
// for download.
function savedItem(item) {
  const snapshot = item.kind === 'snapshot';
  return el('li', { class: 'capture saved', 'data-testid': 'saved', 'data-kind': item.kind },
    snapshot
      ? el('a', { href: item.url, class: 'thumb', title: 'Open the full image', onclick: (e) => openViewer(e, item.url, 'Snapshot', item.name) },
        el('img', { src: item.url, alt: 'Snapshot', 'data-testid': 'saved-image' }))
      : el('video', { class: 'thumb', src: item.url, poster: item.poster, controls: true, muted: true, preload: 'none', 'data-testid': 'saved-video' }),
    el('span', { class: 'capture-line' }, el('strong', {}, snapshot ? 'Snapshot' : 'Recording'),
      item.seconds ? ` · ${item.seconds.toFixed(1)} s` : '', ' · ',
      el('a', { href: item.url, download: item.name, 'data-testid': 'saved-download' }, 'download')),
    el('span', { class: 'capture-line' }, `${item.sessionId} · ${Math.max(1, Math.round(item.size / 1024))} KB`));
}

// The full-size image, with its download.
function openViewer(e, url, title, name) {
  if (e.button !== 0 || e.ctrlKey || e.metaKey || e.shiftKey) return; // a new tab, as asked
  e.preventDefault();
  const dialog = $('viewer');
  $('viewer-image').src = url;
  $('viewer-image').alt = title;
  setText('viewer-title', title);
  const link = $('viewer-download');
  link.href = url;
  link.download = name;
  if (!dialog.open) dialog.showModal();
}

function renderLive(device) {
  const s = currentSession(device.deviceId);
  const open = isOpen(s);
  const active = s && s.state === 'active';
  const ends = outcomes(s);
  setText('session-id', s ? s.sessionId : 'none');
  setText('session-state', s ? sessionStateText(s, ends) : 'none');
  setText('session-generation', s?.generation ?? '–');
  setText('frame-count', String(s?.frames ?? 0));
  setText('frame-rate', active && typeof s.frameRate === 'number' ? s.frameRate.toFixed(1) : '–');
  setText('frame-age', active && typeof s.frameAgeMs === 'number' ? `${(s.frameAgeMs / 1000).toFixed(1)} s` : '–');
  setText('round-trip', typeof view.roundTripMs === 'number' ? `${Math.round(view.roundTripMs)} ms` : '–');
  renderIndicators(s);
  const notice = ends.live?.notice ?? ends.control?.notice ?? '';
  const box = $('session-notice');
  box.hidden = !notice;
  box.className = `notice${ends.live && ends.live.state !== 'ended' ? ' warn' : ''}`;
  setText('session-notice', notice);

  $('live-start').disabled = !device.connected || open;
  $('live-end').disabled = !open;

  // The recording belongs to this page and records the picture on its stage. It stops, keeping
  // what it recorded, when its session ends (nothing left to tell the customer) or when the
  // agent turns to another device (the customer hears it stopped).
  if (recorder.running()) {
    const own = view.snapshot.sessions.find((x) => x.sessionId === recorder.sessionId);
    if (!own || own.state !== 'active') recorder.stop(false).then(render);
    else if (!s || s.sessionId !== recorder.sessionId) recorder.stop(true).then(render);
  }
  const mine = recorder.running() && active && recorder.sessionId === s.sessionId;
  $('note-frame-saved').disabled = !active || !s.frames;
  $('note-recording-start').disabled = !active || !s.frames || recorder.busy();
  $('note-recording-stop').disabled = !mine;
  const status = $('recording-status');
  status.hidden = !mine && !recorder.starting;
  setText('recording-status', recorder.starting ? 'starting the recorder…' : mine ? '● recording what you see' : '');

  const c = s?.control ?? null;
  const controlState = c && c.state ? c.state : 'none';
  const lapsed = controlState === 'active' && (s?.lapsed ?? []).includes('control');
  setText('control-state', lapsed ? 'active, lease lapsed: taps are dropped' : ends.control?.state ?? controlState);
  setText('control-generation', c?.generation ?? '–');
  setText('control-inputs', String(c?.inputs ?? 0));
  setText('control-feedback', c && c.feedback?.length ? c.feedback.join(', ') : '–');
  $('control-ask').disabled = !active || controlState === 'requested' || controlState === 'active';
  $('control-release').disabled = !active || !(controlState === 'requested' || controlState === 'active');
  inputFeedback.sync(s);

  for (const box of document.querySelectorAll('input[data-kind]')) {
    if (!box.dataset.pending) box.checked = Boolean(view.snapshot.refusing[box.dataset.kind]);
  }

  tools.sync(s);
  stage.sync(device, s);
  frame.sync(s);
}

// The backend sends the latest confirmation of each kind. A lapsed kind (a confirmation refused
// and none accepted since) is one whose frames or input the backend drops until the device
// confirms again. A chip stays only while its lease runs: none once the session ended, control's
// while control is granted, recording's until the recording stopped.
function renderIndicators(s) {
  const lapsed = new Set(s?.lapsed ?? []);
  const running = (i) => {
    if (!s || s.state !== 'active') return false;
    if (i.kind === 'control') return s.control?.state === 'active' && s.control.generation === i.generation;
    if (i.kind === 'recording') return recordingNoted(s);
    return true;
  };
  const list = (s?.indicators ?? []).filter(running).map((i) => ({ ...i, lapsed: lapsed.has(i.kind) }));
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

function sessionStateText(s, ends) {
  if (s.state === 'requested') return 'asked, waiting for the customer';
  if (s.state === 'ended') return ends.live.state;
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

// Kinds the device repeats on its own: it confirms each indicator every 10 s and reports its
// health now and then. A repeat of the latest line about the same thing moves that line down to
// now and counts it; a change (a refusal after confirmations) gets a line of its own.
const REPEATS = new Set(['indicator', 'health']);

export function renderLog() {
  const all = $('log-all-devices').checked;
  const kind = $('log-kind').value;
  const filter = `${all ? '*' : view.selected ?? ''}|${kind}`;
  const list = $('event-log');
  const shown = view.events.length ? view.events[view.events.length - 1].seq : 0;
  if (filter === view.rendered.logFilter && shown === view.rendered.eventsShown) return;
  const atBottom = list.scrollHeight - list.scrollTop - list.clientHeight < 24;
  const fresh = filter !== view.rendered.logFilter || view.rendered.eventsShown < 0;
  const from = fresh ? view.events : view.events.filter((e) => e.seq > view.rendered.eventsShown);
  if (fresh) list.replaceChildren();
  for (const e of from) {
    if (!all && e.deviceId !== view.selected) continue;
    if (kind && (KIND_CLASS[e.kind] ?? '') !== kind) continue;
    if (!fold(list, e)) list.append(eventItem(e));
  }
  while (list.children.length > MAX_EVENTS) list.firstElementChild.remove();
  view.rendered.logFilter = filter;
  view.rendered.eventsShown = shown;
  // The newest in view, unless the agent scrolled up to read.
  if (atBottom || fresh) list.scrollTop = list.scrollHeight;
  for (const e of from) if (e.kind === 'view' && e.deviceId === view.selected) marks.clear();
}

const foldKey = (e) => JSON.stringify([e.kind, e.deviceId, e.sessionId, e.text]);
const subjectKey = (e) =>
  JSON.stringify([e.kind, e.deviceId, e.sessionId, e.kind === 'indicator' ? (e.text ?? '').split(' ')[1] : '']);

function fold(list, e) {
  if (!REPEATS.has(e.kind)) return false;
  const subject = subjectKey(e);
  let item = list.lastElementChild;
  while (item && item.dataset.subject !== subject) item = item.previousElementSibling;
  if (!item || item.dataset.key !== foldKey(e)) return false;
  const n = Number(item.dataset.count) + 1;
  item.dataset.count = String(n);
  item.dataset.seq = String(e.seq);
  item.querySelector('.count').textContent = `×${n}`;
  item.querySelector('time').textContent = timeOf(e);
  list.append(item);
  return true;
}

function timeOf(e) {
  const at = new Date(e.at);
  return Number.isNaN(at.getTime()) ? '' : at.toLocaleTimeString([], { hour12: false });
}

function eventItem(e) {
  const bad = e.kind === 'indicator' && /refused/.test(e.text ?? '');
  const item = el('li', { class: `event ${KIND_CLASS[e.kind] ?? ''}${bad ? ' bad' : ''}`, 'data-testid': 'event', 'data-kind': e.kind, 'data-seq': e.seq },
    el('time', {}, timeOf(e)),
    // The device's id only matters once there are several.
    el('span', { class: 'who' }, view.snapshot.devices.length > 1 ? [e.deviceId, e.sessionId].filter(Boolean).join(' · ') : e.sessionId ?? ''),
    el('span', { class: 'kind' }, e.kind),
    el('span', { class: 'text' }, e.text ?? '', el('span', { class: 'count', 'data-testid': 'event-count' })));
  item.dataset.key = foldKey(e);
  if (REPEATS.has(e.kind)) item.dataset.subject = subjectKey(e);
  item.dataset.count = '1';
  return item;
}
