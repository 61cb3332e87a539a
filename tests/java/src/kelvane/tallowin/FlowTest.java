package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.IOException;
import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import org.junit.Before;
import org.junit.ClassRule;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Complete payments in Java with the sandbox as service: set-up, payment page, confirmation, capture, completion.
 *
 * <p>Each test sets up a new account. Besides payments that succeed, tests cover wrong passwords, declined and
 * cancelled payments, changed confirmations, several threads, and a service that has stopped.
 */
public class FlowTest {
    private static final int THREADS = 4;
    private static final int PAYMENTS = 5;

    @ClassRule
    public static final SandboxProcess SANDBOX = new SandboxProcess();

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(180, TimeUnit.SECONDS);

    private String shop;

    @Before
    public void setUpTheAccount() throws Exception {
        shop = folder.newFolder().toString();
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(shop);
            setup.Reconfigure(SANDBOX.autoUrl(), SandboxProcess.USER, SandboxProcess.PASSWORD);
        }
    }

    /** The parameter decoded as a web server does. */
    private static String decoded(String parameter) {
        return URLDecoder.decode(parameter, StandardCharsets.UTF_8);
    }

    private MessageFactory factory() throws KVXException {
        MessageFactory factory = new MessageFactory();
        factory.Open(shop);
        return factory;
    }

    private MessageObject payment(String order) throws KVXException {
        try (MessageFactory factory = factory()) {
            MessageObject payment = factory.CreatePayInit();
            payment.SetAttribute("SUCCESSLINK", "http://shop.example/paid");
            payment.SetAttribute("FAILLINK", "http://shop.example/failed");
            payment.SetAttribute("BACKLINK", "http://shop.example/back");
            payment.SetAttribute("ORDERID", order);
            payment.SetAttribute("AMOUNT", "12.50");
            payment.SetAttribute("CURRENCY", "EUR");
            return payment;
        }
    }

    private MessageObject verified(String data, String signature) throws KVXException {
        try (MessageFactory factory = factory()) {
            return factory.VerifyPayConfirm(data, signature);
        }
    }

    /** Code and text of the failed verification. */
    private String verifyFailure(String data, String signature) throws Throwable {
        return Failure.of(() -> verified(data, signature).close());
    }

    private void capture(String data) throws KVXException {
        try (MessageObject message = new MessageObject()) {
            message.Open(shop);
            message.FromString(data);
            message.Capture();
        }
    }

    /** The payment's state at the service. */
    private String state(String token) throws KVXException {
        try (MessageFactory factory = factory(); MessageObject request = factory.CreateRequest("Status")) {
            request.SetAttribute("TOKEN", token);
            try (MessageObject answer = request.Execute()) {
                assertEquals("StatusResponse", answer.GetAttribute("MSGTYPE"));
                return answer.GetAttribute("STATE");
            }
        }
    }

    /** Runs one payment from its URL to its completion. Returns its token. */
    private String payInFull(String order) throws KVXException, IOException {
        try (MessageObject payment = payment(order)) {
            String token = payment.GetAttribute("TOKEN");
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "pay");
            assertEquals("http://shop.example/paid", returned.link);
            String data = decoded(returned.data);
            String id;
            try (MessageObject confirmation = verified(data, returned.signature)) {
                assertEquals("PayConfirm", confirmation.GetAttribute("MSGTYPE"));
                assertEquals("authorised", confirmation.GetAttribute("RESULT"));
                assertEquals(token, confirmation.GetAttribute("TOKEN"));
                assertEquals(order, confirmation.GetAttribute("ORDERID"));
                assertEquals("12.50", confirmation.GetAttribute("AMOUNT"));
                assertEquals("EUR", confirmation.GetAttribute("CURRENCY"));
                assertEquals(shop, confirmation.GetAttribute("CONFIGPATH"));
                assertEquals(SANDBOX.serverKeyId(), confirmation.GetAttribute("KEYID"));
                id = confirmation.GetAttribute("ID");
            }
            assertEquals("authorised", state(token));
            capture(data);
            assertEquals("captured", state(token));
            try (MessageFactory factory = factory();
                 MessageObject completion = factory.CreatePayComplete(id, token);
                 MessageObject answer = completion.Execute()) {
                assertEquals("PayCompleteResponse", answer.GetAttribute("MSGTYPE"));
                assertEquals(id, answer.GetAttribute("ID"));
                assertEquals("completed", answer.GetAttribute("STATE"));
            }
            assertEquals("completed", state(token));
            return token;
        }
    }

    @Test
    public void aPaymentGoesFromSetUpToCompletion() throws Exception {
        payInFull("A-17");
    }

    @Test
    public void anOrderWithAnyCharactersOfTheBasicPlaneIsConfirmed() throws Exception {
        payInFull("M\u00fcller & S\u00f6hne");
        payInFull("\u6ce8\u6587 7");
        payInFull("<&>\"' ;+%=?#");
        payInFull("\u20ac\uffff\u0001");
    }

    @Test
    public void anOrderBeyondTheBasicPlaneNeedsJavasOwnDecoding() throws Throwable {
        // Modified UTF-8 has two surrogates of three bytes each, which other decoders reject: DATA must be decoded as
        // modified UTF-8.
        String order = "\ud83d\udcb6 7";
        try (MessageObject payment = payment(order)) {
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "pay");
            assertEquals(Failure.text(0x80040214, "MessageFactory::VerifyPayConfirm(): invalid signature"),
                         verifyFailure(decoded(returned.data), returned.signature));
            try (MessageObject confirmation = verified(decodedAsModifiedUtf8(returned.data), returned.signature)) {
                assertEquals(order, confirmation.GetAttribute("ORDERID"));
            }
        }
    }

    private static String decodedAsModifiedUtf8(String parameter) throws IOException {
        byte[] bytes = URLDecoder.decode(parameter, StandardCharsets.ISO_8859_1).getBytes(StandardCharsets.ISO_8859_1);
        ByteArrayOutputStream counted = new ByteArrayOutputStream();
        counted.write(bytes.length >> 8);
        counted.write(bytes.length);
        counted.write(bytes);
        return new DataInputStream(new ByteArrayInputStream(counted.toByteArray())).readUTF();
    }

    @Test
    public void aWrongPasswordIsRefusedAndWritesNothing() throws Throwable {
        Path other = folder.newFolder().toPath();
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(other.toString());
            assertEquals(Failure.text(0x80040213, "ConfigurationSetup::Reconfigure(): the request failed (the password "
                                      + "of the account 'demo' is another)"),
                         Failure.of(() -> setup.Reconfigure(SANDBOX.autoUrl(), SandboxProcess.USER, "wrong")));
            assertFalse(Files.exists(other.resolve("config.xml")));
            assertFalse(Files.exists(other.resolve("keys/current")));
            setup.Reconfigure(null, SandboxProcess.USER, SandboxProcess.PASSWORD);
            assertEquals("1001", setup.GetAttribute("config.xml", "CUSTOMERID"));
        }
    }

    @Test
    public void theSetUpUsesTheOptions() throws Throwable {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(folder.newFolder().toString());
            setup.SetOption("VTAUTOURL", SANDBOX.autoUrl());
            setup.Reconfigure("", SandboxProcess.USER, SandboxProcess.PASSWORD);
            assertEquals(SANDBOX.autoUrl(), setup.GetAttribute("config.xml", "KVX.VTAUTOURL"));
            assertEquals(SANDBOX.serverKeyId(), setup.GetAttribute("config.xml", "VTKEYID"));
            assertEquals("yes", setup.GetAttribute("default.xml", "KVX.ISVALID"));
            assertTrue(setup.GetAttribute("keys/current", "").startsWith("0-1001-"));
        }
    }

    @Test
    public void aDeclinedPaymentIsConfirmedAsDeclined() throws Throwable {
        try (MessageObject payment = payment("A-18")) {
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "decline");
            assertEquals("http://shop.example/failed", returned.link);
            String data = decoded(returned.data);
            try (MessageObject confirmation = verified(data, returned.signature)) {
                assertEquals("declined", confirmation.GetAttribute("RESULT"));
            }
            assertEquals(Failure.text(0x80040213, "MessageFactory::Capture(): the request failed (the payment is "
                                      + "declined, it cannot be captured)"), Failure.of(() -> capture(data)));
            assertEquals("declined", state(payment.GetAttribute("TOKEN")));
        }
    }

    @Test
    public void aCancelledPaymentIsConfirmedAsCancelled() throws Throwable {
        try (MessageObject payment = payment("A-19")) {
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "cancel");
            assertEquals("http://shop.example/back", returned.link);
            try (MessageObject confirmation = verified(decoded(returned.data), returned.signature);
                 MessageFactory factory = factory();
                 MessageObject completion = factory.CreatePayComplete(confirmation.GetAttribute("ID"),
                                                                      confirmation.GetAttribute("TOKEN"))) {
                assertEquals("cancelled", confirmation.GetAttribute("RESULT"));
                assertEquals(Failure.text(0x80040213, "MessageFactory::Execute(): the request failed (the payment is "
                                          + "cancelled, it cannot be completed)"),
                             Failure.of(() -> completion.Execute().close()));
            }
            assertEquals("cancelled", state(payment.GetAttribute("TOKEN")));
        }
    }

    @Test
    public void aChangedConfirmationIsRefused() throws Throwable {
        Set<String> refusals = Set.of(
            Failure.text(0x80040214, "MessageFactory::VerifyPayConfirm(): invalid signature"),
            Failure.text(0x80040204, "MessageFactory::VerifyPayConfirm(): invalid file format"),
            Failure.text(0x8004020D, "MessageFactory::VerifyPayConfirm(): requested item was not found"),
            Failure.text(0x8004020E, "MessageFactory::VerifyPayConfirm(): no key identifier specified"));
        try (MessageObject payment = payment("M\u00fcller")) {
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "pay");
            String data = decoded(returned.data);
            String signature = returned.signature;
            for (int at = 0; at < data.length(); ++at) {
                String changed = data.substring(0, at) + (char) (data.charAt(at) ^ 1) + data.substring(at + 1);
                String refusal = verifyFailure(changed, signature);
                assertTrue("character " + at + ": " + refusal, refusals.contains(refusal));
            }
            for (int at = 0; at < signature.length(); ++at) {
                char digit = signature.charAt(at) == '7' ? '8' : '7';
                assertEquals(Failure.text(0x80040214, "MessageFactory::VerifyPayConfirm(): invalid signature"),
                             verifyFailure(data, signature.substring(0, at) + digit + signature.substring(at + 1)));
            }
            assertEquals(Failure.text(0x8004020B, "MessageFactory::VerifyPayConfirm(): invalid key blob"),
                         verifyFailure(data, "g" + signature.substring(1)));
            for (String none : new String[] {"", null}) {
                assertEquals(Failure.text(0x8004021A, "MessageFactory::VerifyPayConfirm(): missing signature"),
                             verifyFailure(data, none));
            }
            verified(data, signature).close();
        }
    }

    @Test
    public void theMerchantsOwnPayInitIsRecognisedByItsType() throws Exception {
        // The shopper knows DATA and SIGNATURE of the payment URL and could submit them as a confirmation.
        try (MessageObject payment = payment("A-20")) {
            String url = payment.GetURL();
            try (MessageObject accepted = verified(decoded(SandboxProcess.parameter(url, "DATA")),
                                                   SandboxProcess.parameter(url, "SIGNATURE"))) {
                assertEquals(payment.GetAttribute("TOKEN"), accepted.GetAttribute("TOKEN"));
                assertNotEquals("PayConfirm", accepted.GetAttribute("MSGTYPE"));
            }
        }
    }

    @Test
    public void aConfirmationCannotBeSentUnchanged() throws Throwable {
        try (MessageObject payment = payment("A-21")) {
            SandboxProcess.Returned returned = SANDBOX.visit(payment.GetURL(), "pay");
            try (MessageObject confirmation = verified(decoded(returned.data), returned.signature)) {
                assertEquals(Failure.text(0x8004020D, "MessageFactory::Capture(): requested item was not found"),
                             Failure.of(confirmation::Capture));
                assertEquals(Failure.text(0x80040211, "MessageFactory::GetURL(): unexpected error"),
                             Failure.of(confirmation::GetURL));
            }
            assertEquals("authorised", state(payment.GetAttribute("TOKEN")));
        }
    }

    @Test
    public void severalThreadsPayOnOneDirectoryAtOnce() throws Exception {
        Set<String> tokens = ConcurrentHashMap.newKeySet();
        ExecutorService threads = Executors.newFixedThreadPool(THREADS);
        try {
            List<Future<?>> shoppers = new ArrayList<>();
            for (int number = 0; number < THREADS; ++number) {
                String name = "thread-" + number;
                shoppers.add(threads.submit(() -> {
                    for (int i = 0; i < PAYMENTS; ++i) {
                        tokens.add(payInFull(name + "-" + i));
                    }
                    return null;
                }));
            }
            for (Future<?> shopper : shoppers) {
                shopper.get();
            }
        } finally {
            threads.shutdownNow();
        }
        assertEquals(THREADS * PAYMENTS, tokens.size());
    }

    @Test
    public void aStoppedServiceIsReportedAsAConnectionFailure() throws Throwable {
        SandboxProcess own = new SandboxProcess();
        own.before();
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            shop = folder.newFolder().toString();
            setup.SetConfiguration(shop);
            setup.Reconfigure(own.autoUrl(), SandboxProcess.USER, SandboxProcess.PASSWORD);
            own.stop();
            // Another process may use the port by now, so the addresses are set to a port that refuses connections.
            setup.SetOption("VTAUTOURL", LocalServer.refusingBase() + "/auto");
            setup.SetAttribute("config.xml", "CAPTUREURL", LocalServer.refusingBase() + "/capture");
            assertEquals(Failure.text(0x8004303D, "ConfigurationSetup::Reconfigure(): connection refused (failed to "
                                      + "connect to host)"),
                         Failure.of(() -> setup.Reconfigure("", SandboxProcess.USER, SandboxProcess.PASSWORD)));
            assertEquals(Failure.text(0x8004303D, "MessageFactory::Execute(): connection refused (failed to connect to "
                                      + "host)"), Failure.of(() -> state("none")));
            try (MessageObject payment = payment("A-22")) {
                assertTrue("a payment URL needs no service", payment.GetURL().startsWith("http://127.0.0.1:"));
            }
        } finally {
            own.after();
        }
    }
}
