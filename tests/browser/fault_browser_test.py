"""Purchases in a browser while the payment service fails: what shoppers see, and how they can still pay.

Order, along a purchase: expired payments, faults of the payment page over http and https, faults on the return to the
shop, faults of capture and completion. Every test ends with a paid order.
"""

import signal
import unittest

from shop_fixture import Certificates
from browser_case import BrowserCase


class ExpiredPayments(BrowserCase):
    def test_decides_too_late(self):
        order = self.start_buying_a_candle()
        self.fixture.set_clock_ahead(hours=2)
        self.decide("pay")
        self.pay_in_time_after_all(order)

    def test_opens_the_payment_page_too_late(self):
        self.fixture.set_clock_ahead(hours=2)
        order = self.start_buying_a_candle()
        self.assertIn("expired", self.browser.text())
        self.assertEqual(self.browser.all("button[name=decision]"), [])
        self.press("main a", "return")
        self.pay_in_time_after_all(order)

    def pay_in_time_after_all(self, order):
        """The shop knows that the payment has expired. The shopper pays with a new one."""
        self.check_order(order, "expired")
        self.assertEqual(self.payment_states(order), ["expired"])
        self.fixture.set_clock_ahead(hours=0)
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)
        self.assertEqual(sorted(self.payment_states(order)), ["completed", "expired"])

    def test_pays_from_the_order_page_when_it_was_too_late(self):
        self.fixture.set_seconds_to_pay(-3600)
        order = self.start_buying_a_candle()
        self.assertEqual(self.browser.all("button[name=decision]"), [])
        self.fixture.set_seconds_to_pay(3600)
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)
        self.assertEqual(sorted(self.payment_states(order)), ["completed", "expired"])


class PaymentPageFaults(BrowserCase):
    """Faults of the payment page."""

    def try_again(self, shown, **fault):
        """The browser shows `shown`, or an empty page. The shopper then pays from the order's page."""
        self.fixture.arm(exchange="page", **fault)
        order = self.start_buying_a_candle()
        self.assertRegex(self.browser.text(), shown or "^$")
        self.assertEqual(self.browser.all("button[name=decision]"), [])
        self.pay_after_all(order)
        self.assertEqual(self.payment_states(order), ["completed"])

    def work(self, **fault):
        """The fault does not keep the shopper from paying."""
        self.fixture.arm(exchange="page", **fault)
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)

    def test_refused_connection(self):
        self.put_in_basket("candle", 1)
        self.fixture.arm(kind="refuse")
        self.press("form[action='/checkout'] button", "payment")
        order = self.order_to_be_paid()
        self.assertIn("ERR_CONNECTION_REFUSED", self.browser.text())
        self.pay_after_all(order)

    def test_reset(self):
        self.try_again("ERR_CONNECTION_RESET", kind="reset", times="always")

    def test_drop(self):
        self.try_again("ERR_EMPTY_RESPONSE", kind="drop", times="always")

    def test_stall_before(self):
        self.try_again("ERR_EMPTY_RESPONSE", kind="stall-before", seconds=0.2, times="always")

    def test_stall_inside(self):
        self.try_again("", kind="stall-inside", seconds=0.2, times="always")

    def test_truncate(self):
        self.try_again("", kind="truncate", times="always")

    def test_no_blank_line(self):
        self.try_again("", kind="no-blank-line", times="always")

    def test_status(self):
        self.try_again("Closed for today", kind="http-status", status=503, text="Closed for today")

    def test_delay(self):
        self.work(kind="delay", seconds=0.5)

    def test_bytewise(self):
        self.work(kind="bytewise")

    def test_nul_bytes(self):
        self.work(kind="nul-bytes")

    def test_twice(self):
        self.work(kind="twice")

    def test_huge(self):
        self.work(kind="huge", megabytes=1)


class SecurePageFaults(BrowserCase):
    """Faults of the payment page over https. The browser trusts the sandbox's certificate authority."""

    @classmethod
    def setUpClass(cls):
        cls.certificates = Certificates(cls.addClassCleanup)
        super().setUpClass()

    def try_again(self, shown, kind):
        """The browser shows the error `shown`. The shopper pays after the fault is lifted."""
        self.put_in_basket("candle", 1)
        self.fixture.arm(kind=kind, times="always")
        self.press("form[action='/checkout'] button", "payment")
        order = self.order_to_be_paid()
        self.assertIn(shown, self.browser.text())
        self.assertEqual(self.browser.all("button[name=decision]"), [])
        self.pay_after_all(order)

    def test_pays(self):
        order = self.start_buying_a_candle()
        self.assertTrue(self.browser.address().startswith("https://"))
        self.decide("pay")
        self.check_paid(order)

    def test_expired_certificate(self):
        self.try_again("ERR_CERT_DATE_INVALID", "tls-expired")

    def test_certificate_for_another_host(self):
        self.try_again("ERR_CERT_COMMON_NAME_INVALID", "tls-wrong-host")

    def test_certificate_from_an_unknown_authority(self):
        self.try_again("ERR_CERT_AUTHORITY_INVALID", "tls-unknown-authority")

    def test_aborted_handshake(self):
        self.try_again("ERR_CONNECTION_CLOSED", "tls-abort")


class ReturnFaults(BrowserCase):
    """Faults after the shopper's decision, on the return to the shop."""

    def refuse(self, *reasons, **fault):
        """The shop refuses the confirmation for these reasons."""
        self.fixture.arm(exchange="decision", **fault)
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_refused(order, *reasons)
        self.check_order(order, "waiting")
        self.assertEqual(self.payment_states(order), ["authorised"])
        self.return_from_payment_page(order)

    def return_from_payment_page(self, order):
        """The payment is decided, so its page only has a link to the shop."""
        self.open(order, "order")
        self.pay_again(order)
        self.assertEqual(self.browser.all("button[name=decision]"), [])
        self.press("main a", "return")
        self.check_paid(order)

    def test_wrong_signature(self):
        self.refuse("BAD_SIGNATURE", kind="wrong-signature")

    def test_wrong_key(self):
        self.refuse("BAD_SIGNATURE", kind="wrong-key")

    def test_stale_key(self):
        self.refuse("signed with a new key", kind="stale-key")

    def test_wrong_type(self):
        self.refuse("WRONG_TYPE", kind="wrong-type")

    def test_other_order(self):
        """A fault that is armed for one order leaves another alone."""
        self.fixture.arm(kind="wrong-signature", exchange="decision", order="another", times="always")
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)

    def test_lost_decision(self):
        for fault in ({"kind": "reset"}, {"kind": "http-status", "status": 500, "text": "Out of order"}):
            with self.subTest(fault["kind"]):
                self.fixture.arm(exchange="decision", times="always", **fault)
                order = self.start_buying_a_candle()
                self.decide("pay")
                self.assertEqual(self.payment_states(order), ["opened"])
                self.pay_after_all(order)

    def test_notification_replaces_a_lost_response(self):
        self.fixture.allow_notifications()
        self.fixture.arm(kind="drop", exchange="decision", times="always")
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.assertIn("ERR_EMPTY_RESPONSE", self.browser.text())
        self.open(order, "order")
        self.check_paid(order)
        self.assertEqual([cause for name, cause in self.events() if name == "confirmed_paid"], ["notification"])
        self.assertEqual(self.payment_states(order), ["completed"])

    def test_lost_response(self):
        self.fixture.arm(kind="drop", exchange="decision", times="always")
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.assertIn("ERR_EMPTY_RESPONSE", self.browser.text())
        self.fixture.lift_faults()
        self.assertEqual(self.payment_states(order), ["authorised"])
        self.return_from_payment_page(order)


class SettlementFaults(BrowserCase):
    """The first capture or completion fails."""

    FAULTS = ("error", "http-status", "reset", "drop", "truncate", "no-blank-line", "wrong-type")

    def settle(self, exchange):
        """Nobody presses a button: the order's page renews itself until the shop has settled it."""
        for kind in self.FAULTS:
            with self.subTest(kind):
                self.fixture.arm(kind=kind, exchange=exchange)
                order = self.start_buying_a_candle()
                self.decide("pay")
                self.check_paid(order)
                self.assertEqual(self.payment_states(order), ["completed"])

    def test_capture(self):
        self.settle("capture")

    def test_completion(self):
        self.settle("complete")


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # so that exit handlers run
    unittest.main()
