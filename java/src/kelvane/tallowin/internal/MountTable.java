package kelvane.tallowin.internal;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.regex.Pattern;

/** The file systems mounted for this process, read from the kernel's list. */
final class MountTable {
    private static final Path TABLE = Path.of("/proc/self/mounts");
    private static final Pattern ESCAPED = Pattern.compile("\\\\([0-7]{3})");

    private MountTable() {}

    /** Whether {@code file} is on a file system mounted {@code noexec}; false when that cannot be determined. */
    static boolean forbidsExecution(Path file) {
        try {
            Path real = file.toRealPath();
            Path mountPoint = null;
            String options = "";
            for (String line : Files.readAllLines(TABLE, StandardCharsets.ISO_8859_1)) {
                String[] fields = line.split(" ");
                Path mounted = Path.of(unescaped(fields[1]));
                // Of two mounts at the same path the later one is visible.
                if (real.startsWith(mounted) && (mountPoint == null || mounted.startsWith(mountPoint))) {
                    mountPoint = mounted;
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
