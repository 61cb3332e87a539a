"""The base class of the browser tests: sandbox, shop and browser, actions of a shopper, checks of pages.

CMakeLists.txt sets environment variables for the programs to use and for the directory of failure reports. With
KVX_BROWSER_SCREENSHOTS=DIRECTORY each page of a test is saved there as a picture.

Order: life of a test, actions, checks. An action returns when the page it leads to has loaded.
"""

import os
import pathlib
import re
import shutil
import unittest
import urllib.parse

from selenium.common.exceptions import WebDriverException
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from browser import POLL_SECONDS, Browser
from server_process import TIMEOUT_SECONDS
from shop_fixture import ShopFixture


class BrowserCase(unittest.TestCase):
    """One browser per class. Each test has its own window, sandbox and shop.

    Tests find elements by the names and values that a form sends, not by layout or wording. `order` is always the
    order's path in the shop, "/orders/...".
    """

    certificates = None

    @classmethod
    def setUpClass(cls):
        cls.browser = Browser(cls.certificates and cls.certificates.authority)
        cls.addClassCleanup(cls.browser.close)

    def __init__(self, method):
        super().__init__(method)
        self.run_steps = getattr(self, method)
        setattr(self, method, self.run_and_report_failure)

    def setUp(self):
        name = self.id().partition(".")[2]
        self.report = pathlib.Path(os.environ["KVX_BROWSER_FAILURES"], name)
        shutil.rmtree(self.report, ignore_errors=True)
        screenshots = os.environ.get("KVX_BROWSER_SCREENSHOTS")
        self.screenshots = pathlib.Path(screenshots, name) if screenshots else None
        self.page_count = 0
        self.fixture = ShopFixture(self.addCleanup, self.certificates)
        self.browser.open_window()
        self.addCleanup(self.browser.close_window)

    def run_and_report_failure(self):
        try:
            self.run_steps()
        except Exception as failure:
            failure.add_note(f"The page, its picture and the driver's log are in {self.report}")
            try:
                self.browser.save_report(self.report)
            except (WebDriverException, OSError) as further:
                failure.add_note(f"The report is incomplete: {further}")
            raise

    def tearDown(self):
        hosts = {urllib.parse.urlsplit(address).hostname for address in self.browser.addresses()}
        self.assertLessEqual(hosts, {"127.0.0.1"})

    def screenshot(self, name):
        """Saves a picture of the page when KVX_BROWSER_SCREENSHOTS is set."""
        self.page_count += 1
        if self.screenshots:
            self.screenshots.mkdir(parents=True, exist_ok=True)
            self.browser.save_screenshot(self.screenshots / f"{self.page_count:02}-{name}.png")

    # Actions of a shopper.

    def open(self, address, name):
        """`address` is a path of the shop or a URL. `name` is for the screenshot, here and below."""
        self.browser.open(urllib.parse.urljoin(self.fixture.shop, address))
        self.screenshot(name)

    def press(self, selector, name):
        self.browser.press(self.browser.one(selector))
        self.screenshot(name)

    def put_in_basket(self, article, quantity):
        self.open("/", "catalogue")
        form = self.offer(article)
        field = form.find_element(By.NAME, "quantity")
        field.clear()
        field.send_keys(str(quantity))
        self.browser.press(form.find_element(By.TAG_NAME, "button"))
        self.screenshot("basket")

    def check_out(self):
        """Goes from the basket to the payment page. Returns the order."""
        self.press("form[action='/checkout'] button", "payment")
        return self.order_to_be_paid()

    def start_buying_a_candle(self):
        self.put_in_basket("candle", 1)
        return self.check_out()

    def decide(self, decision):
        self.press(f"button[name=decision][value={decision}]", "after-" + decision)

    def pay_again(self, order):
        """Goes from the order's page to the payment page."""
        self.press(f"form[action='{order}/pay'] button", "payment")
        self.assertEqual(self.order_to_be_paid(), order)

    def pay_after_all(self, order):
        """Lifts all faults and pays from the order's page."""
        self.fixture.lift_faults()
        self.open(order, "order")
        self.pay_again(order)
        self.decide("pay")
        self.check_paid(order)

    # Checks of what a shopper sees.

    def offer(self, article):
        """The form that adds an article to the basket."""
        return next(form for form in self.browser.all("form[action='/basket/add']")
                    if form.find_element(By.NAME, "article").get_attribute("value") == article)

    def basket(self):
        """The quantities in the basket, by article."""
        self.open("/basket", "basket")
        fields = self.browser.all("form[action='/basket/update'] input")
        return {field.get_attribute("name").partition("-")[2]: field.get_attribute("value") for field in fields}

    def order_to_be_paid(self):
        """The order of the payment page that the browser shows."""
        address = self.browser.address()
        self.assertTrue(address.startswith(self.fixture.pay + "?"), address)
        message = urllib.parse.parse_qs(urllib.parse.urlsplit(address).query)["DATA"][0]
        return "/orders/" + re.search(r' ORDERID="([^"]*)"', message).group(1)

    def check_order(self, order, state):
        """The browser shows the page of this order with this state."""
        self.assertEqual(self.browser.address(), urllib.parse.urljoin(self.fixture.shop, order))
        self.assertEqual(self.browser.one("h1").text, f"Order {order.rpartition('/')[2]}: {state}")

    def wait_for_completion(self, order):
        """The page renews itself until the order is completed."""
        title = f"Order {order.rpartition('/')[2]}: completed"
        # Commands may fail while one page replaces another.
        wait = WebDriverWait(self.browser.driver, TIMEOUT_SECONDS, POLL_SECONDS, [WebDriverException])
        wait.until(lambda _: self.browser.one("h1").text == title and self.browser.has_ended(), "the order is not completed")
        self.check_order(order, "completed")
        self.screenshot("completed")

    def events(self):
        """What the order's page lists: the names of events, and what has caused each."""
        lines = [line.text.replace(",", "").split() for line in self.browser.all(".history summary")]
        return [(line[0], line[-1]) for line in lines]

    def check_paid(self, order):
        """The browser shows the order as completed, with one capture and one completion, and no button to pay."""
        self.wait_for_completion(order)
        names = [name for name, _ in self.events()]
        for done, found in (("capture_done", "found_captured"), ("complete_done", "found_completed")):
            self.assertLessEqual(names.count(done), 1, names)
            self.assertTrue({done, found} & set(names), names)  # found: the response was lost, and the shop has asked
        self.assertEqual(self.browser.all("main button"), [])

    def check_refused(self, order, *reasons):
        """The browser shows an error page with these reasons, without events. Follows its link to the order."""
        text = self.browser.text()
        self.assertEqual([words for words in (*reasons, "begun") if words in text], [*reasons])
        self.press(f"main a[href='{order}']", "order")

    def payment_states(self, order):
        """The states of the order's payments, from the sandbox's dashboard."""
        self.open(self.fixture.payments, "payments")
        return [row.find_element(By.CSS_SELECTOR, ".state").text for row in self.browser.all(".payments summary")
                if row.find_element(By.CSS_SELECTOR, ".order").text == order.rpartition("/")[2]]

    def return_address(self, order):
        """The return address to which the payment service redirected the browser."""
        start = urllib.parse.urljoin(self.fixture.shop, order + "/paid?")
        return next(address for address in self.browser.addresses() if address.startswith(start))
