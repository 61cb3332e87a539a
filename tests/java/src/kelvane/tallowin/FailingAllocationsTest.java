package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Every native method in a real virtual machine while allocations of the library and of OpenSSL fail, one alone or all
 * from a certain one on.
 *
 * <p>Each run has an account and objects of its own. A result must be in the table {@code expected_allocations.txt}, a
 * success must have the effect of a call without a fault, the same call must succeed afterwards, and nothing may stay
 * allocated. Methods with many allocations are sampled evenly; the variable {@code KVX_FAULTS_ALL} fails all of them.
 * The virtual machine's own allocations never fail, so its OutOfMemoryError is never expected.
 */
public class FailingAllocationsTest {
    private static final String OUT_OF_MEMORY = "0x80040217";
    private static final long SAMPLES = 25;

    /** Runs after which memory that is still held counts as lost: caches fill once. */
    private static final int LEAK_RUNS = 3;

    private static final String CONFIRMATION =
            "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + AccountDirectory.SERVER_KEY + "\" TOKEN=\"t1\"/>";

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = Timeout.builder().withTimeout(600, TimeUnit.SECONDS).build();

    /** A payment service for all that the methods ask for. Requests that broke off get no response. */
    private static final class Service implements AutoCloseable {
        private final LocalServer server = new LocalServer();
        private volatile boolean isOver;

        Service() throws IOException {
            Thread thread = new Thread(this::serve, "service");
            thread.setDaemon(true);
            thread.start();
        }

        String base() {
            return server.base();
        }

        private void serve() {
            while (!isOver) {
                try {
                    server.answer(responseTo(server.awaitRequest()));
                } catch (IOException brokenOff) {
                    continue;
                }
            }
        }

        private String responseTo(String request) throws IOException {
            if (request.contains("SetupRequest")) {
                return "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"" + base() + "/pay\" CAPTUREURL=\"" + base()
                        + "/capture\" VTKEYID=\"" + AccountDirectory.SERVER_KEY
                        + "\" CUSTOMERID=\"1002\" VERSION=\"2\"/>";
            }
            if (request.contains("LoadDefaultsRequest")) {
                return "<KVX MSGTYPE=\"LoadDefaultsResponse\" LANGID=\"fr\"/>";
            }
            if (request.contains("KeyQueryRequest")) {
                return "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"" + AccountDirectory.SERVER_KEY + "\" KEYBLOB=\""
                        + AccountDirectory.serverKey() + "\"/>";
            }
            if (request.contains("KeyExportRequest")) {
                return "<KVX MSGTYPE=\"KeyExportResponse\"/>";
            }
            return request.contains("ProbeRequest") ? "<KVX MSGTYPE=\"ProbeResponse\" ANSWER=\"42\"/>"
                                                    : "<KVX MSGTYPE=\"PayConfirm\"/>";
        }

        @Override
        public void close() throws IOException {
            isOver = true;
            server.close();
        }
    }

    /** An account and objects opened on it, on which every method succeeds. */
    private static final class Scene implements AutoCloseable {
        private final AccountDirectory account;
        private final String base;
        private final ConfigurationSetup setup = new ConfigurationSetup();
        private final MessageFactory factory = new MessageFactory();
        private final MessageObject message;
        private final Map<String, Object> selves = new HashMap<>();

        Scene(Path directory, String base) throws IOException, KVXException {
            this.base = base;
            account = new AccountDirectory(directory);
            account.write("default.xml", "<KVX LANGID=\"de\"/>");
            account.pointTo(base);
            setup.SetConfiguration(directory.toString());
            factory.Open(directory.toString());
            message = factory.CreateRequest("Probe");
            message.SetAttribute("TOKEN", "t1");
            selves.put("ConfigurationSetup", setup);
            selves.put("MessageFactory", factory);
            selves.put("MessageObject", message);
        }

        Object self(NativeMethod method) {
            return selves.get(method.className);
        }

        Object[] arguments(NativeMethod method) throws GeneralSecurityException {
            String path = account.path().toString();
            switch (method.toString()) {
                case "ConfigurationSetup.SetConfiguration":
                case "MessageFactory.Open":
                case "MessageObject.Open":
                    return new Object[] {path};
                case "ConfigurationSetup.Reconfigure":
                    return new Object[] {base + "/auto", "user", "password"};
                case "ConfigurationSetup.SetOption":
                    return new Object[] {"UserName", "a name longer than the string keeps in reserve"};
                case "ConfigurationSetup.GetAttribute":
                    return new Object[] {"config.xml", "VTKEYID"};
                case "ConfigurationSetup.SetAttribute":
                    return new Object[] {"config.xml", "NEW", "1"};
                case "MessageFactory.nVerifyPayConfirm":
                    return new Object[] {CONFIRMATION, AccountDirectory.serverSignature(CONFIRMATION)};
                case "MessageFactory.nCreatePayComplete":
                    return new Object[] {"id1", "t1"};
                case "MessageFactory.nCreateRequest":
                    return new Object[] {"Probe"};
                case "MessageObject.SetAttribute":
                    return new Object[] {"AMOUNT", "12.50"};
                case "MessageObject.GetAttribute":
                    return new Object[] {"TOKEN"};
                case "MessageObject.FromString":
                    return new Object[] {"<KVX MSGTYPE=\"Probe\" TOKEN=\"t2\"/>"};
                default:
                    assertEquals(method.toString(), 0, method.strings);
                    return new Object[0];
            }
        }

        /** What a successful call of {@code method} has done, in words. Destroys the object that it made. */
        String effect(NativeMethod method, Object result) throws Throwable {
            if (result instanceof Integer) {
                return "made " + typeOf((Integer) result);
            }
            if (result != null) {
                return "returned " + result;
            }
            switch (method.className) {
                case "ConfigurationSetup":
                    return setup.GetAttribute("config.xml", "CUSTOMERID")
                            + (method.name.equals("SetAttribute") ? setup.GetAttribute("config.xml", "NEW") : "");
                case "MessageFactory":
                    try (MessageObject made = factory.CreateRequest("Other")) {
                        return made.ToString();
                    }
                default:
                    return message.ToString();
            }
        }

        private static String typeOf(int handle) throws Throwable {
            MessageObject made = new MessageObject();
            int own = NativeMethod.handleOf(made);
            try {
                NativeMethod.setHandle(made, handle);
                String type = made.GetAttribute("MSGTYPE");
                NativeMethod.named("MessageObject.nDestruct").call(made);
                return type;
            } finally {
                NativeMethod.setHandle(made, own);
                made.close();
            }
        }

        @Override
        public void close() {
            message.close();
            factory.close();
            setup.close();
        }
    }

    /** One call with a fault. */
    private final class Run {
        String result = "0";
        String effect = "";
        boolean isReached;
        long requested;

        Run(NativeMethod method, Path directory, String base, long number, boolean isOnwards) throws Throwable {
            try (Scene scene = new Scene(directory, base)) {
                Object self = scene.self(method);
                Object[] arguments = scene.arguments(method);
                int own = NativeMethod.handleOf(self);
                if (method.constructs()) {
                    NativeMethod.setHandle(self, 0);
                }
                Object returned = call(method, self, arguments, number, isOnwards);
                int handle = NativeMethod.handleOf(self);
                if (method.constructs()) {
                    assertEquals(method + ": " + result, result.equals("0"), handle != 0);
                }
                boolean isRepeatable = !method.name.equals("nExecute") && !method.destroys();
                if (result.equals("0") && !method.constructs() && !method.destroys()) {
                    effect = scene.effect(method, returned);
                } else if (!result.equals("0") && isRepeatable) {
                    Object again = method.call(self, arguments);
                    effect = method.constructs() ? "" : scene.effect(method, again);
                }
                if (method.constructs()) {
                    NativeMethod.named(method.className + ".nDestruct").call(self);
                    NativeMethod.setHandle(self, own);
                }
            }
        }

        private Object call(NativeMethod method, Object self, Object[] arguments, long number, boolean isOnwards)
                throws Throwable {
            Object returned = null;
            HeapFault.arm(number, isOnwards);
            try {
                returned = method.call(self, arguments);
            } catch (KVXException failure) {
                result = String.format("0x%08X", failure.getHR());
                requested = HeapFault.disarm();
                assertTrue(failure.getErrorMessage(), failure.getErrorMessage().startsWith(method.failurePrefix));
            } catch (OutOfMemoryError failure) {
                result = "OutOfMemoryError";
            } finally {
                requested = HeapFault.disarm();
                isReached = HeapFault.hasFailed();
            }
            return returned;
        }
    }

    private static Map<String, List<String>> table() throws IOException {
        Map<String, List<String>> rows = new HashMap<>();
        for (String line : Files.readAllLines(Given.allocationTable())) {
            if (!line.isEmpty() && !line.startsWith("#")) {
                String[] parts = line.split(" \\| ");
                assertEquals("twice: " + parts[0], null, rows.put(parts[0], Arrays.asList(parts[1].split(" "))));
            }
        }
        return rows;
    }

    /** Fails allocations of one method and returns the results. */
    private TreeSet<String> resultsOf(NativeMethod method, boolean isOnwards, Path directory, String base)
            throws Throwable {
        new Run(method, directory, base, -1, isOnwards);  // fills caches
        Run whole = new Run(method, directory, base, -1, isOnwards);
        assertEquals(method + " without a fault", "0", whole.result);
        long step = System.getenv("KVX_FAULTS_ALL") != null ? 1 : whole.requested / SAMPLES + 1;
        TreeSet<String> results = new TreeSet<>();
        // A key generation needs more attempts at one time than at another.
        for (long number = 0; number <= whole.requested + whole.requested / 4; number += step) {
            String what = method + ", allocation " + number + " of " + whole.requested;
            boolean isReached = false;
            boolean isLost = true;
            for (int run = 0; run < LEAK_RUNS && isLost; ++run) {
                long living = HeapFault.living();
                Run failing = new Run(method, directory, base, number, isOnwards);
                isReached = failing.isReached;
                isLost = HeapFault.living() > living;
                if (!failing.effect.isEmpty()) {
                    assertEquals(what + ": " + failing.result, whole.effect, failing.effect);
                }
                if (isReached) {
                    results.add(failing.result);
                } else {
                    assertEquals(what + ", which was not reached", "0", failing.result);
                }
            }
            assertFalse(what + ": memory is lost", isLost && isReached);
            if (!isReached) {
                break;
            }
        }
        return results;
    }

    private void failAllocations(boolean isOnwards) throws Throwable {
        Map<String, List<String>> expected = table();
        List<String> seen = new ArrayList<>();
        List<String> wrong = new ArrayList<>();
        try (Service service = new Service(); ConfigurationSetup loaded = new ConfigurationSetup()) {
            assertNotEquals(0, NativeMethod.handleOf(loaded));
            assertTrue("the library and what it stands on", HeapFault.watch() >= 3);
            Path directory = folder.newFolder().toPath();
            for (NativeMethod method : NativeMethod.ALL) {
                String key = method + ", " + (isOnwards ? "from there" : "once");
                TreeSet<String> results = resultsOf(method, isOnwards, directory, service.base());
                if (results.isEmpty()) {
                    results.add("none");
                }
                seen.add(key + " | " + String.join(" ", results));
                List<String> allowed = expected.getOrDefault(key, List.of());
                boolean isRight = allowed.containsAll(results)
                        && results.contains(OUT_OF_MEMORY) == allowed.contains(OUT_OF_MEMORY);
                if (!isRight) {
                    wrong.add(key + ": " + results + " instead of " + allowed);
                }
            }
        }
        String target = System.getenv("KVX_FAULTS_WRITE");
        if (target != null) {
            Files.write(Path.of(target, "java_" + (isOnwards ? "from" : "once")), seen);
        }
        assertEquals(List.of(), wrong);
    }

    @Test
    public void everyNativeMethodReportsTheLackOfOneAllocation() throws Throwable {
        failAllocations(false);
    }

    @Test
    public void everyNativeMethodReportsTheLackOfAllFurtherAllocations() throws Throwable {
        failAllocations(true);
    }

    @Test
    public void theTableHasEveryNativeMethod() throws IOException {
        TreeSet<String> keys = new TreeSet<>();
        for (NativeMethod method : NativeMethod.ALL) {
            keys.add(method + ", once");
            keys.add(method + ", from there");
        }
        assertEquals(keys, new TreeSet<>(table().keySet()));
    }
}
