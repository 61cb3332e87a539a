package kelvane.tallowin.internal;

import java.io.EOFException;
import java.io.File;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.stream.Collectors;

/**
 * The header of a shared library: the machine it was built for, and whether the file is complete.
 *
 * <p>The file is checked before it is loaded, because the system's loader maps a truncated file without an error and
 * the process is killed at the first access to a missing page. Everything read from the file may be wrong, so each
 * position and size is compared with the file's length.
 */
public final class ElfFile {
    /** Machines with their ELF number, their width and their names in {@code os.arch}; the jar uses the first name. */
    private enum Machine {
        X86(3, 32, "x86", "i386", "i486", "i586", "i686"),
        ARM(40, 32, "arm"),
        X86_64(62, 64, "x86_64", "amd64"),
        AARCH64(183, 64, "aarch64");

        final int number;
        final int width;
        final List<String> names;

        Machine(int number, int width, String... names) {
            this.number = number;
            this.width = width;
            this.names = Arrays.asList(names);
        }

        /** The machine with this ELF number; null when it is not in the table. */
        static Machine numbered(int number) {
            return Arrays.stream(values()).filter(machine -> machine.number == number).findAny().orElse(null);
        }

        /** The machine with this name; null when it is not in the table. */
        static Machine named(String name) {
            return Arrays.stream(values()).filter(machine -> machine.names.contains(name)).findAny().orElse(null);
        }
    }

    private static final int MAGIC = 0x7F454C46;
    private static final int LOADED_SEGMENT = 1;

    private final ByteOrder order;
    private final int width;
    private final int machineNumber;

    private ElfFile(RandomAccessFile file) throws IOException {
        ByteBuffer header = bytes(file, 0, 20, ByteOrder.LITTLE_ENDIAN);
        order = header.get(5) == 2 ? ByteOrder.BIG_ENDIAN : ByteOrder.LITTLE_ENDIAN;
        width = header.get(4) == 2 ? 64 : 32;
        machineNumber = Short.toUnsignedInt(header.order(order).getShort(18));
    }

    /**
     * Reads the header of {@code library}.
     *
     * @throws LoadProblem when the file cannot be read, is not a shared library, or is truncated
     */
    static ElfFile read(File library) throws LoadProblem {
        try (RandomAccessFile file = new RandomAccessFile(library, "r")) {
            if (file.length() < Integer.BYTES || file.readInt() != MAGIC) {
                throw new LoadProblem("the file is no shared library", "Replace it by the right one.", null);
            }
            ElfFile elf = new ElfFile(file);
            elf.requireSegments(file);
            return elf;
        } catch (EOFException truncated) {
            throw new LoadProblem("the file is cut short", "Copy the library again, completely.", null);
        } catch (IOException unreadable) {
            throw unreadable(unreadable);
        }
    }

    private static LoadProblem unreadable(IOException origin) {
        return new LoadProblem("the file cannot be read", "Make it readable for this user.", origin);
    }

    /**
     * Whether the name {@code symbol} occurs in {@code library}.
     *
     * @throws LoadProblem when the file cannot be read
     */
    static boolean names(File library, String symbol) throws LoadProblem {
        try {
            return new String(Files.readAllBytes(library.toPath()), StandardCharsets.ISO_8859_1).contains(symbol);
        } catch (IOException unreadable) {
            throw unreadable(unreadable);
        }
    }

    /** The jar's name for {@code osArch}, a value of the system property {@code os.arch}. */
    public static String architecture(String osArch) {
        String name = osArch.toLowerCase(Locale.ROOT);
        Machine machine = Machine.named(name);
        return machine == null ? name : machine.names.get(0);
    }

    /** The jar's names for all machines in the table. */
    public static List<String> architectures() {
        return Arrays.stream(Machine.values()).map(machine -> machine.names.get(0)).collect(Collectors.toList());
    }

    /** Whether a JVM on {@code osArch} can load the file; also true when both machines are unknown. */
    boolean fits(String osArch) {
        Machine jvm = Machine.named(architecture(osArch));
        return jvm == Machine.numbered(machineNumber) && (jvm == null || jvm.width == width);
    }

    /** Describes the width and machine of the file. */
    String target() {
        Machine machine = Machine.numbered(machineNumber);
        return width + "-bit " + (machine == null ? "ELF machine " + machineNumber : machine.names.get(0));
    }

    /** Describes the width and machine of a JVM on {@code osArch}. */
    static String target(String osArch) {
        Machine machine = Machine.named(architecture(osArch));
        return (machine == null ? "" : machine.width + "-bit ") + architecture(osArch);
    }

    /**
     * Checks that the file contains all segments that the system's loader will map.
     *
     * @throws EOFException when it does not
     */
    private void requireSegments(RandomAccessFile file) throws IOException {
        boolean wide = width == 64;
        ByteBuffer header = bytes(file, 0, wide ? 64 : 52, order);
        long table = wide ? header.getLong(32) : Integer.toUnsignedLong(header.getInt(28));
        int entrySize = Short.toUnsignedInt(header.getShort(wide ? 54 : 42));
        int entries = Short.toUnsignedInt(header.getShort(wide ? 56 : 44));
        for (int i = 0; i < entries; i++) {
            ByteBuffer entry = bytes(file, table + (long) i * entrySize, wide ? 56 : 32, order);
            long start = wide ? entry.getLong(8) : Integer.toUnsignedLong(entry.getInt(4));
            long size = wide ? entry.getLong(32) : Integer.toUnsignedLong(entry.getInt(16));
            if (entry.getInt(0) == LOADED_SEGMENT) {
                requireInside(file, start, size);
            }
        }
    }

    private static ByteBuffer bytes(RandomAccessFile file, long position, int count, ByteOrder order)
            throws IOException {
        requireInside(file, position, count);
        byte[] bytes = new byte[count];
        file.seek(position);
        file.readFully(bytes);
        return ByteBuffer.wrap(bytes).order(order);
    }

    /** Position and count come from the file and may have any value, even a negative one. */
    private static void requireInside(RandomAccessFile file, long position, long count) throws IOException {
        if (position < 0 || count < 0 || position > file.length() || count > file.length() - position) {
            throw new EOFException();
        }
    }
}
