// The console's keyboard: one key per tool and colour, and a few for the session. The page lists
// them from this table, so the list and the keys cannot drift apart. Keys typed into a text box,
// or typed on the stage while they go to the device as control, are left alone.

import { $, el } from './dom.js';

export const SHORTCUTS = [
  { keys: ['p'], label: 'P', what: 'Point', run: (c) => c.tool('laser') },
  { keys: ['a'], label: 'A', what: 'Arrow', run: (c) => c.tool('arrow') },
  { keys: ['b'], label: 'B', what: 'Box', run: (c) => c.tool('box') },
  { keys: ['f'], label: 'F', what: 'Fill', run: (c) => c.tool('fill') },
  { keys: ['l'], label: 'L', what: 'Label', run: (c) => c.tool('label') },
  { keys: ['t'], label: 'T', what: 'Tap & type', run: (c) => c.tool('control') },
  { keys: ['1', '2', '3', '4', '5'], label: '1–5', what: 'Colour: red, blue, green, amber, purple', run: (c, e) => c.color(Number(e.key) - 1) },
  { keys: ['c'], label: 'C', what: 'Clear your marks', run: (c) => c.clear() },
  { keys: ['z'], label: 'Z', what: 'Enlarge the picture, or back', run: (c) => c.enlarge() },
  { keys: ['Escape'], label: 'Esc', what: 'Cancel the drag or label; leave the enlarged picture', run: (c) => c.cancel() },
  { keys: ['E'], shift: true, label: 'Shift+E', what: 'End the live view', run: (c) => c.end() },
];

function typing(e, controlOn) {
  const t = e.target;
  if (t instanceof HTMLTextAreaElement || t instanceof HTMLSelectElement) return true;
  if (t instanceof HTMLInputElement && !['radio', 'checkbox', 'button'].includes(t.type)) return true;
  // Under control, keys on the stage are the customer's typing.
  return controlOn && t === $('stage');
}

// `commands` carries what each key does; `controlOn()` says whether the stage types for now.
export function listenForKeys(commands, controlOn) {
  $('shortcuts').replaceChildren(...SHORTCUTS.map((s) =>
    el('div', {}, el('dt', {}, el('kbd', {}, s.label)), el('dd', {}, s.what))));
  document.addEventListener('keydown', (e) => {
    if (e.defaultPrevented || e.ctrlKey || e.metaKey || e.altKey || e.repeat) return;
    if (document.querySelector('dialog[open]')) return; // the viewer has the keys, Escape closes it
    if (e.key !== 'Escape' && typing(e, controlOn())) return;
    const hit = SHORTCUTS.find((s) => s.keys.includes(e.key) && Boolean(s.shift) === e.shiftKey);
    if (!hit) return;
    e.preventDefault();
    hit.run(commands, e);
  });
}
