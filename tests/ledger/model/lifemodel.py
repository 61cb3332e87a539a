"""The life of orders as the ledger's header and page describe it, written without a look at the ledger: a second opinion.

A model is told each event and says what the ledger must return. Where the contract leaves it open which of several jobs
the worker takes, it offers one model for each.
"""

import copy
import dataclasses

PAID = ("authorised", "capturing", "captured", "completing", "completed", "capture_refused", "unknown",
        "completion_unknown")
UNPAID_ENDS = ("declined", "cancelled", "expired")

# How the service takes a request. After "forbidden" no money has moved; after any other failure it may have. "foreign" is
# "done", but the response to a completion or a status request is about another payment.
ANSWERS = ("done", "refused", "lost", "forbidden", "failed", "garbage", "wrong-type", "foreign")

# What a person may say, and of which states.
RESOLUTIONS = {
    "authorised": ("resolved_authorised", ("waiting", "unknown", "capture_refused")),
    "captured": ("resolved_captured", ("waiting", "unknown", "capture_refused", "completion_unknown")),
    "completed": ("resolved_completed", ("waiting", "unknown", "capture_refused", "completion_unknown")),
    "capture_refused": ("resolved_refused", ("unknown",)),
    "cancelled": ("resolved_cancelled", ("waiting", "unknown", "capture_refused")),
}


@dataclasses.dataclass
class Attempt:
    number: str
    index: int
    url: str
    token: str
    expires: int
    state: str = "opened"
    due: int = None
    tries: int = 0
    refusals: int = 0
    asks: int = 0               # status requests in a row that changed nothing
    payment: str = None         # the ID of the payment
    was_paid: bool = False      # it is or was known as paid
    is_confirmed: bool = False  # a confirmation that says paid is recorded
    result: str = None          # the unpaid end that a confirmation said
    kept: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Order:
    number: str
    amount: str
    attempts: list = dataclasses.field(default_factory=list)
    paid: Attempt = None
    is_told: bool = False
    is_delivered: bool = False
    report: int = None  # when the order is reported again unless its delivery is acknowledged
    transitions: list = dataclasses.field(default_factory=list)

    def state(self):
        return self.standing().state

    def standing(self):
        return self.paid or self.attempts[-1]


@dataclasses.dataclass
class Said:
    """What a confirmation says, and how it is signed."""

    number: str
    attempt: int
    result: str
    payment: str
    key: str = "server"
    flaw: str = ""  # the reason for which it must be refused, whatever the state
    is_forged: bool = False
    text: bytes = b""
    signature: str = ""


def is_deliverable(order):
    """Not while the service will not capture."""
    return order.paid is not None and order.paid.state != "capture_refused"


def is_to_be_told(order):
    """Whether somebody has to deliver who does not know it yet."""
    return is_deliverable(order) and not order.is_told


class Model:
    def __init__(self, options, now):
        self.options = options
        self.now = now
        self.orders = {}
        self.known_keys = {"server"}

    def clone(self):
        return copy.deepcopy(self)

    def attempt(self, number, index):
        return self.orders[number].attempts[index - 1]

    def seconds(self, name):
        return 1000 * int(self.options[name])

    def asks(self):
        return self.options["STATUSTYPE"] != ""

    # Transitions

    def move(self, attempt, event, state):
        """Enters the state, and makes due what follows from it."""
        self.orders[attempt.number].transitions.append((attempt.index, attempt.state, event, state))
        if state != attempt.state:
            attempt.asks = 0
            if attempt.state == "waiting":
                attempt.tries = attempt.refusals = 0
        attempt.state = state
        attempt.was_paid |= state in PAID or state == "surplus"
        attempt.due = None
        if state == "waiting":
            attempt.due = attempt.expires + self.seconds("GRACESECONDS")
        elif state in ("authorised", "captured"):
            attempt.due = self.now
        elif state in ("capturing", "completing"):
            attempt.due = self.now + self.seconds("LEASESECONDS")
        elif state in ("unknown", "completion_unknown"):
            attempt.due = self.now + self.seconds("SETTLESECONDS")

    def pause(self, attempt):
        """After one more failure in a row."""
        attempt.tries += 1
        attempt.due = self.now + self.pause_of(attempt)

    def pause_of(self, attempt):
        return min(self.seconds("RETRYBASE") * 2 ** (attempt.tries - 1), self.seconds("RETRYMAX"))

    # The merchant

    def begin(self, number, amount):
        """"same" with the URL, "new", or the name of the failure."""
        order = self.orders.get(number)
        if order is None:
            return "new", None
        if order.amount != amount:
            return "KVX_E_LEDGER_CONFLICT", None
        if order.paid:
            return "KVX_E_LEDGER_PAID", None
        newest = order.attempts[-1]
        if newest.state == "waiting" and self.now < newest.expires:
            return "same", newest.url
        return "new", None

    def begun(self, number, amount, url, token, expires):
        order = self.orders.setdefault(number, Order(number, amount))
        attempt = Attempt(number, len(order.attempts) + 1, url, token, expires)
        order.attempts.append(attempt)
        self.move(attempt, "begun", "waiting")

    # Confirmations

    def confirm(self, said):
        """Outcome and reason."""
        is_here = said.key in self.known_keys
        if is_here and said.is_forged:
            return "REFUSED", "BAD_SIGNATURE"
        if said.flaw:
            return "REFUSED", said.flaw
        return self.accept(said, tell=True) if is_here else self.keep(said)

    def keep(self, said):
        attempt = self.attempt(said.number, said.attempt)
        if any((other.text, other.signature) == (said.text, said.signature) for other in attempt.kept):
            return "KEPT", "UNKNOWN_KEY"
        if len(attempt.kept) == int(self.options["KEPTEACH"]):
            return "KEPT", "KEPT_FULL"
        attempt.kept.append(said)
        return "KEPT", "UNKNOWN_KEY"

    def is_late(self, attempt):
        accept = self.seconds("ACCEPTSECONDS")
        return accept != 0 and self.now > attempt.expires + accept

    def accept(self, said, tell):
        """A genuine confirmation. `tell`: a messenger is told of a payment."""
        attempt = self.attempt(said.number, said.attempt)
        return self.accept_paid(attempt, said, tell) if said.result == "authorised" else self.accept_end(attempt, said)

    def accept_paid(self, attempt, said, tell):
        order = self.orders[attempt.number]
        if attempt.payment not in (None, said.payment):
            return "REFUSED", "OTHER_PAYMENT"
        if attempt.is_confirmed:
            return self.tell(order, attempt, tell), "NONE"
        if self.is_late(attempt) and not attempt.was_paid:
            return "REFUSED", "TOO_LATE"
        attempt.is_confirmed = True
        attempt.payment = said.payment
        if attempt.was_paid:  # also when a person has given it up: it stays so
            due = attempt.due
            self.move(attempt, "confirmed_later", attempt.state)
            attempt.due = due
        elif order.paid:
            self.move(attempt, "confirmed_surplus", "surplus")
            return "SURPLUS", "NONE"
        else:
            order.paid = attempt
            self.move(attempt, "confirmed_paid", "authorised")
        return self.tell(order, attempt, tell), "NONE"

    def tell(self, order, attempt, tell):
        if order.paid is attempt and tell and is_to_be_told(order):
            self.report(order)
            return "PAID_NOW"
        return "KNOWN_ALREADY"

    def report(self, order):
        order.is_told = True
        if self.options["ACKNOWLEDGE"] == "1":
            order.report = self.now + self.seconds("LEASESECONDS")

    def accept_end(self, attempt, said):
        if attempt.result == said.result:
            return "KNOWN_ALREADY", "NONE"
        if attempt.was_paid:
            return "REFUSED", "CONTRADICTS"
        if self.is_late(attempt):
            return "REFUSED", "TOO_LATE"
        if attempt.state == "waiting":
            self.move(attempt, "confirmed_" + said.result, said.result)
            attempt.result = said.result
        return "NOT_PAID", "NONE"

    def next_paid(self):
        found = [order for order in self.orders.values() if is_to_be_told(order)]
        if not found and self.options["ACKNOWLEDGE"] == "1":
            found = [order for order in self.orders.values()
                     if is_deliverable(order) and order.report is not None and order.report <= self.now]
            found.sort(key=lambda order: order.report)
        if not found:
            return None
        self.report(found[0])
        return found[0].number

    def deliver(self, number):
        """The name of the result."""
        order = self.orders.get(number)
        if order is None:
            return "KVX_E_NOT_FOUND"
        if not order.is_delivered:
            if order.paid is None and not order.is_told:
                return "KVX_E_LEDGER_STATE"
            order.is_told = order.is_delivered = True
            order.report = None
            attempt = order.standing()
            order.transitions.append((attempt.index, attempt.state, "delivered", attempt.state))
        return "KVX_OK"

    # The worker

    def is_due(self, attempt):
        return attempt.due is not None and attempt.due <= self.now

    def is_idle(self, attempt):
        """Whether the options leave nothing to do in its state. When it is due does not matter then."""
        if attempt.state == "authorised":
            return self.options["CAPTURE"] == "0"
        if attempt.state == "captured":
            return self.options["COMPLETE"] == "0"
        return attempt.state in ("unknown", "completion_unknown") and not self.asks() and (
            self.options["CAPTUREIDEMPOTENT"] == "0" or attempt.refusals >= int(self.options["MAXREFUSALS"]))

    def due(self):
        """(number, attempt, None) of each job that is due, and (number, attempt, place) of each kept confirmation."""
        jobs = []
        for order in self.orders.values():
            for attempt in order.attempts:
                if self.is_due(attempt) and not self.is_idle(attempt):
                    jobs.append((order.number, attempt.index, None))
                jobs += [(order.number, attempt.index, place) for place, said in enumerate(attempt.kept)
                         if said.key in self.known_keys]
        return jobs

    def request_of(self, job):
        """The type of the request that the job sends, or None."""
        number, index, place = job
        state = self.attempt(number, index).state
        if place is not None:
            return None
        if state in ("waiting", "unknown", "completion_unknown"):
            return "StatusRequest" if self.asks() else None
        return {"authorised": "PayConfirm", "captured": "PayCompleteRequest"}.get(state)

    def work(self, job, answer, word):
        """Does the job; `answer` is how the service takes the request, `word` the state in its status response.
        The answer "killed" ends the worker while it waits for a response.
        """
        number, index, place = job
        attempt = self.attempt(number, index)
        if place is not None:
            said = attempt.kept.pop(place)
            if not said.is_forged:
                self.accept(said, tell=False)
        elif attempt.state in ("authorised", "captured"):
            self.send(attempt, answer)
        elif attempt.state in ("capturing", "completing"):
            self.move(attempt, "interrupted", "unknown" if attempt.state == "capturing" else "completion_unknown")
        elif self.asks():
            self.ask(attempt, answer, word)
        elif attempt.state == "waiting":
            self.move(attempt, "timed_out", "expired")
        else:
            self.move(attempt, "repeated", "authorised" if attempt.state == "unknown" else "captured")

    def send(self, attempt, answer):
        before = attempt.state
        kind, sending, done, doubt = (("capture", "capturing", "captured", "unknown") if before == "authorised" else
                                      ("complete", "completing", "completed", "completion_unknown"))
        self.move(attempt, kind + "_sent", sending)
        is_compared = kind == "complete"  # its response says which payment it is about
        if (answer == "done" and not (is_compared and self.is_other(attempt))) or (answer == "foreign" and not is_compared):
            attempt.tries = attempt.refusals = 0
            self.move(attempt, kind + "_done", done)
        elif answer == "forbidden":
            attempt.refusals = 0
            self.move(attempt, kind + "_failed", before)
            self.pause(attempt)
        elif answer != "killed":
            attempt.tries += 1
            attempt.refusals = attempt.refusals + 1 if answer == "refused" else 0
            self.move(attempt, kind + "_in_doubt", doubt)
            attempt.due = self.now + max(self.pause_of(attempt), self.seconds("SETTLESECONDS"))

    def ask(self, attempt, answer, word):
        if answer == "killed":
            attempt.due = self.now + self.seconds("LEASESECONDS")
        elif attempt.state == "waiting" and answer == "refused":
            attempt.refusals += 1
            if attempt.refusals >= int(self.options["MAXASKS"]):
                self.move(attempt, "found_nothing", "expired")
            else:
                self.ask_later(attempt, is_refused=True)
        elif answer != "done" or self.is_other(attempt):
            self.ask_later(attempt)
        elif attempt.state == "waiting":
            self.find_waiting(attempt, word)
        else:
            self.find_in_doubt(attempt, word)

    @staticmethod
    def is_other(attempt):
        """True when the payment has another ID than "P" + token, which is in every response."""
        return attempt.payment not in (None, "P" + attempt.token)

    def ask_later(self, attempt, is_refused=False):
        if attempt.state == "waiting" and not is_refused:
            attempt.refusals = 0
        attempt.asks += 1
        self.pause(attempt)

    def find_waiting(self, attempt, word):
        order = self.orders[attempt.number]
        if word in UNPAID_ENDS:
            self.move(attempt, "found_" + word, word)
        elif word == "lapsed":
            self.move(attempt, "found_lapsed", "expired")
        elif word in ("authorised", "captured", "completed"):
            attempt.payment = "P" + attempt.token
            if order.paid:
                self.move(attempt, "found_surplus", "surplus")
            else:
                order.paid = attempt
                self.move(attempt, "found_" + word, word)
        else:
            self.ask_later(attempt)

    def find_in_doubt(self, attempt, word):
        known = ("captured", "completed", "authorised", "opened", "lapsed", *UNPAID_ENDS)
        if word not in known or (attempt.state == "completion_unknown" and word not in ("captured", "completed")):
            self.ask_later(attempt)
            return
        if attempt.state == "completion_unknown" and word == "captured":
            self.find_not_completed(attempt)
            return
        if attempt.payment is None:
            attempt.payment = "P" + attempt.token
        if word in ("captured", "completed"):
            attempt.tries = attempt.refusals = 0
            self.move(attempt, "found_" + word, word)
        elif word == "authorised" and attempt.refusals >= int(self.options["MAXREFUSALS"]):
            self.move(attempt, "found_refused", "capture_refused")
        elif word == "authorised":
            self.move(attempt, "found_authorised", "authorised")
        else:
            self.move(attempt, "found_" + word, "capture_refused")

    def find_not_completed(self, attempt):
        """The completions that failed are still in a row. When too many of them were refused, a person has to look."""
        if attempt.refusals < int(self.options["MAXREFUSALS"]):
            attempt.payment = attempt.payment or "P" + attempt.token
            self.move(attempt, "found_captured", "captured")
        else:
            self.ask_later(attempt)
            attempt.due = None

    # A person

    def resolve(self, number, state):
        """The name of the result."""
        order = self.orders.get(number)
        if order is None:
            return "KVX_E_NOT_FOUND"
        if state == "surplus_settled":
            surplus = [attempt for attempt in order.attempts if attempt.state == "surplus"]
            for attempt in surplus:
                self.move(attempt, "resolved_surplus", "cancelled")
            return "KVX_OK" if surplus else "KVX_E_LEDGER_STATE"
        event, states = RESOLUTIONS[state]
        attempt = order.standing()
        if attempt.state not in states or (attempt.state == "waiting" and not self.is_asked_out(attempt)):
            earlier = [one for one in order.attempts if one.state == "waiting" and self.is_asked_out(one)]
            if state != "cancelled" or not earlier:
                return "KVX_E_LEDGER_STATE"
            for one in earlier:
                self.move(one, event, state)
            return "KVX_OK"
        attempt.tries = attempt.refusals = 0
        self.move(attempt, event, state)
        order.paid = None if state == "cancelled" else attempt
        return "KVX_OK"

    def is_asked_out(self, attempt):
        return attempt.asks >= int(self.options["MAXASKS"])

    # Lists

    def listed(self, kind):
        return [order.number for order in self.orders.values() if self.is_listed(order, kind)]

    def is_listed(self, order, kind):
        surplus = any(attempt.state == "surplus" for attempt in order.attempts)
        if kind == "paid":
            return order.paid is not None
        if kind == "untold":
            return is_to_be_told(order)
        if kind == "undelivered":
            return order.report is not None
        if kind == "surplus":
            return surplus
        if kind == "attention":
            return surplus or order.state() == "capture_refused" or any(map(self.is_asked_out, order.attempts)) or (
                order.state() in ("unknown", "completion_unknown") and (self.is_idle(order.paid) or order.paid.due is None))
        return order.state() == kind
