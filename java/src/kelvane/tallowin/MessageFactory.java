package kelvane.tallowin;

import java.lang.ref.Reference;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * Creates payment messages and verifies confirmations, for one configuration directory.
 *
 * <p>Call {@link #Open} first. The caller closes the messages; they may outlive the factory. See the package
 * description for strings, threads and closing.
 */
public final class MessageFactory implements AutoCloseable {
    /** The handle of the native object; 0 when there is none. The native methods read and write this field. */
    private int m_Handle;

    private final Reclaimer reclaimer;

    /**
     * Creates a factory without a configuration directory.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message contains the remedy
     */
    public MessageFactory() throws KVXException {
        NativeLibrary.CORE.load();
        reclaimer = new Reclaimer(this, handle -> new MessageFactory(handle)::nDestruct);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    /** Takes over {@code handle} from a collected owner, to destroy its object. */
    private MessageFactory(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * Sets the configuration directory. Reads nothing yet, so a wrong path fails in the first call that creates or
     * verifies a message.
     *
     * @param path the configuration directory
     * @throws KVXException when memory is exhausted
     */
    public native void Open(String path) throws KVXException;

    /**
     * Starts a payment: creates a message with a new token, the merchant's defaults and an expiration date. Set its
     * attributes, then call {@link MessageObject#GetURL}.
     *
     * @return the message
     * @throws KVXException when the directory cannot be used
     */
    public MessageObject CreatePayInit() throws KVXException {
        MessageObject message = MessageObject.withoutNativeObject();
        message.m_Handle = message.reclaimer.handle = nCreatePayInit();
        return message;
    }

    /**
     * Verifies the confirmation in the address to which the shopper's browser returned. Before you deliver, compare
     * order, amount, currency and token of the message with your own: the signature does not show which order was paid.
     *
     * <p>Pass both parameters exactly as they were sent. Decoders of web frameworks replace ill-formed UTF-8. That
     * changes a message in which a Java shop wrote characters beyond U+FFFF, and its signature becomes invalid.
     *
     * @param data      the parameter {@code DATA} of the return address, percent-decoded
     * @param signature the parameter {@code SIGNATURE}, percent-decoded
     * @return the confirmation
     * @throws KVXException when the signature is missing or invalid, or the data is not a message
     */
    public MessageObject VerifyPayConfirm(String data, String signature) throws KVXException {
        MessageObject message = MessageObject.withoutNativeObject();
        message.m_Handle = message.reclaimer.handle = nVerifyPayConfirm(data, signature);
        return message;
    }

    /**
     * Creates the message that completes a payment.
     *
     * @param id    the payment's {@code ID}, from its confirmation
     * @param token the payment's {@code TOKEN}, from its confirmation
     * @return the message, ready for {@link MessageObject#Execute}
     * @throws KVXException when the directory cannot be used
     */
    public MessageObject CreatePayComplete(String id, String token) throws KVXException {
        MessageObject message = MessageObject.withoutNativeObject();
        message.m_Handle = message.reclaimer.handle = nCreatePayComplete(id, token);
        return message;
    }

    /**
     * Creates a message of any type.
     *
     * @param type the type; not empty
     * @return the message, ready for {@link MessageObject#Execute}
     * @throws KVXException when the type is empty or the directory cannot be used
     */
    public MessageObject CreateRequest(String type) throws KVXException {
        MessageObject message = MessageObject.withoutNativeObject();
        message.m_Handle = message.reclaimer.handle = nCreateRequest(type);
        return message;
    }

    /**
     * Destroys the native object; its messages remain usable. A second call does nothing.
     *
     * @throws IllegalStateException when another thread is in a method of this object, or waits to enter one; the
     *                               object stays open
     */
    @Override
    public synchronized void close() {
        if (m_Handle == 0) {
            return;
        }
        try {
            nDestruct();
            // No call between these statements: see Reclaimer.handle.
            reclaimer.handle = 0;
            m_Handle = 0;
        } catch (KVXException inUse) {
            throw new IllegalStateException(inUse.getErrorMessage(), inUse);
        }
        reclaimer.stop();
    }

    private native void nConstruct() throws KVXException;

    private native void nDestruct() throws KVXException;

    private native int nCreatePayInit() throws KVXException;

    private native int nVerifyPayConfirm(String data, String signature) throws KVXException;

    private native int nCreatePayComplete(String id, String token) throws KVXException;

    private native int nCreateRequest(String type) throws KVXException;
}
