/* clang-format off */
/* Tallowin: the merchant's side of a hosted payment. The flat functions, plain C99.
 *
 * Three kinds of objects, each used through a handle:
 *
 *   configuration setup   prepares the configuration directory of one merchant account
 *   message factory       makes payment messages and verifies confirmations for one directory
 *   message object        one message: its attributes, its payment URL, its requests to the server
 *
 * These rules hold for all functions and are not repeated below:
 *
 * RESULT     KVX_OK (exactly 0) or a result code; <tallowin/codes.h> names them. Test for `!= KVX_OK`, never for `< 0`:
 *            functions that open a directory may return the system's errno, a small positive number, when it cannot be
 *            created. Outputs are written on success only, save sizes.
 *
 * HANDLES    owned by the caller from the creating call to the matching Destroy. A null, destroyed or otherwise wrong
 *            handle, one of another kind included, returns KVX_E_BAD_HANDLE; nothing is touched.
 *
 * STRINGS    NUL-terminated `const char*`, any encoding (the component sees bytes), borrowed for the call. Null is "".
 *
 * NAMES      of attributes consist of A-Z a-z 0-9 . - _. The setting STRICTNAMES refuses others (KVX_E_INVALID_OPTION).
 *            Without it such a name is written and signed, and reads as something else or not at all. Never take a name
 *            from a shopper.
 *
 * BUFFERS    `size` in: bytes at `buffer`; out: bytes needed, terminator included, on success and when too small. Null
 *            `size` or too few bytes: KVX_E_BUFFER_TOO_SMALL, nothing is copied. Null `buffer` with enough bytes:
 *            KVX_OK, nothing is copied. So call once with size 0, then again with the size returned.
 *
 * OUTPUTS    other than sizes and buffers, such as `out`: must not be null.
 *
 * THREADS    no locks: one handle is used by one thread at a time. Different handles may be used by different threads
 *            at once, also on one directory. Functions marked "network" block until the server answers or closes; there
 *            is no time limit unless settings set one. Functions marked "files" read or write the configuration
 *            directory.
 *
 * FILES      one that exists and cannot be opened ends the call with KVX_E_CANNOT_OPEN, before anything is signed or
 *            sent. So KVX_E_NOT_FOUND from signing or verifying means that there is no such key.
 *
 * SETTINGS   in "settings.xml" limit exchanges and documents, and check keys, confirmations and names. None are on by
 *            themselves. docs/hardening.md lists them, with the codes of their refusals.
 *
 * MEMORY     when memory is exhausted, the functions return KVX_E_OUT_OF_MEMORY. The functions that create an object
 *            without a handle return null instead, and KVX_GetErrorStringFromResult 0. The Destroy functions,
 *            KVX_GetVersion, KVX_GetErrorName and KVX_GetLastErrorText need no memory. No C++ exception leaves any function.
 *
 * UNLOADING  libtallowin.so is never unmapped, on purpose: memory of handles stays what it is, and a thread that looks up
 *            a host name may outlive its call. dlclose() keeps it, the next dlopen() finds it; no round costs memory.
 */
/* clang-format on */
#ifndef TALLOWIN_H
#define TALLOWIN_H

#include <stdint.h>

#include "codes.h"
#include "export.h"
#include "version.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A handle of any kind. */
typedef void* KVX_HANDLE;

/* ---- The library ------------------------------------------------------------------------------------------------ */

/* The version of the library in use, such as TALLOWIN_VERSION_STRING; static. Any thread. */
KVX_EXPORT char const* KVX_GetVersion(void);

/* The name of a result code, such as "KVX_E_INVALID_SIGNATURE"; static. For a code of a family (HTTP status, socket
 * error, TLS reason) without a constant of its own that of the family, such as "KVX_E_TLS_FAMILY"; for an
 * errno of the system its name, such as "ENOENT". "" for any other number. docs/errors.md explains every code. Any
 * thread. */
KVX_EXPORT char const* KVX_GetErrorName(int32_t code);

/* Copies the reason of this thread's last failed call: the text of its exception, which Java shows too, then what lies
 * behind it: the path and the system's words for it, the address of the server. Examples:
 *
 *   the request failed (the password of the account 'demo' is another): http://127.0.0.1:8480
 *   ErrorCode = 0x80040219: /srv/shop/keys/current: No such file or directory
 *
 * For people and logs, not for programs to compare: the words may change. It holds no password and no private key, but
 * paths, addresses, key ids, and in a refusal the service's own text. Calls that succeed leave it alone, and so does
 * this function; so ask after a failure only, in the same thread. The Destroy functions record nothing.
 *
 * KVX_E_NOT_FOUND, leaving `*size` alone: no call of this thread has failed. KVX_E_BUFFER_TOO_SMALL. Any thread. */
KVX_EXPORT int32_t KVX_GetLastErrorText(int32_t* size, char* buffer);

/* Copies the text of a result code.
 *
 * `code`    a result code.
 * `size`    in: bytes at `buffer`; out: bytes of the whole text, terminator included.
 * `buffer`  receives the text, cut to `*size` - 1 bytes when it is smaller, always terminated. May be null.
 *
 * Returns 1; 0 for a code without a text (so for 0), a null `size` or no memory, touching nothing. With a size of 0 or
 * less nothing is copied and `*size` still receives the need. Unlike the functions below it cuts a long text instead of
 * refusing. Any thread. */
KVX_EXPORT int KVX_GetErrorStringFromResult(int32_t code, int32_t* size, char* buffer);

/* ---- Configuration setup ---------------------------------------------------------------------------------------- */

/* A new object without a directory. Null when memory is exhausted. */
KVX_EXPORT KVX_HANDLE CreateConfigurationSetup(void);

/* Destroys the object. Ignores null and anything that is no living configuration setup. */
KVX_EXPORT void DestroyConfigurationSetup(KVX_HANDLE handle);

/* Chooses the configuration directory, "" for the current one, and creates it when its parent exists. Files.
 * Call it first: until then every other call but SetOption fails with KVX_E_NO_CONTEXT. */
KVX_EXPORT int32_t ConfigurationSetup_SetConfiguration(KVX_HANDLE handle, char const* path);

/* Registers with the payment server: loads the account's configuration and defaults, imports the server's key, makes a
 * new key pair and publishes its public half. Files, network.
 *
 * `url`       address of the server's configuration service, with a "/" after the host; "" uses the option
 *             "VTAUTOURL", else the address in "config.xml".
 * `user`, `password`  the account's credentials; they travel inside request addresses, unescaped. Requires: neither
 *             holds "?" or a byte above 0x7F, the password no "@", and `user` is not empty when there is a password.
 *             Otherwise the request goes to another host, fails (KVX_E_HTTP_NAME_LOOKUP) or carries cut credentials.
 *
 * Run it as the user that signs later: a new private key is readable for its owner only. Every call leaves one more
 * private key in "keys/private"; docs/risks.md says which may be deleted.
 *
 * KVX_E_NO_CONFIGURATION when there is no address; KVX_E_SERVER_ERROR when the server refuses; the socket, TLS and HTTP
 * codes. Files written by earlier steps stay; the current key changes last. */
KVX_EXPORT int32_t ConfigurationSetup_Reconfigure(KVX_HANDLE handle, char const* url, char const* user,
                                                  char const* password);

/* Sets "UserName", "Password" or "VTAUTOURL" for this object. Any other name: KVX_E_INVALID_OPTION. */
KVX_EXPORT int32_t ConfigurationSetup_SetOption(KVX_HANDLE handle, char const* name, char const* value);

/* Copies the value `name` of `file`, such as "VTURL" of "config.xml"; with an empty `name` the whole file. Files.
 * KVX_E_CANNOT_OPEN: no such file, or it cannot be opened. KVX_E_NOT_FOUND: no such value, or an empty one; `*size` is
 * left alone. */
KVX_EXPORT int32_t ConfigurationSetup_GetAttribute(KVX_HANDLE handle, char const* file, char const* name, int32_t* size,
                                                   char* buffer);

/* Sets the value `name` of an existing `file` and rewrites it whole. An empty `value` changes nothing and succeeds.
 * The file keeps its first "KVX" element only. A `name` with "(." in it succeeds and is not written.
 * Files. KVX_E_CANNOT_OPEN: no such file, or it cannot be opened. KVX_E_INVALID_FORMAT: the file is no document. */
KVX_EXPORT int32_t ConfigurationSetup_SetAttribute(KVX_HANDLE handle, char const* file, char const* name,
                                                   char const* value);

/* ---- Message factory -------------------------------------------------------------------------------------------- */

/* A new factory without a directory. Null when memory is exhausted. */
KVX_EXPORT KVX_HANDLE CreateMessageFactory(void);

/* Destroys the factory; its messages live on. Ignores null and anything that is no living factory. */
KVX_EXPORT void DestroyMessageFactory(KVX_HANDLE handle);

/* Stores the path of the configuration directory. Reads nothing: a wrong path fails at the first creating call. */
KVX_EXPORT int32_t MessageFactory_Open(KVX_HANDLE handle, char const* path);

/* A new payment: type "PayInit", a fresh "TOKEN", the account's defaults, "EXPIRATION". Files.
 * `*out` receives a message object, owned by the caller. KVX_E_CANNOT_OPEN: the directory has not been set up. */
KVX_EXPORT int32_t MessageFactory_CreatePayInit(KVX_HANDLE handle, KVX_HANDLE* out);

/* Verifies the signature of a confirmation that came back with the shopper. Files.
 *
 * `data`, `signature`  the query parameters DATA and SIGNATURE, percent-decoded. Bound their size before the call.
 * `*out`               receives a message object, owned by the caller.
 *
 * KVX_OK says only that a key of the directory signed this text. ANY message type passes, also the merchant's own
 * payment messages, which the shopper has seen. So check before the goods are shipped: "MSGTYPE" is "PayConfirm";
 * "TOKEN" is the token of this very order, not yet used; amount and currency are the order's.
 *
 * KVX_E_INVALID_FORMAT, KVX_E_MISSING_SIGNATURE, KVX_E_NO_KEY_ID, KVX_E_NOT_FOUND (unknown key), KVX_E_INVALID_KEY,
 * KVX_E_INVALID_SIGNATURE. */
KVX_EXPORT int32_t MessageFactory_VerifyPayConfirm(KVX_HANDLE handle, char const* data, char const* signature,
                                                   KVX_HANDLE* out);

/* A completion: type "PayComplete", "ID" and "TOKEN" as given; send it with MessageObject_Execute. Files.
 * `*out` receives a message object, owned by the caller. */
KVX_EXPORT int32_t MessageFactory_CreatePayComplete(KVX_HANDLE handle, char const* id, char const* token,
                                                    KVX_HANDLE* out);

/* A message of any type. Files. `*out` receives a message object, owned by the caller.
 * KVX_E_NO_MESSAGE_TYPE for an empty `type`. */
KVX_EXPORT int32_t MessageFactory_CreateRequest(KVX_HANDLE handle, char const* type, KVX_HANDLE* out);

/* ---- Message object --------------------------------------------------------------------------------------------- */

/* A new, empty object. Null when memory is exhausted. */
KVX_EXPORT KVX_HANDLE CreateMessageObject(void);

/* Destroys the object. Ignores null and anything that is no living message object. */
KVX_EXPORT void DestroyMessageObject(KVX_HANDLE handle);

/* Binds the object to a configuration directory; it then holds a message of type "ERROR" until it is filled. Files.
 * KVX_E_CANNOT_OPEN: the directory has not been set up. */
KVX_EXPORT int32_t MessageObject_Open(KVX_HANDLE handle, char const* path);

/* Sets or replaces an attribute. `value` may hold every character but the terminator; it is escaped when written.
 * KVX_E_UNEXPECTED: the object holds no message yet. */
KVX_EXPORT int32_t MessageObject_SetAttribute(KVX_HANDLE handle, char const* name, char const* value);

/* Copies the value of an attribute. KVX_E_NOT_FOUND, leaving `*size` alone. KVX_E_UNEXPECTED: no message yet. */
KVX_EXPORT int32_t MessageObject_GetAttribute(KVX_HANDLE handle, char const* name, int32_t* size, char* buffer);

/* Copies the signed payment URL for the shopper's browser. Sends nothing itself. Files.
 * KVX_E_UNEXPECTED: not a message that a factory's Create function made. KVX_E_NO_CONFIGURATION: no "VTURL". */
KVX_EXPORT int32_t MessageObject_GetURL(KVX_HANDLE handle, int32_t* size, char* buffer);

/* Sends the message, signed, to the capture address and requires a "PayConfirm" response. Files, network.
 * KVX_E_NO_CONFIGURATION: no "CAPTUREURL". KVX_E_UNEXPECTED: no "TOKEN". KVX_E_SERVER_ERROR, KVX_E_WRONG_RESPONSE, the
 * socket, TLS and HTTP codes: after these the payment may have been captured all the same; query the server. */
KVX_EXPORT int32_t MessageObject_Capture(KVX_HANDLE handle);

/* Sends the message, signed, as a request of its type T: T + "Request"; requires T + "Response". Files, network.
 * `*out` receives the response, owned by the caller. Codes as MessageObject_Capture.
 * Deliberate (request-keeps-type): this object's type stays T + "Request", so it is sent once only. */
KVX_EXPORT int32_t MessageObject_Execute(KVX_HANDLE handle, KVX_HANDLE* out);

/* Replaces the message by the parsed `text` and sets its "KEYID" to the signing key of this object. A bare "&" in a
 * value of `text` deletes the five characters behind it: write "&amp;". Files.
 * KVX_E_INVALID_FORMAT: the object holds no message afterwards. */
KVX_EXPORT int32_t MessageObject_FromString(KVX_HANDLE handle, char const* text);

/* Copies the message as text. KVX_E_UNEXPECTED: the object holds no message. */
KVX_EXPORT int32_t MessageObject_ToString(KVX_HANDLE handle, int32_t* size, char* buffer);

#ifdef __cplusplus
}
#endif

#endif
