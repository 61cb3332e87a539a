// Calls that wait for the network, each on a worker thread, so that neither the event loop nor its few threads for files and
// names wait with them.
//
// Workers start on demand, serve one call after the other, and keep the process alive only while they serve. Further calls
// queue when MAX_WORKERS are busy.
'use strict';

const path = require('node:path');
const { Worker } = require('node:worker_threads');
const { LoadError, ResultError } = require('./errors');

const MAX_WORKERS = 16;

const idle = [];
const queue = [];
let busy = 0;

function start() {
  const worker = new Worker(path.join(__dirname, 'networkworker.js'));
  worker.unref();
  return worker;
}

// Runs the function on a worker. `texts` are bytes as library.bytesOf() makes them; with `makes` it returns a new handle.
// Resolves to that handle, or to null. Rejects with a ResultError or a LoadError.
function callOnWorker(functionName, handle, texts, makes) {
  return new Promise((resolve, reject) => {
    queue.push({ request: { functionName, handle, texts, makes }, resolve, reject });
    serve();
  });
}

function serve() {
  while (queue.length > 0 && busy < MAX_WORKERS) {
    busy += 1;
    run(idle.pop() ?? start(), queue.shift());
  }
}

function run(worker, { request, resolve, reject }) {
  const end = (settle) => {
    worker.off('message', onMessage);
    worker.off('error', onError);
    worker.unref();
    busy -= 1;
    settle();
    serve();
  };
  const onMessage = ({ out, failed, unloadable }) => {
    idle.push(worker);
    end(() => {
      if (unloadable !== undefined) {
        reject(new LoadError(unloadable));
      } else if (failed) {
        reject(new ResultError(request.functionName, failed.code, failed.codeName, failed.reason));
      } else {
        resolve(out);
      }
    });
  };
  const onError = (failure) => end(() => reject(failure));
  worker.on('message', onMessage);
  worker.on('error', onError);
  worker.ref();
  worker.postMessage(request);
}

module.exports = { callOnWorker };
