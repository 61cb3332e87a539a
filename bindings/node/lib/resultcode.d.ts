/** The published result codes, as the signed numbers that the functions return. scripts/ffi makes this file of codes.h. */
export declare const ResultCode: {
  /** success */
  readonly OK: 0;
  /** no configuration directory has been opened */
  readonly NO_CONTEXT: -2147220991;
  /** a file could not be opened for writing */
  readonly FILE_NOT_FOUND: -2147220990;
  /** a file could not be written completely */
  readonly FILE_IO: -2147220989;
  /** not a document, or one without a KVX element */
  readonly INVALID_FORMAT: -2147220988;
  /** size pointer null, or fewer bytes than needed */
  readonly BUFFER_TOO_SMALL: -2147220987;
  /** a base URL without "://" */
  readonly INVALID_URL: -2147220986;
  /** unknown option name */
  readonly INVALID_OPTION: -2147220985;
  /** the response has another message type */
  readonly WRONG_RESPONSE: -2147220984;
  /** key generation or signing failed */
  readonly CRYPTO: -2147220983;
  /** no server address (defaults, key publication) */
  readonly NO_ENDPOINT: -2147220982;
  /** key file or signature text is not usable */
  readonly INVALID_KEY: -2147220981;
  /** a character that is no hexadecimal digit */
  readonly COMMAND_FAILED: -2147220980;
  /** no such attribute, value or key */
  readonly NOT_FOUND: -2147220979;
  /** the message names no key */
  readonly NO_KEY_ID: -2147220978;
  /** a value of "config.xml" is missing */
  readonly NO_CONFIGURATION: -2147220977;
  /** no key of that name to publish */
  readonly KEY_NOT_FOUND: -2147220976;
  /** called on a message that is not ready for it */
  readonly UNEXPECTED: -2147220975;
  /** has a text, is never returned */
  readonly NO_DEFAULT_PATH: -2147220974;
  /** the response is an error message */
  readonly SERVER_ERROR: -2147220973;
  /** the signature does not fit text and key */
  readonly INVALID_SIGNATURE: -2147220972;
  /** handle null, destroyed or of another kind */
  readonly BAD_HANDLE: -2147220970;
  /** an allocation failed */
  readonly OUT_OF_MEMORY: -2147220969;
  /** a request without a type */
  readonly NO_MESSAGE_TYPE: -2147220968;
  /** a local file could not be opened for reading */
  readonly CANNOT_OPEN: -2147220967;
  /** a confirmation came without a signature */
  readonly MISSING_SIGNATURE: -2147220966;
  /** an index beyond the last element */
  readonly OUT_OF_RANGE: -2147220863;
  /** a key is in the tree already */
  readonly DUPLICATE_KEY: -2147220846;
  readonly URL_ACCESS_DENIED: -2147024891;
  readonly URL_OBJECT_NOT_FOUND: -2146697211;
  readonly URL_DATA_NOT_FOUND: -2146697210;
  readonly URL_INVALID_REQUEST: -2146697204;
  readonly HTTP_FAMILY: -2147213312;
  /** the URL could not be split */
  readonly HTTP_BAD_URL: -2147213287;
  /** neither "http" nor "https" */
  readonly HTTP_UNKNOWN_SCHEME: -2147213280;
  /** host or proxy name could not be resolved */
  readonly HTTP_NAME_LOOKUP: -2147213279;
  /** no status or no end of header */
  readonly HTTP_BAD_REPLY: -2147213278;
  /** session steps out of order */
  readonly HTTP_STATE: -2147213277;
  /** 401 */
  readonly HTTP_UNAUTHORIZED: -2147212911;
  /** 404 */
  readonly HTTP_NOT_FOUND: -2147212908;
  /** 503 */
  readonly HTTP_UNAVAILABLE: -2147212809;
  readonly SOCKET_FAMILY: -2147209216;
  readonly SOCKET_UNREACHABLE: -2147209165;
  readonly SOCKET_ABORTED: -2147209163;
  readonly SOCKET_RESET: -2147209162;
  readonly SOCKET_TIMEOUT: -2147209156;
  readonly SOCKET_REFUSED: -2147209155;
  readonly TLS_FAMILY: -2147205120;
  /** the store failed in another way */
  readonly LEDGER_STORE: -2147201023;
  /** the store cannot be opened or created */
  readonly LEDGER_CANNOT_OPEN: -2147201022;
  /** the store stayed locked */
  readonly LEDGER_BUSY: -2147201021;
  /** no room for the store */
  readonly LEDGER_FULL: -2147201020;
  /** the store cannot be written */
  readonly LEDGER_READONLY: -2147201019;
  /** the store is no database, or damaged */
  readonly LEDGER_DAMAGED: -2147201018;
  /** a newer release wrote the store */
  readonly LEDGER_VERSION: -2147201017;
  /** a handle of another process */
  readonly LEDGER_FORKED: -2147201016;
  /** an argument is not acceptable */
  readonly LEDGER_INVALID: -2147201015;
  /** the order exists with other content, or the store is of another account */
  readonly LEDGER_CONFLICT: -2147201014;
  /** the order has been paid */
  readonly LEDGER_PAID: -2147201013;
  /** the order's state does not allow this */
  readonly LEDGER_STATE: -2147201012;
  /** no connection to the store's server */
  readonly LEDGER_UNREACHABLE: -2147201011;
};
