import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URI;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.Executors;
import java.util.concurrent.atomic.AtomicInteger;
import kelvane.tallowin.ConfigurationSetup;
import kelvane.tallowin.KVXException;
import kelvane.tallowin.MessageFactory;
import kelvane.tallowin.MessageObject;

/**
 * A web shop with one article, on the web server of the JDK.
 *
 * <pre>
 * TALLOWIN_PASSWORD=... java -cp tallowin.jar Shop.java DIRECTORY SERVICE USER [PORT]
 * </pre>
 *
 * DIRECTORY is the configuration directory of the account, set up when that has not been done yet. SERVICE is the payment
 * service's set-up address, such as http://127.0.0.1:8080/auto of a running tallowin-sandbox. USER is the account's user; a
 * sandbox is born with "demo", password "demo". Without PORT, or with 0, the shop takes a free one.
 *
 * Prints the address to open in a browser and serves until it is stopped.
 */
public final class Shop {
    private static final String AMOUNT = "19.90";
    private static final String CURRENCY = "EUR";
    private static final int CANNOT_OPEN = 0x80040219;
    private static final int MOST_FORM_BYTES = 10_000;

    /** What a shop keeps in its database. */
    private static final class Order {
        private final String number;
        private final String token;

        /** Guarded by this order. */
        private boolean isPaid;

        private Order(String number, String token) {
            this.number = number;
            this.token = token;
        }

        private synchronized String state() {
            return isPaid ? "paid" : "not paid yet";
        }
    }

    /** A request that the shop turns down, and why. */
    private static final class Refusal extends Exception {
        private static final long serialVersionUID = 1L;

        private Refusal(String reason) {
            super(reason);
        }
    }

    /** Answers one kind of request with a page. */
    private interface Page {
        String answer(HttpExchange exchange) throws IOException, KVXException, Refusal;
    }

    private final String directory;
    private final HttpServer server;
    private final AtomicInteger orderCount = new AtomicInteger();
    private final Map<String, Order> orders = new ConcurrentHashMap<>();

    private Shop(String directory, int port) throws IOException {
        this.directory = directory;
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), port), 0);
        server.setExecutor(Executors.newFixedThreadPool(8));
        serve("/", "GET", this::showCatalogue);
        serve("/buy", "POST", this::buy);
        serve("/paid", "GET", this::welcomeBack);
        serve("/failed", "GET", exchange -> "<p>The payment was declined. Nothing has been charged.</p>");
        serve("/back", "GET", exchange -> "<p>You came back without paying. Nothing has been charged.</p>");
    }

    private String address() {
        return "http://127.0.0.1:" + server.getAddress().getPort();
    }

    /** Registers the directory with the service, once in its life: the name of the current key is written last. */
    private static void setUp(String directory, String service, String user, String password) throws KVXException {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(directory);
            try {
                setup.GetAttribute("keys/current", "");
            } catch (KVXException failure) {
                if (failure.getHR() != CANNOT_OPEN) {
                    throw failure;
                }
                setup.Reconfigure(service, user, password);
            }
        }
    }

    private MessageFactory factory() throws KVXException {
        MessageFactory factory = new MessageFactory();
        factory.Open(directory);
        return factory;
    }

    private String showCatalogue(HttpExchange exchange) {
        StringBuilder page = new StringBuilder()
            .append("<p>One candle, ").append(AMOUNT).append(' ').append(CURRENCY).append("</p>")
            .append("<form method=\"post\" action=\"/buy\"><button>Buy</button></form><ul>");
        new TreeMap<>(orders).values().forEach(order ->
            page.append("<li>Order ").append(order.number).append(": ").append(order.state()).append("</li>"));
        return page.append("</ul>").toString();
    }

    /** Starts the payment of a new order and sends the browser to the payment service. */
    private String buy(HttpExchange exchange) throws IOException, KVXException {
        discardForm(exchange);
        String number = Integer.toString(orderCount.incrementAndGet());
        try (MessageFactory factory = factory(); MessageObject payment = factory.CreatePayInit()) {
            payment.SetAttribute("ORDERID", number);
            payment.SetAttribute("AMOUNT", AMOUNT);
            payment.SetAttribute("CURRENCY", CURRENCY);
            payment.SetAttribute("SUCCESSLINK", address() + "/paid");
            payment.SetAttribute("FAILLINK", address() + "/failed");
            payment.SetAttribute("BACKLINK", address() + "/back");
            String url = payment.GetURL();
            orders.put(number, new Order(number, payment.GetAttribute("TOKEN")));
            exchange.getResponseHeaders().set("Location", url);
        }
        return "<p>On to the payment.</p>";
    }

    /** The shopper is back from the payment service and says that the order is paid. */
    private String welcomeBack(HttpExchange exchange) throws KVXException, Refusal {
        Map<String, String> parameters = parametersOf(exchange.getRequestURI());
        String data = parameters.getOrDefault("DATA", "");
        Order order;
        String id;
        try (MessageFactory factory = factory();
             MessageObject message = factory.VerifyPayConfirm(data, parameters.get("SIGNATURE"))) {
            order = orderOf(message);
            id = message.GetAttribute("ID");
        }
        synchronized (order) {
            if (order.isPaid) {
                throw new Refusal("Order " + order.number + " has been paid already");
            }
            // When this fails the order stays unpaid, and reloading the page tries again.
            capture(data);
            order.isPaid = true;
        }
        complete(id, order.token);
        return "<p>Thank you. Order " + order.number + " is paid.</p>";
    }

    /**
     * The order that the verified message pays. A good signature alone proves little: the message must also be a
     * confirmation, of this very payment, over the whole amount, and say that it was paid.
     */
    private Order orderOf(MessageObject message) throws KVXException, Refusal {
        mustBe(message, "MSGTYPE", "PayConfirm");
        Order order = orders.get(message.GetAttribute("ORDERID"));
        if (order == null) {
            throw new Refusal("There is no such order");
        }
        mustBe(message, "TOKEN", order.token);
        mustBe(message, "AMOUNT", AMOUNT);
        mustBe(message, "CURRENCY", CURRENCY);
        mustBe(message, "RESULT", "authorised");
        return order;
    }

    private static void mustBe(MessageObject message, String name, String wanted) throws KVXException, Refusal {
        if (!message.GetAttribute(name).equals(wanted)) {
            throw new Refusal(name + " is not \"" + wanted + "\"");
        }
    }

    /** Takes the money. Only an object that was opened on the directory has our key to sign with. */
    private void capture(String confirmation) throws KVXException {
        try (MessageObject message = new MessageObject()) {
            message.Open(directory);
            message.FromString(confirmation);
            message.Capture();
        }
    }

    /** Tells the service that the order has been dealt with. */
    private void complete(String id, String token) throws KVXException {
        try (MessageFactory factory = factory();
             MessageObject completion = factory.CreatePayComplete(id, token)) {
            completion.Execute().close();
        }
    }

    private void serve(String path, String method, Page page) {
        server.createContext(path, exchange -> {
            try (exchange) {
                if (!exchange.getRequestURI().getPath().equals(path) || !exchange.getRequestMethod().equals(method)) {
                    send(exchange, 404, "<p>There is nothing here.</p>");
                    return;
                }
                try {
                    String body = page.answer(exchange);
                    send(exchange, exchange.getResponseHeaders().containsKey("Location") ? 303 : 200, body);
                } catch (Refusal refusal) {
                    send(exchange, 400, "<p>Refused: " + escape(refusal.getMessage()) + ".</p>");
                } catch (KVXException failure) {
                    send(exchange, 400, "<p>Refused: " + escape(failure.getMessage()) + ".</p>");
                }
            }
        });
    }

    private static void send(HttpExchange exchange, int status, String body) throws IOException {
        byte[] page = ("<!DOCTYPE html><html lang=\"en\"><meta charset=\"utf-8\"><title>Candle shop</title>"
            + "<h1>Candle shop</h1>" + body + "<p><a href=\"/\">To the shop</a></p></html>")
            .getBytes(StandardCharsets.UTF_8);
        exchange.getResponseHeaders().set("Content-Type", "text/html; charset=utf-8");
        exchange.sendResponseHeaders(status, page.length);
        try (OutputStream out = exchange.getResponseBody()) {
            out.write(page);
        }
    }

    private static void discardForm(HttpExchange exchange) throws IOException {
        try (InputStream in = exchange.getRequestBody()) {
            in.readNBytes(MOST_FORM_BYTES);
        }
    }

    private static Map<String, String> parametersOf(URI address) {
        Map<String, String> parameters = new HashMap<>();
        String query = address.getRawQuery() == null ? "" : address.getRawQuery();
        for (String pair : query.split("&")) {
            String[] nameAndValue = pair.split("=", 2);
            parameters.put(nameAndValue[0],
                URLDecoder.decode(nameAndValue[nameAndValue.length - 1], StandardCharsets.UTF_8));
        }
        return parameters;
    }

    private static String escape(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace("\"", "&quot;");
    }

    /** Starts the shop. */
    public static void main(String[] arguments) throws Exception {
        String password = System.getenv("TALLOWIN_PASSWORD");
        if (arguments.length < 3 || arguments.length > 4 || password == null) {
            System.err.println("usage: TALLOWIN_PASSWORD=... java -cp tallowin.jar Shop.java DIRECTORY SERVICE USER [PORT]");
            System.exit(2);
        }
        try {
            setUp(arguments[0], arguments[1], arguments[2], password);
        } catch (KVXException failure) {
            System.err.println(failure.getMessage());
            System.exit(1);
        }
        Shop shop = new Shop(arguments[0], arguments.length == 4 ? Integer.parseInt(arguments[3]) : 0);
        shop.server.start();
        System.out.println("The shop is open at " + shop.address() + "/");
    }
}
