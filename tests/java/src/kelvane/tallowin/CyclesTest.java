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

/** A million objects leak no memory and no handles. */
public class CyclesTest {
    private static final int LIMIT_SECONDS = 240;

    /**
     * Limit of the process's growth over the last 800 000 cycles; allows for noise of the virtual machine. A leak of
     * the smallest memory block (32 bytes) in every cycle would be 25 MB.
     */
    private static final long MAX_GROWTH_KIB = 12 * 1024;

    /** Cycles before the first measurement, in which the virtual machine compiles. */
    private static final int WARM_UP = 200_000;

    /** Slots are reused late: up to 1024 of each kind wait, and an unclosed batch holds more. */
    private static final int MAX_HANDLES = 3 * (1024 + CyclesProgram.BATCH + 8);

    @ClassRule
    public static final TemporaryFolder FOLDER = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(LIMIT_SECONDS + 30, TimeUnit.SECONDS);

    private static ForkedJvm.Result result;

    /** Runs the program with a heap of full size from the start, so that only native memory can grow. */
    @BeforeClass
    public static void runAllCycles() throws Exception {
        result = new ForkedJvm(FOLDER.getRoot().toPath())
                .options("-Xcheck:jni", "-Xms64m", "-Xmx64m", "-XX:+AlwaysPreTouch", "-XX:+UseSerialGC")
                .classPath(Given.jar(), Given.testClasses())
                .run(LIMIT_SECONDS, CyclesProgram.class.getName());
        assertEquals(result.toString(), 0, result.exitCode);
    }

    /** The last numbers of the output lines that begin with {@code word}. */
    private static List<Long> printed(String word) {
        List<Long> numbers = new ArrayList<>();
        for (String line : result.output.split("\n")) {
            if (line.startsWith(word + " ")) {
                numbers.add(Long.parseLong(line.substring(line.lastIndexOf(' ') + 1)));
            }
        }
        return numbers;
    }

    @Test
    public void theProcessDoesNotGrow() {
        List<Long> resident = printed("resident");
        assertEquals(CyclesProgram.CYCLES / CyclesProgram.INTERVAL, resident.size());
        long before = resident.get(WARM_UP / CyclesProgram.INTERVAL - 1);
        long growth = resident.get(resident.size() - 1) - before;
        double slope = growth * 1024.0 / (CyclesProgram.CYCLES - WARM_UP);
        System.out.printf("%n%d cycles: %d KiB after %d, %d KiB more at the end, %.2f bytes a cycle%n",
                          CyclesProgram.CYCLES, before, WARM_UP, growth, slope);
        assertTrue(result.toString(), growth < MAX_GROWTH_KIB);
    }

    @Test
    public void handlesAreReused() {
        long handles = printed("handles").get(0);
        System.out.printf("%n%d cycles: %d different handles, at most %d%n", CyclesProgram.CYCLES, handles,
                          MAX_HANDLES);
        assertTrue(result.toString(), handles <= MAX_HANDLES);
    }

    @Test
    public void everyExpectedFailureWasThrown() {
        assertEquals(CyclesProgram.CYCLES / 10, (long) printed("failures").get(0));
    }

    @Test
    public void theVirtualMachinePrintsNoWarning() {
        assertFalse(result.toString(), result.output.contains("WARNING in native method"));
        assertFalse(result.toString(), result.output.contains("JNI local refs"));
    }
}
