package kelvane.tallowin;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.TimeUnit;

/**
 * Makes, uses and destroys a million objects; part of them are forgotten instead of closed. Prints what the process
 * needed, for {@link CyclesTest}.
 */
final class CyclesProgram {
    static final int CYCLES = 1_000_000;

    /** The size is noted after so many cycles each. */
    static final int INTERVAL = 50_000;

    /** Objects of one batch are all closed, or in every tenth batch all forgotten. */
    static final int BATCH = 1000;
    private static final int FORGOTTEN_EVERY = 10;

    private static final int FAILURE_EVERY = 10;
    private static final int PATIENCE_SECONDS = 60;

    private final MessageObject probe = new MessageObject();
    private final List<Forgotten> forgotten = new ArrayList<>(BATCH);
    private final Set<Integer> handles = new HashSet<>();
    private int failures;

    private CyclesProgram() throws KVXException {
    }

    public static void main(String[] arguments) throws Exception {
        new CyclesProgram().run();
    }

    private void run() throws Exception {
        for (int cycle = 0; cycle < CYCLES; cycle += BATCH) {
            boolean forgets = cycle / BATCH % FORGOTTEN_EVERY == 0;
            for (int i = 0; i < BATCH; ++i) {
                cycle(cycle + i, forgets);
            }
            if (forgets) {
                awaitCleaner();
            }
            if ((cycle + BATCH) % INTERVAL == 0) {
                System.out.println("resident " + (cycle + BATCH) + " " + residentKiB());
            }
        }
        System.out.println("handles " + handles.size());
        System.out.println("failures " + failures);
    }

    /** One object, made, used and closed or forgotten. */
    private void cycle(int number, boolean forgets) throws Exception {
        AutoCloseable object;
        switch (number % 3) {
            case 0:
                ConfigurationSetup setup = new ConfigurationSetup();
                setup.SetOption("UserName", "demo");
                object = setup;
                break;
            case 1:
                MessageFactory factory = new MessageFactory();
                factory.Open("somewhere");
                object = factory;
                break;
            default:
                MessageObject message = new MessageObject();
                message.FromString("<KVX AMOUNT=\"12.50\"/>");
                if (!message.GetAttribute("AMOUNT").equals("12.50")) {
                    throw new AssertionError("another amount");
                }
                object = message;
        }
        if (number % FAILURE_EVERY == 0) {
            try {
                probe.GetAttribute("none");
            } catch (KVXException expected) {
                ++failures;
            }
        }
        handles.add(NativeMethod.handleOf(object));
        if (forgets) {
            forgotten.add(new Forgotten(object));
        } else {
            object.close();
        }
    }

    /** Waits until the cleaner has freed all objects of the batch. */
    private void awaitCleaner() throws ReflectiveOperationException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(PATIENCE_SECONDS);
        while (System.nanoTime() < end) {
            System.gc();
            if (allFreed()) {
                forgotten.clear();
                return;
            }
        }
        throw new AssertionError("forgotten objects are still there");
    }

    private boolean allFreed() throws ReflectiveOperationException {
        for (Forgotten one : forgotten) {
            if (!one.isFreed()) {
                return false;
            }
        }
        return true;
    }

    private static long residentKiB() throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("[^0-9]", ""));
            }
        }
        throw new IOException("no VmRSS");
    }
}
