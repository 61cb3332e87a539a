package kelvane.tallowin;

import java.io.IOException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import javax.tools.JavaCompiler;
import javax.tools.ToolProvider;

/**
 * Other versions of the package's classes, for another class loader or virtual machine. They have the native methods, a
 * handle field chosen by the test and no other code; KVXException is a source text or missing.
 */
final class Variant {
    /** The correct field. */
    static final String HANDLE_FIELD = "private int m_Handle;";

    private final Path classes;

    /**
     * Compiles the classes.
     *
     * @param directory       an empty directory
     * @param field           the declaration of the handle field; empty for none
     * @param exceptionSource the source of KVXException; null for none
     */
    Variant(Path directory, String field, String exceptionSource) throws IOException {
        Path sources = Files.createDirectory(directory.resolve("sources"));
        classes = Files.createDirectory(directory.resolve("classes"));
        List<Path> files = new ArrayList<>();
        for (String className : NativeMethod.classNames()) {
            files.add(write(sources, className, "public final class " + className + " {\n" + field + "\n"
                    + "static void load(String path) { System.load(path); }\n" + declarations(className) + "}\n"));
        }
        if (exceptionSource != null) {
            files.add(write(sources, "KVXException", exceptionSource));
        }
        compile(classes, files);
    }

    Path classes() {
        return classes;
    }

    /**
     * Creates a class loader with these classes and its own copy of the library.
     *
     * @param directory gets the copy, because a virtual machine binds a library file to one class loader only
     * @param more      more directories or jars with classes
     */
    URLClassLoader load(Path directory, Path... more) throws IOException, ReflectiveOperationException {
        List<URL> places = new ArrayList<>();
        places.add(classes.toUri().toURL());
        for (Path place : more) {
            places.add(place.toUri().toURL());
        }
        URLClassLoader loader = new URLClassLoader(places.toArray(new URL[0]), ClassLoader.getPlatformClassLoader());
        Path library = Files.createTempDirectory(directory, "library").resolve("l.so");
        loadLibrary(loader, Files.copy(Given.library(), library));
        return loader;
    }

    /** Loads {@code library} for the classes of {@code loader}. */
    static void loadLibrary(ClassLoader loader, Path library) throws ReflectiveOperationException {
        var load = classIn(loader, "MessageObject").getDeclaredMethod("load", String.class);
        load.setAccessible(true);
        load.invoke(null, library.toString());
    }

    static Class<?> classIn(ClassLoader loader, String className) throws ReflectiveOperationException {
        return Class.forName("kelvane.tallowin." + className, true, loader);
    }

    /** Compiles {@code sources} into {@code classes}. */
    static void compile(Path classes, List<Path> sources, String... options) {
        JavaCompiler compiler = ToolProvider.getSystemJavaCompiler();
        if (compiler == null) {
            throw new AssertionError("this virtual machine has no compiler: a JDK is needed");
        }
        List<String> arguments = new ArrayList<>(List.of("--release", "11", "-d", classes.toString()));
        arguments.addAll(Arrays.asList(options));
        sources.forEach(source -> arguments.add(source.toString()));
        if (compiler.run(null, null, null, arguments.toArray(new String[0])) != 0) {
            throw new AssertionError("not compiled: " + sources);
        }
    }

    private static Path write(Path sources, String className, String text) throws IOException {
        return Files.writeString(sources.resolve(className + ".java"), "package kelvane.tallowin;\n" + text);
    }

    private static String declarations(String className) {
        StringBuilder text = new StringBuilder();
        for (NativeMethod method : NativeMethod.ALL) {
            if (method.className.equals(className)) {
                String[] parameters = new String[method.strings];
                Arrays.setAll(parameters, i -> "String s" + i);
                text.append("native ").append(method.result.getSimpleName()).append(' ').append(method.name)
                        .append('(').append(String.join(", ", parameters)).append(");\n");
            }
        }
        return text.toString();
    }
}
