// Talking to the backend: the state poll, and the actions, which are plain POSTs whose effects
// come back through the next poll.

import { $, el } from './dom.js';
import { view } from './state.js';

const POLL_MS = 300;
const RETRY_MS = 1000;
const token = new URLSearchParams(location.search).get('token');
// The cookie set with the page covers <img>; the header goes with every fetch all the same.
const authHeaders = token ? { Authorization: `Bearer ${token}` } : {};

let onState = () => {};

// Polls from now on, handing each state the backend sends to `handler`.
export function startPolling(handler) {
  onState = handler;
  poll();
}

// Polls once more as soon as the poll under way is done.
export function pollAgainSoon() {
  pollAgain = true;
}

let pollTimer = null;
let polling = false;
let pollAgain = false;

export async function poll() {
  clearTimeout(pollTimer);
  if (polling) {
    pollAgain = true;
    return;
  }
  polling = true;
  let delay = POLL_MS;
  const sent = performance.now();
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
      const body = await res.json();
      view.roundTripMs = performance.now() - sent;
      onState(body);
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

// `refused`, when given, hears of a refusal (the error code, the message) instead of the
// error box.
export async function act(what, path, body = {}, refused = null) {
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
    if (refused) refused(answer?.error ?? String(res.status), message);
    else showError(`${what}: ${message} (${res.status})`);
    return null;
  }
  return answer ?? {};
}

// A POST that outlives the page, for what must be said as it goes away; nothing hears the answer.
export function lastWord(path, body) {
  fetch(path, {
    method: 'POST',
    keepalive: true,
    headers: { ...authHeaders, 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  }).catch(() => {});
}

// Guides and inputs go out one at a time, in order: a typed word must not overtake the
// Backspace after it.
let sendChain = Promise.resolve();
export function sendInOrder(what, path, body, refused = null) {
  sendChain = sendChain.then(() => act(what, path, body, refused));
  return sendChain;
}

export function showError(text) {
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
