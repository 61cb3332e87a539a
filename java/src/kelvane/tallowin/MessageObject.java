package kelvane.tallowin;

import java.lang.ref.Reference;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * One payment message: created by a {@link MessageFactory}, received as a response, or parsed from text.
 *
 * <p>See the package description for strings, threads and closing.
 */
public final class MessageObject implements AutoCloseable {
    /** The handle of the native object; 0 when there is none. The native methods read and write this field. */
    int m_Handle;

    /** Has the same handle as this object. */
    final Reclaimer reclaimer;

    /**
     * Creates an object without a message. Call {@link #Open} or {@link #FromString} next.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message contains the remedy
     */
    public MessageObject() throws KVXException {
        this(NativeObject.CREATED_LATER);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    private enum NativeObject { CREATED_LATER }

    private MessageObject(NativeObject createdLater) {
        NativeLibrary.CORE.load();
        reclaimer = new Reclaimer(this, handle -> new MessageObject(handle)::nDestruct);
    }

    /** Takes over {@code handle} from a collected owner, to destroy its object. */
    private MessageObject(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * A Java object without a native object yet. Everything that can fail in Java happens here, before a native object
     * exists that could leak.
     */
    static MessageObject withoutNativeObject() {
        return new MessageObject(NativeObject.CREATED_LATER);
    }

    /**
     * Binds the message to a configuration directory and resets its content. Its type is {@code ERROR} until
     * {@link #FromString} or {@link #SetAttribute} sets another.
     *
     * @param path the configuration directory
     * @throws KVXException when the directory cannot be used
     */
    public native void Open(String path) throws KVXException;

    /**
     * Sets an attribute. Use only characters from U+0001 to U+FFFF in a payment; see
     * {@link MessageFactory#VerifyPayConfirm}.
     *
     * @param name  the attribute's name, such as {@code AMOUNT}, of the characters {@code A-Z a-z 0-9 . - _}. Any other
     *              name is signed, and reads as something else or not at all. Never take it from a shopper
     * @param value the value
     * @throws KVXException when there is no message yet or an argument is null
     */
    public native void SetAttribute(String name, String value) throws KVXException;

    /**
     * Reads an attribute.
     *
     * @param name the attribute's name, such as {@code AMOUNT}
     * @return the value
     * @throws KVXException when the message has no such attribute
     */
    public native String GetAttribute(String name) throws KVXException;

    /**
     * Signs the message and returns the address to send the shopper's browser to.
     *
     * @return the payment URL
     * @throws KVXException when the message was not created by a factory for sending, or cannot be signed, for example
     *                      because this user may not read the private key
     */
    public native String GetURL() throws KVXException;

    /**
     * Captures the payment that this confirmation authorises. Sends a request to the service and blocks.
     *
     * @throws KVXException when the service cannot be reached or returns an error
     */
    public native void Capture() throws KVXException;

    /**
     * Sends the message to the service and returns the response. Blocks until it arrives.
     *
     * @return the response; the caller closes it
     * @throws KVXException when the service cannot be reached, or returns an error or an unexpected response
     */
    public MessageObject Execute() throws KVXException {
        MessageObject response = withoutNativeObject();
        response.m_Handle = response.reclaimer.handle = nExecute();
        return response;
    }

    /**
     * Replaces the content by a message given as text. The signing key stays. A bare {@code &} in a value deletes the
     * five characters behind it: write {@code &amp;}.
     *
     * @param text the message as text
     * @throws KVXException when the text is not a message
     */
    public native void FromString(String text) throws KVXException;

    /**
     * Returns the message as text.
     *
     * @return the text
     * @throws KVXException when there is no message yet
     */
    public native String ToString() throws KVXException;

    /**
     * Destroys the native object. A second call does nothing.
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

    private native int nExecute() throws KVXException;
}
