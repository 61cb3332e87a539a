package kelvane.tallowin;

import java.io.File;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Why the library could not be loaded from one place: the cause, what to do about it, and the system's own words.
 */
final class LoadProblem extends Exception {
    /**
     * What the system's loader, or the JVM before it, says when it refuses. The first row that fits counts. The loader
     * speaks the user's language, so its words count only where nothing else tells.
     */
    private enum Refusal {
        TAKEN("already loaded in another classloader",
                "another class loader of this JVM has loaded this very file",
                "Put the jar where all applications share it (the server's common class loader), or set neither "
                        + NativeLibrary.PROPERTY + " nor a java.library.path that leads to the library, so that each "
                        + "application takes its own copy out of the jar."),
        NO_EXECUTION("failed to map segment",
                "the file system that holds it forbids execution (it is mounted noexec, or a security policy says so)",
                "Choose a temporary directory that allows it with -Djava.io.tmpdir=DIRECTORY, or put libtallowin.so "
                        + "where it is allowed and name it with -D" + NativeLibrary.PROPERTY + "=PATH."),
        OTHER_C_LIBRARY("Error (?:loading shared library|relocating)",
                "this JVM runs on the C library musl, and the library needs the GNU C library (glibc)",
                "Run the program on a system with glibc, or build the library for this one and name it with -D"
                        + NativeLibrary.PROPERTY + "=PATH."),
        NEEDS_LIBRARY("(?:^|\\s)([^\\s:/]+\\.so[.0-9]*): ",
                "a library that it needs is missing: %s",
                "Install it: libssl.so.3 and libcrypto.so.3 belong to OpenSSL 3 (package libssl3), libuuid.so.1 to the "
                        + "package libuuid1, libstdc++.so.6 to libstdc++6, libgcc_s.so.1 to libgcc-s1."),
        NEEDS_VERSION("[^/\\w]([A-Z]{2}[A-Z_]*_[0-9.]+)[^/\\w]",
                "a library that it needs is too old: it lacks %s",
                "Update this system, or build the library on it and name that with -D" + NativeLibrary.PROPERTY
                        + "=PATH."),
        OTHER("",
                "the system's loader refuses it",
                "Name a library that was built for this system and this jar with -D" + NativeLibrary.PROPERTY
                        + "=PATH.");

        final Pattern words;
        final String cause;
        final String cure;

        Refusal(String words, String cause, String cure) {
            this.words = Pattern.compile(words);
            this.cause = cause;
            this.cure = cure;
        }

        LoadProblem problem(String named, Throwable refusal) {
            return new LoadProblem(String.format(cause, named), cure, refusal);
        }
    }

    private static final long serialVersionUID = 1;

    private final String cure;

    /**
     * A cause as the end of "cannot be loaded: ", without a full stop.
     *
     * @param cure   sentences with their full stops
     * @param origin what the system said; null when it was not asked
     */
    LoadProblem(String cause, String cure, Throwable origin) {
        super(cause, origin);
        this.cure = cure;
    }

    /**
     * Explains why the library was not loaded although there is a whole file.
     *
     * @param refusal what came out of {@link System#load}
     * @param file    the file
     * @param library its head
     */
    static LoadProblem of(Throwable refusal, File file, ElfFile library) {
        if (refusal instanceof IllegalCallerException) {
            Module module = LoadProblem.class.getModule();
            String denied = module.isNamed() ? "the module " + module.getName() : "unnamed modules";
            String option = "--enable-native-access=" + (module.isNamed() ? module.getName() : "ALL-UNNAMED");
            return new LoadProblem("this JVM denies native access to " + denied, "Start it with " + option + ".",
                    refusal);
        }
        String osArch = System.getProperty("os.arch");
        if (!library.fits(osArch)) {
            return new LoadProblem("it was built for " + library.target() + ", and this JVM is "
                    + ElfFile.target(osArch) + " (os.arch " + osArch + ")",
                    "Take the library or the JVM of the other kind.", refusal);
        }
        return MountTable.forbidsExecution(file.toPath()) ? Refusal.NO_EXECUTION.problem("", refusal) : of(refusal);
    }

    /** Explains the words of {@code refusal} alone. */
    static LoadProblem of(Throwable refusal) {
        for (Refusal row : Refusal.values()) {
            Matcher words = row.words.matcher(String.valueOf(refusal.getMessage()));
            if (words.find()) {
                String named = words.groupCount() == 0 ? "" : words.group(1);
                return row.problem(named, refusal);
            }
        }
        throw new AssertionError("the last row fits everything", refusal);
    }

    /** The cause and what to do. */
    String advice() {
        return getMessage() + ". " + cure;
    }

    /** The cause and the system's own words. */
    String happened() {
        return getCause() == null ? getMessage() : getMessage() + " [" + getCause() + "]";
    }
}
