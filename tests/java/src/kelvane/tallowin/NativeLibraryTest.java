package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;
import static org.junit.Assume.assumeFalse;
import static org.junit.Assume.assumeTrue;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Properties;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import kelvane.tallowin.internal.ElfFile;
import kelvane.tallowin.internal.LoadProblem;
import kelvane.tallowin.internal.NativeCopy;
import kelvane.tallowin.internal.NativeLibrary;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;

/**
 * Loading the native library: the order of the search, the messages of failures, several class loaders, and the
 * temporary directory.
 *
 * <p>Each case runs in a separate virtual machine, which prints the result, the mapped files and the files left behind.
 * Cases that need root, another user, a private mount or a newer virtual machine are skipped where that is missing.
 */
public class NativeLibraryTest {
    private static final String PROPERTY = NativeLibrary.CORE.property;
    private static final String FILE = NativeLibrary.CORE.file;

    /** Mounts a file system on $0 with the options $1 in a private mount namespace, then runs the other arguments. */
    private static final String MOUNT = "o=$1; shift; mount -t tmpfs -o \"$o\" tmpfs \"$0\" && exec \"$@\"";

    private final Path library = Given.library();
    private final Path jar = Given.jar();

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    private Path work;
    private Path temporary;

    @Before
    public void makeFolders() throws IOException {
        work = folder.getRoot().toPath();
        temporary = folder.newFolder("temporary").toPath();
    }

    // The search order

    @Test
    public void loadsTheFileThatThePropertyNames() throws Exception {
        Path copy = Files.copy(library, work.resolve("libtallowin.so.7"));
        assertLoaded(machine().set(PROPERTY, copy).run("load"), copy);
    }

    @Test
    public void loadsFromTheDirectoryThatThePropertyNames() throws Exception {
        Path copy = copyInto("beside the program");
        assertLoaded(machine().set(PROPERTY, copy.getParent()).run("load"), copy);
    }

    @Test
    public void loadsTheFirstLibraryOfTheLibraryPath() throws Exception {
        Path first = copyInto("first");
        Path second = copyInto("second");
        String path = String.join(File.pathSeparator, "", work.resolve("none").toString(),
                first.getParent().toString(), second.getParent().toString());
        assertLoaded(machine().set("java.library.path", path).run("load"), first);
    }

    @Test
    public void loadsFromTheJarAndLeavesNothing() throws Exception {
        String output = machine().run("load");
        assertSays(output, "loaded\n", "mapped: " + temporary + "/tallowin-native-", "(deleted)");
        assertNothingLeft(output);
    }

    @Test
    public void loadsAsANamedModule() throws Exception {
        assertSays(machine().asModule(jar).run("load"), "loaded\n", "(deleted)");
    }

    @Test
    public void takesTheJarWhenTheLibraryPathHoldsNothingUsable() throws Exception {
        Path broken = Files.writeString(work.resolve(FILE), "no library");
        String output = machine().set("java.library.path", broken.getParent()).run("load");
        assertSays(output, "loaded\n", "(deleted)");
    }

    @Test
    public void keepsTheInterruptOfTheThreadThatLoads() throws Exception {
        assertSays(machine().run("interrupted"), "loaded, interrupted: true\n");
    }

    // Files that cannot be loaded

    @Test
    public void refusesAPathThatDoesNotExist() throws Exception {
        Path absent = work.resolve("absent.so");
        Path below = Files.createFile(work.resolve("file")).resolve("below.so");
        assertRefused(machine().set(PROPERTY, absent).run("load"), absent + " does not exist", absent + " (system");
        assertRefused(machine().set(PROPERTY, below).run("load"), below + " does not exist", below + " (system");
    }

    @Test
    public void refusesADirectoryWithoutTheLibrary() throws Exception {
        String expected = temporary.resolve(FILE) + " does not exist";
        assertRefused(machine().set(PROPERTY, temporary).run("load"), expected, "Let -D" + PROPERTY + "=PATH name");
    }

    @Test
    public void refusesAFileThatTheUserMayNotRead() throws Exception {
        Path copy = copyInto("closed");
        Files.setPosixFilePermissions(copy, PosixFilePermissions.fromString("---------"));
        LoaderJvm machine = ordinaryUser(machine()).set(PROPERTY, copy);
        assertRefused(machine.run("outcome"), copy + " cannot be read by this user");
    }

    @Test
    public void refusesAPipeWithoutWaitingForIt() throws Exception {
        Path pipe = work.resolve("pipe.so");
        assumeTrue("this machine makes no pipes", LoaderJvm.allows("mkfifo", pipe.toString()));
        assertRefused(machine().set(PROPERTY, pipe).run("load"), pipe + " is no regular file");
    }

    @Test
    public void refusesAFileThatIsNoLibrary() throws Exception {
        Path text = Files.writeString(work.resolve("text.so"), "A text that is longer than the header of any library.");
        Path empty = Files.createFile(work.resolve("empty.so"));
        assertRefused(machine().set(PROPERTY, text).run("load"), "the file is no shared library", text.toString());
        assertRefused(machine().set(PROPERTY, empty).run("load"), "the file is no shared library", empty.toString());
    }

    /** The system's loader would map the missing part, and the process would be killed. */
    @Test
    public void refusesALibraryThatIsCutShort() throws Exception {
        byte[] whole = Files.readAllBytes(library);
        for (int length : new int[] {4, 20, 63, 100, whole.length / 2}) {
            Path cut = Files.write(work.resolve(length + ".so"), Arrays.copyOf(whole, length));
            assertRefused(machine().set(PROPERTY, cut).run("load"), "the file is cut short", cut.toString());
        }
    }

    @Test
    public void refusesALibraryOfAnotherWidth() throws Exception {
        boolean narrow = ElfFile.architecture(System.getProperty("os.arch")).equals("x86");
        Path other = narrow ? elf("other.so", 64, 62) : elf("other.so", 32, 3);
        assertRefused(machine().set(PROPERTY, other).run("load"),
                "it was built for " + (narrow ? "64-bit x86_64" : "32-bit x86") + ", and this JVM is ",
                "(os.arch " + System.getProperty("os.arch") + ")", other.toString());
    }

    @Test
    public void refusesALibraryOfAnotherMachine() throws Exception {
        Path arm = elf("other.so", 32, 40);
        Path unknown = elf("unknown.so", 64, 0x1234);
        assertRefused(machine().set(PROPERTY, arm).run("load"), "it was built for 32-bit arm");
        assertRefused(machine().set(PROPERTY, unknown).run("load"), "it was built for 64-bit ELF machine 4660");
    }

    /** A system's package may contain such a library, when it was built without a JDK. */
    @Test
    public void refusesALibraryWithoutTheNativeMethodsAndTakesTheJar() throws Exception {
        String content = new String(Files.readAllBytes(library), StandardCharsets.ISO_8859_1);
        String without = content.replace("_MessageObject_nConstruct", "_MessageObject_nCon______");
        assertEquals(content.length(), without.length());
        Path other = Files.write(work.resolve(FILE), without.getBytes(StandardCharsets.ISO_8859_1));
        assertRefused(machine().set(PROPERTY, other).run("load"),
                other + " was built without the native methods of the Java classes", "where a JDK is installed");
        assertSays(machine().set("java.library.path", work).run("load"), "loaded\n", "(deleted)");
    }

    @Test
    public void namesALibraryThatIsMissing() throws Exception {
        Path needy = Files.write(work.resolve(FILE), patched("libuuid\\.so\\.1", "libuuiX.so.1"));
        assertRefused(machine().set(PROPERTY, needy).run("load"), "a library that it needs is missing: libuuiX.so.1",
                "package libssl3", "libuuid1");
    }

    @Test
    public void namesAVersionThatIsMissing() throws Exception {
        Path modern = Files.write(work.resolve(FILE), patched("GLIBC_2(\\.[0-9]+)", "GLIBC_9$1"));
        assertRefused(machine().set(PROPERTY, modern).run("load"), "is too old: it lacks GLIBC_9.");
    }

    @Test
    public void explainsThatTheJarHasNoLibraryForThisPlatform() throws Exception {
        String output = machine().set("os.arch", "Quantum").set("os.name", "Plan 9").run("load");
        assertRefused(output, "the jar has none for this platform (os.name Plan 9, os.arch Quantum); "
                + "it has: linux-",
                "lib/plan 9-quantum/libtallowin.so in the jar", "name it with -D" + PROPERTY + "=PATH");
        assertNothingLeft(output);
    }

    @Test
    public void choosesTheLibraryOfTheJarByTheProcessor() throws Exception {
        String here = ElfFile.architecture(System.getProperty("os.arch"));
        Path classes = unpackedJar();
        for (String machine : ElfFile.architectures()) {
            if (!machine.equals(here)) {
                Path directory = classes.resolve("kelvane/tallowin/lib/linux-" + machine);
                Path other = Files.copy(elf(machine, 64, 0x1000), Files.createDirectories(directory).resolve(FILE),
                                        StandardCopyOption.REPLACE_EXISTING);
                Files.writeString(directory.resolve(FILE + ".sha256"), sha256(Files.readAllBytes(other)));
            }
        }
        String[][] rows = {
            {"aarch64", "aarch64"}, {"arm", "arm"}, {"i386", "x86"}, {"i686", "x86"}, {"x86", "x86"}, {"amd64", "x86_64"},
        };
        for (String[] row : rows) {
            String output = new LoaderJvm(classes, temporary).set("os.arch", row[0]).run("load");
            if (row[1].equals(here)) {
                assertSays(output, "loaded\n", "(deleted)");
            } else {
                assertRefused(output, "it was built for 64-bit ELF machine 4096", "lib/linux-" + row[1] + "/" + FILE);
            }
        }
    }

    @Test
    public void reportsEveryPlaceAndTheSameAgain() throws Exception {
        Path broken = Files.writeString(work.resolve(FILE), "no library");
        String path = String.join(File.pathSeparator, temporary.toString(), "", work.toString());
        String output = machine().set("java.library.path", path).set("os.arch", "quantum").run("twice");
        assertRefused(output, "twice the same: ", "the file is no shared library. ", "the jar has none",
                temporary.resolve(FILE) + " (java.library.path): not there\n",
                broken + " (java.library.path): the file is no shared library\n",
                "lib/linux-quantum/libtallowin.so in the jar: the jar has none");
        assertEquals("the working directory is no place for code\n" + output, 1, count(output, ": not there"));
    }

    @Test
    public void explainsTheMessagesOfTheLoader() {
        String[][] rows = {
            // The two messages of musl; the second is for a symbol that only glibc has.
            {"Error loading shared library libssl.so.3: No such file or directory (needed by /t/libtallowin.so)",
                "the C library musl", "with glibc"},
            {"Error relocating /t/libtallowin.so: __memcpy_chk: symbol not found", "the C library musl", "with glibc"},
            {"/t/libtallowin.so: libssl.so.3: cannot open shared object file: No such file or directory",
                "is missing: libssl.so.3", "package libssl3"},
            {"libcrypto.so.3: cannot open shared object file: No such file or directory",
                "is missing: libcrypto.so.3", "package libssl3"},
            {"/t/libtallowin.so: cannot open shared object file: Permission denied",
                "the system's loader refuses it", "built for this system"},
            {"/lib/libc.so.6: version `GLIBC_2.38' not found (required by /t/libtallowin.so)",
                "it lacks GLIBC_2.38", "Update this system"},
            // The same in another language, which the loader uses when its locale is set.
            {"/t/libtallowin.so: libssl.so.3: Kann die Shared-Object-Datei nicht \u00f6ffnen: Datei nicht gefunden",
                "is missing: libssl.so.3", "package libssl3"},
            {"/lib/libc.so.6: Version \u00bbGLIBC_2.38\u00ab nicht gefunden (ben\u00f6tigt von /t/libtallowin.so)",
                "it lacks GLIBC_2.38", "Update this system"},
            {"/t/libtallowin.so: /t/libtallowin.so: failed to map segment from shared object: Operation not permitted",
                "forbids execution", "-Djava.io.tmpdir="},
            {"Native Library /t/libtallowin.so already loaded in another classloader",
                "another class loader", "common class loader"},
            {"/t/libtallowin.so: undefined symbol: none", "the system's loader refuses it", "built for this system"},
            {"", "the system's loader refuses it", "built for this system"},
        };
        for (String[] row : rows) {
            LoadProblem problem = LoadProblem.of(NativeLibrary.CORE, new UnsatisfiedLinkError(row[0]));
            assertSays(problem.advice(), row[1], row[2]);
            assertSays(problem.details(), row[1], row[0]);
        }
    }

    // Native access and security managers

    @Test
    public void explainsThatNativeAccessIsDenied() throws Exception {
        for (Path home : machinesThatDenyNativeAccess()) {
            String denied = machine().javaHome(home).option("--illegal-native-access=deny").run("load");
            assertRefused(denied, "denies native access to unnamed modules. ", "--enable-native-access=ALL-UNNAMED.");
            assertNothingLeft(denied);
            denied = machine().javaHome(home).option("--illegal-native-access=deny").asModule(jar).run("load");
            assertRefused(denied, "denies native access to the module kelvane.tallowin. ",
                    "--enable-native-access=kelvane.tallowin.");
        }
    }

    @Test
    public void loadsWhereNativeAccessIsGranted() throws Exception {
        for (Path home : machinesThatDenyNativeAccess()) {
            LoaderJvm unnamed = machine().option("--enable-native-access=ALL-UNNAMED");
            LoaderJvm named = machine().option("--enable-native-access=kelvane.tallowin").asModule(jar);
            for (LoaderJvm machine : Arrays.asList(unnamed, named)) {
                assertSays(machine.javaHome(home).option("--illegal-native-access=deny").run("load"), "loaded\n");
            }
        }
    }

    @Test
    public void reportsWhatASecurityManagerForbids() throws Exception {
        assumeTrue("this JVM has no security manager", Runtime.version().feature() < 24);
        String output = machine().option("-Djava.security.manager").run("outcome");
        assertSays(output, "SecurityException: libtallowin.so cannot be loaded: the security manager forbids a step",
                "\"" + PROPERTY + "\"");
    }

    // Several class loaders

    @Test
    public void givesEachClassLoaderItsOwnCopyOutOfTheJar() throws Exception {
        String output = machine().run("loaders", "3");
        assertEquals(output, 6, count(output, "loader: loaded\n"));
        assertEquals(output, 3, count(output, "mapped: "));
        assertNothingLeft(output);
    }

    @Test
    public void takesANewPlaceWhenTheEarlierOneIsTaken() throws Exception {
        String output = machine().run("obstacle");
        assertEquals(output, 2, count(output, "loader: loaded\n"));
        assertEquals(output, 2, count(output, "mapped: "));
        assertNothingLeft(output);
    }

    @Test
    public void explainsThatAnotherClassLoaderHasTheFile() throws Exception {
        Path copy = copyInto("shared");
        String output = machine().set(PROPERTY, copy).run("loaders", "2");
        assertEquals(output, 2, count(output, "loader: loaded\n"));
        assertEquals(output, 2, count(output, "another class loader of this JVM has loaded this very file. Put"));
    }

    @Test
    public void takesTheJarWhenAnotherClassLoaderHasTheFileOfTheLibraryPath() throws Exception {
        Path copy = copyInto("shared");
        String output = machine().set("java.library.path", copy.getParent()).run("loaders", "2");
        assertEquals(output, 4, count(output, "loader: loaded\n"));
        assertSays(output, "mapped: " + copy + "\n", "mapped: " + temporary + "/tallowin-native-");
    }

    // The temporary directory

    @Test
    public void explainsThatTheTemporaryDirectoryForbidsExecution() throws Exception {
        String output = mounted(machine(), "noexec").run("load");
        assertRefused(output, "forbids execution", "-Djava.io.tmpdir=DIRECTORY", temporary.toString());
        assertNothingLeft(output);
    }

    @Test
    public void explainsThatTheTemporaryDirectoryIsFull() throws Exception {
        String output = mounted(machine(), "size=64k").run("load");
        assertRefused(output, "the temporary directory " + temporary + " cannot be written", "No space left");
        assertNothingLeft(output);
    }

    @Test
    public void explainsThatTheTemporaryDirectoryCannotBeWritten() throws Exception {
        Path file = Files.createFile(work.resolve("file"));
        for (Path unusable : Arrays.asList(file, file.resolve("below"), work.resolve("absent"))) {
            String output = machine().set("java.io.tmpdir", unusable).run("outcome");
            assertRefused(output, "the temporary directory " + unusable + " cannot be written",
                    "-Djava.io.tmpdir=DIRECTORY", FILE);
        }
    }

    @Test
    public void refusesACopyWhoseHashIsWrong() throws Exception {
        Path classes = unpackedJar();
        Path packed = packedLibrary(classes);
        byte[] content = Files.readAllBytes(packed);
        content[content.length - 1] ^= 1;
        Files.write(packed, content);
        String output = new LoaderJvm(classes, temporary).run("load");
        assertRefused(output, "is wrong: its SHA-256 is " + sha256(content), "Replace the jar", temporary.toString());
        assertNothingLeft(output);
    }

    @Test
    public void refusesACopyWithoutAHash() throws Exception {
        Path classes = unpackedJar();
        Files.delete(Path.of(packedLibrary(classes) + ".sha256"));
        String output = new LoaderJvm(classes, temporary).run("load");
        assertRefused(output, "the one in the jar is missing", "Replace the jar");
        assertNothingLeft(output);
    }

    @Test
    public void leavesNothingOfACopyThatDoesNotLoad() throws Exception {
        Path classes = unpackedJar();
        byte[] content = patched("libuuid\\.so\\.1", "libuuiX.so.1");
        Files.write(packedLibrary(classes), content);
        Files.writeString(Path.of(packedLibrary(classes) + ".sha256"), sha256(content).toUpperCase() + " \n");
        String output = new LoaderJvm(classes, temporary).run("load");
        assertRefused(output, "is missing: libuuiX.so.1");
        assertNothingLeft(output);
    }

    @Test
    public void keepsTheCopyFromOtherUsers() throws Exception {
        try (LoaderJvm.Running holder = machine().start("hold")) {
            Path copy = Path.of(holder.read("holding: "));
            assertEquals("rwx------", permissions(copy.getParent()));
            assertEquals("rw-------", permissions(copy));
            assertEquals("rw-------", permissions(copy.resolveSibling("lock")));
            holder.finish();
        }
        assertEquals(Collections.emptyList(), namesIn(temporary));
    }

    @Test
    public void removesWhatAKilledProcessLeft() throws Exception {
        try (LoaderJvm.Running holder = machine().start("hold")) {
            Path copy = Path.of(holder.read("holding: "));
            holder.kill();
            assertEquals(Arrays.asList(FILE, "lock"), namesIn(copy.getParent()));
        }
        Files.createDirectory(temporary.resolve("tallowin-native-killed-at-birth"));
        assertLoadedAndLeft();
    }

    @Test
    public void leavesTheDirectoryOfALivingProcess() throws Exception {
        try (LoaderJvm.Running holder = machine().start("hold")) {
            Path copy = Path.of(holder.read("holding: "));
            assertLoadedAndLeft(copy.getParent().getFileName().toString());
            assertEquals(Arrays.asList(FILE, "lock"), namesIn(copy.getParent()));
            holder.finish();
        }
        assertEquals(Collections.emptyList(), namesIn(temporary));
    }

    @Test
    public void doesNotFollowSymbolicLinks() throws Exception {
        Path elsewhere = abandoned(work.resolve("elsewhere"));
        Files.createSymbolicLink(temporary.resolve("tallowin-native-link"), elsewhere);
        Path victim = Files.writeString(work.resolve("victim"), "precious");
        Path linkedLock = Files.createDirectory(temporary.resolve("tallowin-native-lock"));
        Files.createSymbolicLink(linkedLock.resolve("lock"), victim);
        assertLoadedAndLeft("tallowin-native-link", "tallowin-native-lock");
        assertEquals(Arrays.asList(FILE, "lock"), namesIn(elsewhere));
        assertEquals("precious", Files.readString(victim));
    }

    @Test
    public void leavesFilesThatAreNotItsOwn() throws Exception {
        Files.createFile(temporary.resolve("tallowin-native-file"));
        Path mixed = abandoned(temporary.resolve("tallowin-native-mixed"));
        Files.createFile(mixed.resolve("precious"));
        Path lockless = Files.createDirectory(temporary.resolve("tallowin-native-lockless"));
        Files.createFile(lockless.resolve(FILE));
        assertLoadedAndLeft("tallowin-native-file", "tallowin-native-lockless", "tallowin-native-mixed");
        assertEquals(Arrays.asList("precious"), namesIn(mixed));
        assertEquals(Arrays.asList(FILE), namesIn(lockless));
    }

    @Test
    public void leavesTheDirectoryOfAnotherUser() throws Exception {
        assumeTrue("only root can make such a directory", isRoot());
        Path foreign = abandoned(temporary.resolve("tallowin-native-foreign"));
        Files.setAttribute(foreign, "unix:uid", 65534);
        assertLoadedAndLeft("tallowin-native-foreign");
        assertEquals(Arrays.asList(FILE, "lock"), namesIn(foreign));
    }

    @Test
    public void processesThatExtractAtTheSameTimeDoNotDisturbEachOther() throws Exception {
        List<LoaderJvm.Running> machines = new ArrayList<>();
        try {
            for (int i = 0; i < 3; i++) {
                machines.add(machine().start("churn", "100"));
            }
            for (LoaderJvm.Running machine : machines) {
                assertSays(machine.finish(), "churned\n");
            }
        } finally {
            for (LoaderJvm.Running machine : machines) {
                machine.close();
            }
        }
        assertEquals(Collections.emptyList(), namesIn(temporary));
    }

    // Assertions

    private LoaderJvm machine() {
        return new LoaderJvm(jar, temporary);
    }

    private static void assertSays(String text, String... parts) {
        for (String part : parts) {
            assertTrue("\"" + part + "\" is not in:\n" + text, text.contains(part));
        }
    }

    private static void assertRefused(String output, String... parts) {
        assertSays(output, "UnsatisfiedLinkError: libtallowin.so cannot be loaded: ", "\nTried:\n  ");
        assertSays(output, parts);
    }

    private static void assertLoaded(String output, Path file) {
        assertSays(output, "loaded\n");
        assertEquals(output, 1, count(output, "mapped: "));
        assertSays(output, "mapped: " + file + "\n");
    }

    private static void assertNothingLeft(String output) {
        assertFalse(output, output.contains("left: "));
    }

    private void assertLoadedAndLeft(String... names) throws Exception {
        assertSays(machine().run("outcome"), "loaded\n");
        assertEquals(Arrays.asList(names), namesIn(temporary));
    }

    private static int count(String text, String part) {
        return text.split(Pattern.quote(part), -1).length - 1;
    }

    private static List<String> namesIn(Path directory) throws IOException {
        try (Stream<Path> files = Files.list(directory)) {
            return files.map(file -> file.getFileName().toString()).sorted().collect(Collectors.toList());
        }
    }

    private static String permissions(Path file) throws IOException {
        return PosixFilePermissions.toString(Files.getPosixFilePermissions(file));
    }

    // Test data

    private Path copyInto(String directory) throws IOException {
        return Files.copy(library, Files.createDirectory(work.resolve(directory)).resolve(FILE));
    }

    /** A directory in the state in which a killed process leaves it. */
    private static Path abandoned(Path directory) throws IOException {
        Files.createDirectory(directory);
        Files.createFile(directory.resolve(FILE));
        Files.createFile(directory.resolve("lock"));
        return directory;
    }

    /** The header of a library without segments. */
    private Path elf(String name, int width, int machine) throws IOException {
        ByteBuffer header = ByteBuffer.allocate(4096).order(ByteOrder.LITTLE_ENDIAN);
        header.put(new byte[] {0x7F, 'E', 'L', 'F', (byte) (width / 32), 1, 1});
        header.putShort(16, (short) 3).putShort(18, (short) machine).putInt(20, 1);
        return Files.write(work.resolve(name), header.array());
    }

    /** The library with the first match of {@code pattern} replaced by as many bytes. */
    private byte[] patched(String pattern, String replacement) throws IOException {
        String content = new String(Files.readAllBytes(library), StandardCharsets.ISO_8859_1);
        Matcher matcher = Pattern.compile(pattern).matcher(content);
        assertTrue(pattern + " is not in " + library, matcher.find());
        String patched = matcher.replaceFirst(replacement);
        assertEquals(content.length(), patched.length());
        return patched.getBytes(StandardCharsets.ISO_8859_1);
    }

    private static String sha256(byte[] content) throws Exception {
        return String.format("%064x", new BigInteger(1, MessageDigest.getInstance("SHA-256").digest(content)));
    }

    private Path unpackedJar() throws IOException {
        Path classes = work.resolve("classes");
        try (ZipFile zip = new ZipFile(jar.toFile())) {
            for (ZipEntry entry : Collections.list(zip.entries())) {
                Path target = classes.resolve(entry.getName());
                Files.createDirectories(entry.isDirectory() ? target : target.getParent());
                if (!entry.isDirectory()) {
                    try (InputStream content = zip.getInputStream(entry)) {
                        Files.copy(content, target);
                    }
                }
            }
        }
        return classes;
    }

    private static Path packedLibrary(Path classes) {
        return classes.resolve("kelvane/tallowin").resolve(NativeCopy.resource(NativeLibrary.CORE));
    }

    private static boolean isRoot() {
        return System.getProperty("user.name").equals("root");
    }

    /** Root can read every file, so root runs the machine as another user. */
    private LoaderJvm ordinaryUser(LoaderJvm machine) throws Exception {
        if (!isRoot()) {
            return machine;
        }
        Files.setPosixFilePermissions(work, PosixFilePermissions.fromString("rwxr-xr-x"));
        String[] become = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        String[] readAll = {"sh", "-c", "test -r \"$0\" && test -r \"$1\" && test -r \"$2\"", jar.toString(),
            Given.testClasses().toString(), temporary.toString()};
        assumeTrue("an ordinary user cannot read the classes",
                LoaderJvm.allows(Stream.of(become, readAll).flatMap(Arrays::stream).toArray(String[]::new)));
        return machine.by(become);
    }

    /** Runs the machine with a private file system mounted on the temporary directory. */
    private LoaderJvm mounted(LoaderJvm machine, String options) throws Exception {
        String[] mount = {"unshare", "-rm", "sh", "-c", MOUNT, temporary.toString(), options};
        String[] trial = Arrays.copyOf(mount, mount.length + 1);
        trial[mount.length] = "true";
        assumeTrue("this machine refuses the test a mount", LoaderJvm.allows(trial));
        return machine.by(mount);
    }

    /** The homes of the virtual machines that have the option {@code --illegal-native-access}. */
    private static List<Path> machinesThatDenyNativeAccess() throws IOException {
        List<Path> denying = new ArrayList<>();
        for (Path home : Given.javaHomes()) {
            if (feature(home) >= 24) {
                denying.add(home);
            }
        }
        assumeFalse("no JVM of version 24 or later", denying.isEmpty());
        return denying;
    }

    /** The version number in the file {@code release} of a home. */
    private static int feature(Path home) throws IOException {
        Properties release = new Properties();
        try (InputStream in = Files.newInputStream(home.resolve("release"))) {
            release.load(in);
        }
        return Integer.parseInt(release.getProperty("JAVA_VERSION").replaceAll("\"?([0-9]+).*", "$1"));
    }
}
