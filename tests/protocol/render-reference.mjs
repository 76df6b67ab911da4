// Renders the protocol documents (openapi.yaml, asyncapi.yaml) as one static HTML page and its
// style sheet, for the local backend to serve at /docs. The page needs no script and loads
// nothing from elsewhere: everything is expanded, so the browser's own find searches all of it.
//
// usage: node render-reference.mjs OPENAPI ASYNCAPI OUTDIR
//   writes OUTDIR/index.html and OUTDIR/reference.css.
import { readFileSync, writeFileSync, mkdirSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import yaml from 'js-yaml';
import { resolveNamed } from './references.mjs';

// ---- text ---------------------------------------------------------------------------------

const escape = (text) =>
  String(text)
    .replaceAll('&', '&amp;')
    .replaceAll('<', '&lt;')
    .replaceAll('>', '&gt;')
    .replaceAll('"', '&quot;');

const slug = (text) => String(text).replace(/[^A-Za-z0-9_-]+/g, '-');

// The Markdown the documents use: paragraphs, "## " headings, "- " lists, `code`, **bold** and
// *emphasis*. Links stay text, so nothing in a description can make the page load anything.
function inline(text) {
  const parts = String(text).split(/(`[^`]*`)/);
  return parts
    .map((part) => {
      if (part.startsWith('`') && part.endsWith('`') && part.length >= 2) {
        return `<code>${escape(part.slice(1, -1))}</code>`;
      }
      return escape(part)
        .replace(/\*\*([^*]+)\*\*/g, '<strong>$1</strong>')
        .replace(/(^|[\s(])\*([^*\s][^*]*)\*/g, '$1<em>$2</em>');
    })
    .join('');
}

// With `headings` (a prefix and a list), each heading gets an id from the prefix and is listed,
// for the contents.
function markdown(text, headingLevel = 4, headings = null) {
  if (!text) return '';
  const out = [];
  let paragraph = [];
  let list = null;
  const flush = () => {
    if (paragraph.length) out.push(`<p>${inline(paragraph.join(' '))}</p>`);
    paragraph = [];
    if (list) out.push(`<ul>${list.map((item) => `<li>${inline(item)}</li>`).join('')}</ul>`);
    list = null;
  };
  for (const raw of String(text).split('\n')) {
    const line = raw.trimEnd();
    const heading = /^#{1,6}\s+(.*)$/.exec(line);
    const item = /^\s*[-*]\s+(.*)$/.exec(line);
    if (!line.trim()) {
      flush();
    } else if (heading) {
      flush();
      const id = headings ? ` id="${headings.prefix}-${slug(heading[1].toLowerCase())}"` : '';
      headings?.list.push({ id: `${headings.prefix}-${slug(heading[1].toLowerCase())}`, text: heading[1] });
      out.push(`<h${headingLevel}${id}>${inline(heading[1])}</h${headingLevel}>`);
    } else if (item) {
      if (paragraph.length) flush();
      list ??= [];
      list.push(item[1]);
    } else if (list && /^\s+/.test(raw)) {
      list[list.length - 1] += ` ${line.trim()}`;
    } else {
      if (list) flush();
      paragraph.push(line.trim());
    }
  }
  flush();
  return out.join('\n');
}

const json = (value) =>
  `<pre class="example">${escape(typeof value === 'string' ? value : JSON.stringify(value, null, 2))}</pre>`;

// ---- schemas ------------------------------------------------------------------------------

function typeOf(schema) {
  if (schema.const !== undefined) return `const ${JSON.stringify(schema.const)}`;
  const type = Array.isArray(schema.type) ? schema.type.join(' | ') : schema.type;
  if (type === 'array' && schema.items) return 'array';
  return type ?? (schema.properties ? 'object' : 'any');
}

function constraints(schema) {
  const notes = [];
  if (schema.enum) notes.push(`one of ${schema.enum.map((v) => `<code>${escape(JSON.stringify(v))}</code>`).join(', ')}`);
  if (schema.format) notes.push(`format <code>${escape(schema.format)}</code>`);
  if (schema.pattern) notes.push(`pattern <code>${escape(schema.pattern)}</code>`);
  for (const key of ['minLength', 'maxLength', 'minimum', 'maximum', 'minItems', 'maxItems', 'maxProperties']) {
    if (schema[key] !== undefined) notes.push(`${key} ${escape(schema[key])}`);
  }
  if (schema.default !== undefined) notes.push(`default <code>${escape(JSON.stringify(schema.default))}</code>`);
  if (schema.examples) notes.push(`e.g. ${schema.examples.map((v) => `<code>${escape(JSON.stringify(v))}</code>`).join(', ')}`);
  if (schema.additionalProperties === false) notes.push('no other members');
  return notes.join('; ');
}

// allOf parts folded into one schema: properties merged member by member, required joined.
function flatten(schema, resolve) {
  if (!schema.allOf) return schema;
  const merged = { ...schema, allOf: undefined, properties: {}, required: [] };
  const descriptions = schema.description ? [schema.description] : [];
  for (const part of schema.allOf) {
    const flat = flatten(resolve(part).node, resolve);
    if (flat.description) descriptions.push(flat.description);
    for (const [key, value] of Object.entries(flat)) {
      if (['properties', 'required', 'description', 'title'].includes(key)) continue;
      if (merged[key] === undefined) merged[key] = value;
    }
    for (const [name, property] of Object.entries(flat.properties ?? {})) {
      const earlier = merged.properties[name] ? resolve(merged.properties[name]).node : {};
      const later = resolve(property);
      merged.properties[name] = { ...earlier, ...later.node, 'x-name': later.name ?? resolve(merged.properties[name] ?? {}).name };
    }
    merged.required.push(...(flat.required ?? []));
  }
  merged.description = descriptions.join('\n\n');
  return merged;
}

// A schema as a table of its members, nested objects and array items expanded in place.
function schemaTable(input, resolve, depth = 0) {
  const { node: raw } = resolve(input);
  const schema = flatten(raw, resolve);
  const rows = [];
  const walk = (s, prefix, level) => {
    const required = new Set(s.required ?? []);
    for (const [name, property] of Object.entries(s.properties ?? {})) {
      const { node: p0, name: refName } = resolve(property);
      const p = flatten(p0, resolve);
      const label = `${prefix}${name}`;
      const named = refName ?? p['x-name'];
      rows.push(
        `<tr><td class="name"><code>${escape(label)}</code>${required.has(name) ? ' <span class="req">required</span>' : ''}</td>` +
          `<td class="type">${escape(typeOf(p))}${named ? ` <span class="ref">${escape(named)}</span>` : ''}</td>` +
          `<td>${markdown(p.description)}${constraints(p) ? `<p class="constraints">${constraints(p)}</p>` : ''}</td></tr>`,
      );
      if (level < 6 && p.properties) walk(p, `${label}.`, level + 1);
      if (level < 6 && p.items) {
        const item = flatten(resolve(p.items).node, resolve);
        if (item.properties) walk(item, `${label}[].`, level + 1);
      }
    }
  };
  walk(schema, '', depth);
  const head = [];
  head.push(`<p class="schema-type">${escape(typeOf(schema))}${constraints(schema) ? ` — ${constraints(schema)}` : ''}</p>`);
  if (schema.description) head.push(markdown(schema.description));
  if (!rows.length) return head.join('\n');
  return `${head.join('\n')}
<table class="schema"><thead><tr><th>Member</th><th>Type</th><th>Meaning</th></tr></thead>
<tbody>${rows.join('\n')}</tbody></table>`;
}

// ---- OpenAPI ------------------------------------------------------------------------------

function examplesOf(media) {
  const list = [];
  if (media.example !== undefined) list.push({ name: 'example', value: media.example });
  for (const [name, example] of Object.entries(media.examples ?? {})) {
    list.push({ name, summary: example.summary, value: example.value });
  }
  return list
    .map((e) => `<p class="example-name">Example <code>${escape(e.name)}</code>${e.summary ? ` — ${inline(e.summary)}` : ''}</p>${json(e.value)}`)
    .join('\n');
}

function content(body, resolve) {
  const out = [];
  for (const [type, media] of Object.entries(body.content ?? {})) {
    out.push(`<p class="media"><code>${escape(type)}</code></p>`);
    if (media.schema) out.push(schemaTable(media.schema, resolve));
    for (const [part, encoding] of Object.entries(media.encoding ?? {})) {
      out.push(`<p class="constraints">Part <code>${escape(part)}</code>: <code>${escape(encoding.contentType ?? '')}</code></p>`);
    }
    out.push(examplesOf(media));
  }
  return out.join('\n');
}

function renderOpenApi(doc) {
  const resolve = (node) => resolveNamed(doc, node);
  const schemes = doc.components?.securitySchemes ?? {};
  const operations = [];
  for (const [route, item] of Object.entries(doc.paths ?? {})) {
    for (const method of ['get', 'put', 'post', 'delete', 'patch', 'head', 'options']) {
      if (item[method]) operations.push({ route, method, item, op: item[method] });
    }
  }
  const tags = (doc.tags ?? []).map((t) => t.name);
  for (const { op } of operations) for (const t of op.tags ?? ['other']) if (!tags.includes(t)) tags.push(t);

  const nav = [];
  const body = [];
  body.push(`<section id="http"><h2>HTTP API <span class="version">${escape(doc.info.title)} ${escape(doc.info.version)}</span></h2>`);
  if (doc.info.summary) body.push(`<p class="lead">${inline(doc.info.summary)}</p>`);
  body.push(markdown(doc.info.description));
  body.push('<h3 id="http-servers">Servers and credentials</h3>');
  for (const server of doc.servers ?? []) {
    body.push(`<p><code>${escape(server.url)}</code></p>${markdown(server.description)}`);
    for (const [name, variable] of Object.entries(server.variables ?? {})) {
      body.push(`<p class="constraints"><code>${escape(name)}</code> (default <code>${escape(variable.default)}</code>): ${inline(variable.description ?? '')}</p>`);
    }
  }
  body.push('<table class="schema"><thead><tr><th>Credential</th><th>Sent as</th><th>Meaning</th></tr></thead><tbody>');
  for (const [name, scheme] of Object.entries(schemes)) {
    const where = scheme.in ? `${scheme.in} <code>${escape(scheme.name)}</code>` : escape(scheme.type);
    body.push(`<tr><td class="name" id="http-auth-${slug(name)}"><code>${escape(name)}</code></td><td>${where}</td><td>${markdown(scheme.description)}</td></tr>`);
  }
  body.push('</tbody></table>');

  nav.push('<li><a href="#http">HTTP API</a><ul>');
  for (const tag of tags) {
    const tagged = operations.filter(({ op }) => (op.tags ?? ['other']).includes(tag));
    if (!tagged.length) continue;
    const info = (doc.tags ?? []).find((t) => t.name === tag);
    body.push(`<h3 id="tag-${slug(tag)}" class="tag">${escape(tag)}</h3>${markdown(info?.description)}`);
    nav.push(`<li class="group">${escape(tag)}</li>`);
    for (const { route, method, item, op } of tagged) {
      const id = `op-${slug(op.operationId ?? `${method}-${route}`)}`;
      nav.push(`<li><a href="#${id}"><span class="method">${method.toUpperCase()}</span> ${escape(op.summary ?? route)}</a></li>`);
      // An operation under several tags is written out once, under its first.
      if ((op.tags ?? ['other'])[0] !== tag) {
        body.push(`<p class="also">Also: <a href="#${id}"><span class="method">${method.toUpperCase()}</span> <code>${escape(route)}</code></a> — ${inline(op.summary ?? '')}</p>`);
        continue;
      }
      body.push(`<article class="operation" id="${id}">`);
      body.push(`<h4><span class="method">${method.toUpperCase()}</span> <code class="path">${escape(route)}</code></h4>`);
      body.push(`<p class="summary">${inline(op.summary ?? '')} <span class="opid">${escape(op.operationId ?? '')}</span></p>`);
      body.push(markdown(op.description));
      const security = op.security ?? doc.security ?? [];
      const credentials = security.flatMap((s) => Object.keys(s));
      body.push(`<p class="constraints">Credential: ${credentials.length ? credentials.map((c) => `<a href="#http-auth-${slug(c)}">${escape(c)}</a> (header <code>${escape(schemes[c]?.name ?? '')}</code>)`).join(', ') : 'none'}</p>`);
      const parameters = [...(item.parameters ?? []), ...(op.parameters ?? [])].map((p) => resolve(p).node);
      if (parameters.length) {
        body.push('<h5>Parameters</h5><table class="schema"><thead><tr><th>Name</th><th>In</th><th>Type</th><th>Meaning</th></tr></thead><tbody>');
        for (const p of parameters) {
          const schema = p.schema ? resolve(p.schema).node : {};
          body.push(`<tr><td class="name"><code>${escape(p.name)}</code>${p.required ? ' <span class="req">required</span>' : ''}</td><td>${escape(p.in)}</td><td class="type">${escape(typeOf(schema))}</td><td>${markdown(p.description)}${constraints(schema) ? `<p class="constraints">${constraints(schema)}</p>` : ''}</td></tr>`);
        }
        body.push('</tbody></table>');
      }
      if (op.requestBody) {
        const request = resolve(op.requestBody).node;
        body.push(`<h5>Request body${request.required ? ' <span class="req">required</span>' : ''}</h5>`);
        body.push(markdown(request.description));
        body.push(content(request, resolve));
      }
      body.push('<h5>Responses</h5>');
      for (const [status, reply] of Object.entries(op.responses ?? {})) {
        const { node: response, name } = resolve(reply);
        body.push(`<div class="response"><p class="status"><span class="code s${escape(String(status)[0])}">${escape(status)}</span>${name ? ` <span class="ref">${escape(name)}</span>` : ''}</p>`);
        body.push(markdown(response.description));
        const headers = Object.entries(response.headers ?? {});
        if (headers.length) {
          body.push('<table class="schema"><thead><tr><th>Header</th><th>Type</th><th>Meaning</th></tr></thead><tbody>');
          for (const [header, value] of headers) {
            const h = resolve(value).node;
            body.push(`<tr><td class="name"><code>${escape(header)}</code></td><td class="type">${escape(typeOf(h.schema ? resolve(h.schema).node : {}))}</td><td>${markdown(h.description)}</td></tr>`);
          }
          body.push('</tbody></table>');
        }
        body.push(content(response, resolve));
        body.push('</div>');
      }
      body.push('</article>');
    }
  }
  nav.push('<li class="group"><a href="#http-schemas">Schemas</a></li></ul></li>');
  body.push('<h3 id="http-schemas">Schemas</h3>');
  for (const [name, schema] of Object.entries(doc.components?.schemas ?? {})) {
    body.push(`<article class="schema-def" id="http-schema-${slug(name)}"><h4>${escape(name)}</h4>${schemaTable(schema, resolve)}</article>`);
  }
  body.push('</section>');
  return { nav: nav.join('\n'), body: body.join('\n') };
}

// ---- AsyncAPI -----------------------------------------------------------------------------

function renderAsyncApi(doc) {
  const resolve = (node) => resolveNamed(doc, node);
  const nav = [];
  const body = [];
  body.push(`<section id="socket"><h2>Realtime socket <span class="version">${escape(doc.info.title)} ${escape(doc.info.version)}</span></h2>`);
  const sections = { prefix: 'socket', list: [] };
  body.push(markdown(doc.info.description, 4, sections));

  body.push('<h3 id="socket-channel">Servers, channel and credential</h3>');
  for (const [name, server] of Object.entries(doc.servers ?? {})) {
    body.push(`<p><code>${escape(server.protocol)}://${escape(server.host)}${escape(server.pathname ?? '')}</code> <span class="ref">${escape(name)}</span></p>${markdown(server.description)}`);
    for (const [variable, value] of Object.entries(server.variables ?? {})) {
      body.push(`<p class="constraints"><code>${escape(variable)}</code> (default <code>${escape(value.default)}</code>): ${inline(value.description ?? '')}</p>`);
    }
  }
  for (const [, channel] of Object.entries(doc.channels ?? {})) {
    body.push(`<p>Channel <code class="path">${escape(channel.address)}</code>${channel.title ? ` — ${inline(channel.title)}` : ''}</p>${markdown(channel.description)}`);
    const ws = channel.bindings?.ws;
    if (ws) {
      body.push(`<p class="constraints">WebSocket handshake: <code>${escape(ws.method ?? 'GET')}</code>, headers:</p>`);
      if (ws.headers) body.push(schemaTable(ws.headers, resolve));
    }
  }
  for (const [name, scheme] of Object.entries(doc.components?.securitySchemes ?? {})) {
    body.push(`<p>Credential <code>${escape(name)}</code>: ${escape(scheme.in ?? '')} <code>${escape(scheme.name ?? '')}</code></p>${markdown(scheme.description)}`);
  }

  nav.push('<li><a href="#socket">Realtime socket</a><ul>');
  for (const { id, text } of sections.list) nav.push(`<li><a href="#${id}">${inline(text)}</a></li>`);
  nav.push('<li><a href="#socket-channel">Servers, channel and credential</a></li>');
  const groups = [
    ['receive', 'Pushed by the backend', 'socket-push'],
    ['send', 'Sent by the device', 'socket-device'],
  ];
  for (const [action, heading, id] of groups) {
    const ops = Object.entries(doc.operations ?? {}).filter(([, op]) => op.action === action);
    body.push(`<h3 id="${id}" class="tag">${escape(heading)}</h3>`);
    nav.push(`<li class="group">${escape(heading)}</li>`);
    for (const [opId, op] of ops) {
      for (const ref of op.messages ?? []) {
        const { node: message } = resolve(ref);
        const wire = message.name ?? opId;
        const anchor = `msg-${slug(wire)}`;
        nav.push(`<li><a href="#${anchor}"><code>${escape(wire)}</code> ${escape(message.title ?? '')}</a></li>`);
        body.push(`<article class="operation message" id="${anchor}">`);
        body.push(`<h4><code class="path">${escape(wire)}</code> ${inline(message.title ?? op.title ?? '')}</h4>`);
        body.push(`<p class="summary">${inline(op.title ?? '')} <span class="opid">${escape(opId)}</span></p>`);
        body.push(markdown(op.summary));
        body.push(markdown(op.description));
        body.push(markdown(message.description));
        body.push(`<p class="media"><code>${escape(message.contentType ?? doc.defaultContentType ?? '')}</code></p>`);
        if (message.payload) body.push(schemaTable(message.payload, resolve));
        for (const example of message.examples ?? []) {
          body.push(`<p class="example-name">Example <code>${escape(example.name ?? '')}</code>${example.summary ? ` — ${inline(example.summary)}` : ''}</p>${json(example.payload)}`);
        }
        body.push('</article>');
      }
    }
  }
  nav.push('</ul></li>');
  body.push('</section>');
  return { nav: nav.join('\n'), body: body.join('\n') };
}

// ---- page ---------------------------------------------------------------------------------

const css = `:root { color-scheme: light dark; --fg: #1d2330; --muted: #5b6475; --bg: #ffffff; --panel: #f4f6fa;
  --line: #d8dde6; --accent: #2457c5; --code: #eef1f6; }
@media (prefers-color-scheme: dark) { :root { --fg: #e3e7ee; --muted: #9aa4b5; --bg: #14181f; --panel: #1b2029;
  --line: #2e3644; --accent: #7aa2ff; --code: #232a35; } }
* { box-sizing: border-box; }
body { margin: 0; font: 15px/1.5 system-ui, sans-serif; color: var(--fg); background: var(--bg); }
header.top { padding: 14px 24px; border-bottom: 1px solid var(--line); background: var(--panel); }
header.top h1 { margin: 0; font-size: 20px; }
header.top p { margin: 4px 0 0; color: var(--muted); font-size: 13px; }
.layout { display: grid; grid-template-columns: 290px minmax(0, 1fr); }
nav { position: sticky; top: 0; align-self: start; max-height: 100vh; overflow: auto; padding: 12px 16px;
  border-right: 1px solid var(--line); font-size: 13px; }
nav ul { list-style: none; margin: 0; padding: 0 0 0 8px; }
nav > ul { padding: 0; }
nav li { margin: 2px 0; }
nav li.group { margin-top: 10px; color: var(--muted); text-transform: uppercase; font-size: 11px; letter-spacing: .05em; }
nav a { color: var(--fg); text-decoration: none; }
nav a:hover { color: var(--accent); }
main { padding: 8px 32px 64px; max-width: 1100px; }
h2 { margin: 32px 0 8px; padding-bottom: 6px; border-bottom: 2px solid var(--line); font-size: 24px; }
h2 .version { font-size: 13px; font-weight: 400; color: var(--muted); }
h3 { margin: 28px 0 8px; font-size: 19px; }
h3.tag { text-transform: capitalize; border-bottom: 1px solid var(--line); }
h4 { margin: 16px 0 6px; font-size: 16px; }
h5 { margin: 14px 0 4px; font-size: 13px; text-transform: uppercase; letter-spacing: .05em; color: var(--muted); }
.operation, .schema-def { margin: 18px 0; padding: 4px 16px 12px; border: 1px solid var(--line); border-radius: 6px; }
.operation:target, .schema-def:target { border-color: var(--accent); }
.method { display: inline-block; padding: 0 6px; border-radius: 4px; background: var(--accent); color: var(--bg);
  font: 600 12px/1.6 ui-monospace, monospace; }
.summary { margin: 4px 0; font-weight: 600; }
.opid, .ref { font: 12px ui-monospace, monospace; color: var(--muted); font-weight: 400; }
.req { font-size: 11px; color: #c0392b; }
code { font: 13px ui-monospace, SFMono-Regular, Menlo, monospace; background: var(--code); padding: 0 3px; border-radius: 3px; }
code.path { font-size: 15px; background: none; }
pre.example { margin: 4px 0 10px; padding: 8px 12px; background: var(--code); border-radius: 4px; overflow: auto;
  white-space: pre-wrap; overflow-wrap: anywhere;
  font: 12.5px/1.45 ui-monospace, monospace; }
.example-name, .media, .schema-type, .constraints { margin: 6px 0 2px; font-size: 13px; color: var(--muted); }
table.schema { width: 100%; border-collapse: collapse; margin: 6px 0 10px; font-size: 13.5px; }
table.schema th, table.schema td { text-align: left; vertical-align: top; padding: 5px 8px; border-top: 1px solid var(--line); }
table.schema th { font-size: 12px; color: var(--muted); font-weight: 600; }
table.schema td p { margin: 0 0 4px; }
td.name { white-space: nowrap; }
td.type { font: 12.5px ui-monospace, monospace; color: var(--muted); }
.also { margin: 6px 0; font-size: 13.5px; }
.response { margin: 8px 0; padding-left: 10px; border-left: 3px solid var(--line); }
.status { margin: 8px 0 2px; }
.status .code { font: 600 13px ui-monospace, monospace; padding: 1px 6px; border-radius: 4px; background: var(--code); }
.status .s2 { color: #1e8449; } .status .s4 { color: #b9770e; } .status .s5, .status .sd { color: #c0392b; }
@media (max-width: 800px) { .layout { display: block; } nav { position: static; max-height: none; border-right: 0; } main { padding: 8px 14px; } }
`;

function page(openapi, asyncapi) {
  const http = renderOpenApi(openapi);
  const socket = renderAsyncApi(asyncapi);
  return `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="referrer" content="no-referrer">
<title>VirelaAgent protocol reference</title>
<link rel="stylesheet" href="/docs/reference.css">
</head>
<body>
<header class="top">
<h1>VirelaAgent protocol reference</h1>
<p>Between the in-app agent and its backend: the HTTP API (${escape(openapi.info.title)} ${escape(openapi.info.version)}) and the realtime socket (${escape(asyncapi.info.title)} ${escape(asyncapi.info.version)}). Built from <code>docs/protocol/openapi.yaml</code> and <code>docs/protocol/asyncapi.yaml</code>.</p>
</header>
<div class="layout">
<nav aria-label="Contents"><ul>
${http.nav}
${socket.nav}
</ul></nav>
<main>
${http.body}
${socket.body}
</main>
</div>
</body>
</html>
`;
}

export function render(openapiText, asyncapiText) {
  return { html: page(yaml.load(openapiText), yaml.load(asyncapiText)), css };
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const [openapiFile, asyncapiFile, outDir] = process.argv.slice(2);
  if (!outDir) {
    console.error('usage: node render-reference.mjs OPENAPI ASYNCAPI OUTDIR');
    process.exit(2);
  }
  const { html, css: sheet } = render(readFileSync(openapiFile, 'utf8'), readFileSync(asyncapiFile, 'utf8'));
  mkdirSync(outDir, { recursive: true });
  writeFileSync(path.join(outDir, 'index.html'), html);
  writeFileSync(path.join(outDir, 'reference.css'), sheet);
}
