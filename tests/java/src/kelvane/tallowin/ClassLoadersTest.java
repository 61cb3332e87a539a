package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertNotSame;
import static org.junit.Assert.assertSame;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.ref.WeakReference;
import java.lang.reflect.Field;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * The package in several class loaders of one virtual machine, as in application servers: side by side, with threads in
 * both, and one after the other. Each loader must get its own copy of the library and be collected afterwards.
 */
public class ClassLoadersTest {
    private static final int LIMIT_SECONDS = 60;
    private static final int GENERATIONS = 4;

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(3 * LIMIT_SECONDS, TimeUnit.SECONDS);

    /** A class loader that loads the package itself instead of sharing it. */
    private static URLClassLoader newLoader() throws IOException {
        URL[] places = {Given.jar().toUri().toURL(), Given.testClasses().toUri().toURL()};
        return new URLClassLoader(places, ClassLoader.getPlatformClassLoader());
    }

    private Path newDirectory() throws IOException {
        return folder.newFolder().toPath();
    }

    @Test
    public void twoLoadersSideBySideShareNothing() throws Throwable {
        try (URLClassLoader one = newLoader(); URLClassLoader other = newLoader()) {
            FullUse.in(one, newDirectory());
            FullUse.in(other, newDirectory());
            FullUse.in(one, newDirectory());
            FullUse.in(getClass().getClassLoader(), newDirectory());
            NativeMethod method = NativeMethod.named("MessageObject.FromString");
            Object ofOne = method.newObject(one);
            Object ofOther = method.newObject(other);
            assertNotSame(ofOne.getClass(), ofOther.getClass());
            int own = NativeMethod.handleOf(ofOther);
            assertNotEquals(NativeMethod.handleOf(ofOne), own);
            NativeMethod.setHandle(ofOther, NativeMethod.handleOf(ofOne));
            assertEquals(Failure.text(0x80040211, "MessageObject::FromString(): Invalid Handle"),
                         Failure.of(() -> method.call(ofOther, "<KVX/>")));
            NativeMethod.setHandle(ofOther, own);
            method.call(ofOther, "<KVX/>");
            ((AutoCloseable) ofOne).close();
            method.call(ofOther, "<KVX/>");
            ((AutoCloseable) ofOther).close();
        }
    }

    @Test
    public void keepsOneMonitorForAllLoaders() throws Exception {
        try (URLClassLoader one = newLoader(); URLClassLoader other = newLoader()) {
            List<Object> monitors = new ArrayList<>();
            for (ClassLoader loader : List.of(one, other, getClass().getClassLoader())) {
                Field monitor = loader.loadClass("kelvane.tallowin.internal.NativeCopy").getDeclaredField("JVM_LOCK");
                monitor.setAccessible(true);
                monitors.add(monitor.get(null));
            }
            assertSame(monitors.get(0), monitors.get(1));
            assertSame(monitors.get(0), monitors.get(2));
        }
    }

    @Test
    public void threadsOfTwoLoadersDoNotDisturbEachOther() throws Exception {
        ExecutorService threads = Executors.newFixedThreadPool(4);
        try (URLClassLoader one = newLoader(); URLClassLoader other = newLoader()) {
            List<Future<?>> uses = new ArrayList<>();
            for (int i = 0; i < 40; ++i) {
                ClassLoader loader = i % 2 == 0 ? one : other;
                Path directory = newDirectory();
                uses.add(threads.submit(() -> {
                    FullUse.in(loader, directory);
                    return null;
                }));
            }
            for (Future<?> use : uses) {
                use.get();
            }
        } finally {
            threads.shutdownNow();
        }
    }

    @Test
    public void loadersOneAfterTheOtherAreCollected() throws Exception {
        for (int generation = 0; generation < GENERATIONS; ++generation) {
            WeakReference<ClassLoader> gone = useAndForget();
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
            while (gone.get() != null && System.nanoTime() < end) {
                System.gc();
            }
            assertTrue("generation " + generation + " is not collected", gone.get() == null);
        }
        FullUse.in(getClass().getClassLoader(), newDirectory());
    }

    private WeakReference<ClassLoader> useAndForget() throws Exception {
        try (URLClassLoader loader = newLoader()) {
            FullUse.in(loader, newDirectory());
            return new WeakReference<>(loader);
        }
    }
}
