package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Map;
import java.util.Optional;
import java.util.TreeMap;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import kelvane.tallowin.ledger.Confirmation;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;
import kelvane.tallowin.ledger.LedgerOrder;
import kelvane.tallowin.ledger.Outcome;
import kelvane.tallowin.ledger.Reason;
import kelvane.tallowin.ledger.Renewal;
import kelvane.tallowin.ledger.RenewalException;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.Timeout;

/** The Java classes of the order ledger against the sandbox: every method, every outcome, texts and failures. */
public class LedgerTest {
    private static final int LIMIT_SECONDS = 240;

    /** Later than every pause of a worker; in the year 2100. */
    private static final String LATER = "4102444800000";

    @Rule
    public final Timeout timeout = new Timeout(LIMIT_SECONDS, TimeUnit.SECONDS);

    @Rule
    public final LedgerWorld world = new LedgerWorld();

    /** A call that may fail. */
    @FunctionalInterface
    private interface Failing {
        void run() throws LedgerException;
    }

    private static LedgerException failureOf(Failing call) {
        return assertThrows(LedgerException.class, call::run);
    }

    private static void work(Ledger ledger) throws LedgerException {
        int done;
        do {
            done = ledger.runDue(100);
        } while (done > 0);
    }

    @Test
    public void reportsAnOrderAsPaidOnceAndCapturesIt() throws Exception {
        try (Ledger ledger = world.open()) {
            String url = ledger.begin(LedgerWorld.order("A-1"));
            assertEquals(url, ledger.begin(LedgerWorld.order("A-1")));
            LedgerWorld.Paper paper = world.pay(ledger, "A-1");

            Confirmation altered = ledger.confirm("return", paper.data.replace("12.50", "12.51"), paper.signature);
            assertEquals(Outcome.REFUSED, altered.outcome());
            assertEquals(Reason.BAD_SIGNATURE, altered.reason());
            assertEquals(400, altered.httpStatus());
            assertEquals("", altered.order());
            assertFalse(altered.sentence().isEmpty());
            assertEquals("REFUSED: " + altered.sentence(), altered.toString());

            Confirmation first = paper.shownTo(ledger);
            assertEquals(Outcome.PAID_NOW, first.outcome());
            assertTrue(first.isPaidNow());
            assertEquals("A-1", first.order());
            assertEquals(200, first.httpStatus());
            assertEquals(Reason.NONE, first.reason());
            assertEquals("", first.sentence());
            assertEquals("PAID_NOW A-1", first.toString());

            Confirmation second = ledger.confirm("notification", paper.data, paper.signature);
            assertEquals(Outcome.KNOWN_ALREADY, second.outcome());
            assertFalse(second.isPaidNow());
            assertEquals("authorised", ledger.getState("A-1"));

            assertEquals(1, ledger.runDue(10));
            assertEquals(0, ledger.runDue(10));
            assertEquals("captured", ledger.getState("A-1"));
            assertEquals(Optional.empty(), ledger.nextPaid());
            assertEquals("KVX_E_LEDGER_PAID", failureOf(() -> ledger.begin(LedgerWorld.order("A-1"))).name());
        }
    }

    @Test
    public void anotherLedgerOnTheStoreKnowsTheSame() throws Exception {
        try (Ledger one = world.open(); Ledger other = world.open()) {
            LedgerWorld.Paper paper = world.pay(one, "A-1");
            assertEquals(Outcome.PAID_NOW, paper.shownTo(other).outcome());
            assertEquals(Outcome.KNOWN_ALREADY, paper.shownTo(one).outcome());
        }
        try (Ledger later = world.open()) {
            assertEquals("authorised", later.getState("A-1"));
        }
    }

    @Test
    public void returnsOrdersThatTheWorkerFoundPaid() throws Exception {
        try (Ledger ledger = world.open()) {
            ledger.setOption("STATUSTYPE", "Status");
            world.pay(ledger, "A-1");
            world.pay(ledger, "A-2");
            assertEquals(Optional.empty(), ledger.nextPaid());
            ledger.setOption("NOW", LATER);
            work(ledger);
            assertEquals(Optional.of("A-1"), ledger.nextPaid());
            assertEquals(Optional.of("A-2"), ledger.nextPaid());
            assertEquals(Optional.empty(), ledger.nextPaid());
        }
    }

    @Test
    public void reportsAPaidOrderAgainUntilItIsDelivered() throws Exception {
        try (Ledger ledger = world.open()) {
            ledger.setOption("ACKNOWLEDGE", "1");
            ledger.setOption("LEASESECONDS", "1000");
            LedgerWorld.Paper paper = world.pay(ledger, "A-1");
            assertEquals("KVX_E_LEDGER_STATE", failureOf(() -> ledger.delivered("A-1")).name());
            assertTrue(paper.shownTo(ledger).isPaidNow());
            assertEquals(Optional.empty(), ledger.nextPaid());
            ledger.setOption("NOW", LATER);
            assertEquals(Optional.of("A-1"), ledger.nextPaid());
            assertEquals(Optional.empty(), ledger.nextPaid());
            assertTrue(ledger.listOrders("undelivered", "", 10).contains("\"A-1\""));
            ledger.delivered("A-1");
            ledger.delivered("A-1");
            assertFalse(ledger.listOrders("undelivered", "", 10).contains("\"A-1\""));
            ledger.setOption("NOW", LATER + "0");
            assertEquals(Optional.empty(), ledger.nextPaid());
            assertEquals("KVX_E_NOT_FOUND", failureOf(() -> ledger.delivered("A-2")).name());
        }
    }

    @Test
    public void beginsAnotherAttemptAfterAnUnpaidOne() throws Exception {
        try (Ledger ledger = world.open()) {
            for (String decision : new String[] {"decline", "cancel"}) {
                LedgerWorld.Paper paper = world.decide(ledger, LedgerWorld.order("A-1"), decision);
                Confirmation confirmation = paper.shownTo(ledger);
                assertEquals(Outcome.NOT_PAID, confirmation.outcome());
                assertEquals(200, confirmation.httpStatus());
            }
            assertEquals("cancelled", ledger.getState("A-1"));
            assertEquals(Outcome.PAID_NOW, world.pay(ledger, "A-1").shownTo(ledger).outcome());
        }
    }

    @Test
    public void reportsASecondPaymentOfAnOrderAsSurplus() throws Exception {
        try (Ledger ledger = world.open()) {
            LedgerWorld.Paper first = world.pay(ledger, "A-1");
            ledger.setOption("NOW", LATER);
            work(ledger);
            assertEquals("expired", ledger.getState("A-1"));
            ledger.setOption("NOW", "");
            LedgerWorld.Paper second = world.pay(ledger, "A-1");
            assertNotEquals(first.data, second.data);
            assertEquals(Outcome.PAID_NOW, second.shownTo(ledger).outcome());
            assertEquals(Outcome.SURPLUS, first.shownTo(ledger).outcome());
        }
    }

    @Test
    public void storesAConfirmationUnderANewKeyUntilASetUp() throws Exception {
        try (Ledger ledger = world.open()) {
            world.sandbox.command("/keys/rotate", "{}");
            LedgerWorld.Paper paper = world.pay(ledger, "A-1");
            Confirmation kept = paper.shownTo(ledger);
            assertEquals(Outcome.KEPT, kept.outcome());
            assertEquals(Reason.UNKNOWN_KEY, kept.reason());
            assertEquals(503, kept.httpStatus());
            assertFalse(kept.sentence().isEmpty());
            world.setUp();
            work(ledger);
            assertEquals(Optional.of("A-1"), ledger.nextPaid());
            assertEquals(Outcome.KNOWN_ALREADY, paper.shownTo(ledger).outcome());
        }
    }

    @Test
    public void recordsWhatAPersonFoundOut() throws Exception {
        try (Ledger ledger = world.open()) {
            world.sandbox.command("/faults", "{\"kind\": \"drop\", \"exchange\": \"capture\"}");
            assertTrue(world.pay(ledger, "A-1").shownTo(ledger).isPaidNow());
            work(ledger);
            assertEquals("unknown", ledger.getState("A-1"));
            assertTrue(ledger.listOrders("attention", "", 10).contains("\"A-1\""));
            assertEquals("KVX_E_LEDGER_INVALID", failureOf(() -> ledger.resolve("A-1", "captured", "")).name());
            ledger.resolve("A-1", "captured", "seen at the service: gr\u00fc\u00dfe \ud83d\ude00");
            assertEquals("captured", ledger.getState("A-1"));
            assertEquals("KVX_E_LEDGER_STATE", failureOf(() -> ledger.resolve("A-1", "captured", "again")).name());
        }
    }

    private String currentKey() throws Exception {
        return Files.readString(Path.of(world.account(), "keys", "current"));
    }

    private Renewal renew(Ledger ledger, String password) throws RenewalException {
        return ledger.renewKeys(world.sandbox.autoUrl(), SandboxProcess.USER, password);
    }

    @Test
    public void renewsTheMerchantsKey() throws Exception {
        try (Ledger ledger = world.open()) {
            String before = currentKey();
            assertEquals(Renewal.DONE, renew(ledger, SandboxProcess.PASSWORD));
            String after = currentKey();
            assertNotEquals(before, after);
            assertTrue(world.pay(ledger, "A-1").shownTo(ledger).isPaidNow());

            RenewalException wrong = assertThrows(RenewalException.class, () -> renew(ledger, "guessed"));
            assertEquals("KVX_E_SERVER_ERROR", wrong.name());
            assertEquals(Renewal.UNCHANGED, wrong.outcome());
            assertTrue(wrong.getMessage(), wrong.getMessage().startsWith("Ledger.renewKeys: " + wrong.reason()));

            world.sandbox.command("/faults", "{\"kind\": \"drop\", \"exchange\": \"keyexport\"}");
            RenewalException lost = assertThrows(RenewalException.class, () -> renew(ledger, SandboxProcess.PASSWORD));
            assertEquals(Renewal.IN_DOUBT, lost.outcome());
            assertEquals(after, currentKey());
            assertEquals(Renewal.DONE, renew(ledger, SandboxProcess.PASSWORD));
            assertTrue(world.pay(ledger, "A-2").shownTo(ledger).isPaidNow());
        }
    }

    @Test
    public void returnsOrdersAndEvidenceAsJson() throws Exception {
        try (Ledger ledger = world.open()) {
            for (int i = 1; i <= 30; ++i) {
                ledger.begin(LedgerWorld.order("A-" + i).with("NOTE", "x".repeat(300)));
            }
            world.pay(ledger, "B-1").shownTo(ledger);
            String order = ledger.getOrder("B-1");
            assertTrue(order, order.startsWith("{") && order.contains("\"number\": \"B-1\"") && order.endsWith("}"));
            String evidence = ledger.exportOrder("B-1");
            assertTrue(evidence, evidence.contains("\"signatureBase64\"") && evidence.contains("BEGIN PUBLIC KEY"));
            String page = ledger.listOrders("", "", 2);
            assertTrue(page, page.contains("\"A-2\"") && !page.contains("\"A-3\"") && page.contains("\"next\": \"A-2\""));
            // Longer than the room of the first call.
            assertEquals(31, ledger.listOrders("", "", 1000).split("\"number\":").length - 1);
            assertTrue(ledger.listOrders("paid", "", 10).contains("\"B-1\""));
            assertFalse(ledger.listOrders("untold", "", 10).contains("\"B-1\""));
        }
    }

    @Test
    public void textsBeyondAsciiSurviveThePayment() throws Exception {
        try (Ledger ledger = world.open()) {
            LedgerOrder order = LedgerWorld.order("A-1").with("NOTE", "gr\u00fc\u00dfe, \u0436, \u20ac, \ud83d\ude00");
            assertEquals(ledger.begin(order), ledger.begin(order));
            assertEquals(Outcome.PAID_NOW, world.decide(ledger, order, "pay").shownTo(ledger).outcome());
            LedgerException conflict =
                    failureOf(() -> ledger.begin(LedgerWorld.order("A-1").with("NOTE", "gr\u00fc\u00dfe, \u0436, \u20ac")));
            assertEquals("KVX_E_LEDGER_CONFLICT", conflict.name());
        }
    }

    @Test
    public void takesAnyTextFromAStranger() throws Exception {
        try (Ledger ledger = world.open()) {
            LedgerWorld.Paper paper = world.pay(ledger, "A-1");
            String[][] rows = {
                {null, null}, {"", ""}, {paper.data, null}, {paper.data, ""}, {null, paper.signature}, {"\0", "\0"},
                {paper.data + "\0", paper.signature}, {"\ud800" + paper.data, paper.signature}, {"\udc00", "\ud83d"},
                {paper.data, paper.signature + "\0"}, {"x".repeat(100_000), "x".repeat(100_000)},
            };
            for (String[] row : rows) {
                assertEquals(Arrays.toString(row), Outcome.REFUSED,
                             ledger.confirm("return", row[0], row[1]).outcome());
            }
            assertTrue(paper.shownTo(ledger).isPaidNow());
        }
    }

    @Test
    public void refusesTextsThatWouldReachTheStoreAsOthers() throws Exception {
        try (Ledger ledger = world.open()) {
            for (String text : new String[] {"a\0b", "a\ud83d", "\ude00b"}) {
                assertThrows(IllegalArgumentException.class, () -> ledger.begin(LedgerWorld.order(text)));
                assertThrows(IllegalArgumentException.class, () -> ledger.begin(LedgerWorld.order("A").with("NOTE", text)));
                assertThrows(IllegalArgumentException.class, () -> ledger.setOption("STATUSTYPE", text));
                assertThrows(IllegalArgumentException.class, () -> ledger.confirm(text, "", ""));
                assertThrows(IllegalArgumentException.class, () -> ledger.getState(text));
            }
            assertThrows(NullPointerException.class, () -> ledger.setOption(null, ""));
            assertThrows(NullPointerException.class, () -> ledger.confirm(null, "", ""));
            assertThrows(NullPointerException.class, () -> ledger.begin(null));
            assertThrows(NullPointerException.class, () -> LedgerOrder.of("A", null, "EUR"));
            assertThrows(NullPointerException.class, () -> LedgerOrder.of("A", "1", "EUR").with("NOTE", null));
        }
    }

    @Test
    public void failuresHaveCodeNameAndReason() throws Exception {
        try (Ledger ledger = world.open()) {
            LedgerException none = failureOf(() -> ledger.getState("A-1"));
            assertEquals(ResultCode.NOT_FOUND.code(), none.code());
            assertEquals("KVX_E_NOT_FOUND", none.name());
            assertFalse(none.reason().isEmpty());
            assertEquals("Ledger.getState: " + none.reason() + " (0x8004020D)", none.getMessage());
            assertEquals("KVX_E_NOT_FOUND", failureOf(() -> ledger.getOrder("A-1")).name());
            assertEquals("KVX_E_NOT_FOUND", failureOf(() -> ledger.exportOrder("A-1")).name());
            assertEquals("KVX_E_NOT_FOUND", failureOf(() -> ledger.resolve("A-1", "captured", "why")).name());
            assertEquals("KVX_E_NOT_FOUND", failureOf(() -> ledger.listOrders("", "A-1", 1)).name());
            assertEquals("KVX_E_LEDGER_INVALID", failureOf(() -> ledger.listOrders("odd", "", 1)).name());
            assertEquals("KVX_E_LEDGER_INVALID", failureOf(() -> ledger.listOrders("", "", 0)).name());
            assertEquals("KVX_E_LEDGER_INVALID", failureOf(() -> ledger.runDue(0)).name());
            assertEquals("KVX_E_INVALID_OPTION", failureOf(() -> ledger.setOption("NONE", "1")).name());
            assertEquals("KVX_E_LEDGER_INVALID",
                         failureOf(() -> ledger.begin(LedgerWorld.order("A-1").with("TOKEN", "1"))).name());
            assertEquals("KVX_E_LEDGER_INVALID", failureOf(() -> ledger.begin(LedgerWorld.order(""))).name());
            ledger.begin(LedgerWorld.order("A-1"));
            assertEquals("KVX_E_LEDGER_CONFLICT",
                         failureOf(() -> ledger.begin(LedgerOrder.of("A-1", "12.5", "EUR"))).name());
        }
        assertEquals("KVX_E_LEDGER_CANNOT_OPEN",
                     failureOf(() -> new Ledger("paper:" + world.file(), world.account()).close()).name());
        assertEquals("KVX_E_CANNOT_OPEN", failureOf(() -> new Ledger(world.store(), world.file() + "x").close()).name());
    }

    @Test
    public void aLedgerWithoutAStoreTakesOptionsOnly() throws Exception {
        try (Ledger ledger = new Ledger()) {
            ledger.setOption("BUSYSECONDS", "1");
            assertEquals("KVX_E_NO_CONTEXT", failureOf(ledger::nextPaid).name());
            assertEquals("KVX_E_NO_CONTEXT", failureOf(() -> ledger.begin(LedgerWorld.order("A-1"))).name());
            assertEquals("KVX_E_NO_CONTEXT", failureOf(() -> ledger.confirm("return", "", "")).name());
            ledger.open(world.store(), world.account());
            assertEquals(Optional.empty(), ledger.nextPaid());
        }
    }

    @Test
    public void aClosedLedgerRefusesEveryCall() throws Exception {
        Ledger ledger = world.open();
        ledger.close();
        ledger.close();
        Failing[] calls = {
            () -> ledger.setOption("CAPTURE", "1"), () -> ledger.open(world.store(), world.account()),
            () -> ledger.begin(LedgerWorld.order("A-1")), () -> ledger.confirm("return", "", ""), ledger::nextPaid,
            () -> ledger.delivered("A-1"), () -> ledger.runDue(1), () -> ledger.resolve("A-1", "captured", "why"), () -> ledger.getState("A-1"),
            () -> ledger.renewKeys("", "", ""), () -> ledger.getOrder("A-1"), () -> ledger.listOrders("", "", 1), () -> ledger.exportOrder("A-1"),
        };
        for (Failing call : calls) {
            assertEquals("the ledger is closed", assertThrows(IllegalStateException.class, call::run).getMessage());
        }
    }

    /** The constants {@code KVX_LEDGER_PREFIX...} of the header, by number. */
    private static Map<Integer, String> constants(String prefix, String other) throws Exception {
        Map<Integer, String> names = new TreeMap<>();
        Matcher matcher = Pattern.compile("#define KVX_LEDGER_(" + prefix + ")(?!" + other + ")(\\w+) +([0-9]+) ")
                .matcher(Files.readString(Given.ledgerHeader()));
        while (matcher.find()) {
            names.put(Integer.valueOf(matcher.group(3)), matcher.group(2));
        }
        return names;
    }

    @Test
    public void outcomesAndReasonsAreThoseOfTheHeader() throws Exception {
        assertEquals(constants("", "REASON_|NUMBER_|RENEWAL_").toString(), Arrays.stream(Outcome.values())
                     .collect(Collectors.toMap(Outcome::ordinal, Outcome::name, (a, b) -> a, TreeMap::new)).toString());
        assertEquals(constants("RENEWAL_", "-").toString(), Arrays.stream(Renewal.values())
                     .collect(Collectors.toMap(Renewal::ordinal, Renewal::name, (a, b) -> a, TreeMap::new)).toString());
        assertEquals(constants("REASON_", "-").toString(), Arrays.stream(Reason.values())
                     .collect(Collectors.toMap(Reason::ordinal, Reason::name, (a, b) -> a, TreeMap::new)).toString());
    }
}
