package kelvane.tallowin.ledger;

import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Objects;

/**
 * What a shopper orders: number, amount, currency, and attributes of the payment message. A value that does not change;
 * nothing is stored before {@link Ledger#begin}.
 */
public final class LedgerOrder {
    private final String number;
    private final String amount;
    private final String currency;
    private final Map<String, String> attributes;

    private LedgerOrder(String number, String amount, String currency, Map<String, String> attributes) {
        this.number = Objects.requireNonNull(number, "number");
        this.amount = Objects.requireNonNull(amount, "amount");
        this.currency = Objects.requireNonNull(currency, "currency");
        this.attributes = attributes;
    }

    /**
     * Returns an order without attributes.
     *
     * @param number   1 to 64 characters from {@code !} to {@code ~}, unique in the store
     * @param amount   1 to 32 such characters; compared as a text, "12.5" is not "12.50"
     * @param currency 1 to 8 such characters
     * @return the order
     */
    public static LedgerOrder of(String number, String amount, String currency) {
        return new LedgerOrder(number, amount, currency, Map.of());
    }

    /**
     * Returns this order with one more attribute, or with another value for one that it has.
     *
     * @param name  1 to 64 of the characters {@code A-Z a-z 0-9 . - _}, the first a letter or {@code _}, such as
     *              {@code SUCCESSLINK}; none that the ledger or the component sets, such as {@code TOKEN}
     * @param value the value
     * @return a new order
     */
    public LedgerOrder with(String name, String value) {
        Map<String, String> more = new LinkedHashMap<>(attributes);
        more.put(Objects.requireNonNull(name, "name"), Objects.requireNonNull(value, "value"));
        return new LedgerOrder(number, amount, currency, more);
    }

    /**
     * Returns the number.
     *
     * @return the number
     */
    public String number() {
        return number;
    }

    /** Number, amount, currency, then name and value of each attribute. */
    String[] texts() {
        String[] texts = new String[3 + 2 * attributes.size()];
        texts[0] = number;
        texts[1] = amount;
        texts[2] = currency;
        int at = 3;
        for (Map.Entry<String, String> attribute : attributes.entrySet()) {
            texts[at++] = attribute.getKey();
            texts[at++] = attribute.getValue();
        }
        return texts;
    }
}
