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
import java.nio.file.Files;
import java.nio.file.Path;
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
 * A web shop with one article, on the JDK's web server. Shows how to take payments with the Java classes: set-up,
 * payment URL, checks of a confirmation, capture, completion.
 *
 * <pre>
 * TALLOWIN_PASSWORD=... java -cp tallowin.jar Shop.java DIRECTORY SERVICE USER [PORT]
 * </pre>
 *
 * DIRECTORY is the configuration directory of the account; the first start sets it up. SERVICE is the payment service's
 * set-up address, such as http://127.0.0.1:8080/auto of a running tallowin-sandbox. USER is the account's user; a new
 * sandbox has "demo" with password "demo". PORT 0, the default, takes a free port.
 *
 * Prints the address to open in a browser and serves until it is stopped.
 */
public final class Shop {
    private static final String AMOUNT = "19.90";
    private static final String CURRENCY = "EUR";
    private static final int CANNOT_OPEN = 0x80040219;
    private static final int MAX_FORM_BYTES = 10_000;

    /** An order. A real shop stores orders in its database. */
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

    /** The shop refuses a request; the message is a sentence for the visitor. */
    private static final class RequestError extends Exception {
        private static final long serialVersionUID = 1L;

        private RequestError(String reason) {
            super(reason);
        }
    }

    /** Handles one kind of request and returns the page's content. */
    private interface Handler {
        String handle(HttpExchange exchange) throws IOException, KVXException, RequestError;
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
        serve("/paid", "GET", this::handleReturn);
        serve("/failed", "GET", exchange -> "<p>The payment was declined. Nothing has been charged.</p>");
        serve("/back", "GET", exchange -> "<p>You returned without paying. Nothing has been charged.</p>");
    }

    private String address() {
        return "http://127.0.0.1:" + server.getAddress().getPort();
    }

    /**
     * Sets up the directory unless an earlier start did. A set-up writes the current key id last. One that is there and
     * cannot be read ends the program: a new set-up would replace the key. The library has one result for a missing
     * file and for one that cannot be opened.
     */
    private static void setUp(String directory, String service, String user, String password) throws KVXException {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(directory);
            try {
                setup.GetAttribute("keys/current", "");
            } catch (KVXException failure) {
                if (failure.getHR() != CANNOT_OPEN || !Files.notExists(Path.of(directory, "keys", "current"))) {
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

    /** Creates an order, starts its payment and redirects the browser to the payment URL. */
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
        return "<p>Your browser is going to the payment page.</p>";
    }

    /** Handles the return of a shopper after a payment. */
    private String handleReturn(HttpExchange exchange) throws KVXException, RequestError {
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
                throw new RequestError("Order " + order.number + " has been paid already.");
            }
            // After a failure the order stays unpaid; reloading the page tries again.
            capture(data);
            order.isPaid = true;
        }
        complete(id, order.token);
        return "<p>Thank you. Order " + order.number + " is paid.</p>";
    }

    /**
     * Returns the order that the verified message pays. A valid signature is not enough: the message must be a
     * confirmation, of this order's payment, of the whole amount, with a result that means paid.
     */
    private Order orderOf(MessageObject message) throws KVXException, RequestError {
        mustBe(message, "MSGTYPE", "PayConfirm");
        Order order = orders.get(message.GetAttribute("ORDERID"));
        if (order == null) {
            throw new RequestError("There is no such order.");
        }
        mustBe(message, "TOKEN", order.token);
        mustBe(message, "AMOUNT", AMOUNT);
        mustBe(message, "CURRENCY", CURRENCY);
        mustBe(message, "RESULT", "authorised");
        return order;
    }

    private static void mustBe(MessageObject message, String name, String wanted) throws KVXException, RequestError {
        if (!message.GetAttribute(name).equals(wanted)) {
            throw new RequestError(name + " is not \"" + wanted + "\".");
        }
    }

    /** Captures the payment. Open gives the object the merchant's signing key. */
    private void capture(String confirmation) throws KVXException {
        try (MessageObject message = new MessageObject()) {
            message.Open(directory);
            message.FromString(confirmation);
            message.Capture();
        }
    }

    /** Completes the payment: reports to the service that the order is fulfilled. */
    private void complete(String id, String token) throws KVXException {
        try (MessageFactory factory = factory();
             MessageObject completion = factory.CreatePayComplete(id, token)) {
            completion.Execute().close();
        }
    }

    private void serve(String path, String method, Handler handler) {
        server.createContext(path, exchange -> {
            try (exchange) {
                if (!exchange.getRequestURI().getPath().equals(path) || !exchange.getRequestMethod().equals(method)) {
                    send(exchange, 404, "<p>This shop has no page at this address.</p>");
                    return;
                }
                try {
                    String body = handler.handle(exchange);
                    send(exchange, exchange.getResponseHeaders().containsKey("Location") ? 303 : 200, body);
                } catch (RequestError error) {
                    send(exchange, 400, "<p>The shop refused this request. " + escape(error.getMessage()) + "</p>");
                } catch (KVXException failure) {
                    send(exchange, 400,
                        "<p>The shop could not process this payment: " + escape(failure.getMessage()) + ".</p>");
                }
            }
        });
    }

    private static void send(HttpExchange exchange, int status, String body) throws IOException {
        byte[] page = ("<!DOCTYPE html><html lang=\"en\"><meta charset=\"utf-8\"><title>Candle shop</title>"
            + "<h1>Candle shop</h1>" + body + "<p><a href=\"/\">Back to the shop</a></p></html>")
            .getBytes(StandardCharsets.UTF_8);
        exchange.getResponseHeaders().set("Content-Type", "text/html; charset=utf-8");
        exchange.sendResponseHeaders(status, page.length);
        try (OutputStream out = exchange.getResponseBody()) {
            out.write(page);
        }
    }

    private static void discardForm(HttpExchange exchange) throws IOException {
        try (InputStream in = exchange.getRequestBody()) {
            in.readNBytes(MAX_FORM_BYTES);
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
