// The package as it is published: its files, its version, its lock file, its types.
'use strict';

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { test } = require('node:test');
const tallowin = require(process.env.KVX_NODE_PACKAGE);

const PACKAGE = path.join(process.env.KVX_ROOT, 'bindings', 'node');

function read(name) {
  return JSON.parse(fs.readFileSync(path.join(PACKAGE, name), 'utf8'));
}

function run(program, args, options = {}) {
  const { status, stdout, stderr } = spawnSync(program, args, { encoding: 'utf8', timeout: 100_000, ...options });
  return { status, stdout, stderr };
}

test('the version is that of the library', () => {
  assert.strictEqual(read('package.json').version, tallowin.version());
  assert.strictEqual(read('package-lock.json').version, tallowin.version());
});

test('the lock file pins every package by its content and names no registry', () => {
  const packages = Object.entries(read('package-lock.json').packages).filter(([name]) => name !== '');
  assert(packages.length > 0);
  for (const [name, entry] of packages) {
    assert.match(entry.integrity, /^sha512-/, name);
    assert.strictEqual(entry.resolved, undefined, name);
  }
});

test('the package holds its sources and types alone', () => {
  const { stdout, stderr } = run(process.env.KVX_NPM, ['pack', '--dry-run', '--json', '--loglevel=error'], { cwd: PACKAGE });
  assert.strictEqual(stderr, '');
  const packed = JSON.parse(stdout)[0].files.map((file) => file.path).sort();
  const library = fs.readdirSync(path.join(PACKAGE, 'lib')).map((name) => `lib/${name}`);
  assert.deepStrictEqual(packed, ['README.md', 'index.d.ts', 'index.js', 'package.json', ...library].sort());
});

const TYPED = `
import { MessageFactory, MessageObject, ResultCode, ResultError, version } from '@kelvane/tallowin';

async function pay(directory: string): Promise<string> {
  const order: MessageObject = new MessageFactory(directory).createPayInit();
  order.setAttribute('AMOUNT', '19.90');
  const token: string | null = order.findAttribute('TOKEN');
  order.require({ MSGTYPE: 'PayInit' });
  await order.capture();
  const answer: MessageObject = await order.execute();
  answer.close();
  return order.getUrl() + (token ?? '') + version();
}

pay('x').catch((error: unknown) => {
  if (error instanceof ResultError && error.code === ResultCode.SERVER_ERROR) {
    const status: number | null = error.httpStatus;
    throw new Error(error.codeName + error.reason + String(status));
  }
});
`;

const MISTAKEN = `
import { MessageFactory, ResultCode } from '@kelvane/tallowin';
const factory = new MessageFactory('x');
factory.createPayInit('PayInit');
factory.createPayInit().setAttribute('AMOUNT', 19.9);
const url: number = factory.createPayInit().getUrl();
const answer: string = factory.createPayInit().execute();
const code: 1 = ResultCode.OK;
export { answer, code, url };
`;

test('the types hold for programs, and declare what the package exports', { skip: !process.env.KVX_TSC }, (t) => {
  const place = fs.mkdtempSync(path.join(os.tmpdir(), 'tallowin-types-'));
  t.after(() => fs.rmSync(place, { recursive: true }));
  fs.mkdirSync(path.join(place, 'node_modules', '@kelvane'), { recursive: true });
  fs.symlinkSync(PACKAGE, path.join(place, 'node_modules', '@kelvane', 'tallowin'));
  fs.writeFileSync(path.join(place, 'package.json'), '{}');
  const names = Object.keys(tallowin).sort();
  fs.writeFileSync(path.join(place, 'typed.ts'), TYPED);
  fs.writeFileSync(path.join(place, 'mistaken.ts'), MISTAKEN);
  fs.writeFileSync(
    path.join(place, 'complete.ts'),
    `import * as all from '@kelvane/tallowin';\nconst names: [${names.map((name) => `'${name}'`).join(', ')}][number] = ` +
      `'' as keyof typeof all;\nconst back: keyof typeof all = '' as typeof names;\nexport { back, names };\n`,
  );
  const compile = (file) =>
    run(
      process.env.KVX_TSC,
      ['--strict', '--noEmit', '--module', 'node16', '--moduleResolution', 'node16', '--target', 'es2020', file],
      { cwd: place },
    );
  assert.deepStrictEqual(compile('typed.ts'), { status: 0, stdout: '', stderr: '' });
  assert.deepStrictEqual(compile('complete.ts'), { status: 0, stdout: '', stderr: '' });
  const lines = [...compile('mistaken.ts').stdout.matchAll(/^mistaken\.ts\((\d+),/gm)].map(([, line]) => line);
  assert.deepStrictEqual(lines, ['4', '5', '6', '7', '8']);
});
