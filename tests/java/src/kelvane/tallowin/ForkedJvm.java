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

/** Runs a program in a separate virtual machine, for tests that would end or disturb this one. */
final class ForkedJvm {
    /** Exit code and output of a finished program. */
    static final class Result {
        /** The process's exit code; above 128 after a signal. */
        final int exitCode;

        /** Standard output and standard error. */
        final String output;

        Result(int exitCode, String output) {
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
     * @param directory working directory; also gets the report of a crash
     */
    ForkedJvm(Path javaHome, Path directory) {
        this.javaHome = javaHome;
        this.directory = directory;
        // Some tests end the virtual machine on purpose: no core files.
        options("-XX:-CreateCoredumpOnCrash", "-XX:ErrorFile=" + directory.resolve("crash-%p.log"), "-XX:-UsePerfData",
                "-Djava.library.path=");
    }

    /** Uses the running virtual machine's home. */
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
     * Runs the program until it exits.
     *
     * @param seconds time limit; after it the process is killed and the test fails
     * @param program the main class (or {@code -m} and a module) and its arguments
     */
    Result run(int seconds, String... program) throws IOException, InterruptedException {
        List<String> command = new ArrayList<>();
        command.add(javaHome.resolve("bin").resolve("java").toString());
        command.addAll(options);
        command.addAll(Arrays.asList(program));
        // Output goes to a file, so the program never blocks on a full pipe.
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
        return new Result(process.exitValue(), read(output));
    }

    private static String read(Path output) throws IOException {
        return new String(Files.readAllBytes(output), StandardCharsets.UTF_8);
    }
}
