package kelvane.tallowin.ledger;

/** A renewal of the merchant's key failed. The old key is in use, and payments go on. */
public final class RenewalException extends LedgerException {
    private static final long serialVersionUID = 1L;

    /** What has become of the renewal. */
    private final Renewal outcome;

    RenewalException(LedgerException failure, Renewal outcome) {
        super(failure);
        this.outcome = outcome;
    }

    /**
     * Returns whether the service may know the new key.
     *
     * @return {@link Renewal#UNCHANGED} or {@link Renewal#IN_DOUBT}
     */
    public Renewal outcome() {
        return outcome;
    }
}
