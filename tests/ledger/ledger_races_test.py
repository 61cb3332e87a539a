"""Eight processes begin and confirm the same orders at once: all get one URL, and one has the report that the order is paid.

KVX_LEDGER_RACES is the number of orders.
"""

import json
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import unittest

from ledgerface import Ledger, LedgerFailure
from ledgerstores import new_store
from stubservice import Account

PROCESSES = 8
ORDERS = int(os.environ.get("KVX_LEDGER_RACES", "40"))
TIMEOUT_SECONDS = 3000


def numbers():
    return [f"R-{index}" for index in range(ORDERS)]


def begin_all(ledger, chance):
    """The payment URL, or the failure's name, of each order. Begins them in a random order."""
    said = {}
    for number in chance.sample(numbers(), ORDERS):
        try:
            said[number] = [ledger.begin(number)]
        except LedgerFailure as failure:
            said[number] = [failure.name]
    return said


def confirm_all(ledger, chance, confirmations):
    """The outcomes of each order. Confirms each four times, half of them replays, in a random order."""
    said = {number: [] for number in numbers()}
    calls = confirmations * 2
    chance.shuffle(calls)
    for number, data, signature in calls:
        outcome, reason, of = ledger.confirm(data.encode(), signature)
        said[number].append(outcome if (reason, of) == ("NONE", number) else reason)
    return said


def race(action, place, store, seed):
    """One process. Prints the outcomes of each order."""
    place, chance = pathlib.Path(place), random.Random(seed)
    with Ledger(store, place / "account", BUSYSECONDS=300) as ledger:
        if action == "begin":
            said = begin_all(ledger, chance)
        else:
            said = confirm_all(ledger, chance, json.loads((place / "confirmations.json").read_text()))
    json.dump(said, sys.stdout)


class LedgerRaces(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-")
        self.addCleanup(temporary.cleanup)
        self.place = pathlib.Path(temporary.name)
        self.account = Account(self.place / "account")
        self.store = new_store(self.place / "orders.db")

    def run_race(self, action, seed):
        """The outcomes of each order, over all processes."""
        programs = [subprocess.Popen([sys.executable, "-B", __file__, action, self.place, self.store, str(seed + index)],
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE) for index in range(PROCESSES)]
        said = {}
        try:
            for program in programs:
                out, errors = program.communicate(timeout=TIMEOUT_SECONDS)
                self.assertEqual((program.returncode, errors), (0, b""))
                for number, words in json.loads(out).items():
                    said.setdefault(number, []).extend(words)
        finally:
            for program in programs:
                if program.poll() is None:
                    program.kill()
                    program.communicate()
        return said

    def test_say_paid_now_once_for_each_order(self):
        seed = random.randrange(10**9)
        print(f"seed {seed}, {ORDERS} orders", flush=True)
        urls = {}
        for number, said in self.run_race("begin", seed).items():
            self.assertEqual(len(said), PROCESSES)
            self.assertEqual(len(set(said)), 1, number)
            urls[number] = said[0]
            self.assertTrue(urls[number].startswith(self.account.url + "/pay?DATA="), urls[number])
        confirmations = []
        for number, url in urls.items():
            for note in ("first", "second"):
                data = self.account.confirmation(url, "authorised", NOTE=note)
                confirmations.append((number, data.decode(), self.account.sign(data)))
        (self.place / "confirmations.json").write_text(json.dumps(confirmations))
        said = self.run_race("confirm", seed)
        self.assertEqual(sorted(said), sorted(urls))
        for number, words in said.items():
            told = {word: words.count(word) for word in words}
            self.assertEqual(told, {"PAID_NOW": 1, "KNOWN_ALREADY": 4 * PROCESSES - 1}, number)
        with Ledger(self.store, self.account.directory) as ledger:
            self.assertIsNone(ledger.next_paid())
            self.assertEqual(sorted(ledger.numbers("paid")), sorted(urls))
            for number in urls:
                rows = [(row["attempt"], row["event"]) for row in ledger.evidence(number)["transitions"]]
                self.assertEqual(rows, [(1, "begun"), (1, "confirmed_paid")], number)


if __name__ == "__main__":
    if sys.argv[1:2] in (["begin"], ["confirm"]):
        race(sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]))
    else:
        unittest.main()
