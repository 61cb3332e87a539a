/**
 * The order ledger: orders of a shop that are paid exactly once.
 *
 * <p>A confirmation that verifies says that the payment service has taken a payment. It does not say that it is the
 * payment of this order, of this amount, and for the first time. The ledger does that part over a database: it stores
 * what was asked for before the shopper can pay, compares every confirmation with it, reports each order as paid once,
 * and captures in a worker. Three calls make a shop:
 * <ul>
 * <li>{@link kelvane.tallowin.ledger.Ledger#begin} at the check-out returns the payment URL;
 * <li>{@link kelvane.tallowin.ledger.Ledger#confirm} at the return page and at the notification address reports whether
 *     to deliver, and which status to respond with;
 * <li>{@link kelvane.tallowin.ledger.Ledger#runDue} in a job captures, completes, and asks about what is in doubt.
 * </ul>
 *
 * <p>A {@link kelvane.tallowin.ledger.Ledger} owns memory and a connection to the store outside the Java heap. Close it
 * after use. One that is never closed is closed some time after the garbage collector finds it unreachable.
 *
 * <p>Any number of processes and threads may use one store. Each thread should have a ledger of its own: calls on one
 * object run one after the other, and {@link kelvane.tallowin.ledger.Ledger#runDue} waits for the network.
 *
 * <p>Texts reach the ledger as UTF-8. A failure throws a {@link kelvane.tallowin.ledger.LedgerException}. It never means
 * that an order is or is not paid.
 *
 * <p>The native library is not that of the package {@code kelvane.tallowin}, and the system property for it is
 * {@code kelvane.tallowin.ledger.library}. It needs SQLite on the system (libsqlite3). Where it is missing, the
 * constructor throws an {@link java.lang.UnsatisfiedLinkError} with the remedy, and the other package works all the same.
 */
package kelvane.tallowin.ledger;
