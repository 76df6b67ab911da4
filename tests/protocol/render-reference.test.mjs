// The protocol reference as rendered from the real documents: nothing either document describes
// may be left out of the page, and no text from them may become markup.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import yaml from 'js-yaml';
import { render } from './render-reference.mjs';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const openapiText = readFileSync(path.join(root, 'docs/protocol/openapi.yaml'), 'utf8');
const asyncapiText = readFileSync(path.join(root, 'docs/protocol/asyncapi.yaml'), 'utf8');
const openapi = yaml.load(openapiText);
const asyncapi = yaml.load(asyncapiText);
const { html } = render(openapiText, asyncapiText);

const ids = [...html.matchAll(/ id="([^"]+)"/g)].map((m) => m[1]);

test('every operation, status, message and schema of both documents has its place, once', () => {
  assert.equal(new Set(ids).size, ids.length, 'no id is used twice');
  for (const [route, item] of Object.entries(openapi.paths)) {
    for (const op of Object.values(item)) {
      if (!op.operationId) continue;
      const article = html.split(`id="op-${op.operationId}"`)[1]?.split('</article>')[0];
      assert.ok(article, `${op.operationId} has an article`);
      assert.ok(article.includes(route.replaceAll('&', '&amp;')), `${op.operationId} shows ${route}`);
      for (const status of Object.keys(op.responses)) {
        assert.ok(article.includes(`>${status}</span>`), `${op.operationId} lists ${status}`);
      }
    }
  }
  for (const name of Object.keys(openapi.components.schemas)) assert.ok(ids.includes(`http-schema-${name}`), name);
  for (const message of Object.values(asyncapi.components.messages)) {
    const article = html.split(`id="msg-${message.name}"`)[1]?.split('</article>')[0];
    assert.ok(article, `${message.name} has an article`);
    for (const example of message.examples ?? []) {
      assert.ok(article.includes(`<code>${example.name}</code>`), `${message.name} shows ${example.name}`);
    }
  }
});

test('document text is escaped, and the page loads nothing but its own style sheet', () => {
  const hostile = openapiText.replace(
    'summary: Register the device',
    'summary: "<script>alert(1)</script> <img src=https://x.example/a.png> `<b>`"',
  );
  const page = render(hostile, asyncapiText).html;
  assert.ok(!/<script|<img|<b>/i.test(page));
  assert.ok(page.includes('&lt;script&gt;'));
  const loads = [...page.matchAll(/\b(?:src|href)="([^"#][^"]*)"/g)].map((m) => m[1]);
  assert.deepEqual(loads, ['/docs/reference.css']);
});
