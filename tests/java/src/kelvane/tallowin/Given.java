package kelvane.tallowin;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

/** Files that the build passes to the tests in system properties. */
final class Given {
    private Given() {
    }

    /** The native library, outside the jar. */
    static Path library() {
        return existing("kvx.test.library");
    }

    /** The jar under test. */
    static Path jar() {
        return existing("kvx.test.jar");
    }

    /** The directory of the compiled test classes. */
    static Path testClasses() {
        return existing("kvx.test.classes");
    }

    /** The program of the payment service. */
    static Path sandbox() {
        return existing("kvx.test.sandbox");
    }

    /** The C header of the order ledger. */
    static Path ledgerHeader() {
        return existing("kvx.test.ledgerheader");
    }

    /** The library that makes allocations fail. */
    static Path heapFault() {
        return existing("kvx.test.heapfault");
    }

    /** The table of results when allocations fail. */
    static Path allocationTable() {
        return existing("kvx.test.allocations");
    }

    /** The home directories of all installed virtual machines, the running one first. */
    static List<Path> javaHomes() {
        List<Path> homes = new ArrayList<>();
        homes.add(Path.of(System.getProperty("java.home")));
        for (String home : System.getProperty("kvx.test.jdks", "").split(":")) {
            if (!home.isEmpty()) {
                homes.add(Path.of(home));
            }
        }
        return homes;
    }

    private static Path existing(String property) {
        String value = System.getProperty(property);
        if (value == null) {
            throw new AssertionError("the system property " + property + " is not set");
        }
        Path path = Path.of(value);
        if (!Files.exists(path)) {
            throw new AssertionError(property + " names a file that does not exist: " + path);
        }
        return path;
    }
}
