// The exceptions. All are a TallowinError.
'use strict';

const { ResultCode } = require('./resultcode');

const NUMBER_MASK = 0xfff; // of a code in a family
const MIN_HTTP_STATUS = 100; // the HTTP layer's own codes are below

class TallowinError extends Error {
  get name() {
    return this.constructor.name;
  }
}

class LoadError extends TallowinError {}

class ResultError extends TallowinError {
  constructor(functionName, code, codeName, reason) {
    const hexadecimal = (code >>> 0).toString(16).toUpperCase().padStart(8, '0');
    super(`${functionName}: ${reason} (${codeName}, 0x${hexadecimal})`);
    const status = code & NUMBER_MASK;
    const isHttp = (code & ~NUMBER_MASK) === ResultCode.HTTP_FAMILY && status >= MIN_HTTP_STATUS;
    this.function = functionName;
    this.code = code;
    this.codeName = codeName;
    this.reason = reason;
    this.httpStatus = isHttp ? status : null;
    this.errno = code > 0 ? code : null;
  }
}

class MismatchError extends TallowinError {
  constructor(attribute, wanted, found) {
    super(`${attribute} is ${found === null ? 'missing' : `"${found}"`}, not "${wanted}"`);
    this.attribute = attribute;
    this.wanted = wanted;
    this.found = found;
  }
}

module.exports = { LoadError, MismatchError, ResultError, TallowinError };
