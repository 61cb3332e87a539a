package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import org.junit.Rule;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Objects used by several threads, and objects that are never closed.
 *
 * <p>A call is held in the library by a server that does not respond yet, or by a pipe. Meanwhile other threads try to
 * close the object, to call it, or to use other objects. Unclosed objects must be freed after garbage collection.
 */
public class ThreadsTest {
    private static final int LIMIT_SECONDS = 60;
    private static final String ERROR = "<KVX MSGTYPE=\"Error\" MESSAGE=\"late\"/>";

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(2 * LIMIT_SECONDS, TimeUnit.SECONDS);

    private static <T> FutureTask<T> start(String name, Callable<T> step) {
        FutureTask<T> task = new FutureTask<>(step);
        Thread thread = new Thread(task, name);
        thread.setDaemon(true);
        thread.start();
        return task;
    }

    private static <T> T result(FutureTask<T> task) throws Exception {
        return task.get(LIMIT_SECONDS, TimeUnit.SECONDS);
    }

    /** Runs {@code call} in another thread. The result is its failure. */
    private static FutureTask<String> failing(ThrowingRunnable call) {
        return start("caller", () -> {
            try {
                return Failure.of(call);
            } catch (Throwable other) {
                return other.toString();
            }
        });
    }

    private AccountDirectory account(LocalServer server) throws IOException {
        AccountDirectory account = new AccountDirectory(folder.newFolder().toPath());
        account.pointTo(server.base());
        return account;
    }

    private static void assertInUse(String className, AutoCloseable object) throws Exception {
        int handle = handleOf(object);
        for (int times = 0; times < 2; ++times) {
            try {
                object.close();
            } catch (IllegalStateException refused) {
                assertEquals(className + "::Destruct(): object is in use by another thread", refused.getMessage());
                assertEquals(0x80040211, ((KVXException) refused.getCause()).getHR());
                continue;
            }
            throw new AssertionError("closed while in use");
        }
        assertEquals(handle, handleOf(object));
    }

    private static int handleOf(Object object) throws ReflectiveOperationException {
        return NativeMethod.handleOf(object);
    }

    @Test
    public void aSetUpInProgressCannotBeClosed() throws Exception {
        ConfigurationSetup setup = new ConfigurationSetup();
        try (LocalServer server = new LocalServer()) {
            setup.SetConfiguration(account(server).path().toString());
            FutureTask<String> call = failing(() -> setup.Reconfigure("", "demo", "demo"));
            server.awaitRequest();
            assertInUse("ConfigurationSetup", setup);
            server.answer(ERROR);
            assertEquals(Failure.text(0x80040213, "ConfigurationSetup::Reconfigure(): the request failed (late)"),
                         result(call));
            assertEquals("1001", setup.GetAttribute("config.xml", "CUSTOMERID"));
        }
        setup.close();
        assertEquals(0, handleOf(setup));
    }

    @Test
    public void aMessageBeingSentCannotBeClosed() throws Exception {
        try (LocalServer server = new LocalServer(); MessageFactory factory = new MessageFactory()) {
            factory.Open(account(server).path().toString());
            try (MessageObject request = factory.CreateRequest("Status")) {
                FutureTask<String> execution = failing(() -> request.Execute().close());
                server.awaitRequest();
                assertInUse("MessageObject", request);
                server.answer("<KVX MSGTYPE=\"StatusResponse\"/>");
                assertEquals("no failure", result(execution));
                request.SetAttribute("TOKEN", "1");
                FutureTask<String> capture = failing(request::Capture);
                server.awaitRequest();
                assertInUse("MessageObject", request);
                server.answer(ERROR);
                assertEquals(Failure.text(0x80040213, "MessageFactory::Capture(): the request failed (late)"),
                             result(capture));
                assertEquals("StatusRequest", request.GetAttribute("MSGTYPE"));
            }
        }
    }

    @Test
    public void aFactoryInUseCannotBeClosed() throws Exception {
        Path directory = BusyCall.directory(folder.getRoot().toPath());
        try (MessageFactory factory = new MessageFactory()) {
            BusyCall busy = new BusyCall(factory, "MessageFactory", directory);
            assertInUse("MessageFactory", factory);
            busy.finish("00");
            factory.Open(new AccountDirectory(folder.newFolder().toPath()).path().toString());
            factory.CreatePayInit().close();
        }
    }

    @Test
    public void anotherObjectIsNotBlocked() throws Exception {
        try (LocalServer server = new LocalServer(); ConfigurationSetup setup = new ConfigurationSetup()) {
            Path directory = account(server).path();
            setup.SetConfiguration(directory.toString());
            FutureTask<String> call = failing(() -> setup.Reconfigure("", "demo", "demo"));
            server.awaitRequest();
            try (ConfigurationSetup other = new ConfigurationSetup()) {
                other.SetConfiguration(directory.toString());
                assertEquals("1001", other.GetAttribute("config.xml", "CUSTOMERID"));
            }
            server.answer(ERROR);
            result(call);
        }
    }

    @Test
    public void aCallWaitsForAnotherOnTheSameObject() throws Exception {
        Path directory = BusyCall.directory(folder.getRoot().toPath());
        try (MessageObject message = new MessageObject()) {
            message.FromString("<KVX KEYID=\"early\" MSGTYPE=\"early\"/>");
            // Opening the message blocks in reading the key's name...
            BusyCall open = new BusyCall(message, "MessageObject", directory);
            CountDownLatch started = new CountDownLatch(1);
            FutureTask<String> waiting = start("kvx-waiting", () -> {
                started.countDown();
                return message.GetAttribute("KEYID");
            });
            assertTrue(started.await(LIMIT_SECONDS, TimeUnit.SECONDS));
            awaitSleep("kvx-waiting");
            assertFalse(waiting.isDone());
            open.finish("late");
            // ...and a call made meanwhile returns the new name.
            assertEquals("late", result(waiting));
            assertEquals("ERROR", message.GetAttribute("MSGTYPE"));
        }
    }

    /** Waits until the thread of that name is blocked. */
    private static void awaitSleep(String name) throws IOException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
        while (System.nanoTime() < end) {
            try (Stream<Path> tasks = Files.list(Path.of("/proc/self/task"))) {
                if (tasks.anyMatch(task -> isAsleep(task, name))) {
                    return;
                }
            }
            Thread.onSpinWait();
        }
        throw new AssertionError("the thread " + name + " is not blocked");
    }

    private static boolean isAsleep(Path task, String name) {
        try {
            String status = Files.readString(task.resolve("stat"));
            return status.contains("(" + name + ") S ");
        } catch (IOException gone) {
            return false;
        }
    }

    @Test
    public void callsOfSeveralThreadsOnOneObjectAreAllMade() throws Exception {
        int threads = 4;
        int calls = 2000;
        try (MessageObject message = new MessageObject()) {
            message.FromString("<KVX/>");
            FutureTask<?>[] tasks = new FutureTask<?>[threads];
            for (int number = 0; number < threads; ++number) {
                String name = "A" + number;
                tasks[number] = start("caller", () -> {
                    for (int i = 0; i < calls; ++i) {
                        message.SetAttribute(name, Integer.toString(i));
                        assertEquals(Integer.toString(i), message.GetAttribute(name));
                    }
                    return null;
                });
            }
            for (FutureTask<?> task : tasks) {
                result(task);
            }
            for (int number = 0; number < threads; ++number) {
                assertEquals(Integer.toString(calls - 1), message.GetAttribute("A" + number));
            }
        }
    }

    @Test
    public void severalThreadsMayCloseOneObject() throws Exception {
        for (int round = 0; round < 200; ++round) {
            MessageObject message = new MessageObject();
            FutureTask<?>[] tasks = new FutureTask<?>[3];
            for (int i = 0; i < tasks.length; ++i) {
                tasks[i] = start("closer", () -> {
                    message.close();
                    return null;
                });
            }
            for (FutureTask<?> task : tasks) {
                result(task);
            }
            assertEquals(0, handleOf(message));
        }
    }

    @Test
    public void messagesOutliveTheirFactory() throws Exception {
        Path directory = new AccountDirectory(folder.newFolder().toPath()).path();
        MessageFactory factory = new MessageFactory();
        factory.Open(directory.toString());
        try (MessageObject payment = factory.CreatePayInit()) {
            factory.close();
            assertEquals("PayInit", payment.GetAttribute("MSGTYPE"));
            assertTrue(payment.GetURL().startsWith("http://127.0.0.1:"));
        }
    }

    /** An object without any other reference to it. */
    private static final class UnreachableObject {
        final WeakReference<Object> owner;
        final UnclosedObject unclosed;
        final int handle;

        UnreachableObject(Object owner) throws ReflectiveOperationException {
            this.owner = new WeakReference<>(owner);
            unclosed = new UnclosedObject(owner);
            handle = handleOf(owner);
        }

        void awaitFreed() throws ReflectiveOperationException {
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
            while (!unclosed.isFreed() && System.nanoTime() < end) {
                System.gc();
            }
            assertTrue("an unclosed object is not freed", unclosed.isFreed());
            assertNull(owner.get());
        }
    }

    @Test
    public void anUnclosedObjectIsFreed() throws Throwable {
        for (String className : NativeMethod.classNames()) {
            Class<?> type = Variant.classIn(getClass().getClassLoader(), className);
            UnreachableObject object = new UnreachableObject(type.getConstructor().newInstance());
            assertTrue(object.handle != 0);
            object.awaitFreed();
            assertGone(type, className, object.handle);
        }
    }

    @Test
    public void anUnclosedMessageOfAFactoryIsFreed() throws Throwable {
        try (MessageFactory factory = new MessageFactory()) {
            factory.Open(new AccountDirectory(folder.newFolder().toPath()).path().toString());
            UnreachableObject object = new UnreachableObject(factory.CreatePayInit());
            object.awaitFreed();
            assertGone(MessageObject.class, "MessageObject", object.handle);
        }
    }

    private static void assertGone(Class<?> type, String className, int handle) throws Throwable {
        NativeMethod method = NativeMethod.ALL.stream().filter(row -> row.className.equals(className))
                .filter(row -> !row.constructs() && !row.destroys()).findFirst().get();
        Object shell = type.getConstructor().newInstance();
        int own = handleOf(shell);
        NativeMethod.setHandle(shell, handle);
        assertEquals(Failure.text(0x80040211, method.refusalPrefix + "Invalid Handle"),
                     Failure.of(() -> method.call(shell, method.allArguments("x"))));
        NativeMethod.setHandle(shell, own);
        ((AutoCloseable) shell).close();
    }

    @Test
    public void anObjectInUseIsNotFreed() throws Exception {
        try (LocalServer server = new LocalServer()) {
            String directory = account(server).path().toString();
            FutureTask<String> call = failing(() -> {
                ConfigurationSetup setup = new ConfigurationSetup();
                setup.SetConfiguration(directory);
                setup.Reconfigure("", "demo", "demo");
            });
            server.awaitRequest();
            // Only the running call still refers to the object.
            new UnreachableObject(new MessageObject()).awaitFreed();
            server.answer(ERROR);
            assertEquals(Failure.text(0x80040213, "ConfigurationSetup::Reconfigure(): the request failed (late)"),
                         result(call));
        }
    }

    @Test
    public void aSmallStackIsEnoughForADeepDocument() throws Exception {
        StringBuilder text = new StringBuilder("<KVX DEEP=\"yes\">");
        int depth = 0;
        while (text.length() < 64 * 1024) {
            text.append("<a>");
            ++depth;
        }
        for (int i = 0; i < depth; ++i) {
            text.append("</a>");
        }
        text.append("</KVX>");
        FutureTask<String> task = new FutureTask<>(() -> {
            try (MessageObject message = new MessageObject()) {
                message.FromString(text.toString());
                assertEquals("yes", message.GetAttribute("DEEP"));
                return message.ToString();
            }
        });
        Thread thread = new Thread(null, task, "small stack", 128 * 1024);
        thread.setDaemon(true);
        thread.start();
        String written = result(task);
        // The innermost element is written as an empty-element tag, and KEYID has been added.
        String expected = text.toString().replace("DEEP=\"yes\"", "DEEP=\"yes\" KEYID=\"\"").replace("<a></a>", "<a/>");
        assertEquals(expected, written);
    }
}
