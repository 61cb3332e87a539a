package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.Timeout;

/** Random calls with random arguments never crash the virtual machine. */
public class RandomCallsTest {
    private static final int LIMIT_SECONDS = 180;

    @Rule
    public final ScratchDirectory scratch = new ScratchDirectory();

    @Rule
    public final Timeout timeout = new Timeout(LIMIT_SECONDS + 30, TimeUnit.SECONDS);

    private void walk(int threads, int calls) throws Exception {
        long seed = Long.getLong("kvx.test.seed", 1);
        Path directory = Files.createTempDirectory(scratch.path(), "working");
        AccountDirectory account = new AccountDirectory(Files.createTempDirectory(scratch.path(), "account"));
        ForkedJvm.Result result = new ForkedJvm(directory).options("-Xcheck:jni")
                .classPath(Given.jar(), Given.testClasses())
                .run(LIMIT_SECONDS, RandomCallsProgram.class.getName(), Long.toString(seed), Integer.toString(threads),
                     Integer.toString(calls), account.path().toString());
        String report = "seed " + seed + ": " + result;
        System.out.println(report);
        assertEquals(report, 0, result.exitCode);
        assertTrue(report, result.output.contains("calls that succeeded"));
        assertFalse(report, result.output.contains("in native method"));
        assertFalse(report, result.output.contains("JNI local refs"));
    }

    @Test
    public void randomCallsOfOneThreadReturnOrThrow() throws Exception {
        walk(1, 40_000);
    }

    @Test
    public void randomCallsOfSeveralThreadsOnSharedObjectsReturnOrThrow() throws Exception {
        walk(4, 10_000);
    }
}
