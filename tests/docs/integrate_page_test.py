"""The shop on docs/integrate.md, run against a sandbox: the page's blocks in SQL and Python, as they stand."""

import json
import os
import pathlib
import re
import sqlite3
import threading
import unittest
import urllib.request

import tallowin
from sandboxcase import RESPONSE_SECONDS, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
PAGE = (ROOT / "docs" / "integrate.md").read_text()


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


class IntegratePage(SandboxCase):
    def setUp(self):
        super().setUp()
        with tallowin.ConfigurationSetup(self.merchant) as setup:
            setup.reconfigure(self.service, "demo", "demo")
        (self.merchant / "settings.xml").write_text('<KVX PROFILE="strict"/>')
        schema, = blocks("sql")
        self.shop = {"DIRECTORY": self.merchant}
        for block in blocks("python"):
            exec(compile(block, "docs/integrate.md", "exec"), self.shop)  # pylint: disable=exec-used
        self.file = self.directory / "shop.db"
        self.database = self.connect()
        self.database.executescript(schema)

    def connect(self):
        connection = sqlite3.connect(self.file, timeout=RESPONSE_SECONDS)
        self.addCleanup(connection.close)
        return connection

    def pay(self, order=1, amount="19.90"):
        return self.shop["pay"](self.database, order, amount, "EUR")

    def confirmed(self, data, signature):
        return self.shop["confirmed"](self.database, data, signature)

    def stored(self):
        return [row[0] for row in self.database.execute("SELECT state FROM payments ORDER BY rowid")]

    def arm(self, **fault):
        request = urllib.request.Request(self.addresses["control"] + "/faults", json.dumps(fault).encode(),
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=RESPONSE_SECONDS) as response:
            self.assertEqual(response.status, 201)

    def test_pays_and_captures_once_however_often_the_confirmation_comes(self):
        back = parameters(self.browser.decide(self.pay(), "pay"))
        self.assertEqual([self.confirmed(*back) for _ in range(2)], ["paid", "paid"])
        self.assertEqual(self.shop["capture_paid"](self.database), [])
        self.assertEqual(self.confirmed(*back), "captured")
        self.assertEqual((self.stored(), self.states()), (["captured"], ["captured"]))

    def test_two_confirmations_at_once_change_the_row_once(self):
        self.database.execute("CREATE TABLE changes (token TEXT)")
        self.database.execute("CREATE TRIGGER changed AFTER UPDATE ON payments BEGIN INSERT INTO changes VALUES (new.token); END")
        self.database.commit()
        back = parameters(self.browser.decide(self.pay(), "pay"))
        states = []

        def deliver():
            connection = sqlite3.connect(self.file, timeout=RESPONSE_SECONDS)
            states.append(self.shop["confirmed"](connection, *back))
            connection.close()

        threads = [threading.Thread(target=deliver) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(states, ["paid"] * 4)
        self.assertEqual(self.database.execute("SELECT count(*) FROM changes").fetchone(), (1,))

    def test_a_cancelled_payment_is_refused_and_the_order_paid_by_the_next(self):
        self.assertEqual(self.confirmed(*parameters(self.browser.decide(self.pay(), "cancel"))), "refused")
        self.assertEqual(self.confirmed(*parameters(self.browser.decide(self.pay(), "pay"))), "paid")
        self.assertEqual(self.stored(), ["refused", "paid"])

    def test_refuses_what_is_no_confirmation_of_a_payment(self):
        own_url = self.pay()
        data, signature = parameters(self.browser.decide(own_url, "pay"))
        cases = [
            (tallowin.ResultError, parameters(own_url)),  # the shop's own message, signed by itself
            (tallowin.ResultError, (data.replace("19.90", "19.91"), signature)),
            (tallowin.ResultError, (data, signature[:-1] + ("0" if signature[-1] != "0" else "1"))),
            (tallowin.ResultError, (data, "")),
            (ValueError, (data + " " * 20000, signature)),
        ]
        for kind, confirmation in cases:
            with self.assertRaises(kind):
                self.confirmed(*confirmation)
        with self.database:
            self.database.execute("UPDATE payments SET amount = '1990'")
        with self.assertRaises(tallowin.MismatchError):
            self.confirmed(data, signature)
        with self.database:
            self.database.execute("DELETE FROM payments")
        with self.assertRaises(ValueError):
            self.confirmed(data, signature)

    def test_captures_again_after_a_lost_response(self):
        self.confirmed(*parameters(self.browser.decide(self.pay(), "pay")))
        self.arm(kind="drop", exchange="capture")
        (_, failure), = self.shop["capture_paid"](self.database)
        self.assertIsInstance(failure, tallowin.ResultError)
        self.assertEqual((self.stored(), self.states()), (["paid"], ["captured"]))
        self.assertEqual(self.shop["capture_paid"](self.database), [])
        self.assertEqual((self.stored(), self.states()), (["captured"], ["captured"]))

    def test_a_response_that_does_not_come_ends_with_the_limit(self):
        (self.merchant / "settings.xml").write_text('<KVX PROFILE="strict" TOTALTIMEOUT="1"/>')
        self.confirmed(*parameters(self.browser.decide(self.pay(), "pay")))
        self.arm(kind="stall-before", exchange="capture", seconds=30)
        (_, failure), = self.shop["capture_paid"](self.database)
        self.assertEqual(f"0x{failure.code & 0xFFFFFFFF:08X}", "0x8004303C")
        self.assertIn("0x8004303C", PAGE)


if __name__ == "__main__":
    unittest.main()
