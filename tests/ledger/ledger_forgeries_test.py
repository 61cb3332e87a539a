"""Confirmations that nobody has signed so: altered, signed by others, of other orders, replayed. None may be accepted.

KVX_LEDGER_FORGERIES is the number of confirmations, KVX_LEDGER_SEED the seed.
"""

import os
import pathlib
import random
import tempfile
import time
import unittest

from ledgerface import Ledger
from ledgerstores import new_store
from stubservice import Account

COUNT = int(os.environ.get("KVX_LEDGER_FORGERIES", "2000"))
SEED = int(os.environ.get("KVX_LEDGER_SEED", "0")) or random.randrange(1, 10**9)
ORDERS = 20
MAX_KEPT = 10
CHECK_EACH = 500
ACCEPTED = ("PAID_NOW", "KNOWN_ALREADY", "NOT_PAID", "SURPLUS")
FOREIGN = ({"AMOUNT": "0.01"}, {"AMOUNT": "12.5"}, {"CURRENCY": "USD"}, {"AMOUNT": None}, {"TOKEN": "1"}, {"TOKEN": None},
           {"ORDERID": None}, {"ORDERID": "F-1 "}, {"MSGTYPE": "PayCompleteResponse"}, {"MSGTYPE": None},
           {"RESULT": "captured"}, {"RESULT": None}, {"KEYID": None})


class LedgerForgeries(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-")
        self.addCleanup(temporary.cleanup)
        self.place = pathlib.Path(temporary.name)
        self.account = Account(self.place / "account")
        for key_id in ("earlier", "other", "stranger"):
            self.account.make_key(key_id)
        self.chance = random.Random(SEED)
        self.start = int(time.time() * 1000)
        self.ledger = Ledger(new_store(self.place / "orders.db"), self.account.directory, NOW=self.start, MAXKEPT=MAX_KEPT)
        self.addCleanup(self.ledger.close)
        # A key that the service has not signed with for too long, and one that never was the service's.
        self.account.publish("earlier")
        self.ledger.run()
        self.account.publish("server")
        self.ledger.run()
        self.account.publish("other", current=False)
        # Two weeks later, when the payments are begun; the component's own clock gives them a longer time.
        self.account.write("default.xml", '<KVX MSGTYPE="LoadDefaultsResponse" KVX.ISVALID="yes" PAYINITTTL="9999999"/>')
        self.ledger.option("NOW", self.start + 14 * 86400 * 1000)
        self.urls = [self.ledger.begin(f"F-{index}") for index in range(ORDERS)]
        self.genuine = []
        for url in self.urls:
            data = self.account.confirmation(url, "authorised")
            self.genuine.append((data, self.account.sign(data)))

    # Each returns DATA, SIGNATURE and the outcomes that may follow.

    def altered_text(self):
        data, signature = self.chance.choice(self.genuine)
        changed = bytearray(data)
        for _ in range(self.chance.choice((1, 1, 1, 2, 5))):
            action, place = self.chance.randrange(3), self.chance.randrange(len(changed))
            if action == 0:
                changed[place] = self.chance.choice([byte for byte in range(1, 256) if byte != changed[place]])
            elif action == 1:
                del changed[place]
            else:
                changed.insert(place, self.chance.randrange(1, 256))
        return (bytes(changed), signature) if bytes(changed) != data else self.altered_text()

    def altered_signature(self):
        data, signature = self.chance.choice(self.genuine)
        action = self.chance.randrange(4)
        if action == 0:
            number = int(signature, 16) ^ 1 << self.chance.randrange(4 * len(signature))
            return data, f"{number:0{len(signature)}x}"
        if action == 1:
            return data, signature[:self.chance.randrange(len(signature))]
        if action == 2:
            return data, signature + self.chance.choice(("00", "ff", "0000"))
        return data, "".join(self.chance.choice("0123456789abcdef") for _ in signature)

    def swapped(self):
        (data, _), (_, signature) = self.chance.sample(self.genuine, 2)
        return data, signature

    def swapped_attributes(self):
        """Two payments of one shop, mixed, and signed by the service."""
        one, other = self.chance.sample(self.urls, 2)
        order = self.account.confirmation(other, "authorised").split(b'ORDERID="')[1].split(b'"')[0].decode()
        data = self.account.confirmation(one, "authorised", ORDERID=order)
        return data, self.account.sign(data)

    def foreign(self):
        """The service has signed it, and it is of no order here."""
        data = self.account.confirmation(self.chance.choice(self.urls), "authorised", **self.chance.choice(FOREIGN))
        return data, self.account.sign(data)

    def signed_by_others(self):
        signer = self.chance.choice(("own", "other", "earlier", "stranger"))
        named = self.chance.choice((signer, "server", "nobody", "../private/own", "own"))
        data = self.account.confirmation(self.chance.choice(self.urls), "authorised", KEYID=named)
        return data, self.account.sign(data, signer)

    KINDS = (altered_text, altered_signature, swapped, swapped_attributes, foreign, signed_by_others)

    def check_nothing_is_paid(self):
        self.assertEqual(self.ledger.run(1000), 0)
        self.assertEqual(self.ledger.numbers("paid"), [])
        self.assertEqual(len(self.ledger.numbers("waiting")), ORDERS)
        self.assertIsNone(self.ledger.next_paid())

    def test_are_never_accepted(self):
        print(f"seed {SEED}, {COUNT} confirmations", flush=True)
        said = {}
        for index in range(COUNT):
            kind = self.KINDS[index % len(self.KINDS)]
            data, signature = kind(self)
            outcome, reason, _ = self.ledger.confirm(data.replace(b"\0", b"\1"), signature)
            said.setdefault(kind.__name__, set()).add(reason)
            if outcome in ACCEPTED:
                self.fail(f"seed {SEED}, {index}, {kind.__name__}: {outcome} {data} {signature}")
            if index % CHECK_EACH == 0:
                self.check_nothing_is_paid()
        self.check_nothing_is_paid()
        self.assertEqual(said["swapped"], {"BAD_SIGNATURE"})
        self.assertEqual(said["altered_signature"], {"BAD_SIGNATURE"} | (said["altered_signature"] & {"NO_SIGNATURE"}))
        self.assertEqual(said["swapped_attributes"], {"WRONG_ORDER"})
        self.assertLessEqual({"OWN_KEY", "NOT_SERVICE_KEY", "BAD_SIGNATURE", "UNKNOWN_KEY"}, said["signed_by_others"])
        # What they were made of is genuine: each pays its order, once, and replays pay nothing.
        outcomes = [self.ledger.confirm(*pair)[0] for pair in self.genuine * 3]
        self.assertEqual(outcomes, ["PAID_NOW"] * ORDERS + ["KNOWN_ALREADY"] * (2 * ORDERS))


if __name__ == "__main__":
    unittest.main()
