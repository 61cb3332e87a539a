import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import kelvane.tallowin.ConfigurationSetup;
import kelvane.tallowin.KVXException;
import kelvane.tallowin.MessageFactory;
import kelvane.tallowin.MessageObject;

/**
 * A payment in a few lines, between the two markers. The rest stands for code that a shop already has.
 *
 * <pre>
 * java -cp tallowin.jar Quickstart.java DIRECTORY SERVICE
 * </pre>
 *
 * DIRECTORY is the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
 * SERVICE is the set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto.
 *
 * The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per
 * line, percent-decoded, as a web framework returns them.
 */
public final class Quickstart {
    private String data;
    private String signature;

    /** Ends the program unless attribute {@code name} is {@code wanted}. */
    private static void mustBe(MessageObject message, String name, String wanted) throws KVXException {
        String value = message.GetAttribute(name);
        if (!value.equals(wanted)) {
            System.err.println("not paid: " + name + " is \"" + value + "\", not \"" + wanted + "\"");
            System.exit(1);
        }
    }

    /** A shop redirects the browser to the URL; its return page then receives DATA and SIGNATURE. */
    private void sendShopperTo(String url) throws IOException {
        System.out.println(url);
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
        data = in.readLine();
        signature = in.readLine();
    }

    /** A merchant does this once per account. */
    private static void setUp(String directory, String service) throws KVXException {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(directory);
            setup.Reconfigure(service, "demo", "demo");
        }
    }

    private void pay(String directory) throws KVXException, IOException {
        // [quickstart]
        try (MessageFactory shop = new MessageFactory()) {
            shop.Open(directory);
            String token;
            try (MessageObject order = shop.CreatePayInit()) {
                order.SetAttribute("AMOUNT", "19.90");
                order.SetAttribute("CURRENCY", "EUR");
                token = order.GetAttribute("TOKEN");
                sendShopperTo(order.GetURL()); // the shopper returns with DATA and SIGNATURE
            }
            try (MessageObject paid = shop.VerifyPayConfirm(data, signature)) {
                mustBe(paid, "MSGTYPE", "PayConfirm");
                mustBe(paid, "RESULT", "authorised");
                mustBe(paid, "TOKEN", token);
                mustBe(paid, "AMOUNT", "19.90");
                mustBe(paid, "CURRENCY", "EUR");
            }
            try (MessageObject capture = new MessageObject()) {
                capture.Open(directory);
                capture.FromString(data);
                capture.Capture();
            }
            System.out.println("The payment is captured.");
        }
        // [/quickstart]
    }

    /** Sets up and pays. */
    public static void main(String[] arguments) throws IOException {
        if (arguments.length != 2) {
            System.err.println("usage: java -cp tallowin.jar Quickstart.java DIRECTORY SERVICE");
            System.exit(2);
        }
        try {
            setUp(arguments[0], arguments[1]);
            new Quickstart().pay(arguments[0]);
        } catch (KVXException failure) {
            System.err.println(failure.getMessage());
            System.exit(1);
        }
    }
}
