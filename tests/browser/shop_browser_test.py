"""Purchases in a browser: catalogue, basket, the service's payment page, return to the shop. Scripts are off.

Order: purchases that end well, messages that the shop refuses, and use without scripts, on a phone and with the
keyboard alone.
"""

import re
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
        if self.browser.all("button[name=decision]"):  # the browser has kept the page
            self.decide("pay")
        else:  # or loaded it again: the payment is decided
            self.press("main a", "return")
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
        self.check_paid(order)
        self.assertEqual(self.payment_states(order), ["completed"])


    def test_shows_a_paid_page_that_renews_itself(self):
        order = self.start_buying_a_candle()
        self.fixture.arm(kind="drop", exchange="capture")
        self.decide("pay")
        self.check_order(order, "paid")
        self.check_paid(order)

    def test_leads_to_the_payment_on_the_dashboard(self):
        order = self.start_buying_a_candle()
        self.decide("pay")
        self.check_paid(order)
        self.press(".card a", "dashboard")
        self.assertIn(order.rpartition("/")[2], self.browser.text())


class Refusals(BrowserCase):
    """Messages that do not pay an order. The order keeps its state."""

    def test_own_payment_message(self):
        order = self.start_buying_a_candle()
        payment = self.browser.address()
        self.open(payment.replace(self.fixture.pay, order + "/paid"), "return")
        self.check_refused(order, "OWN_KEY")
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
        self.check_paid(paid)  # the confirmation counts, not the address that it came to
        self.open(order, "order")
        self.check_order(order, "waiting")
        self.assertEqual(self.payment_states(order), ["opened"])
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)


class Look(BrowserCase):
    """The shop on small and large screens, in light and dark."""

    WIDTHS = (320, 375, 1280)

    def test_fits_the_screen(self):
        self.put_in_basket("candle", 2)
        order = self.check_out()
        self.decide("pay")
        self.check_paid(order)
        self.put_in_basket("mug", 99)
        for scheme in ("light", "dark"):
            self.browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
            for width in self.WIDTHS:
                self.browser.command("Emulation.setDeviceMetricsOverride", width=width, height=800, deviceScaleFactor=1,
                                     mobile=width < 400)
                for address, name in (("/", "catalogue"), ("/basket", "basket"), (order, "order"), ("/orders/0", "missing")):
                    with self.subTest(scheme=scheme, width=width, page=name):
                        self.open(address, f"{name}-{width}-{scheme}")
                        self.assertLessEqual(self.browser.size()["width"], width)

    def test_has_readable_colours(self):
        self.put_in_basket("candle", 1)
        order = self.check_out()
        self.decide("decline")
        for scheme in ("light", "dark"):
            self.browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
            for address in ("/", "/basket", order):
                self.open(address, "colours")
                for text in self.browser.all("h1, h2, p, a, label, button, td, th, summary, small, .sign"):
                    with self.subTest(scheme=scheme, page=address, text=text.text):
                        self.assertGreaterEqual(self.contrast(text), 4.5)

    def contrast(self, element):
        """The contrast of the element's text with what is behind it (WCAG 2.1, 1.4.3)."""
        colour = element.value_of_css_property("color")
        behind = "rgba(0, 0, 0, 0)"
        while behind.endswith(", 0)"):
            behind = element.value_of_css_property("background-color")
            if element.tag_name == "html":
                break
            element = element.find_element(By.XPATH, "..")
        lighter, darker = sorted((self.luminance(colour), self.luminance(behind)), reverse=True)
        return (lighter + 0.05) / (darker + 0.05)

    @staticmethod
    def luminance(colour):
        parts = [int(part) / 255 for part in re.findall(r"\d+", colour)[:3]]
        red, green, blue = (part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4 for part in parts)
        return 0.2126 * red + 0.7152 * green + 0.0722 * blue


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
