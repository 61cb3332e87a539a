// The merchant's side of a hosted payment. index.d.ts describes the classes.
'use strict';

const { LoadError, MismatchError, ResultError, TallowinError } = require('./lib/errors');
const { version } = require('./lib/library');
const { ConfigurationSetup, MessageFactory, MessageObject } = require('./lib/objects');
const { ResultCode } = require('./lib/resultcode');

module.exports = {
  ConfigurationSetup,
  LoadError,
  MessageFactory,
  MessageObject,
  MismatchError,
  ResultCode,
  ResultError,
  TallowinError,
  version,
};
