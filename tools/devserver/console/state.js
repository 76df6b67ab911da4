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
};

export const deviceById = (id) => view.snapshot.devices.find((d) => d.deviceId === id);

// The session the panel is about: the one under way, else the latest, for its final state.
export function currentSession(deviceId) {
  const mine = view.snapshot.sessions.filter((s) => s.deviceId === deviceId);
  return mine.filter((s) => s.state === 'requested' || s.state === 'active').pop() ?? mine.pop() ?? null;
}

export const isOpen = (s) => s && (s.state === 'requested' || s.state === 'active');
export const controlOn = (s) => s && s.state === 'active' && s.control && s.control.state === 'active';
