package kelvane.tallowin;

/**
 * A failed call, with its result code and text.
 *
 * <p>The result codes are those of the C interface. Nearly all are negative. When a directory cannot be created, the
 * code is the operating system's error number, a small positive number.
 */
public class KVXException extends Exception {
    private static final long serialVersionUID = 1L;

    /** The result code. */
    private int hr;

    /** The text; null when there is none. */
    private String errorMessage;

    /** Creates an exception without code and text. The native methods set both. */
    public KVXException() {
    }

    /**
     * Sets the result code.
     *
     * @param hr the result code
     */
    public void putHR(int hr) {
        this.hr = hr;
    }

    /**
     * Sets the text.
     *
     * @param errorMessage the text; may be null
     */
    public void putErrorMessage(String errorMessage) {
        this.errorMessage = errorMessage;
    }

    /**
     * Returns the result code.
     *
     * @return the result code, such as {@code 0x80040214} for an invalid signature
     */
    public int getHR() {
        return hr;
    }

    /**
     * Returns the library's text: the method that failed, then the reason.
     *
     * @return the text, or null when there is none
     */
    public String getErrorMessage() {
        return errorMessage;
    }

    /**
     * Returns the text followed by the result code in parentheses.
     *
     * @return for example {@code "MessageFactory::Open(): no context (0x80040201)"}
     */
    @Override
    public String getMessage() {
        String code = String.format("0x%08X", hr);
        return errorMessage == null ? code : errorMessage + " (" + code + ")";
    }
}
