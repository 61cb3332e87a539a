"""A shop whose processes are killed at any time, before a service with faults: nothing is lost, reported twice or captured twice.

In each round four processes begin orders, confirm and work on one store, and each is killed after a random number of calls.
With acknowledged deliveries nothing that was reported to a process that died stays undelivered either.
KVX_LEDGER_KILLS is the number of kills, KVX_LEDGER_SEED the seed.
"""

import ctypes
import json
import os
import pathlib
import random
import select
import signal
import tempfile
import time
import unittest
import urllib.parse
import urllib.request

from ledgerface import Ledger, LedgerFailure, library, require
from ledgerstores import new_store, problems
from merchant import Page, Transport, attributes_of
from sandboxcase import parameters
from sandboxprocess import SandboxProcess

KILLS = int(os.environ.get("KVX_LEDGER_KILLS", "100"))
SEED = int(os.environ.get("KVX_LEDGER_SEED", "0")) or random.randrange(1, 10**9)
ROLES = ("begin", "confirm", "work", "work")
MAX_CALLS = 12
WAIT_SECONDS = 10
RESPONSE_SECONDS = 30
CHILD_SECONDS = 120
LEASE_SECONDS = 300
LIFETIME_SECONDS = 9999999  # of a payment: no round comes so far
LAST_PASSES = 100
OPTIONS = {"COMPLETE": 1, "STATUSTYPE": "Status", "SETTLESECONDS": 0, "RETRYBASE": 1, "RETRYMAX": 1,
           "MAXREFUSALS": 1000000, "LEASESECONDS": LEASE_SECONDS, "BUSYSECONDS": 60}
FAULTS = ({"kind": "reset"}, {"kind": "drop"}, {"kind": "error"}, {"kind": "truncate", "bytes": 40},
          {"kind": "wrong-type"}, {"kind": "twice"}, {"kind": "http-status", "status": 403},
          {"kind": "http-status", "status": 500}, {"kind": "no-blank-line"})
LINKS = {name: "http://shop.example/back" for name in ("SUCCESSLINK", "FAILLINK", "BACKLINK")}


def set_up(directory, address):
    """Registers with the sandbox."""
    library.CreateConfigurationSetup.restype = ctypes.c_void_p
    library.ConfigurationSetup_SetConfiguration.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
    library.ConfigurationSetup_Reconfigure.argtypes = [ctypes.c_void_p] + 3 * [ctypes.c_char_p]
    library.DestroyConfigurationSetup.argtypes = [ctypes.c_void_p]
    setup = library.CreateConfigurationSetup()
    try:
        require(library.ConfigurationSetup_SetConfiguration(setup, str(directory).encode()))
        require(library.ConfigurationSetup_Reconfigure(setup, address.encode(), b"demo", b"demo"))
    finally:
        library.DestroyConfigurationSetup(setup)
    defaults = directory / "default.xml"
    text = defaults.read_text()
    before, rest = text.split('PAYINITTTL="', 1)
    defaults.write_text(f'{before}PAYINITTTL="{LIFETIME_SECONDS}"{rest[rest.index(chr(34)) + 1:]}')


def write_line(log, *words):
    """Words into a log that survives a kill, which may cut the line short."""
    os.write(log, ("\n" + " ".join(words) + " .\n").encode())


def lines_of(log):
    """The words of each whole line."""
    lines = [line.split(" ") for line in log.read_text().splitlines()]
    return [words[:-1] for words in lines if len(words) > 1 and words[-1] == "."]


class Child:
    """A process that does the same work for ever, and writes a byte into a pipe after each call."""

    def __init__(self, work):
        self.progress, writing = os.pipe()
        self.process = os.fork()
        if self.process == 0:
            signal.alarm(CHILD_SECONDS)
            try:
                work(lambda: os.write(writing, b"."))
            except BaseException as failure:
                os.write(2, f"a process of the shop failed: {failure!r}\n".encode())
            finally:
                os._exit(1)
        os.close(writing)

    def kill(self, calls, seconds):
        """Kills it after so many calls and a part of one."""
        while calls > 0 and select.select([self.progress], [], [], WAIT_SECONDS)[0]:
            done = os.read(self.progress, calls)
            if not done:
                break
            calls -= len(done)
        time.sleep(seconds)
        os.kill(self.process, signal.SIGKILL)
        _, status = os.waitpid(self.process, 0)
        os.close(self.progress)
        return os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGKILL


class LedgerKills(unittest.TestCase):
    def setUp(self):
        memory = "/dev/shm"
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-",
                                                dir=memory if os.access(memory, os.W_OK) else None)
        self.addCleanup(temporary.cleanup)
        self.place = pathlib.Path(temporary.name)
        self.sandbox = SandboxProcess(self.place / "service")
        self.addCleanup(self.sandbox.discard)
        addresses = self.sandbox.addresses()
        self.control = addresses["control"]
        self.transport = Transport()
        self.account = self.place / "account"
        set_up(self.account, addresses["auto"])
        self.chance = random.Random(SEED)
        self.now = int(time.time() * 1000)
        self.told_log = self.place / "told"
        self.url_log = self.place / "urls"
        self.told_log.touch()
        self.url_log.touch()
        self.confirmations = []
        self.decided = set()
        self.captures = {}  # how many captures of each token the service has carried out
        self.exchange = 0
        self.is_acknowledged = False
        self.store = new_store(self.place / "orders.db")
        self.open().close()

    def open(self):
        return Ledger(self.store, self.account, NOW=self.now, ACKNOWLEDGE=int(self.is_acknowledged), **OPTIONS)

    def ask(self, path, body=None, method=None):
        request = urllib.request.Request(self.control + path, None if body is None else json.dumps(body).encode(),
                                         {"Content-Type": "application/json"}, method=method)
        with urllib.request.urlopen(request, timeout=RESPONSE_SECONDS) as response:
            return json.loads(response.read() or b"{}")

    def all_of(self, kind, after=0):
        """The service's exchanges or payments behind a number, page after page."""
        rows = []
        while True:
            page = self.ask(f"/{kind}?limit=1000&after={rows[-1]['number'] if rows else after}")[kind]
            if not page:
                return rows
            rows += page

    # The processes of the shop

    def begin(self, numbers):
        def work(step):
            ledger = self.open()
            log = os.open(self.url_log, os.O_WRONLY | os.O_APPEND)
            out = set()
            while True:
                for number in numbers:
                    try:
                        url = ledger.begin(number, attributes=LINKS)
                        if url not in out:
                            write_line(log, number, url)
                        out.add(url)
                    except LedgerFailure as failure:
                        if failure.name != "KVX_E_LEDGER_PAID":
                            raise
                    step()
        return work

    def confirm(self, confirmations):
        def work(step):
            ledger = self.open()
            log = os.open(self.told_log, os.O_WRONLY | os.O_APPEND)
            while True:
                for data, signature in confirmations:
                    outcome, _, number = ledger.confirm(data, signature, "notification")
                    if outcome == "PAID_NOW":
                        self.deliver(ledger, log, number)
                    step()
                if not confirmations:
                    step()
        return work

    def work(self):
        def work(step):
            ledger = self.open()
            log = os.open(self.told_log, os.O_WRONLY | os.O_APPEND)
            while True:
                ledger.run(1)
                number = ledger.next_paid()
                if number is not None:
                    self.deliver(ledger, log, number)
                step()
        return work

    def deliver(self, ledger, log, number):
        write_line(log, number)
        self.acknowledge(ledger, number)

    def acknowledge(self, ledger, number):
        if self.is_acknowledged:
            ledger.delivered(number)

    # The shoppers

    def shop(self, share=0.8):
        """Decides that share of the payments whose URL is out. Some confirmations are lost."""
        for number, url in lines_of(self.url_log):
            if url in self.decided or self.chance.random() >= share:
                continue
            self.decided.add(url)
            decision = self.chance.choice(("pay",) * 8 + ("decline", "cancel"))
            page = Page(self.transport.browse(url))
            answer = self.transport.browse(urllib.parse.urljoin(url, page.action), {**page.fields, "decision": decision})
            self.assertEqual(answer.status, 302, number)
            if self.chance.random() < 0.85:
                data, signature = parameters(answer.location)
                self.confirmations.append((data.encode(), signature))

    def arm_faults(self):
        for _ in range(self.chance.randrange(4)):
            self.ask("/faults", {**self.chance.choice(FAULTS),
                                 "exchange": self.chance.choice(("capture", "complete", "status"))})

    def count_captures(self):
        for exchange in self.all_of("exchanges", self.exchange):
            self.exchange = max(self.exchange, exchange["number"])
            if exchange["kind"] == "capture" and exchange["verdict"] == "ok":
                token = attributes_of(exchange["data"].encode())["TOKEN"]
                self.captures[token] = self.captures.get(token, 0) + 1

    def play_round(self, index):
        """How many processes were killed."""
        self.arm_faults()
        numbers = [f"K-{index}-{place}" for place in range(3)]
        numbers += [f"K-{self.chance.randrange(index + 1)}-{place}" for place in range(2)]
        offered = self.confirmations[-10:] + self.chance.sample(self.confirmations, min(5, len(self.confirmations)))
        self.chance.shuffle(offered)
        works = {"begin": self.begin(numbers), "confirm": self.confirm(offered), "work": self.work()}
        children = [Child(works[role]) for role in ROLES]
        self.chance.shuffle(children)
        killed = sum(child.kill(self.chance.randrange(MAX_CALLS), self.chance.random() / 300) for child in children)
        self.now += (LEASE_SECONDS + 1) * 1000
        self.shop()
        self.count_captures()
        return killed

    def last_pass(self):
        """After the restart: no more faults and kills, everything decided, and by the ledger's clock long expired."""
        self.ask("/faults", method="DELETE")
        self.shop(share=1)
        self.now += 2 * LIFETIME_SECONDS * 1000
        told = []
        with self.open() as ledger:
            for data, signature in self.confirmations[-10:]:
                outcome, _, number = ledger.confirm(data, signature)
                if outcome == "PAID_NOW":
                    told.append(number)
                    self.acknowledge(ledger, number)
            for _ in range(LAST_PASSES):
                while ledger.run(1000) > 0:
                    pass
                self.now += (LEASE_SECONDS + 1) * 1000
                ledger.option("NOW", self.now)
                if not ledger.numbers("waiting") + ledger.numbers("unknown") + ledger.numbers("completion_unknown"):
                    break
            number = ledger.next_paid()
            while number is not None:
                told.append(number)
                self.acknowledge(ledger, number)
                number = ledger.next_paid()
            return told, [ledger.order(number) for number in ledger.numbers("")]

    def test_double_and_lose_nothing(self):
        told, paid, killed = self.play()
        self.assertEqual([number for number in set(told) if told.count(number) > 1], [], "told twice")
        self.assertLessEqual(set(told), set(paid))
        self.assertLessEqual(len(paid) - len(told), killed, "a kill can swallow one word at most")

    def test_deliver_everything_that_is_paid_when_deliveries_are_acknowledged(self):
        self.is_acknowledged = True
        told, paid, _ = self.play()
        self.assertEqual(set(told), set(paid), "no kill swallows a delivery")
        with self.open() as ledger:
            self.assertEqual([number for number in paid if ledger.order(number)["delivered"] is None], [])
            self.assertEqual(ledger.numbers("undelivered"), [])

    def play(self):
        """Kills. Returns what all processes together had reported, what is paid, and how many died."""
        killed, index = 0, 0
        while killed < KILLS:
            died = self.play_round(index)
            self.assertEqual(died, len(ROLES), f"seed {SEED}, round {index}: a process ended by itself")
            killed += died
            index += 1
        told = [number for number, in lines_of(self.told_log)]
        last_told, orders = self.last_pass()
        self.count_captures()
        told += last_told
        states = {attempt["token"]: attempt["state"] for order in orders for attempt in order["attempts"]}
        payments = {payment["token"]: payment["state"] for payment in self.all_of("payments")}
        print(f"seed {SEED}: {killed} kills, {len(orders)} orders, {len(payments)} payments, "
              f"{sum(self.captures.values())} captures, {len(told)} told", flush=True)
        paid = [order["number"] for order in orders if order["paid"]]
        self.assertGreater(len(paid), 0)
        self.assertEqual([order["number"] for order in orders if order["paid"] and order["told"] is None], [])
        self.assertEqual({token: count for token, count in self.captures.items() if count > 1}, {}, "captured twice")
        expected = {"completed": {"completed"}, "authorised": {"surplus"}, "declined": {"declined"},
                    "cancelled": {"cancelled"}}
        wrong = {token: (state, states.get(token)) for token, state in payments.items()
                 if states.get(token) not in expected.get(state, set())}
        self.assertEqual(wrong, {}, "the service and the ledger differ")
        self.assertEqual(problems(self.store), [])
        return told, paid, killed


if __name__ == "__main__":
    unittest.main()
