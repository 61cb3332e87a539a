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
 * Creates, uses and destroys a million objects. Every tenth batch is left unclosed, and the program waits until the
 * cleaner has freed it. Prints the process's resident size at intervals, the number of different handles and the number
 * of failures, for {@link CyclesTest}.
 */
final class CyclesProgram {
    static final int CYCLES = 1_000_000;

    /** Cycles between two measurements of the resident size. */
    static final int INTERVAL = 50_000;

    /** Cycles of one batch. All its objects are closed, or all left unclosed. */
    static final int BATCH = 1000;
    private static final int UNCLOSED_EVERY = 10;

    private static final int FAILURE_EVERY = 10;
    private static final int LIMIT_SECONDS = 60;

    private final MessageObject probe = new MessageObject();
    private final List<UnclosedObject> unclosed = new ArrayList<>(BATCH);
    private final Set<Integer> handles = new HashSet<>();
    private int failures;

    private CyclesProgram() throws KVXException {
    }

    public static void main(String[] arguments) throws Exception {
        new CyclesProgram().run();
    }

    private void run() throws Exception {
        for (int cycle = 0; cycle < CYCLES; cycle += BATCH) {
            boolean leavesOpen = cycle / BATCH % UNCLOSED_EVERY == 0;
            for (int i = 0; i < BATCH; ++i) {
                cycle(cycle + i, leavesOpen);
            }
            if (leavesOpen) {
                awaitCleaner();
            }
            if ((cycle + BATCH) % INTERVAL == 0) {
                System.out.println("resident " + (cycle + BATCH) + " " + residentKiB());
            }
        }
        System.out.println("handles " + handles.size());
        System.out.println("failures " + failures);
    }

    /** Creates and uses one object, then closes it or leaves it unclosed. */
    private void cycle(int number, boolean leavesOpen) throws Exception {
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
                    throw new AssertionError("wrong amount");
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
        if (leavesOpen) {
            unclosed.add(new UnclosedObject(object));
        } else {
            object.close();
        }
    }

    /** Waits until the cleaner has freed the whole batch. */
    private void awaitCleaner() throws ReflectiveOperationException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
        while (System.nanoTime() < end) {
            System.gc();
            if (allFreed()) {
                unclosed.clear();
                return;
            }
        }
        throw new AssertionError("unclosed objects are not freed");
    }

    private boolean allFreed() throws ReflectiveOperationException {
        for (UnclosedObject one : unclosed) {
            if (!one.isFreed()) {
                return false;
            }
        }
        return true;
    }

    /** The resident size of this process. */
    static long residentKiB() throws IOException {
        for (String line : Files.readAllLines(Path.of("/proc/self/status"))) {
            if (line.startsWith("VmRSS:")) {
                return Long.parseLong(line.replaceAll("[^0-9]", ""));
            }
        }
        throw new IOException("no VmRSS");
    }
}
