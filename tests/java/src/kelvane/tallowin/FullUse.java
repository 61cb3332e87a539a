package kelvane.tallowin;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.concurrent.Callable;

/** Something of everything that needs no service, in whatever class loader this class is. Returns what it saw. */
final class FullUse implements Callable<String> {
    private static final String EXPECTED = "1001 PayInit url PayConfirm M\u00fcller 0x80040214";

    private final Path directory;

    /** @param directory an empty one */
    FullUse(Path directory) {
        this.directory = directory;
    }

    /** Runs this class as {@code loader} has it; throws what is not as it should be. */
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
