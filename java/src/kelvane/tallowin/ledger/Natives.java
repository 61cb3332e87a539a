package kelvane.tallowin.ledger;

/**
 * The functions of the ledger in C, nearly one to one.
 *
 * <p>{@code ledger} is a handle. Texts are bytes in UTF-8 without a zero byte and without a terminator. Each function
 * returns the result code. After {@code KVX_OK} the first element of {@code reply} is the text that the function copies,
 * if it copies one; after a failure it is the reason. An array of numbers, and the array for an order's number, are
 * filled without new memory, because some results are reported only once.
 */
final class Natives {
    /** The bytes that an order's number needs, at most. */
    static final int NUMBER_SIZE = 64;

    private Natives() {}

    /** Returns 0 when memory is exhausted. */
    static native long create();

    static native void destroy(long ledger);

    static native int setOption(long ledger, byte[] name, byte[] value, byte[][] reply);

    static native int open(long ledger, byte[] store, byte[] directory, byte[][] reply);

    /** {@code order}: number, amount, currency, then name and value of each attribute. */
    static native int begin(long ledger, byte[][] order, byte[][] reply);

    /**
     * {@code order} receives the number; {@code numbers} its length, the outcome and the reason; {@code reply} the
     * sentence when the confirmation is refused or kept.
     */
    static native int confirm(long ledger, byte[] messenger, byte[] data, byte[] signature, byte[] order, int[] numbers,
                              byte[][] reply);

    /** {@code order} receives the number; {@code numbers} its length. */
    static native int nextPaid(long ledger, byte[] order, int[] numbers, byte[][] reply);

    static native int delivered(long ledger, byte[] order, byte[][] reply);

    /** {@code numbers} receives how many jobs were done. */
    static native int runDue(long ledger, int limit, int[] numbers, byte[][] reply);

    static native int resolve(long ledger, byte[] order, byte[] state, byte[] note, byte[][] reply);

    /** {@code numbers} receives the outcome, also after a failure. */
    static native int renewKeys(long ledger, byte[] url, byte[] user, byte[] password, int[] numbers, byte[][] reply);

    static native int getState(long ledger, byte[] order, byte[][] reply);

    static native int getOrder(long ledger, byte[] order, byte[][] reply);

    static native int exportOrder(long ledger, byte[] order, byte[][] reply);

    static native int listOrders(long ledger, byte[] filter, byte[] after, int limit, byte[][] reply);
}
