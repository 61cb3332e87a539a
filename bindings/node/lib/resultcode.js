// The published result codes, as the signed numbers that the functions return. scripts/ffi makes this file of codes.h.
'use strict';

exports.ResultCode = Object.freeze({
  OK: 0x00000000 | 0, // success
  NO_CONTEXT: 0x80040201 | 0, // no configuration directory has been opened
  FILE_NOT_FOUND: 0x80040202 | 0, // a file could not be opened for writing
  FILE_IO: 0x80040203 | 0, // a file could not be written completely
  INVALID_FORMAT: 0x80040204 | 0, // not a document, or one without a KVX element
  BUFFER_TOO_SMALL: 0x80040205 | 0, // size pointer null, or fewer bytes than needed
  INVALID_URL: 0x80040206 | 0, // a base URL without "://"
  INVALID_OPTION: 0x80040207 | 0, // unknown option name
  WRONG_RESPONSE: 0x80040208 | 0, // the response has another message type
  CRYPTO: 0x80040209 | 0, // key generation or signing failed
  NO_ENDPOINT: 0x8004020A | 0, // no server address (defaults, key publication)
  INVALID_KEY: 0x8004020B | 0, // key file or signature text is not usable
  COMMAND_FAILED: 0x8004020C | 0, // a character that is no hexadecimal digit
  NOT_FOUND: 0x8004020D | 0, // no such attribute, value or key
  NO_KEY_ID: 0x8004020E | 0, // the message names no key
  NO_CONFIGURATION: 0x8004020F | 0, // a value of "config.xml" is missing
  KEY_NOT_FOUND: 0x80040210 | 0, // no key of that name to publish
  UNEXPECTED: 0x80040211 | 0, // called on a message that is not ready for it
  NO_DEFAULT_PATH: 0x80040212 | 0, // has a text, is never returned
  SERVER_ERROR: 0x80040213 | 0, // the response is an error message
  INVALID_SIGNATURE: 0x80040214 | 0, // the signature does not fit text and key
  BAD_HANDLE: 0x80040216 | 0, // handle null, destroyed or of another kind
  OUT_OF_MEMORY: 0x80040217 | 0, // an allocation failed
  NO_MESSAGE_TYPE: 0x80040218 | 0, // a request without a type
  CANNOT_OPEN: 0x80040219 | 0, // a local file could not be opened for reading
  MISSING_SIGNATURE: 0x8004021A | 0, // a confirmation came without a signature
  OUT_OF_RANGE: 0x80040281 | 0, // an index beyond the last element
  DUPLICATE_KEY: 0x80040292 | 0, // a key is in the tree already
  URL_ACCESS_DENIED: 0x80070005 | 0,
  URL_OBJECT_NOT_FOUND: 0x800C0005 | 0,
  URL_DATA_NOT_FOUND: 0x800C0006 | 0,
  URL_INVALID_REQUEST: 0x800C000C | 0,
  HTTP_FAMILY: 0x80042000 | 0,
  HTTP_BAD_URL: 0x80042019 | 0, // the URL could not be split
  HTTP_UNKNOWN_SCHEME: 0x80042020 | 0, // neither "http" nor "https"
  HTTP_NAME_LOOKUP: 0x80042021 | 0, // host or proxy name could not be resolved
  HTTP_BAD_REPLY: 0x80042022 | 0, // no status or no end of header
  HTTP_STATE: 0x80042023 | 0, // session steps out of order
  HTTP_UNAUTHORIZED: 0x80042191 | 0, // 401
  HTTP_NOT_FOUND: 0x80042194 | 0, // 404
  HTTP_UNAVAILABLE: 0x800421F7 | 0, // 503
  SOCKET_FAMILY: 0x80043000 | 0,
  SOCKET_UNREACHABLE: 0x80043033 | 0,
  SOCKET_ABORTED: 0x80043035 | 0,
  SOCKET_RESET: 0x80043036 | 0,
  SOCKET_TIMEOUT: 0x8004303C | 0,
  SOCKET_REFUSED: 0x8004303D | 0,
  TLS_FAMILY: 0x80044000 | 0,
  LEDGER_STORE: 0x80045001 | 0, // the store failed in another way
  LEDGER_CANNOT_OPEN: 0x80045002 | 0, // the store cannot be opened or created
  LEDGER_BUSY: 0x80045003 | 0, // the store stayed locked
  LEDGER_FULL: 0x80045004 | 0, // no room for the store
  LEDGER_READONLY: 0x80045005 | 0, // the store cannot be written
  LEDGER_DAMAGED: 0x80045006 | 0, // the store is no database, or damaged
  LEDGER_VERSION: 0x80045007 | 0, // a newer release wrote the store
  LEDGER_FORKED: 0x80045008 | 0, // a handle of another process
  LEDGER_INVALID: 0x80045009 | 0, // an argument is not acceptable
  LEDGER_CONFLICT: 0x8004500A | 0, // the order exists with other content, or the store is of another account
  LEDGER_PAID: 0x8004500B | 0, // the order has been paid
  LEDGER_STATE: 0x8004500C | 0, // the order's state does not allow this
  LEDGER_UNREACHABLE: 0x8004500D | 0, // no connection to the store's server
});
