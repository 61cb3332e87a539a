package kelvane.tallowin;

import java.io.File;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import kelvane.tallowin.internal.NativeLibrary;

/**
 * Creates class loaders one after the other, as a server does that deploys an application again and again. Each takes
 * the library out of the jar and uses it; {@link #ALIVE} of them are kept at a time, older ones are collected. Prints, for
 * {@link LoaderCyclesTest}, after each tenth of the rounds how many copies of the library are mapped, how much address
 * space is in use below 2 GiB, where the library keeps its objects, and the resident size.
 *
 * <p>The argument is the number of class loaders.
 */
public final class LoadersProgram {
    /** Class loaders that are alive at the same time. */
    static final int ALIVE = 3;

    /** Lines that are printed. */
    static final int MEASUREMENTS = 10;

    private static final int LIMIT_SECONDS = 60;

    private final List<URL> path = new ArrayList<>();
    private final Deque<URLClassLoader> alive = new ArrayDeque<>();

    private LoadersProgram() throws Exception {
        for (String element : System.getProperty("java.class.path").split(File.pathSeparator)) {
            path.add(new File(element).toURI().toURL());
        }
    }

    /** Runs as many rounds as the argument says. */
    public static void main(String[] arguments) throws Exception {
        int rounds = Integer.parseInt(arguments[0]);
        LoadersProgram program = new LoadersProgram();
        for (int round = 1; round <= rounds; ++round) {
            program.deploy(round);
            if (round % (rounds / MEASUREMENTS) == 0) {
                System.out.println("after " + round + " mapped " + mapped() + " low " + lowKiB() + " resident "
                        + CyclesProgram.residentKiB());
            }
        }
    }

    private void deploy(int round) throws Exception {
        URLClassLoader loader = new URLClassLoader(path.toArray(new URL[0]), ClassLoader.getPlatformClassLoader());
        alive.addLast(loader);
        Object outcome = loader.loadClass(LoadersProgram.class.getName()).getMethod("use").invoke(null);
        if (!"loaded".equals(outcome)) {
            throw new AssertionError("round " + round + ": " + outcome);
        }
        if (alive.size() > ALIVE) {
            undeploy(round);
        }
    }

    /** Uses the library in the class loader of this class. Returns "loaded" or the failure. */
    public static String use() throws KVXException {
        String outcome = LoaderProbe.outcome();
        if (outcome.equals("loaded")) {
            try (MessageObject message = new MessageObject()) {
                message.FromString("<KVX AMOUNT=\"12.50\"/>");
                return message.GetAttribute("AMOUNT").equals("12.50") ? outcome : "wrong amount";
            }
        }
        return outcome;
    }

    private void undeploy(int round) throws Exception {
        WeakReference<ClassLoader> gone = closeOldest();
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
        while (gone.get() != null) {
            if (System.nanoTime() > end) {
                throw new AssertionError("round " + round + ": a class loader is not collected");
            }
            System.gc();
        }
    }

    private WeakReference<ClassLoader> closeOldest() throws Exception {
        try (URLClassLoader oldest = alive.removeFirst()) {
            return new WeakReference<>(oldest);
        }
    }

    private static long mapped() throws Exception {
        try (Stream<String> mappings = Files.lines(Path.of("/proc/self/maps"))) {
            return mappings.filter(line -> line.contains(NativeLibrary.CORE.file))
                    .map(line -> line.substring(line.indexOf('/'))).distinct().count();
        }
    }

    /** The address space in use below 2 GiB. */
    private static long lowKiB() throws Exception {
        try (Stream<String> mappings = Files.lines(Path.of("/proc/self/maps"))) {
            return mappings.map(line -> line.split("[- ]", 3))
                    .filter(ends -> Long.parseUnsignedLong(ends[1], 16) >>> 31 == 0)
                    .mapToLong(ends -> Long.parseLong(ends[1], 16) - Long.parseLong(ends[0], 16)).sum() / 1024;
        }
    }
}
