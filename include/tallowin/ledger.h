/* clang-format off */
/* Tallowin's order ledger: orders that are paid exactly once. Flat functions in plain C99, in libtallowin-ledger.so.
 *
 * A signed confirmation says that the service took a payment. It does not say that this order is paid now and was not
 * before, and it does not capture. The ledger does the rest over a database: it stores what was asked for before the
 * shopper can pay, compares every confirmation with it, says "paid now" once for each order, and captures in a worker.
 *
 *   ledger   a handle on one store and one configuration directory
 *   order    an order under construction, until it has been begun
 *
 * Three calls make a shop:
 *
 *   LedgerOrder_Begin   at the check-out: returns the payment URL
 *   Ledger_Confirm      at the return page and at the notification address: says whether to deliver
 *   Ledger_RunDue       in a job: captures, completes, asks about what is in doubt
 *
 * The rules at the head of <tallowin/tallowin.h> hold, and these:
 *
 * STORE      any number of processes and threads may use one store. Each thread has its own ledger handle. A function
 *            that changes the store returns after the change is on disk; what it returned survives loss of power.
 *
 * FORK       a handle belongs to the process that created it. In a child it returns KVX_E_LEDGER_FORKED and nothing is
 *            touched. Destroying it in the child is allowed and leaves the parent's alone. Fork first, then open: a
 *            "sqlite:" store that was open at the fork cannot be opened in the child (KVX_E_LEDGER_FORKED) until it
 *            calls exec, because it would hold no locks.
 *
 * FAILURES   of the store, from any function that reads or writes it, with nothing changed:
 *              KVX_E_LEDGER_BUSY       another process kept the store locked for longer than BUSYSECONDS
 *              KVX_E_LEDGER_FULL       no room on the disk
 *              KVX_E_LEDGER_READONLY   the store cannot be written
 *              KVX_E_LEDGER_DAMAGED    the store is no database, or damaged
 *              KVX_E_LEDGER_UNREACHABLE  the connection to the store's server is lost, and a new one was not to be had
 *                                      within BUSYSECONDS. The next call connects again. Lost during the commit, the
 *                                      change may be stored all the same: read the order to find out
 *              KVX_E_LEDGER_STORE      anything else; the reason has the words of the database
 *            They never mean that an order is or is not paid. At the notification address respond with 503, so that
 *            the service sends the confirmation again.
 *
 * NAMES      of orders have 1 to 64 characters, amounts 1 to 32, currencies 1 to 8, all from "!" to "~". Amounts are
 *            compared as texts, "12.5" is not "12.50".
 *
 * JSON       is plain ASCII. A byte above 0x7F in a text is written as the escape of U+0080 to U+00FF. Times are
 *            milliseconds since 1970 in UTC. docs/paid-once.md lists the members.
 */
/* clang-format on */
#ifndef TALLOWIN_LEDGER_H
#define TALLOWIN_LEDGER_H

#include "tallowin.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The most bytes an order's number needs, terminator included. */
#define KVX_LEDGER_NUMBER_SIZE 65

/* What Ledger_Confirm says. The values are published. Do not change. */
/* clang-format off */
#define KVX_LEDGER_REFUSED       0 /* not accepted; nothing changed; respond 400, Ledger_GetReason says why */
#define KVX_LEDGER_PAID_NOW      1 /* deliver: said once in the life of an order, see ACKNOWLEDGE; respond 200 */
#define KVX_LEDGER_KNOWN_ALREADY 2 /* genuine, and the payment was known before; respond 200 */
#define KVX_LEDGER_NOT_PAID      3 /* genuine: declined, cancelled or expired; respond 200 */
#define KVX_LEDGER_SURPLUS       4 /* genuine, but another attempt has paid the order; listed, never captured; respond 200 */
#define KVX_LEDGER_KEPT          5 /* signed by a key that is not here yet; set up, the worker tries again; respond 503 */
/* clang-format on */

/* Why Ledger_Confirm refused or kept. The values are published. Do not change. */
/* clang-format off */
#define KVX_LEDGER_REASON_NONE            0 /* neither refused nor kept */
#define KVX_LEDGER_REASON_TOO_LARGE       1 /* more bytes than MAXDATA, or a signature of more than 4096 */
#define KVX_LEDGER_REASON_FORMAT          2 /* no message */
#define KVX_LEDGER_REASON_NO_SIGNATURE    3 /* without a signature */
#define KVX_LEDGER_REASON_NO_KEY_ID       4 /* names no key */
#define KVX_LEDGER_REASON_BAD_SIGNATURE   5 /* the signature does not fit the text */
#define KVX_LEDGER_REASON_OWN_KEY         6 /* names a key of the merchant, whose messages every shopper has seen */
#define KVX_LEDGER_REASON_NOT_SERVICE_KEY 7 /* the key is not the service's, or has not been for OLDKEYSECONDS */
#define KVX_LEDGER_REASON_WRONG_TYPE      8 /* no PayConfirm */
#define KVX_LEDGER_REASON_UNKNOWN_TOKEN   9 /* no attempt of this store has that TOKEN */
#define KVX_LEDGER_REASON_WRONG_ORDER    10 /* ORDERID is not the order of that TOKEN */
#define KVX_LEDGER_REASON_WRONG_AMOUNT   11 /* AMOUNT is not the order's */
#define KVX_LEDGER_REASON_WRONG_CURRENCY 12 /* CURRENCY is not the order's */
#define KVX_LEDGER_REASON_WRONG_RESULT   13 /* the result is none of the configured words */
#define KVX_LEDGER_REASON_TOO_LATE       14 /* more than ACCEPTSECONDS after the payment's expiry */
#define KVX_LEDGER_REASON_OTHER_PAYMENT  15 /* this TOKEN was paid under another ID */
#define KVX_LEDGER_REASON_CONTRADICTS    16 /* says unpaid of a payment that is known as paid; the payment stays paid */
#define KVX_LEDGER_REASON_UNKNOWN_KEY    17 /* kept: the key is not in the directory */
#define KVX_LEDGER_REASON_KEPT_FULL      18 /* not stored: the key is not here and KEPTEACH or MAXKEPT is reached */
/* clang-format on */

/* What has become of a renewal of the merchant's key. The values are published. Do not change. */
/* clang-format off */
#define KVX_LEDGER_RENEWAL_UNCHANGED 0 /* the old key signs, and the service knows no other */
#define KVX_LEDGER_RENEWAL_DONE      1 /* the new key signs, and the service has accepted it */
#define KVX_LEDGER_RENEWAL_IN_DOUBT  2 /* the old key signs; the service may have the new one. Call again */
/* clang-format on */

/* ---- Ledger ----------------------------------------------------------------------------------------------------- */

/* A new ledger without a store. Null when memory is exhausted. */
KVX_EXPORT KVX_HANDLE CreateLedger(void);

/* Closes and destroys the ledger, and the orders under construction that belong to it. Ignores null and anything that
 * is no living ledger. */
KVX_EXPORT void DestroyLedger(KVX_HANDLE ledger);

/* clang-format off */
/* Sets an option of this handle. Options are not stored: give every handle on one store the same ones. Seconds are
 * whole numbers from 0 to 2147483647.
 *
 *   name               default        meaning
 *   CAPTURE            1              1: the worker captures authorised payments, at its start also those of the time
 *                                     with 0. 0: authorised is final
 *   COMPLETE           0              1: the worker completes captured payments. 0: captured is final
 *   CAPTUREIDEMPOTENT  0              1: the service captures and completes a payment once, however often it is asked
 *   STATUSTYPE         ""             type of the request for a payment's state: "Status" sends a "StatusRequest";
 *                                     "": the service has none
 *   STATUSATTRIBUTE    "STATE"        the attribute of its response that holds the state
 *   RESULTATTRIBUTE    "RESULT"       the attribute of a confirmation that holds the result
 *   OPENED             "opened"       the service's word for a payment that nobody has decided, in states
 *   AUTHORISED         "authorised"   its word for paid and not captured, in results and states
 *   CAPTURED           "captured"     its word for captured, in states
 *   COMPLETED          "completed"    its word for completed, in states
 *   DECLINED           "declined"     its word for declined, in results and states
 *   CANCELLED          "cancelled"    its word for cancelled by the shopper, in results and states
 *   EXPIRED            "expired"      its word for not decided in time, in results and states
 *   LAPSED             "lapsed"       its word for an authorisation that ended without a capture, in states
 *   GRACESECONDS       300            pause after a payment's expiry before it is asked about or called expired
 *   ACCEPTSECONDS      2592000        how long after a payment's expiry a confirmation is accepted; 0: for ever
 *   OLDKEYSECONDS      604800         how long an earlier key of the service is accepted, and a confirmation is kept
 *                                     whose key is not the service's yet
 *   LEASESECONDS       300            how long a worker holds a job. Requires: longer than TOTALTIMEOUT in settings.xml
 *                                     and the difference between the clocks of two workers together, which is at most
 *                                     an hour
 *   SETTLESECONDS      60             shortest pause after an exchange in doubt before it is asked about or repeated;
 *                                     the pause after a failure is waited for when it is longer
 *   RETRYBASE          10             pause after the first failure; doubles with each further one
 *   RETRYMAX           3600           longest pause
 *   JITTER             1              1: a pause is a random part of that, half to whole. 0: whole
 *   MAXREFUSALS        5              captures, or completions, that the service refuses in a row before a person has
 *                                     to look
 *   MAXASKS            10             status requests in a row that change nothing before a person has to look, and
 *                                     refused ones in a row before a waiting payment is called expired
 *   MAXDATA            20000          bytes of DATA of a confirmation
 *   KEPTEACH           4              kept confirmations of one attempt
 *   MAXKEPT            10000          kept confirmations of the store
 *   ACKNOWLEDGE        0              1: Ledger_NextPaid returns an order that was reported as paid again after
 *                                     LEASESECONDS, until Ledger_Delivered has been called. 0: reported once
 *   BUSYSECONDS        10             how long to wait for a locked store or a server; counts from the next Ledger_Open
 *   KEYSECRET          ""             under which a renewed key travels through the store to servers with directories of
 *                                     their own; at least 16 bytes; "": it does not travel
 *   NOW                ""             the time in milliseconds, for tests and rehearsals; "": the clock of the store's
 *                                     server, which all share; for a file the system's
 *
 * KVX_E_INVALID_OPTION: no such name, or a value that it does not take. */
/* clang-format on */
KVX_EXPORT int32_t Ledger_SetOption(KVX_HANDLE ledger, char const* name, char const* value);

/* Opens the store, creates or migrates its tables, and records the service's current key. Files.
 *
 * `store`: "sqlite:PATH", a file that is created when its directory exists, readable and writable for its owner only;
 * or "postgresql://USER@HOST/DATABASE", as libpq reads it, for several servers. There the tables stand in the schema
 * tallowin, which is created when the user may. Needs libpq.so.5, which is loaded here.
 *
 * `directory`: the configuration directory of the merchant account. Requires: it has been set up.
 *
 * A ledger that was open is closed first. After a failure the ledger has no store; until one is open every other call
 * but SetOption fails with KVX_E_NO_CONTEXT.
 *
 * KVX_E_LEDGER_CANNOT_OPEN: the file cannot be opened or created, the server cannot be reached or refuses, libpq is not
 * there, or `store` names no kind of store.
 * KVX_E_LEDGER_CONFLICT: the store belongs to another merchant account. One store is of one account: that of the
 * directory that opens it first, by CUSTOMERID in its "config.xml", or VTURL where one of the two has no CUSTOMERID.
 * Any number of directories of that account may open it.
 * KVX_E_LEDGER_VERSION: a newer release has written the store. KVX_E_LEDGER_FORKED: the parent process had the store
 * open when it forked this one. KVX_E_CANNOT_OPEN, KVX_E_NO_CONFIGURATION: the directory has not been set up. */
KVX_EXPORT int32_t Ledger_Open(KVX_HANDLE ledger, char const* store, char const* directory);

/* Copies the reason of this thread's last failed call to a function of this header, in words. It holds no password and
 * no private key. For people and logs; the words may change. KVX_E_NOT_FOUND, leaving `*size` alone: no call of this
 * thread has failed. KVX_E_BUFFER_TOO_SMALL. Any thread. */
KVX_EXPORT int32_t Ledger_GetLastErrorText(int32_t* size, char* buffer);

/* ---- Begin ------------------------------------------------------------------------------------------------------ */

/* An order under construction. Nothing is stored yet. `*out` receives an order, owned by the caller, that is used by
 * the same thread as its ledger. KVX_E_LEDGER_INVALID: number, amount or currency is empty, too long or holds another
 * character. */
KVX_EXPORT int32_t Ledger_CreateOrder(KVX_HANDLE ledger, char const* number, char const* amount, char const* currency,
                                      KVX_HANDLE* out);

/* Destroys the order under construction; what was begun stays. Ignores null and anything that is no living order. */
KVX_EXPORT void DestroyLedgerOrder(KVX_HANDLE order);

/* Sets or replaces an attribute of the order's payment message, such as SUCCESSLINK.
 * KVX_E_LEDGER_INVALID: ORDERID, AMOUNT, CURRENCY, MSGTYPE, KEYID, TOKEN, EXPIRATION and CONFIGPATH are the ledger's or
 * the component's; names have 1 to 64 characters of A-Z a-z 0-9 . - _, the first a letter or _. */
KVX_EXPORT int32_t LedgerOrder_SetAttribute(KVX_HANDLE order, char const* name, char const* value);

/* Begins the payment and copies the signed payment URL for the shopper's browser. Files.
 *
 * Number, amount, currency and attributes, token, expiry, message and URL are on disk before the URL is copied. The
 * same number with the same content returns the same URL, in whichever process, so the call may be repeated: with size
 * 0 first, after a failure, by a second click. When that payment was declined, cancelled or expired, or its time has
 * run out, a new attempt of the same order begins; an earlier attempt can still pay the order.
 *
 * KVX_E_LEDGER_CONFLICT: the number is taken by an order with another amount, currency or attribute; the reason names
 * the first difference. KVX_E_LEDGER_PAID: an attempt has paid the order. The codes of MessageFactory_CreatePayInit and
 * MessageObject_GetURL. KVX_E_BUFFER_TOO_SMALL: the payment has begun all the same. */
KVX_EXPORT int32_t LedgerOrder_Begin(KVX_HANDLE order, int32_t* size, char* url);

/* ---- Confirm ---------------------------------------------------------------------------------------------------- */

/* Examines a confirmation and records what it says. Sends nothing. Files.
 *
 * `messenger`          the way it came, such as "return" or "notification"; stored with it, cut to 64 bytes.
 * `data`, `signature`  the query parameters DATA and SIGNATURE, percent-decoded.
 * `*outcome`           one of the outcomes above, when the result is KVX_OK.
 * `size`, `order`      receive the order's number; "" while the confirmation names none, or is refused before its
 *                      signature has been verified. KVX_LEDGER_NUMBER_SIZE bytes are always enough.
 *
 * Accepted are only messages that a key of the service has signed, of type PayConfirm, with the TOKEN of an attempt,
 * and ORDERID, AMOUNT and CURRENCY of its order, a known result, in time.
 *
 * KVX_OK: the outcome is recorded and on disk. KVX_E_BUFFER_TOO_SMALL: nothing has been recorded; call again with the
 * size returned. Any other code: nothing has been recorded and nothing said about the confirmation; respond 503. */
KVX_EXPORT int32_t Ledger_Confirm(KVX_HANDLE ledger, char const* messenger, char const* data, char const* signature,
                                  int32_t* outcome, int32_t* size, char* order);

/* The reason of this ledger's last Ledger_Confirm: the constant, and a sentence for logs.
 * KVX_E_NOT_FOUND, touching nothing: no confirmation has been examined yet, or the last call failed. */
KVX_EXPORT int32_t Ledger_GetReason(KVX_HANDLE ledger, int32_t* reason, int32_t* size, char* sentence);

/* The name of an outcome without its prefix, such as "PAID_NOW"; static, "" for any other number. Any thread. */
KVX_EXPORT char const* Ledger_GetOutcomeName(int32_t outcome);

/* The same for a reason, such as "WRONG_AMOUNT". */
KVX_EXPORT char const* Ledger_GetReasonName(int32_t reason);

/* Copies the number of one order that is paid and has not been reported: the worker learned it from a status
 * response or a kept confirmation. Each order is reported once, here or as KVX_LEDGER_PAID_NOW, among all processes.
 * Not while the service refuses to capture (capture_refused): a person has to look first.
 *
 * With ACKNOWLEDGE 1 an order is reported here once more whenever LEASESECONDS have passed since the last report, until
 * Ledger_Delivered has been called: each order at least once, also when a program dies between the report and the
 * delivery. Requires: LEASESECONDS is longer than a delivery takes.
 *
 * KVX_E_NOT_FOUND, leaving `*size` alone: there is none. KVX_E_BUFFER_TOO_SMALL: nothing has changed. */
KVX_EXPORT int32_t Ledger_NextPaid(KVX_HANDLE ledger, int32_t* size, char* order);

/* Records that the order has been delivered. It is not reported as paid any more. Recorded once: later calls change
 * nothing. Where the delivery is a change of a database, call this after its commit, and let that change do nothing for
 * an order that it has delivered before: then a delivery happens exactly once.
 *
 * KVX_E_NOT_FOUND: no such order. KVX_E_LEDGER_STATE: the order neither is paid nor has been reported as paid. */
KVX_EXPORT int32_t Ledger_Delivered(KVX_HANDLE ledger, char const* order);

/* ---- Worker ----------------------------------------------------------------------------------------------------- */

/* Does up to `limit` jobs that are due: captures, completions, status requests, kept confirmations. `*done` receives
 * how many were done, those that failed and will be tried again included. 0: nothing is due. Files, network.
 *
 * Any number of workers may run. Each job is leased before anything is sent, and the intent to send is on disk before
 * it is sent, so a worker that dies leaves nothing that another could do twice. What fails without money moved is tried
 * again after a pause. What leaves it open whether money moved becomes `unknown`: it is asked about where STATUSTYPE is
 * set; otherwise repeated where CAPTUREIDEMPOTENT is 1; otherwise left for Ledger_Resolve. A payment about which
 * MAXASKS status requests in a row brought nothing to light is asked about further, and listed for attention. A waiting
 * payment is called expired only when the service has refused MAXASKS of them in a row, with the pauses after failures
 * in between; a confirmation that comes later pays the order all the same.
 *
 * A status response counts when each of TOKEN, ID, ORDERID, AMOUNT and CURRENCY that it has is the payment's, ID as far
 * as it is known; otherwise nothing changes (KVX_E_WRONG_RESPONSE), and the service is asked again. It need not have
 * any of them. It is not signed: use a CAPTUREURL of https, and TLSVERIFY.
 *
 * It also finishes a renewal of the merchant's key that a dead process has left, and takes over one of another server.
 * When that fails, the jobs are done all the same and the function fails afterwards.
 *
 * The result is about the worker itself; the result of each exchange is stored with its order.
 * KVX_E_LEDGER_INVALID: `limit` is less than 1. */
KVX_EXPORT int32_t Ledger_RunDue(KVX_HANDLE ledger, int32_t limit, int32_t* done);

/* Records what a person found out about an order that needs attention: the payment that counts is in `state`,
 * "authorised" (to be captured again), "captured", "completed", "capture_refused" or "cancelled" (given up; a new
 * attempt may pay the order). A payment that is known as paid and was given up stays so when its confirmation arrives;
 * that is stored. One that was waiting can still pay the order.
 * Where the payment that counts cannot be given up, "cancelled" gives up the others of the order that wait and that
 * MAXASKS status requests in a row have not cleared up.
 * "surplus_settled" is about the others: each surplus payment of the order has been voided or paid back at the service.
 * They become "cancelled", and the order needs no attention for them.
 * `note` says why and by whom; it must not be empty.
 *
 * KVX_E_NOT_FOUND: no such order. KVX_E_LEDGER_STATE: the order is in no state that a person may change to `state`, or
 * has no surplus payment.
 * KVX_E_LEDGER_INVALID: an empty note, or no state. */
KVX_EXPORT int32_t Ledger_Resolve(KVX_HANDLE ledger, char const* order, char const* state, char const* note);

/* ---- Renew ------------------------------------------------------------------------------------------------------ */

/* Renews the merchant's key: does what ConfigurationSetup_Reconfigure does, without a moment in which a payment cannot
 * be signed or a confirmation verified. Files, network.
 *
 * `url`, `user`, `password`  as for ConfigurationSetup_Reconfigure. An empty URL keeps the configured address.
 * `outcome`                  one of the constants KVX_LEDGER_RENEWAL_..., also when the function fails; may be null.
 *
 * The set-up is made in the folder ".renewal" of the directory, and the new private key is on disk before its public
 * half is sent. The old key signs until the service has answered with success. Then the files are replaced one by one,
 * keys first and "keys/current" last, so that every process finds files that work together at any moment. Old keys
 * stay: the merchant's in the directory, the service's also for confirmations on their way, see OLDKEYSECONDS.
 *
 * A process that dies leaves the old key in use, or a set-up that the next Ledger_RenewKeys or Ledger_RunDue on this
 * directory finishes; a Ledger_RenewKeys that finishes one does not renew again. When the answer to the publication is
 * lost, the new pair is kept beside the old keys, and the next call publishes another: after its success the service
 * has the key that signs.
 *
 * Of all servers on a store one renews at a time. Servers that share a directory have the new key at once. With
 * KEYSECRET servers with directories of their own take it over in their next Ledger_RunDue, which every one of them has
 * to call; without it each renews a key of its own.
 *
 * KVX_E_LEDGER_BUSY: another process renews, or removes keys; nothing has been done. KVX_E_INVALID_KEY: the service
 * names an own key as its key, or sends another key under an id that is known. KVX_E_FILE_IO: the directory cannot be
 * changed. The codes of ConfigurationSetup_Reconfigure. */
KVX_EXPORT int32_t Ledger_RenewKeys(KVX_HANDLE ledger, char const* url, char const* user, char const* password,
                                    int32_t* outcome);

/* ---- Look up ---------------------------------------------------------------------------------------------------- */

/* Copies the order's state, such as "waiting" or "captured": that of the attempt that paid, else of the newest one.
 * KVX_E_NOT_FOUND: no such order. */
KVX_EXPORT int32_t Ledger_GetState(KVX_HANDLE ledger, char const* order, int32_t* size, char* state);

/* Copies the order with its attempts as JSON. KVX_E_NOT_FOUND: no such order. */
KVX_EXPORT int32_t Ledger_GetOrder(KVX_HANDLE ledger, char const* order, int32_t* size, char* json);

/* Copies up to `limit` orders, in the order in which they were begun, as JSON: {"orders": [...], "next": "NUMBER"}.
 *
 * `filter`  "" all; the name of a state; "paid": an attempt has paid; "untold": what Ledger_NextPaid has yet to
 *           report for the first time;
 *           "undelivered": reported with ACKNOWLEDGE 1, and Ledger_Delivered has not been called;
 *           "surplus": with a surplus payment; "attention": a person has to look (unknown and capture_refused without a
 *           next step of the worker, surplus, what MAXASKS status requests in a row did not clear up, and what is due
 *           and in a state that this release does not know).
 * `after`   the number behind which the page begins; "": the beginning. "next" is the `after` of the next page, null on
 *           the last one.
 *
 * An order whose attempt cannot be read is listed with "state": "damaged" and the reason as "lastReason". The worker
 * steps over it; Ledger_GetOrder fails with KVX_E_LEDGER_DAMAGED.
 *
 * KVX_E_LEDGER_INVALID: `limit` is less than 1 or above 1000, or there is no such filter. KVX_E_NOT_FOUND: no order has
 * the number `after`. */
KVX_EXPORT int32_t Ledger_ListOrders(KVX_HANDLE ledger, char const* filter, char const* after, int32_t limit,
                                     int32_t* size, char* json);

/* Copies the order with every transition as JSON: message, signature, public key, time and cause of each. A third party
 * can verify every signature in it with the program openssl; docs/paid-once.md has the commands.
 * KVX_E_NOT_FOUND: no such order. */
KVX_EXPORT int32_t Ledger_ExportOrder(KVX_HANDLE ledger, char const* order, int32_t* size, char* json);

#ifdef __cplusplus
}
#endif

#endif
