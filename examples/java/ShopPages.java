import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.UUID;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.Executors;
import kelvane.tallowin.KVXException;
import kelvane.tallowin.MessageFactory;
import kelvane.tallowin.MessageObject;

/**
 * The three pages that a shop needs to be paid: pay starts a payment, return receives the shopper, notify the service.
 *
 * <pre>
 * java -cp tallowin.jar ShopPages.java DIRECTORY
 * </pre>
 *
 * DIRECTORY is a configuration directory that is set up. Prints the address of the pages and serves until it is stopped.
 */
public final class ShopPages {
    private static final String AMOUNT = "19.90";
    private static final String CURRENCY = "EUR";
    private static final int MAX_QUERY = 100_000;

    /** The shop refuses a request; the message says why. */
    private static final class RequestError extends Exception {
        private static final long serialVersionUID = 1L;

        private RequestError(String reason) {
            super(reason);
        }
    }

    /** An order. A real shop stores orders in its database, and locks the row where this locks the object. */
    private static final class Order {
        private final String token;
        private boolean isPaid;

        private Order(String token) {
            this.token = token;
        }
    }

    private interface Page {
        void answer(HttpExchange exchange) throws IOException, KVXException, RequestError;
    }

    private final String directory;
    private final HttpServer server;
    private final String address;
    private final Map<String, Order> orders = new ConcurrentHashMap<>();

    private ShopPages(String directory) throws IOException {
        this.directory = directory;
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
        address = "http://127.0.0.1:" + server.getAddress().getPort();
        server.setExecutor(Executors.newFixedThreadPool(8)); // a capture blocks its thread
        serve("/pay", this::pay);
        serve("/return", exchange -> {
            String number = settle(exchange);
            send(exchange, 200, number == null ? "You have not paid. Nothing has been charged."
                                               : "Thank you. Order " + number + " is paid.");
        });
        serve("/notify", exchange -> {
            settle(exchange);
            send(exchange, 200, "");
        });
    }

    /** Starts the payment of a new order. */
    private void pay(HttpExchange exchange) throws IOException, KVXException, RequestError {
        if (!exchange.getRequestMethod().equals("POST")) {
            throw new RequestError("a payment begins with the form of the basket");
        }
        String number = UUID.randomUUID().toString();
        try (MessageFactory factory = new MessageFactory()) {
            factory.Open(directory);
            try (MessageObject payment = factory.CreatePayInit()) {
                payment.SetAttribute("ORDERID", number);
                payment.SetAttribute("AMOUNT", AMOUNT);
                payment.SetAttribute("CURRENCY", CURRENCY);
                payment.SetAttribute("SUCCESSLINK", address + "/return");
                payment.SetAttribute("FAILLINK", address + "/return");
                payment.SetAttribute("BACKLINK", address + "/return");
                payment.SetAttribute("NOTIFYADDRESS", address + "/notify");
                String url = payment.GetURL();
                // The token ties the confirmation to this order: store it before the shopper leaves.
                orders.put(number, new Order(payment.GetAttribute("TOKEN")));
                exchange.getResponseHeaders().set("Location", url);
            }
        }
        send(exchange, 303, "");
    }

    /**
     * Settles the order of the request's confirmation, which comes with the shopper, with the service's notification, or
     * with both at once: the first captures, the others find the order paid. After a failure it stays unpaid, and the
     * next confirmation tries again. Returns the order's number; null when the shopper cancelled or was declined.
     */
    private String settle(HttpExchange exchange) throws KVXException, RequestError {
        Map<String, String> query = queryOf(exchange);
        String data = query.getOrDefault("DATA", "");
        try (MessageFactory factory = new MessageFactory()) {
            factory.Open(directory);
            try (MessageObject confirmation = factory.VerifyPayConfirm(data, query.get("SIGNATURE"))) {
                require(confirmation, "MSGTYPE", "PayConfirm");
                if (!confirmation.GetAttribute("RESULT").equals("authorised")) {
                    return null;
                }
                require(confirmation, "AMOUNT", AMOUNT);
                require(confirmation, "CURRENCY", CURRENCY);
                String number = confirmation.GetAttribute("ORDERID");
                Order order = orders.get(number);
                if (order == null) {
                    throw new RequestError("there is no such order");
                }
                require(confirmation, "TOKEN", order.token);
                synchronized (order) {
                    if (!order.isPaid) {
                        capture(data);
                        order.isPaid = true;
                    }
                }
                return number;
            }
        }
    }

    private void capture(String confirmation) throws KVXException {
        try (MessageObject message = new MessageObject()) {
            message.Open(directory);
            message.FromString(confirmation);
            message.Capture();
        }
    }

    private static void require(MessageObject message, String name, String wanted) throws KVXException, RequestError {
        if (!message.GetAttribute(name).equals(wanted)) {
            throw new RequestError(name + " is not \"" + wanted + "\"");
        }
    }

    private static Map<String, String> queryOf(HttpExchange exchange) throws RequestError {
        String query = exchange.getRequestURI().getRawQuery();
        if (query == null || query.length() > MAX_QUERY) {
            throw new RequestError("the request has no confirmation");
        }
        Map<String, String> parameters = new HashMap<>();
        for (String pair : query.split("&")) {
            String[] parts = pair.split("=", 2);
            parameters.put(parts[0], URLDecoder.decode(parts[parts.length - 1], StandardCharsets.UTF_8));
        }
        return parameters;
    }

    /** The visitor reads a sentence, the log the reason. */
    private void serve(String path, Page page) {
        server.createContext(path, exchange -> {
            try (exchange) {
                try {
                    page.answer(exchange);
                } catch (KVXException | RequestError | IllegalArgumentException failure) {
                    System.err.println(path + ": " + failure.getMessage());
                    send(exchange, 400, "This does not pay an order here.");
                }
            }
        });
    }

    private static void send(HttpExchange exchange, int status, String sentence) throws IOException {
        byte[] page = ("<!DOCTYPE html><title>Shop</title><p>" + sentence + "</p>\n").getBytes(StandardCharsets.UTF_8);
        exchange.getResponseHeaders().set("Content-Type", "text/html; charset=utf-8");
        exchange.sendResponseHeaders(status, page.length);
        exchange.getResponseBody().write(page);
    }

    /** Starts the pages. */
    public static void main(String[] arguments) throws IOException {
        if (arguments.length != 1) {
            System.err.println("usage: java -cp tallowin.jar ShopPages.java DIRECTORY");
            System.exit(2);
        }
        ShopPages pages = new ShopPages(arguments[0]);
        pages.server.start();
        System.out.println(pages.address);
    }
}
