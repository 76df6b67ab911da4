// Small helpers over the page's elements.

export const $ = (id) => document.querySelector(`[data-testid="${id}"]`);

export function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs)) {
    if (v === undefined || v === null || v === false) continue;
    if (k.startsWith('on')) node.addEventListener(k.slice(2), v);
    else node.setAttribute(k, v === true ? '' : String(v));
  }
  for (const c of children.flat()) if (c !== null && c !== undefined && c !== false) node.append(c);
  return node;
}

export function setText(id, text) {
  const node = $(id);
  if (node.textContent !== text) node.textContent = text;
}

export const enc = encodeURIComponent;
export const round = (v) => Math.round(v * 10000) / 10000;
