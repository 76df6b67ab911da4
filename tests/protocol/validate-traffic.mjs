// Holds recorded device traffic (the JSON lines the local backend writes with --traffic, see
// tools/devserver/traffic_log.hpp) to the protocol documents: every exchange on a device route
// against the OpenAPI operation its method and path select, every frame on the device socket
// against the AsyncAPI messages of its direction. Whatever no document describes fails: an
// unknown path, a status the operation does not list, a body or frame no schema accepts, a
// header the credentials rules forbid. Prints what was seen per operation and message, and what
// never was; documented items never seen fail too, unless named with --optional.
//
// What a test injected on purpose is checked only where it is still the device speaking: a reply
// a test canned is not the backend's and is not held to the documents (the device's request is),
// and a frame a test wrote by hand that no message accepts is listed, not failed: the device
// is meant to drop it.
//
// usage: node validate-traffic.mjs [--openapi FILE] [--asyncapi FILE] [--optional NAME,...]
//                                  FILE|DIR...
import { readFile, readdir, stat } from 'node:fs/promises';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import yaml from 'js-yaml';
import Ajv2020 from 'ajv/dist/2020.js';
import Ajv from 'ajv';
import addFormats from 'ajv-formats';
import { lookup, resolve } from './references.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const args = { openapi: path.join(here, '../../docs/protocol/openapi.yaml'),
               asyncapi: path.join(here, '../../docs/protocol/asyncapi.yaml'),
               optional: new Set(), inputs: [] };
for (let i = 2; i < process.argv.length; i += 1) {
  const arg = process.argv[i];
  if (arg === '--openapi' || arg === '--asyncapi') args[arg.slice(2)] = process.argv[++i];
  else if (arg === '--optional') process.argv[++i].split(',').forEach((n) => args.optional.add(n));
  else args.inputs.push(arg);
}
if (args.inputs.length === 0 || args.inputs.some((a) => a === undefined)) {
  console.error('usage: node validate-traffic.mjs [--openapi FILE] [--asyncapi FILE] ' +
                '[--optional NAME,...] FILE|DIR...');
  process.exit(2);
}

// ---- the documents

const openapi = yaml.load(await readFile(args.openapi, 'utf8'));
const asyncapi = yaml.load(await readFile(args.asyncapi, 'utf8'));

// OpenAPI 3.1 schemas are JSON Schema 2020-12; AsyncAPI 3.0's default schema format is draft 07.
// Each document is added whole under a name, so that its local $refs resolve as written.
const ajvHttp = new Ajv2020({ strict: false, allErrors: true });
addFormats(ajvHttp);
ajvHttp.addSchema(openapi, 'openapi');
const ajvSocket = new Ajv({ strict: false, allErrors: true });
addFormats(ajvSocket);
ajvSocket.addSchema(asyncapi, 'asyncapi');

// The schema at a JSON pointer into a document, compiled once.
const compiled = new Map();
function schemaAt(ajv, base, where) {
  const key = `${base}#${where}`;
  if (!compiled.has(key)) compiled.set(key, ajv.compile({ $ref: key }));
  return compiled.get(key);
}
// Where an object that may be a $ref really is, as a JSON pointer.
const placeOf = (node, where) => (typeof node?.$ref === 'string' ? node.$ref.slice(1) : where);
const escape = (s) => s.replace(/~/g, '~0').replace(/\//g, '~1');

const operations = [];
for (const [template, item] of Object.entries(openapi.paths)) {
  for (const [method, op] of Object.entries(item)) {
    if (!['get', 'put', 'post', 'delete', 'patch'].includes(method)) continue;
    const names = [];
    const source = template.replace(/[.*+?^$()|[\]\\]/g, '\\$&')
      .replace(/\\?\{([^}]+)\\?\}/g, (_, name) => { names.push(name); return '([^/]+)'; });
    operations.push({ id: op.operationId, method: method.toUpperCase(), template, op, names,
                      pattern: new RegExp(`^${source}$`),
                      where: `/paths/${escape(template)}/${method}`,
                      seen: 0, statuses: new Map(), keys: new Set() });
  }
}

const messages = [];
for (const [opName, op] of Object.entries(asyncapi.operations)) {
  for (const ref of op.messages) {
    const channelMessage = lookup(asyncapi, ref.$ref);
    const id = channelMessage.$ref.split('/').pop();
    const message = resolve(asyncapi, channelMessage);
    messages.push({ id, name: message.name, operation: opName,
                    dir: op.action === 'receive' ? 'out' : 'in', message,
                    validate: schemaAt(ajvSocket, 'asyncapi', `/components/messages/${id}/payload`),
                    seen: 0, variants: new Map() });
  }
}
const socketHeaders = asyncapi.channels.socket.bindings.ws.headers;
const validateSocketHeaders = ajvSocket.compile(socketHeaders);
const socketAddress = asyncapi.channels.socket.address;

// What the documents say in prose about the framing of an image upload and the device's closes,
// held here as the checks they imply.
const imagePart = 'Content-Disposition: form-data; name="file"; filename="capture.png"\r\n' +
                  'Content-Type: image/png';
const boundaryPattern =
  /^multipart\/form-data; boundary=virela-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$/;
const imageMagic = { uploadCapture: ['89504e470d0a1a0a', 'PNG'], uploadFrame: ['ffd8ff', 'JPEG'] };
// "Closing and reconnection": the device's own closes.
const deviceCloseCodes = [1000, 1001];

// ---- the traffic

const failures = [];
const noted = [];
let checked = 0;
const skipped = new Map();
const upgrades = new Map();
const closes = new Map();
let canned = 0;
const count = (map, key) => map.set(key, (map.get(key) ?? 0) + 1);
const errorsOf = (validate) => validate.errors.map((e) => `${e.instancePath || '/'} ${e.message}` +
  (e.params?.additionalProperty ? ` (${e.params.additionalProperty})` : '')).join('; ');

async function files(input) {
  const found = await stat(input).catch(() => null);
  if (!found) {
    console.error(`validate-traffic: no such file or folder: ${input}`);
    process.exit(2);
  }
  if (found.isDirectory()) {
    return (await readdir(input)).filter((f) => f.endsWith('.jsonl')).sort()
      .map((f) => path.join(input, f));
  }
  return [input];
}

function checkHttp(where, line, tokens) {
  const fail = (why) => failures.push(`${where}: ${line.method} ${line.path}: ${why}`);
  const match = operations.find((o) => o.method === line.method && o.pattern.test(line.path));
  if (!match) return fail('no operation describes this method and path');
  const { op } = match;
  match.seen += 1;
  const params = line.path.match(match.pattern).slice(1);
  for (const [i, name] of match.names.entries()) {
    const at = (op.parameters ?? []).findIndex((p) => resolve(openapi, p).name === name);
    if (at < 0) { fail(`path parameter ${name} is not documented`); continue; }
    const validate = schemaAt(ajvHttp, 'openapi',
                              `${placeOf(op.parameters[at], `${match.where}/parameters/${at}`)}/schema`);
    if (!validate(params[i])) fail(`path parameter ${name}: ${errorsOf(validate)}`);
  }

  // Credentials: one of the operation's security alternatives exactly, each of its headers once
  // and no other credential header.
  const headers = line.headers ?? {};
  const schemes = openapi.components.securitySchemes;
  const sentOf = (scheme) => (headers[schemes[scheme].name.toLowerCase()] ?? []).length;
  const alternatives = (op.security ?? openapi.security).map((s) => Object.keys(s));
  const met = alternatives.some((names) => Object.keys(schemes).every(
    (scheme) => sentOf(scheme) === (names.includes(scheme) ? 1 : 0)));
  if (!met) {
    const sent = Object.keys(schemes).map((s) => `${schemes[s].name}×${sentOf(s)}`).join(', ');
    fail(`credentials ${sent} meet none of ${JSON.stringify(alternatives)}`);
  }
  const token = headers['x-virela-device']?.[0];
  if (token !== undefined && !tokens.has(token)) fail('the device token was never issued');

  // The body, by its media type.
  const content = op.requestBody?.content ?? {};
  const contentType = headers['content-type'] ?? [];
  if (contentType.length !== 1) return fail(`Content-Type sent ${contentType.length} times`);
  const media = contentType[0].split(';')[0].trim().toLowerCase();
  if (!content[media]) return fail(`the operation takes no ${media} body`);
  const bodyWhere = `${match.where}/requestBody/content/${escape(media)}/schema`;
  const validateBody = schemaAt(ajvHttp, 'openapi', bodyWhere);
  if (media === 'multipart/form-data') {
    if (!boundaryPattern.test(contentType[0])) fail(`Content-Type "${contentType[0]}"`);
    const form = line.multipart;
    if (!form) return fail('multipart body without a boundary');
    if (form.preamble !== '') fail(`bytes before the first delimiter: ${JSON.stringify(form.preamble)}`);
    if (!form.closed || form.epilogue !== '\r\n') fail('not closed by the final delimiter and CRLF');
    const fields = {};
    for (const part of form.parts) {
      if (part.head !== imagePart) fail(`part headers ${JSON.stringify(part.head)}`);
      const name = /name="([^"]*)"/.exec(part.head ?? '')?.[1] ?? '';
      fields[name] = `<${part.size} bytes>`;
      const [magic, kind] = imageMagic[op.operationId] ?? [];
      if (magic && !part.magic?.startsWith(magic)) fail(`the part is not a ${kind} (${part.magic})`);
    }
    if (form.parts.length !== 1) fail(`${form.parts.length} parts, not one`);
    if (!validateBody(fields)) fail(`form: ${errorsOf(validateBody)}`);
  } else {
    let body;
    try { body = JSON.parse(line.body); } catch { return fail('the body is not JSON'); }
    if (!validateBody(body)) fail(`request body: ${errorsOf(validateBody)}`);
  }

  // The reply. One a test canned is not the backend's: only the request above counts.
  if (line.canned) { canned += 1; return; }
  if (line.status === 0) return fail('closed without a reply');
  const status = String(line.status);
  // The exact status, else its range ("2XX"), else `default`, which stands for failures only.
  let key = [status, `${status[0]}XX`].find((k) => op.responses[k]);
  if (!key) {
    if (line.status >= 200 && line.status < 300) return fail(`success status ${status} is not listed`);
    if (!op.responses.default) return fail(`status ${status} is not listed`);
    key = 'default';
  }
  count(match.statuses, key === status ? status : `${status} (${key})`);
  match.keys.add(key);
  const response = resolve(openapi, op.responses[key]);
  const replyMedia = (line.reply?.contentType ?? '').split(';')[0].trim().toLowerCase();
  if (!response.content) return;
  if (!response.content[replyMedia]) return fail(`${status} reply as ${replyMedia || 'no type'}`);
  let reply;
  try { reply = JSON.parse(line.reply.body); } catch { return fail(`${status} reply is not JSON`); }
  const replyWhere = placeOf(op.responses[key], `${match.where}/responses/${key}`);
  const check = schemaAt(ajvHttp, 'openapi', `${replyWhere}/content/${escape(replyMedia)}/schema`);
  if (!check(reply)) fail(`${status} reply: ${errorsOf(check)}`);
  if (op.operationId === 'registerDevice' && typeof reply.deviceToken === 'string') {
    tokens.add(reply.deviceToken);
  }
}

// The value that tells the variants of one message apart, for the coverage table.
const variantOf = (value) => {
  const p = value?.payload ?? value;
  return (typeof p === 'object' && p !== null && (p.state ?? p.kind ?? p.action)) || null;
};

function checkFrame(where, line) {
  const fail = (why) => failures.push(`${where}: ${line.dir === 'in' ? 'device' : 'push'} ` +
                                      `${JSON.stringify(line.data ?? line.magic)}: ${why}`);
  if (line.event === 'binary') {
    if (line.crafted) return noted.push(`${where}: a crafted binary frame (${line.size} bytes)`);
    return fail('binary frames are described nowhere');
  }
  let value;
  let parsed = true;
  try { value = JSON.parse(line.data); } catch { parsed = false; }
  const candidates = messages.filter((m) => m.dir === line.dir);
  let accepted = [];
  if (parsed) accepted = candidates.filter((m) => m.message.contentType !== 'text/plain' && m.validate(value));
  // Plain-text messages (the heartbeat) are the frame's text itself.
  accepted.push(...candidates.filter((m) => m.message.contentType === 'text/plain' && m.validate(line.data)));
  if (accepted.length === 0) {
    if (line.crafted) return noted.push(`${where}: a crafted push no message describes: ${line.data}`);
    const type = parsed && typeof value === 'object' ? value?.type : undefined;
    const near = candidates.find((m) => m.name === type);
    return fail(near ? `not a valid ${near.id}: ${errorsOf(near.validate)}` :
                       'no message of this direction describes it');
  }
  if (accepted.length > 1) fail(`ambiguous: ${accepted.map((m) => m.id).join(', ')}`);
  const message = accepted[0];
  message.seen += 1;
  count(message.variants, variantOf(value) ?? '-');
}

function checkUpgrade(where, line, tokens) {
  const fail = (why) => failures.push(`${where}: ${line.method} ${line.path}: ${why}`);
  count(upgrades, line.status);
  if (line.method !== 'GET') fail('the socket is opened with GET');
  if (line.path !== socketAddress) fail(`not the channel's address ${socketAddress}`);
  if (line.protocols.length !== 1) return fail(`${line.protocols.length} subprotocol headers`);
  const offered = line.protocols[0];
  if (!validateSocketHeaders({ 'Sec-WebSocket-Protocol': offered })) {
    fail(`Sec-WebSocket-Protocol: ${errorsOf(validateSocketHeaders)}`);
  }
  if (offered.includes(',')) fail('more than one subprotocol offered');
  const token = offered.replace(/^virela\.device\./, '');
  if (line.status === 101) {
    if (!tokens.has(token)) fail('upgraded with a token never issued');
    if (line.chosen !== offered) fail(`the backend chose ${line.chosen}, not the offered one`);
  } else if (line.status >= 200 && line.status < 300) {
    fail(`status ${line.status} is neither an upgrade nor a refusal`);
  }
}

function checkRecord(where, line, tokens, connections) {
  if (line.t === 'skipped') return count(skipped, `${line.scope} ${line.method}`);
  if (line.t === 'http') return checkHttp(where, line, tokens);
  if (line.t === 'upgrade') return checkUpgrade(where, line, tokens);
  if (line.t !== 'ws') return failures.push(`${where}: unknown record ${line.t}`);
  const conn = connections.get(line.conn) ?? { backendEnded: false };
  connections.set(line.conn, conn);
  if (line.event === 'text' || line.event === 'binary') return checkFrame(where, line);
  if (line.event === 'close' || line.event === 'drop') { conn.backendEnded = true; return; }
  if (line.event === 'closed') {
    // Without a close frame (1006) a connection simply ended; after the backend's own close or
    // cut any code is the device's echo. Otherwise the device closed it.
    count(closes, line.code);
    if (line.code !== 1006 && !conn.backendEnded && !deviceCloseCodes.includes(line.code)) {
      failures.push(`${where}: the device closed its socket with ${line.code}`);
    }
    return;
  }
  if (line.event !== 'open') failures.push(`${where}: unknown socket event ${line.event}`);
}

for (const input of args.inputs) {
  for (const file of await files(input)) {
    // Tokens are per backend, and each backend has a file of its own.
    const tokens = new Set();
    const connections = new Map();
    const lines = (await readFile(file, 'utf8')).split('\n');
    for (const [i, text] of lines.entries()) {
      if (!text.trim()) continue;
      const where = `${path.basename(file)}:${i + 1}`;
      let line;
      try { line = JSON.parse(text); } catch { failures.push(`${where}: not a JSON line`); continue; }
      checked += 1;
      try {
        checkRecord(where, line, tokens, connections);
      } catch (e) {
        // A record missing what its kind carries: the recorder and this checker disagree.
        failures.push(`${where}: malformed ${line?.t ?? ''} record (${e.message})`);
      }
    }
  }
}

// ---- the summary

const pad = (s, n) => String(s).padEnd(n);
const listed = (map) => [...map].map(([k, v]) => `${k}×${v}`).join(' ');
let missing = 0;
const unseen = (name) => {
  if (args.optional.has(name)) return 'not seen (optional)';
  missing += 1;
  failures.push(`${name}: documented, never seen`);
  return 'NOT SEEN';
};
console.log(`traffic: ${checked} records checked`);
console.log('\nHTTP operations (openapi.yaml): seen, statuses seen; documented statuses never seen');
for (const o of operations) {
  const documented = Object.keys(o.op.responses).filter((s) => s !== 'default');
  const never = documented.filter((s) => !o.keys.has(s));
  console.log(`  ${pad(o.id, 20)} ${pad(o.seen || unseen(o.id), 6)} ${pad(listed(o.statuses), 34)}` +
              (never.length ? ` not seen: ${never.join(' ')}` : ''));
}
console.log('\nsocket messages (asyncapi.yaml): seen, by state/kind/action');
for (const m of messages) {
  console.log(`  ${pad(`${m.dir === 'out' ? 'push' : 'device'} ${m.name}`, 22)} ` +
              `${pad(m.seen || unseen(m.id), 6)} ${listed(m.variants)}`);
}
console.log(`\nsocket upgrades by status: ${listed(upgrades) || '-'}; closes by code: ${listed(closes) || '-'}`);
console.log(`replies canned by tests (not held to the documents): ${canned}`);
console.log(`skipped, not device traffic: ${listed(skipped) || '-'}`);
for (const n of noted) console.log(`noted: ${n}`);
if (failures.length) {
  console.log(`\n${failures.length} failure(s):`);
  for (const f of failures.slice(0, 60)) console.log(`  ${f}`);
  if (failures.length > 60) console.log(`  ... and ${failures.length - 60} more`);
  process.exit(1);
}
console.log('\nevery record matches the documents');
