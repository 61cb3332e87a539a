package kelvane.tallowin.ledger;

/**
 * What a confirmation is to an order. The names are those of the C interface, without their prefix.
 *
 * <p>The constants are in the order of their numbers in C.
 */
public enum Outcome {
    /** Not accepted; nothing changed. {@link Confirmation#reason} says why. */
    REFUSED(400),

    /** The order is paid: deliver. Reported once in the life of an order, among all processes. */
    PAID_NOW(200),

    /** Genuine, and recorded before. */
    KNOWN_ALREADY(200),

    /** Genuine: declined, cancelled or expired. */
    NOT_PAID(200),

    /** Genuine, but another attempt has paid the order. It is listed and never captured. */
    SURPLUS(200),

    /** Signed by a key that is not in the directory yet. Stored; the worker tries again after a set-up. */
    KEPT(503);

    private final int httpStatus;

    Outcome(int httpStatus) {
        this.httpStatus = httpStatus;
    }

    /**
     * Returns the status for the response at the notification address.
     *
     * @return 200, 400 or 503
     */
    public int httpStatus() {
        return httpStatus;
    }
}
