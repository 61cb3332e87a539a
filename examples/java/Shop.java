import com.sun.net.httpserver.HttpExchange;
import com.sun.net.httpserver.HttpServer;
import java.io.IOException;
import java.io.InputStream;
import java.math.BigInteger;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.SecureRandom;
import java.util.HashMap;
import java.util.Map;
import java.util.Optional;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import kelvane.tallowin.ConfigurationSetup;
import kelvane.tallowin.KVXException;
import kelvane.tallowin.ResultCode;
import kelvane.tallowin.ledger.Confirmation;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;
import kelvane.tallowin.ledger.LedgerOrder;
import kelvane.tallowin.ledger.Outcome;

/**
 * A web shop with one article, on the JDK's web server and the order ledger. Written to be copied: three handlers take the
 * payment (buy, return, notification), and one worker captures.
 *
 * <pre>
 * TALLOWIN_PASSWORD=... java -cp tallowin.jar:examples/common/shop Shop.java DIRECTORY SERVICE USER [PORT]
 * </pre>
 *
 * DIRECTORY has the configuration of the account and the orders; the first start sets it up. SERVICE is the payment
 * service's set-up address, such as http://127.0.0.1:8080/auto of a running tallowin-sandbox. USER is the account's user;
 * a new sandbox has "demo" with password "demo". PORT 0, the default, takes a free port. Style sheet and pictures are
 * found on the class path; without them the shop works and looks bare.
 *
 * Prints the address to open in a browser and serves until it is stopped. It may be stopped at any moment: what is paid
 * is in the ledger, and the next start goes on.
 */
public final class Shop {
    private static final String NAME = "Tallow &amp; Wick";
    private static final String ARTICLE = "Beeswax candle";
    private static final String AMOUNT = "19.90";
    private static final String CURRENCY = "EUR";
    private static final int MAX_FORM_BYTES = 10_000;
    private static final int MAX_QUERY = 100_000;
    private static final int THREADS = 8;
    private static final int JOBS = 100;
    private static final int PAUSE_MILLISECONDS = 200;
    private static final int RENEWAL_PAUSE_MILLISECONDS = 10_000;
    private static final SecureRandom RANDOM = new SecureRandom();
    private static final Pattern NUMBER = Pattern.compile("[0-9a-f-]{24}");
    private static final Pattern PAYMENT_ID = Pattern.compile("\"paymentId\": \"([^\"]+)\"");

    /** Without it an exchange with a service that hangs never ends. Shorter than the ledger's LEASESECONDS. */
    private static final String SETTINGS = "<KVX CONNECTTIMEOUT=\"5\" TOTALTIMEOUT=\"20\"/>\n";

    /** The shop refuses a request; the message is a sentence for the visitor. */
    private static final class RequestError extends Exception {
        private static final long serialVersionUID = 1L;

        private final int status;

        private RequestError(int status, String reason) {
            super(reason);
            this.status = status;
        }
    }

    /** Handles one kind of request, with a ledger that no other thread uses. */
    private interface Handler {
        void handle(Ledger orders, HttpExchange exchange) throws IOException, LedgerException, RequestError;
    }

    /** What a visitor reads about an order in a state of the ledger. */
    private enum Notice {
        WAITING("open", "&#8230;", "The shop has no confirmation of a payment yet. If you have paid already, go to the "
            + "payment page again: it leads you back here, and you cannot pay twice.", false),
        CAPTURING("busy", "&#10003;", "Thank you, the order is paid. The payment is being captured. This page renews "
            + "itself.", true),
        ASKING("busy", "?", "Thank you, the order is paid. The payment service did not answer, so the shop asks what it "
            + "has done. This page renews itself.", true),
        COMPLETED("good", "&#10003;", "Thank you. The order is paid and on its way.", false),
        DECLINED("bad", "&#10005;", "The payment was declined. Nothing has been charged.", false),
        CANCELLED("bad", "&#10005;", "You returned without paying. Nothing has been charged.", false),
        EXPIRED("bad", "&#10005;", "The time for this payment is over.", false),
        REFUSED("bad", "!", "The order is paid, but the payment service did not hand over the money. Please call us: we "
            + "settle it together.", false);

        private final String color;
        private final String sign;
        private final String text;
        private final boolean renews;

        Notice(String color, String sign, String text, boolean renews) {
            this.color = color;
            this.sign = sign;
            this.text = text;
            this.renews = renews;
        }

        private static Notice of(String state) {
            switch (state) {
                case "authorised":
                case "capturing":
                case "captured":
                case "completing":
                    return CAPTURING;
                case "unknown":
                case "completion_unknown":
                    return ASKING;
                case "completed":
                    return COMPLETED;
                case "declined":
                    return DECLINED;
                case "cancelled":
                    return CANCELLED;
                case "expired":
                    return EXPIRED;
                case "capture_refused":
                    return REFUSED;
                default:
                    return WAITING;
            }
        }

        /** Whether the visitor may pay, once more or for the first time. */
        private boolean isPayable() {
            return this == WAITING || this == DECLINED || this == CANCELLED || this == EXPIRED;
        }
    }

    private final String directory;
    private final String service;
    private final String user;
    private final String password;
    private final HttpServer server;

    /** A ledger for each thread of the server: one thread at a time uses a ledger. */
    private final BlockingQueue<Ledger> ledgers = new ArrayBlockingQueue<>(THREADS);

    /** A confirmation under a key has arrived that is not in the directory. */
    private volatile boolean needsKey;

    private Shop(String[] arguments, String password) throws IOException {
        directory = arguments[0];
        service = arguments[1];
        user = arguments[2];
        this.password = password;
        int port = arguments.length == 4 ? Integer.parseInt(arguments[3]) : 0;
        server = HttpServer.create(new InetSocketAddress(InetAddress.getLoopbackAddress(), port), 0);
        server.setExecutor(Executors.newFixedThreadPool(THREADS));
        serve("/", "GET", this::showCatalogue);
        serve("/buy", "POST", this::buy);
        for (String path : new String[] {"/paid", "/failed", "/back"}) {
            serve(path, "GET", this::handleReturn);
        }
        serve("/notified", "GET", this::handleNotification);
        serve("/orders/", "GET", this::showOrder);
        for (String file : new String[] {"shop.css", "candle.svg", "flame.svg"}) {
            serveFile(file);
        }
    }

    private String address() {
        return "http://127.0.0.1:" + server.getAddress().getPort();
    }

    // The three handlers and the worker

    /** Begins the payment of an order and redirects the browser to the payment URL, or to the order when it is paid. */
    private void buy(Ledger orders, HttpExchange exchange) throws IOException, LedgerException, RequestError {
        String number = formOf(exchange).get("number");
        if (number == null || !NUMBER.matcher(number).matches()) {
            throw new RequestError(400, "The request did not come from a page of this shop.");
        }
        try {
            redirect(exchange, orders.begin(LedgerOrder.of(number, AMOUNT, CURRENCY)
                .with("SUCCESSLINK", address() + "/paid")
                .with("FAILLINK", address() + "/failed")
                .with("BACKLINK", address() + "/back")
                .with("NOTIFYADDRESS", address() + "/notified")));
        } catch (LedgerException failure) {
            if (failure.code() != ResultCode.LEDGER_PAID.code()) {
                throw failure;
            }
            redirect(exchange, "/orders/" + number);
        }
    }

    /** The confirmation arrives with the visitor. The page of its order shows what became of it. */
    private void handleReturn(Ledger orders, HttpExchange exchange) throws IOException, LedgerException, RequestError {
        Confirmation confirmation = confirm(orders, exchange, "return");
        if (confirmation.outcome() == Outcome.REFUSED) {
            throw new RequestError(400, "The payment confirmation does not pay an order here: " + confirmation.sentence()
                + " (" + confirmation.reason() + ").");
        }
        if (confirmation.outcome() == Outcome.KEPT) {
            String text = "The payment service has signed with a new key, which the shop fetches now. This page renews "
                + "itself.";
            sendMessage(exchange, confirmation.httpStatus(), "One moment, please", text, true);
            return;
        }
        redirect(exchange, "/orders/" + confirmation.order());
    }

    /** The same confirmation arrives from the service, which repeats it until the status is 200. Does not wait for the
     * capture. */
    private void handleNotification(Ledger orders, HttpExchange exchange) throws IOException, LedgerException {
        Confirmation confirmation = confirm(orders, exchange, "notification");
        byte[] outcome = confirmation.outcome().name().getBytes(StandardCharsets.US_ASCII);
        send(exchange, confirmation.httpStatus(), "text/plain", outcome);
    }

    private Confirmation confirm(Ledger orders, HttpExchange exchange, String messenger) throws IOException, LedgerException {
        String query = exchange.getRequestURI().getRawQuery();
        Map<String, String> parameters = parametersOf(query == null || query.length() > MAX_QUERY ? "" : query);
        Confirmation confirmation = orders.confirm(messenger, parameters.get("DATA"), parameters.get("SIGNATURE"));
        needsKey |= confirmation.outcome() == Outcome.KEPT;
        if (confirmation.isPaidNow()) {
            deliver(orders, confirmation.order());
        }
        return confirmation;
    }

    /**
     * Here a shop sends the goods. Called again when the program ends, or the disk is full, before the ledger has heard of
     * it: a file for each order makes the delivery once.
     */
    private void deliver(Ledger orders, String number) throws IOException, LedgerException {
        Files.createDirectories(Path.of(directory, "deliveries"));
        try {
            Files.createFile(Path.of(directory, "deliveries", number));
        } catch (FileAlreadyExistsException delivered) {
            // By a call that the ledger has not heard of.
        }
        orders.delivered(number);
    }

    private Ledger openLedger() throws LedgerException {
        Ledger orders = new Ledger("sqlite:" + directory + "/orders.db", directory);
        String[][] options = {
            // What this payment service offers.
            {"STATUSTYPE", "Status"}, {"COMPLETE", "1"},
            // What is not recorded as delivered is reported again.
            {"ACKNOWLEDGE", "1"},
            // Short pauses, so that a demonstration is worth watching: a shop keeps the ledger's own.
            {"LEASESECONDS", "30"}, {"SETTLESECONDS", "1"}, {"RETRYBASE", "1"}, {"RETRYMAX", "60"}, {"MAXASKS", "3"},
            {"GRACESECONDS", "5"},
        };
        for (String[] option : options) {
            orders.setOption(option[0], option[1]);
        }
        return orders;
    }

    /** Captures and completes what is paid, and delivers what turned out to be paid without a confirmation. */
    private void work(Ledger orders) {
        try {
            deliverPaid(orders); // first, since what runDue throws of a renewal must not hold it up
            orders.runDue(JOBS);
            deliverPaid(orders);
        } catch (LedgerException | IOException failure) {
            System.err.println("worker: " + failure.getMessage()); // the ledger remembers what is due
        }
    }

    private void deliverPaid(Ledger orders) throws IOException, LedgerException {
        for (Optional<String> paid; (paid = orders.nextPaid()).isPresent();) {
            deliver(orders, paid.get());
        }
    }

    /**
     * Fetches a new key of the service, by a renewal of the merchant's; payments go on meanwhile. Visitors can forge
     * confirmations that need one, so there is a pause behind it.
     */
    private void fetchKey(Ledger orders) {
        if (needsKey) {
            needsKey = false;
            try {
                orders.renewKeys(service, user, password);
                Thread.sleep(RENEWAL_PAUSE_MILLISECONDS);
            } catch (LedgerException | InterruptedException failure) {
                System.err.println("set-up: " + failure.getMessage());
            }
        }
    }

    /**
     * Sets up the directory unless an earlier start did. A set-up writes the current key id last. One that is there and
     * cannot be read ends the program: a new set-up would replace the key.
     */
    private void setUpOnce() throws KVXException, IOException {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(directory);
            if (Files.notExists(Path.of(directory, "settings.xml"))) {
                Files.writeString(Path.of(directory, "settings.xml"), SETTINGS);
            }
            if (Files.notExists(Path.of(directory, "keys", "current"))) {
                setup.Reconfigure(service, user, password);
            }
            setup.GetAttribute("keys/current", "");
        }
    }

    // Pages

    private void showCatalogue(Ledger orders, HttpExchange exchange) throws IOException {
        // The number is made with the page: a second click orders nothing twice.
        sendPage(exchange, 200, "Catalogue", "<p class=\"lead\">Warm light for long evenings. Buy a candle, pay on the payment "
            + "service's page, and see what arrives here.</p><div class=\"offers\"><article class=\"card offer\">"
            + "<img src=\"/candle.svg\" alt=\"\" width=\"400\" height=\"300\"><div><h2>" + ARTICLE + "</h2>"
            + "<p>Burns for about forty hours.</p><p class=\"price\">" + AMOUNT + " " + CURRENCY + "</p>"
            + payForm(newNumber(), "Buy") + "</div></article></div>", false);
    }

    private void showOrder(Ledger orders, HttpExchange exchange) throws IOException, LedgerException, RequestError {
        String number = exchange.getRequestURI().getPath().substring("/orders/".length());
        if (!NUMBER.matcher(number).matches()) {
            throw new RequestError(404, "There is no such order.");
        }
        String state;
        try {
            state = orders.getState(number);
        } catch (LedgerException failure) {
            if (failure.code() != ResultCode.NOT_FOUND.code()) {
                throw failure;
            }
            throw new RequestError(404, "There is no such order.");
        }
        Notice notice = Notice.of(state);
        StringBuilder page = new StringBuilder()
            .append("<div class=\"state ").append(notice.color).append("\"><span class=\"sign\" aria-hidden=\"true\">")
            .append(notice.sign).append("</span><div><p>").append(notice.text).append("</p>")
            .append(notice.isPayable() ? payForm(number, notice == Notice.WAITING ? "Go to payment" : "Pay again") : "")
            .append("</div></div><section class=\"card\"><h2>Your order</h2><ul><li>1 &times; ").append(ARTICLE)
            .append("</li></ul><p class=\"total\">Total: ").append(AMOUNT).append(' ').append(CURRENCY).append("</p>");
        if (Files.exists(Path.of(directory, "deliveries", number))) {
            page.append("<p><span aria-hidden=\"true\">&#10003;</span> Handed to the carrier.</p>");
        }
        Matcher payment = PAYMENT_ID.matcher(orders.getOrder(number));
        while (payment.find()) {
            page.append("<p><a href=\"").append(service, 0, service.lastIndexOf('/')).append("/payment?id=")
                .append(escape(payment.group(1))).append("\">This payment at the payment service</a></p>");
        }
        sendPage(exchange, 200, "Order " + number, page.append("</section>").toString(), notice.renews);
    }

    /** Nobody can guess it: the address of an order gives access to it. */
    private static String newNumber() {
        String digits = String.format("%020x", new BigInteger(80, RANDOM));
        return String.join("-", digits.split("(?<=\\G.{4})"));
    }

    private static String payForm(String number, String label) {
        return "<form method=\"post\" action=\"/buy\"><input type=\"hidden\" name=\"number\" value=\"" + number + "\"><button>"
            + label + "</button></form>";
    }

    private static void sendMessage(HttpExchange exchange, int status, String title, String text, boolean renews)
            throws IOException {
        sendPage(exchange, status, title, "<div class=\"card empty\"><p><img src=\"/flame.svg\" alt=\"\"></p><p>" + escape(text)
            + "</p></div>", renews);
    }

    private static void sendPage(HttpExchange exchange, int status, String title, String content, boolean renews)
            throws IOException {
        String page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            + "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            + (renews ? "<meta http-equiv=\"refresh\" content=\"2\">\n" : "")
            + "<title>" + title + " - " + NAME + "</title>\n<link rel=\"stylesheet\" href=\"/shop.css\">\n"
            + "<link rel=\"icon\" href=\"/flame.svg\">\n</head>\n<body>\n<p class=\"notice\"><strong>A demonstration.</strong> "
            + "Nothing is for sale here, and nobody pays real money.</p>\n<header class=\"top\"><a class=\"brand\" href=\"/\">"
            + "<img src=\"/flame.svg\" alt=\"\">" + NAME + "</a><nav aria-label=\"Shop\"><a href=\"/\">Catalogue</a></nav>"
            + "</header>\n<main>\n<h1>" + title + "</h1>\n" + content + "\n</main>\n<footer class=\"bottom\">The light is warm; "
            + "the payments are a rehearsal.</footer>\n</body>\n</html>\n";
        send(exchange, status, "text/html; charset=utf-8", page.getBytes(StandardCharsets.UTF_8));
    }

    // Requests and responses

    private void serve(String path, String method, Handler handler) {
        server.createContext(path, exchange -> {
            try (exchange) {
                String found = exchange.getRequestURI().getPath();
                boolean isPage = path.equals("/orders/") ? found.startsWith(path) : found.equals(path);
                if (!isPage || !exchange.getRequestMethod().equals(method)) {
                    sendMessage(exchange, 404, "Page not found", "This shop has no page at this address.", false);
                    return;
                }
                Ledger orders = ledgers.remove();
                try {
                    handler.handle(orders, exchange);
                } catch (RequestError error) {
                    sendMessage(exchange, error.status, "The shop refused this request", error.getMessage(), false);
                } catch (LedgerException failure) { // nothing is known about a confirmation: the service sends it again
                    System.err.println(path + ": " + failure.getMessage());
                    sendMessage(exchange, 503, "Something went wrong", "Please try again in a minute.", false);
                } finally {
                    ledgers.add(orders);
                }
            }
        });
    }

    private void serveFile(String name) {
        server.createContext("/" + name, exchange -> {
            try (exchange; InputStream file = ClassLoader.getSystemResourceAsStream(name)) {
                send(exchange, file == null ? 404 : 200, name.endsWith(".css") ? "text/css" : "image/svg+xml",
                     file == null ? new byte[0] : file.readAllBytes());
            }
        });
    }

    private static void redirect(HttpExchange exchange, String address) throws IOException {
        exchange.getResponseHeaders().set("Location", address);
        send(exchange, 303, "text/plain", new byte[0]);
    }

    private static void send(HttpExchange exchange, int status, String type, byte[] body) throws IOException {
        exchange.getResponseHeaders().set("Content-Type", type);
        // An order's address gives access to it, so neither caches nor other sites may learn it.
        exchange.getResponseHeaders().set("Cache-Control", "no-store");
        exchange.getResponseHeaders().set("Referrer-Policy", "no-referrer");
        exchange.getResponseHeaders().set("X-Content-Type-Options", "nosniff");
        exchange.getResponseHeaders().set("Content-Security-Policy",
            "default-src 'none'; style-src 'self'; img-src 'self'; frame-ancestors 'none'; base-uri 'none'");
        exchange.sendResponseHeaders(status, body.length == 0 ? -1 : body.length);
        if (body.length > 0) {
            exchange.getResponseBody().write(body);
        }
    }

    private static Map<String, String> formOf(HttpExchange exchange) throws IOException {
        try (InputStream in = exchange.getRequestBody()) {
            return parametersOf(new String(in.readNBytes(MAX_FORM_BYTES), StandardCharsets.US_ASCII));
        }
    }

    private static Map<String, String> parametersOf(String query) {
        Map<String, String> parameters = new HashMap<>();
        for (String pair : query.split("&")) {
            String[] nameAndValue = pair.split("=", 2);
            try {
                parameters.put(nameAndValue[0],
                    URLDecoder.decode(nameAndValue[nameAndValue.length - 1], StandardCharsets.UTF_8));
            } catch (IllegalArgumentException notEncoded) {
                // A parameter that nobody has signed: as if it were not there.
            }
        }
        return parameters;
    }

    private static String escape(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace("\"", "&quot;");
    }

    private void start() throws LedgerException {
        for (int i = 0; i < THREADS; ++i) {
            ledgers.add(openLedger());
        }
        Ledger ofTheWorker = openLedger();
        Ledger ofTheKeys = openLedger();
        // Two threads: a renewal that waits for the service delays no capture.
        ScheduledExecutorService workers = Executors.newScheduledThreadPool(2);
        workers.scheduleWithFixedDelay(() -> work(ofTheWorker), 0, PAUSE_MILLISECONDS, TimeUnit.MILLISECONDS);
        workers.scheduleWithFixedDelay(() -> fetchKey(ofTheKeys), 0, PAUSE_MILLISECONDS, TimeUnit.MILLISECONDS);
        server.start();
        System.out.println("The shop is open at " + address() + "/");
    }

    /** Starts the shop. */
    public static void main(String[] arguments) throws Exception {
        String password = System.getenv("TALLOWIN_PASSWORD");
        if (arguments.length < 3 || arguments.length > 4 || password == null) {
            System.err.println("usage: TALLOWIN_PASSWORD=... java -cp tallowin.jar:examples/common/shop Shop.java "
                + "DIRECTORY SERVICE USER [PORT]");
            System.exit(2);
        }
        Shop shop = new Shop(arguments, password);
        try {
            shop.setUpOnce();
            shop.start();
        } catch (KVXException failure) {
            System.err.println(failure.getMessage());
            System.exit(1);
        }
    }
}
