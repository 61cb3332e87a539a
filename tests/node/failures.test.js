// Every class of failure, as exceptions with code, name and reason.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { capture, failureOf, newOrder, setUpAccount, tallowin } = require('./merchant');
const { arm, decide, startSandbox, states } = require('./sandbox');

const { ConfigurationSetup, MessageFactory, MessageObject, ResultCode } = tallowin;

test('failures of the service', async (t) => {
  const sandbox = await startSandbox(t);
  const failure = await failureOf('KVX_E_SERVER_ERROR', () => setUpAccount(sandbox, 'guessed'));
  assert.strictEqual(failure.code, ResultCode.SERVER_ERROR);
  assert.strictEqual(failure.code, 0x80040213 - 2 ** 32);
  assert.strictEqual(failure.function, 'ConfigurationSetup_Reconfigure');
  assert.match(String(failure), /^ResultError: .*0x80040213/);
  assert.match(failure.reason, /the password of the account 'demo' is another/); // asked on the worker's thread
  assert(failure.message.includes(failure.reason));
  assert(!failure.stack.includes('guessed'));
  await setUpAccount(sandbox);
  await arm(sandbox, { kind: 'wrong-type', exchange: 'setup' });
  await failureOf('KVX_E_WRONG_RESPONSE', () => setUpAccount(sandbox));
});

test('failures of the directory', async (t) => {
  const { directory } = await startSandbox(t);
  const failure = await failureOf('ENOENT', () => new ConfigurationSetup(path.join(directory, 'missing', 'merchant')));
  assert.deepStrictEqual([failure.code, failure.errno, failure.httpStatus], [2, 2, null]);
  fs.writeFileSync(path.join(directory, 'file'), '');
  assert.strictEqual((await failureOf('ENOTDIR', () => new ConfigurationSetup(path.join(directory, 'file', 'x')))).errno, 20);
  const unused = path.join(directory, 'unused');
  const unread = await failureOf('KVX_E_CANNOT_OPEN', () => new MessageFactory(unused).createPayInit());
  assert.strictEqual(unread.errno, null);
  assert(unread.reason.includes(`${unused}/keys/current: No such file or directory`), unread.reason);
  await failureOf('KVX_E_CANNOT_OPEN', () => new MessageObject(unused));
});

test('failures of HTTP', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  await arm(sandbox, { kind: 'http-status', exchange: 'setup', status: 503 });
  assert.strictEqual((await failureOf('KVX_E_HTTP_UNAVAILABLE', () => setUpAccount(sandbox))).httpStatus, 503);
  await arm(sandbox, { kind: 'http-status', exchange: 'setup', status: 418 });
  assert.strictEqual((await failureOf('KVX_E_HTTP_FAMILY', () => setUpAccount(sandbox))).httpStatus, 418);
  await arm(sandbox, { kind: 'drop', exchange: 'setup' });
  assert.strictEqual((await failureOf('KVX_E_HTTP_BAD_REPLY', () => setUpAccount(sandbox))).httpStatus, null);
});

test('failures of sockets', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  await arm(sandbox, { kind: 'reset', exchange: 'setup' });
  await failureOf('KVX_E_SOCKET_RESET', () => setUpAccount(sandbox));
  await sandbox.stop();
  assert.match((await failureOf('KVX_E_SOCKET_REFUSED', () => setUpAccount(sandbox))).reason, /connection refused/);
});

test('failures of TLS', async (t) => {
  const sandbox = await startSandbox(t, '--tls');
  await setUpAccount(sandbox, 'demo', sandbox.addresses.tlsAuto);
  fs.writeFileSync(path.join(sandbox.merchant, 'settings.xml'), '<KVX TLSVERIFY="1" QUIET="1"/>');
  const failure = await failureOf('KVX_E_TLS_FAMILY', () => setUpAccount(sandbox, 'demo', sandbox.addresses.tlsAuto));
  assert.strictEqual(failure.httpStatus, null);
});

test('failures of a confirmation', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const [data, signature] = await decide(newOrder(sandbox).getUrl(), 'pay');
  const factory = new MessageFactory(sandbox.merchant);
  for (const [codeName, text, signed] of [
    ['KVX_E_INVALID_SIGNATURE', data.replace('19.90', '1.90'), signature],
    ['KVX_E_MISSING_SIGNATURE', data, ''],
    ['KVX_E_INVALID_FORMAT', 'no document', signature],
    ['KVX_E_NO_KEY_ID', '<KVX A="1"/>', signature],
    ['KVX_E_NOT_FOUND', '<KVX KEYID="unknown"/>', signature],
  ]) {
    await failureOf(codeName, () => factory.verifyPayConfirm(text, signed));
  }
});

test('failures of names, types and options', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  await failureOf('KVX_E_NOT_FOUND', () => newOrder(sandbox).getAttribute('NOSUCH'));
  assert.strictEqual(newOrder(sandbox).findAttribute('NOSUCH'), null);
  await failureOf('KVX_E_NO_MESSAGE_TYPE', () => new MessageFactory(sandbox.merchant).createRequest(''));
  const setup = new ConfigurationSetup(sandbox.merchant);
  await failureOf('KVX_E_INVALID_OPTION', () => setup.setOption('NoSuch', '1'));
  await failureOf('KVX_E_CANNOT_OPEN', () => setup.getAttribute('nosuch.xml'));
  const message = new MessageObject(sandbox.merchant);
  await failureOf('KVX_E_UNEXPECTED', () => message.getUrl());
  await failureOf('KVX_E_INVALID_FORMAT', () => message.fromString('<KVX'));
});

test('failures of a capture', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const [cancelled] = await decide(newOrder(sandbox).getUrl(), 'cancel');
  await failureOf('KVX_E_SERVER_ERROR', () => capture(sandbox, cancelled));
  await arm(sandbox, { kind: 'drop', exchange: 'capture' });
  const [paid] = await decide(newOrder(sandbox).getUrl(), 'pay');
  await failureOf('KVX_E_HTTP_BAD_REPLY', () => capture(sandbox, paid));
  assert.deepStrictEqual(await states(sandbox), ['cancelled', 'captured']);
});

test('failures of a closed object', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const factory = new MessageFactory(sandbox.merchant);
  const order = factory.createPayInit();
  for (const object of [factory, order, factory, order]) {
    object.close();
    assert.strictEqual(object.closed, true);
  }
  await failureOf('KVX_E_BAD_HANDLE', () => factory.createPayInit());
  await failureOf('KVX_E_BAD_HANDLE', () => order.getUrl());
  await failureOf('KVX_E_BAD_HANDLE', () => order.capture());
});
