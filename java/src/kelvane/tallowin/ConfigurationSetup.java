package kelvane.tallowin;

import java.lang.ref.Reference;

/**
 * Prepares and maintains the configuration directory of an account: registers it with the payment service, and reads and
 * writes single values of its files.
 *
 * <p>{@link #SetConfiguration} comes first. See the package description for strings, threads and closing.
 */
public final class ConfigurationSetup implements AutoCloseable {
    /** The native object's address; 0 when there is none. Read and written by the native methods. */
    private int m_Handle;

    private final Reclaimer reclaimer;

    /**
     * Makes an object without a directory.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message tells what to do
     */
    public ConfigurationSetup() throws KVXException {
        NativeLibrary.load();
        reclaimer = new Reclaimer(this, handle -> new ConfigurationSetup(handle)::nDestruct);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    /** Stands in for the owner of {@code handle} that is no more. */
    private ConfigurationSetup(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * Chooses the configuration directory, making it when it is missing.
     *
     * @param path the directory; made when it does not exist
     * @throws KVXException when it cannot be made; the code is then the operating system's error number
     */
    public native void SetConfiguration(String path) throws KVXException;

    /**
     * Registers the directory with the payment service: loads configuration and defaults, imports the server's key, makes
     * a new key pair and publishes it. Talks to the service, blocks, and writes files of the directory.
     *
     * @param url      the service's set-up address; empty or null keeps the configured one
     * @param user     the account's user
     * @param password the account's password
     * @throws KVXException when the service cannot be reached or refuses, or a file cannot be written
     */
    public native void Reconfigure(String url, String user, String password) throws KVXException;

    /**
     * Sets an option of this object, for later operations on it. Nothing is stored.
     *
     * @param name  {@code VTAUTOURL}, {@code UserName} or {@code Password}
     * @param value the value
     * @throws KVXException for an unknown name, and when either is null
     */
    public native void SetOption(String name, String value) throws KVXException;

    /**
     * Reads a value.
     *
     * @param file the file's name inside the directory, such as {@code config.xml}
     * @param name the attribute's name; empty or null for the whole file
     * @return the value
     * @throws KVXException when there is no such file or value
     */
    public native String GetAttribute(String file, String name) throws KVXException;

    /**
     * Writes a value. An empty value is never written, and that is no failure.
     *
     * @param file  the file's name inside the directory; it must exist
     * @param name  the attribute's name
     * @param value the value
     * @throws KVXException when the file cannot be read or written, and when an argument is null
     */
    public native void SetAttribute(String file, String name, String value) throws KVXException;

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
}
