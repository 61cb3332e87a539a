package kelvane.tallowin;

import java.nio.file.Path;

/**
 * Makes one native method fail in a virtual machine whose KVXException is not what the library expects. Arguments: the
 * library, the method, and a directory for a blocking call.
 */
final class ExceptionClassProbe {
    private ExceptionClassProbe() {
    }

    public static void main(String[] arguments) throws Throwable {
        ClassLoader loader = ExceptionClassProbe.class.getClassLoader();
        Variant.loadLibrary(loader, Path.of(arguments[0]));
        NativeMethod method = NativeMethod.named(arguments[1]);
        fail(method, method.newObject(loader), Path.of(arguments[2]));
    }

    /**
     * Makes {@code method} fail and throws its exception.
     *
     * @param self      a new object of a variant
     * @param directory a directory made by {@link BusyCall#directory}
     */
    static void fail(NativeMethod method, Object self, Path directory) throws Throwable {
        if (method.constructs()) {
            NativeMethod.setHandle(self, 1);
        }
        if (!method.destroys()) {
            method.call(self, method.allArguments("x"));
            return;
        }
        NativeMethod.named(method.className + ".nConstruct").call(self);
        BusyCall busy = new BusyCall(self, method.className, directory);
        try {
            method.call(self);
        } finally {
            busy.finish("x");
        }
        method.call(self);
    }
}
