package kelvane.tallowin;

import java.io.File;
import java.net.URL;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/**
 * Loads the native library into this class loader, once. Every constructor that leads to native methods calls
 * {@link #load} first.
 *
 * <p>The places, in this order:
 * <ol>
 * <li>the system property {@link #PROPERTY}: the library's file, or the directory that holds it. It is the only place
 *     when it is set, so that nobody is given another library than the one named;
 * <li>the first directory of {@code java.library.path} that holds the library. Empty elements are left out:
 *     the working directory is no place for code;
 * <li>the jar, by way of a {@link NativeCopy}.
 * </ol>
 *
 * <p>An object of this class is one search.
 */
final class NativeLibrary {
    /** The library's file name, on disk and in the jar. */
    static final String FILE = "libtallowin.so";

    /** Names the library's file or its directory. */
    static final String PROPERTY = "kelvane.tallowin.library";

    /** A library that was built without a JDK has none of them. */
    private static final String A_NATIVE_METHOD = "Java_kelvane_tallowin_MessageObject_nConstruct";

    private static final String NOT_LOADED = FILE + " cannot be loaded: ";

    private static volatile boolean loaded;

    /** What the failed search told; null before. Guarded by this class. */
    private static String failure;

    /** One way to the library. */
    @FunctionalInterface
    private interface Way {
        void go() throws LoadProblem;
    }

    private final List<String> tried = new ArrayList<>();
    private final List<LoadProblem> problems = new ArrayList<>();

    private NativeLibrary() {}

    /**
     * Loads the library when this class loader has not done so yet. Any number of threads may call at once.
     *
     * @throws UnsatisfiedLinkError when it cannot be loaded. The message tells the cause, what to do, and each place
     *                              with what happened there. The search is not repeated: later calls tell the same
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
            throw new SecurityException(NOT_LOADED + "the security manager forbids a step. Grant what it names: "
                    + forbidden.getMessage(), forbidden);
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
            synchronized (NativeCopy.JVM_WIDE) {
                try (NativeCopy copy = NativeCopy.extract()) {
                    link(copy.library());
                }
            }
        });
    }

    private boolean attempt(String place, Way way) {
        try {
            way.go();
            return true;
        } catch (LoadProblem problem) {
            tried.add(place + ": " + problem.happened());
            problems.add(problem);
            return false;
        }
    }

    /** Maps {@code library}. Stands here because the JVM asks which package, and whose class loader, wants it. */
    private static void link(File library) throws LoadProblem {
        requireReadable(library);
        ElfFile head = ElfFile.read(library);
        try {
            System.load(library.getPath());
        } catch (UnsatisfiedLinkError | IllegalCallerException refusal) {
            throw LoadProblem.of(refusal, library, head);
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
