"""Purchases in a browser: catalogue, basket, the service's payment page, return to the shop. Scripts are off.

Order: purchases that end well, messages that the shop refuses, and use without scripts, on a phone and with the
keyboard alone.
"""

import signal
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from browser_case import BrowserCase

PHONE_WIDTH = 320
PHONE_HEIGHT = 640


class Purchase(BrowserCase):
    def test_pays_for_several_articles(self):
        self.put_in_basket("candle", 2)
        self.put_in_basket("mug", 1)
        self.assertEqual(self.basket(), {"candle": "2", "mug": "1"})
        order = self.check_out()
        self.assertIn(order.rpartition("/")[2], self.browser.text())
        self.assertIn("47.85", self.browser.text())
        self.decide("pay")
        self.check_paid(order)
        self.assertEqual(self.basket(), {})
        self.assertEqual(self.payment_states(order), ["completed"])

    def test_pays_again_after_a_decline(self):
        order = self.start_buying_a_candle()
        self.decide("decline")
        self.check_order(order, "declined")
        self.assertEqual(self.payment_states(order), ["declined"])
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)
        self.assertEqual(sorted(self.payment_states(order)), ["completed", "declined"])

    def test_goes_back_to_the_shop_after_a_cancellation(self):
        order = self.start_buying_a_candle()
        self.decide("cancel")
        self.check_order(order, "cancelled")
        self.assertEqual(self.basket(), {"candle": "1"})
        self.assertEqual(self.payment_states(order), ["cancelled"])

    def test_pays_after_loading_the_payment_page_again(self):
        order = self.start_buying_a_candle()
        self.browser.leave(self.browser.driver.refresh)
        self.screenshot("payment")
        self.assertEqual(self.order_to_be_paid(), order)
        self.decide("pay")
        self.check_paid(order)
        self.assertEqual(self.payment_states(order), ["completed"])

    def test_pays_once_when_going_back_to_pay_again(self):
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)
        self.browser.leave(self.browser.driver.back)
        self.screenshot("payment")
        self.assertEqual(self.order_to_be_paid(), order)
        self.decide("pay")
        self.check_refused(order)
        self.check_paid(order)
        self.assertEqual(self.payment_states(order), ["completed"])

    def test_pays_after_the_payment_service_changed_its_key(self):
        order = self.start_buying_a_candle()
        self.fixture.ask("POST", "/keys/rotate", {})
        self.decide("pay")
        self.check_paid(order)

    def test_pays_once_when_returning_twice(self):
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)
        self.open(self.return_address(order), "return")
        self.check_refused(order)
        self.check_paid(order)
        self.assertEqual(self.payment_states(order), ["completed"])


class Refusals(BrowserCase):
    """Messages that do not pay an order. The order keeps its state."""

    def test_own_payment_message(self):
        order = self.start_buying_a_candle()
        payment = self.browser.address()
        self.open(payment.replace(self.fixture.pay, order + "/paid"), "return")
        self.check_refused(order, "MSGTYPE", "PayInit")
        self.check_order(order, "waiting")
        self.pay_again(order)
        self.assertEqual(self.browser.address(), payment)
        self.assertEqual(self.payment_states(order), ["opened"])

    def test_confirmation_of_another_order(self):
        paid = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(paid)
        confirmation = self.return_address(paid)
        order = self.start_buying_a_candle()
        self.open(confirmation.replace(paid, order), "return")
        self.check_refused(order, "ORDERID", paid.rpartition("/")[2])
        self.check_order(order, "waiting")
        self.assertEqual(self.payment_states(order), ["opened"])
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)


class Accessibility(BrowserCase):
    def test_without_scripts(self):
        self.open("data:text/html,<noscript>Scripts are off.</noscript>", "scripts")
        self.assertEqual(self.browser.text(), "Scripts are off.")
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)

    def test_on_a_phone(self):
        self.browser.emulate_phone(PHONE_WIDTH, PHONE_HEIGHT)
        order = self.start_buying_a_candle()
        self.assertLessEqual(self.browser.size()["width"], PHONE_WIDTH)
        buttons = self.browser.all("button[name=decision]")
        self.assertEqual([button.get_attribute("value") for button in buttons], ["pay", "decline", "cancel"])
        self.assertEqual([button.text for button in buttons if not self.is_on_screen(button)], [])
        self.decide("pay")
        self.check_paid(order)

    def test_with_the_keyboard_alone(self):
        self.open("/", "catalogue")
        self.enter_on(self.offer("candle").find_element(By.TAG_NAME, "button"), "basket")
        self.enter_on(self.browser.one("form[action='/checkout'] button"), "payment")
        order = self.order_to_be_paid()
        self.enter_on(self.browser.one("button[name=decision][value=pay]"), "after-pay")
        self.check_paid(order)

    @staticmethod
    def is_on_screen(button):
        """Whether the button's whole width is visible. The page may need vertical scrolling."""
        rectangle = button.rect
        return button.is_displayed() and rectangle["x"] >= 0 and rectangle["x"] + rectangle["width"] <= PHONE_WIDTH

    def enter_on(self, button, name):
        """Moves to a button with Tab, checks that the focus is visible, and presses Enter."""
        self.browser.tab_to(button)
        self.screenshot("focus")
        self.assertNotEqual(button.value_of_css_property("outline-style"), "none")
        self.assertNotEqual(button.value_of_css_property("outline-width"), "0px")
        self.browser.leave(lambda: self.browser.press_key(Keys.ENTER))
        self.screenshot(name)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # so that exit handlers run
    unittest.main()
