package kelvane.tallowin.ledger;

/**
 * What has become of a renewal of the merchant's key. The names are those of the C interface, without their prefix.
 *
 * <p>The constants are in the order of their numbers in C.
 */
public enum Renewal {
    /** The old key signs, and the service knows no other. */
    UNCHANGED,

    /** The new key signs, and the service has accepted it. */
    DONE,

    /** The old key signs; the service may have the new one. Renew again. */
    IN_DOUBT
}
