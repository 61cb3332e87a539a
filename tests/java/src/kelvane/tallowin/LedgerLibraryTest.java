package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import java.util.zip.ZipEntry;
import java.util.zip.ZipFile;
import java.util.zip.ZipOutputStream;
import kelvane.tallowin.internal.ElfFile;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/** Where the native library of the ledger comes from, and what happens where it is missing. */
public class LedgerLibraryTest {
    private static final int LIMIT_SECONDS = 60;
    private static final String FILE = "libtallowin-ledger-jni.so";
    private static final String PROPERTY = "kelvane.tallowin.ledger.library";

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(4 * LIMIT_SECONDS, TimeUnit.SECONDS);

    private Path temporary;

    @Before
    public void makeFolder() throws IOException {
        temporary = folder.newFolder("temporary").toPath();
    }

    private String run(Path jar, int loaders, String... options) throws Exception {
        ForkedJvm machine = new ForkedJvm(Given.javaHomes().get(0), folder.getRoot().toPath())
                .options("-Xcheck:jni", "-Djava.io.tmpdir=" + temporary, "-Djava.library.path=").options(options)
                .options("-cp", jar + File.pathSeparator + Given.testClasses());
        ForkedJvm.Result result = machine.run(LIMIT_SECONDS, LedgerProgram.class.getName(), Integer.toString(loaders));
        assertEquals(result.toString(), 0, result.exitCode);
        assertFalse(result.output, result.output.contains(" in native method"));
        try (Stream<Path> left = Files.list(temporary)) {
            assertEquals(List.of(), Arrays.asList(left.filter(file -> !file.toString().contains("hsperf")).toArray()));
        }
        return result.output;
    }

    private static void assertSays(String output, String... lines) {
        for (String line : lines) {
            assertTrue("not printed: " + line + "\n" + output, output.contains(line));
        }
    }

    /** The jar without the ledger's library. */
    private Path jarWithoutLibrary() throws IOException {
        Path copy = folder.getRoot().toPath().resolve("without.jar");
        try (ZipFile jar = new ZipFile(Given.jar().toFile()); OutputStream file = Files.newOutputStream(copy);
             ZipOutputStream out = new ZipOutputStream(file)) {
            for (ZipEntry entry : Collections.list(jar.entries())) {
                if (!entry.getName().contains(FILE)) {
                    out.putNextEntry(new ZipEntry(entry.getName()));
                    try (InputStream content = jar.getInputStream(entry)) {
                        content.transferTo(out);
                    }
                    out.closeEntry();
                }
            }
        }
        return copy;
    }

    /** The ledger's library out of the jar. */
    private Path unpackedLibrary() throws IOException {
        Path copy = folder.newFolder().toPath().resolve(FILE);
        try (ZipFile jar = new ZipFile(Given.jar().toFile())) {
            for (ZipEntry entry : Collections.list(jar.entries())) {
                // The one for this machine: a jar may hold several.
                String directory = new File(entry.getName()).getParent();
                if (entry.getName().endsWith("/" + FILE)
                        && directory.endsWith("-" + ElfFile.architecture(System.getProperty("os.arch")))) {
                    try (InputStream content = jar.getInputStream(entry)) {
                        Files.copy(content, copy);
                    }
                }
            }
        }
        return copy;
    }

    @Test
    public void loadsFromTheJarInEveryClassLoader() throws Exception {
        String output = run(Given.jar(), 3);
        assertSays(output, "in unnamed module", "ledger: used\n", "amount: 12.50\n", "again: used\n", "2 loaders\n");
        assertEquals(output, 3, output.split("loader: used\n", -1).length);
    }

    @Test
    public void loadsTheFileThatThePropertyNames() throws Exception {
        Path library = unpackedLibrary();
        assertSays(run(jarWithoutLibrary(), 1, "-D" + PROPERTY + "=" + library), "ledger: used\n", "amount: 12.50\n");
        assertSays(run(jarWithoutLibrary(), 1, "-D" + PROPERTY + "=" + library.getParent()), "ledger: used\n");
    }

    @Test
    public void loadsFromTheLibraryPath() throws Exception {
        Path library = unpackedLibrary();
        assertSays(run(jarWithoutLibrary(), 1, "-Djava.library.path=" + library.getParent()), "ledger: used\n");
    }

    @Test
    public void worksWithoutTheLedgerWhereItsLibraryIsMissing() throws Exception {
        assertSays(run(jarWithoutLibrary(), 1), "ledger: " + FILE + " cannot be loaded: the jar has none for this platform",
                   "it has: none. Build it on this platform and name it with -D" + PROPERTY + "=PATH.", "amount: 12.50\n",
                   "again: " + FILE + " cannot be loaded: ");
        assertSays(run(Given.jar(), 1, "-D" + PROPERTY + "=" + temporary), temporary.resolve(FILE) + " does not exist",
                   "amount: 12.50\n");
    }

    @Test
    public void refusesALibraryWithoutTheNativeMethods() throws Exception {
        assertSays(run(Given.jar(), 1, "-D" + PROPERTY + "=" + Given.library()),
                   Given.library() + " was built without the native methods of the Java classes", "amount: 12.50\n");
    }

    @Test
    public void runsOnEveryVirtualMachineAsANamedModule() throws Exception {
        for (Path home : Given.javaHomes()) {
            List<String> options = new ArrayList<>(List.of("-Xcheck:jni", "-Djava.io.tmpdir=" + temporary,
                "-p", Given.jar().toString(), "--patch-module", "kelvane.tallowin=" + Given.testClasses()));
            ForkedJvm.Result result = new ForkedJvm(home, folder.getRoot().toPath()).options(options.toArray(String[]::new))
                    .run(LIMIT_SECONDS, "-m", "kelvane.tallowin/" + LedgerProgram.class.getName(), "1");
            assertEquals(home + ": " + result, 0, result.exitCode);
            assertSays(result.output, "in module kelvane.tallowin", "ledger: used\n", "amount: 12.50\n");
        }
    }
}
