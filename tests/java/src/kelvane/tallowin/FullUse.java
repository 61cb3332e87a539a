package kelvane.tallowin;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.concurrent.Callable;

/**
 * Uses everything that needs no service, with the classes of its own class loader. Returns a summary of the results.
 */
final class FullUse implements Callable<String> {
    private static final String EXPECTED = "1001 PayInit url PayConfirm M\u00fcller 0x80040214";

    private final Path directory;

    /** @param directory an empty one */
    FullUse(Path directory) {
        this.directory = directory;
    }

    /** Runs this class as loaded by {@code loader}. Throws when the summary is not the expected one. */
    static void in(ClassLoader loader, Path directory) throws Exception {
        var constructor = Variant.classIn(loader, "FullUse").getDeclaredConstructor(Path.class);
        constructor.setAccessible(true);
        Object seen = ((Callable<?>) constructor.newInstance(directory)).call();
        if (!EXPECTED.equals(seen)) {
            throw new AssertionError("expected: " + EXPECTED + ", but saw: " + seen);
        }
    }

    @Override
    public String call() throws Exception {
        AccountDirectory account = new AccountDirectory(directory);
        StringBuilder seen = new StringBuilder();
        try (ConfigurationSetup setup = new ConfigurationSetup(); MessageFactory factory = new MessageFactory()) {
            setup.SetConfiguration(directory.toString());
            seen.append(setup.GetAttribute("config.xml", "CUSTOMERID"));
            factory.Open(account.path().toString());
            try (MessageObject payment = factory.CreatePayInit()) {
                seen.append(' ').append(payment.GetAttribute("MSGTYPE"));
                String start = LocalServer.refusingBase() + "/pay?DATA=%3cKVX%20";
                seen.append(payment.GetURL().startsWith(start) ? " url " : " ");
            }
            String data = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + AccountDirectory.SERVER_KEY
                    + "\" NAME=\"M\u00fcller\"/>";
            String signature = AccountDirectory.serverSignature(data.getBytes(StandardCharsets.UTF_8));
            try (MessageObject confirmation = factory.VerifyPayConfirm(data, signature)) {
                seen.append(confirmation.GetAttribute("MSGTYPE")).append(' ').append(confirmation.GetAttribute("NAME"));
            }
            try {
                factory.VerifyPayConfirm(data + " ", signature).close();
            } catch (KVXException refused) {
                seen.append(String.format(" 0x%08X", refused.getHR()));
            }
        }
        return seen.toString();
    }
}
