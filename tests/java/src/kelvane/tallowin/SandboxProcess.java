package kelvane.tallowin;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.net.HttpURLConnection;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.rules.ExternalResource;
import org.junit.rules.TemporaryFolder;

/**
 * The sandbox as a separate process with one account, and a shopper's browser for its payment page.
 *
 * <p>The service uses a free port and prints its addresses as JSON, from which this class takes them. {@link #visit}
 * loads the page, submits its form and returns the parameters of the redirect to the shop.
 */
final class SandboxProcess extends ExternalResource {
    static final String USER = "demo";
    static final String PASSWORD = "demo";

    private static final int LIMIT_SECONDS = 60;

    /** The address that the shopper's browser is sent back to. */
    static final class Returned {
        /** The address without {@code DATA} and {@code SIGNATURE}. */
        final String link;

        /** Still percent-encoded. */
        final String data;

        final String signature;

        Returned(String link, String data, String signature) {
            this.link = link;
            this.data = data;
            this.signature = signature;
        }
    }

    private final TemporaryFolder folder = new TemporaryFolder();
    private Process process;
    private String autoUrl;
    private String control;
    private String serverKeyId;

    /** The set-up address. */
    String autoUrl() {
        return autoUrl;
    }

    String serverKeyId() {
        return serverKeyId;
    }

    @Override
    protected void before() throws Throwable {
        folder.create();
        Path data = folder.newFolder().toPath();
        try {
            start(data);
        } catch (Exception | AssertionError failure) {
            after();
            throw failure;
        }
    }

    private void start(Path data) throws Exception {
        ProcessBuilder builder = new ProcessBuilder(Given.sandbox().toString(), "--data", data.toString(), "--port",
                                                    "0", "--account", USER + ":" + PASSWORD, "--json");
        process = builder.redirectError(ProcessBuilder.Redirect.INHERIT).start();
        BufferedReader output = new BufferedReader(new InputStreamReader(process.getInputStream(),
                                                                         StandardCharsets.UTF_8));
        String line = CompletableFuture.supplyAsync(() -> readLine(output)).get(LIMIT_SECONDS, TimeUnit.SECONDS);
        control = value(line, "\"control\":\"([^\"]*)\"");
        autoUrl = value(line, "\"auto\":\"([^\"]*)\"");
        serverKeyId = value(line, "\"serverKeyId\":\"([^\"]*)\"");
    }

    @Override
    protected void after() {
        try {
            stop();
        } finally {
            folder.delete();
        }
    }

    /** Stops the service. A second call does nothing. */
    void stop() {
        if (process == null) {
            return;
        }
        process.destroy();
        try {
            if (!process.waitFor(LIMIT_SECONDS, TimeUnit.SECONDS)) {
                throw new AssertionError("the sandbox does not exit");
            }
        } catch (InterruptedException interrupted) {
            Thread.currentThread().interrupt();
        } finally {
            process.destroyForcibly();
        }
    }

    /** Opens the payment page at {@code url} and submits {@code decision}: pay, decline or cancel. */
    Returned visit(String url, String decision) throws IOException {
        HttpURLConnection page = connect(url);
        String html = page.getResponseCode() == 200 ? read(page) : "";
        if (html.isEmpty()) {
            throw new AssertionError("no payment page: " + page.getResponseCode());
        }
        String form = "payment=" + field(html, "payment") + "&key=" + field(html, "key") + "&decision=" + decision;
        HttpURLConnection answer = connect(URI.create(url).resolve("/pay/decision").toString());
        answer.setDoOutput(true);
        try (OutputStream body = answer.getOutputStream()) {
            body.write(form.getBytes(StandardCharsets.US_ASCII));
        }
        if (answer.getResponseCode() != HttpURLConnection.HTTP_MOVED_TEMP) {
            throw new AssertionError("no redirect to the shop: " + answer.getResponseCode());
        }
        String location = answer.getHeaderField("Location");
        return new Returned(value(location, "^(.*?)[?&]DATA="), parameter(location, "DATA"),
                            parameter(location, "SIGNATURE"));
    }

    /** Posts {@code json} to {@code path} below the service's address for tests, such as {@code "/faults"}. */
    void command(String path, String json) throws IOException {
        HttpURLConnection connection = connect(control + path);
        connection.setRequestProperty("Content-Type", "application/json");
        connection.setDoOutput(true);
        try (OutputStream body = connection.getOutputStream()) {
            body.write(json.getBytes(StandardCharsets.UTF_8));
        }
        if (connection.getResponseCode() >= HttpURLConnection.HTTP_MULT_CHOICE) {
            throw new AssertionError(path + ": " + connection.getResponseCode());
        }
    }

    /** A parameter of a URL, still percent-encoded. */
    static String parameter(String url, String name) {
        return value(url, "[?&]" + name + "=([^&#]*)");
    }

    private static HttpURLConnection connect(String url) throws IOException {
        HttpURLConnection connection = (HttpURLConnection) URI.create(url).toURL().openConnection();
        connection.setInstanceFollowRedirects(false);
        connection.setConnectTimeout((int) TimeUnit.SECONDS.toMillis(LIMIT_SECONDS));
        connection.setReadTimeout((int) TimeUnit.SECONDS.toMillis(LIMIT_SECONDS));
        return connection;
    }

    private static String read(HttpURLConnection connection) throws IOException {
        try (InputStream input = connection.getInputStream()) {
            return new String(input.readAllBytes(), StandardCharsets.UTF_8);
        }
    }

    private static String field(String html, String name) {
        return value(html, "name=\"" + name + "\" value=\"([^\"]*)\"");
    }

    private static String value(String text, String pattern) {
        Matcher matcher = Pattern.compile(pattern).matcher(text);
        if (!matcher.find()) {
            throw new AssertionError("no " + pattern + " in: " + text);
        }
        return matcher.group(1);
    }

    private static String readLine(BufferedReader output) {
        try {
            String line = output.readLine();
            return line == null ? "nothing" : line;
        } catch (IOException failure) {
            throw new AssertionError(failure);
        }
    }
}
