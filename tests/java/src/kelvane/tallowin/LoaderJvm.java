package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/**
 * A separate virtual machine that runs {@link LoaderProbe} with {@code -Xcheck:jni}. Its {@code java.library.path} is
 * empty unless a test sets it, so that no library installed on this machine is found. Options are collected first;
 * {@link #start} then starts a {@link Running} machine that a test can read from, end or kill.
 */
final class LoaderJvm {
    private static final long LIMIT_SECONDS = 180;

    private final List<String> prefix = new ArrayList<>();
    private final List<String> options = new ArrayList<>();
    private Path javaHome = Given.javaHomes().get(0);
    private List<String> program;

    /**
     * Loads the package from {@code classes}, a jar or a directory, and uses {@code temporary} as temporary directory.
     */
    LoaderJvm(Path classes, Path temporary) {
        String path = classes + File.pathSeparator + Given.testClasses();
        program = Arrays.asList("-cp", path, LoaderProbe.class.getName());
        // A crash is reported in the output and leaves no file.
        option("-XX:-CreateCoredumpOnCrash").option("-XX:+ErrorFileToStderr").option("-XX:-UsePerfData");
        option("-Xcheck:jni");
        set("java.io.tmpdir", temporary);
        set("java.library.path", "");
    }

    LoaderJvm set(String property, Object value) {
        return option("-D" + property + "=" + value);
    }

    LoaderJvm option(String option) {
        options.add(option);
        return this;
    }

    LoaderJvm javaHome(Path home) {
        javaHome = home;
        return this;
    }

    /** Runs the classes of {@code jar} as a named module. */
    LoaderJvm asModule(Path jar) {
        String module = LoaderProbe.class.getPackageName();
        program = Arrays.asList("-p", jar.toString(), "--patch-module",
                module + "=" + Given.testClasses(), "-m",
                module + "/" + LoaderProbe.class.getName());
        return this;
    }

    /**
     * Starts the machine through {@code command}, which must replace its process by the command in its last arguments.
     */
    LoaderJvm by(String... command) {
        prefix.addAll(Arrays.asList(command));
        return this;
    }

    Running start(String... arguments) throws IOException {
        List<String> command = new ArrayList<>(prefix);
        command.add(javaHome.resolve("bin").resolve("java").toString());
        command.addAll(options);
        command.addAll(program);
        command.addAll(Arrays.asList(arguments));
        return new Running(new ProcessBuilder(command).redirectErrorStream(true).start());
    }

    /** Runs the probe, which must succeed, and returns its output. */
    String run(String... arguments) throws Exception {
        try (Running machine = start(arguments)) {
            return machine.finish();
        }
    }

    /** Whether {@code command} exists on this machine and succeeds. */
    static boolean allows(String... command) throws InterruptedException {
        Process process;
        try {
            process = new ProcessBuilder(command).redirectErrorStream(true)
                    .redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
        } catch (IOException noSuchProgram) {
            return false;
        }
        try {
            return process.waitFor(LIMIT_SECONDS, TimeUnit.SECONDS) && process.exitValue() == 0;
        } finally {
            process.destroyForcibly();
        }
    }

    /** A started machine. Closing kills it if it still runs. */
    static final class Running implements AutoCloseable {
        private final Process process;
        private final BufferedReader output;

        private Running(Process process) {
            this.process = process;
            this.output = new BufferedReader(new InputStreamReader(process.getInputStream()));
        }

        /** The rest of the first line that begins with {@code beginning}. Earlier lines are skipped. */
        String read(String beginning) throws Exception {
            StringBuilder skipped = new StringBuilder();
            for (String line = nextLine(); line != null; line = nextLine()) {
                if (line.startsWith(beginning)) {
                    return line.substring(beginning.length());
                }
                skipped.append(line).append('\n');
            }
            throw new AssertionError("the virtual machine ended:\n" + skipped);
        }

        private String nextLine() throws Exception {
            return within(output::readLine);
        }

        /** Closes standard input and waits for the probe, which must succeed. Returns its remaining output. */
        String finish() throws Exception {
            process.getOutputStream().close();
            String text = within(() -> String.join("\n", output.lines().toArray(String[]::new)) + "\n");
            assertEquals(text, 0, (int) within(process::waitFor));
            assertFalse(text, text.contains(" in native method"));
            return text;
        }

        void kill() throws Exception {
            process.destroyForcibly();
            within(process::waitFor);
        }

        @Override
        public void close() throws IOException {
            process.destroyForcibly();
        }

        /** Runs {@code step} with a time limit. After it the machine is killed, which also ends a blocked read. */
        private <T> T within(Callable<T> step) throws Exception {
            FutureTask<T> task = new FutureTask<>(step);
            Thread thread = new Thread(task, "LoaderJvm");
            thread.setDaemon(true);
            thread.start();
            try {
                return task.get(LIMIT_SECONDS, TimeUnit.SECONDS);
            } catch (TimeoutException late) {
                throw new AssertionError("the virtual machine takes longer than " + LIMIT_SECONDS + " s", late);
            } catch (ExecutionException failed) {
                throw new AssertionError(failed.getCause());
            } finally {
                if (!task.isDone()) {
                    process.destroyForcibly();
                }
            }
        }
    }
}
