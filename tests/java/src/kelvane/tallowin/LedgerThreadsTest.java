package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.lang.ref.Reference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.Outcome;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.Timeout;

/** Ledgers in several threads, ledgers that are closed while they are used, and ledgers that nobody closes. */
public class LedgerThreadsTest {
    private static final int LIMIT_SECONDS = 240;
    private static final int THREADS = 8;
    private static final int ORDERS = 10;

    @Rule
    public final Timeout timeout = new Timeout(LIMIT_SECONDS, TimeUnit.SECONDS);

    @Rule
    public final LedgerWorld world = new LedgerWorld();

    private final ExecutorService threads = Executors.newFixedThreadPool(THREADS);

    @After
    public void end() {
        threads.shutdownNow();
    }

    private List<LedgerWorld.Paper> papers() throws Exception {
        List<LedgerWorld.Paper> papers = new ArrayList<>();
        try (Ledger ledger = world.open()) {
            for (int i = 0; i < ORDERS; ++i) {
                papers.add(world.pay(ledger, "A-" + i));
            }
        }
        return papers;
    }

    /** Runs {@code task} in all threads at the same time. */
    private <T> List<T> inAllThreads(Callable<T> task) throws Exception {
        CountDownLatch ready = new CountDownLatch(THREADS);
        List<Future<T>> running = new ArrayList<>();
        for (int i = 0; i < THREADS; ++i) {
            running.add(threads.submit(() -> {
                ready.countDown();
                ready.await();
                return task.call();
            }));
        }
        List<T> results = new ArrayList<>();
        for (Future<T> result : running) {
            results.add(result.get());
        }
        return results;
    }

    private static List<Outcome> outcomesOf(Ledger ledger, List<LedgerWorld.Paper> papers) throws Exception {
        List<Outcome> outcomes = new ArrayList<>();
        for (LedgerWorld.Paper paper : papers) {
            outcomes.add(paper.shownTo(ledger).outcome());
        }
        return outcomes;
    }

    private static void assertEachPaidOnce(List<List<Outcome>> outcomes) {
        for (int i = 0; i < ORDERS; ++i) {
            int order = i;
            List<Outcome> ofOrder = outcomes.stream().map(row -> row.get(order)).collect(Collectors.toList());
            assertEquals(1, ofOrder.stream().filter(Outcome.PAID_NOW::equals).count());
            assertEquals(THREADS - 1, ofOrder.stream().filter(Outcome.KNOWN_ALREADY::equals).count());
        }
    }

    @Test
    public void threadsThatShareALedgerTakeTurns() throws Exception {
        List<LedgerWorld.Paper> papers = papers();
        try (Ledger ledger = world.open()) {
            assertEachPaidOnce(inAllThreads(() -> outcomesOf(ledger, papers)));
        }
    }

    @Test
    public void threadsWithLedgersOfTheirOwnReportEachOrderOnce() throws Exception {
        List<LedgerWorld.Paper> papers = papers();
        assertEachPaidOnce(inAllThreads(() -> {
            try (Ledger ledger = world.open()) {
                return outcomesOf(ledger, papers);
            }
        }));
        int captured = inAllThreads(() -> {
            try (Ledger ledger = world.open()) {
                int done = 0;
                for (int more = 1; more > 0; done += more) {
                    more = ledger.runDue(3);
                }
                return done;
            }
        }).stream().mapToInt(Integer::intValue).sum();
        assertEquals(ORDERS, captured);
    }

    @Test
    public void closingWaitsForCallsAndEndsLaterOnes() throws Exception {
        for (int round = 0; round < 20; ++round) {
            Ledger ledger = world.open();
            CountDownLatch used = new CountDownLatch(THREADS);
            List<Future<String>> users = new ArrayList<>();
            for (int i = 0; i < THREADS - 1; ++i) {
                users.add(threads.submit(() -> {
                    try {
                        for (;;) {
                            ledger.listOrders("", "", 10);
                            used.countDown();
                        }
                    } catch (IllegalStateException closed) {
                        return closed.getMessage();
                    }
                }));
            }
            used.await();
            ledger.close();
            for (Future<String> user : users) {
                assertEquals("the ledger is closed", user.get());
            }
        }
    }

    /** The open files of this process that belong to the store. */
    private long openFiles() throws IOException {
        Path directory = world.file().getParent();
        long count = 0;
        try (Stream<Path> descriptors = Files.list(Path.of("/proc/self/fd"))) {
            for (Path descriptor : descriptors.collect(Collectors.toList())) {
                try {
                    count += Files.readSymbolicLink(descriptor).startsWith(directory) ? 1 : 0;
                } catch (IOException gone) {
                    // The descriptor of the listing itself, or of another thread.
                }
            }
        }
        return count;
    }

    private void useWithoutClosing() throws Exception {
        for (int i = 0; i < THREADS; ++i) {
            Ledger ledger = world.open();
            ledger.nextPaid();
            Reference.reachabilityFence(ledger);
        }
    }

    @Test
    public void ledgersThatNobodyClosesAreClosed() throws Exception {
        useWithoutClosing();
        while (openFiles() > 0) {
            System.gc();
        }
        try (Ledger ledger = world.open()) {
            assertTrue(openFiles() > 0);
            ledger.begin(LedgerWorld.order("A-1"));
        }
        assertEquals(0, openFiles());
    }
}
