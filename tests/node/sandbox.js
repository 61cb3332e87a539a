// A running payment service with a directory of its own, and a shopper's browser on its pages.
'use strict';

const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const readline = require('node:readline');

const TIMEOUT = 20_000; // milliseconds

// Starts a sandbox for one test, which ends it: `test` is the context of node:test.
async function startSandbox(test, ...options) {
  const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'tallowin-node-'));
  // Ends with this process, however that ends.
  const service = [process.env.KVX_SANDBOX, '--data', path.join(directory, 'service'), '--json', ...options];
  const child = spawn('setpriv', ['--pdeathsig', 'TERM', ...service], { stdio: ['ignore', 'pipe', 'inherit'] });
  const ended = new Promise((resolve) => child.once('exit', resolve));
  const stop = async () => {
    child.kill('SIGTERM');
    return ended;
  };
  test.after(async () => {
    await stop();
    fs.rmSync(directory, { recursive: true });
  });
  const [line] = await new Promise((resolve) => readline.createInterface(child.stdout).once('line', (text) => resolve([text])));
  const addresses = JSON.parse(line);
  return { addresses, directory, merchant: path.join(directory, 'merchant'), stop };
}

async function request(url, options = {}) {
  const response = await fetch(url, { redirect: 'manual', signal: AbortSignal.timeout(TIMEOUT), ...options });
  return { status: response.status, location: response.headers.get('location'), body: await response.text() };
}

// The next matching exchange fails as `fault` says.
async function arm({ addresses }, fault) {
  const { status, body } = await request(`${addresses.control}/faults`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(fault),
  });
  if (status !== 201) {
    throw new Error(body);
  }
}

// The states of all payments, in the order in which they were opened.
async function states({ addresses }) {
  const { body } = await request(`${addresses.control}/payments`);
  return JSON.parse(body).payments.map((payment) => payment.state);
}

const ENTITIES = { '&lt;': '<', '&gt;': '>', '&quot;': '"', '&#39;': "'", '&apos;': "'", '&amp;': '&' };

// Opens a payment URL and submits a decision. DATA and SIGNATURE of the redirect to the shop.
async function decide(url, decision) {
  const page = await request(url);
  if (page.status !== 200) {
    throw new Error(`the payment page has status ${page.status}: ${page.body}`);
  }
  const form = new URLSearchParams({ decision });
  for (const [, name, value] of page.body.matchAll(/<input type="hidden" name="([^"]*)" value="([^"]*)"\/>/g)) {
    form.set(name, value.replace(/&\w+;|&#39;/g, (entity) => ENTITIES[entity]));
  }
  const { location } = await request(new URL('/pay/decision', url), { method: 'POST', body: form });
  const query = new URL(location).searchParams;
  return [query.get('DATA'), query.get('SIGNATURE')];
}

module.exports = { arm, decide, request, startSandbox, states };
