package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.util.Set;
import java.util.TreeSet;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import kelvane.tallowin.ledger.Confirmation;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;
import kelvane.tallowin.ledger.LedgerOrder;
import org.junit.After;
import org.junit.Before;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import org.junit.rules.Timeout;

/**
 * Every native method of the order ledger while allocations fail, one alone or all from a certain one on.
 *
 * <p>A call fails with a code for the lack of memory or for a store that cannot do its work, and the same call succeeds
 * afterwards. No order is reported as paid twice or never.
 */
public class LedgerAllocationsTest {
    private static final int LIMIT_SECONDS = 600;
    private static final long SAMPLES = 20;
    private static final Set<String> EXPECTED = Set.of("OutOfMemoryError", "KVX_E_OUT_OF_MEMORY");

    @Rule
    public final TemporaryFolder folder = new TemporaryFolder();

    @Rule
    public final Timeout timeout = Timeout.builder().withTimeout(LIMIT_SECONDS, TimeUnit.SECONDS).build();

    /** One call on the ledger. Every call of {@link #prepare} is followed by one or more of {@link #run}. */
    private abstract static class Call {
        /** Runs without a fault. */
        void prepare() throws Exception {
        }

        abstract void run() throws Exception;

        /** Runs without a fault, after {@link #run} has succeeded. */
        void check() throws Exception {
        }
    }

    private AccountDirectory account;
    private Ledger ledger;
    private int orders;
    private final TreeSet<String> results = new TreeSet<>();

    @Before
    public void open() throws Exception {
        account = new AccountDirectory(folder.newFolder().toPath());
        ledger = new Ledger(store(), account.path().toString());
    }

    @After
    public void close() {
        ledger.close();
    }

    private String store() {
        return "sqlite:" + folder.getRoot().toPath().resolve("orders.db");
    }

    private String newOrder() throws Exception {
        String number = "A-" + ++orders;
        ledger.begin(LedgerOrder.of(number, "12.50", "EUR"));
        return number;
    }

    private Confirmation confirm(String data) throws Exception {
        return ledger.confirm("return", data, AccountDirectory.serverSignature(data));
    }

    private String confirmationOf(String number) throws Exception {
        Matcher token = Pattern.compile("\"token\": \"([0-9a-f]+)\"").matcher(ledger.getOrder(number));
        assertTrue(token.find());
        return "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + AccountDirectory.SERVER_KEY + "\" ID=\"P-" + number + "\" TOKEN=\""
                + token.group(1) + "\" ORDERID=\"" + number + "\" AMOUNT=\"12.50\" CURRENCY=\"EUR\" RESULT=\"authorised\"/>";
    }

    /** Runs the call with a fault. Returns whether an allocation failed, and counts the allocations in {@code requested}. */
    private boolean fails(Call call, long number, boolean isOnwards, long[] requested) throws Exception {
        HeapFault.arm(number, isOnwards);
        String result = "";
        try {
            call.run();
        } catch (LedgerException failure) {
            result = failure.name();
        } catch (OutOfMemoryError failure) {
            result = "OutOfMemoryError";
        } finally {
            requested[0] = HeapFault.disarm();
        }
        boolean isReached = HeapFault.hasFailed();
        if (!result.isEmpty()) {
            results.add(result);
            call.run();
        }
        return isReached;
    }

    private void failAllocations(Call call) throws Exception {
        assertTrue("the library and what it stands on", HeapFault.watchLedger() >= 3);
        long[] requested = new long[1];
        for (boolean isOnwards : new boolean[] {false, true}) {
            for (int run = 0; run < 2; ++run) { // the first fills caches
                call.prepare();
                fails(call, -1, false, requested);
                call.check();
            }
            long whole = requested[0];
            assertTrue("no allocations", whole > 0);
            for (long number = 0; number < whole; number += whole / SAMPLES + 1) {
                call.prepare();
                if (!fails(call, number, isOnwards, requested)) {
                    assertTrue("never reached: " + number + " of " + whole, number > whole / 2);
                }
                call.check();
            }
        }
        assertTrue(results.toString(), results.contains("KVX_E_OUT_OF_MEMORY") && EXPECTED.containsAll(results));
    }

    @Test
    public void createsLedgers() throws Exception {
        failAllocations(new Call() {
            @Override
            void run() throws Exception {
                new Ledger(store(), account.path().toString()).close();
            }
        });
    }

    @Test
    public void opensStoresAndSetsOptions() throws Exception {
        failAllocations(new Call() {
            @Override
            void run() throws Exception {
                ledger.setOption("STATUSATTRIBUTE", "a name that is longer than what a text holds in itself");
                ledger.open(store(), account.path().toString());
            }
        });
    }

    @Test
    public void beginsPayments() throws Exception {
        failAllocations(new Call() {
            private LedgerOrder order;
            private String url;

            @Override
            void prepare() {
                order = LedgerOrder.of("B-" + ++orders, "12.50", "EUR").with("NOTE", "x".repeat(5000));
            }

            @Override
            void run() throws Exception {
                url = ledger.begin(order);
            }

            @Override
            void check() throws Exception {
                assertEquals(url, ledger.begin(order));
            }
        });
    }

    @Test
    public void reportsEachOrderAsPaidOnce() throws Exception {
        failAllocations(new Call() {
            private String data;
            private int reports;

            @Override
            void prepare() throws Exception {
                data = confirmationOf(newOrder());
                reports = 0;
            }

            @Override
            void run() throws Exception {
                reports += confirm(data).isPaidNow() ? 1 : 0;
            }

            @Override
            void check() throws Exception {
                run();
                assertEquals(1, reports);
            }
        });
    }

    @Test
    public void explainsRefusals() throws Exception {
        String number = newOrder();
        failAllocations(new Call() {
            @Override
            void run() throws Exception {
                assertEquals("WRONG_AMOUNT", confirm(confirmationOf(number).replace("12.50", "12.51")).reason().name());
            }
        });
    }

    @Test
    public void readsOrders() throws Exception {
        for (int i = 0; i < 10; ++i) {
            confirm(confirmationOf(newOrder()));
        }
        failAllocations(new Call() {
            @Override
            void run() throws Exception {
                assertEquals("authorised", ledger.getState("A-1"));
                assertTrue(ledger.getOrder("A-1").endsWith("}"));
                assertTrue(ledger.listOrders("paid", "", 100).endsWith("}"));
                assertTrue(ledger.exportOrder("A-1").endsWith("}"));
                ledger.delivered("A-1");
                assertTrue(ledger.nextPaid().isEmpty());
            }
        });
    }
}
