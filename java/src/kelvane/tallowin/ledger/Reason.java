package kelvane.tallowin.ledger;

/**
 * Why a confirmation is refused or kept. The names are those of the C interface, without their prefix.
 *
 * <p>The constants are in the order of their numbers in C.
 */
public enum Reason {
    /** Neither refused nor kept. */
    NONE,
    /** More bytes than the option {@code MAXDATA} allows, or a signature of more than 4096. */
    TOO_LARGE,
    /** No message. */
    FORMAT,
    /** Without a signature. */
    NO_SIGNATURE,
    /** Names no key. */
    NO_KEY_ID,
    /** The signature does not fit the text. */
    BAD_SIGNATURE,
    /** Names a key of the merchant, whose messages every shopper has seen. */
    OWN_KEY,
    /** The key is not the service's, or has not been for the option {@code OLDKEYSECONDS}. */
    NOT_SERVICE_KEY,
    /** Not of the type PayConfirm. */
    WRONG_TYPE,
    /** No attempt in this store has that token. */
    UNKNOWN_TOKEN,
    /** The order is not that of the token. */
    WRONG_ORDER,
    /** The amount is not the order's. */
    WRONG_AMOUNT,
    /** The currency is not the order's. */
    WRONG_CURRENCY,
    /** The result is none of the configured words. */
    WRONG_RESULT,
    /** Later than the option {@code ACCEPTSECONDS} allows. */
    TOO_LATE,
    /** This token was paid under another payment ID. */
    OTHER_PAYMENT,
    /** Says unpaid of a payment that is known as paid; the payment stays paid. */
    CONTRADICTS,
    /** Kept: the key is not in the directory. */
    UNKNOWN_KEY,
    /** Not stored: the key is not here, and the options allow no more kept confirmations. */
    KEPT_FULL
}
