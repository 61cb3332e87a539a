// A payment in twenty lines, between the two markers. The rest stands for code that a shop already has.
//
//     node quickstart.js DIRECTORY SERVICE
//
// DIRECTORY   the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
//             Every start sets up again and makes a new merchant key; a shop does this once.
// SERVICE     set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto
//
// The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per line,
// percent-decoded, as a web framework returns them.
'use strict';

const readline = require('node:readline');
const { ConfigurationSetup, MessageFactory, MessageObject, MismatchError } = require('@kelvane/tallowin');

// A merchant does this once per account.
async function setUp(directory, service) {
  await new ConfigurationSetup(directory).reconfigure(service, 'demo', 'demo');
}

// A shop redirects the browser to `url`; its return page then receives DATA and SIGNATURE.
async function sendShopperTo(url) {
  console.log(url);
  const lines = [];
  for await (const line of readline.createInterface({ input: process.stdin })) {
    lines.push(line);
  }
  return lines;
}

async function sell(directory) {
  // [quickstart]
  const shop = new MessageFactory(directory);
  const order = shop.createPayInit();
  order.setAttribute('AMOUNT', '19.90');
  order.setAttribute('CURRENCY', 'EUR');
  const token = order.getAttribute('TOKEN');
  const [data, signature] = await sendShopperTo(order.getUrl()); // the shopper returns with DATA and SIGNATURE
  const paid = shop.verifyPayConfirm(data, signature);
  paid.require({ MSGTYPE: 'PayConfirm', RESULT: 'authorised', TOKEN: token, AMOUNT: '19.90', CURRENCY: 'EUR' });
  const capture = new MessageObject(directory);
  capture.fromString(data);
  await capture.capture();
  console.log('The payment is captured.');
  // [/quickstart]
}

async function main([directory, service]) {
  if (service === undefined) {
    throw new Error('usage: node quickstart.js DIRECTORY SERVICE');
  }
  await setUp(directory, service);
  await sell(directory);
}

main(process.argv.slice(2)).catch((error) => {
  console.error(error instanceof MismatchError ? `not paid: ${error.message}` : error);
  process.exitCode = 1;
});
