// The native library: where it is, its functions, texts in and out, and what its failures say.
//
// Every thread loads it on its own: workers use this file as the main thread does. A failure's reason belongs to the thread
// in which the call failed, so failure() is asked there, right after the call.
'use strict';

const koffi = require('koffi');
const declarations = require('./declarations');
const { LoadError } = require('./errors');
const { ResultCode } = require('./resultcode');

const VARIABLE = 'TALLOWIN_LIBRARY';
const MAJOR = declarations.version.split('.')[0];
const SONAME = `libtallowin.so.${MAJOR}`;
const REASON_ROOM = 512;

let loaded = null;

function load() {
  const file = process.env[VARIABLE] || SONAME;
  const functions = {};
  try {
    const native = koffi.load(file);
    for (const prototype of declarations.functions) {
      functions[/(\w+)\(/.exec(prototype)[1]] = native.func(prototype);
    }
  } catch (failure) {
    throw new LoadError(
      `${file} cannot be loaded: ${failure.message}. Install the library, or set ${VARIABLE} to its file.`,
    );
  }
  const found = functions.KVX_GetVersion();
  if (found.split('.')[0] !== MAJOR) {
    throw new LoadError(`${file} is version ${found}; this package is for ${declarations.version}.`);
  }
  return functions;
}

// The flat functions by name, loaded at the first call.
function library() {
  loaded ??= load();
  return loaded;
}

function version() {
  return library().KVX_GetVersion();
}

// The bytes of a text, zero byte behind them. A TypeError for what is no text: the library would see a part of it.
function bytesOf(text) {
  if (typeof text !== 'string') {
    throw new TypeError(`a text is a string, not ${text === null ? 'null' : typeof text}`);
  }
  if (text.includes('\0')) {
    throw new TypeError('a text holds a zero byte');
  }
  const bytes = Buffer.from(`${text}\0`, 'utf8');
  if (bytes.toString('utf8', 0, bytes.length - 1) !== text) {
    throw new TypeError('a text holds half of a character');
  }
  return bytes;
}

// A text of the library. Bytes that are not UTF-8 are read as Latin-1.
function textOf(bytes) {
  const text = bytes.toString('utf8');
  return Buffer.from(text, 'utf8').equals(bytes) ? text : bytes.toString('latin1');
}

// The name of a code, and what the library says about the failure that just happened on this thread.
function failure(code) {
  const codeName = library().KVX_GetErrorName(code);
  return { code, codeName, reason: lastReason() || codeName };
}

// Empty when memory is exhausted.
function lastReason() {
  for (let room = REASON_ROOM; ; ) {
    const size = new Int32Array([room]);
    const buffer = Buffer.alloc(room);
    const code = library().KVX_GetLastErrorText(size, buffer);
    if (code === ResultCode.OK) {
      return textOf(buffer.subarray(0, size[0] - 1));
    }
    if (code !== ResultCode.BUFFER_TOO_SMALL || size[0] <= room) {
      return '';
    }
    room = size[0];
  }
}

module.exports = { bytesOf, failure, library, textOf, version };
