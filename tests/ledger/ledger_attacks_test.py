"""What a service, a second account or a damaged row must not bring about."""

import pathlib
import sqlite3
import tempfile
import unittest

from ledgerface import Ledger, LedgerFailure
from stubservice import Account, StubService

GRACE_MILLISECONDS = 300 * 1000


class LedgerAttacks(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="tallowin-tests-")
        self.addCleanup(temporary.cleanup)
        self.place = pathlib.Path(temporary.name)
        self.store = self.place / "orders.db"

    def shop(self, respond, name="account", **options):
        """An account at a service of its own, and a ledger on the store of the test."""
        service = StubService(respond)
        self.addCleanup(service.stop)
        account = Account(self.place / name, service.url)
        ledger = Ledger(self.store, account.directory, JITTER=0, **options)
        self.addCleanup(ledger.close)
        return ledger, account, service

    @staticmethod
    def pass_expiry(ledger, number):
        expires = ledger.order(number)["attempts"][0]["expires"]
        ledger.option("NOW", expires + GRACE_MILLISECONDS)

    def test_a_status_response_about_another_payment_pays_nothing(self):
        answers = []
        ledger, _, _ = self.shop(lambda _: answers.pop(), STATUSTYPE="Status", CAPTURE=0, RETRYBASE=3600)
        for name, wrong in {"ORDERID": "A-2", "AMOUNT": "0.01", "CURRENCY": "USD", "TOKEN": "1"}.items():
            with self.subTest(name):
                number = f"A-{name}"
                ledger.option("NOW", "")
                ledger.begin(number)
                said = {"ORDERID": number, "AMOUNT": "12.50", "CURRENCY": "EUR", name: wrong}
                text = "".join(f' {key}="{value}"' for key, value in said.items())
                answers.append(f'<KVX MSGTYPE="StatusResponse" STATE="captured"{text}/>'.encode())
                self.pass_expiry(ledger, number)
                ledger.run(1)
                self.assertEqual((ledger.state(number), ledger.next_paid()), ("waiting", None))
                self.assertEqual(answers, [])

    def test_a_response_about_another_payment_completes_nothing(self):
        responses = {"PayConfirm": b'<KVX MSGTYPE="PayConfirm"/>',
                     "PayCompleteRequest": b'<KVX MSGTYPE="PayCompleteResponse" ID="P-OTHER"/>'}
        ledger, account, _ = self.shop(lambda request: responses[request["MSGTYPE"]], COMPLETE=1)
        data = account.confirmation(ledger.begin("A-1"), "authorised")
        self.assertEqual(ledger.confirm(data, account.sign(data))[0], "PAID_NOW")
        ledger.run(2)
        self.assertEqual(ledger.state("A-1"), "completion_unknown")
        self.assertIn("P-OTHER", ledger.order("A-1")["lastReason"])

    def test_a_status_response_with_another_id_settles_no_doubt(self):
        def respond(request):
            return None if request["MSGTYPE"] == "PayConfirm" else \
                b'<KVX MSGTYPE="StatusResponse" STATE="captured" ID="P-OTHER"/>'

        ledger, account, _ = self.shop(respond, STATUSTYPE="Status", SETTLESECONDS=0, RETRYBASE=0)
        data = account.confirmation(ledger.begin("A-1"), "authorised")
        self.assertEqual(ledger.confirm(data, account.sign(data))[0], "PAID_NOW")
        ledger.run(2)
        self.assertEqual(ledger.state("A-1"), "unknown")

    def test_one_refusal_of_a_status_request_does_not_lose_a_payment(self):
        answers = [b'<KVX MSGTYPE="Error" MESSAGE="maintenance, try again"/>',
                   b'<KVX MSGTYPE="StatusResponse" STATE="authorised"/>']
        ledger, _, _ = self.shop(lambda _: answers.pop(0), STATUSTYPE="Status", CAPTURE=0, RETRYBASE=0)
        ledger.begin("A-1")
        self.pass_expiry(ledger, "A-1")
        ledger.run(1)
        ledger.run(1)
        self.assertEqual(ledger.state("A-1"), "authorised")

    def test_a_worker_captures_nothing_of_another_account(self):
        first, account, _ = self.shop(lambda _: b'<KVX MSGTYPE="PayConfirm"/>', "first")
        url = first.begin("1001")
        data = account.confirmation(url, "authorised")
        self.assertEqual(first.confirm(data, account.sign(data))[0], "PAID_NOW")
        try:
            second, _, service = self.shop(lambda _: b'<KVX MSGTYPE="PayConfirm"/>', "second")
        except LedgerFailure:
            return  # a store of another account is refused
        second.run()
        self.assertEqual((service.requests, second.state("1001")), ([], "authorised"))

    def test_a_damaged_row_stops_no_other_order(self):
        ledger, account, _ = self.shop(lambda _: b'<KVX MSGTYPE="PayConfirm"/>')
        for number in ("A-1", "A-2"):
            data = account.confirmation(ledger.begin(number), "authorised")
            self.assertEqual(ledger.confirm(data, account.sign(data))[0], "PAID_NOW")
        with sqlite3.connect(self.store) as stranger:
            stranger.execute("UPDATE attempts SET state = 'paused', due_at = 0 WHERE order_id = 1")
        stranger.close()
        ledger.run()
        self.assertEqual(ledger.state("A-2"), "captured")
        self.assertEqual((ledger.numbers("attention"), ledger.numbers("")), (["A-1"], ["A-1", "A-2"]))
        self.assertRaisesRegex(LedgerFailure, 'DAMAGED.*in the state "paused"', ledger.state, "A-1")
        with sqlite3.connect(self.store) as stranger:
            stranger.execute("UPDATE orders SET told_at = NULL")
        stranger.close()
        self.assertEqual(ledger.next_paid(), "A-2")
        with sqlite3.connect(self.store) as stranger:
            stranger.execute("UPDATE attempts SET state = 'authorised' WHERE order_id = 1")
        stranger.close()
        ledger.run()
        self.assertEqual((ledger.state("A-1"), ledger.numbers("attention")), ("captured", []))


if __name__ == "__main__":
    unittest.main()
