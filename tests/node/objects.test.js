// The life of objects, the texts that pass, calls that wait, and where the library comes from.
'use strict';

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { test } = require('node:test');
const { capture, failureOf, newOrder, setUpAccount, tallowin } = require('./merchant');
const { arm, decide, request, startSandbox, states } = require('./sandbox');

const { ConfigurationSetup, MessageFactory } = tallowin;

test('messages outlive their factory', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const factory = new MessageFactory(sandbox.merchant);
  const order = factory.createPayInit();
  factory.close();
  assert.notStrictEqual(order.getUrl(), '');
});

test('forgotten objects are destroyed', { skip: globalThis.gc === undefined }, async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const factory = new MessageFactory(sandbox.merchant);
  const destroyed = spyOnDestroy(t);
  for (let i = 0; i < 100; i += 1) {
    factory.createPayInit();
  }
  for (let turn = 0; turn < 100 && destroyed.count < 90; turn += 1) {
    globalThis.gc();
    await new Promise((resolve) => setImmediate(resolve));
  }
  assert(destroyed.count >= 90, `${destroyed.count} of 100`);
});

// Counts the calls of DestroyMessageObject.
function spyOnDestroy(t) {
  const functions = require(path.join(process.env.KVX_NODE_PACKAGE, 'lib', 'library')).library();
  const original = functions.DestroyMessageObject;
  const spy = { count: 0 };
  functions.DestroyMessageObject = (handle) => {
    spy.count += 1;
    original(handle);
  };
  t.after(() => {
    functions.DestroyMessageObject = original;
  });
  return spy;
}

test('texts keep every character', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const order = newOrder(sandbox);
  for (const text of ['', '\u20ac 5 & <">\'', '\u{1F600}', 'x'.repeat(100_000), 'line\nbreak']) {
    order.setAttribute('TEXT', text);
    assert.strictEqual(order.getAttribute('TEXT'), text);
  }
  order.setAttribute('TEXT', 'y'.repeat(100_000));
  assert(order.toString().includes('y'.repeat(100_000)));
  assert(order.getUrl().includes('y'.repeat(100_000)));
});

test('what is no text is refused', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const order = newOrder(sandbox);
  for (const wrong of ['a\0b', '\0', '\ud800', 19.9, true, null, undefined, Buffer.from('x')]) {
    assert.throws(() => order.setAttribute('TEXT', wrong), TypeError);
  }
  assert.strictEqual(order.findAttribute('TEXT'), null);
  assert.throws(() => new MessageFactory('a\0b'), TypeError);
  await assert.rejects(new ConfigurationSetup(sandbox.merchant).reconfigure('a\0b', '', ''), TypeError);
});

test('the event loop runs while calls wait, and their objects refuse further calls', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const decided = await decide(newOrder(sandbox).getUrl(), 'pay');
  await arm(sandbox, { kind: 'stall-before', exchange: 'setup', seconds: 60 });
  const setup = new ConfigurationSetup(sandbox.merchant);
  let settled = false;
  const pending = setup.reconfigure(sandbox.addresses.auto, 'demo', 'demo').finally(() => {
    settled = true;
  });
  pending.catch(() => {});
  for (const call of [() => setup.close(), () => setup.getAttribute('config.xml'), () => setup.setOption('UserName', 'x')]) {
    assert.throws(call, { name: 'TallowinError', message: /promise of reconfigure\(\) is pending/ });
  }
  await assert.rejects(setup.reconfigure('', '', ''), /promise of reconfigure\(\) is pending/);
  while ((await request(`${sandbox.addresses.control}/faults`)).body.includes('stall-before')) {
    // until the service has taken the request
  }
  await capture(sandbox, decided[0]);
  assert.deepStrictEqual(await states(sandbox), ['captured']);
  assert.strictEqual(settled, false);
  await sandbox.stop();
  await failureOf('KVX_E_HTTP_BAD_REPLY', () => pending);
  setup.close();
});

test('more calls wait than there are workers', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const factory = new MessageFactory(sandbox.merchant);
  const tokens = Array.from({ length: 50 }, () => newOrder(sandbox)).map((order) => order.getAttribute('TOKEN'));
  const failures = await Promise.all(tokens.map((token) => {
    const status = factory.createRequest('Status');
    status.setAttribute('TOKEN', token);
    return failureOf('KVX_E_SERVER_ERROR', () => status.execute()); // no shopper has opened these payments
  }));
  assert.strictEqual(failures.length, 50);
});

// Runs a program with the package; its status and what it printed.
function run(program, variables) {
  const { status, stdout, stderr } = spawnSync(process.execPath, ['-e', program], {
    encoding: 'utf8',
    timeout: 60_000,
    env: { ...process.env, ...variables },
  });
  return { status, stdout: stdout.trim(), stderr };
}

const PRINT_VERSION = 'console.log(require(process.env.KVX_NODE_PACKAGE).version())';

test('the library is the one of the variable, or the one of its name', () => {
  const here = tallowin.version();
  assert.match(here, /^\d+\.\d+\.\d+$/);
  assert.strictEqual(run(PRINT_VERSION).stdout, here);
  const byName = { TALLOWIN_LIBRARY: '', LD_LIBRARY_PATH: path.dirname(process.env.TALLOWIN_LIBRARY) };
  assert.strictEqual(run(PRINT_VERSION, byName).stdout, here);
});

test('a library that is missing or another is named', () => {
  for (const wrong of ['/nonexistent/libtallowin.so', 'libc.so.6']) {
    const { status, stderr } = run(PRINT_VERSION, { TALLOWIN_LIBRARY: wrong });
    assert.strictEqual(status, 1);
    assert(stderr.includes(`LoadError: ${wrong} cannot be loaded: `), stderr);
    assert(stderr.includes('set TALLOWIN_LIBRARY to its file'), stderr);
  }
});

test('a process ends when its calls have ended', async (t) => {
  const sandbox = await startSandbox(t);
  const program = `
    const { ConfigurationSetup } = require(process.env.KVX_NODE_PACKAGE);
    const setup = new ConfigurationSetup(${JSON.stringify(sandbox.merchant)});
    setup.reconfigure(${JSON.stringify(sandbox.addresses.auto)}, 'demo', 'demo').then(() => console.log('set up'));`;
  const { status, stdout, stderr } = run(program);
  assert.deepStrictEqual([status, stdout, stderr], [0, 'set up', '']);
});
