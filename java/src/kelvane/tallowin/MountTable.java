package kelvane.tallowin;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.regex.Pattern;

/** The file systems of this process, as the kernel lists them. */
final class MountTable {
    private static final Path TABLE = Path.of("/proc/self/mounts");
    private static final Pattern ESCAPED = Pattern.compile("\\\\([0-7]{3})");

    private MountTable() {}

    /** Whether nothing on the file system that holds {@code file} may be executed; false when that cannot be told. */
    static boolean forbidsExecution(Path file) {
        try {
            Path real = file.toRealPath();
            Path holder = null;
            String options = "";
            for (String line : Files.readAllLines(TABLE, StandardCharsets.ISO_8859_1)) {
                String[] fields = line.split(" ");
                Path mounted = Path.of(unescaped(fields[1]));
                // Of two at one place the later one is on top.
                if (real.startsWith(mounted) && (holder == null || mounted.startsWith(holder))) {
                    holder = mounted;
                    options = fields[3];
                }
            }
            return Arrays.asList(options.split(",")).contains("noexec");
        } catch (IOException | InvalidPathException unknown) {
            return false;
        }
    }

    private static String unescaped(String field) {
        return ESCAPED.matcher(field)
                .replaceAll(match -> String.valueOf((char) Integer.parseInt(match.group(1), 8)).replace("\\", "\\\\"));
    }
}
