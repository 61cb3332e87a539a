package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Failures when KVXException is missing, is incompatible, or throws an exception itself.
 *
 * <p>A missing or incompatible class ends the virtual machine, so each native method is tested in a process of its own.
 * A class that throws is loaded by another class loader of this virtual machine.
 */
public class ExceptionClassTest {
    private static final int LIMIT_SECONDS = 60;

    /** Printed when native code ends the virtual machine; not printed for an uncaught exception. */
    private static final String FATAL = "FATAL ERROR in native method: ";

    private static final String MISSING = "Class kelvane/tallowin/KVXException not found";
    private static final String INCOMPATIBLE = "Incompatible class kelvane/tallowin/KVXException";

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(300, TimeUnit.SECONDS);

    private static final String CONSTRUCTOR = "public KVXException() { }\n";
    private static final String PUT_HR = "public void putHR(int hr) { }\n";
    private static final String PUT_MESSAGE = "public void putErrorMessage(String text) { }\n";

    private static String exception(String... members) {
        return "public class KVXException extends Exception {\n" + String.join("", members) + "}\n";
    }

    /** Expects that every method ends its virtual machine with {@code message}. */
    private void walkFatal(String what, String exceptionSource, String message, List<NativeMethod> methods)
            throws Exception {
        Path directory = folder.newFolder().toPath();
        Variant variant = new Variant(directory, Variant.HANDLE_FIELD, exceptionSource);
        ExecutorService two = Executors.newFixedThreadPool(2);
        try {
            List<Future<Void>> walked = new ArrayList<>();
            for (NativeMethod method : methods) {
                walked.add(two.submit(dies(what, variant, message, method)));
            }
            for (Future<Void> one : walked) {
                one.get();
            }
        } finally {
            two.shutdownNow();
        }
        System.out.println("walked " + methods.size() + " natives x " + what);
    }

    private Callable<Void> dies(String what, Variant variant, String message, NativeMethod method) {
        return () -> {
            Path directory = folder.newFolder().toPath();
            Path pipes = method.destroys() ? BusyCall.directory(directory) : directory;
            ForkedJvm.Result result = new ForkedJvm(directory).options("-XX:TieredStopAtLevel=1", "-XX:+UseSerialGC")
                    .classPath(variant.classes(), Given.testClasses())
                    .run(LIMIT_SECONDS, ExceptionClassProbe.class.getName(), Given.library().toString(),
                         method.toString(), pipes.toString());
            String report = method + " with " + what + ": " + result;
            assertNotEquals(report, 0, result.exitCode);
            assertTrue(report, result.output.contains(FATAL + message));
            return null;
        };
    }

    @Test
    public void withoutTheClassEveryMethodEndsTheVirtualMachine() throws Exception {
        walkFatal("no KVXException", null, MISSING, NativeMethod.ALL);
    }

    @Test
    public void withoutAConstructorEveryMethodEndsTheVirtualMachine() throws Exception {
        walkFatal("no constructor without arguments",
                  exception("public KVXException(int hr) { }\n", PUT_HR, PUT_MESSAGE), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withoutPutHrEveryMethodEndsTheVirtualMachine() throws Exception {
        walkFatal("no putHR", exception(CONSTRUCTOR, PUT_MESSAGE), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withoutPutErrorMessageEveryMethodEndsTheVirtualMachine() throws Exception {
        walkFatal("no putErrorMessage", exception(CONSTRUCTOR, PUT_HR), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withAnotherSignatureEveryMethodEndsTheVirtualMachine() throws Exception {
        walkFatal("putHR(long)", exception(CONSTRUCTOR, "public void putHR(long hr) { }\n", PUT_MESSAGE), INCOMPATIBLE,
                  NativeMethod.ALL);
        List<NativeMethod> one = List.of(NativeMethod.named("MessageObject.ToString"));
        walkFatal("putErrorMessage(Object)",
                  exception(CONSTRUCTOR, PUT_HR, "public void putErrorMessage(Object o) { }\n"), INCOMPATIBLE, one);
        walkFatal("a putHR with a result",
                  exception(CONSTRUCTOR, "public int putHR(int hr) { return 0; }\n", PUT_MESSAGE), INCOMPATIBLE, one);
        walkFatal("a static putHR",
                  exception(CONSTRUCTOR, "public static void putHR(int hr) { }\n", PUT_MESSAGE), INCOMPATIBLE, one);
    }

    @Test
    public void withAClassThatIsNotThrowableTheVirtualMachineEnds() throws Exception {
        walkFatal("a KVXException that is no Throwable",
                  exception(CONSTRUCTOR, PUT_HR, PUT_MESSAGE).replace(" extends Exception", ""), INCOMPATIBLE,
                  List.of(NativeMethod.named("MessageObject.ToString")));
    }

    @Test
    public void aClassWhoseInitialiserFailsCountsAsMissing() throws Exception {
        String initialiser = "static { if (true) { throw new IllegalStateException(); } }\n";
        walkFatal("a throwing class initialiser", exception(initialiser, CONSTRUCTOR, PUT_HR, PUT_MESSAGE), MISSING,
                  List.of(NativeMethod.named("MessageObject.ToString")));
    }

    @Test
    public void withACompatibleClassTheExceptionIsThrown() throws Exception {
        Path directory = folder.newFolder().toPath();
        Variant variant = new Variant(directory, Variant.HANDLE_FIELD, exception(CONSTRUCTOR, PUT_HR, PUT_MESSAGE));
        ForkedJvm.Result result = new ForkedJvm(directory).classPath(variant.classes(), Given.testClasses())
                .run(LIMIT_SECONDS, ExceptionClassProbe.class.getName(), Given.library().toString(),
                     "MessageObject.ToString", directory.toString());
        assertTrue(result.toString(), result.output.contains("KVXException"));
        assertEquals(result.toString(), 1, result.exitCode);
    }

    /** Expects that every method throws {@code thrown}, which this KVXException throws itself. */
    private void walkThrowing(String what, String thrown, String exceptionSource) throws Exception {
        Path directory = folder.newFolder().toPath();
        Path pipes = BusyCall.directory(directory);
        try (URLClassLoader loader = new Variant(directory, Variant.HANDLE_FIELD, exceptionSource).load(directory)) {
            for (NativeMethod method : NativeMethod.ALL) {
                assertEquals(method + " with " + what, thrown, thrownBy(method, method.newObject(loader), pipes));
                assertEquals("and once more", thrown, thrownBy(method, method.newObject(loader), pipes));
            }
        }
        System.out.println("walked " + NativeMethod.ALL.size() + " natives x " + what);
    }

    private static String thrownBy(NativeMethod method, Object self, Path pipes) throws IOException {
        try {
            ExceptionClassProbe.fail(method, self, pipes);
            return "nothing";
        } catch (Throwable thrown) {
            return thrown.toString();
        }
    }

    @Test
    public void anExceptionOfTheConstructorIsThrown() throws Exception {
        walkThrowing("a throwing constructor", "java.lang.IllegalStateException: from the constructor",
            exception("public KVXException() { throw new IllegalStateException(\"from the constructor\"); }\n", PUT_HR,
                      PUT_MESSAGE));
    }

    @Test
    public void anExceptionOfPutHrIsThrown() throws Exception {
        walkThrowing("a throwing putHR", "java.lang.IllegalArgumentException: from putHR",
            exception(CONSTRUCTOR, "public void putHR(int hr) { "
                      + "throw new IllegalArgumentException(\"from putHR\"); }\n", PUT_MESSAGE));
    }

    @Test
    public void anExceptionOfPutErrorMessageIsThrown() throws Exception {
        walkThrowing("a throwing putErrorMessage", "java.lang.UnsupportedOperationException: from putErrorMessage",
            exception(CONSTRUCTOR, PUT_HR, "public void putErrorMessage(String text) { "
                      + "throw new UnsupportedOperationException(\"from putErrorMessage\"); }\n"));
    }
}
