"""What all walks of a shopper have in common: the stage, the browser, and what a shopper does and sees.

CMakeLists.txt tells in the environment which programs to use and where to keep what a failure looked like. With
KVX_BROWSER_SCREENSHOTS=DIRECTORY every page of a walk is kept there as a picture, to be looked at.
"""

import os
import pathlib
import re
import shutil
import time
import unittest
import urllib.parse

from selenium.common.exceptions import WebDriverException
from selenium.webdriver.common.by import By

from browser import Browser
from server import TIMEOUT_SECONDS
from stage import Stage


class WalkCase(unittest.TestCase):
    """One browser for all walks of a class. Each walk has a window, a sandbox and a shop of its own.

    Elements are found by what a form sends, not by how a page looks or what it says. An order goes by its path in the
    shop, "/orders/...".
    """

    certificates = None

    @classmethod
    def setUpClass(cls):
        cls.browser = Browser(cls.certificates and cls.certificates.authority)
        cls.addClassCleanup(cls.browser.close)

    def __init__(self, method):
        super().__init__(method)
        self.walk = getattr(self, method)
        setattr(self, method, self.walk_and_keep_failure)

    def setUp(self):
        name = self.id().partition(".")[2]
        self.evidence = pathlib.Path(os.environ["KVX_BROWSER_FAILURES"], name)
        shutil.rmtree(self.evidence, ignore_errors=True)
        album = os.environ.get("KVX_BROWSER_SCREENSHOTS")
        self.album = pathlib.Path(album, name) if album else None
        self.pages_seen = 0
        self.stage = Stage(self.addCleanup, self.certificates)
        self.browser.open_window()
        self.addCleanup(self.browser.close_window)

    def walk_and_keep_failure(self):
        try:
            self.walk()
        except Exception as failure:
            failure.add_note(f"What the browser showed is kept in {self.evidence}")
            try:
                self.browser.keep_evidence(self.evidence)
            except (WebDriverException, OSError) as further:
                failure.add_note(f"Not all of it could be kept: {further}")
            raise

    def tearDown(self):
        hosts = {urllib.parse.urlsplit(address).hostname for address in self.browser.addresses()}
        self.assertLessEqual(hosts, {"127.0.0.1"})

    def look(self, what):
        """Keeps a picture of the page when pictures are wanted."""
        self.pages_seen += 1
        if self.album:
            self.album.mkdir(parents=True, exist_ok=True)
            self.browser.save_screenshot(self.album / f"{self.pages_seen:02}-{what}.png")

    # What a shopper does. The page to which it leads is there afterwards.

    def open(self, address, what):
        """`address` is one of the shop's paths, or an address."""
        self.browser.open(urllib.parse.urljoin(self.stage.shop, address))
        self.look(what)

    def press(self, selector, what):
        self.browser.press(self.browser.one(selector))
        self.look(what)

    def put_in_basket(self, article, quantity):
        self.open("/", "catalogue")
        form = self.offer(article)
        field = form.find_element(By.NAME, "quantity")
        field.clear()
        field.send_keys(str(quantity))
        self.browser.press(form.find_element(By.TAG_NAME, "button"))
        self.look("basket")

    def check_out(self):
        """From the basket to the payment page. Returns the order."""
        self.press("form[action='/checkout'] button", "payment")
        return self.order_to_be_paid()

    def start_buying_a_candle(self):
        self.put_in_basket("candle", 1)
        return self.check_out()

    def decide(self, decision):
        self.press(f"button[name=decision][value={decision}]", "after-" + decision)

    def pay_again(self, order):
        """From the order's page to the payment page."""
        self.press(f"form[action='{order}/pay'] button", "payment")
        self.assertEqual(self.order_to_be_paid(), order)

    def pay_after_all(self, order):
        """From the order's page, once nothing fails any more."""
        self.stage.lift_faults()
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)

    # What a shopper sees.

    def offer(self, article):
        """The form that puts an article into the basket."""
        return next(form for form in self.browser.all("form[action='/basket/add']")
                    if form.find_element(By.NAME, "article").get_attribute("value") == article)

    def basket(self):
        """The quantities in the basket, by article."""
        self.open("/basket", "basket")
        fields = self.browser.all("form[action='/basket/update'] input")
        return {field.get_attribute("name").partition("-")[2]: field.get_attribute("value") for field in fields}

    def order_to_be_paid(self):
        """The order on the payment page."""
        address = self.browser.address()
        self.assertTrue(address.startswith(self.stage.pay + "?"), address)
        message = urllib.parse.parse_qs(urllib.parse.urlsplit(address).query)["DATA"][0]
        return "/orders/" + re.search(r' ORDERID="([^"]*)"', message).group(1)

    def check_order(self, order, state):
        """The shop shows this order in this state."""
        self.assertEqual(self.browser.address(), urllib.parse.urljoin(self.stage.shop, order))
        self.assertEqual(self.browser.one("h1").text, f"Order {order.rpartition('/')[2]}: {state}")

    def wait_for_completion(self, order):
        """The shopper loads the order's page again until it is completed."""
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while time.monotonic() < deadline:
            self.open(order, "order")
            if self.browser.one("h1").text.endswith(": completed"):
                return
        self.check_order(order, "completed")

    def check_paid(self, order):
        """The shop shows this order as paid and captured, and does not offer to pay it once more."""
        self.check_order(order, "completed")
        lines = self.browser.text().splitlines()
        for call in ("MessageObject_Capture", "MessageObject_Execute (PayComplete)"):
            self.assertEqual([line for line in lines if line.startswith(call)], [call + " 0 ok"])
        self.assertEqual(self.browser.all("main button"), [])

    def check_refused(self, order, *reasons):
        """The shop shows why it did not carry something out, and captured nothing. Goes on to the order."""
        text = self.browser.text()
        self.assertEqual([words for words in (*reasons, "MessageObject_Capture") if words in text], [*reasons])
        self.press(f"main a[href='{order}']", "order")

    def payment_states(self, order):
        """How the payments of the order stand at the payment service."""
        self.open(self.stage.payments, "payments")
        rows = [[cell.text for cell in row.find_elements(By.TAG_NAME, "td")]
                for row in self.browser.all("section[aria-labelledby=payments] tbody tr")]
        return [row[-1] for row in rows if order.rpartition("/")[2] in row]

    def return_address(self, order):
        """With what the payment service sent the browser back to the shop."""
        start = urllib.parse.urljoin(self.stage.shop, order + "/paid?")
        return next(address for address in self.browser.addresses() if address.startswith(start))
