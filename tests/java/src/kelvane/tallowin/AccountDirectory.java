package kelvane.tallowin;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.Key;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.MessageDigest;
import java.util.Arrays;
import javax.crypto.Cipher;

/**
 * A valid configuration directory, written without the library: an RSA key pair of the merchant, the public key of the
 * service, and a configuration. The addresses in it refuse every connection until {@link #pointTo} sets others.
 */
final class AccountDirectory {
    static final String MERCHANT_KEY = "0-1001-merchant";
    static final String SERVER_KEY = "0-server";

    private static final int KEY_BITS = 1024;
    private static final KeyPair MERCHANT = newKeyPair();
    private static final KeyPair SERVER = newKeyPair();

    private final Path path;

    /** @param path an existing directory */
    AccountDirectory(Path path) throws IOException {
        this.path = path;
        Files.createDirectories(path.resolve("keys/public"));
        Files.createDirectories(path.resolve("keys/private"));
        write("keys/current", MERCHANT_KEY);
        write("keys/public/" + MERCHANT_KEY, hex(innerKey(MERCHANT.getPublic())));
        write("keys/private/" + MERCHANT_KEY, hex(innerKey(MERCHANT.getPrivate())));
        write("keys/public/" + SERVER_KEY, hex(innerKey(SERVER.getPublic())));
        pointTo(LocalServer.refusingBase());
    }

    Path path() {
        return path;
    }

    /** Writes a configuration whose addresses all begin with {@code base}. */
    void pointTo(String base) throws IOException {
        write("config.xml", "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"" + base + "/pay\" CAPTUREURL=\"" + base
                + "/capture\" KVX.VTAUTOURL=\"" + base + "/auto\" VTKEYID=\"" + SERVER_KEY
                + "\" CUSTOMERID=\"1001\" VERSION=\"1\"/>");
    }

    void write(String file, String text) throws IOException {
        write(file, text.getBytes(StandardCharsets.UTF_8));
    }

    void write(String file, byte[] bytes) throws IOException {
        Files.write(path.resolve(file), bytes);
    }

    void delete(String file) throws IOException {
        Files.delete(path.resolve(file));
    }

    /** The service's signature for {@code data}, which is signed as 16-bit units: each byte extended with its sign. */
    static String serverSignature(byte[] data) throws GeneralSecurityException {
        byte[] units = new byte[2 * data.length];
        for (int i = 0; i < data.length; ++i) {
            units[2 * i] = data[i];
            units[2 * i + 1] = (byte) (data[i] < 0 ? 0xFF : 0);
        }
        Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding");
        cipher.init(Cipher.ENCRYPT_MODE, SERVER.getPrivate());
        return hex(cipher.doFinal(MessageDigest.getInstance("SHA-1").digest(units)));
    }

    static String serverSignature(String data) throws GeneralSecurityException {
        return serverSignature(data.getBytes(StandardCharsets.US_ASCII));
    }

    /** The service's public key, as in the file of that key. */
    static String serverKey() {
        return hex(innerKey(SERVER.getPublic()));
    }

    private static KeyPair newKeyPair() {
        try {
            KeyPairGenerator generator = KeyPairGenerator.getInstance("RSA");
            generator.initialize(KEY_BITS);
            return generator.generateKeyPair();
        } catch (GeneralSecurityException impossible) {
            throw new AssertionError(impossible);
        }
    }

    /**
     * The PKCS#1 structure in Java's encoding of a key: the first inner SEQUENCE with a length of 128 bytes or more.
     */
    private static byte[] innerKey(Key key) {
        byte[] encoded = key.getEncoded();
        for (int at = 1; at < encoded.length; ++at) {
            if (encoded[at] == 0x30 && encoded[at + 1] < 0) {
                return Arrays.copyOfRange(encoded, at, encoded.length);
            }
        }
        throw new AssertionError("no inner structure");
    }

    private static String hex(byte[] bytes) {
        StringBuilder text = new StringBuilder();
        for (byte b : bytes) {
            text.append(String.format("%02x", b));
        }
        return text.toString();
    }
}
