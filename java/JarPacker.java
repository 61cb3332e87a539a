import java.io.IOException;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.time.LocalDateTime;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipOutputStream;

/**
 * Packs directories into a jar. Its bytes depend on the names and contents of the files, and on the JDK's compression: the
 * manifest comes first, all other entries are sorted, and all have the same time.
 *
 * <pre>
 * java JarPacker.java JAR MANIFEST DIRECTORY...
 * </pre>
 *
 * Exits with status 1 when two directories have the same file; the jar is written whole or not at all.
 */
public final class JarPacker {
    /** The time of every entry, in no time zone. The format begins with 1980. */
    private static final LocalDateTime TIME = LocalDateTime.of(1980, 2, 1, 0, 0);

    private static final String MANIFEST_DIRECTORY = "META-INF/";
    private static final String MANIFEST = MANIFEST_DIRECTORY + "MANIFEST.MF";

    private JarPacker() {}

    /** Adds all files below {@code directory}, and their directories, whose names end with a slash. */
    private static void collect(Path directory, Map<String, Path> entries) throws IOException {
        List<Path> found;
        try (Stream<Path> all = Files.walk(directory)) {
            found = all.filter(path -> !path.equals(directory)).collect(Collectors.toList());
        }
        for (Path path : found) {
            boolean isDirectory = Files.isDirectory(path);
            String name = directory.relativize(path) + (isDirectory ? "/" : "");
            if (entries.put(name, path) != null && !isDirectory) {
                throw new IOException(name + " is in two directories");
            }
        }
    }

    private static void add(ZipOutputStream jar, String name, byte[] content) throws IOException {
        ZipEntry entry = new ZipEntry(name);
        entry.setTimeLocal(TIME);
        jar.putNextEntry(entry);
        jar.write(content);
        jar.closeEntry();
    }

    private static void pack(Path jar, Path manifest, Map<String, Path> entries) throws IOException {
        try (OutputStream file = Files.newOutputStream(jar); ZipOutputStream out = new ZipOutputStream(file)) {
            add(out, MANIFEST_DIRECTORY, new byte[0]);
            add(out, MANIFEST, Files.readAllBytes(manifest));
            for (Map.Entry<String, Path> entry : entries.entrySet()) {
                boolean isDirectory = entry.getKey().endsWith("/");
                add(out, entry.getKey(), isDirectory ? new byte[0] : Files.readAllBytes(entry.getValue()));
            }
        }
    }

    /** Packs the jar. */
    public static void main(String[] arguments) throws IOException {
        if (arguments.length < 3) {
            System.err.println("usage: java JarPacker.java JAR MANIFEST DIRECTORY...");
            System.exit(2);
        }
        Map<String, Path> entries = new TreeMap<>();
        try {
            for (String directory : List.of(arguments).subList(2, arguments.length)) {
                collect(Path.of(directory), entries);
            }
            entries.remove(MANIFEST_DIRECTORY);
            Path jar = Path.of(arguments[0]);
            Path unfinished = jar.resolveSibling(jar.getFileName() + ".part");
            pack(unfinished, Path.of(arguments[1]), entries);
            Files.move(unfinished, jar, StandardCopyOption.REPLACE_EXISTING);
        } catch (IOException failure) {
            System.err.println("JarPacker: " + failure);
            System.exit(1);
        }
    }
}
