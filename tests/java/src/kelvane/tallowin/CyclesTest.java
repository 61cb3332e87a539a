package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import org.junit.BeforeClass;
import org.junit.ClassRule;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/** A million objects leave nothing behind. */
public class CyclesTest {
    private static final int LIMIT_SECONDS = 240;

    /**
     * How much the process may grow over the later 800 000 cycles, besides noise of the virtual machine. A leak of the
     * smallest block of memory in every cycle (32 bytes) makes 25 MB.
     */
    private static final long MOST_GROWTH_KIB = 12 * 1024;

    /** The first cycles make the virtual machine compile; they tell nothing. */
    private static final int WARM_UP = 200_000;

    /** Slots rest before they are used again: 1024 of a kind, and what a forgotten batch holds at most. */
    private static final int MOST_HANDLES = 3 * (1024 + CyclesProgram.BATCH + 8);

    @ClassRule
    public static final TemporaryFolder FOLDER = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(LIMIT_SECONDS + 30, TimeUnit.SECONDS);

    private static ForkedJvm.Ending ending;

    /** A machine of its own, whose heap has its full size from the beginning: what grows then is native memory. */
    @BeforeClass
    public static void runAllCycles() throws Exception {
        ending = new ForkedJvm(FOLDER.getRoot().toPath())
                .options("-Xcheck:jni", "-Xms64m", "-Xmx64m", "-XX:+AlwaysPreTouch", "-XX:+UseSerialGC")
                .classPath(Given.jar(), Given.testClasses())
                .run(LIMIT_SECONDS, CyclesProgram.class.getName());
        assertEquals(ending.toString(), 0, ending.exitCode);
    }

    /** The numbers at the ends of the lines that begin with {@code word}. */
    private static List<Long> told(String word) {
        List<Long> numbers = new ArrayList<>();
        for (String line : ending.output.split("\n")) {
            if (line.startsWith(word + " ")) {
                numbers.add(Long.parseLong(line.substring(line.lastIndexOf(' ') + 1)));
            }
        }
        return numbers;
    }

    @Test
    public void theProcessDoesNotGrow() {
        List<Long> resident = told("resident");
        assertEquals(CyclesProgram.CYCLES / CyclesProgram.INTERVAL, resident.size());
        long before = resident.get(WARM_UP / CyclesProgram.INTERVAL - 1);
        long growth = resident.get(resident.size() - 1) - before;
        double slope = growth * 1024.0 / (CyclesProgram.CYCLES - WARM_UP);
        System.out.printf("%n%d cycles: %d KiB after %d, %d KiB more at the end, %.2f bytes a cycle%n",
                          CyclesProgram.CYCLES, before, WARM_UP, growth, slope);
        assertTrue(ending.toString(), growth < MOST_GROWTH_KIB);
    }

    @Test
    public void theNumbersOfObjectsAreUsedAgain() {
        long handles = told("handles").get(0);
        System.out.printf("%n%d cycles: %d different handles, at most %d%n", CyclesProgram.CYCLES, handles,
                          MOST_HANDLES);
        assertTrue(ending.toString(), handles <= MOST_HANDLES);
    }

    @Test
    public void everyExpectedFailureCame() {
        assertEquals(CyclesProgram.CYCLES / 10, (long) told("failures").get(0));
    }

    @Test
    public void theMachineFindsNothingToWarnAbout() {
        assertFalse(ending.toString(), ending.output.contains("WARNING in native method"));
        assertFalse(ending.toString(), ending.output.contains("JNI local refs"));
    }
}
