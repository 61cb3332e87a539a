package kelvane.tallowin;

import java.lang.ref.Reference;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * Sets up and maintains the configuration directory of an account: registers it with the payment service, and reads and
 * writes single values in its files.
 *
 * <p>Call {@link #SetConfiguration} first. See the package description for strings, threads and closing.
 */
public final class ConfigurationSetup implements AutoCloseable {
    /** The handle of the native object; 0 when there is none. The native methods read and write this field. */
    private int m_Handle;

    private final Reclaimer reclaimer;

    /**
     * Creates an object without a configuration directory.
     *
     * @throws KVXException         when memory is exhausted
     * @throws UnsatisfiedLinkError when the native library cannot be loaded; the message contains the remedy
     */
    public ConfigurationSetup() throws KVXException {
        NativeLibrary.CORE.load();
        reclaimer = new Reclaimer(this, handle -> new ConfigurationSetup(handle)::nDestruct);
        nConstruct();
        reclaimer.handle = m_Handle;
        Reference.reachabilityFence(this);
    }

    /** Takes over {@code handle} from a collected owner, to destroy its object. */
    private ConfigurationSetup(int handle) {
        m_Handle = handle;
        reclaimer = null;
    }

    /**
     * Sets the configuration directory.
     *
     * @param path the directory; created when it does not exist
     * @throws KVXException when it cannot be created; the code is the operating system's error number
     */
    public native void SetConfiguration(String path) throws KVXException;

    /**
     * Registers the directory with the payment service: loads configuration and defaults, imports the service's key,
     * creates a key pair and publishes it. Sends requests to the service, blocks, and writes files in the directory.
     *
     * <p>Run it as the operating system's user that signs later: the new private key is readable for its owner only.
     * Every call leaves one more private key in the directory.
     *
     * <p>User and password become part of a URL, unescaped. With a {@code ?} or a character above U+007F in either, with
     * an {@code @} in the password, or with a password and no user, the request goes to another host, fails, or carries
     * cut credentials.
     *
     * @param url      the set-up address of the service; empty or null for the configured one
     * @param user     the account's user; see above
     * @param password the account's password; see above
     * @throws KVXException when the service cannot be reached or returns an error, or a file cannot be written
     */
    public native void Reconfigure(String url, String user, String password) throws KVXException;

    /**
     * Sets an option for later calls on this object. It is not stored in the directory.
     *
     * @param name  {@code VTAUTOURL}, {@code UserName} or {@code Password}
     * @param value the value
     * @throws KVXException when the name is unknown or an argument is null
     */
    public native void SetOption(String name, String value) throws KVXException;

    /**
     * Reads a value from a file of the directory.
     *
     * @param file the file's name in the directory, such as {@code config.xml}
     * @param name the attribute's name; empty or null for the whole file
     * @return the value
     * @throws KVXException when the file or value does not exist, or the file cannot be read
     */
    public native String GetAttribute(String file, String name) throws KVXException;

    /**
     * Writes a value to a file of the directory. An empty value is ignored without a failure, and so is a name with
     * {@code (.} in it. The file keeps its first {@code KVX} element only.
     *
     * @param file  the name of an existing file in the directory
     * @param name  the attribute's name, of the characters {@code A-Z a-z 0-9 . - _}; any other makes the file unreadable
     *              or sets other values
     * @param value the value
     * @throws KVXException when the file cannot be read or written, or an argument is null
     */
    public native void SetAttribute(String file, String name, String value) throws KVXException;

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
}
