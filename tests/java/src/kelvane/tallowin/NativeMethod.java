package kelvane.tallowin;

import java.lang.reflect.Field;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.util.Arrays;
import java.util.List;

/**
 * The native methods: names, signatures, and the prefixes of their failure texts. All are literals, not read from the
 * library.
 *
 * <p>Refers to classes by name, so it works for the real classes and for variants in other class loaders.
 */
final class NativeMethod {
    private static final String SETUP = "ConfigurationSetup";
    private static final String FACTORY = "MessageFactory";
    private static final String MESSAGE = "MessageObject";

    /**
     * Class, method, result, number of string parameters, prefix for handle and arguments, prefix for other failures.
     */
    static final List<NativeMethod> ALL = List.of(
        row(SETUP, "nConstruct", void.class, 0, "ConfigurationSetup::Construct(): ",
            "ConfigurationSetup::Construct(): "),
        row(SETUP, "nDestruct", void.class, 0, "ConfigurationSetup::Destruct(): ", "ConfigurationSetup::Destruct(): "),
        row(SETUP, "SetConfiguration", void.class, 1, "ConfigurationSetup::SetConfiguration(): ",
            "ConfigurationSetup::SetConfiguration(): "),
        row(SETUP, "Reconfigure", void.class, 3, "ConfigurationSetup::Reconfigure(): ",
            "ConfigurationSetup::Reconfigure(): "),
        row(SETUP, "SetOption", void.class, 2, "ConfigurationSetup::SetOption(): ",
            "ConfigurationSetup::SetOption(): "),
        row(SETUP, "GetAttribute", String.class, 2, "ConfigurationSetup::GetAttribute(): ",
            "ConfigurationSetup::GetAttribute(): "),
        row(SETUP, "SetAttribute", void.class, 3, "ConfigurationSetup::SetAttribute(): ",
            "ConfigurationSetup::SetAttribute(): "),
        row(FACTORY, "nConstruct", void.class, 0, "MessageFactory::Construct(): ", "MessageFactory::Construct(): "),
        row(FACTORY, "nDestruct", void.class, 0, "MessageFactory::Destruct(): ", "MessageFactory::Destruct(): "),
        row(FACTORY, "Open", void.class, 1, "MessageFactory::Open(): ", "MessageFactory::Open(): "),
        row(FACTORY, "nCreatePayInit", int.class, 0, "MessageFactory::CreatePayInit(): ",
            "MessageFactory::CreatePayInit(): "),
        row(FACTORY, "nVerifyPayConfirm", int.class, 2, "MessageFactory::VerifyPayConfirm(): ",
            "MessageFactory::VerifyPayConfirm(): "),
        row(FACTORY, "nCreatePayComplete", int.class, 2, "MessageFactory::CreatePayComplete(): ",
            "MessageFactory::CreatePayComplete(): "),
        row(FACTORY, "nCreateRequest", int.class, 1, "MessageFactory::CreateRequest(): ",
            "MessageFactory::CreateRequest(): "),
        row(MESSAGE, "nConstruct", void.class, 0, "MessageObject::Construct(): ", "MessageFactory::Construct(): "),
        row(MESSAGE, "nDestruct", void.class, 0, "MessageObject::Destruct(): ", "MessageFactory::Destruct(): "),
        row(MESSAGE, "Open", void.class, 1, "MessageObject::Open(): ", "MessageFactory::Open(): "),
        row(MESSAGE, "SetAttribute", void.class, 2, "MessageObject::SetAttribute(): ",
            "MessageFactory::SetAttribute(): "),
        row(MESSAGE, "GetAttribute", String.class, 1, "MessageObject::GetAttribute(): ",
            "MessageFactory::GetAttribute(): "),
        row(MESSAGE, "GetURL", String.class, 0, "MessageObject::GetURL(): ", "MessageFactory::GetURL(): "),
        row(MESSAGE, "Capture", void.class, 0, "MessageObject::Capture(): ", "MessageFactory::Capture(): "),
        row(MESSAGE, "nExecute", int.class, 0, "MessageObject::Execute(): ", "MessageFactory::Execute(): "),
        row(MESSAGE, "FromString", void.class, 1, "MessageObject::FromString(): ", "MessageFactory::FromString(): "),
        row(MESSAGE, "ToString", String.class, 0, "MessageObject::GetAttribute(): ", "MessageFactory::ToString(): "));

    final String className;
    final String name;
    final Class<?> result;
    final int strings;
    final String refusalPrefix;
    final String failurePrefix;

    private NativeMethod(String className, String name, Class<?> result, int strings, String refusalPrefix,
                         String failurePrefix) {
        this.className = className;
        this.name = name;
        this.result = result;
        this.strings = strings;
        this.refusalPrefix = refusalPrefix;
        this.failurePrefix = failurePrefix;
    }

    private static NativeMethod row(String className, String name, Class<?> result, int strings, String refusalPrefix,
                                    String failurePrefix) {
        return new NativeMethod(className, name, result, strings, refusalPrefix, failurePrefix);
    }

    /** The row of {@code "Class.method"}. */
    static NativeMethod named(String fullName) {
        return ALL.stream().filter(method -> method.toString().equals(fullName)).findFirst()
                .orElseThrow(() -> new AssertionError("no native method " + fullName));
    }

    /** The names of the three classes. */
    static List<String> classNames() {
        return List.of(SETUP, FACTORY, MESSAGE);
    }

    boolean constructs() {
        return name.equals("nConstruct");
    }

    boolean destroys() {
        return name.equals("nDestruct");
    }

    Class<?>[] parameterTypes() {
        Class<?>[] types = new Class<?>[strings];
        Arrays.fill(types, String.class);
        return types;
    }

    /** The same argument for every parameter. */
    Object[] allArguments(String argument) {
        Object[] arguments = new Object[strings];
        Arrays.fill(arguments, argument);
        return arguments;
    }

    /** Calls the method of {@code self} and throws the method's exception. */
    Object call(Object self, Object... arguments) throws Throwable {
        Method method = self.getClass().getDeclaredMethod(name, parameterTypes());
        method.setAccessible(true);
        try {
            return method.invoke(self, arguments);
        } catch (InvocationTargetException thrown) {
            throw thrown.getCause();
        }
    }

    /** A new object of the class in {@code loader}, created by its public constructor. */
    Object newObject(ClassLoader loader) throws ReflectiveOperationException {
        return Class.forName("kelvane.tallowin." + className, true, loader).getConstructor().newInstance();
    }

    static int handleOf(Object object) throws ReflectiveOperationException {
        return handleField(object).getInt(object);
    }

    static void setHandle(Object object, int handle) throws ReflectiveOperationException {
        handleField(object).setInt(object, handle);
    }

    private static Field handleField(Object object) throws ReflectiveOperationException {
        Field field = object.getClass().getDeclaredField("m_Handle");
        field.setAccessible(true);
        return field;
    }

    @Override
    public String toString() {
        return className + "." + name;
    }
}
