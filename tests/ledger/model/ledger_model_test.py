"""Random events against the ledger and against a model of it: what both say and hold must agree after each event.

KVX_LEDGER_SEQUENCES is the number of sequences, KVX_LEDGER_SEED the seed of the first; each further one has the next seed.
"""

import calendar
import os
import pathlib
import random
import shutil
import signal
import tempfile
import time
import unittest

from ledgerface import Ledger, LedgerFailure
from ledgerstores import ADDRESS, discard, new_store
from lifemodel import ANSWERS, Model, Said
from merchant import attributes_of, message, query_of
from stubservice import Account, StubService

SEQUENCES = int(os.environ.get("KVX_LEDGER_SEQUENCES", "50" if ADDRESS else "200"))  # a database takes longer than a file
SEED = int(os.environ.get("KVX_LEDGER_SEED", "0")) or random.randrange(1, 10**9)
CHILD_SECONDS = 60

EVENTS = 14
ROUGH_EVENTS = 24
WEIGHTS = {"begin": 3, "confirm": 5, "replay": 2, "work": 8, "clock": 4, "resolve": 2, "next": 2, "deliver": 1, "publish": 0.4,
           "reopen": 0.4, "kill": 0.3}
RESULTS = ("authorised", "authorised", "authorised", "declined", "cancelled", "expired")
WORDS = ("authorised", "captured", "completed", "opened", "declined", "cancelled", "expired", "lapsed", "no such word")
FLAWS = (("WRONG_AMOUNT", {"AMOUNT": "12.51"}), ("WRONG_CURRENCY", {"CURRENCY": "USD"}),
         ("WRONG_ORDER", {"ORDERID": "other"}), ("UNKNOWN_TOKEN", {"TOKEN": "1"}), ("WRONG_TYPE", {"MSGTYPE": "PayInit"}),
         ("WRONG_RESULT", {"result": "captured"}))
FOREIGN = ({"TOKEN": "1"}, {"ID": "other", "ORDERID": "other"}, {"ORDERID": "other"}, {"AMOUNT": "99"}, {"CURRENCY": "USD"})
FILTERS = ("paid", "untold", "undelivered", "surplus", "attention", "waiting", "captured")


def options_of(chance):
    """Options of one sequence. Without jitter, so that pauses can be compared."""
    return {"CAPTURE": chance.choice("1110"), "COMPLETE": chance.choice("01"),
            "CAPTUREIDEMPOTENT": chance.choice("01"), "STATUSTYPE": chance.choice(("", "Status")),
            "MAXREFUSALS": chance.choice("123"), "MAXASKS": chance.choice("123"), "GRACESECONDS": chance.choice(("0", "300")),
            "ACCEPTSECONDS": chance.choice(("0", "1000", "2592000")), "LEASESECONDS": "300",
            "ACKNOWLEDGE": chance.choice("01"), "SETTLESECONDS": chance.choice(("0", "60")), "RETRYBASE": chance.choice(("0", "10")),
            "RETRYMAX": chance.choice(("15", "3600")), "KEPTEACH": chance.choice("24"), "JITTER": "0"}


def payment_at(url):
    return attributes_of(query_of(url)[0])


class Sequence:
    """One sequence of events on a store of its own."""

    def __init__(self, case, seed, place):
        self.chance = random.Random(seed)
        self.store = new_store(place / "orders.db")
        self.account = case.account_at(place / "account")
        self.service = case.service
        self.service.respond = self.respond
        self.options = options_of(self.chance)
        self.now = self.started = int(time.time() * 1000)
        self.ledger = self.open()
        self.models = [Model(self.options, self.now)]
        self.numbers = [f"{seed}-{index}" for index in range(self.chance.choice((1, 1, 2, 3)))]
        self.urls = {}      # the URL of each attempt
        self.replays = []   # what was confirmed before
        self.victim = None  # the worker to be killed when its request has come
        self.answer, self.word, self.foreign = "done", "", {}
        # A service that rarely does what it is asked leads to the states in doubt.
        self.is_rough = self.chance.random() < 0.3
        self.answers = ANSWERS + ("refused", "lost", "done") if self.is_rough else ANSWERS + ("done",) * 6
        self.words = ("authorised", "captured", "opened", "no such word") if self.is_rough else WORDS
        self.log = [f"options {self.options}"]

    def open(self):
        return Ledger(self.store, self.account.directory, NOW=self.now, **self.options)

    def respond(self, attributes):
        if self.victim is not None:
            os.kill(self.victim, signal.SIGKILL)
            return None
        kind = {"PayConfirm": "PayConfirm", "PayCompleteRequest": "PayCompleteResponse",
                "StatusRequest": "StatusResponse"}[attributes["MSGTYPE"]]
        named = {"TOKEN": attributes["TOKEN"], "ID": "P" + attributes["TOKEN"]}
        state = {"STATE": self.word} if kind == "StatusResponse" else {}
        return {"done": message(kind, **named, **state), "foreign": message(kind, **{**named, **self.foreign}, **state),
                "refused": message("Error", MESSAGE="the service says no"), "garbage": b"<KVX MSGTYPE=",
                "wrong-type": message("LoadDefaultsResponse"), "lost": None, "forbidden": 403,
                "failed": 500}[self.answer]

    # Events

    def play(self):
        self.play_one("begin")
        for event in self.chance.choices(list(WEIGHTS), list(WEIGHTS.values()),
                                         k=ROUGH_EVENTS if self.is_rough else EVENTS):
            self.play_one(event)
        for kind in FILTERS:
            self.agree(kind, self.ledger.numbers(kind), lambda model, kind=kind: model.listed(kind))

    def play_one(self, event):
        self.log.append(f"{(self.now - self.started) // 1000} s: {event}")
        seen = getattr(self, "event_" + event)() or self.observe()
        expected = [self.expected(model, seen) for model in self.models]
        self.models = [model for model, wanted in zip(self.models, expected) if wanted == seen]
        if not self.models:
            raise AssertionError(f"after {event}:\n" + difference(seen, expected))

    def agree(self, what, said, predict):
        """Keeps the models that predict what the ledger said."""
        self.log.append(f"  ledger: {said}")
        predicted = [predict(model) for model in self.models]
        self.models = [model for model, words in zip(self.models, predicted) if words == said]
        if not self.models:
            raise AssertionError(f"{what}: the ledger says {said}, the model {predicted}")

    def event_begin(self):
        number = self.chance.choice(self.numbers)
        amount = self.chance.choice(("12.50",) * 12 + ("12.5",))
        self.log.append(f"  {number}, {amount}")
        before = int(time.time())
        try:
            url = self.ledger.begin(number, amount)
            said = ("same", url) if url in self.urls.values() else ("new", None)
        except LedgerFailure as failure:
            said = (failure.name, None)
        self.agree("begin", said, lambda model: model.begin(number, amount))
        if said[0] == "new":
            payment = payment_at(url)
            expires = calendar.timegm(time.strptime(payment["EXPIRATION"], "%Y%m%d %H:%M:%S"))
            if not before + 599 <= expires <= time.time() + 601:  # time() may lag behind by a tick
                raise AssertionError(f"begun at {before}, expires at {expires}")
            for model in self.models:
                model.begun(number, amount, url, payment["TOKEN"], 1000 * expires)
            self.urls[number, len(self.models[0].orders[number].attempts)] = url

    def event_confirm(self):
        if not self.urls:
            return
        number, index = self.chance.choice(sorted(self.urls))
        url = self.urls[number, index]
        said = Said(number, index, self.chance.choice(RESULTS), "P" + payment_at(url)["TOKEN"])
        changes = {}
        kind = self.chance.random()
        if kind < 0.08:
            said.payment = changes["ID"] = "other"
        elif kind < 0.16:
            said.flaw, changes = self.chance.choice(FLAWS)
        elif kind < 0.28:
            said.key = changes["KEYID"] = "next"
        said.is_forged = self.chance.random() < 0.06
        said.text = self.account.confirmation(url, **{"result": said.result, **changes})
        said.signature = self.account.sign(said.text, "stranger" if said.is_forged else said.key)
        self.replays.append(said)
        self.confirm(said)

    def event_replay(self):
        if self.replays:
            self.confirm(self.chance.choice(self.replays))

    def confirm(self, said):
        self.log.append(f"  {said.number} attempt {said.attempt}, {said.result}, ID {said.payment[:5]}, key {said.key}"
                        f"{', forged' if said.is_forged else ''}{', ' + said.flaw if said.flaw else ''}")
        outcome, reason, number = self.ledger.confirm(said.text, said.signature)
        self.agree("confirm", (outcome, reason), lambda model: model.confirm(said))
        if outcome in ("PAID_NOW", "KNOWN_ALREADY", "NOT_PAID", "SURPLUS") and number != said.number:
            raise AssertionError(f"the confirmation of {said.number} is said to be of {number}")

    def event_work(self, kill=False):
        """What the ledger holds then."""
        self.answer = "killed" if kill else self.chance.choice(self.answers)
        self.word = self.chance.choice(self.words)
        self.foreign = self.chance.choice(FOREIGN)
        before = len(self.service.requests)
        done = self.run_and_kill() if kill else self.ledger.run(1)
        requests = [(request["MSGTYPE"], request["TOKEN"]) for request in self.service.requests[before:]]
        self.log.append(f"  {done} done, requests {requests}, answered by {self.answer}, {self.word}")
        seen = self.observe()
        fitting, expected = {}, []
        for model in self.models:
            for after in self.futures(model, done, requests):
                expected.append(self.expected(after, seen))
                if expected[-1] == seen:
                    fitting.setdefault(repr(vars(after)), after)
        if not fitting:
            raise AssertionError(f"due: {[model.due() for model in self.models]}\n" + difference(seen, expected))
        self.models = list(fitting.values())
        return seen

    def futures(self, model, done, requests):
        """The models that a pass of the worker may lead to. `done` is None when the worker has been killed."""
        jobs = model.due()
        if not jobs and done == 0 and not requests:
            yield model
        for job in jobs:
            kind = model.request_of(job)
            sent = [(kind, payment_at(self.urls[job[:2]])["TOKEN"])] if kind else []
            if requests == sent and done == (None if kind and self.answer == "killed" else 1):
                after = model.clone()
                after.work(job, self.answer, self.word)
                yield after

    def event_kill(self):
        return self.event_work(kill=True)

    def run_and_kill(self):
        """A worker in a process of its own, killed when its request has come: None. Else how many jobs it did."""
        reading, writing = os.pipe()
        self.ledger.close()  # no child can open a store that was open when it was forked
        self.victim = os.fork()
        if self.victim == 0:
            signal.alarm(CHILD_SECONDS)
            status = 99
            try:
                os.read(reading, 1)
                status = self.open().run(1)
            finally:
                os._exit(status)
        os.write(writing, b"x")
        _, status = os.waitpid(self.victim, 0)
        self.victim = None
        self.ledger = self.open()
        os.close(reading)
        os.close(writing)
        if os.WIFSIGNALED(status):
            if os.WTERMSIG(status) != signal.SIGKILL:
                raise AssertionError(f"the worker ended with the status {status}")
            return None
        return os.WEXITSTATUS(status)

    def event_clock(self):
        self.now += 1000 * self.chance.choice((1, 9, 10, 15, 60, 299, 300, 600, 901, 1700, 5000))
        self.ledger.option("NOW", self.now)
        for model in self.models:
            model.now = self.now

    def event_resolve(self):
        number = self.chance.choice([*self.numbers, "none"])
        state = self.chance.choice(("authorised", "captured", "completed", "capture_refused", "cancelled", "surplus_settled"))
        self.log.append(f"  {number}, {state}")
        self.agree("resolve", self.ledger.resolve(number, state), lambda model: model.resolve(number, state))

    def event_next(self):
        self.agree("next", self.ledger.next_paid(), lambda model: model.next_paid())

    def event_deliver(self):
        number = self.chance.choice([*self.numbers, "none"])
        self.agree("deliver", self.ledger.delivered(number), lambda model: model.deliver(number))

    def event_publish(self):
        self.account.publish("next", current=True)
        for model in self.models:
            model.known_keys.add("next")

    def event_reopen(self):
        self.ledger.close()
        self.ledger = self.open()

    # What both hold

    def observe(self):
        """What the ledger holds of each order that was begun."""
        seen = {}
        for number in sorted({number for number, _ in self.urls}):
            evidence = self.ledger.evidence(number)
            order = evidence["order"]
            attempts = [(row["state"], row["tries"], row["refusals"], row["asks"], row["url"]) for row in order["attempts"]]
            seen[number] = {
                "state": order["state"], "paid": order["paidAttempt"], "told": order["told"] is not None,
                "delivered": order["delivered"] is not None, "attempts": attempts, "due": [row["due"] for row in order["attempts"]],
                "transitions": [(row["attempt"], row["from"], row["event"], row["to"])
                                for row in evidence["transitions"]]}
        return seen

    @staticmethod
    def expected(model, seen):
        expected = {}
        for number, order in sorted(model.orders.items()):
            dues = [row.due for row in order.attempts]
            for place, attempt in enumerate(order.attempts):
                if model.is_idle(attempt) and number in seen:
                    dues[place] = seen[number]["due"][place]
            expected[number] = {
                "state": order.state(), "paid": order.paid.index if order.paid else None, "told": order.is_told,
                "delivered": order.is_delivered, "attempts": [(row.state, row.tries, row.refusals, row.asks, row.url) for row in order.attempts],
                "due": dues, "transitions": order.transitions}
        return expected


def difference(seen, expected):
    """Where the ledger and the models differ."""
    lines = []
    for wanted in expected:
        for number, order in seen.items():
            for name, value in order.items():
                other = wanted.get(number, {}).get(name)
                if value != other:
                    lines.append(f"  {number} {name}: ledger {brief(value)}\n    model {brief(other)}")
    return "\n".join(lines)


def brief(value):
    """Without the URLs."""
    if isinstance(value, list):
        return [brief(part) for part in value]
    if isinstance(value, tuple):
        return tuple(part for part in value if not str(part).startswith("http://"))
    return value


class LedgerModel(unittest.TestCase):
    def setUp(self):
        # In memory, where there is such a place: the disk would take most of the time.
        memory = "/dev/shm"
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-",
                                                dir=memory if os.access(memory, os.W_OK) else None)
        self.addCleanup(temporary.cleanup)
        self.place = pathlib.Path(temporary.name)
        self.service = StubService(lambda attributes: None)
        self.addCleanup(self.service.stop)
        self.account = Account(self.place / "account", self.service.url)
        for key_id in ("next", "stranger"):
            self.account.make_key(key_id)

    def account_at(self, directory):
        """A copy of the account."""
        shutil.copytree(self.account.directory, directory)
        return self.account.moved_to(directory)

    def test_agrees_with_the_ledger(self):
        print(f"seed {SEED}, {SEQUENCES} sequences", flush=True)
        for seed in range(SEED, SEED + SEQUENCES):
            place = self.place / str(seed)
            place.mkdir()
            sequence = Sequence(self, seed, place)
            try:
                sequence.play()
            except (AssertionError, LedgerFailure) as failure:
                replay = f"KVX_LEDGER_SEED={seed} KVX_LEDGER_SEQUENCES=1"
                raise AssertionError("\n".join([replay, *sequence.log, str(failure)])) from None
            finally:
                sequence.ledger.close()
                discard(sequence.store)
                shutil.rmtree(place)
                self.service.requests.clear()


if __name__ == "__main__":
    unittest.main()
