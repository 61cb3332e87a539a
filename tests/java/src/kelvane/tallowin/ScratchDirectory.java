package kelvane.tallowin;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import org.junit.rules.ExternalResource;

/** A directory for files of any names. Removed by {@code rm}, because Java cannot represent all names. */
final class ScratchDirectory extends ExternalResource {
    private static final int LIMIT_SECONDS = 60;

    private Path path;

    Path path() {
        return path;
    }

    @Override
    protected void before() throws IOException {
        path = Files.createTempDirectory("scratch");
    }

    @Override
    protected void after() {
        try {
            Process rm = new ProcessBuilder("rm", "-rf", path.toString()).inheritIO().start();
            if (!rm.waitFor(LIMIT_SECONDS, TimeUnit.SECONDS) || rm.exitValue() != 0) {
                throw new AssertionError("not removed: " + path);
            }
        } catch (IOException | InterruptedException failure) {
            throw new AssertionError(failure);
        }
    }
}
