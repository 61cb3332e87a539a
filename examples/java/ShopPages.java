import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.Optional;
import java.util.UUID;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import kelvane.tallowin.ledger.Confirmation;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;
import kelvane.tallowin.ledger.LedgerOrder;

/**
 * The three pages that a shop needs to be paid, over the order ledger: pay starts a payment, return receives the shopper,
 * notify the service. A worker captures.
 *
 * <pre>
 * java -cp tallowin.jar ShopPages.java DIRECTORY
 * </pre>
 *
 * DIRECTORY is a configuration directory that is set up; the orders are in {@code orders.db} there. Prints the address of
 * the pages, then a line for each delivery, and serves until it is stopped. It may be stopped at any moment: the next
 * start goes on.
 */
public final class ShopPages {
    private static final String AMOUNT = "19.90";
    private static final String CURRENCY = "EUR";
    private static final int MAX_QUERY = 100_000;
    private static final int THREADS = 8;
    private static final int JOBS = 100;
    private static final int PAUSE_MILLISECONDS = 500;

    private interface Page {
        void answer(Ledger orders, HttpExchange exchange) throws IOException, LedgerException;
    }

    private final String directory;
    private final HttpServer server;
    private final String address;

    /** A ledger for each thread of the server: one thread at a time uses a ledger. */
    private final BlockingQueue<Ledger> ledgers = new ArrayBlockingQueue<>(THREADS);

    private ShopPages(String directory) throws IOException, LedgerException {
        this.directory = directory;
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0), 0);
        address = "http://127.0.0.1:" + server.getAddress().getPort();
        server.setExecutor(Executors.newFixedThreadPool(THREADS));
        for (int i = 0; i < THREADS; ++i) {
            ledgers.add(open());
        }
        serve("/pay", this::pay);
        serve("/return", this::showReturn);
        serve("/notify", this::takeNotification);
    }

    private Ledger open() throws LedgerException {
        Ledger orders = new Ledger("sqlite:" + directory + "/orders.db", directory);
        orders.setOption("STATUSTYPE", "Status"); // this service answers questions about a payment
        orders.setOption("ACKNOWLEDGE", "1"); // what is not recorded as delivered is reported again
        orders.setOption("SETTLESECONDS", "1"); // a shop keeps the minute that it takes to be sure
        return orders;
    }

    /** Yours: ship, or send the mail. Called again when the program ends before the ledger has heard of it. */
    private static void deliver(Ledger orders, String number) throws LedgerException {
        System.out.println("deliver " + number);
        orders.delivered(number);
    }

    /** Starts the payment of a new order, which is on disk before the browser is redirected. */
    private void pay(Ledger orders, HttpExchange exchange) throws IOException, LedgerException {
        if (!exchange.getRequestMethod().equals("POST")) {
            refuse(exchange, "a payment begins with the form of the basket");
            return;
        }
        String url = orders.begin(LedgerOrder.of(UUID.randomUUID().toString(), AMOUNT, CURRENCY)
            .with("SUCCESSLINK", address + "/return")
            .with("FAILLINK", address + "/return")
            .with("BACKLINK", address + "/return")
            .with("NOTIFYADDRESS", address + "/notify"));
        exchange.getResponseHeaders().set("Location", url);
        send(exchange, 303, "");
    }

    /** The same confirmation comes with the shopper and from the service, in any order and often; the ledger says once
     * that the order is paid. */
    private static Confirmation confirm(Ledger orders, HttpExchange exchange, String messenger) throws LedgerException {
        Map<String, String> query = queryOf(exchange);
        Confirmation confirmation = orders.confirm(messenger, query.get("DATA"), query.get("SIGNATURE"));
        if (confirmation.isPaidNow()) {
            deliver(orders, confirmation.order());
        }
        return confirmation;
    }

    private void showReturn(Ledger orders, HttpExchange exchange) throws IOException, LedgerException {
        Confirmation confirmation = confirm(orders, exchange, "return");
        switch (confirmation.outcome()) {
            case REFUSED:
                refuse(exchange, confirmation.toString());
                break;
            case KEPT:
                send(exchange, confirmation.httpStatus(), "One moment, please. Reload this page in a minute.");
                break;
            default: // whatever it said, the order may have got further: the notification may have been faster
                send(exchange, 200, sentenceFor(confirmation.order(), orders.getState(confirmation.order())));
        }
    }

    private static String sentenceFor(String order, String state) {
        switch (state) {
            case "waiting":
                return "Order " + order + " is not paid yet.";
            case "declined":
            case "cancelled":
            case "expired":
                return "You have not paid. Nothing has been charged.";
            default:
                return "Thank you. Order " + order + " is paid.";
        }
    }

    /** Answers before the capture. The service repeats what is not answered with 200. */
    private void takeNotification(Ledger orders, HttpExchange exchange) throws IOException, LedgerException {
        Confirmation confirmation = confirm(orders, exchange, "notification");
        if (confirmation.httpStatus() == 200) {
            send(exchange, 200, "");
        } else {
            System.err.println("/notify: " + confirmation);
            send(exchange, confirmation.httpStatus(), "This does not pay an order here.");
        }
    }

    /** Captures what is paid, and delivers what turned out to be paid without a confirmation. May run on many machines. */
    private static void work(Ledger orders) {
        try {
            do { // what runDue throws of a renewal must not hold up deliveries
                for (Optional<String> paid; (paid = orders.nextPaid()).isPresent();) {
                    deliver(orders, paid.get());
                }
            } while (orders.runDue(JOBS) > 0);
        } catch (LedgerException failure) {
            System.err.println("worker: " + failure.getMessage()); // the store remembers what is due
        }
    }

    private static Map<String, String> queryOf(HttpExchange exchange) {
        String query = exchange.getRequestURI().getRawQuery();
        Map<String, String> parameters = new HashMap<>();
        for (String pair : query == null || query.length() > MAX_QUERY ? new String[0] : query.split("&")) {
            String[] parts = pair.split("=", 2);
            parameters.put(parts[0], URLDecoder.decode(parts[parts.length - 1], StandardCharsets.UTF_8));
        }
        return parameters;
    }

    private void serve(String path, Page page) {
        server.createContext(path, exchange -> {
            Ledger orders = ledgers.remove();
            try (exchange) {
                page.answer(orders, exchange);
            } catch (LedgerException failure) { // nothing is known about the confirmation: the service sends it again
                System.err.println(path + ": " + failure.getMessage());
                send(exchange, 503, "Please try again in a minute.");
            } finally {
                ledgers.add(orders);
            }
        });
    }

    /** The visitor reads a sentence, the log the reason. */
    private static void refuse(HttpExchange exchange, String reason) throws IOException {
        System.err.println(exchange.getHttpContext().getPath() + ": " + reason);
        send(exchange, 400, "This does not pay an order here.");
    }

    private static void send(HttpExchange exchange, int status, String sentence) throws IOException {
        byte[] page = ("<!DOCTYPE html><title>Shop</title><p>" + sentence + "</p>\n").getBytes(StandardCharsets.UTF_8);
        exchange.getResponseHeaders().set("Content-Type", "text/html; charset=utf-8");
        exchange.sendResponseHeaders(status, page.length);
        exchange.getResponseBody().write(page);
    }

    /** Starts the pages and the worker. */
    public static void main(String[] arguments) throws IOException, LedgerException {
        if (arguments.length != 1) {
            System.err.println("usage: java -cp tallowin.jar ShopPages.java DIRECTORY");
            System.exit(2);
        }
        ShopPages pages = new ShopPages(arguments[0]); // a directory that is not set up ends the start
        Ledger ofTheWorker = pages.open();
        pages.server.start();
        System.out.println(pages.address);
        Executors.newSingleThreadScheduledExecutor()
            .scheduleWithFixedDelay(() -> work(ofTheWorker), 0, PAUSE_MILLISECONDS, TimeUnit.MILLISECONDS);
    }
}
