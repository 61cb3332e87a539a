package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Checks of the native methods before they call the library: the handle, the handle field, null arguments.
 *
 * <p>Each test walks the table of native methods in a real virtual machine: numbers that are not handles, destroyed
 * objects, objects of another class, a missing or wrong field, and constructors and destructors called again.
 */
public class NativesTest {
    private static final int UNEXPECTED = 0x80040211;
    private static final int RANDOM_HANDLES = 200;

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(120, TimeUnit.SECONDS);

    private final List<AutoCloseable> open = new ArrayList<>();

    /** A new object that is closed after the test. */
    private Object object(String className) throws ReflectiveOperationException {
        Object made = Variant.classIn(getClass().getClassLoader(), className).getConstructor().newInstance();
        open.add((AutoCloseable) made);
        return made;
    }

    @After
    public void closeAll() throws Exception {
        for (AutoCloseable object : open) {
            object.close();
        }
    }

    @Test
    public void theNativeMethodsAreExactlyThese() throws Exception {
        TreeSet<String> expected = new TreeSet<>();
        for (NativeMethod method : NativeMethod.ALL) {
            expected.add(method + "/" + method.strings + " " + method.result);
        }
        assertEquals(24, expected.size());
        TreeSet<String> declared = new TreeSet<>();
        for (Class<?> type : classesOfTheJar()) {
            for (Method method : type.getDeclaredMethods()) {
                // Those of the ledger have a library of their own, whose names a test of the installation compares.
                boolean isOfTheLedger = type.getName().equals("kelvane.tallowin.ledger.Natives");
                if (Modifier.isNative(method.getModifiers()) && !isOfTheLedger) {
                    assertFalse(method.toString(), Modifier.isStatic(method.getModifiers()));
                    assertEquals(method.toString(), method.getName().startsWith("n"),
                                 Modifier.isPrivate(method.getModifiers()));
                    for (Class<?> parameter : method.getParameterTypes()) {
                        assertEquals(String.class, parameter);
                    }
                    declared.add(type.getSimpleName() + "." + method.getName() + "/" + method.getParameterCount() + " "
                                 + method.getReturnType());
                }
            }
        }
        assertEquals(expected, declared);
    }

    private static List<Class<?>> classesOfTheJar() throws IOException, ReflectiveOperationException {
        List<Class<?>> classes = new ArrayList<>();
        try (JarFile jar = new JarFile(Given.jar().toFile())) {
            for (JarEntry entry : Collections.list(jar.entries())) {
                if (entry.getName().matches("kelvane/tallowin/.*\\.class")) {
                    String name = entry.getName().replace('/', '.').replaceAll("\\.class$", "");
                    classes.add(Class.forName(name, false, NativesTest.class.getClassLoader()));
                }
            }
        }
        return classes;
    }

    /** Numbers that are not the handle of a living object of the class, with a description each. */
    private Map<String, Integer> badHandles(String className) throws Exception {
        Map<String, Integer> handles = new LinkedHashMap<>();
        for (int number : new int[] {0, 1, 2, 3, 4, 8, 512, 4096, 65536, -1, -2, -4, -512, 0x7FFFFFFF, 0x7FFFFFFC,
                                     0x7FFFFE00, 0x80000000, 0x80000004, 0x80000200, 0xAFFEAFFE}) {
            handles.put(String.format("0x%08X", number), number);
        }
        int living = NativeMethod.handleOf(object(className));
        for (int distance : new int[] {-4, -1, 1, 2, 3, 4, 8, 256, 511}) {
            handles.put("a living object and " + distance, living + distance);
        }
        for (String other : NativeMethod.classNames()) {
            if (!other.equals(className)) {
                handles.put("a living " + other, NativeMethod.handleOf(object(other)));
            }
        }
        AutoCloseable gone = (AutoCloseable) object(className);
        handles.put("a destroyed object", NativeMethod.handleOf(gone));
        gone.close();
        Random random = new Random(className.hashCode());
        for (int i = 0; i < RANDOM_HANDLES; ++i) {
            int number = random.nextInt();
            if (number != living) {
                handles.put(String.format("random 0x%08X", number), number);
            }
        }
        return handles;
    }

    @Test
    public void everyMethodRefusesANumberThatIsNotAHandle() throws Throwable {
        int methods = 0;
        int calls = 0;
        for (String className : NativeMethod.classNames()) {
            Object self = object(className);
            int own = NativeMethod.handleOf(self);
            Map<String, Integer> handles = badHandles(className);
            for (NativeMethod method : NativeMethod.ALL) {
                if (method.className.equals(className) && !method.constructs() && !method.destroys()) {
                    ++methods;
                    for (Map.Entry<String, Integer> handle : handles.entrySet()) {
                        ++calls;
                        NativeMethod.setHandle(self, handle.getValue());
                        assertEquals(method + " on " + handle.getKey(),
                                     Failure.text(UNEXPECTED, method.refusalPrefix + "Invalid Handle"),
                                     Failure.of(() -> method.call(self, method.allArguments("x"))));
                        assertEquals(handle.getValue().intValue(), NativeMethod.handleOf(self));
                    }
                }
            }
            NativeMethod.setHandle(self, own);
        }
        System.out.println("walked " + methods + " natives x numbers that are not handles: " + calls + " calls");
        assertEquals(18, methods);
    }

    @Test
    public void destructIgnoresANumberThatIsNotAHandle() throws Throwable {
        List<Object> bystanders = new ArrayList<>();
        for (String className : NativeMethod.classNames()) {
            bystanders.add(object(className));
        }
        for (String className : NativeMethod.classNames()) {
            Object self = object(className);
            int own = NativeMethod.handleOf(self);
            Map<String, Integer> handles = badHandles(className);
            for (Object bystander : bystanders) {
                if (!bystander.getClass().equals(self.getClass())) {
                    handles.put("a bystander", NativeMethod.handleOf(bystander));
                }
            }
            for (int handle : handles.values()) {
                NativeMethod.setHandle(self, handle);
                NativeMethod.named(className + ".nDestruct").call(self);
                assertEquals(handle, NativeMethod.handleOf(self));
            }
            NativeMethod.setHandle(self, own);
        }
        ((ConfigurationSetup) bystanders.get(0)).SetOption("UserName", "still here");
        ((MessageFactory) bystanders.get(1)).Open("still here");
        ((MessageObject) bystanders.get(2)).FromString("<KVX STILL=\"here\"/>");
    }

    @Test
    public void constructRefusesAnObjectThatHasAHandle() throws Throwable {
        for (String className : NativeMethod.classNames()) {
            Object self = object(className);
            int own = NativeMethod.handleOf(self);
            Map<String, Integer> handles = badHandles(className);
            handles.remove("0x00000000");
            handles.put("its own", own);
            for (int handle : handles.values()) {
                NativeMethod.setHandle(self, handle);
                assertEquals(Failure.text(UNEXPECTED, className + "::Construct(): m_Handle != 0"),
                             Failure.of(() -> NativeMethod.named(className + ".nConstruct").call(self)));
                assertEquals(handle, NativeMethod.handleOf(self));
            }
            NativeMethod.setHandle(self, own);
        }
    }

    @Test
    public void aNewObjectHasAHandle() throws Throwable {
        for (String className : NativeMethod.classNames()) {
            Object one = object(className);
            Object other = object(className);
            assertTrue(NativeMethod.handleOf(one) != 0);
            assertTrue(NativeMethod.handleOf(one) != NativeMethod.handleOf(other));
        }
    }

    @Test
    public void destructKeepsTheFieldAndFreesTheObjectOnce() throws Throwable {
        for (String className : NativeMethod.classNames()) {
            Object self = object(className);
            int handle = NativeMethod.handleOf(self);
            for (int times = 0; times < 3; ++times) {
                NativeMethod.named(className + ".nDestruct").call(self);
                assertEquals(handle, NativeMethod.handleOf(self));
            }
            for (NativeMethod method : NativeMethod.ALL) {
                if (method.className.equals(className) && !method.constructs() && !method.destroys()) {
                    assertEquals(Failure.text(UNEXPECTED, method.refusalPrefix + "Invalid Handle"),
                                 Failure.of(() -> method.call(self, method.allArguments("x"))));
                }
            }
        }
    }

    @Test
    public void closeFreesTheObjectOnceAndClearsTheHandle() throws Throwable {
        for (String className : NativeMethod.classNames()) {
            AutoCloseable self = (AutoCloseable) object(className);
            int handle = NativeMethod.handleOf(self);
            self.close();
            assertEquals(0, NativeMethod.handleOf(self));
            self.close();
            assertEquals(0, NativeMethod.handleOf(self));
            Object other = object(className);
            int own = NativeMethod.handleOf(other);
            for (NativeMethod method : NativeMethod.ALL) {
                if (method.className.equals(className) && !method.constructs() && !method.destroys()) {
                    String refusal = Failure.text(UNEXPECTED, method.refusalPrefix + "Invalid Handle");
                    assertEquals(refusal, Failure.of(() -> method.call(self, method.allArguments("x"))));
                    NativeMethod.setHandle(other, handle);
                    assertEquals(refusal, Failure.of(() -> method.call(other, method.allArguments("x"))));
                    NativeMethod.setHandle(other, own);
                }
            }
        }
    }

    /** A variant of the classes with {@code field}, which the native methods do not accept. */
    private URLClassLoader withField(String field) throws IOException, ReflectiveOperationException {
        Path directory = folder.newFolder().toPath();
        return new Variant(directory, field, null).load(directory, Given.jar());
    }

    @Test
    public void everyMethodReportsAMissingField() throws Throwable {
        int calls = 0;
        String[] fields = {"", "private long m_Handle;", "private static int m_Handle;", "private int m_handle;"};
        for (String field : fields) {
            try (URLClassLoader loader = withField(field)) {
                for (NativeMethod method : NativeMethod.ALL) {
                    ++calls;
                    String expected = method.destroys() ? "no failure"
                            : Failure.text(UNEXPECTED, method.refusalPrefix + "member m_Handle not found");
                    Object self = method.newObject(loader);
                    assertEquals(method + " with [" + field + "]", expected,
                                 Failure.of(() -> method.call(self, method.allArguments("x"))));
                }
            }
        }
        System.out.println("walked " + NativeMethod.ALL.size() + " natives x " + fields.length + " fields: " + calls
                + " calls");
        assertEquals(96, calls);
    }

    /** The messages of the methods that refuse null arguments. */
    private static final Map<String, String> NULL_REFUSALS = Map.of(
        "ConfigurationSetup.SetOption", "ConfigurationSetup::SetOption(): Value or Name of the Attribute is NULL",
        "ConfigurationSetup.SetAttribute", "ConfigurationSetup::SetAttribute(): Value or File, Name or newVal is NULL",
        "MessageObject.SetAttribute", "MessageObject::SetAttribute(): Value or Name of the Attribute is NULL");

    @Test
    public void someMethodsRefuseNullBeforeCheckingTheHandle() throws Throwable {
        try (URLClassLoader fieldless = withField("")) {
            for (Map.Entry<String, String> row : NULL_REFUSALS.entrySet()) {
                NativeMethod method = NativeMethod.named(row.getKey());
                String expected = Failure.text(UNEXPECTED, row.getValue());
                Object living = object(method.className);
                Object closed = object(method.className);
                ((AutoCloseable) closed).close();
                for (Object self : List.of(living, closed, method.newObject(fieldless))) {
                    for (int which = 0; which < method.strings; ++which) {
                        Object[] arguments = method.allArguments("x");
                        arguments[which] = null;
                        assertEquals(expected, Failure.of(() -> method.call(self, arguments)));
                    }
                    assertEquals(expected, Failure.of(() -> method.call(self, method.allArguments(null))));
                }
            }
        }
    }

    @Test
    public void otherMethodsTreatNullAsAnEmptyString() throws Throwable {
        AccountDirectory account = new AccountDirectory(folder.newFolder().toPath());
        int methods = 0;
        for (NativeMethod method : NativeMethod.ALL) {
            if (method.strings > 0 && !NULL_REFUSALS.containsKey(method.toString())) {
                ++methods;
                String withNull = outcome(method, account, null);
                assertEquals(method.toString(), outcome(method, account, ""), withNull);
            }
        }
        assertEquals(10, methods);
    }

    /** Failure or result of {@code method} with {@code argument}, on a new object opened on {@code account}. */
    private String outcome(NativeMethod method, AccountDirectory account, String argument) throws Throwable {
        Object self = object(method.className);
        String directory = account.path().toString();
        if (self instanceof ConfigurationSetup) {
            ((ConfigurationSetup) self).SetConfiguration(directory);
        } else if (self instanceof MessageFactory) {
            ((MessageFactory) self).Open(directory);
        } else {
            ((MessageObject) self).Open(directory);
            ((MessageObject) self).SetAttribute("", "the value without a name");
        }
        Object[] result = {null};
        String failure = Failure.of(() -> result[0] = method.call(self, method.allArguments(argument)));
        if (result[0] instanceof Integer) {
            MessageObject made = MessageObject.withoutNativeObject();
            made.m_Handle = made.reclaimer.handle = (Integer) result[0];
            open.add(made);
            return failure + made.ToString();
        }
        return failure + result[0];
    }
}
