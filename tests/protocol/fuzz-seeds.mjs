// Writes the realtime dispatch fuzzer's dictionary and seeds from the socket document, so that
// the fuzzer starts from exactly the pushes the protocol describes:
//   fuzz/dispatch.dict               every push type, every member name of the push schemas, and
//                                    every value they enumerate (enum, const, examples), plus a
//                                    few JSON literals
//   fuzz/corpus/dispatch/*.json      one seed per example of every push, named MESSAGE-EXAMPLE
// A form the fuzzer should start from (an odd colour, a mode, an input off the screen) belongs in
// the document as an example, where the lint holds it to its schema.
//
// usage: node fuzz-seeds.mjs [--check]
//   --check writes nothing and exits 1 when the committed files differ from what it would write.
import { readFileSync, writeFileSync, readdirSync, unlinkSync, mkdirSync, existsSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import yaml from 'js-yaml';
import { resolve as resolveIn } from './references.mjs';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const source = 'docs/protocol/asyncapi.yaml';
const dictFile = 'fuzz/dispatch.dict';
const corpusDir = 'fuzz/corpus/dispatch';

const doc = yaml.load(readFileSync(path.join(root, source), 'utf8'));

const resolve = (node) => resolveIn(doc, node);

// The pushes: the messages of every operation the device receives, in document order.
const pushes = [];
for (const operation of Object.values(doc.operations ?? {})) {
  if (operation.action !== 'receive') continue;
  for (const ref of operation.messages ?? []) pushes.push(resolve(ref));
}
if (!pushes.length) throw new Error(`${source} describes no push`);

// Tokens in order of first appearance, so that the dictionary reads as the document does.
const tokens = new Set();
const addString = (value) => tokens.add(JSON.stringify(String(value)));
function collect(input, seen = new Set()) {
  const schema = resolve(input);
  if (!schema || typeof schema !== 'object' || seen.has(schema)) return;
  seen.add(schema);
  for (const value of [schema.const, ...(schema.enum ?? []), ...(schema.examples ?? [])]) {
    if (typeof value === 'string') addString(value);
  }
  for (const [name, member] of Object.entries(schema.properties ?? {})) {
    addString(name);
    collect(member, seen);
  }
  for (const key of ['allOf', 'anyOf', 'oneOf']) for (const part of schema[key] ?? []) collect(part, seen);
  if (schema.items) collect(schema.items, seen);
}
for (const message of pushes) addString(message.name);
for (const message of pushes) collect(message.payload);
// Literals the schemas allow but never spell out: the optional members' null, the booleans, and
// a number at the edge of what a double holds.
for (const literal of ['null', 'true', 'false', '1e308']) tokens.add(literal);

// A libFuzzer dictionary entry: the token in double quotes, with \\, \" and \xNN escapes.
const entry = (token) =>
  `"${[...Buffer.from(token, 'utf8')]
    .map((b) => (b === 0x22 || b === 0x5c ? `\\${String.fromCharCode(b)}` : b < 0x20 || b > 0x7e ? `\\x${b.toString(16).padStart(2, '0')}` : String.fromCharCode(b)))
    .join('')}"`;
const dict = [
  `# Generated from ${source} by tests/protocol/fuzz-seeds.mjs; do not edit.`,
  ...[...tokens].map(entry),
  '',
].join('\n');

const seeds = new Map();
for (const message of pushes) {
  for (const [index, example] of (message.examples ?? []).entries()) {
    if (example.payload === undefined) continue;
    const name = `${message.name}-${example.name ?? index + 1}.json`.replace(/[^A-Za-z0-9._-]/g, '_');
    if (seeds.has(name)) throw new Error(`two examples make the seed ${name}`);
    seeds.set(name, JSON.stringify(example.payload));
  }
}

const read = (file) => (existsSync(file) ? readFileSync(file, 'utf8') : null);
const corpus = path.join(root, corpusDir);
const present = existsSync(corpus) ? readdirSync(corpus).filter((f) => f.endsWith('.json')) : [];
const stale = present.filter((f) => !seeds.has(f));

if (process.argv.includes('--check')) {
  const differences = [];
  if (read(path.join(root, dictFile)) !== dict) differences.push(dictFile);
  for (const [name, text] of seeds) {
    if (read(path.join(corpus, name)) !== text) differences.push(`${corpusDir}/${name}`);
  }
  for (const name of stale) differences.push(`${corpusDir}/${name} (no example gives it)`);
  if (differences.length) {
    console.log(`the fuzzer's seeds differ from ${source}: ${differences.join(', ')}`);
    console.log('run: node tests/protocol/fuzz-seeds.mjs, and commit what it writes');
  }
  if (differences.length) process.exit(1);
  console.log(`${dictFile} and ${corpusDir}: ${tokens.size} tokens and ${seeds.size} seeds, as ${source} gives them`);
} else {
  writeFileSync(path.join(root, dictFile), dict);
  mkdirSync(corpus, { recursive: true });
  for (const name of stale) unlinkSync(path.join(corpus, name));
  for (const [name, text] of seeds) writeFileSync(path.join(corpus, name), text);
  console.log(`wrote ${dictFile} (${tokens.size} tokens) and ${seeds.size} seeds in ${corpusDir}`);
}
