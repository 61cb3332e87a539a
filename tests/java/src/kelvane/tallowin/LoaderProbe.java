package kelvane.tallowin;

import java.io.File;
import java.io.IOException;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.Stream;
import kelvane.tallowin.internal.NativeCopy;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * The program that {@link LoaderJvm} runs. Its first argument selects how it loads the library: once, twice, with the
 * thread interrupted, in several class loaders, or by extracting copies; it prints the result of each step.
 */
public final class LoaderProbe {
    private LoaderProbe() {}

    /** Runs the case that {@code arguments[0]} names and prints its results. */
    public static void main(String[] arguments) throws Exception {
        switch (arguments[0]) {
            case "load":
                System.out.println(outcome());
                printSurroundings();
                break;
            case "outcome":
                System.out.println(outcome());
                break;
            case "twice":
                String first = outcome();
                System.setProperty(NativeLibrary.CORE.property, "a second search would fail here in another way");
                System.out.println(first.equals(outcome()) ? "twice the same: " + first : "another message");
                break;
            case "interrupted":
                Thread.currentThread().interrupt();
                System.out.println(outcome() + ", interrupted: " + Thread.interrupted());
                break;
            case "loaders":
                loadInFurtherClassLoaders(Integer.parseInt(arguments[1]));
                printSurroundings();
                break;
            case "obstacle":
                loadBesideAnObstacle();
                printSurroundings();
                break;
            case "hold":
                hold();
                break;
            case "churn":
                churn(Integer.parseInt(arguments[1]));
                break;
            default:
                throw new IllegalArgumentException(arguments[0]);
        }
    }

    /** Loads the library in the class loader of this class. Returns "loaded" or the failure. */
    public static String outcome() {
        try {
            NativeLibrary.CORE.load();
            return "loaded";
        } catch (UnsatisfiedLinkError | SecurityException failure) {
            return failure.getClass().getSimpleName() + ": " + failure.getMessage();
        }
    }

    /** Prints the mapped files of the library and the files left in the temporary directory. */
    private static void printSurroundings() throws Exception {
        try (Stream<String> mappings = Files.lines(Path.of("/proc/self/maps"))) {
            mappings.filter(line -> line.contains(NativeLibrary.CORE.file))
                    .map(line -> line.substring(line.indexOf('/'))).distinct().forEach(file -> System.out.println("mapped: " + file));
        }
        try (Stream<Path> files = Files.list(Path.of(System.getProperty("java.io.tmpdir")))) {
            files.forEach(file -> System.out.println("left: " + file.getFileName()));
        }
    }

    private static URLClassLoader newLoader() throws IOException {
        List<URL> path = new ArrayList<>();
        for (String element : System.getProperty("java.class.path").split(File.pathSeparator)) {
            path.add(new File(element).toURI().toURL());
        }
        return new URLClassLoader(path.toArray(new URL[0]), ClassLoader.getPlatformClassLoader());
    }

    /** Loads the library in {@code count} class loaders at the same time, with two threads each. */
    private static void loadInFurtherClassLoaders(int count) throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(2 * count);
        List<Future<?>> outcomes = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            Class<?> probe = newLoader().loadClass(LoaderProbe.class.getName());
            for (int thread = 0; thread < 2; thread++) {
                outcomes.add(threads.submit(() -> probe.getMethod("outcome").invoke(null)));
            }
        }
        for (Future<?> outcome : outcomes) {
            System.out.println("loader: " + outcome.get());
        }
        threads.shutdown();
    }

    /** Loads the library in a class loader, then in another one while a file is in the way at the place of the first. */
    private static void loadBesideAnObstacle() throws Exception {
        WeakReference<ClassLoader> gone = loadAndForget();
        while (gone.get() != null) {
            System.gc();
        }
        Path place;
        synchronized (NativeCopy.JVM_LOCK) {
            try (NativeCopy copy = NativeCopy.extract(NativeLibrary.CORE)) {
                place = copy.mappedPlaces().get(0);
            }
        }
        Path obstacle = Files.createFile(Files.createDirectory(place).resolve("obstacle"));
        loadAndForget();
        Files.delete(obstacle);
        Files.delete(place);
    }

    private static WeakReference<ClassLoader> loadAndForget() throws Exception {
        try (URLClassLoader loader = newLoader()) {
            Class<?> probe = loader.loadClass(LoaderProbe.class.getName());
            System.out.println("loader: " + probe.getMethod("outcome").invoke(null));
            return new WeakReference<>(loader);
        }
    }

    /** Extracts a copy and keeps it until standard input ends. */
    private static void hold() throws Exception {
        synchronized (NativeCopy.JVM_LOCK) {
            try (NativeCopy copy = NativeCopy.extract(NativeLibrary.CORE)) {
                System.out.println("holding: " + copy.library());
                System.in.read();
            }
        }
    }

    /** Extracts a copy {@code count} times. Each must be intact until it is closed. */
    private static void churn(int count) throws Exception {
        String resource = NativeCopy.PACKAGE + NativeCopy.resource(NativeLibrary.CORE);
        byte[] expected = NativeCopy.class.getResourceAsStream(resource).readAllBytes();
        for (int i = 0; i < count; i++) {
            synchronized (NativeCopy.JVM_LOCK) {
                try (NativeCopy copy = NativeCopy.extract(NativeLibrary.CORE)) {
                    byte[] found = Files.readAllBytes(copy.library().toPath());
                    if (!Arrays.equals(found, expected)) {
                        throw new IllegalStateException("the copy is damaged");
                    }
                }
            }
        }
        System.out.println("churned");
    }
}
