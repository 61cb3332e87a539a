package kelvane.tallowin;

import java.io.File;
import java.net.URL;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/**
 * Loads the native library, once per class loader. Every constructor of a class with native methods calls {@link #load}
 * first.
 *
 * <p>The library is searched in this order:
 * <ol>
 * <li>the system property {@link #PROPERTY}: the library's file or its directory. When it is set, no other place is
 *     searched, so that no other library than the named one is ever loaded;
 * <li>the first directory of {@code java.library.path} that contains the library. Empty elements, which would mean the
 *     working directory, are skipped;
 * <li>the jar, from which a {@link NativeCopy} is extracted.
 * </ol>
 *
 * <p>An object of this class is one search.
 */
final class NativeLibrary {
    /** The library's file name, on disk and in the jar. */
    static final String FILE = "libtallowin.so";

    /** The system property with the library's file or its directory. */
    static final String PROPERTY = "kelvane.tallowin.library";

    /** One of the exported native methods. A library built without a JDK has none. */
    private static final String A_NATIVE_METHOD = "Java_kelvane_tallowin_MessageObject_nConstruct";

    private static final String NOT_LOADED = FILE + " cannot be loaded: ";

    private static volatile boolean loaded;

    /** The message of the failed search; null before. Guarded by the class's monitor. */
    private static String failure;

    /** Loads the library from one place. */
    @FunctionalInterface
    private interface LoadStep {
        void run() throws LoadProblem;
    }

    private final List<String> tried = new ArrayList<>();
    private final List<LoadProblem> problems = new ArrayList<>();

    private NativeLibrary() {}

    /**
     * Loads the library unless this class loader has done so already. Thread-safe.
     *
     * @throws UnsatisfiedLinkError when it cannot be loaded. The message contains cause, remedy, and every place
     *                              searched with its failure. Later calls throw the same message without another search
     * @throws SecurityException    when a security manager forbids the search; a later call searches again
     */
    static void load() {
        if (!loaded) {
            loadOnce();
        }
    }

    private static synchronized void loadOnce() {
        if (loaded) {
            return;
        }
        if (failure == null) {
            NativeLibrary search = new NativeLibrary();
            if (search.find()) {
                loaded = true;
                return;
            }
            failure = search.explanation();
        }
        throw new UnsatisfiedLinkError(failure);
    }

    private boolean find() {
        try {
            String named = System.getProperty(PROPERTY, "");
            return named.isEmpty() ? findInstalled() || findInJar() : findNamed(new File(named).getAbsoluteFile());
        } catch (SecurityException forbidden) {
            throw new SecurityException(NOT_LOADED + "the security manager forbids a step. Grant the permission that it "
                    + "names: " + forbidden.getMessage(), forbidden);
        }
    }

    private boolean findNamed(File named) {
        File library = named.isDirectory() ? new File(named, FILE) : named;
        return attempt(library + " (system property " + PROPERTY + ")", () -> link(library));
    }

    private boolean findInstalled() {
        for (String directory : System.getProperty("java.library.path", "").split(File.pathSeparator)) {
            if (directory.isEmpty()) {
                continue;
            }
            File library = new File(directory, FILE).getAbsoluteFile();
            if (library.exists()) {
                return attempt(library + " (java.library.path)", () -> link(library));
            }
            tried.add(library + " (java.library.path): not there");
        }
        return false;
    }

    private boolean findInJar() {
        URL resource = NativeLibrary.class.getResource(NativeCopy.resource());
        return attempt(resource == null ? NativeCopy.resource() + " in the jar" : resource.toString(), () -> {
            synchronized (NativeCopy.JVM_LOCK) {
                try (NativeCopy copy = NativeCopy.extract()) {
                    link(copy);
                }
            }
        });
    }

    /** Loads {@code copy}: from a place where it is mapped already and no class loader uses it any more, or its own. */
    private static void link(NativeCopy copy) throws LoadProblem {
        for (Path place : copy.mappedPlaces()) {
            if (copy.moveTo(place)) {
                try {
                    link(copy.library());
                    return;
                } catch (LoadProblem inUse) {
                    // By a class loader that is alive. Any other cause fails again below.
                }
            }
        }
        copy.moveBack();
        link(copy.library());
    }

    private boolean attempt(String place, LoadStep step) {
        try {
            step.run();
            return true;
        } catch (LoadProblem problem) {
            tried.add(place + ": " + problem.details());
            problems.add(problem);
            return false;
        }
    }

    /** Loads {@code library}. Must be in this class: the JVM binds the library to the class loader of the caller. */
    private static void link(File library) throws LoadProblem {
        requireReadable(library);
        ElfFile header = ElfFile.read(library);
        try {
            System.load(library.getPath());
        } catch (UnsatisfiedLinkError | IllegalCallerException failure) {
            throw LoadProblem.of(failure, library, header);
        }
        if (!ElfFile.names(library, A_NATIVE_METHOD)) {
            throw new LoadProblem(library + " was built without the native methods of the Java classes",
                    "Build it where a JDK is installed, or leave -D" + PROPERTY
                            + " and java.library.path out to use the one in the jar.", null);
        }
    }

    private static void requireReadable(File library) throws LoadProblem {
        String cause = !library.exists() ? " does not exist, or cannot be reached by this user"
                : !library.isFile() ? " is no regular file"
                : !library.canRead() ? " cannot be read by this user" : null;
        if (cause != null) {
            throw new LoadProblem(library + cause, "Let -D" + PROPERTY + "=PATH name a readable " + FILE
                    + " or its directory, or leave it out to use the one in the jar.", null);
        }
    }

    private String explanation() {
        String advice = problems.stream().map(LoadProblem::advice).distinct().collect(Collectors.joining(" "));
        return NOT_LOADED + advice + "\nTried:\n  " + String.join("\n  ", tried);
    }
}
