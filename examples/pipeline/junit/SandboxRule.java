import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.UUID;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import kelvane.tallowin.ConfigurationSetup;
import kelvane.tallowin.KVXException;
import org.junit.rules.ExternalResource;
import org.junit.rules.TemporaryFolder;

/**
 * A sandbox for the tests of a shop, started once per class and stopped at its end. Copy this file beside your tests.
 *
 * <p>Every {@link Account} is a new one: what other tests do, also at the same time, does not concern it.
 * tallowin-sandbox is looked for in TALLOWIN_SANDBOX and in the path.
 */
public final class SandboxRule extends ExternalResource {
    private static final int SECONDS = 30;
    private static final String PASSWORD = "secret";

    private final TemporaryFolder folder = new TemporaryFolder();
    private Process process;
    private String setUpAddress;
    private String base;

    /** DATA and SIGNATURE of a confirmation. */
    public static final class Confirmation {
        public final String data;
        public final String signature;

        Confirmation(String data, String signature) {
            this.data = data;
            this.signature = signature;
        }
    }

    /** An account of the sandbox, and what a shopper and a clock do to its payments. */
    public final class Account {
        public final String name = "test-" + UUID.randomUUID();

        Account() throws IOException {
            control("POST", "accounts", "{\"user\": \"" + name + "\", \"password\": \"" + PASSWORD + "\"}");
        }

        /** A configuration directory that is set up for this account. */
        public Path setUp() throws IOException, KVXException {
            Path directory = folder.newFolder().toPath().resolve("merchant");
            try (ConfigurationSetup setup = new ConfigurationSetup()) {
                setup.SetConfiguration(directory.toString());
                setup.Reconfigure(setUpAddress, name, PASSWORD);
            }
            return directory;
        }

        /** Opens the payment page. */
        public void open(String url) throws IOException {
            request("GET", url, null);
        }

        /** Decides on a payment whose page is open. */
        public Confirmation decide(String token, String decision) throws IOException {
            String answer = control("POST", "payments/decision?token=" + token + "&account=" + name,
                                    "{\"decision\": \"" + decision + "\"}");
            return new Confirmation(member(answer, "data"), member(answer, "signature"));
        }

        public String state(String token) throws IOException {
            return member(control("GET", "payments/newest?token=" + token + "&account=" + name, null), "state");
        }

        public void fault(String kind, String exchange) throws IOException {
            control("POST", "faults", "{\"kind\": \"" + kind + "\", \"exchange\": \"" + exchange + "\", \"account\": \""
                                          + name + "\"}");
        }

        public void stepClock(int seconds) throws IOException {
            control("POST", "clock", "{\"step\": " + seconds + ", \"account\": \"" + name + "\"}");
        }
    }

    public Account account() throws IOException {
        return new Account();
    }

    @Override
    protected void before() throws Throwable {
        folder.create();
        String named = System.getenv("TALLOWIN_SANDBOX");
        process = new ProcessBuilder(named == null ? "tallowin-sandbox" : named, "--data",
                                     folder.newFolder().toString(), "--json")
                      .redirectError(ProcessBuilder.Redirect.INHERIT)
                      .start();
        try {
            String line = new BufferedReader(new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8))
                              .readLine();
            setUpAddress = member(line, "auto");
            base = member(line, "dashboard");
            request("GET", base + "health", null);
        } catch (IOException | RuntimeException failure) {
            after();
            throw failure;
        }
    }

    @Override
    protected void after() {
        process.destroy();
        try {
            if (!process.waitFor(SECONDS, TimeUnit.SECONDS)) {
                process.destroyForcibly().waitFor();
            }
        } catch (InterruptedException interrupted) {
            process.destroyForcibly();
            Thread.currentThread().interrupt();
        }
        folder.delete();
    }

    /** The answer of the control API. */
    public String control(String method, String path, String content) throws IOException {
        return request(method, base + "control/" + path, content);
    }

    private static String request(String method, String url, String content) throws IOException {
        HttpURLConnection connection = (HttpURLConnection) URI.create(url).toURL().openConnection();
        connection.setConnectTimeout(SECONDS * 1000);
        connection.setReadTimeout(SECONDS * 1000);
        connection.setRequestMethod(method);
        if (content != null) {
            connection.setDoOutput(true);
            connection.setRequestProperty("Content-Type", "application/json");
            try (OutputStream out = connection.getOutputStream()) {
                out.write(content.getBytes(StandardCharsets.UTF_8));
            }
        }
        try (InputStream in = connection.getInputStream()) {
            return new String(in.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    /** The value of a member of the outermost object that is a string. A library for JSON does this as well. */
    private static String member(String json, String name) {
        Matcher found = Pattern.compile("(?m)(?:^  |[{,])\"" + name + "\": ?\"((?:[^\"\\\\]|\\\\.)*)\"").matcher(json);
        if (!found.find()) {
            throw new IllegalStateException("no " + name + " in " + json);
        }
        return found.group(1).replaceAll("\\\\(.)", "$1");
    }
}
