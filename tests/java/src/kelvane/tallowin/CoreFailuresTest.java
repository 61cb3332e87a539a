package kelvane.tallowin;

import static org.junit.Assert.assertEquals;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Failures of the library, provoked by real files and servers: code and complete text, method by method.
 *
 * <p>A {@link Cause} is one failure of one method, a {@link Scene} the directory, server and objects it runs on. The
 * causes must cover every native method except those that can only run out of memory.
 */
public class CoreFailuresTest {
    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(120, TimeUnit.SECONDS);

    /** A new configuration directory, and objects opened on it. */
    private final class Scene implements AutoCloseable {
        final AccountDirectory account = new AccountDirectory(folder.newFolder().toPath());
        final LocalServer server = new LocalServer();
        final ConfigurationSetup setup = new ConfigurationSetup();
        final ConfigurationSetup fresh = new ConfigurationSetup();
        final MessageFactory factory = new MessageFactory();
        final MessageObject message = new MessageObject();
        final MessageObject unopened = new MessageObject();

        Scene() throws IOException, KVXException {
            setup.SetConfiguration(account.path().toString());
            factory.Open(account.path().toString());
            message.Open(account.path().toString());
        }

        /** A directory that cannot be created, because its parent is a file. */
        String belowAFile() {
            return account.path().resolve("config.xml").resolve("sub").toString();
        }

        String belowNothing() {
            return account.path().resolve("no").resolve("sub").toString();
        }

        Scene without(String file) throws IOException {
            account.delete(file);
            return this;
        }

        Scene with(String file, String text) throws IOException {
            account.write(file, text);
            return this;
        }

        /** Makes the server respond to the next request with {@code reply}. */
        Scene answering(String reply) throws IOException {
            account.pointTo(server.base());
            server.answerLater(reply);
            return this;
        }

        void url() throws KVXException {
            try (MessageObject payment = factory.CreatePayInit()) {
                payment.GetURL();
            }
        }

        void capture(String text) throws KVXException {
            message.FromString(text);
            message.Capture();
        }

        void execute(String type) throws KVXException {
            try (MessageObject request = factory.CreateRequest(type); MessageObject answer = request.Execute()) {
                throw new AssertionError("an answer: " + answer.ToString());
            }
        }

        void verify(String data, String signature) throws KVXException {
            factory.VerifyPayConfirm(data, signature).close();
        }

        @Override
        public void close() throws IOException {
            setup.close();
            fresh.close();
            factory.close();
            message.close();
            unopened.close();
            server.close();
        }
    }

    private interface Step {
        void run(Scene scene) throws Throwable;
    }

    private static final class Cause {
        final String method;
        final int code;
        final String text;
        final Step step;

        Cause(String method, int code, String text, Step step) {
            this.method = method;
            this.code = code;
            this.text = text;
            this.step = step;
        }
    }

    private final List<Cause> causes = new ArrayList<>();

    private void cause(String method, int code, String text, Step step) {
        causes.add(new Cause(method, code, text, step));
    }

    private static String page(String message) {
        return "HTTP/1.0 200 OK\r\n\r\n" + message;
    }

    private static String error(String message) {
        return page("<KVX MSGTYPE=\"Error\" MESSAGE=\"" + message + "\"/>");
    }

    private void setupCauses() {
        String name = "ConfigurationSetup.SetConfiguration";
        cause(name, 20, "ErrorCode = 0x14 (KVX_Context::CreatePath(): failed to create directory)",
              scene -> scene.setup.SetConfiguration(scene.belowAFile()));
        cause(name, 2, "ErrorCode = 0x2 (KVX_Context::CreatePath(): failed to create directory)",
              scene -> scene.setup.SetConfiguration(scene.belowNothing()));
        name = "ConfigurationSetup.Reconfigure";
        cause(name, 0x80040201, "no context present", scene -> scene.fresh.Reconfigure("http://x/", "", ""));
        cause(name, 0x8004303D, "connection refused (failed to connect to host)",
              scene -> scene.setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x80040206, "invalid URL", scene -> scene.setup.Reconfigure("nonsense", "demo", "demo"));
        cause(name, 0x80042020, "ErrorCode = 0x80042020 (the protocol type of the URL is unknown)",
              scene -> scene.setup.Reconfigure("httpsx://127.0.0.1:1/", "demo", "demo"));
        cause(name, 0x8004020F, "no configuration found",
              scene -> scene.with("config.xml", "<KVX/>").setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x80042194, "URL resource not found",
              scene -> scene.answering("HTTP/1.0 404 Not Found\r\n\r\n").setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x80042191, "access to URL resource denied",
              scene -> scene.answering("HTTP/1.0 401 No\r\n\r\n").setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x800421F4, "ErrorCode = 0x800421f4",
              scene -> scene.answering("HTTP/1.0 500 Oops\r\n\r\n").setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x80042022, "ErrorCode = 0x80042022",
              scene -> scene.answering("").setup.Reconfigure("", "demo", "demo"));
        cause(name, 0x80040213, "the request failed (the password of the account 'demo' is another)",
              scene -> scene.answering(error("the password of the account &apos;demo&apos; is another"))
                      .setup.Reconfigure("", "demo", "wrong"));
        cause("ConfigurationSetup.SetOption", 0x80040207, "invalid option", scene -> scene.setup.SetOption("x", "y"));
        name = "ConfigurationSetup.GetAttribute";
        cause(name, 0x80040201, "no context present", scene -> scene.fresh.GetAttribute("config.xml", "X"));
        cause(name, 0x80040219, "ErrorCode = 0x80040219", scene -> scene.setup.GetAttribute("none.xml", "X"));
        cause(name, 0x80040219, "ErrorCode = 0x80040219", scene -> scene.setup.GetAttribute("keys", "X"));
        cause(name, 0x8004020D, "requested item was not found", scene -> scene.setup.GetAttribute("config.xml", "X"));
        cause(name, 0x8004020D, "requested item was not found",
              scene -> scene.with("some.xml", "<KVX EMPTY=\"\"/>").setup.GetAttribute("some.xml", "EMPTY"));
        cause(name, 0x80040204, "invalid file format (some.xml)",
              scene -> scene.with("some.xml", "<KVX").setup.GetAttribute("some.xml", "X"));
        name = "ConfigurationSetup.SetAttribute";
        cause(name, 0x80040201, "no context present", scene -> scene.fresh.SetAttribute("config.xml", "X", "y"));
        cause(name, 0x80040219, "ErrorCode = 0x80040219", scene -> scene.setup.SetAttribute("none.xml", "X", "y"));
        cause(name, 0x80040204, "invalid file format (some.xml)",
              scene -> scene.with("some.xml", "<OTHER/>").setup.SetAttribute("some.xml", "X", "y"));
    }

    private void factoryCauses() {
        for (String name : List.of("nCreatePayInit", "nVerifyPayConfirm", "nCreatePayComplete", "nCreateRequest")) {
            NativeMethod method = NativeMethod.named("MessageFactory." + name);
            cause("MessageFactory." + name, 20,
                  "ErrorCode = 0x14 (KVX_Context::CreatePath(): failed to create directory)", scene -> {
                      scene.factory.Open(scene.belowAFile());
                      method.call(scene.factory, method.allArguments("x"));
                  });
        }
        String name = "MessageFactory.nCreatePayInit";
        cause(name, 0x80040219, "ErrorCode = 0x80040219",
              scene -> scene.without("keys/current").factory.CreatePayInit());
        cause(name, 0x80040204, "invalid file format (default.xml)",
              scene -> scene.with("default.xml", "no document").factory.CreatePayInit());
        cause("MessageFactory.nCreatePayComplete", 0x80040219, "ErrorCode = 0x80040219",
              scene -> scene.without("keys/current").factory.CreatePayComplete("P1", "T1"));
        cause("MessageFactory.nCreateRequest", 0x80040219, "ErrorCode = 0x80040219",
              scene -> scene.without("keys/current").factory.CreateRequest("Status"));
        cause("MessageFactory.nCreateRequest", 0x80040218, "ErrorCode = 0x80040218",
              scene -> scene.factory.CreateRequest(""));
        name = "MessageFactory.nVerifyPayConfirm";
        String data = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + AccountDirectory.SERVER_KEY + "\" TOKEN=\"1\"/>";
        cause(name, 0x80040204, "invalid file format", scene -> scene.verify("no document", "00"));
        cause(name, 0x8004021A, "missing signature", scene -> scene.verify(data, ""));
        cause(name, 0x8004020E, "no key identifier specified", scene -> scene.verify("<KVX/>", "00"));
        cause(name, 0x8004020D, "requested item was not found", scene -> scene.verify("<KVX KEYID=\"0-none\"/>", "00"));
        cause(name, 0x8004020D, "requested item was not found", scene -> scene.verify("<KVX KEYID=\"../x\"/>", "00"));
        cause(name, 0x8004020B, "invalid key blob", scene -> scene.verify(data, "no digits"));
        cause(name, 0x8004020B, "invalid key blob (keys/public/0-x)",
              scene -> scene.with("keys/public/0-x", "no digits").verify("<KVX KEYID=\"0-x\"/>", "00"));
        cause(name, 0x80040214, "invalid signature",
              scene -> scene.verify(data, AccountDirectory.serverSignature(data + " ")));
    }

    private void messageCauses() {
        String name = "MessageObject.Open";
        cause(name, 20, "ErrorCode = 0x14 (KVX_Context::CreatePath(): failed to create directory)",
              scene -> scene.message.Open(scene.belowAFile()));
        cause(name, 0x80040219, "ErrorCode = 0x80040219",
              scene -> scene.without("keys/current").message.Open(scene.account.path().toString()));
        cause("MessageObject.SetAttribute", 0x80040211, "unexpected error",
              scene -> scene.unopened.SetAttribute("A", "b"));
        name = "MessageObject.GetAttribute";
        cause(name, 0x80040211, "unexpected error", scene -> scene.unopened.GetAttribute("A"));
        cause(name, 0x8004020D, "requested item was not found", scene -> scene.message.GetAttribute("A"));
        name = "MessageObject.GetURL";
        cause(name, 0x80040211, "unexpected error", scene -> scene.unopened.GetURL());
        cause(name, 0x80040211, "unexpected error", scene -> scene.message.GetURL());
        cause(name, 0x80040219, "ErrorCode = 0x80040219", scene -> scene.without("config.xml").url());
        cause(name, 0x8004020F, "no configuration found", scene -> scene.with("config.xml", "<KVX/>").url());
        cause(name, 0x80040206, "invalid URL", scene -> scene.with("config.xml", "<KVX VTURL=\"x\"/>").url());
        cause(name, 0x8004020D, "requested item was not found",
              scene -> scene.without("keys/private/" + AccountDirectory.MERCHANT_KEY).url());
        cause(name, 0x8004020B, "invalid key blob (keys/private/" + AccountDirectory.MERCHANT_KEY + ")",
              scene -> scene.with("keys/private/" + AccountDirectory.MERCHANT_KEY, "no digits").url());
        cause(name, 0x80040209, "cryptographic error",
              scene -> scene.with("keys/private/" + AccountDirectory.MERCHANT_KEY, "00").url());
        name = "MessageObject.Capture";
        cause(name, 0x80040211, "unexpected error", scene -> scene.unopened.Capture());
        cause(name, 0x80040211, "unexpected error", scene -> scene.capture("<KVX/>"));
        cause(name, 0x8004020F, "no configuration found",
              scene -> scene.with("config.xml", "<KVX/>").capture("<KVX/>"));
        cause(name, 0x8004303D, "connection refused (failed to connect to host)",
              scene -> scene.capture("<KVX TOKEN=\"1\"/>"));
        cause(name, 0x80040208, "request failed (Response MSGTYPE: received 'Other', expected 'PayConfirm')",
              scene -> scene.answering(page("<KVX MSGTYPE=\"Other\"/>")).capture("<KVX TOKEN=\"1\"/>"));
        name = "MessageObject.nExecute";
        cause(name, 0x80040211, "unexpected error", scene -> scene.unopened.Execute());
        cause(name, 0x8004303D, "connection refused (failed to connect to host)", scene -> scene.execute("Status"));
        cause(name, 0x80040204, "invalid file format", scene -> scene.answering(page("no document")).execute("Status"));
        cause(name, 0x80040208, "request failed (Response MSGTYPE: received '', expected 'StatusResponse')",
              scene -> scene.answering(page("<KVX/>")).execute("Status"));
        // The service's text has four-byte characters and bytes that are not UTF-8.
        cause(name, 0x80040213, "the request failed (\ud83d\udcb6 fehlt f\u00fcr \u00fc)",
              scene -> scene.answering(error("\u00f0\u009f\u0092\u00b6 fehlt f\u00c3\u00bcr \u00fc"))
                      .execute("Status"));
        name = "MessageObject.FromString";
        cause(name, 0x80040204, "invalid file format", scene -> scene.message.FromString("x"));
        cause(name, 0x80040204, "invalid file format", scene -> scene.unopened.FromString("<A/>"));
        cause("MessageObject.ToString", 0x80040211, "unexpected error", scene -> scene.unopened.ToString());
    }

    private void busyCauses() {
        for (String className : NativeMethod.classNames()) {
            // Raised before the library is called, so with the prefix for handles.
            cause(className + ".nDestruct", 0x80040211, "object is in use by another thread", scene -> {
                Object self = className.equals("ConfigurationSetup") ? scene.setup
                        : className.equals("MessageFactory") ? scene.factory : scene.message;
                Path directory = BusyCall.directory(folder.getRoot().toPath());
                BusyCall busy = new BusyCall(self, className, directory);
                try {
                    NativeMethod.named(className + ".nDestruct").call(self);
                } finally {
                    busy.finish("x");
                }
            });
        }
    }

    @Test
    public void everyFailureReachesJavaWithItsCodeAndText() throws Throwable {
        setupCauses();
        factoryCauses();
        messageCauses();
        busyCauses();
        TreeSet<String> methods = new TreeSet<>();
        for (Cause cause : causes) {
            NativeMethod method = NativeMethod.named(cause.method);
            String prefix = method.destroys() ? method.refusalPrefix : method.failurePrefix;
            try (Scene scene = new Scene()) {
                assertEquals(method + " with " + cause.text, Failure.text(cause.code, prefix + cause.text),
                             Failure.of(() -> cause.step.run(scene)));
            }
            methods.add(cause.method);
        }
        System.out.println("walked " + methods.size() + " natives x failures of the library: " + causes.size());
        TreeSet<String> rest = new TreeSet<>();
        NativeMethod.ALL.forEach(method -> rest.add(method.toString()));
        rest.removeAll(methods);
        // These fail only when memory is exhausted.
        assertEquals("[ConfigurationSetup.nConstruct, MessageFactory.Open, MessageFactory.nConstruct, "
                     + "MessageObject.nConstruct]", rest.toString());
    }

    @Test
    public void aFailedMethodLeavesTheObjectUsable() throws Throwable {
        try (Scene scene = new Scene()) {
            assertEquals(Failure.text(0x80040204, "MessageFactory::FromString(): invalid file format"),
                         Failure.of(() -> scene.message.FromString("<KVX")));
            scene.message.FromString("<KVX A=\"1\"/>");
            assertEquals("1", scene.message.GetAttribute("A"));
            Failure.of(() -> scene.factory.VerifyPayConfirm("", ""));
            scene.factory.CreatePayInit().close();
            Failure.of(() -> scene.setup.SetConfiguration(scene.belowAFile()));
            scene.setup.SetConfiguration(scene.account.path().toString());
            assertEquals("1001", scene.setup.GetAttribute("config.xml", "CUSTOMERID"));
        }
    }

    @Test
    public void settingAnEmptyValueWritesNothing() throws Throwable {
        try (Scene scene = new Scene()) {
            Path file = scene.account.path().resolve("config.xml");
            String before = Files.readString(file);
            scene.setup.SetAttribute("config.xml", "CUSTOMERID", "");
            scene.setup.SetAttribute("no such file", "CUSTOMERID", "");
            assertEquals(before, Files.readString(file));
        }
    }
}
