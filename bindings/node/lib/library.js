// The native library: where it is, its functions, texts in and out, and what its failures say.
//
// Every thread loads it on its own: workers use this file as the main thread does. A failure's reason belongs to the thread
// in which the call failed, so failure() is asked there, right after the call.
'use strict';

const { getSystemErrorName } = require('node:util');
const koffi = require('koffi');
const declarations = require('./declarations');
const { LoadError } = require('./errors');
const { ResultCode } = require('./resultcode');

const VARIABLE = 'TALLOWIN_LIBRARY';
const MAJOR = declarations.version.split('.')[0];
const SONAME = `libtallowin.so.${MAJOR}`;
const REASON_ROOM = 256;

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

// What a code means and what the library says about the failure that just happened on this thread.
function failure(code) {
  return { code, codeName: nameOf(code), reason: reasonOf(code) };
}

function nameOf(code) {
  if (code > 0) {
    return getSystemErrorName(-code);
  }
  const nameIn = (wanted) => Object.keys(ResultCode).find((name) => ResultCode[name] === wanted);
  const name = nameIn(code) ?? nameIn(code & ~0xfff);
  return name === undefined ? '' : `KVX_E_${name}`;
}

function reasonOf(code) {
  const size = new Int32Array([REASON_ROOM]);
  const buffer = Buffer.alloc(REASON_ROOM);
  const found = library().KVX_GetErrorStringFromResult(code, size, buffer);
  return found ? buffer.toString('latin1', 0, size[0] - 1) : nameOf(code);
}

module.exports = { bytesOf, failure, library, textOf, version };
