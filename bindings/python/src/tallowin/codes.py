"""The result codes. scripts/ffi makes this file of codes.h."""

import enum


class ResultCode(enum.IntEnum):
    """The published result codes, as the signed numbers that the functions return."""

    OK = 0  # success
    NO_CONTEXT = 0x80040201 - 0x100000000  # no configuration directory has been opened
    FILE_NOT_FOUND = 0x80040202 - 0x100000000  # a file could not be opened for writing
    FILE_IO = 0x80040203 - 0x100000000  # a file could not be written completely
    INVALID_FORMAT = 0x80040204 - 0x100000000  # not a document, or one without a KVX element
    BUFFER_TOO_SMALL = 0x80040205 - 0x100000000  # size pointer null, or fewer bytes than needed
    INVALID_URL = 0x80040206 - 0x100000000  # a base URL without "://"
    INVALID_OPTION = 0x80040207 - 0x100000000  # unknown option name
    WRONG_RESPONSE = 0x80040208 - 0x100000000  # the response has another message type
    CRYPTO = 0x80040209 - 0x100000000  # key generation or signing failed
    NO_ENDPOINT = 0x8004020A - 0x100000000  # no server address (defaults, key publication)
    INVALID_KEY = 0x8004020B - 0x100000000  # key file or signature text is not usable
    COMMAND_FAILED = 0x8004020C - 0x100000000  # a character that is no hexadecimal digit
    NOT_FOUND = 0x8004020D - 0x100000000  # no such attribute, value or key
    NO_KEY_ID = 0x8004020E - 0x100000000  # the message names no key
    NO_CONFIGURATION = 0x8004020F - 0x100000000  # a value of "config.xml" is missing
    KEY_NOT_FOUND = 0x80040210 - 0x100000000  # no key of that name to publish
    UNEXPECTED = 0x80040211 - 0x100000000  # called on a message that is not ready for it
    NO_DEFAULT_PATH = 0x80040212 - 0x100000000  # has a text, is never returned
    SERVER_ERROR = 0x80040213 - 0x100000000  # the response is an error message
    INVALID_SIGNATURE = 0x80040214 - 0x100000000  # the signature does not fit text and key
    BAD_HANDLE = 0x80040216 - 0x100000000  # handle null, destroyed or of another kind
    OUT_OF_MEMORY = 0x80040217 - 0x100000000  # an allocation failed
    NO_MESSAGE_TYPE = 0x80040218 - 0x100000000  # a request without a type
    CANNOT_OPEN = 0x80040219 - 0x100000000  # a local file could not be opened for reading
    MISSING_SIGNATURE = 0x8004021A - 0x100000000  # a confirmation came without a signature
    OUT_OF_RANGE = 0x80040281 - 0x100000000  # an index beyond the last element
    DUPLICATE_KEY = 0x80040292 - 0x100000000  # a key is in the tree already
    URL_ACCESS_DENIED = 0x80070005 - 0x100000000
    URL_OBJECT_NOT_FOUND = 0x800C0005 - 0x100000000
    URL_DATA_NOT_FOUND = 0x800C0006 - 0x100000000
    URL_INVALID_REQUEST = 0x800C000C - 0x100000000
    HTTP_FAMILY = 0x80042000 - 0x100000000
    HTTP_BAD_URL = 0x80042019 - 0x100000000  # the URL could not be split
    HTTP_UNKNOWN_SCHEME = 0x80042020 - 0x100000000  # neither "http" nor "https"
    HTTP_NAME_LOOKUP = 0x80042021 - 0x100000000  # host or proxy name could not be resolved
    HTTP_BAD_REPLY = 0x80042022 - 0x100000000  # no status or no end of header
    HTTP_STATE = 0x80042023 - 0x100000000  # session steps out of order
    HTTP_UNAUTHORIZED = 0x80042191 - 0x100000000  # 401
    HTTP_NOT_FOUND = 0x80042194 - 0x100000000  # 404
    HTTP_UNAVAILABLE = 0x800421F7 - 0x100000000  # 503
    SOCKET_FAMILY = 0x80043000 - 0x100000000
    SOCKET_UNREACHABLE = 0x80043033 - 0x100000000
    SOCKET_ABORTED = 0x80043035 - 0x100000000
    SOCKET_RESET = 0x80043036 - 0x100000000
    SOCKET_TIMEOUT = 0x8004303C - 0x100000000
    SOCKET_REFUSED = 0x8004303D - 0x100000000
    TLS_FAMILY = 0x80044000 - 0x100000000
    LEDGER_STORE = 0x80045001 - 0x100000000  # the store failed in another way
    LEDGER_CANNOT_OPEN = 0x80045002 - 0x100000000  # the store cannot be opened or created
    LEDGER_BUSY = 0x80045003 - 0x100000000  # the store stayed locked
    LEDGER_FULL = 0x80045004 - 0x100000000  # no room for the store
    LEDGER_READONLY = 0x80045005 - 0x100000000  # the store cannot be written
    LEDGER_DAMAGED = 0x80045006 - 0x100000000  # the store is no database, or damaged
    LEDGER_VERSION = 0x80045007 - 0x100000000  # a newer release wrote the store
    LEDGER_FORKED = 0x80045008 - 0x100000000  # a handle of another process
    LEDGER_INVALID = 0x80045009 - 0x100000000  # an argument is not acceptable
    LEDGER_CONFLICT = 0x8004500A - 0x100000000  # the order exists with other content, or the store is of another account
    LEDGER_PAID = 0x8004500B - 0x100000000  # the order has been paid
    LEDGER_STATE = 0x8004500C - 0x100000000  # the order's state does not allow this
    LEDGER_UNREACHABLE = 0x8004500D - 0x100000000  # no connection to the store's server
