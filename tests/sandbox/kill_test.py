"""The sandbox loses nothing that it told, whenever it is killed (kill -9), and starts again on what is left.

What is drawn comes from a seed that is printed; KVX_KILL_SEED repeats it, though threads never run twice alike.
CMakeLists.txt tells in KVX_SANDBOX where the sandbox is.
"""

import collections
import concurrent.futures
import contextlib
import fnmatch
import http.client
import mmap
import os
import random
import secrets
import sqlite3
import threading
import time
import unittest
import urllib.parse

from merchant import ANSWER_SECONDS, Account, PrivateKey, Refused, Signer, Transport, attributes_of, query_of
from sandboxprocess import TIMEOUT_SECONDS, SandboxCase, trusting

LEAST_ROUNDS = 5
SECONDS = 20  # in which there are as many more as fit
CLIENTS = 6
MOST_REQUESTS = 120  # of one life, before its end
MOST_COMMITS = 4  # transactions that are awaited then
COMMIT_SECONDS = 0.05  # in which they come, since all clients are being answered
HEADER_BYTES = 48  # of the index of SQLite's log
MOST_CHANGES = 40  # of the data directory, or transactions, during one start
LOOK_SECONDS = 0.0005  # between two looks at the data directory of a service that starts
SEED = os.environ.get("KVX_KILL_SEED") or secrets.token_hex(4)

# What http.client makes of a service that ends.
LOST = (OSError, http.client.HTTPException)

FIRST_STATE = "opened"
NEXT_STATES = {"opened": {"authorised", "declined", "cancelled"}, "authorised": {"captured", "completed"},
               "captured": {"completed"}}
DECIDED = {"pay": "authorised", "decline": "declined", "cancel": "cancelled"}

# What becomes of payments, and how often.
PLANS = {("pay", "capture", "capture", "complete"): 4, ("pay", "capture twice at once"): 3, ("pay", "capture"): 2,
         ("pay",): 2, ("pay", "complete", "capture"): 1, ("decline",): 1, ("cancel",): 1, (): 1}


class Life:
    """One life of a service: counts what is sent to it, and ends it at a chosen moment."""

    def __init__(self, sandbox, data):
        self.sandbox = sandbox
        self.log_index = data / "sandbox.db-shm"
        self.lock = threading.Lock()
        self.requests_left = 0  # until the end; 0: it is not to end
        self.commits_left = 0  # from then on
        self.ended = False

    def request_sent(self):
        with self.lock:
            self.requests_left -= 1
            if self.requests_left == 0:
                self.end()

    def end(self):
        """The service is at work for a small part of the time only, so the moment is chosen by what it does. Next to
        nothing else runs here meanwhile, since the loop keeps Python's other threads waiting."""
        self.ended = True
        deadline = time.monotonic() + COMMIT_SECONDS
        kill_at_commit(self.sandbox, self.log_index, self.commits_left, lambda: time.monotonic() > deadline)


def kill_at_commit(sandbox, log_index, number, enough):
    """Kills once so many transactions have been seen, or when that is enough. Returns how many were not seen. Each of
    them changes the header of the index of SQLite's log."""
    with open(log_index, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as index:
        seen = index[:HEADER_BYTES]
        while number > 0 and not enough():
            now = index[:HEADER_BYTES]
            number -= now != seen
            seen = now
        sandbox.kill()
    return number


class Log:
    """How often each request, by path and message, was sent, and was answered completely."""

    def __init__(self):
        self.lock = threading.Lock()
        self.sent = collections.Counter()
        self.answered = collections.Counter()

    def note(self, counter, request):
        with self.lock:
            counter[request] += 1


class WatchedTransport(Transport):
    """Tells the life when a request has been sent, and the log when its answer is complete."""

    def __init__(self, life, log):
        super().__init__()
        self.life = life
        self.log = log
        self.asked = threading.local()

    def connect(self, url):
        self.asked.request = (urllib.parse.urlsplit(url).path, query_of(url)[0])
        self.log.note(self.log.sent, self.asked.request)
        return super().connect(url)

    def receive(self, connection):
        self.life.request_sent()
        answer = super().receive(connection)
        self.log.note(self.log.answered, self.asked.request)
        return answer


class Order:
    """One payment as its client knows it."""

    def __init__(self, token, number, signer, plan):
        self.token = token
        self.signer = signer
        self.plan = plan
        self.text = signer.message("PayInit", TOKEN=token, SUCCESSLINK="http://shop.example/paid",
                                   BACKLINK="http://shop.example/back", FAILLINK="http://shop.example/failed",
                                   EXPIRATION="20991231 23:59:59", ORDERID=f"B\u00fccher {number}", AMOUNT="12.50",
                                   CURRENCY="EUR")
        self.told = None  # the state that the service told last; None: no such payment
        self.asked = None  # the state to which a request leads that is not answered
        self.refused = False  # the token belongs to another payment
        self.page = None
        self.confirmed = None  # attributes of the confirmation
        self.captured = None  # attributes of the first answer to a capture

    def possible_states(self):
        return {self.told, self.asked or self.told}

    def arrived(self, state):
        self.told, self.asked = state, None

    def expect(self, right, answer):
        if not right:
            raise AssertionError(f"the payment {self.token} was told {self.told}, now {answer}")


class Client:
    """Leads orders through a service and stores each response with its order. A response that contradicts an earlier one
    is an AssertionError; a missing one raises what http.client raises."""

    def __init__(self, account):
        self.account = account

    def run(self, order):
        """Does what the order's plan says. May be done again, after any part of it."""
        if order.told in (None, "opened"):
            self.open(order)
        if order.refused:
            return
        for step in order.plan:
            if step in DECIDED:
                self.decide(order, step)
            elif step == "complete":
                self.complete(order)
            elif step == "capture":
                self.capture(order)
            else:
                self.at_once(self.capture, order, order)

    def open(self, order):
        order.asked = "opened"
        try:
            page = self.account.open_page(order.text, order.signer)
        except Refused as refusal:
            order.expect(order.told is None and "TOKEN was used already" in str(refusal), refusal)
            order.refused, order.asked = True, None
            return
        order.expect(order.page is None or order.page.fields == page.fields, page.fields)
        order.page = page
        order.arrived("opened")

    def decide(self, order, decision):
        if order.told == "opened":
            order.asked = DECIDED[decision]
        confirmed = self.account.confirmation(self.account.decide(order.page, decision))
        order.expect(confirmed["RESULT"] == DECIDED[decision], confirmed)
        order.expect(order.confirmed in (None, confirmed), confirmed)
        order.confirmed = confirmed
        if order.told == "opened":
            order.arrived(DECIDED[decision])

    def capture(self, order):
        if order.told == "authorised":
            order.asked = "captured"
        captured = self.account.capture(order.confirmed, order.signer)
        order.expect(captured == {**order.confirmed, "RESULT": "captured"}, captured)
        order.expect(order.captured in (None, captured), captured)
        order.captured = captured
        if order.told != "completed":
            order.arrived("captured")

    def complete(self, order):
        order.asked = "completed"
        completed = self.account.complete(order.confirmed, order.signer)
        order.expect((completed["ID"], completed["STATE"]) == (order.confirmed["ID"], "completed"), completed)
        order.arrived("completed")

    @staticmethod
    def at_once(action, *orders):
        """Each in a thread of its own. Of several failures the one that is not just a lost answer counts."""
        with concurrent.futures.ThreadPoolExecutor(len(orders)) as pool:
            failures = [done.exception() for done in [pool.submit(action, order) for order in orders]]
        for failure in sorted(filter(None, failures), key=lambda failure: isinstance(failure, LOST)):
            raise failure

    def check_state(self, order):
        """The service says of a payment what it told before."""
        state = self.account.state(order.token, order.signer)
        order.expect(state == order.told, state)


class Shop(Client):
    """A client that makes up orders, and changes its key now and then, until the service ends."""

    def __init__(self, account, life, name, key):
        super().__init__(account)
        self.life = life
        self.name = name
        self.key = key
        self.sent = []  # signers whose keys were sent to the service
        self.known = []  # those of which it said that it has them
        self.orders = []
        self.random = random.Random(f"{SEED} {name}")

    def work(self):
        try:
            self.change_key()
            for _ in range(MOST_REQUESTS):  # at least one in each turn, so it cannot end before the service
                chance = self.random.random()
                if chance < 0.1:
                    self.change_key()
                elif chance < 0.2:
                    self.race()
                else:
                    self.run(self.order(f"{self.name}-{len(self.orders)}"))
        except LOST:
            if not self.life.ended:
                raise

    def change_key(self):
        self.sent.append(Signer(f"0-{self.name}-{len(self.sent)}", self.key))
        self.account.publish(self.sent[-1])
        self.known.append(self.sent[-1])

    def order(self, token):
        (plan,) = self.random.choices(list(PLANS), PLANS.values())
        self.orders.append(Order(token, len(self.orders), self.known[-1], plan))
        return self.orders[-1]

    def race(self):
        """Two payments for the same token at the same time."""
        token = f"{self.name}-{len(self.orders)}"
        one, other = self.order(token), self.order(token)
        self.at_once(self.open, one, other)
        one.expect(one.refused != other.refused, f"refused: {one.refused} and {other.refused}")
        self.run(other if one.refused else one)


class Records:
    """The service's database, read without changing it."""

    def __init__(self, path):
        with contextlib.closing(sqlite3.connect(f"{path.as_uri()}?mode=ro", uri=True, timeout=ANSWER_SECONDS)) as base:
            base.row_factory = sqlite3.Row
            self.damage = [tuple(row) for check in ("integrity_check", "foreign_key_check")
                           for row in base.execute("PRAGMA " + check) if row[0] != "ok"]
            self.accounts = [row["user"] for row in base.execute("SELECT user FROM accounts")]
            self.server_keys = [row["id"] for row in base.execute("SELECT id FROM server_keys")]
            self.keys = {row["id"]: row["blob"] for row in base.execute("SELECT id, blob FROM merchant_keys")}
            self.payments = base.execute("SELECT id, account, token, order_id, state, expires, message FROM payments").fetchall()
            self.histories = collections.defaultdict(list)
            for row in base.execute("SELECT payment, state FROM history ORDER BY number"):
                self.histories[row["payment"]].append(row["state"])
            # Those that were begun become exchanges without an answer when the service starts again.
            self.exchanges = [(row["path"], row["data"], row["verdict"] == b"ok") for row in base.execute(
                "SELECT path, data, verdict FROM exchanges UNION ALL SELECT path, data, x'' FROM begun_exchanges")]


class KillDuringPayments(SandboxCase):
    def setUp(self):
        super().setUp()
        self.log = Log()
        self.key = PrivateKey.make()
        self.account = None  # as it was in the first life
        self.shops = []  # of all lives
        self.random = random.Random(SEED)
        self.cut = []  # orders that the latest kill kept waiting for an answer
        self.outcomes = collections.Counter()  # of what was not answered

    def test_keeps_everything_it_told(self):
        print(f"KVX_KILL_SEED={SEED}", flush=True)
        enough = time.monotonic() + SECONDS
        kills = 0
        while kills < LEAST_ROUNDS or time.monotonic() < enough:
            sandbox, life, account = self.begin_life()
            self.check_answers(Client(account))
            self.end_at_work(sandbox, life, account, kills)
            self.check_records(Records(self.data / "sandbox.db"))
            kills += 1
        sandbox, _, account = self.begin_life()
        self.check_answers(Client(account))
        self.assertEqual(sandbox.stop(), self.STOPPED)
        self.check_records(Records(self.data / "sandbox.db"))
        states = collections.Counter(order.told for order in self.orders() if not order.refused)
        print(f"{kills} kills; {sum(self.log.answered.values())} answers to {sum(self.log.sent.values())} requests; "
              f"steps without an answer: {dict(self.outcomes)}; payments: {dict(states)}")

    def begin_life(self):
        """Starts on what is left, and checks that the account is what it was."""
        sandbox = self.start()
        life = Life(sandbox, self.data)
        account = Account(WatchedTransport(life, self.log), sandbox.addresses()["auto"])
        self.account = self.account or account
        for kept in ("VTKEYID", "CUSTOMERID"):
            self.assertEqual(account.settings[kept], self.account.settings[kept])
        self.assertEqual(account.server_key, self.account.server_key)
        return sandbox, life, account

    def end_at_work(self, sandbox, life, account, number):
        """Lets clients work until the service is killed."""
        shops = [Shop(account, life, f"{number}-{name}", self.key) for name in range(CLIENTS)]
        self.shops += shops
        self.assertTrue(life.log_index.exists())
        life.requests_left = self.random.randint(1, MOST_REQUESTS)
        life.commits_left = self.random.randint(0, MOST_COMMITS)
        with concurrent.futures.ThreadPoolExecutor(CLIENTS) as pool:
            for work in [pool.submit(shop.work) for shop in shops]:
                work.result()
        self.assertTrue(life.ended)
        self.assertEqual(sandbox.finish(), self.KILLED)

    def orders(self):
        return [order for shop in self.shops for order in shop.orders]

    def check_answers(self, client):
        """A new life says what the last one said; what was cut off can be done again, and goes on from there."""
        for shop in self.shops[-CLIENTS:]:
            for signer in shop.sent[-1:]:
                client.account.publish(signer)
            shop.known = shop.sent
            for order in shop.orders:
                if order.told:
                    client.check_state(order)
        opened = [order for order in self.orders() if order.told]
        for order in self.cut + self.random.sample(opened, min(len(opened), 10)):
            client.run(order)
            if order.told == "authorised":
                client.capture(order)
            if order.told:
                client.check_state(order)

    def check_records(self, records):
        """The database is whole. It holds what the responses reported, and nothing that was not requested. A request
        without a response counts as reported from here on, as far as it was carried out."""
        self.assertEqual(records.damage, [])
        self.assertEqual((records.accounts, len(records.server_keys)), (["demo"], 1))
        self.assertLessEqual(set(records.keys.values()), {self.key.public.blob()})
        self.assertLessEqual({signer.key_id for shop in self.shops for signer in shop.known}, set(records.keys))
        self.assertLessEqual(set(records.keys), {signer.key_id for shop in self.shops for signer in shop.sent})
        self.check_payments(records)
        self.check_exchanges(records)

    def check_payments(self, records):
        orders = {order.text: order for order in self.orders()}
        self.cut = [order for order in orders.values() if order.asked]
        holders = {}
        for payment in records.payments:
            order = orders[payment["message"]]
            history = records.histories[payment["id"]]
            self.assertNotIn(payment["token"], holders, "two payments hold this token")
            holders[payment["token"]] = order
            self.assertEqual((payment["account"], payment["token"]), ("demo", order.token))
            sent = attributes_of(order.text)
            self.assertEqual(payment["order_id"].decode(), sent["ORDERID"])
            self.assertEqual(time.strftime("%Y%m%d %H:%M:%S", time.gmtime(payment["expires"])), sent["EXPIRATION"])
            self.assertEqual(history[:1] + [payment["state"]], [FIRST_STATE, history[-1]], order.token)
            for before, after in zip(history, history[1:]):
                self.assertIn(after, NEXT_STATES.get(before, ()), f"{order.token}: {history}")
            self.assertIn(payment["state"], order.possible_states(), order.token)
            if order.confirmed:
                self.assertEqual(payment["id"], order.confirmed["ID"])
            if order.asked:
                self.outcomes["done" if payment["state"] == order.asked else "not done"] += 1
            order.arrived(payment["state"])
        self.assertEqual(len({payment["id"] for payment in records.payments}), len(records.payments))
        for order in orders.values():
            if holders.get(order.token) is not order:
                self.assertIsNone(order.told, f"the payment {order.token} is lost")
                if order.asked:
                    self.outcomes["not done"] += 1
                order.arrived(None)

    def check_exchanges(self, records):
        """Every answer is on record, what is on record as done is done, and of what is done the request is on record."""
        # A form brings no message, and is counted by its path.
        recorded = collections.Counter((path, data if (path, data) in self.log.sent else b"")
                                       for path, data, _ in records.exchanges)
        for request, sent in self.log.sent.items():
            self.assertLessEqual(self.log.answered[request], recorded[request], request)
            self.assertLessEqual(recorded[request], sent, request)
        opened = {payment["message"] for payment in records.payments}
        for data in {data for path, data, done in records.exchanges if done and (path, data) in self.log.sent and data}:
            message = attributes_of(data)
            kind = message["MSGTYPE"]
            if kind == "PayInit":
                self.assertIn(data, opened)
            if kind == "KeyExportRequest":
                self.assertIn(message["KEYID"], records.keys)
            if kind in ("PayConfirm", "PayCompleteRequest"):
                wanted = {"captured", "completed"} if kind == "PayConfirm" else {"completed"}
                self.assertTrue(wanted.intersection(records.histories[message["ID"]]), message)
        self.check_requests_of_what_is_done(records)

    def check_requests_of_what_is_done(self, records):
        asked = collections.defaultdict(set)  # payments, or keys, by the type of the message
        decisions = 0
        for path, data, _ in records.exchanges:
            if (path, data) in self.log.sent and data:
                message = attributes_of(data)
                asked[message["MSGTYPE"]].add(message.get("ID") or message.get("TOKEN") or message.get("KEYID"))
            decisions += path == "/pay/decision"
        self.assertLessEqual(set(records.keys), asked["KeyExportRequest"])
        for payment in records.payments:
            history = records.histories[payment["id"]]
            self.assertIn(payment["token"], asked["PayInit"])
            for state, kind in (("captured", "PayConfirm"), ("completed", "PayCompleteRequest")):
                if state in history:
                    self.assertIn(payment["id"], asked[kind])
        decided = sum(len(history) > 1 for history in records.histories.values())
        self.assertLessEqual(decided, decisions)


class KillDuringStart(SandboxCase):
    """The moments are changes that are seen in the data directory (0 is at once, 1 the first change, and so on) and
    transactions, until the service is ready first."""

    def setUp(self):
        super().setUp()
        self.key = PrivateKey.make()

    def contents(self, pattern="*"):
        found = {}
        for name in fnmatch.filter(os.listdir(self.data) if self.data.exists() else (), pattern):
            with contextlib.suppress(FileNotFoundError):  # a file may go while it is looked at
                status = os.stat(self.data / name)
                found[name] = (status.st_size, status.st_mtime_ns)
        return found

    def end_at_change(self, number, *options, pattern="*"):
        """Starts, and kills at that change of the files named so. Returns whether the service was ready before."""
        seen = self.contents(pattern)
        sandbox = self.start(*options)
        deadline = time.monotonic() + TIMEOUT_SECONDS
        ready = False
        while number > 0 and not ready:
            self.assertLess(time.monotonic(), deadline)
            now = self.contents(pattern)
            number -= now != seen
            seen = now
            ready = sandbox.poll_line(LOOK_SECONDS)
        sandbox.kill()
        self.check_killed(sandbox)
        return ready

    def end_at_commit(self, number):
        """Starts, and kills at that transaction. Returns whether the service was ready before."""
        sandbox = self.start()
        log_index = self.data / "sandbox.db-shm"
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while not (log_index.exists() and log_index.stat().st_size) and not sandbox.poll_line():
            self.assertLess(time.monotonic(), deadline)
        ready = kill_at_commit(sandbox, log_index, number, sandbox.poll_line) > 0
        self.check_killed(sandbox)
        return ready

    def check_killed(self, sandbox):
        status, _, errors = sandbox.finish()
        self.assertEqual((status, errors), (self.KILLED[0], ""))

    @staticmethod
    def end_at_every(end_at, first):
        """One start after another, each killed at a later moment, until one is ready before. Yields after each."""
        for number in range(first, MOST_CHANGES):
            ready = end_at(number)
            yield number
            if ready:
                return

    def check_works(self, token, *options):
        """Everything from set-up to capture. Returns which files there are in the end."""
        sandbox = self.start(*options)
        addresses = sandbox.addresses()
        context = trusting(addresses["ca"]) if "ca" in addresses else None
        account = Account(Transport(context), addresses.get("tlsAuto", addresses["auto"]))
        signer = Signer("0-1001-key", self.key)
        account.publish(signer)
        order = Order(token, 0, signer, ("pay", "capture"))
        Client(account).run(order)
        self.assertEqual(order.told, "captured")
        self.assertEqual(sandbox.stop(), self.STOPPED)
        return set(self.contents())

    def check_first_starts(self, end_at, first):
        """A kill at each moment, each time in an empty directory."""
        expected = self.check_works("t1")
        base, self.data = self.data, self.data.with_name("killed")
        for number in self.end_at_every(end_at, first):
            self.assertEqual(self.check_works("t1"), expected, f"killed at {number}")
            self.data = base.with_name(f"killed-{number}")
        print(f"{number + 1 - first} moments")

    def test_starts_after_a_kill_at_any_change_of_the_first_start(self):
        self.check_first_starts(self.end_at_change, 0)

    def test_starts_after_a_kill_at_any_transaction_of_the_first_start(self):
        self.check_first_starts(self.end_at_commit, 1)

    def test_starts_after_a_kill_among_its_certificates(self):
        print(f"KVX_KILL_SEED={SEED}", flush=True)
        expected = self.check_works("t1", "--tls")
        pems = len(self.contents("*.pem"))
        # Each file is seen to appear and to take its name, at most. Making keys takes long, so there are a few moments.
        for number in random.Random(SEED).sample(range(1, 2 * pems), 4):
            self.data = self.data.with_name(f"killed-{number}")
            ready = self.end_at_change(number, "--tls", pattern="*.pem*")
            self.assertEqual(self.check_works("t1", "--tls"), expected, f"killed at change {number}, ready: {ready}")

    def test_starts_after_a_kill_while_it_makes_its_certificates_anew(self):
        """As it does when one of them is missing."""
        print(f"KVX_KILL_SEED={SEED}", flush=True)
        expected = self.check_works("t0", "--tls")
        pems = sorted(self.contents("*.pem"))
        for number in random.Random(SEED).sample(range(1, 2 * len(pems)), 3):
            lost = random.Random(f"{SEED} {number}").choice(pems)
            (self.data / lost).unlink()
            ready = self.end_at_change(number, "--tls", pattern="*.pem*")
            self.assertEqual(self.check_works(f"t{number}", "--tls"), expected,
                             f"killed at change {number} without {lost}, ready: {ready}")

    def test_starts_after_kills_at_all_moments_of_many_starts(self):
        collections.deque(self.end_at_every(self.end_at_change, 0))
        self.check_works("t1")
        # The next starts find a payment, and those after the first of them a log that was not tidied up.
        collections.deque(self.end_at_every(self.end_at_change, 0))
        self.check_works("t2")
        states = [(payment["token"], payment["state"]) for payment in Records(self.data / "sandbox.db").payments]
        self.assertEqual(states, [("t1", "captured"), ("t2", "captured")])


class KillAndSecondService(SandboxCase):
    """One service at a time on a data directory, and a dead one does not count."""

    def refused(self):
        status, out, errors = self.start().finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("another sandbox is running on this data directory", errors)
        self.assertIn(str(self.data), errors)

    def test_takes_over_from_a_killed_service_only(self):
        for _ in range(3):
            sandbox = self.start()
            addresses = sandbox.addresses()
            for _ in range(2):
                self.refused()
            Account(Transport(), addresses["auto"])
            sandbox.kill()
            self.assertEqual(sandbox.finish(), self.KILLED)
        sandbox = self.start()
        Account(Transport(), sandbox.addresses()["auto"])
        self.refused()
        self.assertEqual(sandbox.stop(), self.STOPPED)
        self.assertEqual(Records(self.data / "sandbox.db").accounts, ["demo"])


if __name__ == "__main__":
    unittest.main()
