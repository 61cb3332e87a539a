// The three classes over the flat functions: configuration setup, message factory, message object.
'use strict';

const { MismatchError, ResultError, TallowinError } = require('./errors');
const { bytesOf, failure, library, textOf } = require('./library');
const { callOnWorker } = require('./networkcalls');
const { ResultCode } = require('./resultcode');

const ATTRIBUTE_ROOM = 512;
const MESSAGE_ROOM = 8192;

const forgotten = new FinalizationRegistry(({ destroy, handle }) => library()[destroy](handle));

function check(functionName, code) {
  if (code !== ResultCode.OK) {
    const { codeName, reason } = failure(code);
    throw new ResultError(functionName, code, codeName, reason);
  }
}

// One handle. A number: handles lie below 2 GiB. 0 when closed, which the library refuses with KVX_E_BAD_HANDLE.
class NativeObject {
  #kind;
  #handle = 0;
  #pending = null; // the method whose promise is pending

  // Opens a directory with a function, or takes over a handle.
  constructor(kind, handle, open, directory) {
    this.#kind = kind;
    const path = handle === null ? bytesOf(directory) : null;
    this.#handle = handle ?? library()[`Create${kind}`]();
    if (this.#handle === 0) {
      check(`Create${kind}`, ResultCode.OUT_OF_MEMORY);
    }
    forgotten.register(this, { destroy: `Destroy${kind}`, handle: this.#handle }, this);
    if (path !== null) {
      try {
        this._call(open, path);
      } catch (error) {
        this.close();
        throw error;
      }
    }
  }

  get closed() {
    return this.#handle === 0;
  }

  close() {
    this.#requireIdle();
    if (this.#handle !== 0) {
      forgotten.unregister(this);
      library()[`Destroy${this.#kind}`](this.#handle);
      this.#handle = 0;
    }
  }

  _call(functionName, ...texts) {
    this.#requireIdle();
    check(`${this.#kind}_${functionName}`, library()[`${this.#kind}_${functionName}`](this.#handle, ...texts));
  }

  _copy(functionName, room, ...texts) {
    this.#requireIdle();
    const name = `${this.#kind}_${functionName}`;
    for (;;) {
      const size = new Int32Array([room]);
      const buffer = Buffer.alloc(room);
      const code = library()[name](this.#handle, ...texts, size, buffer);
      if (code === ResultCode.OK) {
        return textOf(buffer.subarray(0, size[0] - 1));
      }
      if (code !== ResultCode.BUFFER_TOO_SMALL || size[0] <= room) {
        check(name, code);
      }
      room = size[0];
    }
  }

  _make(functionName, ...texts) {
    const out = [0];
    this._call(functionName, ...texts, out);
    return new MessageObject(ADOPTED, out[0]);
  }

  // The handle belongs to the worker's thread until the promise is settled.
  async _wait(method, functionName, texts, makes) {
    this.#requireIdle();
    this.#pending = method;
    try {
      const out = await callOnWorker(`${this.#kind}_${functionName}`, this.#handle, texts, makes);
      return makes ? new MessageObject(ADOPTED, out) : undefined;
    } finally {
      this.#pending = null;
    }
  }

  #requireIdle() {
    if (this.#pending !== null) {
      throw new TallowinError(`${this.#kind} is in use: the promise of ${this.#pending}() is pending`);
    }
  }
}

if (Symbol.dispose !== undefined) {
  NativeObject.prototype[Symbol.dispose] = NativeObject.prototype.close;
}

class ConfigurationSetup extends NativeObject {
  constructor(directory) {
    super('ConfigurationSetup', null, 'SetConfiguration', directory);
  }

  async reconfigure(url, user, password) {
    await this._wait('reconfigure', 'Reconfigure', [bytesOf(url), bytesOf(user), bytesOf(password)], false);
  }

  setOption(name, value) {
    this._call('SetOption', bytesOf(name), bytesOf(value));
  }

  getAttribute(file, name = '') {
    return this._copy('GetAttribute', ATTRIBUTE_ROOM, bytesOf(file), bytesOf(name));
  }

  setAttribute(file, name, value) {
    this._call('SetAttribute', bytesOf(file), bytesOf(name), bytesOf(value));
  }
}

class MessageFactory extends NativeObject {
  constructor(directory) {
    super('MessageFactory', null, 'Open', directory);
  }

  createPayInit() {
    return this._make('CreatePayInit');
  }

  verifyPayConfirm(data, signature) {
    return this._make('VerifyPayConfirm', bytesOf(data), bytesOf(signature));
  }

  createPayComplete(paymentId, token) {
    return this._make('CreatePayComplete', bytesOf(paymentId), bytesOf(token));
  }

  createRequest(type) {
    return this._make('CreateRequest', bytesOf(type));
  }
}

const ADOPTED = Symbol('adopted');

class MessageObject extends NativeObject {
  constructor(directory, handle) {
    super('MessageObject', directory === ADOPTED ? handle : null, 'Open', directory);
  }

  setAttribute(name, value) {
    this._call('SetAttribute', bytesOf(name), bytesOf(value));
  }

  getAttribute(name) {
    return this._copy('GetAttribute', ATTRIBUTE_ROOM, bytesOf(name));
  }

  findAttribute(name) {
    try {
      return this.getAttribute(name);
    } catch (error) {
      if (error instanceof ResultError && error.code === ResultCode.NOT_FOUND) {
        return null;
      }
      throw error;
    }
  }

  require(attributes) {
    const expected = Object.entries(attributes);
    if (expected.length === 0) {
      throw new TypeError('no attribute is named, so nothing would be compared');
    }
    for (const [name, wanted] of expected) {
      const found = this.findAttribute(name);
      if (found === null || found !== wanted) {
        throw new MismatchError(name, wanted, found);
      }
    }
  }

  getUrl() {
    return this._copy('GetURL', MESSAGE_ROOM);
  }

  async capture() {
    await this._wait('capture', 'Capture', [], false);
  }

  async execute() {
    return this._wait('execute', 'Execute', [], true);
  }

  fromString(text) {
    this._call('FromString', bytesOf(text));
  }

  toString() {
    return this._copy('ToString', MESSAGE_ROOM);
  }
}

module.exports = { ConfigurationSetup, MessageFactory, MessageObject };
