// One thread of networkcalls.js: runs one call after the other.
'use strict';

const { parentPort } = require('node:worker_threads');
const { LoadError } = require('./errors');
const { failure, library } = require('./library');
const { ResultCode } = require('./resultcode');

function answer({ functionName, handle, texts, makes }) {
  const out = [0];
  try {
    const code = library()[functionName](handle, ...texts, ...(makes ? [out] : []));
    return code === ResultCode.OK ? { out: makes ? out[0] : null } : { failed: failure(code) };
  } catch (error) {
    if (error instanceof LoadError) {
      return { unloadable: error.message };
    }
    throw error;
  }
}

parentPort.on('message', (request) => parentPort.postMessage(answer(request)));
