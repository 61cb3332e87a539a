package kelvane.tallowin.internal;

import java.io.File;
import java.net.URL;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/**
 * A native library of the jar. Loads it, once per class loader. Every constructor of a class with native methods calls
 * {@link #load} first.
 *
 * <p>A library is searched in this order:
 * <ol>
 * <li>its system property {@link #property}: the library's file or its directory. When it is set, no other place is
 *     searched, so that no other library than the named one is ever loaded;
 * <li>the first directory of {@code java.library.path} that contains the library. Empty elements, which would mean the
 *     working directory, are skipped;
 * <li>the jar, from which a {@link NativeCopy} is extracted.
 * </ol>
 */
public enum NativeLibrary {
    /** The component: the classes of the package {@code kelvane.tallowin}. */
    CORE("libtallowin.so", "kelvane.tallowin.library", "Java_kelvane_tallowin_MessageObject_nConstruct"),

    /** The order ledger: the package {@code kelvane.tallowin.ledger}. Contains the component. */
    LEDGER("libtallowin-ledger-jni.so", "kelvane.tallowin.ledger.library",
            "Java_kelvane_tallowin_ledger_Natives_create");

    /** The library's file name, on disk and in the jar. */
    public final String file;

    /** The system property with the library's file or its directory. */
    public final String property;

    /** One of the exported native methods. A library built without a JDK has none. */
    private final String nativeMethod;

    private volatile boolean loaded;

    /** The message of the failed search; null before. Guarded by this library's monitor. */
    private String failure;

    NativeLibrary(String file, String property, String nativeMethod) {
        this.file = file;
        this.property = property;
        this.nativeMethod = nativeMethod;
    }

    /**
     * Loads the library unless this class loader has done so already. Thread-safe.
     *
     * @throws UnsatisfiedLinkError when it cannot be loaded. The message contains cause, remedy, and every place
     *                              searched with its failure. Later calls throw the same message without another search
     * @throws SecurityException    when a security manager forbids the search; a later call searches again
     */
    public void load() {
        if (!loaded) {
            loadOnce();
        }
    }

    private synchronized void loadOnce() {
        if (loaded) {
            return;
        }
        if (failure == null) {
            Search search = new Search();
            if (search.find()) {
                loaded = true;
                return;
            }
            failure = search.explanation();
        }
        throw new UnsatisfiedLinkError(failure);
    }

    private String notLoaded() {
        return file + " cannot be loaded: ";
    }

    /** Loads {@code copy}: from a place where it is mapped already and no class loader uses it any more, or its own. */
    private void link(NativeCopy copy) throws LoadProblem {
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

    /** Loads {@code library}. Must be in this class: the JVM binds the library to the class loader of the caller. */
    private void link(File library) throws LoadProblem {
        requireReadable(library);
        ElfFile header = ElfFile.read(library);
        try {
            System.load(library.getPath());
        } catch (UnsatisfiedLinkError | IllegalCallerException failure) {
            throw LoadProblem.of(this, failure, library, header);
        }
        if (!ElfFile.names(library, nativeMethod)) {
            throw new LoadProblem(library + " was built without the native methods of the Java classes",
                    "Build it where a JDK is installed, or leave -D" + property
                            + " and java.library.path out to use the one in the jar.", null);
        }
    }

    private void requireReadable(File library) throws LoadProblem {
        String cause = !library.exists() ? " does not exist, or cannot be reached by this user"
                : !library.isFile() ? " is no regular file"
                : !library.canRead() ? " cannot be read by this user" : null;
        if (cause != null) {
            throw new LoadProblem(library + cause, "Let -D" + property + "=PATH name a readable " + file
                    + " or its directory, or leave it out to use the one in the jar.", null);
        }
    }

    /** Loads the library from one place. */
    @FunctionalInterface
    private interface LoadStep {
        void run() throws LoadProblem;
    }

    /** One search for the library. */
    private final class Search {
        private final List<String> tried = new ArrayList<>();
        private final List<LoadProblem> problems = new ArrayList<>();

        private boolean find() {
            try {
                String named = System.getProperty(property, "");
                return named.isEmpty() ? findInstalled() || findInJar() : findNamed(new File(named).getAbsoluteFile());
            } catch (SecurityException forbidden) {
                throw new SecurityException(notLoaded() + "the security manager forbids a step. Grant the permission "
                        + "that it names: " + forbidden.getMessage(), forbidden);
            }
        }

        private boolean findNamed(File named) {
            File library = named.isDirectory() ? new File(named, file) : named;
            return attempt(library + " (system property " + property + ")", () -> link(library));
        }

        private boolean findInstalled() {
            for (String directory : System.getProperty("java.library.path", "").split(File.pathSeparator)) {
                if (directory.isEmpty()) {
                    continue;
                }
                File library = new File(directory, file).getAbsoluteFile();
                if (library.exists()) {
                    return attempt(library + " (java.library.path)", () -> link(library));
                }
                tried.add(library + " (java.library.path): not there");
            }
            return false;
        }

        private boolean findInJar() {
            String resource = NativeCopy.resource(NativeLibrary.this);
            URL found = NativeLibrary.class.getResource(NativeCopy.PACKAGE + resource);
            return attempt(found == null ? resource + " in the jar" : found.toString(), () -> {
                synchronized (NativeCopy.JVM_LOCK) {
                    try (NativeCopy copy = NativeCopy.extract(NativeLibrary.this)) {
                        link(copy);
                    }
                }
            });
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

        private String explanation() {
            String advice = problems.stream().map(LoadProblem::advice).distinct().collect(Collectors.joining(" "));
            return notLoaded() + advice + "\nTried:\n  " + String.join("\n  ", tried);
        }
    }
}
