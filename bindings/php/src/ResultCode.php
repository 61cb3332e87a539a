<?php

declare(strict_types=1);

namespace Kelvane\Tallowin;

/** The published result codes, as the signed numbers that the functions return. scripts/ffi makes this file of codes.h. */
final class ResultCode
{
    public const OK = 0; // 0x00000000 success
    public const NO_CONTEXT = -2147220991; // 0x80040201 no configuration directory has been opened
    public const FILE_NOT_FOUND = -2147220990; // 0x80040202 a file could not be opened for writing
    public const FILE_IO = -2147220989; // 0x80040203 a file could not be written completely
    public const INVALID_FORMAT = -2147220988; // 0x80040204 not a document, or one without a KVX element
    public const BUFFER_TOO_SMALL = -2147220987; // 0x80040205 size pointer null, or fewer bytes than needed
    public const INVALID_URL = -2147220986; // 0x80040206 a base URL without "://"
    public const INVALID_OPTION = -2147220985; // 0x80040207 unknown option name
    public const WRONG_RESPONSE = -2147220984; // 0x80040208 the response has another message type
    public const CRYPTO = -2147220983; // 0x80040209 key generation or signing failed
    public const NO_ENDPOINT = -2147220982; // 0x8004020A no server address (defaults, key publication)
    public const INVALID_KEY = -2147220981; // 0x8004020B key file or signature text is not usable
    public const COMMAND_FAILED = -2147220980; // 0x8004020C a character that is no hexadecimal digit
    public const NOT_FOUND = -2147220979; // 0x8004020D no such attribute, value or key
    public const NO_KEY_ID = -2147220978; // 0x8004020E the message names no key
    public const NO_CONFIGURATION = -2147220977; // 0x8004020F a value of "config.xml" is missing
    public const KEY_NOT_FOUND = -2147220976; // 0x80040210 no key of that name to publish
    public const UNEXPECTED = -2147220975; // 0x80040211 called on a message that is not ready for it
    public const NO_DEFAULT_PATH = -2147220974; // 0x80040212 has a text, is never returned
    public const SERVER_ERROR = -2147220973; // 0x80040213 the response is an error message
    public const INVALID_SIGNATURE = -2147220972; // 0x80040214 the signature does not fit text and key
    public const BAD_HANDLE = -2147220970; // 0x80040216 handle null, destroyed or of another kind
    public const OUT_OF_MEMORY = -2147220969; // 0x80040217 an allocation failed
    public const NO_MESSAGE_TYPE = -2147220968; // 0x80040218 a request without a type
    public const CANNOT_OPEN = -2147220967; // 0x80040219 a local file could not be opened for reading
    public const MISSING_SIGNATURE = -2147220966; // 0x8004021A a confirmation came without a signature
    public const OUT_OF_RANGE = -2147220863; // 0x80040281 an index beyond the last element
    public const DUPLICATE_KEY = -2147220846; // 0x80040292 a key is in the tree already
    public const URL_ACCESS_DENIED = -2147024891; // 0x80070005
    public const URL_OBJECT_NOT_FOUND = -2146697211; // 0x800C0005
    public const URL_DATA_NOT_FOUND = -2146697210; // 0x800C0006
    public const URL_INVALID_REQUEST = -2146697204; // 0x800C000C
    public const HTTP_FAMILY = -2147213312; // 0x80042000
    public const HTTP_BAD_URL = -2147213287; // 0x80042019 the URL could not be split
    public const HTTP_UNKNOWN_SCHEME = -2147213280; // 0x80042020 neither "http" nor "https"
    public const HTTP_NAME_LOOKUP = -2147213279; // 0x80042021 host or proxy name could not be resolved
    public const HTTP_BAD_REPLY = -2147213278; // 0x80042022 no status or no end of header
    public const HTTP_STATE = -2147213277; // 0x80042023 session steps out of order
    public const HTTP_UNAUTHORIZED = -2147212911; // 0x80042191 401
    public const HTTP_NOT_FOUND = -2147212908; // 0x80042194 404
    public const HTTP_UNAVAILABLE = -2147212809; // 0x800421F7 503
    public const SOCKET_FAMILY = -2147209216; // 0x80043000
    public const SOCKET_UNREACHABLE = -2147209165; // 0x80043033
    public const SOCKET_ABORTED = -2147209163; // 0x80043035
    public const SOCKET_RESET = -2147209162; // 0x80043036
    public const SOCKET_TIMEOUT = -2147209156; // 0x8004303C
    public const SOCKET_REFUSED = -2147209155; // 0x8004303D
    public const TLS_FAMILY = -2147205120; // 0x80044000
    public const LEDGER_STORE = -2147201023; // 0x80045001 the store failed in another way
    public const LEDGER_CANNOT_OPEN = -2147201022; // 0x80045002 the store cannot be opened or created
    public const LEDGER_BUSY = -2147201021; // 0x80045003 the store stayed locked
    public const LEDGER_FULL = -2147201020; // 0x80045004 no room for the store
    public const LEDGER_READONLY = -2147201019; // 0x80045005 the store cannot be written
    public const LEDGER_DAMAGED = -2147201018; // 0x80045006 the store is no database, or damaged
    public const LEDGER_VERSION = -2147201017; // 0x80045007 a newer release wrote the store
    public const LEDGER_FORKED = -2147201016; // 0x80045008 a handle of another process
    public const LEDGER_INVALID = -2147201015; // 0x80045009 an argument is not acceptable
    public const LEDGER_CONFLICT = -2147201014; // 0x8004500A the order exists with other content, or the store is of another account
    public const LEDGER_PAID = -2147201013; // 0x8004500B the order has been paid
    public const LEDGER_STATE = -2147201012; // 0x8004500C the order's state does not allow this
    public const LEDGER_UNREACHABLE = -2147201011; // 0x8004500D no connection to the store's server
}
