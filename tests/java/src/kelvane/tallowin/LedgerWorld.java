package kelvane.tallowin;

import java.net.URLDecoder;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import kelvane.tallowin.ledger.Confirmation;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;
import kelvane.tallowin.ledger.LedgerOrder;
import org.junit.rules.ExternalResource;
import org.junit.rules.TemporaryFolder;

/** A service, a merchant account, and a store for ledgers that a test opens. */
final class LedgerWorld extends ExternalResource {
    /** The query parameters of the return to the shop, percent-decoded. */
    static final class Paper {
        final String data;
        final String signature;

        Paper(String data, String signature) {
            this.data = data;
            this.signature = signature;
        }

        Confirmation shownTo(Ledger ledger) throws LedgerException {
            return ledger.confirm("return", data, signature);
        }
    }

    final SandboxProcess sandbox = new SandboxProcess();
    private final TemporaryFolder folder = new TemporaryFolder();

    @Override
    protected void before() throws Throwable {
        folder.create();
        sandbox.before();
        setUp();
    }

    @Override
    protected void after() {
        sandbox.after();
        folder.delete();
    }

    /** Sets the account up, once more when it has been. */
    void setUp() throws KVXException {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(account());
            setup.Reconfigure(sandbox.autoUrl(), SandboxProcess.USER, SandboxProcess.PASSWORD);
        }
    }

    String account() {
        return folder.getRoot().toPath().resolve("account").toString();
    }

    Path file() {
        return folder.getRoot().toPath().resolve("orders.db");
    }

    String store() {
        return "sqlite:" + file();
    }

    Ledger open() throws LedgerException {
        return new Ledger(store(), account());
    }

    static LedgerOrder order(String number) {
        return LedgerOrder.of(number, "12.50", "EUR").with("SUCCESSLINK", "http://127.0.0.1:1/back");
    }

    /** Begins {@code order}; the shopper decides. */
    Paper decide(Ledger ledger, LedgerOrder order, String decision) throws Exception {
        SandboxProcess.Returned back = sandbox.visit(ledger.begin(order), decision);
        return new Paper(URLDecoder.decode(back.data, StandardCharsets.UTF_8),
                         URLDecoder.decode(back.signature, StandardCharsets.UTF_8));
    }

    Paper pay(Ledger ledger, String number) throws Exception {
        return decide(ledger, order(number), "pay");
    }
}
