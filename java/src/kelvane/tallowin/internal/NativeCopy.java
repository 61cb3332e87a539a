package kelvane.tallowin.internal;

import static java.nio.file.LinkOption.NOFOLLOW_LINKS;
import static java.nio.file.StandardCopyOption.ATOMIC_MOVE;
import static java.nio.file.StandardOpenOption.CREATE_NEW;
import static java.nio.file.StandardOpenOption.WRITE;

import java.io.File;
import java.io.FileInputStream;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.math.BigInteger;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryIteratorException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFileAttributes;
import java.nio.file.attribute.PosixFilePermissions;
import java.nio.file.attribute.UserPrincipal;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.util.List;
import java.util.Locale;
import java.util.Set;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/**
 * A copy of the jar's library in a private directory below the temporary directory, kept until the JVM has mapped it.
 * Closing removes the directory; the mapping remains, for ever: the library is never unmapped. So that a class loader
 * does not cost a mapping of its own when another one is gone, its copy is {@linkplain #moveTo moved} to the place where
 * the copy of the other was loaded: at the same place, the system finds the mapping that it has.
 *
 * <p>A killed process leaves its directory behind, so each extraction also removes abandoned directories. Each
 * directory contains a lock file that its process keeps locked, which shows whether the process still runs:
 * <ul>
 * <li>a process removes a directory only while it holds the lock, and removes the lock file last;
 * <li>a process that creates a directory and then finds the lock taken or the lock file gone has lost it to another
 *     process, which saw it unlocked for a moment; it starts again with a new directory;
 * <li>a directory without a lock file is being created or removed at this moment; it is removed only when empty.
 * </ul>
 *
 * <p>File locks work between processes only: when a process closes any channel of a file, it loses all its locks on
 * that file. Within one process, {@link #JVM_LOCK} guards everything here.
 */
public final class NativeCopy implements AutoCloseable {
    /**
     * The monitor that callers hold from before they create a copy until after they close it.
     * Deliberate (one-monitor-for-all-loaders): a string constant, because that is the same object in all class loaders,
     * each of which has its own NativeCopy class.
     */
    public static final Object JVM_LOCK = "kelvane.tallowin.NativeCopy";

    /** Where the jar has its resources. */
    public static final String PACKAGE = "/kelvane/tallowin/";

    /** Directories are named PREFIX, hash of the content, "-", random. */
    private static final String PREFIX = "tallowin-native-";
    private static final int HASH_DIGITS = 16;
    private static final Path MAPPINGS = Path.of("/proc/self/maps");
    private static final String LOCK = "lock";
    private static final int ATTEMPTS = 100;

    private static final String UNDAMAGED_JAR = "Replace the jar by an undamaged one.";

    private static final FileAttribute<?> OWNER_ONLY_DIRECTORY =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));
    private static final FileAttribute<?> OWNER_ONLY_FILE =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------"));

    private final NativeLibrary library;
    private final String name;
    private final Path home;
    private final FileChannel lock;
    private Path directory;

    private NativeCopy(NativeLibrary library, String name, Path directory, FileChannel lock) {
        this.library = library;
        this.name = name;
        this.home = directory;
        this.directory = directory;
        this.lock = lock;
    }

    /** The path of {@code library} for this platform in the jar, relative to {@link #PACKAGE}. */
    public static String resource(NativeLibrary library) {
        String system = System.getProperty("os.name").toLowerCase(Locale.ROOT);
        return resource(library, system + "-" + ElfFile.architecture(System.getProperty("os.arch")));
    }

    private static String resource(NativeLibrary library, String platform) {
        return "lib/" + platform + "/" + library.file;
    }

    /** The platforms of the libraries that the jar has, such as "linux-x86, linux-x86_64"; "none" when it has none. */
    private static String platforms(NativeLibrary library) {
        String found = ElfFile.architectures().stream().map(machine -> "linux-" + machine)
                .filter(platform -> NativeCopy.class.getResource(PACKAGE + resource(library, platform)) != null)
                .collect(Collectors.joining(", "));
        return found.isEmpty() ? "none" : found;
    }

    /**
     * Extracts {@code library} from the jar and removes directories that killed processes left behind.
     *
     * @return the copy; the caller closes it
     * @throws LoadProblem when the jar is damaged or has no library for this platform, or the temporary directory
     *                     cannot be used; no file is left there
     */
    public static NativeCopy extract(NativeLibrary library) throws LoadProblem {
        byte[] content = read(resource(library));
        if (content == null) {
            throw new LoadProblem("the jar has none for this platform (os.name " + System.getProperty("os.name")
                    + ", os.arch " + System.getProperty("os.arch") + "); it has: " + platforms(library),
                    "Build it on this platform and name it with -D" + library.property + "=PATH.", null);
        }
        byte[] hash = read(resource(library) + ".sha256");
        String temporary = System.getProperty("java.io.tmpdir");
        try {
            String name = PREFIX + sha256(content).substring(0, HASH_DIGITS) + "-";
            NativeCopy copy = reserve(library, Path.of(temporary), name);
            try {
                copy.sweepOthers();
                copy.write(content);
                copy.requireHash(hash);
                return copy;
            } catch (IOException | LoadProblem | RuntimeException | Error failure) {
                copy.close();
                throw failure;
            }
        } catch (IOException | InvalidPathException unusable) {
            throw new LoadProblem("the temporary directory " + temporary + " cannot be written",
                    "Choose another one with -Djava.io.tmpdir=DIRECTORY, or put " + library.file
                            + " beside the program and name it with -D" + library.property + "=PATH.", unusable);
        }
    }

    /** The library's file. */
    public File library() {
        return directory.resolve(library.file).toFile();
    }

    /**
     * The directories from which this JVM has mapped a copy with the same content, which were removed since. A class
     * loader that is alive may still use the mapping. Empty when the system does not list mappings, or may not be asked.
     */
    public List<Path> mappedPlaces() {
        Pattern place = Pattern.compile("^\\S+ r-x.*? (/(?:.*/)?" + Pattern.quote(name) + "[^/]*)/"
                + Pattern.quote(library.file) + " \\(deleted\\)$", Pattern.MULTILINE);
        try {
            return place.matcher(new String(Files.readAllBytes(MAPPINGS), StandardCharsets.UTF_8)).results()
                    .map(mapping -> Path.of(mapping.group(1))).distinct().collect(Collectors.toList());
        } catch (IOException | InvalidPathException | SecurityException unlisted) {
            return List.of();
        }
    }

    /** Moves the directory. Returns false, and leaves it where it is, when {@code place} is taken or out of reach. */
    boolean moveTo(Path place) {
        try {
            directory = Files.move(directory, place, ATOMIC_MOVE);
            return true;
        } catch (IOException | SecurityException impossible) {
            return false;
        }
    }

    /** Moves the directory to where it was created. */
    void moveBack() {
        if (!directory.equals(home)) {
            moveTo(home);
        }
    }

    /** Removes the directory and releases its lock. */
    @Override
    public void close() {
        try (lock) {
            remove(directory);
        } catch (IOException leftBehind) {
            // Does not affect loading. The next extraction of any process removes it.
        }
    }

    /** The bytes of the resource; null when it does not exist. */
    private static byte[] read(String resource) throws LoadProblem {
        try (InputStream in = NativeCopy.class.getResourceAsStream(PACKAGE + resource)) {
            return in == null ? null : in.readAllBytes();
        } catch (IOException damaged) {
            throw new LoadProblem("the jar cannot be read", UNDAMAGED_JAR, damaged);
        }
    }

    /** Creates a directory and locks it. */
    private static NativeCopy reserve(NativeLibrary library, Path temporary, String name) throws IOException {
        for (int i = 0; i < ATTEMPTS; i++) {
            Path directory = Files.createTempDirectory(temporary, name, OWNER_ONLY_DIRECTORY).toAbsolutePath();
            try {
                FileChannel lock = takeLock(directory.resolve(LOCK));
                if (lock != null) {
                    return new NativeCopy(library, name, directory, lock);
                }
            } catch (IOException failure) {
                remove(directory);
                throw failure;
            }
        }
        throw new IOException("other processes remove each new directory in it");
    }

    /** Creates and locks the lock file. Returns null when another process is removing the directory. */
    private static FileChannel takeLock(Path file) throws IOException {
        FileChannel lock;
        try {
            lock = FileChannel.open(file, Set.of(CREATE_NEW, WRITE), OWNER_ONLY_FILE);
        } catch (NoSuchFileException removed) {
            return null;
        }
        boolean ours = false;
        try {
            ours = lock.tryLock() != null && Files.exists(file, NOFOLLOW_LINKS);
            return ours ? lock : null;
        } finally {
            if (!ours) {
                lock.close();
            }
        }
    }

    private void sweepOthers() {
        try (DirectoryStream<Path> candidates = Files.newDirectoryStream(directory.getParent(), PREFIX + "*")) {
            UserPrincipal user = Files.getOwner(directory, NOFOLLOW_LINKS);
            for (Path candidate : candidates) {
                if (!candidate.equals(directory)) {
                    sweep(candidate, user);
                }
            }
        } catch (IOException | DirectoryIteratorException unlisted) {
            // Loading does not depend on it.
        }
    }

    /** Removes {@code candidate} when it is a directory of {@code user} that no process uses. */
    private static void sweep(Path candidate, UserPrincipal user) {
        try {
            PosixFileAttributes found = Files.readAttributes(candidate, PosixFileAttributes.class, NOFOLLOW_LINKS);
            if (found.isDirectory() && found.owner().equals(user)) {
                sweep(candidate);
            }
        } catch (IOException goneOrForeign) {
            // Another process has removed it, or it is not one of our directories.
        }
    }

    private static void sweep(Path directory) throws IOException {
        try (FileChannel lock = FileChannel.open(directory.resolve(LOCK), Set.of(WRITE, NOFOLLOW_LINKS))) {
            if (lock.tryLock() != null) {
                remove(directory);
            }
        } catch (NoSuchFileException beingCreatedOrRemoved) {
            Files.deleteIfExists(directory);
        }
    }

    private static void remove(Path directory) throws IOException {
        for (NativeLibrary library : NativeLibrary.values()) {
            Files.deleteIfExists(directory.resolve(library.file));
        }
        Files.deleteIfExists(directory.resolve(LOCK));
        Files.deleteIfExists(directory);
    }

    /** Deliberate (copy-without-channels): streams, because an interrupt of the caller would close a channel. */
    private void write(byte[] content) throws IOException {
        Files.createFile(library().toPath(), OWNER_ONLY_FILE);
        try (OutputStream out = new FileOutputStream(library())) {
            out.write(content);
        }
    }

    /** Compares the written file with {@code hash} from the jar; null when the jar has none. */
    private void requireHash(byte[] hash) throws IOException, LoadProblem {
        String expected = hash == null ? "missing" : new String(hash, StandardCharsets.US_ASCII).strip();
        String actual;
        try (InputStream in = new FileInputStream(library())) {
            actual = sha256(in.readAllBytes());
        }
        if (!actual.equalsIgnoreCase(expected)) {
            throw new LoadProblem("the content of " + library() + " is wrong: its SHA-256 is " + actual
                    + ", the one in the jar is " + expected, UNDAMAGED_JAR, null);
        }
    }

    private static String sha256(byte[] content) {
        try {
            return String.format("%064x", new BigInteger(1, MessageDigest.getInstance("SHA-256").digest(content)));
        } catch (NoSuchAlgorithmException impossible) {
            throw new IllegalStateException("every Java platform has SHA-256", impossible);
        }
    }
}
