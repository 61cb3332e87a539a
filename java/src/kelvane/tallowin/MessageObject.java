package kelvane.tallowin;

import java.lang.ref.Reference;

/**
 * One payment message: made by a {@link MessageFactory}, received as an answer, or built from text.
 *
 * <p>See the package description for strings, threads and closing.
 */
public final class MessageObject implements AutoCloseable {
    /** The native object's address; 0 when there is none. Read and written by the native methods. */
    int m_Handle;

    /** Knows the same handle. */
    final Reclaimer reclaimer;

    /**
     * Makes an empty message; {@link #Open} comes next.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message tells what to do
     */
    public MessageObject() throws KVXException {
        this(Birth.LATER);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    private enum Birth { LATER }

    private MessageObject(Birth later) {
        NativeLibrary.load();
        reclaimer = new Reclaimer(this, handle -> new MessageObject(handle)::nDestruct);
    }

    /** Stands in for the owner of {@code handle} that is no more. */
    private MessageObject(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * An object that will hold a native one. All that Java can refuse happens here, before there is a native object that
     * could be lost.
     */
    static MessageObject unborn() {
        return new MessageObject(Birth.LATER);
    }

    /**
     * Binds the message to a configuration directory and starts it anew, with the type {@code ERROR} until
     * {@link #FromString} or {@link #SetAttribute} fill it.
     *
     * @param path the configuration directory
     * @throws KVXException when the directory is not usable
     */
    public native void Open(String path) throws KVXException;

    /**
     * Sets an attribute. Keep the characters of a payment to U+0001 to U+FFFF; see
     * {@link MessageFactory#VerifyPayConfirm}.
     *
     * @param name  the attribute's name, such as {@code AMOUNT}
     * @param value the value
     * @throws KVXException when there is no message yet, and when either argument is null
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
     * Signs the message and returns the address to which the shopper's browser is sent.
     *
     * @return the payment URL
     * @throws KVXException when the message was not made by a factory for sending, or cannot be signed
     */
    public native String GetURL() throws KVXException;

    /**
     * Captures the payment that this confirmation authorised. Talks to the service and blocks.
     *
     * @throws KVXException when the service cannot be reached or refuses
     */
    public native void Capture() throws KVXException;

    /**
     * Sends the message to the service and returns the answer, which the caller closes. Talks to the service and blocks.
     *
     * @return the answer
     * @throws KVXException when the service cannot be reached, refuses, or answers with something else
     */
    public MessageObject Execute() throws KVXException {
        MessageObject answer = unborn();
        answer.m_Handle = answer.reclaimer.handle = nExecute();
        return answer;
    }

    /**
     * Replaces the message by a text, keeping the signing key.
     *
     * @param text the message as text
     * @throws KVXException when it is no message
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

    private native int nExecute() throws KVXException;
}
