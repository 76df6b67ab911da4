// Snapshots and recordings, made in the page from what the agent sees: the frame with the
// console's marks over it, drawn on a canvas. The canvas records through the browser's media
// recorder, so the file holds exactly the agent's view, marks included, and the backend keeps
// nothing. The customer hears of a save only once the file exists.

import { act, lastWord, showError } from './api.js';
import { enc } from './dom.js';
import { picture } from './stage.js';
import { view } from './state.js';

const RECORD_FPS = 10;
const TYPES = ['video/webm;codecs=vp9', 'video/webm;codecs=vp8', 'video/webm'];

const stamp = () => new Date().toISOString().replace(/[:.]/g, '-').replace(/Z$/, '');

function keep(item) {
  view.saved.push({ ...item, at: Date.now() });
}

function note(sessionId, kind, what) {
  return act(what, `/console/api/sessions/${enc(sessionId)}/note`, { kind });
}

export async function snapshot(session, deviceId) {
  const canvas = document.createElement('canvas');
  if (!(await picture.draw(canvas))) {
    showError('Snapshot: there is no frame to save yet.');
    return;
  }
  const blob = await new Promise((resolve) => canvas.toBlob(resolve, 'image/png'));
  if (!blob) {
    showError('Snapshot: the browser could not make the image.');
    return;
  }
  keep({
    kind: 'snapshot', deviceId, sessionId: session.sessionId,
    name: `${session.sessionId}-snapshot-${stamp()}.png`, url: URL.createObjectURL(blob), size: blob.size,
  });
  await note(session.sessionId, 'frameSaved', 'Snapshot saved');
}

export const recorder = {
  rec: null,
  sessionId: null,
  deviceId: null,
  poster: null,
  starting: false,
  startedAt: 0,
  timer: null,

  running() {
    return Boolean(this.rec) && this.rec.state === 'recording';
  },

  busy() {
    return this.starting || Boolean(this.rec);
  },

  async start(session, deviceId) {
    if (this.busy()) return;
    const type = window.MediaRecorder && TYPES.find((t) => MediaRecorder.isTypeSupported(t));
    const canvas = document.createElement('canvas');
    if (!type || !canvas.captureStream) {
      showError('Start recording: this browser cannot record the picture.');
      return;
    }
    this.starting = true;
    try {
      if (!(await picture.draw(canvas))) {
        showError('Start recording: there is no frame to record yet.');
        return;
      }
      // The first picture stands for the video in the list: a recorder's file shows none of
      // its own until it plays.
      const poster = await new Promise((resolve) => canvas.toBlob(resolve, 'image/jpeg', 0.8));
      // Redrawn at the recording's rate whether or not a new frame came: the file keeps time,
      // and a mark drawn between two frames shows when it was drawn.
      this.timer = setInterval(() => picture.draw(canvas, { wait: false }), 1000 / RECORD_FPS);
      const rec = new MediaRecorder(canvas.captureStream(RECORD_FPS), { mimeType: type, videoBitsPerSecond: 2_500_000 });
      const chunks = [];
      rec.addEventListener('dataavailable', (e) => {
        if (e.data.size) chunks.push(e.data);
      });
      rec.chunks = chunks;
      rec.type = type;
      await new Promise((resolve, reject) => {
        rec.addEventListener('start', resolve, { once: true });
        rec.addEventListener('error', (e) => reject(e.error ?? new Error('recorder error')), { once: true });
        rec.start(1000);
      });
      this.rec = rec;
      this.poster = poster ? URL.createObjectURL(poster) : null;
      this.sessionId = session.sessionId;
      this.deviceId = deviceId;
      this.startedAt = performance.now();
      // Only now that it runs is the customer told.
      if (!(await note(session.sessionId, 'recordingStarted', 'Start recording'))) this.discard();
    } catch (e) {
      showError(`Start recording: ${e.message}`);
      this.discard();
    } finally {
      this.starting = false;
    }
  },

  // Stops and keeps the file; `tell` sends the customer the note that it stopped (not when the
  // session has already ended).
  async stop(tell = true) {
    const rec = this.rec;
    if (!rec) return;
    this.rec = null;
    clearInterval(this.timer);
    this.timer = null;
    const stopped = new Promise((resolve) => rec.addEventListener('stop', resolve, { once: true }));
    if (rec.state !== 'inactive') rec.stop();
    await stopped;
    for (const track of rec.stream.getTracks()) track.stop();
    const blob = new Blob(rec.chunks, { type: rec.type.split(';')[0] });
    keep({
      kind: 'recording', deviceId: this.deviceId, sessionId: this.sessionId,
      name: `${this.sessionId}-recording-${stamp()}.webm`, url: URL.createObjectURL(blob), size: blob.size, poster: this.poster,
      seconds: (performance.now() - this.startedAt) / 1000,
    });
    if (tell) await note(this.sessionId, 'recordingStopped', 'Stop recording');
  },

  // The page is going (closed, reloaded) and its recording with it: the customer hears it
  // stopped.
  abandon() {
    if (!this.running()) return;
    lastWord(`/console/api/sessions/${enc(this.sessionId)}/note`, { kind: 'recordingStopped' });
    this.discard();
  },

  discard() {
    clearInterval(this.timer);
    this.timer = null;
    if (this.rec && this.rec.state !== 'inactive') this.rec.stop();
    this.rec = null;
  },
};
