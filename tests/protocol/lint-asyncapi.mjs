// Lints an AsyncAPI document with the AsyncAPI parser: prints every diagnostic and exits with 1
// when any has severity error (or the document does not parse at all), so that a shell script
// can stop on it. Warnings and hints are printed but do not fail.
// The parser does not hold message examples to their payload schemas, and an example that
// contradicts its schema means one of the two is wrong, so every example is validated here too.
//
// usage: node lint-asyncapi.mjs FILE...
import { readFile } from 'node:fs/promises';
import path from 'node:path';
import { Parser, DiagnosticSeverity } from '@asyncapi/parser';
import Ajv from 'ajv';
import addFormats from 'ajv-formats';

const severityName = {
  [DiagnosticSeverity.Error]: 'error',
  [DiagnosticSeverity.Warning]: 'warning',
  [DiagnosticSeverity.Information]: 'info',
  [DiagnosticSeverity.Hint]: 'hint',
};

async function lint(parser, file) {
  const source = path.resolve(file);
  const text = await readFile(source, 'utf8');
  const { document, diagnostics } = await parser.parse(text, { source });
  let errors = 0;
  for (const d of diagnostics) {
    if (d.severity === DiagnosticSeverity.Error) errors += 1;
    const where = d.range ? `${d.range.start.line + 1}:${d.range.start.character + 1}` : '-';
    const at = d.path && d.path.length ? ` at #/${d.path.join('/')}` : '';
    console.log(`${file}:${where} ${severityName[d.severity] ?? d.severity} ${d.code}: ${d.message}${at}`);
  }
  // A document with errors may still come back undefined without a diagnostic to say why.
  if (!document && errors === 0) {
    console.log(`${file}: the parser returned no document`);
    errors = 1;
  }
  const others = diagnostics.length - errors;
  if (document) errors += checkExamples(file, document);
  console.log(`${file}: ${errors} error(s), ${others} other diagnostic(s)`);
  return errors;
}

// Message payload schemas are JSON Schema draft 07 with AsyncAPI's extra keywords, hence the
// default Ajv (draft 07) without strict mode.
function checkExamples(file, document) {
  let errors = 0;
  for (const message of document.allMessages()) {
    const payload = message.payload();
    if (!payload) continue;
    const ajv = new Ajv({ strict: false, allErrors: true });
    addFormats(ajv);
    const validate = ajv.compile(payload.json());
    for (const example of message.examples()) {
      if (!example.hasPayload()) continue;
      if (validate(example.payload())) continue;
      errors += 1;
      const name = `${message.id()}/${example.name() ?? '(unnamed)'}`;
      for (const e of validate.errors) {
        console.log(`${file}: error example ${name}: ${e.instancePath || '/'} ${e.message}`);
      }
    }
  }
  return errors;
}

const files = process.argv.slice(2);
if (files.length === 0) {
  console.error('usage: node lint-asyncapi.mjs FILE...');
  process.exit(2);
}
const parser = new Parser();
let failed = 0;
for (const file of files) failed += await lint(parser, file);
process.exit(failed ? 1 : 0);
