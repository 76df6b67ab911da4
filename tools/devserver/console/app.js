// The agent's console. Everything it shows comes from polling /console/api/state, so a second
// tab, or a reload, shows the same thing; actions are plain POSTs whose effects come back
// through the next poll.

import { act, poll, pollAgainSoon, startPolling } from './api.js';
import { $, enc } from './dom.js';
import { render, renderCaptures, renderLog, select } from './render.js';
import { listenForKeys } from './keys.js';
import { recorder, snapshot } from './record.js';
import { frame, marks, sizing, stage } from './stage.js';
import { MAX_EVENTS, controlOn, deviceById, view } from './state.js';
import { control, drag, label, laser, tools } from './tools.js';

function apply(body) {
  if (typeof body.nextSeq === 'number' && body.nextSeq < view.since) {
    // The backend started again: its journal begins anew.
    view.events = [];
    view.since = 0;
    view.rendered.eventsShown = -1;
    pollAgainSoon();
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
  $('note-frame-saved').addEventListener('click', async () => {
    if (stage.session) await snapshot(stage.session, view.selected);
    render();
  });
  $('note-recording-start').addEventListener('click', async () => {
    const start = stage.session && recorder.start(stage.session, view.selected);
    render();
    await start;
    render();
  });
  $('note-recording-stop').addEventListener('click', async () => {
    await recorder.stop();
    render();
  });
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
  $('log-kind').addEventListener('change', renderLog);
  $('device-search').addEventListener('input', () => render());
  $('stage-enlarge').addEventListener('click', () => sizing.toggle());
  $('viewer-close').addEventListener('click', () => $('viewer').close());
  $('viewer').addEventListener('click', (e) => {
    if (e.target === $('viewer')) $('viewer').close(); // the backdrop
  });

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
  new ResizeObserver(() => sizing.fit()).observe(sizing.wrap);
  window.addEventListener('resize', () => sizing.fit());
  window.addEventListener('pagehide', () => recorder.abandon());

  listenForKeys({
    tool(name) {
      const input = document.querySelector(`input[name="tool"][value="${name}"]`);
      if (input && !input.disabled) tools.choose(name);
    },
    color(i) {
      const input = document.querySelectorAll('input[name="color"]')[i];
      if (input) input.checked = true;
    },
    clear() {
      drag.cancel();
      laser.off();
      marks.clear();
    },
    enlarge: () => sizing.toggle(),
    cancel() {
      label.hide();
      drag.cancel();
      if (sizing.enlarged) sizing.toggle(false);
    },
    end() {
      if (!$('live-end').disabled) sessionAction('End the live view', 'end');
    },
  }, () => controlOn(stage.session));
  // The time left for a screenshot call moves even when nothing else does.
  setInterval(() => {
    const d = deviceById(view.selected);
    if (d) renderCaptures(d);
  }, 1000);
}

wire();
startPolling(apply);
