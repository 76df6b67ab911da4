// Local references ("#/components/schemas/X") in the protocol documents, followed the one way
// every script here follows them.

// The node a local reference names; throws for a reference outside the document or to nothing.
export function lookup(doc, ref) {
  if (!ref.startsWith('#/')) throw new Error(`only local references are supported: ${ref}`);
  let node = doc;
  for (const key of ref.slice(2).split('/')) {
    node = node?.[key.replaceAll('~1', '/').replaceAll('~0', '~')];
    if (node === undefined) throw new Error(`unresolved reference ${ref}`);
  }
  return node;
}

// Follows references to the node they end at, with the name of the first. Members written beside
// a $ref (a description, the member's own examples) override the target's; a reference with
// none beside it gives the target itself.
export function resolveNamed(doc, node) {
  let name = null;
  let hops = 0;
  while (node && typeof node === 'object' && typeof node.$ref === 'string') {
    if (++hops > 32) throw new Error(`reference loop at ${node.$ref}`);
    name ??= node.$ref.split('/').pop();
    const { $ref, ...beside } = node;
    const target = lookup(doc, $ref);
    node = Object.keys(beside).length ? { ...target, ...beside } : target;
  }
  return { node, name };
}

export const resolve = (doc, node) => resolveNamed(doc, node).node;
