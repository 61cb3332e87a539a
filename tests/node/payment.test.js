// Whole payments against a sandbox.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { capture, newOrder, setUpAccount, tallowin } = require('./merchant');
const { decide, startSandbox, states } = require('./sandbox');

const { ConfigurationSetup, MessageFactory, MismatchError } = tallowin;

test('a payment is set up, paid, verified, captured and completed', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const order = newOrder(sandbox);
  const token = order.getAttribute('TOKEN');
  const url = order.getUrl();
  assert(url.startsWith(`${sandbox.addresses.pay}?DATA=`), url);
  const [data, signature] = await decide(url, 'pay');
  const factory = new MessageFactory(sandbox.merchant);
  const paid = factory.verifyPayConfirm(data, signature);
  paid.require({ MSGTYPE: 'PayConfirm', RESULT: 'authorised', TOKEN: token, AMOUNT: '19.90', CURRENCY: 'EUR' });
  await capture(sandbox, data);
  assert.deepStrictEqual(await states(sandbox), ['captured']);
  const answer = await factory.createPayComplete(paid.getAttribute('ID'), token).execute();
  assert.strictEqual(answer.getAttribute('MSGTYPE'), 'PayCompleteResponse');
  assert.deepStrictEqual(await states(sandbox), ['completed']);
});

test('a payment can be asked about by a request of any type', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const order = newOrder(sandbox);
  await decide(order.getUrl(), 'pay');
  const request = new MessageFactory(sandbox.merchant).createRequest('Status');
  request.setAttribute('TOKEN', order.getAttribute('TOKEN'));
  assert.strictEqual((await request.execute()).getAttribute('STATE'), 'authorised');
});

test('a cancelled payment is a mismatch', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const confirmation = new MessageFactory(sandbox.merchant).verifyPayConfirm(...(await decide(newOrder(sandbox).getUrl(), 'cancel')));
  assert.throws(
    () => confirmation.require({ MSGTYPE: 'PayConfirm', RESULT: 'authorised' }),
    (error) => {
      assert(error instanceof MismatchError);
      assert.deepStrictEqual([error.attribute, error.wanted, error.found], ['RESULT', 'authorised', 'cancelled']);
      assert.strictEqual(String(error), 'MismatchError: RESULT is "cancelled", not "authorised"');
      return true;
    },
  );
  assert.throws(() => confirmation.require({ 'NO.SUCH': '1' }), { message: 'NO.SUCH is missing, not "1"' });
  assert.throws(() => confirmation.require({ 'NO.SUCH': null }), MismatchError);
});

test('a comparison of nothing is refused', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const order = newOrder(sandbox);
  for (const nothing of [{}, new Map([['TOKEN', '1']]), undefined, null]) {
    assert.throws(() => order.require(nothing), TypeError);
  }
});

test('settings are read and written', async (t) => {
  const sandbox = await startSandbox(t);
  await setUpAccount(sandbox);
  const setup = new ConfigurationSetup(sandbox.merchant);
  assert.strictEqual(setup.getAttribute('config.xml', 'VTURL'), sandbox.addresses.pay);
  setup.setAttribute('config.xml', 'VTURL', 'http://127.0.0.1:1/pay');
  assert.strictEqual(setup.getAttribute('config.xml', 'VTURL'), 'http://127.0.0.1:1/pay');
  assert.strictEqual(setup.getAttribute('config.xml'), fs.readFileSync(path.join(sandbox.merchant, 'config.xml'), 'utf8'));
  setup.setOption('VTAUTOURL', sandbox.addresses.auto);
  await setup.reconfigure('', 'demo', 'demo');
  assert.strictEqual(setup.getAttribute('config.xml', 'VTURL'), sandbox.addresses.pay);
});
