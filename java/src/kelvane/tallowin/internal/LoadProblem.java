package kelvane.tallowin.internal;

import java.io.File;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Why the library could not be loaded from one place: the cause, the remedy, and the system's own message.
 *
 * <p>The cause is found in this order: a JVM that denies native access, a library for another machine, a file system
 * that forbids execution, then the loader's message, which a table of patterns explains.
 */
public final class LoadProblem extends Exception {
    /**
     * Messages of the system's loader, or of the JVM, with their causes and remedies. The first row that matches
     * applies. The loader's messages are translated, so the patterns rely on words only where nothing else identifies
     * the cause.
     */
    private enum LoaderMessage {
        LOADED_ELSEWHERE("already loaded in another classloader",
                "another class loader of this JVM has loaded this very file",
                "Put the jar where all applications share it (the server's common class loader), or set neither "
                        + "PROPERTY nor a java.library.path that leads to the library, so that each "
                        + "application takes its own copy out of the jar."),
        NO_EXECUTION("failed to map segment",
                "the file system that holds it forbids execution (it is mounted noexec, or a security policy says so)",
                "Choose a temporary directory that allows it with -Djava.io.tmpdir=DIRECTORY, or put FILE where "
                        + "it is allowed and name it with -DPROPERTY=PATH."),
        OTHER_C_LIBRARY("Error (?:loading shared library|relocating)",
                "this JVM runs on the C library musl, and the library needs the GNU C library (glibc)",
                "Run the program on a system with glibc, or build the library for this one and name it with "
                        + "-DPROPERTY=PATH."),
        NEEDS_LIBRARY("(?:^|\\s)([^\\s:/]+\\.so[.0-9]*): ",
                "a library that it needs is missing: %s",
                "Install it: libssl.so.3 and libcrypto.so.3 belong to OpenSSL 3 (package libssl3), libuuid.so.1 to the "
                        + "package libuuid1, libsqlite3.so.0 to libsqlite3-0, libstdc++.so.6 to libstdc++6, "
                        + "libgcc_s.so.1 to libgcc-s1."),
        NEEDS_VERSION("[^/\\w]([A-Z]{2}[A-Z_]*_[0-9.]+)[^/\\w]",
                "a library that it needs is too old: it lacks %s",
                "Update this system, or build the library on it and name that with "
                        + "-DPROPERTY=PATH."),
        OTHER("",
                "the system's loader refuses it",
                "Name a library that was built for this system and this jar with -DPROPERTY=PATH.");

        final Pattern pattern;
        final String cause;
        final String remedy;

        /** In {@code remedy}, PROPERTY and FILE stand for those of the library. */
        LoaderMessage(String pattern, String cause, String remedy) {
            this.pattern = Pattern.compile(pattern);
            this.cause = cause;
            this.remedy = remedy;
        }

        LoadProblem problem(NativeLibrary library, String missing, Throwable failure) {
            return new LoadProblem(String.format(cause, missing),
                    remedy.replace("PROPERTY", library.property).replace("FILE", library.file), failure);
        }
    }

    private static final long serialVersionUID = 1;

    private final String remedy;

    /**
     * Creates a problem.
     *
     * @param cause  continues "cannot be loaded: ", without a full stop
     * @param remedy sentences with their full stops
     * @param origin the system's failure; null when the check was our own
     */
    LoadProblem(String cause, String remedy, Throwable origin) {
        super(cause, origin);
        this.remedy = remedy;
    }

    /**
     * Explains why {@link System#load} failed for a complete library file.
     *
     * @param library the library that was to be loaded
     * @param failure the exception of {@link System#load}
     * @param file    the file
     * @param header  its header
     */
    static LoadProblem of(NativeLibrary library, Throwable failure, File file, ElfFile header) {
        if (failure instanceof IllegalCallerException) {
            Module module = LoadProblem.class.getModule();
            String denied = module.isNamed() ? "the module " + module.getName() : "unnamed modules";
            String option = "--enable-native-access=" + (module.isNamed() ? module.getName() : "ALL-UNNAMED");
            return new LoadProblem("this JVM denies native access to " + denied, "Start it with " + option + ".",
                    failure);
        }
        String osArch = System.getProperty("os.arch");
        if (!header.fits(osArch)) {
            return new LoadProblem("it was built for " + header.target() + ", and this JVM is "
                    + ElfFile.target(osArch) + " (os.arch " + osArch + ")",
                    "Use a library built for this JVM, or a JVM that matches the library.", failure);
        }
        if (MountTable.forbidsExecution(file.toPath())) {
            return LoaderMessage.NO_EXECUTION.problem(library, "", failure);
        }
        return of(library, failure);
    }

    /** Explains {@code failure} by its message alone. */
    public static LoadProblem of(NativeLibrary library, Throwable failure) {
        for (LoaderMessage row : LoaderMessage.values()) {
            Matcher matcher = row.pattern.matcher(String.valueOf(failure.getMessage()));
            if (matcher.find()) {
                String missing = matcher.groupCount() == 0 ? "" : matcher.group(1);
                return row.problem(library, missing, failure);
            }
        }
        throw new AssertionError("the last row matches every message", failure);
    }

    /** The cause and the remedy. */
    public String advice() {
        return getMessage() + ". " + remedy;
    }

    /** The cause and the system's own message. */
    public String details() {
        return getCause() == null ? getMessage() : getMessage() + " [" + getCause() + "]";
    }
}
