package kelvane.tallowin;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertTrue;

import java.io.DataInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.StringReader;
import java.lang.module.ModuleDescriptor;
import java.lang.reflect.Modifier;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.MessageDigest;
import java.time.LocalDateTime;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Properties;
import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import java.util.jar.JarFile;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import org.junit.After;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * The content of the jar: order and times, module descriptor, class file version, public classes, native library with its
 * hash, manifest, Maven coordinates, and the configuration for native images. Also runs a program that uses the jar from
 * the module path and from the class path.
 */
public class ResourcesTest {
    private static final int LIMIT_SECONDS = 60;
    private static final String NATIVE_IMAGE = "META-INF/native-image/kelvane.tallowin/tallowin/";

    private static final String MAVEN = "META-INF/maven/kelvane.tallowin/tallowin/";

    /** The class file version of Java 11. */
    private static final int CLASS_FILE_VERSION = 55;

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = new Timeout(4 * LIMIT_SECONDS, TimeUnit.SECONDS);

    private JarFile jar;

    @Before
    public void open() throws IOException {
        jar = new JarFile(Given.jar().toFile());
    }

    @After
    public void close() throws IOException {
        jar.close();
    }

    private Set<String> entries() {
        return jar.stream().map(entry -> entry.getName()).collect(Collectors.toCollection(TreeSet::new));
    }

    private byte[] bytesOf(String entry) throws IOException {
        assertTrue("the jar lacks " + entry, jar.getEntry(entry) != null);
        try (InputStream input = jar.getInputStream(jar.getEntry(entry))) {
            return input.readAllBytes();
        }
    }

    private String textOf(String entry) throws IOException {
        return new String(bytesOf(entry), StandardCharsets.UTF_8);
    }

    @Test
    public void theModuleExportsOnlyTheTwoPackages() throws IOException {
        try (InputStream input = jar.getInputStream(jar.getEntry("module-info.class"))) {
            ModuleDescriptor module = ModuleDescriptor.read(input);
            assertEquals("kelvane.tallowin", module.name());
            assertEquals(version(), module.rawVersion().orElse("none"));
            assertEquals("[kelvane.tallowin, kelvane.tallowin.ledger]", new TreeSet<>(module.exports()).toString());
            assertEquals("[java.base]", module.requires().stream().map(ModuleDescriptor.Requires::name)
                         .collect(Collectors.toList()).toString());
            assertTrue(module.opens().isEmpty());
        }
    }

    @Test
    public void everyClassRunsOnJavaEleven() throws IOException {
        int classes = 0;
        for (String entry : entries()) {
            if (entry.endsWith(".class")) {
                ++classes;
                try (DataInputStream input = new DataInputStream(jar.getInputStream(jar.getEntry(entry)))) {
                    assertEquals(entry, 0xCAFEBABE, input.readInt());
                    assertEquals(entry, 0, input.readUnsignedShort());
                    assertEquals(entry, CLASS_FILE_VERSION, input.readUnsignedShort());
                }
            }
        }
        assertTrue(classes >= 6);
    }

    @Test
    public void onlyTheDocumentedClassesArePublic() throws ReflectiveOperationException {
        Set<String> visible = new TreeSet<>();
        for (String entry : entries()) {
            if (entry.matches("kelvane/tallowin/(ledger/)?[^/]*\\.class")) {
                String name = entry.substring(0, entry.length() - ".class".length()).replace('/', '.');
                if (Modifier.isPublic(Class.forName(name, false, getClass().getClassLoader()).getModifiers())) {
                    visible.add(name.substring(name.lastIndexOf('.') + 1));
                }
            }
        }
        assertEquals("[ConfigurationSetup, Confirmation, KVXException, Ledger, LedgerException, LedgerOrder, MessageFactory, "
                     + "MessageObject, Outcome, Reason, Renewal, RenewalException, ResultCode]", visible.toString());
    }

    @Test
    public void theNativeLibraryHasItsHash() throws Exception {
        List<String> libraries = entries().stream().filter(name -> name.endsWith(".so")).collect(Collectors.toList());
        assertFalse(libraries.isEmpty());
        for (String library : libraries) {
            assertTrue(library, library.matches("kelvane/tallowin/lib/linux-[a-z0-9_]+/libtallowin(-ledger-jni)?\\.so"));
            byte[] content = bytesOf(library);
            assertArrayEquals(new byte[] {0x7F, 'E', 'L', 'F'}, Arrays.copyOf(content, 4));
            StringBuilder digest = new StringBuilder();
            for (byte b : MessageDigest.getInstance("SHA-256").digest(content)) {
                digest.append(String.format("%02x", b));
            }
            assertEquals(library, digest + "\n", textOf(library + ".sha256"));
        }
    }

    @Test
    public void theManifestNamesTheVersion() throws IOException {
        var attributes = jar.getManifest().getMainAttributes();
        assertEquals("Tallowin", attributes.getValue("Implementation-Title"));
        assertTrue(version().matches("[0-9]+\\.[0-9]+\\.[0-9]+"));
        assertNull("a module needs no other name", attributes.getValue("Automatic-Module-Name"));
    }

    private String version() throws IOException {
        return jar.getManifest().getMainAttributes().getValue("Implementation-Version");
    }

    @Test
    public void theManifestIsFirstAndTheRestIsSorted() {
        List<String> names = jar.stream().map(entry -> entry.getName()).collect(Collectors.toList());
        assertEquals(List.of("META-INF/", "META-INF/MANIFEST.MF"), names.subList(0, 2));
        List<String> rest = names.subList(2, names.size());
        assertEquals(rest.stream().sorted().collect(Collectors.toList()), rest);
    }

    @Test
    public void everyEntryHasTheSameTime() {
        jar.stream().forEach(entry -> {
            assertEquals(entry.getName(), LocalDateTime.of(1980, 2, 1, 0, 0), entry.getTimeLocal());
            assertNull(entry.getName() + " has a time in a time zone or an owner", entry.getExtra());
        });
    }

    @Test
    public void theMavenCoordinatesAreThoseOfThePom() throws IOException {
        Properties properties = new Properties();
        properties.load(new StringReader(textOf(MAVEN + "pom.properties")));
        assertEquals(Map.of("groupId", "kelvane.tallowin", "artifactId", "tallowin", "version", version()), properties);
        String pom = textOf(MAVEN + "pom.xml");
        properties.forEach((name, value) ->
                assertTrue(pom, pom.contains("<" + name + ">" + value + "</" + name + ">")));
    }

    /** The members that native code looks up: class, then member with its parameter types. */
    private static final Set<String> LOOKED_UP = Set.of(
        "kelvane.tallowin.ConfigurationSetup m_Handle",
        "kelvane.tallowin.MessageFactory m_Handle",
        "kelvane.tallowin.MessageObject m_Handle",
        "kelvane.tallowin.KVXException <init>()",
        "kelvane.tallowin.KVXException putHR(int)",
        "kelvane.tallowin.KVXException putErrorMessage(java.lang.String)");

    /** The members named in the configuration, a list of classes with lists of fields or methods. */
    private static Set<String> membersIn(String json) {
        Set<String> members = new TreeSet<>();
        String className = "";
        boolean hasParameters = false;
        Matcher matcher = Pattern.compile("'name':'([^']*)'(?:,'(fields|methods)'|,'parameterTypes':\\[([^\\]]*)])?")
                .matcher(json.replaceAll("\\s", "").replace('"', '\''));
        while (matcher.find()) {
            if (matcher.group(2) != null) {
                className = matcher.group(1);
                hasParameters = matcher.group(2).equals("methods");
            } else {
                String parameters = hasParameters ? "(" + matcher.group(3).replace("'", "") + ")" : "";
                members.add(className + " " + matcher.group(1) + parameters);
            }
        }
        return members;
    }

    @Test
    public void nativeImagesKeepTheMembersThatNativeCodeLooksUp() throws Exception {
        String json = textOf(NATIVE_IMAGE + "jni-config.json");
        assertEquals(new TreeSet<>(LOOKED_UP), membersIn(json));
        // The only other names are those of the four classes.
        assertEquals(json, LOOKED_UP.size() + 4, json.split("\"name\"", -1).length - 1);
        for (String className : NativeMethod.classNames()) {
            assertEquals(int.class, Variant.classIn(getClass().getClassLoader(), className)
                         .getDeclaredField("m_Handle").getType());
        }
        KVXException.class.getConstructor();
        assertEquals(void.class, KVXException.class.getMethod("putHR", int.class).getReturnType());
        assertEquals(void.class, KVXException.class.getMethod("putErrorMessage", String.class).getReturnType());
    }

    @Test
    public void nativeImagesKeepTheNativeLibrary() throws IOException {
        Matcher matcher = Pattern.compile("\"pattern\":\\s*\"([^\"]*)\"").matcher(
            textOf(NATIVE_IMAGE + "resource-config.json"));
        assertTrue(matcher.find());
        Pattern pattern = Pattern.compile(matcher.group(1));
        Set<String> kept = entries().stream().filter(name -> pattern.matcher(name).matches() && !name.endsWith("/"))
                .collect(Collectors.toCollection(TreeSet::new));
        Set<String> wanted = entries().stream().filter(name -> name.contains("/libtallowin"))
                .collect(Collectors.toCollection(TreeSet::new));
        assertEquals(wanted, kept);
    }

    private static final String SHOP_MODULE = "module shop { requires kelvane.tallowin; }\n";

    private static final String SHOP_PROGRAM =
        "package shop;\n"
        + "import kelvane.tallowin.KVXException;\n"
        + "import kelvane.tallowin.MessageObject;\n"
        + "public class Shop {\n"
        + "    public static void main(String[] arguments) throws KVXException {\n"
        + "        try (MessageObject message = new MessageObject()) {\n"
        + "            message.FromString(\"<KVX AMOUNT=\\\"12.50\\\"/>\");\n"
        + "            System.out.print(MessageObject.class.getModule() + \" \");\n"
        + "            System.out.println(message.GetAttribute(\"AMOUNT\"));\n"
        + "            System.out.println(\"version \" + MessageObject.class.getPackage().getImplementationVersion());\n"
        + "            message.GetAttribute(\"none\");\n"
        + "        } catch (KVXException failure) {\n"
        + "            System.out.println(failure.getMessage());\n"
        + "        }\n"
        + "    }\n"
        + "}\n";

    /** The classes of the program; with a module descriptor when {@code asModule}. */
    private Path program(boolean asModule) throws IOException {
        Path sources = Files.createDirectories(folder.newFolder().toPath().resolve("shop"));
        Path classes = folder.newFolder().toPath();
        List<Path> files = new ArrayList<>(List.of(Files.writeString(sources.resolve("Shop.java"), SHOP_PROGRAM)));
        if (asModule) {
            files.add(Files.writeString(sources.resolveSibling("module-info.java"), SHOP_MODULE));
        }
        Variant.compile(classes, files, asModule ? "-p" : "-cp", Given.jar().toString());
        return classes;
    }

    /** Runs the program with each installed virtual machine, which prints the classes' module and the package's version. */
    private void check(String module, String version, List<String> options, String... main) throws Exception {
        for (Path home : Given.javaHomes()) {
            ForkedJvm.Result result = new ForkedJvm(home, folder.newFolder().toPath())
                    .options(options.toArray(String[]::new)).run(LIMIT_SECONDS, main);
            String report = home + ": " + result;
            assertEquals(report, 0, result.exitCode);
            assertTrue(report, Pattern.compile(module + " 12\\.50\n").matcher(result.output).find());
            assertTrue(report, result.output.contains("version " + version + "\n"));
            assertTrue(report, result.output.contains("MessageFactory::GetAttribute(): requested item was not found "
                                                    + "(0x8004020D)\n"));
            assertFalse(report, result.output.contains("in native method"));
            System.out.println("used by " + home.getFileName());
        }
    }

    @Test
    public void aProgramUsesTheJarAsANamedModule() throws Exception {
        // A package in a module has no version, its module has one.
        check("module kelvane.tallowin(@[0-9.]+)?", "null", List.of("-Xcheck:jni", "-p", Given.jar() + ":" + program(true)),
              "-m", "shop/shop.Shop");
    }

    @Test
    public void aProgramUsesTheJarFromTheClassPath() throws Exception {
        check("unnamed module @[0-9a-f]+", version(), List.of("-Xcheck:jni", "-cp", Given.jar() + ":" + program(false)),
              "shop.Shop");
    }
}
