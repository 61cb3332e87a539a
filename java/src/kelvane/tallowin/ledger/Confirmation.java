package kelvane.tallowin.ledger;

/** An examined confirmation. A value: it needs no ledger and may be used by any thread. */
public final class Confirmation {
    private final Outcome outcome;
    private final Reason reason;
    private final String order;
    private final String sentence;

    Confirmation(Outcome outcome, Reason reason, String order, String sentence) {
        this.outcome = outcome;
        this.reason = reason;
        this.order = order;
        this.sentence = sentence;
    }

    /**
     * Returns what the confirmation is to its order.
     *
     * @return the outcome
     */
    public Outcome outcome() {
        return outcome;
    }

    /**
     * Returns whether to deliver.
     *
     * @return true once in the life of an order, among all processes
     */
    public boolean isPaidNow() {
        return outcome == Outcome.PAID_NOW;
    }

    /**
     * Returns the number of the order.
     *
     * @return the number; empty when the confirmation names none, or is refused before its signature has been verified
     */
    public String order() {
        return order;
    }

    /**
     * Returns why the confirmation is refused or kept.
     *
     * @return the reason; {@link Reason#NONE} when it is neither
     */
    public Reason reason() {
        return reason;
    }

    /**
     * Returns the reason in words, for logs. The words may change.
     *
     * @return a sentence; empty when the confirmation is neither refused nor kept
     */
    public String sentence() {
        return sentence;
    }

    /**
     * Returns the status for the response at the notification address.
     *
     * @return 200; 400 when it is refused; 503 when it is kept, so that the service sends it again
     */
    public int httpStatus() {
        return outcome.httpStatus();
    }

    /** Returns the outcome with the order and the sentence, for logs. */
    @Override
    public String toString() {
        return outcome + (order.isEmpty() ? "" : " " + order) + (sentence.isEmpty() ? "" : ": " + sentence);
    }
}
