package kelvane.tallowin;

import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;

/**
 * Calls random native methods with random arguments, for {@link RandomCallsTest}. Arguments: seed, number of threads,
 * calls per thread, configuration directory.
 *
 * <p>Threads share a few objects, whose handles are sometimes replaced and which are closed and constructed again. Any
 * exception but a KVXException or an object in use ends the program. It may write files with any names to its working
 * directory, but no argument names another directory or another host.
 */
final class RandomCallsProgram {
    private static final int OBJECTS = 12;
    private static final int HUGE = 100_000;
    private static final int[] ODD_HANDLES = {0, 1, 4, -1, -4, 512, 0x7FFFFFFF, 0x7FFFFE00, 0x80000000, 0xAFFEAFFE};

    private final String[] texts;
    private final Object[] objects = new Object[OBJECTS];
    private final AtomicReference<Throwable> unexpected = new AtomicReference<>();
    private final AtomicInteger succeeded = new AtomicInteger();
    private final AtomicInteger failed = new AtomicInteger();

    private RandomCallsProgram(Path account) throws Exception {
        String address = LocalServer.refusingBase() + "/x";
        texts = new String[] {
            null, "", "\0", "x", account.toString(), account + "/keys", "no/such", "config.xml", "default.xml",
            "settings.xml", "keys/current", "keys", "MSGTYPE", "TOKEN", "KEYID", "VTURL", "CAPTUREURL", "VTAUTOURL",
            "UserName", "Password", "KVX", "KVX(.0).A", "<KVX/>", "<KVX A=\"&amp;\" TOKEN='1'><B>text</B></KVX>",
            "<KVX", "</KVX>", "<KVX KEYID=\"", "<KVX KEYID=\"" + AccountDirectory.SERVER_KEY + "\"/>",
            "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"..\"/>", "00", "0123456789abcdef", "g", "Status", "PayComplete",
            address, "http:", "x://y", "\ud83d\ude00", "\ud83d", "&<>\"'"
        };
        for (int i = 0; i < OBJECTS; ++i) {
            objects[i] = Variant.classIn(getClass().getClassLoader(), NativeMethod.classNames().get(i % 3))
                    .getConstructor().newInstance();
        }
    }

    public static void main(String[] arguments) throws Exception {
        long seed = Long.parseLong(arguments[0]);
        new RandomCallsProgram(Path.of(arguments[3])).run(seed, Integer.parseInt(arguments[1]),
                                                          Integer.parseInt(arguments[2]));
    }

    private void run(long seed, int threads, int calls) throws Exception {
        List<Thread> started = new ArrayList<>();
        for (int number = 0; number < threads; ++number) {
            Random random = new Random(seed + number);
            Thread thread = new Thread(() -> call(random, calls));
            thread.start();
            started.add(thread);
        }
        for (Thread thread : started) {
            thread.join();
        }
        if (unexpected.get() != null) {
            throw new AssertionError("an unexpected exception", unexpected.get());
        }
        System.out.println("calls that succeeded: " + succeeded + ", that failed: " + failed);
    }

    private void call(Random random, int calls) {
        for (int i = 0; i < calls && unexpected.get() == null; ++i) {
            Object self = objects[random.nextInt(OBJECTS)];
            try {
                if (random.nextInt(100) == 0) {
                    NativeMethod.setHandle(self, randomHandle(random));
                }
                if (random.nextInt(50) == 0) {
                    ((AutoCloseable) self).close();
                    continue;
                }
                NativeMethod method = randomMethod(random, self);
                Object[] arguments = new Object[method.strings];
                for (int which = 0; which < arguments.length; ++which) {
                    arguments[which] = randomText(random);
                }
                Object result = method.call(self, arguments);
                if (result instanceof Integer) {
                    take(random, (Integer) result);
                }
                succeeded.incrementAndGet();
            } catch (KVXException failure) {
                failed.incrementAndGet();
                revive(random, self, failure);
            } catch (IllegalStateException inUse) {
                failed.incrementAndGet();
            } catch (Throwable other) {
                unexpected.compareAndSet(null, other);
            }
        }
    }

    /** Constructs a destroyed object again in half of the cases, so that most objects are living. */
    private void revive(Random random, Object self, KVXException failure) {
        if (failure.getErrorMessage().endsWith("Invalid Handle") && random.nextBoolean()) {
            try {
                NativeMethod.setHandle(self, 0);
                NativeMethod.named(self.getClass().getSimpleName() + ".nConstruct").call(self);
            } catch (KVXException another) {
                failed.incrementAndGet();  // another thread has constructed it already
            } catch (Throwable other) {
                unexpected.compareAndSet(null, other);
            }
        }
    }

    private NativeMethod randomMethod(Random random, Object self) {
        for (;;) {
            NativeMethod method = NativeMethod.ALL.get(random.nextInt(NativeMethod.ALL.size()));
            if (self.getClass().getSimpleName().equals(method.className)) {
                return method;
            }
        }
    }

    private int randomHandle(Random random) throws ReflectiveOperationException {
        switch (random.nextInt(3)) {
            case 0:
                return NativeMethod.handleOf(objects[random.nextInt(OBJECTS)]);
            case 1:
                return random.nextInt();
            default:
                return ODD_HANDLES[random.nextInt(ODD_HANDLES.length)];
        }
    }

    /** Stores the handle of a created message in a random object if that is a message; otherwise the message leaks. */
    private void take(Random random, int handle) throws ReflectiveOperationException {
        Object object = objects[random.nextInt(OBJECTS)];
        if (object instanceof MessageObject) {
            NativeMethod.setHandle(object, handle);
        }
    }

    private String randomText(Random random) {
        int kind = random.nextInt(20);
        if (kind > 3) {
            return texts[random.nextInt(texts.length)];
        }
        StringBuilder text = new StringBuilder();
        int length = kind == 0 ? random.nextInt(HUGE) : random.nextInt(64);
        while (text.length() < length) {
            // Without "/" and ":", so that no text is a path or an address elsewhere.
            char c = (char) (kind == 1 ? random.nextInt(0x10000) : "<KVX A=\"&;'>.-_\u00fc".charAt(random.nextInt(16)));
            text.append(c == '/' || c == ':' ? ' ' : c);
        }
        return text.toString();
    }
}
