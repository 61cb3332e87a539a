package kelvane.tallowin;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;

/**
 * Class loaders that come and go cost no memory, although the library is never unmapped. The environment variable
 * KVX_CLASS_LOADERS sets how many there are.
 */
public class LoaderCyclesTest {
    private static final int ROUNDS = Integer.parseInt(System.getenv().getOrDefault("KVX_CLASS_LOADERS", "200"));
    private static final int LIMIT_SECONDS = 60 + ROUNDS / 2;

    /** The virtual machine gives up the library of a collected class loader late, when the machine is busy. */
    private static final int MAX_MAPPED = LoadersProgram.ALIVE + 17;

    /** What one copy takes for its objects at most, with all memory that waits to be used again. */
    private static final int LOW_KIB_PER_COPY = 1024;

    /** Allows for noise of the virtual machine. A copy for each class loader would be more than that. */
    private static final long MAX_GROWTH_KIB = 32 * 1024;

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Test
    public void copiesOfTheLibraryAreUsedAgain() throws Exception {
        Path temporary = folder.newFolder("temporary").toPath();
        ForkedJvm.Result result = new ForkedJvm(folder.getRoot().toPath())
                .options("-Xms64m", "-Xmx64m", "-XX:+UseSerialGC", "-Djava.io.tmpdir=" + temporary)
                .classPath(Given.jar(), Given.testClasses())
                .run(LIMIT_SECONDS, LoadersProgram.class.getName(), String.valueOf(ROUNDS));
        assertEquals(result.toString(), 0, result.exitCode);
        System.out.printf("%n%s", result.output);

        List<long[]> measured = new ArrayList<>();
        Matcher line = Pattern.compile("mapped (\\d+) low (\\d+) resident (\\d+)").matcher(result.output);
        while (line.find()) {
            measured.add(new long[] {Long.parseLong(line.group(1)), Long.parseLong(line.group(2)),
                Long.parseLong(line.group(3))});
        }
        assertEquals(result.toString(), LoadersProgram.MEASUREMENTS, measured.size());
        for (long[] one : measured) {
            assertTrue(result.toString(), one[0] <= MAX_MAPPED && one[1] <= one[0] * LOW_KIB_PER_COPY);
        }
        long growth = measured.get(measured.size() - 1)[2] - measured.get(1)[2];
        assertTrue(result.toString(), growth < MAX_GROWTH_KIB);
        assertArrayEquals(new String[0], temporary.toFile().list());
    }
}
