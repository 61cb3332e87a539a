package kelvane.tallowin.ledger;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.ByteBuffer;
import java.nio.CharBuffer;
import java.nio.charset.CharacterCodingException;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.Objects;
import java.util.Optional;
import kelvane.tallowin.ResultCode;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * One handle on a store of orders and on the configuration directory of an account.
 *
 * <p>Calls on one object run one after the other, so give each thread an object of its own. After {@link #close} every
 * method throws an {@link IllegalStateException}. An argument that is null throws a {@link NullPointerException}, and one
 * with U+0000 or half a surrogate pair an {@link IllegalArgumentException}; {@link #confirm} alone takes any text.
 */
public final class Ledger implements AutoCloseable {
    private static final Cleaner CLEANER = Cleaner.create();

    /** The native object; apart from the ledger, so that the cleaner does not keep the ledger reachable. */
    private static final class NativeLedger implements Runnable {
        /** 0 when there is none. Used by one thread at a time: a holder of the ledger's monitor, or the cleaner. */
        private long handle;

        @Override
        public void run() {
            long owned = handle;
            handle = 0;
            if (owned != 0) {
                Natives.destroy(owned);
            }
        }
    }

    /** Calls one native function. */
    @FunctionalInterface
    private interface Call {
        /** Returns the result code. */
        int run(long ledger, byte[][] reply);
    }

    private final NativeLedger nativeLedger = new NativeLedger();
    private final Cleaner.Cleanable cleanable;

    /**
     * Creates a ledger without a store, for options that {@link #open} needs.
     *
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message contains the remedy
     */
    public Ledger() {
        NativeLibrary.LEDGER.load();
        cleanable = CLEANER.register(this, nativeLedger);
        nativeLedger.handle = Natives.create();
        Reference.reachabilityFence(this);
        if (nativeLedger.handle == 0) {
            throw new OutOfMemoryError("no memory for a ledger");
        }
    }

    /**
     * Creates a ledger and opens the store.
     *
     * @param store     see {@link #open}
     * @param directory see {@link #open}
     * @throws LedgerException      when the store cannot be opened, or the directory has not been set up
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message contains the remedy
     */
    public Ledger(String store, String directory) throws LedgerException {
        this();
        boolean isOpen = false;
        try {
            open(store, directory);
            isOpen = true;
        } finally {
            if (!isOpen) {
                close();
            }
        }
    }

    /**
     * Sets an option of this object. Options are not stored: give every ledger on one store the same ones. The header
     * {@code tallowin/ledger.h} lists them.
     *
     * @param name  such as {@code "STATUSTYPE"}
     * @param value the value
     * @throws LedgerException when there is no such option, or it does not take the value
     */
    public synchronized void setOption(String name, String value) throws LedgerException {
        byte[] nameBytes = bytesOf(name, "name");
        byte[] valueBytes = bytesOf(value, "value");
        call("setOption", (ledger, reply) -> Natives.setOption(ledger, nameBytes, valueBytes, reply));
    }

    /**
     * Opens a store, in place of the one that was open, and creates or migrates its tables.
     *
     * @param store     such as {@code "sqlite:/var/lib/shop/orders.db"}, whose file is created when its directory
     *                  exists, or {@code "postgresql://..."} for a database on a server
     * @param directory the configuration directory of the account, which has been set up
     * @throws LedgerException when the store cannot be opened, or the directory has not been set up; the ledger has no
     *                         store then
     */
    public synchronized void open(String store, String directory) throws LedgerException {
        byte[] storeBytes = bytesOf(store, "store");
        byte[] directoryBytes = bytesOf(directory, "directory");
        call("open", (ledger, reply) -> Natives.open(ledger, storeBytes, directoryBytes, reply));
    }

    /**
     * Begins the payment of an order. Everything about it is on disk before this method returns. The same number with
     * the same content returns the same URL, so the call may be repeated. When the earlier payment was declined, cancelled
     * or expired, a new attempt of the same order begins.
     *
     * @param order number, amount, currency and attributes
     * @return the signed payment URL for the shopper's browser
     * @throws LedgerException among others {@code KVX_E_LEDGER_CONFLICT} when the number is taken by an order with other
     *                         content, {@code KVX_E_LEDGER_PAID} when the order is paid, and
     *                         {@code KVX_E_LEDGER_INVALID} for a text or an attribute that an order does not take
     */
    public synchronized String begin(LedgerOrder order) throws LedgerException {
        String[] texts = order.texts();
        byte[][] bytes = new byte[texts.length][];
        for (int i = 0; i < texts.length; ++i) {
            bytes[i] = bytesOf(texts[i], "a text of the order");
        }
        return textOf(call("begin", (ledger, reply) -> Natives.begin(ledger, bytes, reply)));
    }

    /**
     * Examines a confirmation and records what it says. Sends nothing: captures are the worker's.
     *
     * <p>Data and signature come from a stranger, so this method takes any text, and null for a parameter that the
     * request does not have: they are refused like any other that nobody has signed.
     *
     * @param messenger the way it came, such as {@code "return"} or {@code "notification"}; stored with it
     * @param data      the query parameter {@code DATA}, percent-decoded as UTF-8
     * @param signature the query parameter {@code SIGNATURE}
     * @return the outcome, on disk
     * @throws LedgerException when nothing has been recorded, and nothing is known about the confirmation: respond with
     *                         503
     */
    public synchronized Confirmation confirm(String messenger, String data, String signature) throws LedgerException {
        byte[] messengerBytes = bytesOf(messenger, "messenger");
        byte[] dataBytes = foreignBytesOf(data);
        byte[] signatureBytes = foreignBytesOf(signature);
        byte[] order = new byte[Natives.NUMBER_SIZE];
        int[] numbers = new int[3];
        byte[] sentence = call("confirm", (ledger, reply) ->
                Natives.confirm(ledger, messengerBytes, dataBytes, signatureBytes, order, numbers, reply));
        return new Confirmation(Outcome.values()[numbers[1]], Reason.values()[numbers[2]],
                new String(order, 0, numbers[0], StandardCharsets.US_ASCII), textOf(sentence));
    }

    /**
     * Returns one order that the worker has found paid and that has not been reported. Each order is reported once, here
     * or as {@link Outcome#PAID_NOW}, among all processes; with the option {@code ACKNOWLEDGE}, again and again until
     * {@link #delivered} has been called.
     *
     * @return the number of the order; empty when there is none
     * @throws LedgerException when the store fails
     */
    public synchronized Optional<String> nextPaid() throws LedgerException {
        byte[] order = new byte[Natives.NUMBER_SIZE];
        int[] numbers = {-1};
        call("nextPaid", (ledger, reply) -> {
            int code = Natives.nextPaid(ledger, order, numbers, reply);
            return code == ResultCode.NOT_FOUND.code() ? 0 : code;
        });
        return numbers[0] < 0 ? Optional.empty()
                : Optional.of(new String(order, 0, numbers[0], StandardCharsets.US_ASCII));
    }

    /**
     * Records that an order has been delivered: it is not reported as paid any more. May be called again. Where the
     * delivery is a change of a database, call this after its commit, and let that change do nothing for an order that
     * it has delivered before: then a delivery happens exactly once.
     *
     * @param order the number of the order
     * @throws LedgerException when there is no such order ({@code KVX_E_NOT_FOUND}), or it is neither paid nor has been
     *                         reported as paid ({@code KVX_E_LEDGER_STATE})
     */
    public synchronized void delivered(String order) throws LedgerException {
        byte[] number = bytesOf(order, "order");
        call("delivered", (ledger, reply) -> Natives.delivered(ledger, number, reply));
    }

    /**
     * Does jobs that are due: captures, completions, status requests, kept confirmations. Blocks while the service is
     * asked. The result of each exchange is stored with its order. Any number of workers may run.
     *
     * @param limit how many jobs to do at most; 1 or more
     * @return how many were done, those that failed and will be tried again included; 0 when nothing is due
     * @throws LedgerException when the worker itself fails
     */
    public synchronized int runDue(int limit) throws LedgerException {
        int[] numbers = new int[1];
        call("runDue", (ledger, reply) -> Natives.runDue(ledger, limit, numbers, reply));
        return numbers[0];
    }

    /**
     * Records what a person found out about an order that needs attention.
     *
     * @param order the number of the order
     * @param state {@code "authorised"} (capture again), {@code "captured"}, {@code "completed"},
     *              {@code "capture_refused"} or {@code "cancelled"} (given up); {@code "surplus_settled"}: the surplus
     *              payments have been voided or paid back
     * @param note  why, and by whom; not empty
     * @throws LedgerException when there is no such order, or it is in no state that a person may change
     */
    public synchronized void resolve(String order, String state, String note) throws LedgerException {
        byte[] number = bytesOf(order, "order");
        byte[] name = bytesOf(state, "state");
        byte[] why = bytesOf(note, "note");
        call("resolve", (ledger, reply) -> Natives.resolve(ledger, number, name, why, reply));
    }

    /**
     * Renews the merchant's key: does what {@link kelvane.tallowin.ConfigurationSetup#Reconfigure} does, without a moment
     * in which a payment cannot be signed or a confirmation verified. Blocks while the service is asked.
     *
     * @param url      the set-up address of the service; empty for the configured one
     * @param user     the account's user
     * @param password the account's password; the limits of {@code Reconfigure} hold
     * @return {@link Renewal#DONE} when the new key signs
     * @throws RenewalException when the old key stays in use; {@code KVX_E_LEDGER_BUSY} when another process renews
     */
    public synchronized Renewal renewKeys(String url, String user, String password) throws RenewalException {
        byte[] urlBytes = bytesOf(url, "url");
        byte[] userBytes = bytesOf(user, "user");
        byte[] passwordBytes = bytesOf(password, "password");
        int[] numbers = new int[1];
        try {
            call("renewKeys", (ledger, reply) ->
                    Natives.renewKeys(ledger, urlBytes, userBytes, passwordBytes, numbers, reply));
        } catch (LedgerException failure) {
            throw new RenewalException(failure, Renewal.values()[numbers[0]]);
        } finally {
            Arrays.fill(passwordBytes, (byte) 0);
        }
        return Renewal.values()[numbers[0]];
    }

    /**
     * Returns the state of an order.
     *
     * @param order the number of the order
     * @return such as {@code "waiting"} or {@code "captured"}: that of the attempt that paid, else of the newest one
     * @throws LedgerException when there is no such order ({@code KVX_E_NOT_FOUND}), or the store fails
     */
    public synchronized String getState(String order) throws LedgerException {
        byte[] number = bytesOf(order, "order");
        return textOf(call("getState", (ledger, reply) -> Natives.getState(ledger, number, reply)));
    }

    /**
     * Returns an order with its attempts.
     *
     * @param order the number of the order
     * @return JSON; {@code docs/paid-once.md} lists the members
     * @throws LedgerException when there is no such order ({@code KVX_E_NOT_FOUND}), or the store fails
     */
    public synchronized String getOrder(String order) throws LedgerException {
        byte[] number = bytesOf(order, "order");
        return textOf(call("getOrder", (ledger, reply) -> Natives.getOrder(ledger, number, reply)));
    }

    /**
     * Returns a page of orders, in the order in which they were begun.
     *
     * @param filter empty for all; a state; {@code "paid"}, {@code "untold"}, {@code "undelivered"},
     *               {@code "surplus"} or {@code "attention"}
     * @param after  the member {@code next} of the page before; empty for the first page
     * @param limit  how many orders at most, from 1 to 1000
     * @return JSON with {@code orders} and {@code next}
     * @throws LedgerException when an argument is invalid, or the store fails
     */
    public synchronized String listOrders(String filter, String after, int limit) throws LedgerException {
        byte[] filterBytes = bytesOf(filter, "filter");
        byte[] afterBytes = bytesOf(after, "after");
        return textOf(call("listOrders",
                (ledger, reply) -> Natives.listOrders(ledger, filterBytes, afterBytes, limit, reply)));
    }

    /**
     * Returns an order with every transition: message, signature, public key, time and cause of each.
     *
     * @param order the number of the order
     * @return JSON, whose signatures a third party can verify
     * @throws LedgerException when there is no such order ({@code KVX_E_NOT_FOUND}), or the store fails
     */
    public synchronized String exportOrder(String order) throws LedgerException {
        byte[] number = bytesOf(order, "order");
        return textOf(call("exportOrder", (ledger, reply) -> Natives.exportOrder(ledger, number, reply)));
    }

    /**
     * Closes the store and destroys the native object, after the call that another thread is in. A second call does
     * nothing.
     */
    @Override
    public synchronized void close() {
        cleanable.clean();
    }

    /** Runs {@code call}. Returns the first element of its reply, which may be null. Requires: this object's monitor. */
    private byte[] call(String function, Call call) throws LedgerException {
        byte[][] reply = new byte[1][];
        int code;
        try {
            if (nativeLedger.handle == 0) {
                throw new IllegalStateException("the ledger is closed");
            }
            code = call.run(nativeLedger.handle, reply);
        } finally {
            Reference.reachabilityFence(this);
        }
        if (code != 0) {
            throw new LedgerException("Ledger." + function, code, textOf(reply[0]));
        }
        return reply[0];
    }

    private static String textOf(byte[] bytes) {
        return bytes == null ? "" : new String(bytes, StandardCharsets.UTF_8);
    }

    /** The text in UTF-8. Refuses what would reach the ledger as another text. */
    private static byte[] bytesOf(String text, String what) {
        if (Objects.requireNonNull(text, what).indexOf('\0') >= 0) {
            throw new IllegalArgumentException(what + " contains U+0000");
        }
        try {
            ByteBuffer encoded = StandardCharsets.UTF_8.newEncoder().encode(CharBuffer.wrap(text));
            byte[] bytes = new byte[encoded.remaining()];
            encoded.get(bytes);
            return bytes;
        } catch (CharacterCodingException unpaired) {
            throw new IllegalArgumentException(what + " contains half a surrogate pair", unpaired);
        }
    }

    /** A text that need not be one. What is replaced cannot make a signature fit: it is verified as replaced. */
    private static byte[] foreignBytesOf(String text) {
        return text == null ? new byte[0] : text.replace('\0', '?').getBytes(StandardCharsets.UTF_8);
    }
}
