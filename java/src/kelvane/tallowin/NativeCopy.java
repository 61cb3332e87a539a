package kelvane.tallowin;

import static java.nio.file.LinkOption.NOFOLLOW_LINKS;
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
import java.util.Locale;
import java.util.Set;

/**
 * A directory of our own below the temporary directory, which holds the jar's copy of the library until the JVM has
 * mapped it. Closing removes it; the mapping stays.
 *
 * <p>A process that is killed leaves its directory behind, so each extraction also removes what others left. A file in
 * the directory, locked as long as its process works there, tells the living from the dead:
 * <ul>
 * <li>whoever removes a directory holds the lock, and removes the lock file last;
 * <li>whoever made a directory and then finds the lock taken or the lock file gone was taken for dead in the moment
 *     before it held the lock, and begins anew in another directory;
 * <li>a directory without a lock file is just being born or dying: it is removed only when empty.
 * </ul>
 *
 * <p>The lock counts between processes only: when a process closes any channel of a file, all its locks on that file
 * are gone. Therefore everything here happens under {@link #JVM_WIDE}.
 */
final class NativeCopy implements AutoCloseable {
    /**
     * The monitor that the callers hold from before the making of a copy until after its closing. Deliberate: as a
     * string constant it is the same object for all class loaders, which have a class of their own each.
     */
    static final Object JVM_WIDE = "kelvane.tallowin.NativeCopy";

    private static final String PREFIX = "tallowin-native-";
    private static final String LOCK = "lock";
    private static final int ATTEMPTS = 100;

    private static final String UNDAMAGED_JAR = "Replace the jar by an undamaged one.";

    private static final FileAttribute<?> OWNER_ONLY_DIRECTORY =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rwx------"));
    private static final FileAttribute<?> OWNER_ONLY_FILE =
            PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------"));

    private final Path directory;
    private final FileChannel lock;

    private NativeCopy(Path directory, FileChannel lock) {
        this.directory = directory;
        this.lock = lock;
    }

    /** Where the jar keeps the library for this platform, relative to the package. */
    static String resource() {
        String system = System.getProperty("os.name").toLowerCase(Locale.ROOT);
        return "lib/" + system + "-" + ElfFile.architecture(System.getProperty("os.arch")) + "/" + NativeLibrary.FILE;
    }

    /**
     * Takes the library out of the jar, and removes what dead processes left behind.
     *
     * @return the copy, which the caller closes
     * @throws LoadProblem when the jar has no library for this platform or is damaged, or when the temporary directory
     *                     cannot be used; nothing is left there
     */
    static NativeCopy extract() throws LoadProblem {
        byte[] content = read(resource());
        if (content == null) {
            throw new LoadProblem("the jar has none for this platform (os.name " + System.getProperty("os.name")
                    + ", os.arch " + System.getProperty("os.arch") + ")",
                    "Build it on this platform and name it with -D" + NativeLibrary.PROPERTY + "=PATH.", null);
        }
        byte[] hash = read(resource() + ".sha256");
        String temporary = System.getProperty("java.io.tmpdir");
        try {
            NativeCopy copy = reserve(Path.of(temporary));
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
                    "Choose another one with -Djava.io.tmpdir=DIRECTORY, or put libtallowin.so beside the program and "
                            + "name it with -D" + NativeLibrary.PROPERTY + "=PATH.", unusable);
        }
    }

    /** The library's file. */
    File library() {
        return directory.resolve(NativeLibrary.FILE).toFile();
    }

    /** Removes the directory. */
    @Override
    public void close() {
        try (lock) {
            remove(directory);
        } catch (IOException leftBehind) {
            // Neither loading nor its failure depends on it, and the next extraction of any process tries again.
        }
    }

    /** The resource's bytes; null when there is no such resource. */
    private static byte[] read(String resource) throws LoadProblem {
        try (InputStream in = NativeCopy.class.getResourceAsStream(resource)) {
            return in == null ? null : in.readAllBytes();
        } catch (IOException damaged) {
            throw new LoadProblem("the jar cannot be read", UNDAMAGED_JAR, damaged);
        }
    }

    /** Makes a directory and takes its lock. */
    private static NativeCopy reserve(Path temporary) throws IOException {
        for (int i = 0; i < ATTEMPTS; i++) {
            Path directory = Files.createTempDirectory(temporary, PREFIX, OWNER_ONLY_DIRECTORY).toAbsolutePath();
            try {
                FileChannel lock = takeLock(directory.resolve(LOCK));
                if (lock != null) {
                    return new NativeCopy(directory, lock);
                }
            } catch (IOException failure) {
                remove(directory);
                throw failure;
            }
        }
        throw new IOException("other processes remove each new directory in it");
    }

    /** The new file's lock; null when another process is about to remove the directory. */
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
            // Sweeping is a courtesy; loading does not depend on it.
        }
    }

    /** Removes {@code candidate} when it is a directory of {@code user} in which no process works. */
    private static void sweep(Path candidate, UserPrincipal user) {
        try {
            PosixFileAttributes found = Files.readAttributes(candidate, PosixFileAttributes.class, NOFOLLOW_LINKS);
            if (found.isDirectory() && found.owner().equals(user)) {
                sweep(candidate);
            }
        } catch (IOException goneOrStrange) {
            // Another process was faster, or it is no directory of ours after all.
        }
    }

    private static void sweep(Path directory) throws IOException {
        try (FileChannel lock = FileChannel.open(directory.resolve(LOCK), Set.of(WRITE, NOFOLLOW_LINKS))) {
            if (lock.tryLock() != null) {
                remove(directory);
            }
        } catch (NoSuchFileException beingBornOrDying) {
            Files.deleteIfExists(directory);
        }
    }

    private static void remove(Path directory) throws IOException {
        Files.deleteIfExists(directory.resolve(NativeLibrary.FILE));
        Files.deleteIfExists(directory.resolve(LOCK));
        Files.deleteIfExists(directory);
    }

    /** Deliberate: no channels, which an interrupt of the calling thread would close. */
    private void write(byte[] content) throws IOException {
        Files.createFile(library().toPath(), OWNER_ONLY_FILE);
        try (OutputStream out = new FileOutputStream(library())) {
            out.write(content);
        }
    }

    /** Compares what the file holds now with the hash that the jar's build wrote; null is no hash. */
    private void requireHash(byte[] hash) throws IOException, LoadProblem {
        String expected = hash == null ? "missing" : new String(hash, StandardCharsets.US_ASCII).strip();
        String actual;
        try (InputStream in = new FileInputStream(library())) {
            byte[] digest = MessageDigest.getInstance("SHA-256").digest(in.readAllBytes());
            actual = String.format("%064x", new BigInteger(1, digest));
        } catch (NoSuchAlgorithmException impossible) {
            throw new IllegalStateException("every Java platform has SHA-256", impossible);
        }
        if (!actual.equalsIgnoreCase(expected)) {
            throw new LoadProblem("the content of " + library() + " is wrong: its SHA-256 is " + actual
                    + ", the one in the jar is " + expected, UNDAMAGED_JAR, null);
        }
    }
}
