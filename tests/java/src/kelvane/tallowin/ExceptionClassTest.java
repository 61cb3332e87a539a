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

/** What happens when KVXException is missing, is another class, or throws an exception itself. */
public class ExceptionClassTest {
    private static final int LIMIT_SECONDS = 60;

    /** With these words a virtual machine ends itself, unlike with an exception that nobody catches. */
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

    /** Kills a virtual machine for every method. */
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
            ForkedJvm.Ending ending = new ForkedJvm(directory).options("-XX:TieredStopAtLevel=1", "-XX:+UseSerialGC")
                    .classPath(variant.classes(), Given.testClasses())
                    .run(LIMIT_SECONDS, ExceptionClassProbe.class.getName(), Given.library().toString(),
                         method.toString(), pipes.toString());
            String told = method + " with " + what + ": " + ending;
            assertNotEquals(told, 0, ending.exitCode);
            assertTrue(told, ending.output.contains(FATAL + message));
            return null;
        };
    }

    @Test
    public void withoutTheClassEveryMethodEndsTheMachine() throws Exception {
        walkFatal("no KVXException", null, MISSING, NativeMethod.ALL);
    }

    @Test
    public void withoutAConstructorEveryMethodEndsTheMachine() throws Exception {
        walkFatal("no constructor without arguments",
                  exception("public KVXException(int hr) { }\n", PUT_HR, PUT_MESSAGE), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withoutPutHrEveryMethodEndsTheMachine() throws Exception {
        walkFatal("no putHR", exception(CONSTRUCTOR, PUT_MESSAGE), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withoutPutErrorMessageEveryMethodEndsTheMachine() throws Exception {
        walkFatal("no putErrorMessage", exception(CONSTRUCTOR, PUT_HR), INCOMPATIBLE, NativeMethod.ALL);
    }

    @Test
    public void withAnotherSignatureEveryMethodEndsTheMachine() throws Exception {
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
    public void withAClassThatCannotBeThrownTheMachineEnds() throws Exception {
        walkFatal("a KVXException that is no Throwable",
                  exception(CONSTRUCTOR, PUT_HR, PUT_MESSAGE).replace(" extends Exception", ""), INCOMPATIBLE,
                  List.of(NativeMethod.named("MessageObject.ToString")));
    }

    @Test
    public void aClassThatFailsToBeginCountsAsMissing() throws Exception {
        String initialiser = "static { if (true) { throw new IllegalStateException(); } }\n";
        walkFatal("a throwing class initialiser", exception(initialiser, CONSTRUCTOR, PUT_HR, PUT_MESSAGE), MISSING,
                  List.of(NativeMethod.named("MessageObject.ToString")));
    }

    @Test
    public void theSameMachineLivesWithAClassThatFits() throws Exception {
        Path directory = folder.newFolder().toPath();
        Variant variant = new Variant(directory, Variant.HANDLE_FIELD, exception(CONSTRUCTOR, PUT_HR, PUT_MESSAGE));
        ForkedJvm.Ending ending = new ForkedJvm(directory).classPath(variant.classes(), Given.testClasses())
                .run(LIMIT_SECONDS, ExceptionClassProbe.class.getName(), Given.library().toString(),
                     "MessageObject.ToString", directory.toString());
        assertTrue(ending.toString(), ending.output.contains("KVXException"));
        assertEquals(ending.toString(), 1, ending.exitCode);
    }

    /** Every method, in a class loader whose KVXException throws {@code thrown} from somewhere. */
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
    public void whatTheConstructorThrowsArrives() throws Exception {
        walkThrowing("a throwing constructor", "java.lang.IllegalStateException: from the constructor",
            exception("public KVXException() { throw new IllegalStateException(\"from the constructor\"); }\n", PUT_HR,
                      PUT_MESSAGE));
    }

    @Test
    public void whatPutHrThrowsArrives() throws Exception {
        walkThrowing("a throwing putHR", "java.lang.IllegalArgumentException: from putHR",
            exception(CONSTRUCTOR, "public void putHR(int hr) { "
                      + "throw new IllegalArgumentException(\"from putHR\"); }\n", PUT_MESSAGE));
    }

    @Test
    public void whatPutErrorMessageThrowsArrives() throws Exception {
        walkThrowing("a throwing putErrorMessage", "java.lang.UnsupportedOperationException: from putErrorMessage",
            exception(CONSTRUCTOR, PUT_HR, "public void putErrorMessage(String text) { "
                      + "throw new UnsupportedOperationException(\"from putErrorMessage\"); }\n"));
    }
}
