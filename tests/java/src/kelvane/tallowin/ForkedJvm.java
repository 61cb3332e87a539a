package kelvane.tallowin;

import java.io.File;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;

/** A program in a virtual machine of its own, for what must not happen in this one. */
final class ForkedJvm {
    /** How it ended. */
    static final class Ending {
        /** As the system has it: 128 and more after a signal. */
        final int exitCode;

        /** Both streams. */
        final String output;

        Ending(int exitCode, String output) {
            this.exitCode = exitCode;
            this.output = output;
        }

        @Override
        public String toString() {
            return "exit code " + exitCode + ", output:\n" + output;
        }
    }

    private final Path javaHome;
    private final Path directory;
    private final List<String> options = new ArrayList<>();

    /**
     * @param javaHome  the virtual machine's home
     * @param directory where it works, and where a crash leaves its report
     */
    ForkedJvm(Path javaHome, Path directory) {
        this.javaHome = javaHome;
        this.directory = directory;
        // A machine that is meant to die leaves no core file behind.
        options("-XX:-CreateCoredumpOnCrash", "-XX:ErrorFile=" + directory.resolve("crash-%p.log"), "-XX:-UsePerfData",
                "-Djava.library.path=");
    }

    /** The same virtual machine as this one. */
    ForkedJvm(Path directory) {
        this(Given.javaHomes().get(0), directory);
    }

    ForkedJvm options(String... more) {
        options.addAll(Arrays.asList(more));
        return this;
    }

    ForkedJvm classPath(Path... entries) {
        String path = Arrays.stream(entries).map(Path::toString).collect(Collectors.joining(File.pathSeparator));
        return options("-cp", path);
    }

    /**
     * Runs to the end.
     *
     * @param seconds a later one is killed, which fails the test
     * @param program the main class (or {@code -m} and a module) and its arguments
     */
    Ending run(int seconds, String... program) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>();
        command.add(javaHome.resolve("bin").resolve("java").toString());
        command.addAll(options);
        command.addAll(Arrays.asList(program));
        // A file takes any amount of output without anybody reading.
        Path output = Files.createTempFile(directory, "output", ".txt");
        ProcessBuilder builder = new ProcessBuilder(command).directory(directory.toFile());
        builder.redirectErrorStream(true).redirectOutput(output.toFile());
        Process process = builder.start();
        try {
            if (!process.waitFor(seconds, TimeUnit.SECONDS)) {
                throw new AssertionError("still running after " + seconds + " s: " + command + "\n" + read(output));
            }
        } finally {
            process.destroyForcibly();
        }
        return new Ending(process.exitValue(), read(output));
    }

    private static String read(Path output) throws IOException {
        return new String(Files.readAllBytes(output), StandardCharsets.UTF_8);
    }
}
