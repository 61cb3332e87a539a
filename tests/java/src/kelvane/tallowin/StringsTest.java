package kelvane.tallowin;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.TimeUnit;
import org.junit.After;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.Timeout;

/**
 * Strings passed to the library and returned, through messages and through files.
 *
 * <p>A Java string must come back unchanged, whatever its characters. Bytes of a file that are not valid modified UTF-8
 * must arrive as surrogate pairs (four-byte characters) or as Latin-1; random bytes are compared with a second decoder.
 */
public class StringsTest {
    private static final int RANDOM_LINES = 20_000;
    private static final int LONGEST_LINE = 40;

    @Rule
    public final ScratchDirectory scratch = new ScratchDirectory();

    @Rule
    public final Timeout timeout = new Timeout(120, TimeUnit.SECONDS);

    private Path directory;
    private ConfigurationSetup setup;
    private MessageObject message;

    @Before
    public void open() throws Exception {
        directory = scratch.path();
        setup = new ConfigurationSetup();
        setup.SetConfiguration(directory.toString());
        message = new MessageObject();
        message.FromString("<KVX/>");
    }

    @After
    public void close() {
        setup.close();
        message.close();
    }

    /** Every 16-bit character once, in ascending order. */
    private static String allCharacters() {
        char[] all = new char[0x10000];
        for (int i = 0; i < all.length; ++i) {
            all[i] = (char) i;
        }
        return new String(all);
    }

    /** {@code text} repeated, about a million characters. */
    private static String million(String text) {
        return text.repeat((1 << 20) / text.length());
    }

    /** Strings that must come back unchanged, with a description each. */
    private static Map<String, String> survivors() {
        Map<String, String> texts = new LinkedHashMap<>();
        texts.put("ASCII", "Hello, world");
        texts.put("zero", "\0");
        texts.put("zeros inside", "a\0\0b\0");
        texts.put("umlauts", "\u00e4\u00f6\u00fc\u00df\u00c4\u00d6\u00dc");
        texts.put("two bytes, first and last", "\u0080\u07ff");
        texts.put("three bytes, first and last", "\u0800\uffff");
        texts.put("emoji", "\ud83d\ude00\ud83d\udcb6");
        texts.put("first and last pair", "\ud800\udc00\udbff\udfff");
        texts.put("lone high surrogate", "\ud83d");
        texts.put("lone high surrogate inside", "a\ud83db");
        texts.put("lone low surrogate", "\udcb6");
        texts.put("pair the wrong way round", "\udcb6\ud83d");
        texts.put("markup", "<KVX A=\"1\" B='2'/> & &amp; &lt; &#65; &nonsense; &");
        texts.put("controls", "\u0001\t\r\n\u001f\u007f");
        texts.put("noncharacters", "\ufffe\uffff\ufeff\ufffd");
        texts.put("all characters", allCharacters());
        texts.put("1 MB of ASCII", million("x"));
        texts.put("1 MB of umlauts", million("\u00e4"));
        texts.put("1 MB of emoji", million("\ud83d\ude00"));
        texts.put("1 MB of markup", million("<&\">'"));
        return texts;
    }

    private static String escaped(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace("\"", "&quot;")
                .replace("'", "&apos;");
    }

    @Test
    public void everyStringComesBackFromAMessage() throws Exception {
        message.SetAttribute("EMPTY", "");
        assertEquals("", message.GetAttribute("EMPTY"));
        for (Map.Entry<String, String> row : survivors().entrySet()) {
            message.SetAttribute("A", row.getValue());
            assertSame(row.getKey(), row.getValue(), message.GetAttribute("A"));
        }
    }

    /** Like assertEquals, without printing a million characters. */
    private static void assertSame(String what, String expected, String actual) {
        if (expected.equals(actual)) {
            return;
        }
        int at = Arrays.mismatch(expected.toCharArray(), actual.toCharArray());
        throw new AssertionError(what + " differs at " + at + " of " + expected.length() + " and " + actual.length());
    }

    @Test
    public void everyCharacterComesBackAlone() throws Exception {
        for (int c = 0; c <= 0xFFFF; ++c) {
            String text = String.valueOf((char) c);
            message.SetAttribute("A", text);
            assertEquals(text, message.GetAttribute("A"));
        }
    }

    @Test
    public void everyStringComesBackAsAName() throws Exception {
        for (Map.Entry<String, String> row : survivors().entrySet()) {
            message.SetAttribute(row.getValue(), row.getKey());
            assertEquals(row.getKey(), message.GetAttribute(row.getValue()));
        }
        message.SetAttribute("", "without a name");
        assertEquals("without a name", message.GetAttribute(""));
        assertEquals("without a name", message.GetAttribute(null));
    }

    @Test
    public void everyStringComesBackFromADocument() throws Exception {
        for (Map.Entry<String, String> row : survivors().entrySet()) {
            String text = "<KVX A=\"" + escaped(row.getValue()) + "\" KEYID=\"\"/>";
            message.FromString(text);
            assertSame(row.getKey(), row.getValue(), message.GetAttribute("A"));
            assertSame(row.getKey(), text, message.ToString());
        }
    }

    @Test
    public void everyStringComesBackFromAFile() throws Exception {
        for (Map.Entry<String, String> row : survivors().entrySet()) {
            Files.writeString(directory.resolve("some.xml"), "<KVX/>");
            setup.SetAttribute("some.xml", "A", row.getValue());
            assertSame(row.getKey(), row.getValue(), setup.GetAttribute("some.xml", "A"));
            // The file contains Java's modified UTF-8.
            byte[] written = Files.readAllBytes(directory.resolve("some.xml"));
            assertArrayEquals(row.getKey(), modifiedUtf8("<KVX A=\"" + escaped(row.getValue()) + "\"/>"), written);
        }
    }

    private static byte[] modifiedUtf8(String text) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        for (int at = 0; at < text.length(); at += 20000) {  // writeUTF accepts at most 65535 bytes
            ByteArrayOutputStream counted = new ByteArrayOutputStream();
            new DataOutputStream(counted).writeUTF(text.substring(at, Math.min(text.length(), at + 20000)));
            bytes.write(counted.toByteArray(), 2, counted.size() - 2);
        }
        return bytes.toByteArray();
    }

    @Test
    public void aDirectoryMayHaveAnyName() throws Throwable {
        for (String name : new String[] {"\u00fc", "\u6ce8", "with space", "\ud83d\ude00"}) {
            String path = directory + "/" + name;
            setup.SetConfiguration(path);
            try (ConfigurationSetup other = new ConfigurationSetup()) {
                other.SetConfiguration(path);
                assertEquals(Failure.text(0x80040219, "ConfigurationSetup::GetAttribute(): ErrorCode = 0x80040219"),
                             Failure.of(() -> other.GetAttribute("none", "")));
            }
        }
        assertEquals(4, directory.toFile().list().length);
    }

    /** Bytes of a file, in hexadecimal, and the string that Java gets. */
    private static Map<String, String> foreignTexts() {
        Map<String, String> texts = new LinkedHashMap<>();
        // Valid modified UTF-8.
        texts.put("", "");
        texts.put("41 42", "AB");
        texts.put("c3 bc", "\u00fc");
        texts.put("e2 82 ac", "\u20ac");
        texts.put("c0 80", "\0");
        texts.put("ed a0 bd", "\ud83d");
        texts.put("ed b2 b6", "\udcb6");
        texts.put("ed a0 bd ed b2 b6", "\ud83d\udcb6");
        texts.put("ed b2 b6 ed a0 bd", "\udcb6\ud83d");
        texts.put("ef bf bf", "\uffff");
        // Characters of four bytes.
        texts.put("f0 9f 92 b6", "\ud83d\udcb6");
        texts.put("f0 90 80 80", "\ud800\udc00");
        texts.put("f4 8f bf bf", "\udbff\udfff");
        texts.put("41 f0 9f 92 b6 42", "A\ud83d\udcb6B");
        // Latin-1.
        texts.put("fc", "\u00fc");
        texts.put("4d fc 6c 6c 65 72", "M\u00fcller");
        texts.put("e4 f6 fc df", "\u00e4\u00f6\u00fc\u00df");
        texts.put("80", "\u0080");
        texts.put("bf bf", "\u00bf\u00bf");
        texts.put("ff fe", "\u00ff\u00fe");
        // Truncated.
        texts.put("c3", "\u00c3");
        texts.put("c3 41", "\u00c3A");
        texts.put("e2 82", "\u00e2\u0082");
        texts.put("e2 82 41", "\u00e2\u0082A");
        texts.put("e2 c3 bc", "\u00e2\u00fc");
        texts.put("f0 9f 92", "\u00f0\u009f\u0092");
        texts.put("f0 9f 92 41", "\u00f0\u009f\u0092A");
        texts.put("f0 9f c3 bc", "\u00f0\u009f\u00fc");
        texts.put("f0 f0 9f 92 b6", "\u00f0\ud83d\udcb6");
        // Overlong.
        texts.put("c0 81", "\u00c0\u0081");
        texts.put("c0 af", "\u00c0\u00af");
        texts.put("c1 bf", "\u00c1\u00bf");
        texts.put("e0 80 80", "\u00e0\u0080\u0080");
        texts.put("e0 9f bf", "\u00e0\u009f\u00bf");
        texts.put("f0 80 80 80", "\u00f0\u0080\u0080\u0080");
        texts.put("f0 8f bf bf", "\u00f0\u008f\u00bf\u00bf");
        // Above U+10FFFF.
        texts.put("f4 90 80 80", "\u00f4\u0090\u0080\u0080");
        texts.put("f5 80 80 80", "\u00f5\u0080\u0080\u0080");
        texts.put("f8 88 80 80 80", "\u00f8\u0088\u0080\u0080\u0080");
        return texts;
    }

    private static byte[] bytesOf(String digits) {
        if (digits.isEmpty()) {
            return new byte[0];
        }
        String[] parts = digits.split(" ");
        byte[] bytes = new byte[parts.length];
        for (int i = 0; i < parts.length; ++i) {
            bytes[i] = (byte) Integer.parseInt(parts[i], 16);
        }
        return bytes;
    }

    @Test
    public void invalidBytesOfAFileArriveAsLatin1() throws Exception {
        for (Map.Entry<String, String> row : foreignTexts().entrySet()) {
            Files.write(directory.resolve("raw"), bytesOf(row.getKey()));
            assertEquals(row.getKey(), row.getValue(), setup.GetAttribute("raw", ""));
        }
    }

    @Test
    public void invalidBytesOfAnAttributeArriveAsLatin1() throws Exception {
        for (Map.Entry<String, String> row : foreignTexts().entrySet()) {
            ByteArrayOutputStream document = new ByteArrayOutputStream();
            document.write("<KVX A=\"x".getBytes(StandardCharsets.US_ASCII));
            document.write(bytesOf(row.getKey()));
            document.write("\"/>".getBytes(StandardCharsets.US_ASCII));
            Files.write(directory.resolve("some.xml"), document.toByteArray());
            assertEquals(row.getKey(), "x" + row.getValue(), setup.GetAttribute("some.xml", "A"));
        }
    }

    @Test
    public void everyByteAloneIsItsLatin1Character() throws Exception {
        for (int b = 0x80; b <= 0xFF; ++b) {
            Files.write(directory.resolve("raw"), new byte[] {'a', (byte) b, 'b'});
            assertEquals("a" + (char) b + "b", setup.GetAttribute("raw", ""));
        }
    }

    @Test
    public void aZeroByteEndsAText() throws Exception {
        Files.write(directory.resolve("raw"), new byte[] {'a', 0, 'b'});
        assertEquals("a", setup.GetAttribute("raw", ""));
        Files.write(directory.resolve("raw"), new byte[] {(byte) 0xE2, 0, (byte) 0x82});
        assertEquals("\u00e2", setup.GetAttribute("raw", ""));
    }

    @Test
    public void aTruncatedTextLosesNothing() throws Exception {
        byte[] whole = "A\u00fc\u20ac\ud83d\udcb6Z".getBytes(StandardCharsets.UTF_8);
        for (int length = 0; length <= whole.length; ++length) {
            byte[] cut = Arrays.copyOf(whole, length);
            Files.write(directory.resolve("raw"), cut);
            assertEquals(read(cut), setup.GetAttribute("raw", ""));
        }
    }

    @Test
    public void randomBytesArriveAsASecondDecoderReadsThem() throws Exception {
        long seed = Long.getLong("kvx.test.seed", 1);
        System.out.println("seed " + seed);
        Random random = new Random(seed);
        ByteArrayOutputStream file = new ByteArrayOutputStream();
        StringBuilder expected = new StringBuilder();
        for (int i = 0; i < RANDOM_LINES; ++i) {
            byte[] line = randomLine(random);
            file.write(line);
            file.write('\n');
            expected.append(read(line)).append('\n');
        }
        Files.write(directory.resolve("raw"), file.toByteArray());
        String[] wanted = expected.toString().split("\n", -1);
        String[] got = setup.GetAttribute("raw", "").split("\n", -1);
        for (int i = 0; i < wanted.length; ++i) {
            assertEquals("seed " + seed + " line " + i, wanted[i], got[i]);
        }
        assertEquals(wanted.length, got.length);
    }

    private static byte[] randomLine(Random random) {
        // Bytes of multi-byte characters, more often than in uniformly random data.
        int[] likely = {0xF0, 0x9F, 0x92, 0xB6, 0xF4, 0x8F, 0xE0, 0xA0, 0xED, 0xC0, 0x80, 0xC3, 0xBC};
        byte[] bytes = new byte[random.nextInt(LONGEST_LINE)];
        for (int at = 0; at < bytes.length; ++at) {
            int any = '\n' + 1 + random.nextInt(255 - '\n');
            bytes[at] = (byte) (random.nextBoolean() ? any : likely[random.nextInt(likely.length)]);
        }
        return bytes;
    }

    /** Decodes {@code bytes}: at each position the longest valid character, otherwise one byte as Latin-1. */
    private static String read(byte[] bytes) {
        StringBuilder text = new StringBuilder();
        int at = 0;
        while (at < bytes.length) {
            int length = 4;
            String character = null;
            while (length > 0 && character == null) {
                character = at + length <= bytes.length ? valid(Arrays.copyOfRange(bytes, at, at + length)) : null;
                --length;
            }
            text.append(character == null ? String.valueOf((char) (bytes[at] & 0xFF)) : character);
            at += character == null ? 1 : length + 1;
        }
        return text.toString();
    }

    /** The character encoded by exactly these bytes, or null. */
    private static String valid(byte[] bytes) {
        int bits = bytes.length == 1 ? bytes[0] & 0xFF : bytes[0] & (0x7F >> bytes.length);
        for (int i = 1; i < bytes.length; ++i) {
            bits = bits << 6 | bytes[i] & 0x3F;
        }
        boolean isCharacter = bits <= Character.MAX_CODE_POINT && Arrays.equals(bytes, encoded(bits));
        return isCharacter ? Character.toString(bits) : null;
    }

    /** The encoding of a character: U+0000 as two bytes, surrogates like other characters. */
    private static byte[] encoded(int c) {
        if (c > 0 && c < 0x80) {
            return new byte[] {(byte) c};
        }
        if (c < 0x800) {
            return new byte[] {(byte) (0xC0 | c >> 6), (byte) (0x80 | c & 0x3F)};
        }
        if (c < 0x10000) {
            return new byte[] {(byte) (0xE0 | c >> 12), (byte) (0x80 | c >> 6 & 0x3F), (byte) (0x80 | c & 0x3F)};
        }
        return new byte[] {(byte) (0xF0 | c >> 18), (byte) (0x80 | c >> 12 & 0x3F), (byte) (0x80 | c >> 6 & 0x3F),
                           (byte) (0x80 | c & 0x3F)};
    }
}
