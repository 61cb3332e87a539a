package kelvane.tallowin;

/**
 * The result codes, as {@link KVXException#getHR()} returns them.
 *
 * <p>Written by scripts/catalogue from catalogue/errors.json, do not edit.
 */
public enum ResultCode {
    /** The call succeeded. */
    OK(0, "KVX_OK", null, false, true,
            "Yes, at once.",
            "Nothing. After MessageObject_Capture the payment is captured."),

    /** The object has no configuration directory yet. */
    NO_CONTEXT(0x80040201, "KVX_E_NO_CONTEXT", "no context present", false, false,
            "No: the program has to be changed.",
            "Call ConfigurationSetup_SetConfiguration, MessageFactory_Open or MessageObject_Open first."),

    /**
     * A file of the configuration directory cannot be opened for writing: no permission, a read-only file system, a
     * directory in its place, or a key id from the service that is no file name. The text says "not found" in all
     * these cases.
     */
    FILE_NOT_FOUND(0x80040202, "KVX_E_FILE_NOT_FOUND", "file not found", false, false,
            "Not before the cause is removed.",
            "Read the reason of the failure: it has the path and what the system says. Run the set-up as the owner of the directory, on a file system that can be written."),

    /**
     * A file was opened and reading or writing it failed: a full disk, a quota, a failing disk or network file
     * system.
     */
    FILE_IO(0x80040203, "KVX_E_FILE_IO", "file I/O error", false, false,
            "Not before the cause is removed.",
            "Free space, or mend the disk. The old content of the file is still there."),

    /**
     * A file, a message, a confirmation or a response is no document with a KVX element, or exceeds MAXXML or
     * MAXDEPTH.
     */
    INVALID_FORMAT(0x80040204, "KVX_E_INVALID_FORMAT", "invalid file format", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "With a file name in the reason: restore that file. From VerifyPayConfirm: refuse the confirmation. From an exchange: something else than the payment service answers at that address, a login page of a network for example."),

    /**
     * The caller's buffer is too small, or the size is a null pointer; from an exchange: the response is longer than
     * the setting MAXRESPONSE.
     */
    BUFFER_TOO_SMALL(0x80040205, "KVX_E_BUFFER_TOO_SMALL", "the buffer size is too small", false, true,
            "With a larger buffer. When an exchange failed, ask the service for the state of the payment first.",
            "Call again with a buffer of the size returned. From an exchange: ask the service for the state of the payment first, and raise MAXRESPONSE if the response is genuine."),

    /**
     * An address of the service has no "://": the one given to the set-up, or VTAUTOURL, VTURL or CAPTUREURL in
     * "config.xml".
     */
    INVALID_URL(0x80040206, "KVX_E_INVALID_URL", "invalid URL", false, false,
            "Not before the cause is removed.",
            "Write the address in full, with its scheme: https://host/path."),

    /**
     * The option has another name than UserName, Password or VTAUTOURL; with STRICTNAMES also an attribute name with
     * another character than letters, digits, full stop, hyphen and underscore.
     */
    INVALID_OPTION(0x80040207, "KVX_E_INVALID_OPTION", "invalid option", false, false,
            "No: the program has to be changed.",
            "Correct the name."),

    /**
     * The response is a message of another type than the request requires; with STRICTCONFIRM also a confirmation
     * that is no PayConfirm.
     */
    WRONG_RESPONSE(0x80040208, "KVX_E_WRONG_RESPONSE", "request failed", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Compare the address with your provider. A confirmation of another type: refuse it."),

    /** OpenSSL could not make a key or a signature. */
    CRYPTO(0x80040209, "KVX_E_CRYPTO", "cryptographic error", false, false,
            "Not before the cause is removed.",
            "Check that the private key named by \"keys/current\" is whole; repeat the set-up to get a new one. A provider configuration of OpenSSL that forbids RSA or SHA-1 has the same effect."),

    /** There is no address to load the defaults from or to publish the key at. */
    NO_ENDPOINT(0x8004020A, "KVX_E_NO_ENDPOINT", "no endpoint", false, false,
            "Not before the cause is removed.",
            "Give ConfigurationSetup_Reconfigure the address of the configuration service."),

    /**
     * A key file or a signature is no hexadecimal text; in a set-up also a server key that KEYPIN, MINKEYBITS or
     * STRICTKEYS refuses.
     */
    INVALID_KEY(0x8004020B, "KVX_E_INVALID_KEY", "invalid key blob", false, false,
            "Not before the cause is removed.",
            "With a file name in the reason: restore that key, or repeat the set-up. From VerifyPayConfirm without one: refuse the confirmation. In a set-up: compare the service's key with your provider."),

    /**
     * A text that should be hexadecimal holds another character. Internal conversions only; no flat function returns
     * it.
     */
    COMMAND_FAILED(0x8004020C, "KVX_E_COMMAND_FAILED", "command failed", false, false,
            "No: the program has to be changed.",
            "Correct the text."),

    /** There is no such attribute or value; from signing or verifying: there is no such key. */
    NOT_FOUND(0x8004020D, "KVX_E_NOT_FOUND", "requested item was not found", false, false,
            "Not before the cause is removed.",
            "An attribute: test for it before you rely on it. A key while verifying: the confirmation names a key this directory does not have; refuse it, or repeat the set-up when the service has changed its key. A key while signing: repeat the set-up."),

    /** A confirmation names no key, or "keys/current" is empty. */
    NO_KEY_ID(0x8004020E, "KVX_E_NO_KEY_ID", "no key identifier specified", false, false,
            "Not before the cause is removed.",
            "A confirmation: refuse it. Otherwise repeat the set-up."),

    /**
     * "config.xml" lacks the value that the call needs, such as VTURL or CAPTUREURL; in a set-up: no address of the
     * configuration service is known.
     */
    NO_CONFIGURATION(0x8004020F, "KVX_E_NO_CONFIGURATION", "no configuration found", false, false,
            "Not before the cause is removed.",
            "Repeat the set-up with the address of the configuration service."),

    /** The public key to be published is not in "keys/public". */
    KEY_NOT_FOUND(0x80040210, "KVX_E_KEY_NOT_FOUND", "the requested key was not found", false, false,
            "Not before the cause is removed.",
            "Repeat the set-up; another program may have removed the file meanwhile."),

    /**
     * The object is not in the state that the call needs: an empty message, a payment URL of a message that is not
     * outgoing, a capture without TOKEN.
     */
    UNEXPECTED(0x80040211, "KVX_E_UNEXPECTED", "unexpected error", false, false,
            "No: the program has to be changed.",
            "Fill the message first; take the payment URL only from messages of a factory."),

    /** Reserved; never returned. */
    NO_DEFAULT_PATH(0x80040212, "KVX_E_NO_DEFAULT_PATH", "no default path was supplied", false, false,
            "No: the program has to be changed.",
            "Nothing."),

    /** The service refused the request and said why. In a set-up mostly a wrong user or password. */
    SERVER_ERROR(0x80040213, "KVX_E_SERVER_ERROR", "the request failed", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Read the reason of the failure: it has the service's own text. Correct what it names."),

    /**
     * The signature does not belong to this text and key; also a confirmation that KEYPIN, MINKEYBITS, STRICTCONFIRM
     * or STRICTSIG refuses.
     */
    INVALID_SIGNATURE(0x80040214, "KVX_E_INVALID_SIGNATURE", "invalid signature", false, false,
            "Not before the cause is removed.",
            "Ship nothing. Check that DATA and SIGNATURE were percent-decoded exactly once and not changed on the way; otherwise someone has tampered with them."),

    /** The handle is null, destroyed, of another kind or not from this library. */
    BAD_HANDLE(0x80040216, "KVX_E_BAD_HANDLE", null, false, false,
            "No: the program has to be changed.",
            "Correct the program: use a handle between its Create and its Destroy call only."),

    /** The process has no memory left, or a text is longer than a size can say. */
    OUT_OF_MEMORY(0x80040217, "KVX_E_OUT_OF_MEMORY", null, false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Repeat when there is memory again. If it stays, restart the process: OpenSSL does not repeat an initialisation that failed."),

    /** MessageFactory_CreateRequest was called with an empty type. */
    NO_MESSAGE_TYPE(0x80040218, "KVX_E_NO_MESSAGE_TYPE", null, false, false,
            "No: the program has to be changed.",
            "Name the type of the request."),

    /**
     * A file of the configuration directory is missing or cannot be opened. When "keys/current" is missing, the
     * directory has not been set up.
     */
    CANNOT_OPEN(0x80040219, "KVX_E_CANNOT_OPEN", null, false, false,
            "Not before the cause is removed.",
            "Read the reason of the failure: it has the path and what the system says. Set the directory up, or give the shop's user the right to read it."),

    /** VerifyPayConfirm was called with an empty signature. */
    MISSING_SIGNATURE(0x8004021A, "KVX_E_MISSING_SIGNATURE", "missing signature", false, false,
            "Not before the cause is removed.",
            "Refuse the confirmation. When all confirmations fail so, read the query parameter SIGNATURE."),

    /** An index lies beyond the last element. C++ containers only; no flat function returns it. */
    OUT_OF_RANGE(0x80040281, "KVX_E_OUT_OF_RANGE", null, false, false,
            "No: the program has to be changed.",
            "Correct the index."),

    /** The key is in the tree already. C++ containers only; no flat function returns it. */
    DUPLICATE_KEY(0x80040292, "KVX_E_DUPLICATE_KEY", null, false, false,
            "No: the program has to be changed.",
            "Replace the element instead."),

    /** Reserved; never returned. */
    URL_ACCESS_DENIED(0x80070005, "KVX_E_URL_ACCESS_DENIED", "access to URL resource denied", false, false,
            "No: the program has to be changed.",
            "Nothing."),

    /** Reserved; never returned. */
    URL_OBJECT_NOT_FOUND(0x800C0005, "KVX_E_URL_OBJECT_NOT_FOUND", "URL resource not found", false, false,
            "No: the program has to be changed.",
            "Nothing."),

    /** Reserved; never returned. */
    URL_DATA_NOT_FOUND(0x800C0006, "KVX_E_URL_DATA_NOT_FOUND", "URL resource not found", false, false,
            "No: the program has to be changed.",
            "Nothing."),

    /** Reserved; never returned. */
    URL_INVALID_REQUEST(0x800C000C, "KVX_E_URL_INVALID_REQUEST", "invalid URL request", false, false,
            "No: the program has to be changed.",
            "Nothing."),

    /** The server or the proxy answered with an HTTP status other than 200; its number is in the low 12 bits. */
    HTTP_FAMILY(0x80042000, "KVX_E_HTTP_FAMILY", null, true, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Look at the status. Redirects are not followed: write the address that the server really has."),

    /** An address of the service is no URL, or the path of the configuration directory reads like one. */
    HTTP_BAD_URL(0x80042019, "KVX_E_HTTP_BAD_URL", null, false, false,
            "Not before the cause is removed.",
            "Write the address in full: https://host/path."),

    /** The address begins with another scheme than http or https. */
    HTTP_UNKNOWN_SCHEME(0x80042020, "KVX_E_HTTP_UNKNOWN_SCHEME", null, false, false,
            "Not before the cause is removed.",
            "Write http:// or https://."),

    /**
     * The name of the host or of the proxy has no IPv4 address. Also the result for an address that could not be
     * split, such as one without a "/" after the host.
     */
    HTTP_NAME_LOOKUP(0x80042021, "KVX_E_HTTP_NAME_LOOKUP", "DNS lookup failed", false, false,
            "Yes, after a pause.",
            "Compare the host name in the reason with the one you mean. Check the resolver of this machine, and PROXYHOST."),

    /** The response is not HTTP, or it broke off inside its header. */
    HTTP_BAD_REPLY(0x80042022, "KVX_E_HTTP_BAD_REPLY", null, false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Check host, port and scheme: http to a port that expects https has this result."),

    /** The steps of an HTTP session were called out of order. C++ classes only. */
    HTTP_STATE(0x80042023, "KVX_E_HTTP_STATE", null, false, false,
            "No: the program has to be changed.",
            "Call the steps in their order."),

    /** The web server in front of the service wants other credentials (HTTP status 401). */
    HTTP_UNAUTHORIZED(0x80042191, "KVX_E_HTTP_UNAUTHORIZED", "access to URL resource denied", false, false,
            "Not before the cause is removed.",
            "Check user and password of the account. A password with \"@\" or \"?\" does not arrive whole."),

    /** The server does not know the address (HTTP status 404). */
    HTTP_NOT_FOUND(0x80042194, "KVX_E_HTTP_NOT_FOUND", "URL resource not found", false, false,
            "Not before the cause is removed.",
            "Compare the path of the address with your provider."),

    /** The server is overloaded or under maintenance (HTTP status 503). */
    HTTP_UNAVAILABLE(0x800421F7, "KVX_E_HTTP_UNAVAILABLE", "server temporarily unavailable", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Wait some seconds, then minutes."),

    /** A call on a network connection failed; the error number, in BSD numbering, is in the low 12 bits. */
    SOCKET_FAMILY(0x80043000, "KVX_E_SOCKET_FAMILY", null, true, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Check network, firewall, proxy and the limits of this process."),

    /** There is no route to the network of the host or proxy (ENETUNREACH). */
    SOCKET_UNREACHABLE(0x80043033, "KVX_E_SOCKET_UNREACHABLE", "network not reachable", false, true,
            "Yes, after a pause.",
            "Check the network of this machine."),

    /** The connection was aborted by this machine (ECONNABORTED). */
    SOCKET_ABORTED(0x80043035, "KVX_E_SOCKET_ABORTED", "connection aborted", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Ask the service for the state of the payment, then repeat."),

    /** The other side closed the connection abruptly (ECONNRESET). */
    SOCKET_RESET(0x80043036, "KVX_E_SOCKET_RESET", "connection reset", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Ask the service for the state of the payment, then repeat. When it stays: a firewall or proxy in between."),

    /**
     * The host did not answer in time: the system's limit, or CONNECTTIMEOUT, IOTIMEOUT, TOTALTIMEOUT in
     * "settings.xml" (ETIMEDOUT).
     */
    SOCKET_TIMEOUT(0x8004303C, "KVX_E_SOCKET_TIMEOUT", "connection timeout", false, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Ask the service for the state of the payment, then repeat. At the first connection: check host, port and firewall."),

    /** Nothing listens at this host and port (ECONNREFUSED). */
    SOCKET_REFUSED(0x8004303D, "KVX_E_SOCKET_REFUSED", "connection refused", false, false,
            "Yes, after a pause.",
            "Compare host and port in the reason with the ones you mean. An address needs a \"/\" after the port."),

    /**
     * TLS failed. The low 12 bits are OpenSSL's reason (below 0x800), or with TLSVERIFY 0x800 plus OpenSSL's number
     * of what is wrong with the certificate (X509_V_ERR_...).
     */
    TLS_FAMILY(0x80044000, "KVX_E_TLS_FAMILY", null, true, true,
            "Ask the service for the state of the payment first. A set-up may be repeated at once.",
            "Read the reason of the failure. A reason number has a text: openssl errstr 0A000NNN, with the three last digits of the code."),

    /** The database of the ledger failed; the reason has its own words. */
    LEDGER_STORE(0x80045001, "KVX_E_LEDGER_STORE", null, false, false,
            "Yes, after a pause.",
            "Read the reason. The call has changed nothing and may be repeated."),

    /**
     * The store of the ledger cannot be opened or created: its directory is missing, there is no permission, or its
     * name begins with no known kind of store.
     */
    LEDGER_CANNOT_OPEN(0x80045002, "KVX_E_LEDGER_CANNOT_OPEN", null, false, false,
            "Not before the cause is removed.",
            "Correct the name, create the directory, or give the user of the shop access to it."),

    /** Another process kept the store of the ledger locked for longer than BUSYSECONDS. */
    LEDGER_BUSY(0x80045003, "KVX_E_LEDGER_BUSY", null, false, false,
            "Yes, at once.",
            "Repeat the call. When it happens often, look for a program that holds a transaction open."),

    /** The disk of the ledger's store is full, or a quota is reached. Nothing was changed. */
    LEDGER_FULL(0x80045004, "KVX_E_LEDGER_FULL", null, false, false,
            "Not before the cause is removed.",
            "Free space, and repeat the call."),

    /** The store of the ledger, or its directory, cannot be written. */
    LEDGER_READONLY(0x80045005, "KVX_E_LEDGER_READONLY", null, false, false,
            "Not before the cause is removed.",
            "Correct owner and mode of the file and of its directory; mount the file system for writing."),

    /** The file of the ledger is no database of a ledger, or it is damaged. */
    LEDGER_DAMAGED(0x80045006, "KVX_E_LEDGER_DAMAGED", null, false, false,
            "Not before the cause is removed.",
            "Restore it from the backup. Compare with the service what has been paid since."),

    /** A newer release of the ledger has written the store. */
    LEDGER_VERSION(0x80045007, "KVX_E_LEDGER_VERSION", null, false, false,
            "Not before the cause is removed.",
            "Install that release, or a newer one. An older one does not open the store, so that nothing is lost."),

    /** A ledger that a parent process opened was used after fork(), or its store was opened in the child. */
    LEDGER_FORKED(0x80045008, "KVX_E_LEDGER_FORKED", null, false, false,
            "No: the program has to be changed.",
            "Fork first, then create and open a ledger in the child."),

    /**
     * An argument is not acceptable: an order number, amount, currency, attribute, filter, limit or note; the reason
     * says which.
     */
    LEDGER_INVALID(0x80045009, "KVX_E_LEDGER_INVALID", null, false, false,
            "No: the program has to be changed.",
            "Correct the argument."),

    /**
     * The ledger has an order of this number with another amount, currency or attribute; or, when it is opened, the
     * store belongs to another merchant account.
     */
    LEDGER_CONFLICT(0x8004500A, "KVX_E_LEDGER_CONFLICT", null, false, false,
            "No: the program has to be changed.",
            "Use a new number for a new order. For the same order give the same content; the reason names the difference. Give each account a store of its own."),

    /** The order has been paid; there is nothing to begin. */
    LEDGER_PAID(0x8004500B, "KVX_E_LEDGER_PAID", null, false, false,
            "No: the program has to be changed.",
            "Show the order's state to the shopper."),

    /** The order is in no state that a person may change to the one given, or it is not paid and cannot be delivered. */
    LEDGER_STATE(0x8004500C, "KVX_E_LEDGER_STATE", null, false, false,
            "No: the program has to be changed.",
            "Look at the order. The reason has its state."),

    /**
     * The connection to the database server of the ledger's store is lost, and there is no new one within
     * BUSYSECONDS.
     */
    LEDGER_UNREACHABLE(0x8004500D, "KVX_E_LEDGER_UNREACHABLE", null, false, false,
            "Yes, after a pause.",
            "Repeat the call: it connects again. At the notification address respond with 503. Whether the last change was stored is seen by reading the order.");

    private static final int NUMBER_MASK = 0xfff;

    private final int code;
    private final String constant;
    private final String text;
    private final boolean family;
    private final boolean moneyMayHaveMoved;
    private final String retry;
    private final String action;

    ResultCode(int code, String constant, String text, boolean family, boolean moneyMayHaveMoved, String retry,
            String action) {
        this.code = code;
        this.constant = constant;
        this.text = text;
        this.family = family;
        this.moneyMayHaveMoved = moneyMayHaveMoved;
        this.retry = retry;
        this.action = action;
    }

    /**
     * Returns the constant for a result code.
     *
     * @param code a result code
     * @return its constant; for a code with an HTTP status, a socket error or a reason of TLS in its low bits the
     *         family; null for any other code, such as a positive error number of the operating system
     */
    public static ResultCode of(int code) {
        ResultCode familyOfCode = null;
        for (ResultCode candidate : values()) {
            if (candidate.code == code) {
                return candidate;
            }
            if (candidate.family && candidate.code == (code & ~NUMBER_MASK)) {
                familyOfCode = candidate;
            }
        }
        return familyOfCode;
    }

    /**
     * Returns the number.
     *
     * @return the result code; without a number in its low bits for a family
     */
    public int code() {
        return code;
    }

    /**
     * Returns the name in C.
     *
     * @return for example {@code "KVX_E_INVALID_SIGNATURE"}
     */
    public String constant() {
        return constant;
    }

    /**
     * Returns the published text.
     *
     * @return the text, or null for a code without one
     */
    public String text() {
        return text;
    }

    /**
     * Returns whether codes of this constant hold a number of their own in the low 12 bits.
     *
     * @return true for a family
     */
    public boolean isFamily() {
        return family;
    }

    /**
     * Returns whether money may have moved when a capture or an execution failed with this code.
     *
     * @return true when the service may have carried out the request
     */
    public boolean moneyMayHaveMoved() {
        return moneyMayHaveMoved;
    }

    /**
     * Returns whether the call may be repeated.
     *
     * @return a sentence
     */
    public String retry() {
        return retry;
    }

    /**
     * Returns what to do.
     *
     * @return one sentence or more
     */
    public String action() {
        return action;
    }
}
