// What the console knows: the latest state the backend sent, the events so far, and which
// device the agent is looking at.

export const MAX_EVENTS = 1000;

export const view = {
  snapshot: { devices: [], captures: [], sessions: [], refusing: {} },
  since: 0,
  events: [],
  clockOffsetMs: 0, // the backend's clock minus ours
  selected: new URLSearchParams(location.hash.slice(1)).get('device') || null,
  rendered: { devices: '', captures: '', eventsShown: -1, logFilter: '' },
  roundTripMs: null, // the last state poll, there and back
  saved: [], // snapshots and recordings this page made: {kind, deviceId, sessionId, name, url, at}
};

export const deviceById = (id) => view.snapshot.devices.find((d) => d.deviceId === id);

// The session the panel is about: the one under way, else the latest, for its final state.
export function currentSession(deviceId) {
  const mine = view.snapshot.sessions.filter((s) => s.deviceId === deviceId);
  return mine.filter((s) => s.state === 'requested' || s.state === 'active').pop() ?? mine.pop() ?? null;
}

export const isOpen = (s) => s && (s.state === 'requested' || s.state === 'active');
export const controlOn = (s) => s && s.state === 'active' && s.control && s.control.state === 'active';

// Whether the agent's recording of `s` runs, as the journal tells it: the last recording note
// the backend sent for the session. Any tab sees the same.
export function recordingNoted(s) {
  if (!s) return false;
  for (let i = view.events.length - 1; i >= 0; i--) {
    const e = view.events[i];
    if (e.sessionId !== s.sessionId || e.kind !== 'note') continue;
    if (/recordingStopped/.test(e.text)) return false;
    if (/recordingStarted/.test(e.text)) return true;
  }
  return false;
}

// How a session, and control within it, came to end, in the words the panel uses. A refusal
// after an allowing answer is the customer's Stop (or Take back), not a decline.
export function outcomes(s) {
  const out = { live: null, control: null };
  if (!s) return out;
  // The customer's last answer when it refused: "stopped" after an allow, "declined" before one.
  const refusal = (given) => {
    const answers = (given ?? []).map((a) => (typeof a === 'object' && a ? a.allow : a));
    if (!answers.length || answers[answers.length - 1] !== false) return null;
    return answers.includes(true) ? 'stopped' : 'declined';
  };
  if (s.state === 'ended') {
    const refused = refusal(s.answers);
    if (refused) {
      out.live = refused === 'stopped'
        ? { state: 'ended by the customer', notice: 'The customer stopped sharing: the live view has ended.' }
        : { state: 'declined', notice: 'The customer declined the live view.' };
    } else {
      const byAgent = view.events.some((e) => e.sessionId === s.sessionId && e.kind === 'live-ended');
      out.live = byAgent
        ? { state: 'ended', notice: 'You ended the live view.' }
        : { state: 'ended', notice: 'The live view has ended.' };
    }
  }
  const c = s.control;
  if (c && c.state === 'ended') {
    const refused = refusal(c.answers);
    if (refused) {
      out.control = refused === 'stopped'
        ? { state: 'taken back by the customer', notice: 'The customer took back control.' }
        : { state: 'declined by the customer', notice: 'The customer declined control.' };
    } else {
      out.control = { state: 'ended', notice: 'You released control.' };
    }
  }
  return out;
}
