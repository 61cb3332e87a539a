/* Result codes: signed 32-bit values, the same in C, C++ and Java. Success is exactly 0.
 *
 * The component's own failures have the top bit set. A directory that cannot be created is reported with the operating
 * system's errno instead, a small POSITIVE number. So test for `!= KVX_OK`, never for `< 0`.
 *
 * The three families below carry a number of their own in the low 12 bits: HTTP status, socket error, TLS reason.
 *
 * The numbers are published. Do not change.
 */
#ifndef TALLOWIN_CODES_H
#define TALLOWIN_CODES_H

#include <stdint.h>

#ifdef __cplusplus
#define KVX_CODE(value) static_cast<int32_t>(value)
#else
#define KVX_CODE(value) ((int32_t)(value))
#endif

/* clang-format off */
/* Written by scripts/catalogue from catalogue/errors.json, do not edit. */
#define KVX_OK                         KVX_CODE(0) /* success */

/* Core. */
#define KVX_E_NO_CONTEXT               KVX_CODE(0x80040201) /* no configuration directory has been opened */
#define KVX_E_FILE_NOT_FOUND           KVX_CODE(0x80040202) /* a file could not be opened for writing */
#define KVX_E_FILE_IO                  KVX_CODE(0x80040203) /* a file could not be written completely */
#define KVX_E_INVALID_FORMAT           KVX_CODE(0x80040204) /* not a document, or one without a KVX element */
#define KVX_E_BUFFER_TOO_SMALL         KVX_CODE(0x80040205) /* size pointer null, or fewer bytes than needed */
#define KVX_E_INVALID_URL              KVX_CODE(0x80040206) /* a base URL without "://" */
#define KVX_E_INVALID_OPTION           KVX_CODE(0x80040207) /* unknown option name */
#define KVX_E_WRONG_RESPONSE           KVX_CODE(0x80040208) /* the response has another message type */
#define KVX_E_CRYPTO                   KVX_CODE(0x80040209) /* key generation or signing failed */
#define KVX_E_NO_ENDPOINT              KVX_CODE(0x8004020A) /* no server address (defaults, key publication) */
#define KVX_E_INVALID_KEY              KVX_CODE(0x8004020B) /* key file or signature text is not usable */
#define KVX_E_COMMAND_FAILED           KVX_CODE(0x8004020C) /* a character that is no hexadecimal digit */
#define KVX_E_NOT_FOUND                KVX_CODE(0x8004020D) /* no such attribute, value or key */
#define KVX_E_NO_KEY_ID                KVX_CODE(0x8004020E) /* the message names no key */
#define KVX_E_NO_CONFIGURATION         KVX_CODE(0x8004020F) /* a value of "config.xml" is missing */
#define KVX_E_KEY_NOT_FOUND            KVX_CODE(0x80040210) /* no key of that name to publish */
#define KVX_E_UNEXPECTED               KVX_CODE(0x80040211) /* called on a message that is not ready for it */
#define KVX_E_NO_DEFAULT_PATH          KVX_CODE(0x80040212) /* has a text, is never returned */
#define KVX_E_SERVER_ERROR             KVX_CODE(0x80040213) /* the response is an error message */
#define KVX_E_INVALID_SIGNATURE        KVX_CODE(0x80040214) /* the signature does not fit text and key */
#define KVX_E_BAD_HANDLE               KVX_CODE(0x80040216) /* handle null, destroyed or of another kind; no text */
#define KVX_E_OUT_OF_MEMORY            KVX_CODE(0x80040217) /* an allocation failed; no text */
#define KVX_E_NO_MESSAGE_TYPE          KVX_CODE(0x80040218) /* a request without a type; no text */
#define KVX_E_CANNOT_OPEN              KVX_CODE(0x80040219) /* a local file could not be opened for reading; no text */
#define KVX_E_MISSING_SIGNATURE        KVX_CODE(0x8004021A) /* a confirmation came without a signature */
#define KVX_E_OUT_OF_RANGE             KVX_CODE(0x80040281) /* an index beyond the last element; no text */
#define KVX_E_DUPLICATE_KEY            KVX_CODE(0x80040292) /* a key is in the tree already; no text */

/* URL access: have texts, are never returned by the component itself. */
#define KVX_E_URL_ACCESS_DENIED        KVX_CODE(0x80070005)
#define KVX_E_URL_OBJECT_NOT_FOUND     KVX_CODE(0x800C0005)
#define KVX_E_URL_DATA_NOT_FOUND       KVX_CODE(0x800C0006)
#define KVX_E_URL_INVALID_REQUEST      KVX_CODE(0x800C000C)

/* HTTP: the family OR the status of the reply, and the layer's own failures. */
#define KVX_E_HTTP_FAMILY              KVX_CODE(0x80042000)
#define KVX_E_HTTP_BAD_URL             KVX_CODE(0x80042019) /* the URL could not be split; no text */
#define KVX_E_HTTP_UNKNOWN_SCHEME      KVX_CODE(0x80042020) /* neither "http" nor "https"; no text */
#define KVX_E_HTTP_NAME_LOOKUP         KVX_CODE(0x80042021) /* host or proxy name could not be resolved */
#define KVX_E_HTTP_BAD_REPLY           KVX_CODE(0x80042022) /* no status or no end of header; no text */
#define KVX_E_HTTP_STATE               KVX_CODE(0x80042023) /* session steps out of order; no text */
#define KVX_E_HTTP_UNAUTHORIZED        KVX_CODE(0x80042191) /* 401 */
#define KVX_E_HTTP_NOT_FOUND           KVX_CODE(0x80042194) /* 404 */
#define KVX_E_HTTP_UNAVAILABLE         KVX_CODE(0x800421F7) /* 503 */

/* Sockets: the family OR the error number in BSD numbering, on every system. */
#define KVX_E_SOCKET_FAMILY            KVX_CODE(0x80043000)
#define KVX_E_SOCKET_UNREACHABLE       KVX_CODE(0x80043033)
#define KVX_E_SOCKET_ABORTED           KVX_CODE(0x80043035)
#define KVX_E_SOCKET_RESET             KVX_CODE(0x80043036)
#define KVX_E_SOCKET_TIMEOUT           KVX_CODE(0x8004303C)
#define KVX_E_SOCKET_REFUSED           KVX_CODE(0x8004303D)

/* TLS: the family OR the reason number of the TLS library. */
#define KVX_E_TLS_FAMILY               KVX_CODE(0x80044000)

/* Ledger: from the functions of ledger.h only; no texts. */
#define KVX_E_LEDGER_STORE             KVX_CODE(0x80045001) /* the store failed in another way */
#define KVX_E_LEDGER_CANNOT_OPEN       KVX_CODE(0x80045002) /* the store cannot be opened or created */
#define KVX_E_LEDGER_BUSY              KVX_CODE(0x80045003) /* the store stayed locked */
#define KVX_E_LEDGER_FULL              KVX_CODE(0x80045004) /* no room for the store */
#define KVX_E_LEDGER_READONLY          KVX_CODE(0x80045005) /* the store cannot be written */
#define KVX_E_LEDGER_DAMAGED           KVX_CODE(0x80045006) /* the store is no database, or damaged */
#define KVX_E_LEDGER_VERSION           KVX_CODE(0x80045007) /* a newer release wrote the store */
#define KVX_E_LEDGER_FORKED            KVX_CODE(0x80045008) /* a handle of another process */
#define KVX_E_LEDGER_INVALID           KVX_CODE(0x80045009) /* an argument is not acceptable */
#define KVX_E_LEDGER_CONFLICT          KVX_CODE(0x8004500A) /* the order exists with other content, or the store is of another account */
#define KVX_E_LEDGER_PAID              KVX_CODE(0x8004500B) /* the order has been paid */
#define KVX_E_LEDGER_STATE             KVX_CODE(0x8004500C) /* the order's state does not allow this */
#define KVX_E_LEDGER_UNREACHABLE       KVX_CODE(0x8004500D) /* no connection to the store's server */
/* clang-format on */

#endif
