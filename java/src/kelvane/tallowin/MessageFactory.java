package kelvane.tallowin;

import java.lang.ref.Reference;

/**
 * Makes payment messages and verifies confirmations, for one configuration directory.
 *
 * <p>{@link #Open} comes first. The messages belong to the caller, who closes them; they may outlive the factory. See the
 * package description for strings, threads and closing.
 */
public final class MessageFactory implements AutoCloseable {
    /** The native object's address; 0 when there is none. Read and written by the native methods. */
    private int m_Handle;

    private final Reclaimer reclaimer;

    /**
     * Makes a factory without a directory.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message tells what to do
     */
    public MessageFactory() throws KVXException {
        NativeLibrary.load();
        reclaimer = new Reclaimer(this, handle -> new MessageFactory(handle)::nDestruct);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    /** Stands in for the owner of {@code handle} that is no more. */
    private MessageFactory(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * Chooses the configuration directory. Nothing is read yet, so a wrong path fails in the first call that makes a
     * message.
     *
     * @param path the configuration directory
     * @throws KVXException when memory is exhausted
     */
    public native void Open(String path) throws KVXException;

    /**
     * Starts a payment: a message with a fresh token, the merchant's defaults and an expiration date. Set its attributes,
     * then ask it for its URL.
     *
     * @return the message
     * @throws KVXException when the directory is not usable
     */
    public MessageObject CreatePayInit() throws KVXException {
        MessageObject message = MessageObject.unborn();
        message.m_Handle = message.reclaimer.handle = nCreatePayInit();
        return message;
    }

    /**
     * Verifies what the shopper's browser brought back. Compare order, amount, currency and token of the message with
     * your own before you deliver: the signature alone does not tell which order was paid.
     *
     * <p>Both must arrive here as they were sent. A decoder that replaces what is not well-formed UTF-8, as those of web
     * frameworks do, spoils a message in which a Java shop wrote characters beyond U+FFFF: the signature does not fit.
     *
     * @param data      the parameter {@code DATA} of the return address, percent-decoded
     * @param signature the parameter {@code SIGNATURE}, percent-decoded
     * @return the confirmation
     * @throws KVXException when the signature is missing or does not fit, or the data is no message
     */
    public MessageObject VerifyPayConfirm(String data, String signature) throws KVXException {
        MessageObject message = MessageObject.unborn();
        message.m_Handle = message.reclaimer.handle = nVerifyPayConfirm(data, signature);
        return message;
    }

    /**
     * Makes the message that completes a payment.
     *
     * @param id    the payment's {@code ID}, from its confirmation
     * @param token the payment's {@code TOKEN}, from its confirmation
     * @return the message, ready for {@link MessageObject#Execute}
     * @throws KVXException when the directory is not usable
     */
    public MessageObject CreatePayComplete(String id, String token) throws KVXException {
        MessageObject message = MessageObject.unborn();
        message.m_Handle = message.reclaimer.handle = nCreatePayComplete(id, token);
        return message;
    }

    /**
     * Makes a message of any type.
     *
     * @param type the type; not empty
     * @return the message, ready for {@link MessageObject#Execute}
     * @throws KVXException for an empty type, and when the directory is not usable
     */
    public MessageObject CreateRequest(String type) throws KVXException {
        MessageObject message = MessageObject.unborn();
        message.m_Handle = message.reclaimer.handle = nCreateRequest(type);
        return message;
    }

    /**
     * Destroys the native object; messages stay. A second call does nothing.
     *
     * @throws IllegalStateException when another thread is inside a method of this object, or waits to be; it stays open then
     */
    @Override
    public synchronized void close() {
        if (m_Handle == 0) {
            return;
        }
        try {
            nDestruct();
            // Nothing that can fail comes between: see the field of the reclaimer.
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
