"""The live page of the dashboard in a browser: it shows a payment as soon as something happens to it.

Order: with scripts, then without. CMakeLists.txt sets KVX_ROOT to the tree, for the classes of the sandbox's tests.
"""

import json
import unittest
import urllib.request

from selenium.common.exceptions import WebDriverException
from selenium.webdriver.support.wait import WebDriverWait

from browser import POLL_SECONDS, Browser
from driving_page_test import Driven
from server_process import TIMEOUT_SECONDS


class LiveCase(Driven):
    """A sandbox with a merchant's key, and a browser at the live page."""

    def open_live_page(self, scripts):
        self.start()
        self.publish()
        self.browser = Browser(scripts=scripts)
        self.addCleanup(self.browser.close)
        self.browser.open_window()
        self.browser.open(self.addresses["dashboard"] + "?live=1")

    def pay(self, payment):
        request = urllib.request.Request(f"{self.addresses['control']}/payments/{payment}/decision",
                                         json.dumps({"decision": "pay"}).encode(), {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=TIMEOUT_SECONDS) as response:
            self.assertEqual(response.status, 200)

    def wait_for(self, shown):
        """Until the page lists payments with these states, newest first."""
        def states(_):
            return [element.text for element in self.browser.all(".payments summary .state")] == shown
        # Commands may fail while one page replaces another.
        WebDriverWait(self.browser.driver, TIMEOUT_SECONDS, POLL_SECONDS, [WebDriverException]).until(states, shown)


class LiveDashboard(LiveCase):
    def test_shows_what_happens_without_being_loaded_again(self):
        self.open_live_page(scripts=True)
        page = self.browser.page()
        first = self.open_payment("t1", "A-17")
        self.wait_for(["opened"])
        self.pay(first)
        self.wait_for(["authorised"])
        self.open_payment("t2", "A-18")
        self.wait_for(["opened", "authorised"])
        self.assertEqual(self.browser.page(), page)

    def test_keeps_what_is_unfolded_and_typed(self):
        self.open_live_page(scripts=True)
        first = self.open_payment("t1", "A-17")
        self.wait_for(["opened"])
        self.browser.one(".payments summary").click()
        self.browser.one("input[name=order]").send_keys("A-1")
        self.pay(first)
        self.wait_for(["authorised"])
        self.assertTrue(self.browser.one(".payments details").get_attribute("open"))
        self.assertEqual(self.browser.one("input[name=order]").get_attribute("value"), "A-1")


class LiveDashboardWithoutScripts(LiveCase):
    def test_refreshes_itself(self):
        self.open_live_page(scripts=False)
        page = self.browser.page()
        self.open_payment("t1", "A-17")
        self.wait_for(["opened"])
        self.assertNotEqual(self.browser.page(), page)


if __name__ == "__main__":
    unittest.main()
