// The merchant of the tests, over the package in KVX_NODE_PACKAGE.
'use strict';

const assert = require('node:assert');
const tallowin = require(process.env.KVX_NODE_PACKAGE);

async function setUpAccount({ addresses, merchant }, password = 'demo', service = addresses.auto) {
  await new tallowin.ConfigurationSetup(merchant).reconfigure(service, 'demo', password);
}

function newOrder({ merchant }) {
  const order = new tallowin.MessageFactory(merchant).createPayInit();
  order.setAttribute('AMOUNT', '19.90');
  order.setAttribute('CURRENCY', 'EUR');
  return order;
}

async function capture({ merchant }, data) {
  const message = new tallowin.MessageObject(merchant);
  message.fromString(data);
  await message.capture();
}

// The failure of a call, which must have this name.
async function failureOf(codeName, call) {
  try {
    await call();
  } catch (error) {
    assert(error instanceof tallowin.ResultError, error);
    assert.strictEqual(error.codeName, codeName, error.message);
    return error;
  }
  throw new assert.AssertionError({ message: `${codeName} was expected` });
}

module.exports = { capture, failureOf, newOrder, setUpAccount, tallowin };
