package kelvane.tallowin;

import java.io.FileOutputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * A native call that blocks until the test ends it, because the file it reads is a pipe. Works for objects of all three
 * classes.
 *
 * <p>When the constructor returns, the call is in the library; {@link #finish} lets it return.
 */
final class BusyCall {
    private static final int SECONDS = 30;
    private static final String PIPE = "keys/current";
    private static final String KEY_PIPE = "keys/public/current";

    private final Thread thread;
    private final FileOutputStream pipe;

    /**
     * @param self      an object of the real classes or of a variant, with a living handle
     * @param className its class
     * @param directory a directory made by {@link #directory}
     */
    BusyCall(Object self, String className, Path directory) throws IOException {
        Map<String, Runnable> calls = Map.of(
            "ConfigurationSetup", () -> {
                call(self, "ConfigurationSetup.SetConfiguration", directory.toString());
                call(self, "ConfigurationSetup.GetAttribute", PIPE, "");
            },
            "MessageFactory", () -> {
                call(self, "MessageFactory.Open", directory.toString());
                call(self, "MessageFactory.nVerifyPayConfirm", "<KVX KEYID=\"current\"/>", "00");
            },
            "MessageObject", () -> call(self, "MessageObject.Open", directory.toString()));
        thread = new Thread(calls.get(className), "busy call");
        thread.setDaemon(true);
        thread.start();
        boolean verifies = className.equals("MessageFactory");
        // Opening a pipe blocks until the call has opened it for reading.
        pipe = new FileOutputStream(directory.resolve(verifies ? KEY_PIPE : PIPE).toFile());
    }

    /** Makes a configuration directory whose key files are pipes. */
    static Path directory(Path parent) throws IOException, InterruptedException {
        Path directory = Files.createTempDirectory(parent, "pipes");
        Files.createDirectories(directory.resolve("keys/public"));
        Process mkfifo = new ProcessBuilder("mkfifo", PIPE, KEY_PIPE).directory(directory.toFile()).inheritIO().start();
        if (!mkfifo.waitFor(SECONDS, TimeUnit.SECONDS) || mkfifo.exitValue() != 0) {
            throw new AssertionError("mkfifo failed");
        }
        return directory;
    }

    /** Lets the call read {@code text} and waits until it returns. */
    void finish(String text) throws IOException, InterruptedException {
        pipe.write(text.getBytes(StandardCharsets.US_ASCII));
        pipe.close();
        thread.join(TimeUnit.SECONDS.toMillis(SECONDS));
        if (thread.isAlive()) {
            throw new AssertionError("the call does not return");
        }
    }

    /** Ignores exceptions of the call; only errors fail the test. */
    private static void call(Object self, String method, Object... arguments) {
        try {
            NativeMethod.named(method).call(self, arguments);
        } catch (Throwable failure) {
            if (failure instanceof Error) {
                throw (Error) failure;
            }
        }
    }
}
