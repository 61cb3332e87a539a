import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;

import java.nio.file.Path;
import kelvane.tallowin.KVXException;
import kelvane.tallowin.MessageFactory;
import kelvane.tallowin.MessageObject;
import org.junit.Before;
import org.junit.ClassRule;
import org.junit.Test;

/** What a shop tests first: paid, declined, too late, and a confirmation with another amount. */
public final class PaymentTest {
    @ClassRule
    public static final SandboxRule SANDBOX = new SandboxRule();

    private SandboxRule.Account account;
    private Order order;

    /** The part of a shop that is tested; yours stands here. */
    private static final class Order {
        private final Path directory;
        final String token;
        final String url;

        Order(Path directory) throws KVXException {
            this.directory = directory;
            try (MessageFactory shop = new MessageFactory()) {
                shop.Open(directory.toString());
                try (MessageObject message = shop.CreatePayInit()) {
                    message.SetAttribute("AMOUNT", "19.90");
                    message.SetAttribute("CURRENCY", "EUR");
                    message.SetAttribute("ORDERID", "A-17");
                    token = message.GetAttribute("TOKEN");
                    url = message.GetURL();
                }
            }
        }

        /** RESULT, TOKEN, AMOUNT and CURRENCY of a confirmation whose signature is valid. */
        String read(SandboxRule.Confirmation confirmation) throws KVXException {
            try (MessageFactory shop = new MessageFactory()) {
                shop.Open(directory.toString());
                try (MessageObject message = shop.VerifyPayConfirm(confirmation.data, confirmation.signature)) {
                    return message.GetAttribute("RESULT") + " " + message.GetAttribute("TOKEN") + " "
                        + message.GetAttribute("AMOUNT") + " " + message.GetAttribute("CURRENCY");
                }
            }
        }

        String paid() {
            return "authorised " + token + " 19.90 EUR";
        }
    }

    @Before
    public void openOrder() throws Exception {
        account = SANDBOX.account();
        order = new Order(account.setUp());
        account.open(order.url);
    }

    @Test
    public void isPaid() throws Exception {
        assertEquals(order.paid(), order.read(account.decide(order.token, "pay")));
        assertEquals("authorised", account.state(order.token));
    }

    @Test
    public void isDeclined() throws Exception {
        assertEquals("declined " + order.token + " 19.90 EUR", order.read(account.decide(order.token, "decline")));
    }

    @Test
    public void isNotPaidInTime() throws Exception {
        account.stepClock(7200);
        assertEquals("expired", account.state(order.token));
    }

    @Test
    public void noticesAnotherAmount() throws Exception {
        account.fault("wrong-amount", "decision");
        String read = order.read(account.decide(order.token, "pay"));
        assertNotEquals(order.paid(), read);
        assertEquals("authorised " + order.token + " 29.90 EUR", read);
    }
}
