package kelvane.tallowin.ledger;

import kelvane.tallowin.KVXException;
import kelvane.tallowin.ResultCode;

/**
 * A function of the ledger failed. It never means that an order is or is not paid: at the return page and at the
 * notification address respond with 503.
 */
public class LedgerException extends KVXException {
    private static final long serialVersionUID = 1L;

    /** The reason in words; empty when there is none. */
    private final String reason;

    LedgerException(String function, int code, String reason) {
        this.reason = reason;
        putHR(code);
        putErrorMessage(reason.isEmpty() ? function : function + ": " + reason);
    }

    /** A failure like {@code other}, for a subclass. */
    LedgerException(LedgerException other) {
        super();
        reason = other.reason;
        putHR(other.getHR());
        putErrorMessage(other.getErrorMessage());
        initCause(other);
    }

    /**
     * Returns the result code.
     *
     * @return the number, such as {@code 0x80045003} for a locked store
     */
    public int code() {
        return getHR();
    }

    /**
     * Returns the name of the result code in C.
     *
     * @return for example {@code "KVX_E_LEDGER_BUSY"}; empty for a code without a name
     */
    public String name() {
        ResultCode constant = ResultCode.of(getHR());
        return constant == null ? "" : constant.constant();
    }

    /**
     * Returns the reason in words, for logs. It holds no password and no private key. The words may change.
     *
     * @return the reason; empty when there is none
     */
    public String reason() {
        return reason;
    }
}
