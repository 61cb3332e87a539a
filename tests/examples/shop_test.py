"""The shop, through its web pages, against a running sandbox.

CMakeLists.txt sets environment variables with the paths of all programs, as for examples_test.py; KVX_SHOP is the shop.
Each wait has a timeout, and none is for time to pass.

Order: pages and visitors, the base class, then basket, payment, late payment, keys, notifications, refusals, failings that
a shop must not have, a service that fails, load, a service that is down, and the program's options and signals.
"""

import html
import html.parser
import http.client
import http.server
import json
import os
import pathlib
import re
import signal
import socket
import sqlite3
import threading
import time
import unittest
import urllib.parse

from sandboxcase import UNREADABLE, Browser, Program, SandboxCase, parameters, private_keys

PAGE_SECONDS = 50
ASKS = 3  # MAXASKS of the shop: as often the service says that it knows no payment
OPENING = "The shop is open at "


class Page:
    """A response of the shop."""

    def __init__(self, status, headers, body):
        self.status = status
        self.location = headers.get("Location")
        self.headers = headers
        self.body = body
        self.text = html.unescape(re.sub(r"<[^>]*>", "", body))

    def renews_itself(self):
        return '<meta http-equiv="refresh"' in self.body

    def title(self):
        return html.unescape(re.search(r"<h1>(.*?)</h1>", self.body).group(1))


class Visitor:
    """A browser that keeps the shop's cookies."""

    def __init__(self, shop):
        self.shop = shop
        self.cookies = {}

    def request(self, address, form=None):
        """Sends a request to a path of the shop or a URL. Does not follow redirects."""
        parts = urllib.parse.urlsplit(urllib.parse.urljoin(self.shop, address))
        connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=PAGE_SECONDS)
        headers = {"Cookie": "; ".join(f"{name}={value}" for name, value in self.cookies.items())}
        if not self.cookies:
            headers = {}
        content = None
        if form is not None:
            content = urllib.parse.urlencode(form)
            headers["Content-Type"] = "application/x-www-form-urlencoded"
        try:
            connection.request("GET" if form is None else "POST", parts._replace(scheme="", netloc="").geturl(),
                               content, headers)
            response = connection.getresponse()
            page = Page(response.status, response.headers, response.read().decode())
        finally:
            connection.close()
        for cookie in page.headers.get_all("Set-Cookie", []):
            name, value = cookie.split(";")[0].split("=", 1)
            self.cookies[name] = value
        return page

    def follow(self, page):
        """Follows the redirect of a response inside the shop."""
        return self.request(page.location) if page.status == 303 else page


class Outline(html.parser.HTMLParser):
    """The elements of a page, for checks that hold for every page."""

    VOID = {"meta", "input", "link", "img"}

    def __init__(self, page):
        super().__init__()
        self.open = []
        self.tags = []
        self.strays = []
        self.feed(page)
        self.close()

    def handle_starttag(self, tag, attrs):
        self.tags.append((tag, dict(attrs)))
        if tag not in self.VOID:
            self.open.append(tag)

    def handle_endtag(self, tag):
        if self.open and self.open[-1] == tag:
            self.open.pop()
        else:
            self.strays.append(tag)

    def named(self, name):
        return [attributes for tag, attributes in self.tags if tag == name]


def replace_in(file, old, new):
    """Replaces the file at once, because the shop reads it at any time."""
    text = file.read_text()
    if old not in text:
        raise AssertionError(f"{file} has no {old}")
    fresh = file.with_name(file.name + ".new")
    fresh.write_text(text.replace(old, new))
    fresh.replace(file)


class ShopCase(SandboxCase):
    """Each test has its own shop."""

    def setUp(self):
        super().setUp()
        # Notifications are blocked: they would come at a time that the test does not control.
        self.control("/faults", {"kind": "drop", "exchange": "notification", "times": "always"})
        self.log = r"^$"  # what the shop may write to standard error
        self.shop = self.start()
        self.addCleanup(self.stop_shop)
        line = self.shop.line()
        self.assertRegex(line, "^" + OPENING + r"http://127\.0\.0\.1:\d+/$")
        self.address = line[len(OPENING):]
        self.visitor = Visitor(self.address)

    def start(self, *options, password="demo"):
        return Program(os.environ["KVX_SHOP"], self.merchant, self.service, "demo", *options,
                       env={**os.environ, "TALLOWIN_PASSWORD": password})

    def start_again(self):
        """A new shop at the address of the one that has ended."""
        self.shop = self.start("--port", urllib.parse.urlsplit(self.address).port)
        self.assertEqual(self.shop.line(), OPENING + self.address)

    def kill_shop(self):
        self.shop.process.kill()
        self.assertEqual(self.shop.finish(), (-signal.SIGKILL, "", ""))

    def stop_shop(self):
        status, out, errors = self.shop.stop()
        self.assertEqual((status, out), (0, ""))
        self.assertRegex(errors, self.log)

    def stop_shop_after(self, *messages):
        """Stops the shop, which has written these texts to standard error, and starts another."""
        status, out, errors = self.shop.stop()
        self.assertEqual((status, out), (0, ""))
        for message in messages:
            self.assertIn(message, errors)
        self.start_again()

    def control(self, path, content=None):
        """Sends GET, or POST with `content`, to the control API. Returns the response's JSON."""
        control = urllib.parse.urlsplit(self.addresses["control"])
        connection = http.client.HTTPConnection(control.hostname, control.port, timeout=PAGE_SECONDS)
        try:
            connection.request("GET" if content is None else "POST", control.path + path, json.dumps(content),
                               {"Content-Type": "application/json"})
            response = connection.getresponse()
            self.assertIn(response.status, (200, 201))
            return json.load(response)
        finally:
            connection.close()

    def check_page(self, page, status, *wanted):
        """The page has this status and these texts, and is well-formed, accessible HTML."""
        self.assertEqual(page.status, status, page.text)
        for text in wanted:
            self.assertIn(text, page.text)
        self.assertEqual(page.headers["Content-Type"], "text/html; charset=utf-8")
        outline = Outline(page.body)
        self.assertEqual((outline.open, outline.strays), ([], []))
        self.assertEqual([attributes["lang"] for attributes in outline.named("html")], ["en"])
        self.assertIn("viewport", [attributes.get("name") for attributes in outline.named("meta")])
        self.assertEqual([len(outline.named(tag)) for tag in ("title", "main", "h1", "script")], [1, 1, 1, 0])
        fields = [field["id"] for field in outline.named("input") if field.get("type") != "hidden"]
        self.assertEqual([label["for"] for label in outline.named("label")], fields)
        self.assertEqual(len(set(fields)), len(fields))
        return page

    def add(self, article, quantity, visitor=None):
        return (visitor or self.visitor).request("/basket/add", {"article": article, "quantity": quantity})

    def check_out(self, visitor=None):
        """Returns the payment URL."""
        page = self.order_with(self.checkout_key(visitor), visitor)
        self.assertEqual(page.status, 303, page.text)
        self.assertTrue(page.location.startswith(self.addresses["pay"] + "?DATA="), page.location)
        return page.location

    def checkout_key(self, visitor=None):
        """The number of the basket in the form on the basket's page. It becomes that of the order."""
        page = (visitor or self.visitor).request("/basket")
        return re.search(r'name="key" value="([0-9a-f-]{24})"', page.body).group(1)

    def order_with(self, key, visitor=None):
        return (visitor or self.visitor).request("/checkout", {"key": key})

    @staticmethod
    def together(count, call):
        """Calls `call` `count` times at the same time. Returns all results."""
        ready = threading.Barrier(count)
        results = []

        def call_with_the_others():
            ready.wait(PAGE_SECONDS)
            results.append(call())

        threads = [threading.Thread(target=call_with_the_others) for _ in range(count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return results

    def buy_candle(self):
        """Checks out with a candle in the basket. Returns the order's path and the payment URL."""
        self.assertEqual(self.add("candle", 1).status, 303)
        url = self.check_out()
        return self.order_of(url), url

    def buy_candle_too_late(self):
        """The same with a payment that has expired by the shop's clock. Later payments do not expire."""
        defaults = self.merchant / "default.xml"
        replace_in(defaults, 'PAYINITTTL="3600"', 'PAYINITTTL="-3600"')
        try:
            return self.buy_candle()
        finally:
            replace_in(defaults, 'PAYINITTTL="-3600"', 'PAYINITTTL="3600"')

    @staticmethod
    def order_of(url):
        return "/orders/" + re.search(r' ORDERID="([^"]*)"', parameters(url)[0]).group(1)

    def order_page(self, path, state, *wanted):
        page = self.check_page(self.visitor.request(path), 200, *wanted)
        self.assertEqual(page.title(), f"Order {path.rpartition('/')[2]}: {state}")
        return page

    def return_to_shop(self, address, path):
        """The browser follows the service's redirect to the shop, and the shop redirects it to the order."""
        page = self.visitor.request(address)
        self.assertEqual((page.status, page.location), (303, path), page.text)

    def completed(self, path, *wanted):
        """Waits until the order is completed. Returns its page."""
        return self.wait_for(path, "completed", *wanted)

    def wait_for(self, path, state, *wanted):
        """Loads the order's page until it shows this state, and with it what is wanted: a delivery may come after the state."""
        def is_there(page):
            return page.title().endswith(": " + state) and all(text in page.text for text in wanted)

        deadline = time.monotonic() + PAGE_SECONDS
        while time.monotonic() < deadline and not is_there(self.visitor.request(path)):
            time.sleep(0.01)
        return self.order_page(path, state, *wanted)

    def stored(self, statement):
        """The rows of a query on the shop's database, or an update of it."""
        database = sqlite3.connect(self.merchant / "orders.db", timeout=PAGE_SECONDS)
        try:
            with database:
                return database.execute(statement).fetchall()
        finally:
            database.close()

    def events(self):
        """All events that the ledger has stored, but for deliveries, which happen beside the captures."""
        return [row[0] for row in self.stored("SELECT event FROM transitions WHERE event <> 'delivered' ORDER BY sequence")]

    def make_due(self):
        """Everything that the worker will ever do is due now."""
        self.stored("UPDATE attempts SET due_at = 1 WHERE due_at IS NOT NULL")

    def captures_and_completions(self):
        """The types of all messages that the capture address received. Stops the service to read its database."""
        self.stop_sandbox()
        database = sqlite3.connect(self.directory / "service" / "sandbox.db")
        try:
            rows = database.execute("SELECT data FROM exchanges WHERE path = '/capture' ORDER BY number").fetchall()
        finally:
            database.close()
        texts = [row[0].decode() if isinstance(row[0], bytes) else row[0] for row in rows]
        return [re.search(r'MSGTYPE="([^"]*)"', text).group(1) for text in texts]


class ShopBasket(ShopCase):
    def quantities(self):
        return re.findall(r'name="quantity-(\w+)"[^>]*value="(\d+)"', self.visitor.request("/basket").body)

    def test_shows_the_catalogue(self):
        page = self.check_page(self.visitor.request("/"), 200, "Beeswax candle", "19.90 EUR", "49.00 EUR", "8.05 EUR",
                               "Caf\u00e9 mug", "Brass & oak")
        self.assertEqual(page.body.count(">Add to basket</button>"), 3)
        self.assertEqual(self.visitor.cookies, {})

    def test_keeps_quantities_for_each_visitor(self):
        self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")
        for article, quantity in (("candle", 2), ("mug", 3), ("candle", 1)):
            self.assertEqual(self.add(article, quantity).location, "/basket")
        self.assertEqual(self.quantities(), [("candle", "3"), ("mug", "3")])
        self.check_page(self.visitor.request("/basket"), 200, "59.70 EUR", "24.15 EUR", "Total: 83.85 EUR")
        self.check_page(Visitor(self.address).request("/basket"), 200, "Your basket is empty")

    def test_updates_quantities(self):
        self.add("candle", 2)
        self.add("candlestick", 1)
        page = self.visitor.request("/basket/update", {"quantity-candle": 0, "quantity-candlestick": 99})
        self.check_page(self.visitor.follow(page), 200, "Total: 4851.00 EUR")
        self.assertEqual(self.quantities(), [("candlestick", "99")])

    def test_keeps_the_basket_in_a_cookie_that_scripts_cannot_read(self):
        cookies = [self.add("mug", 1, Visitor(self.address)).headers["Set-Cookie"] for _ in range(2)]
        for cookie in cookies:
            self.assertRegex(cookie, r"^tallowin-shop-basket=[0-9a-f]{4}(-[0-9a-f]{4}){4}:mug\.1; Path=/; HttpOnly; SameSite=Lax$")
        self.assertNotEqual(*cookies)

    def test_accepts_no_basket_that_it_could_not_have_made(self):
        number = "0123-4567-89ab-cdef-0123"
        for basket in ("", "chosen", number, number + ":lamp.1", number + ":mug.0", number + ":mug.100", number + ":mug.-1",
                       number[:-1] + ":mug.1", number + ":mug.1x", "x" * 4000):
            with self.subTest(basket[:40]):
                self.visitor.cookies["tallowin-shop-basket"] = basket
                self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")
                self.check_page(self.order_with(number), 400, "Your basket is empty")
        self.visitor.cookies["tallowin-shop-basket"] = "chosen"
        self.assertEqual(self.add("mug", 1).status, 303)
        self.assertEqual(self.quantities(), [("mug", "1")])

    def test_refuses_odd_input_and_keeps_the_basket(self):
        self.add("mug", 98)
        for text in ("", "x", "-1", "1.5", "1e1", "100", "99999999999999999999", " 1", "1 ", "+1",
                     "<script>alert(1)</script>", "\"' onfocus=x", "&lt;", "caf\u00e9 \U0001f56f"):
            for path, form in (("/basket/add", {"article": "mug", "quantity": text}),
                               ("/basket/update", {"quantity-mug": text})):
                with self.subTest(path, text=text):
                    page = self.visitor.request(path, form)
                    self.check_page(page, 400, "A quantity is a whole number from 0 to 99")
                    self.assertNotIn("alert", page.body)
        self.check_page(self.add("mug", "1\0"), 400, "zero byte")
        for article in ("", "lamp", "<b>mug</b>"):
            self.check_page(self.add(article, 1), 400, "There is no such article")
        self.check_page(self.add("mug", 2), 400, "from 0 to 99")
        self.assertEqual(self.quantities(), [("mug", "98")])

    def test_its_pages_are_ascii_whatever_a_request_holds(self):
        for byte in (b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xc0\xaf", b"\xf4\x90\x80\x80", b"\x80", b"\x01\x7f"):
            with self.subTest(byte):
                page = self.check_page(self.visitor.request("/basket/update", {"quantity-mug": byte}), 400)
                self.assertTrue(page.body.isascii())
                query = urllib.parse.urlencode({"DATA": b'<KVX MSGTYPE="' + byte + b'" KEYID="x"/>', "SIGNATURE": "00"})
                page = self.check_page(self.visitor.request("/orders/1/paid?" + query), 400)
                self.assertTrue(page.body.isascii())

    def test_serves_pictures_and_style(self):
        page = self.visitor.request("/")
        for tag, name in (("img", "src"), ("link", "href")):
            for address in {attributes[name] for attributes in Outline(page.body).named(tag)}:
                with self.subTest(address):
                    file = self.visitor.request(address)
                    self.assertEqual(file.status, 200)
                    self.assertIn(file.headers["Content-Type"], ("text/css", "image/svg+xml"))
                    self.assertNotIn("http-equiv", file.body)
        self.assertEqual(sorted(image["alt"] for image in Outline(page.body).named("img")), [""] * 4)

    def test_says_that_it_is_a_demonstration(self):
        for address in ("/", "/basket", "/orders/1"):
            self.assertIn("A demonstration. Nothing is for sale here", self.visitor.request(address).text)

    def test_has_no_other_pages(self):
        for address in ("/admin", "/checkout", "/basket/add", "/orders", "/orders/", "/orders/1/settle",
                        "/orders/<b>", "/orders/1/refund?DATA=x", "/x" * 100, "/pictures/lamp.svg", "/orders.db",
                        "/pictures/../orders.db"):
            with self.subTest(address):
                self.check_page(self.visitor.request(address), 404, "no page at this address")

    def test_refuses_requests_that_are_too_long(self):
        long_address = self.visitor.request("/basket?" + "x" * 10000)
        self.check_page(long_address, 414, "The HTTP status is 414")
        long_form = self.visitor.request("/basket/update", {"quantity-mug": "1" * 10000})
        self.check_page(long_form, 413, "The HTTP status is 413")


PAID_ORDER = ["begun", "confirmed_paid", "capture_sent", "capture_done", "complete_sent", "complete_done"]
"""The events of an order that nothing disturbs."""


class ShopPayment(ShopCase):
    def test_sells_several_articles(self):
        self.add("candle", 2)
        self.add("mug", 1)
        url = self.check_out()
        path = self.order_of(url)
        self.assertIn(' AMOUNT="47.85" CURRENCY="EUR"', parameters(url)[0])
        self.order_page(path, "waiting", "Total: 47.85 EUR")
        data, signature = parameters(self.browser.decide(url, "pay"))
        self.return_to_shop(self.address_for(path, "paid", data, signature), path)
        page = self.completed(path, "2 \u00d7 Beeswax candle", "1 \u00d7 Caf\u00e9 mug", signature, 'RESULT="authorised"',
                              'MSGTYPE="PayInit"', "Result 0x00000000", "Handed to the carrier")
        self.assertEqual(sorted(re.findall(r"<summary>(\w+) ", page.body)), sorted([*PAID_ORDER, "delivered"]))
        self.assertEqual(self.events(), PAID_ORDER)
        self.assertFalse(page.renews_itself())
        identifier = re.search(r' ID="([^"]*)"', data).group(1)
        link = re.search(r'<a href="([^"]*)">This payment at the payment service', page.body).group(1)
        self.assertIn(identifier, Browser.request(html.unescape(link))[2])
        self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")
        self.assertEqual(self.states(), ["completed"])
        self.assertEqual(self.captures_and_completions(), ["PayConfirm", "PayCompleteRequest"])

    def address_for(self, path, way, data, signature):
        return path + "/" + way + "?" + urllib.parse.urlencode({"DATA": data, "SIGNATURE": signature})

    def test_finds_the_order_of_a_browser_without_cookies(self):
        path, url = self.buy_candle()
        page = Visitor(self.address).request(self.browser.decide(url, "pay"))
        self.assertEqual((page.status, page.location), (303, path), page.text)
        self.completed(path)
        self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")

    def test_accepts_another_payment_after_one_that_failed(self):
        for decision, state in (("decline", "declined"), ("cancel", "cancelled")):
            with self.subTest(decision):
                path, first = self.buy_candle()
                back = self.browser.decide(first, decision)
                self.return_to_shop(back, path)
                self.order_page(path, state, "Nothing has been charged", "still in your basket", "Pay again")
                self.check_page(self.visitor.request("/basket"), 200, "Total: 19.90 EUR")
                self.return_to_shop(back, path)  # the visitor reloads the page
                self.order_page(path, state)
                second = self.visitor.request(path + "/pay", {}).location
                self.assertEqual(self.order_of(second), path)
                tokens = [re.search(r' TOKEN="([^"]*)"', parameters(url)[0]).group(1) for url in (first, second)]
                self.assertNotEqual(*tokens)
                self.order_page(path, "waiting")
                self.return_to_shop(back, path)  # an old confirmation changes nothing
                self.order_page(path, "waiting")
                self.return_to_shop(self.browser.decide(second, "pay"), path)
                self.completed(path)
                self.return_to_shop(back, path)
                self.order_page(path, "completed")
                self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")
        self.assertEqual(self.states(), ["declined", "completed", "cancelled", "completed"])

    def test_continues_the_payment_of_a_waiting_order(self):
        path, url = self.buy_candle()
        self.assertEqual(self.visitor.request(path + "/pay", {}).location, url)

    def test_keeps_a_basket_that_changed_during_the_payment(self):
        path, url = self.buy_candle()
        self.add("mug", 1)
        self.return_to_shop(self.browser.decide(url, "pay"), path)
        self.completed(path)
        self.check_page(self.visitor.request("/basket"), 200, "Total: 27.95 EUR")

    def test_does_not_check_out_an_empty_basket(self):
        self.check_page(self.order_with("any"), 400, "Your basket is empty")

    def test_makes_one_order_of_one_form(self):
        self.add("candle", 1)
        key = self.checkout_key()
        pages = self.together(4, lambda: self.order_with(key))
        self.assertEqual([page.status for page in pages], [303] * 4)
        urls = {page.location for page in pages}
        self.assertEqual(len(urls), 1)
        (url,) = urls
        path = self.order_of(url)
        self.assertEqual(path, "/orders/" + key)
        self.return_to_shop(self.browser.decide(url, "pay"), path)
        self.check_redirect_to_order(self.order_with(key), path)
        self.completed(path)
        self.check_redirect_to_order(self.order_with(key), path)
        self.assertEqual(self.states(), ["completed"])

    def check_redirect_to_order(self, page, path):
        self.assertEqual((page.status, page.location), (303, urllib.parse.urljoin(self.address, path)), page.text)

    def test_makes_no_order_without_a_form(self):
        self.add("candle", 1)
        for form in ({}, {"key": ""}):
            self.check_page(self.visitor.request("/checkout", form), 400, "did not come from the page of the basket")

    def test_makes_no_order_of_a_basket_that_has_changed(self):
        self.add("candle", 1)
        key = self.checkout_key()
        self.add("candle", 1)
        self.check_page(self.order_with(key), 400, "the basket has changed since")
        self.assertEqual(self.stored("SELECT count(*) FROM purchases"), [(0,)])

    def test_keeps_the_orders_of_visitors_apart(self):
        path, _ = self.buy_candle()
        other = Visitor(self.address)
        self.add("candle", 1, other)
        self.add("candle", 1)
        orders = {self.order_of(self.check_out(visitor)) for visitor in (self.visitor, other)}
        self.assertEqual(len(orders | {path}), 3)

    def test_starts_a_payment_without_the_service(self):
        """The shop sends nothing at checkout. Only the visitor's browser sees that the service is down."""
        self.stop_sandbox()
        path, _ = self.buy_candle()
        self.order_page(path, "waiting")

    def test_reports_a_payment_that_cannot_be_prepared(self):
        current = self.merchant / "keys" / "current"
        key = current.read_text()
        current.unlink()
        self.add("mug", 1)
        number = self.checkout_key()
        self.check_page(self.order_with(number), 503, "Something went wrong")
        self.check_page(self.visitor.request("/basket"), 200, "Total: 8.05 EUR")
        current.write_text(key)
        self.assertEqual(self.order_of(self.check_out()), "/orders/" + number)
        self.log = "0x80040219"

    def test_goes_on_with_an_order_whose_payment_could_not_begin(self):
        """The order is stored before its payment begins, so that its page and its second check-out are there."""
        current = self.merchant / "keys" / "current"
        key = current.read_text()
        current.unlink()
        self.add("mug", 1)
        number = self.checkout_key()
        self.assertEqual(self.order_with(number).status, 503)
        self.order_page("/orders/" + number, "waiting", "Go to payment")
        current.write_text(key)
        url = self.visitor.request("/orders/" + number + "/pay", {}).location
        self.return_to_shop(self.browser.decide(url, "pay"), "/orders/" + number)
        self.completed("/orders/" + number)
        self.log = "0x80040219"


class ShopLatePayment(ShopCase):
    """Payments that have expired by the shop's clock."""

    def setUp(self):
        super().setUp()
        self.control("/clock", {"ahead": -2 * 3600})  # for the service, an hour ago is in the future
        self.path, self.late = self.buy_candle_too_late()
        self.wait_for(self.path, "expired", "Pay again")

    def pay_again(self):
        page = self.visitor.request(self.path + "/pay", {})
        self.assertEqual(page.status, 303, page.text)
        return page.location

    def check_paid_once(self, surplus):
        """The order is paid once, and its page lists the surplus payment."""
        for _ in range(2):
            self.return_to_shop(surplus, self.path)
        # The notification succeeds, so the service does not repeat it.
        notice = self.path + "/notified?" + urllib.parse.urlsplit(surplus).query
        self.assertEqual(self.visitor.request(notice).status, 200)
        page = self.completed(self.path, "nothing is charged for it")
        self.assertEqual(len(re.findall("Payment P[0-9a-f]+ was authorised as well", page.text)), 1)
        self.assertEqual(sorted(self.states()), ["authorised", "completed"])
        self.assertEqual(self.captures_and_completions(), [*["StatusRequest"] * ASKS, "PayConfirm", "PayCompleteRequest"])

    def test_does_not_say_that_nothing_was_charged(self):
        self.assertNotIn("charged", self.visitor.request(self.path).text)

    def test_makes_a_new_payment(self):
        urls = self.together(4, self.pay_again)
        self.assertEqual(len(set(urls)), 1)
        self.assertNotEqual(urls[0], self.late)
        self.assertEqual(self.order_of(urls[0]), self.path)
        self.assertEqual(self.pay_again(), urls[0])
        self.return_to_shop(self.browser.decide(urls[0], "pay"), self.path)
        self.completed(self.path)

    def test_takes_a_late_confirmation_of_the_old_payment(self):
        new = self.pay_again()
        self.return_to_shop(self.browser.decide(self.late, "pay"), self.path)
        self.completed(self.path)
        self.check_paid_once(self.browser.decide(new, "pay"))

    def test_lists_a_late_confirmation_after_the_new_payment_has_paid(self):
        self.return_to_shop(self.browser.decide(self.pay_again(), "pay"), self.path)
        self.check_paid_once(self.browser.decide(self.late, "pay"))

    def test_captures_one_of_two_simultaneous_payments(self):
        confirmations = [self.browser.decide(url, "pay") for url in (self.pay_again(), self.late)]
        pages = self.together(2, lambda: self.visitor.request(confirmations.pop()))
        self.assertEqual([(page.status, page.location) for page in pages], [(303, self.path)] * 2)
        self.completed(self.path)
        self.assertEqual(self.captures_and_completions(), [*["StatusRequest"] * ASKS, "PayConfirm", "PayCompleteRequest"])

    def test_keeps_waiting_when_the_old_payment_is_declined(self):
        new = self.pay_again()
        self.return_to_shop(self.browser.decide(self.late, "decline"), self.path)
        self.order_page(self.path, "waiting")
        self.return_to_shop(self.browser.decide(new, "pay"), self.path)
        self.completed(self.path)


class ShopKeys(ShopCase):
    """The payment service has a new signing key since the shop's set-up."""

    def set_ups(self):
        """The number of set-up requests so far."""
        return [exchange["kind"] for exchange in self.control("/exchanges")["exchanges"]].count("setup")

    def return_when_the_key_is_here(self, address, path):
        """The page renews itself until the shop has set up."""
        deadline = time.monotonic() + PAGE_SECONDS
        page = self.visitor.request(address)
        while page.status == 503 and time.monotonic() < deadline:
            self.check_page(page, 503, "signed with a new key", "This page renews itself")
            self.assertTrue(page.renews_itself())
            time.sleep(0.01)
            page = self.visitor.request(address)
        self.assertEqual((page.status, page.location), (303, path), page.text)

    def test_imports_the_new_key(self):
        path, url = self.buy_candle()
        self.control("/keys/rotate", {})
        self.return_when_the_key_is_here(self.browser.decide(url, "pay"), path)
        self.completed(path)
        self.assertEqual(self.set_ups(), 2)

    def test_imports_the_new_key_after_a_restart(self):
        path, url = self.buy_candle()
        self.return_to_shop(self.browser.decide(url, "pay"), path)
        self.completed(path)
        self.control("/keys/rotate", {})
        self.stop_shop()
        self.start_again()
        path, url = self.buy_candle()
        self.return_when_the_key_is_here(self.browser.decide(url, "pay"), path)
        self.completed(path)

    def test_imports_the_new_key_once_for_many_visitors(self):
        self.control("/keys/rotate", {})
        orders = [self.buy_candle() for _ in range(4)]
        confirmations = [(self.browser.decide(url, "pay"), path) for path, url in orders]
        self.together(len(orders), lambda: self.visitor.request(confirmations[0][0]))
        for address, path in confirmations:
            self.return_when_the_key_is_here(address, path)
        for path, _ in orders:
            self.completed(path)
        self.assertEqual(self.set_ups(), 2)

    def test_does_not_set_up_for_forgeries_that_name_no_payment(self):
        path, _ = self.buy_candle()
        for key in ("nobody", "1-SERVER-0", "../current", "nobody"):
            query = urllib.parse.urlencode({"DATA": f'<KVX MSGTYPE="PayConfirm" KEYID="{key}"/>', "SIGNATURE": "00"})
            self.check_page(self.visitor.request(path + "/paid?" + query), 400, "The shop refused this payment confirmation")
        self.assertEqual((self.set_ups(), self.stored("SELECT * FROM kept")), (1, []))

    def test_does_not_set_up_for_its_own_message(self):
        path, url = self.buy_candle()
        own = url.replace(self.addresses["pay"], path + "/paid")
        self.check_page(self.visitor.request(own), 400, "OWN_KEY")
        self.assertEqual(self.set_ups(), 1)

    def test_does_not_set_up_for_its_own_message_when_its_key_cannot_be_read(self):
        path, url = self.buy_candle()
        own = url.replace(self.addresses["pay"], path + "/paid")
        (key,) = private_keys(self.merchant)
        for make_unreadable in UNREADABLE:
            with self.subTest(make_unreadable.__name__):
                make_unreadable(self.merchant / "keys" / "private" / key)
                self.assertIn(self.visitor.request(own).status, (400, 503))
                self.order_page(path, "waiting")
                self.assertEqual(self.set_ups(), 1)
        self.log = "0x80040219"

    def test_reports_a_failed_set_up(self):
        path, url = self.buy_candle()
        self.control("/keys/rotate", {})
        paid = self.browser.decide(url, "pay")
        self.control("/accounts", {"user": "demo", "password": "changed"})
        self.check_page(self.visitor.request(paid), 503, "signed with a new key")
        deadline = time.monotonic() + PAGE_SECONDS
        while self.set_ups() < 2 and time.monotonic() < deadline:
            time.sleep(0.01)
        self.order_page(path, "waiting")
        self.log = "0x80040213"


class ShopNotifications(ShopCase):
    """Notifications carry the same confirmation as the visitor's return."""

    def setUp(self):
        super().setUp()
        self.path, self.url = self.buy_candle()
        self.notices = self.path + "/notified"

    def decide(self, decision):
        """Returns the visitor's return address and the notification's."""
        back = self.browser.decide(self.url, decision)
        return back, self.notices + "?" + urllib.parse.urlsplit(back).query

    def notify(self, notice):
        page = Visitor(self.address).request(notice)
        self.assertEqual((page.status, page.text), (200, "received\n"))

    def check_captured_once(self):
        self.completed(self.path)
        self.assertEqual(self.events(), PAID_ORDER)
        self.assertEqual(self.captures_and_completions(), ["PayConfirm", "PayCompleteRequest"])

    def test_pays_although_the_visitor_does_not_come_back(self):
        _, notice = self.decide("pay")
        self.notify(notice)
        self.assertEqual(self.stored("SELECT cause FROM transitions WHERE event = 'confirmed_paid'"), [("notification",)])
        self.notify(notice)
        self.check_captured_once()
        self.check_page(self.visitor.request("/basket"), 200, "Your basket is empty")

    def test_lets_the_visitor_come_back_after_it(self):
        back, notice = self.decide("pay")
        self.notify(notice)
        for _ in range(2):
            self.return_to_shop(back, self.path)
        self.check_captured_once()

    def test_takes_it_after_the_visitor_came_back(self):
        back, notice = self.decide("pay")
        self.return_to_shop(back, self.path)
        for _ in range(2):
            self.notify(notice)
        self.check_captured_once()

    def test_captures_once_when_all_come_at_once(self):
        back, notice = self.decide("pay")
        addresses = [back, back, notice, notice, notice]
        pages = self.together(len(addresses), lambda: Visitor(self.address).request(addresses.pop()))
        self.assertEqual(sorted(page.status for page in pages), [200, 200, 200, 303, 303])
        self.check_captured_once()

    def test_reports_a_decline(self):
        back, notice = self.decide("decline")
        self.notify(notice)
        self.order_page(self.path, "declined", "Pay again")
        self.return_to_shop(back, self.path)
        self.notify(notice)
        self.assertEqual(self.visitor.request(self.path + "/pay", {}).status, 303)
        self.notify(notice)
        self.order_page(self.path, "waiting")

    def test_checks_it_like_a_return(self):
        _, notice = self.decide("pay")
        own = self.url.replace(self.addresses["pay"], self.notices)
        for address, reason in ((own, "OWN_KEY"), (notice.replace("19%2e90", "1%2e90"), "BAD_SIGNATURE"),
                                (notice.partition("&SIGNATURE=")[0], "NO_SIGNATURE"), (notice + "&DATA=x", "appears twice")):
            with self.subTest(reason):
                page = self.visitor.request(address)
                self.assertEqual(page.status, 400)
                self.assertIn(reason, page.text)
        self.order_page(self.path, "waiting")
        self.notify(notice)

    def test_takes_it_for_the_order_that_it_names(self):
        """The confirmation counts, not the address that it came to."""
        other, _ = self.buy_candle()
        _, notice = self.decide("pay")
        self.notify(notice.replace(self.path, "/orders/0"))
        self.notify(notice.replace(self.path, other))
        self.completed(self.path)
        self.order_page(other, "waiting")

    def test_comes_to_the_address_in_the_payment_message(self):
        address = urllib.parse.urljoin(self.address, self.notices)
        self.assertIn(f' NOTIFYADDRESS="{address}"', parameters(self.url)[0])

    def test_is_answered_503_when_the_store_cannot_be_used(self):
        """The service sends it again, and then it counts."""
        _, notice = self.decide("pay")
        self.stop_shop()
        store = self.merchant / "orders.db"
        store.rename(self.merchant / "elsewhere.db")
        store.mkdir()
        self.shop = self.start("--port", urllib.parse.urlsplit(self.address).port)
        status, out, errors = self.shop.finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("orders.db", errors)
        store.rmdir()
        (self.merchant / "elsewhere.db").rename(store)
        self.start_again()
        self.notify(notice)
        self.check_captured_once()


class ShopRefusals(ShopCase):
    """Requests that the shop must refuse, with the reason on the page and an unchanged order."""

    def setUp(self):
        super().setUp()
        self.path, self.url = self.buy_candle()

    def refuse(self, address, *reasons, status=400):
        self.check_page(self.visitor.request(address), status, *reasons)
        self.order_page(self.path, "waiting")
        self.assertEqual(self.events(), ["begun"] * len(self.stored("SELECT * FROM attempts")))

    def pay(self):
        """Pays. Returns the return address."""
        return self.browser.decide(self.url, "pay")

    def test_replayed_confirmation(self):
        """A genuine confirmation leads to the order's page again and again, and pays once."""
        paid = self.pay()
        for _ in range(3):
            self.return_to_shop(paid, self.path)
        self.completed(self.path)
        self.return_to_shop(paid, self.path)
        self.assertEqual(self.events(), PAID_ORDER)
        self.assertEqual(self.captures_and_completions(), ["PayConfirm", "PayCompleteRequest"])

    def test_own_payment_message(self):
        own = self.url.replace(self.addresses["pay"], self.path + "/paid")
        self.refuse(own, "The shop refused this payment confirmation", "OWN_KEY")

    def test_confirmation_of_another_order(self):
        """It pays the order that it names, and leaves the one in the address alone."""
        other, url = self.buy_candle()
        paid = self.browser.decide(url, "pay")
        self.return_to_shop(paid.replace(other, self.path), other)
        self.order_page(self.path, "waiting")
        self.completed(other)

    def test_altered_messages(self):
        paid = self.pay()
        for old, new in (("19%2e90", "1%2e90"), ("authorised", "authorised%20"), ("PayConfirm", "PayConfirn")):
            with self.subTest(new):
                altered = paid.replace(old, new)
                self.assertNotEqual(altered, paid)
                self.refuse(altered, "BAD_SIGNATURE")
        self.return_to_shop(paid, self.path)

    def test_outcome_that_was_rewritten(self):
        cancelled = self.browser.decide(self.url, "cancel")
        self.refuse(cancelled.replace("/cancelled?", "/paid?").replace("%22cancelled%22", "%22authorised%22"),
                    "BAD_SIGNATURE")
        self.return_to_shop(cancelled.replace("/cancelled?", "/paid?"), self.path)
        self.order_page(self.path, "cancelled")  # whatever the address says

    def test_missing_and_useless_signatures(self):
        paid = self.pay()
        bare = paid.partition("&SIGNATURE=")[0]
        for address, reason in ((bare, "NO_SIGNATURE"), (bare + "&SIGNATURE=", "NO_SIGNATURE"),
                                (bare + "&SIGNATURE=xyz", "BAD_SIGNATURE"),
                                (bare + "&SIGNATURE=" + "0" * 128, "BAD_SIGNATURE"),
                                (bare + "&SIGNATURE=" + "0" * 5000, "TOO_LARGE")):
            with self.subTest(address[-20:]):
                self.refuse(address, "refused", reason)
        for address in (paid + "%00", paid + "%0000"):
            with self.subTest(address[-20:]):
                self.refuse(address, "zero byte")
        self.return_to_shop(paid, self.path)

    def test_data_without_a_message(self):
        signature = parameters(self.pay())[1]
        for data, reason in (("", "FORMAT"), ("nonsense", "FORMAT"), ("<a>", "FORMAT"), ("<KVX/>", "NO_KEY_ID"),
                             ("a\0b", "zero byte"), ("<KVX MSGTYPE=\"PayConfirm\" KEYID=\"../current\"/>", "refused")):
            with self.subTest(data):
                query = urllib.parse.urlencode({"DATA": data, "SIGNATURE": signature})
                self.refuse(self.path + "/paid?" + query, reason)
        for query in ("", "?", "?DATA", "?DATA=%", "?DATA=%zz&SIGNATURE=%0", "?SIGNATURE=00"):
            with self.subTest(query):
                self.refuse(self.path + "/paid" + query, "refused")

    def test_page_shows_neither_the_words_of_a_stranger_nor_files_of_the_machine(self):
        data = '<KVX MSGTYPE="&lt;script&gt;alert(1)&lt;/script&gt;" KEYID="nobody"/>'
        for query in (urllib.parse.urlencode({"DATA": data, "SIGNATURE": "00"}), urllib.parse.urlsplit(self.pay()).query[:-2]):
            page = self.check_page(self.visitor.request(self.path + "/paid?" + query), 400, "It changes nothing")
            self.assertNotIn("alert", page.body)
            self.assertNotIn(str(self.directory), page.body)

    def test_markup_in_a_stored_text_is_shown_as_text(self):
        self.stored("INSERT INTO transitions (order_id, attempt, from_state, to_state, event, cause, at) "
                    "SELECT id, 1, 'waiting', 'waiting', '<b>''&amp;\"', x'FF01'||'<script>', 0 FROM orders")
        page = self.order_page(self.path, "waiting", '<b>\'&amp;" ', "\u00ff")
        self.assertNotIn("<script", page.body)
        self.assertNotIn("<b>", page.body)

    def test_repeated_parameters(self):
        paid = self.pay()
        for addition in ("&DATA=x", "&SIGNATURE=0", "&DATA="):
            with self.subTest(addition):
                self.refuse(paid + addition, "The shop cannot handle this request", "appears twice")
        page = self.visitor.request("/basket/add", [("article", "mug"), ("quantity", 1), ("quantity", 2)])
        self.check_page(page, 400, '"quantity" appears twice')
        self.return_to_shop(paid, self.path)

    def test_unknown_order(self):
        for number in ("0", "1", "zzz"):
            unknown = "/orders/" + number
            for path, form in ((unknown, None), (unknown + "/pay", {})):
                self.check_page(self.visitor.request(path, form), 404, "There is no such order")

    def test_paying_again(self):
        self.return_to_shop(self.pay(), self.path)
        self.assertEqual(self.visitor.request(self.path + "/pay", {}).location, urllib.parse.urljoin(self.address, self.path))
        self.completed(self.path)
        self.assertEqual(self.visitor.request(self.path + "/pay", {}).location, urllib.parse.urljoin(self.address, self.path))
        self.assertEqual(self.captures_and_completions(), ["PayConfirm", "PayCompleteRequest"])


class ShopFailings(ShopCase):
    """What a shop that keeps its orders in memory, captures in its handlers and verifies alone gets wrong."""

    RETURNS = 40
    FORGERIES = 60

    def test_killed_between_pay_and_return(self):
        """The return finds the order after a restart, and so does the notification of another one."""
        orders = [self.buy_candle() for _ in range(2)]
        confirmations = [(path, self.browser.decide(url, "pay")) for path, url in orders]
        self.kill_shop()
        self.start_again()
        (returned, back), (notified, notice) = confirmations
        self.return_to_shop(back, returned)
        page = self.visitor.request(notified + "/notified?" + urllib.parse.urlsplit(notice).query)
        self.assertEqual((page.status, page.text), (200, "received\n"))
        for path, _ in orders:
            self.completed(path)
        self.assertEqual(self.states(), ["completed"] * 2)

    def test_killed_after_the_return(self):
        """The capture that was due is made by the next start."""
        path, url = self.buy_candle()
        self.return_to_shop(self.browser.decide(url, "pay"), path)
        self.kill_shop()
        self.start_again()
        # A worker that was killed during an exchange has left a lease behind, which would run out.
        self.stored("UPDATE attempts SET due_at = 1 WHERE state IN ('capturing', 'completing')")
        self.completed(path, "Handed to the carrier")
        self.assertEqual(self.states(), ["completed"])

    def test_killed_before_a_delivery(self):
        """The ledger has reported the order as paid, and reports it again until the shop has acknowledged."""
        path, url = self.buy_candle()
        self.return_to_shop(self.browser.decide(url, "pay"), path)
        self.completed(path)
        self.kill_shop()
        # As if the kill had come between the report and the delivery, and the lease had run out.
        self.stored("DELETE FROM deliveries")
        self.stored("UPDATE orders SET delivered_at = NULL, report_at = 1")
        self.start_again()
        deadline = time.monotonic() + PAGE_SECONDS
        while not self.stored("SELECT * FROM deliveries") and time.monotonic() < deadline:
            time.sleep(0.01)
        self.order_page(path, "completed", "Handed to the carrier")

    def test_lost_answers_leave_no_order_stuck(self):
        """Nobody presses a button: the worker asks what has become of a capture, and goes on."""
        for kind in ("drop", "reset", "truncate", "error", "http-status", "wrong-type"):
            for exchange in ("capture", "complete"):
                with self.subTest(kind=kind, exchange=exchange):
                    self.control("/faults", {"kind": kind, "exchange": exchange})
                    path, url = self.buy_candle()
                    self.return_to_shop(self.browser.decide(url, "pay"), path)
                    self.completed(path)
        self.assertEqual(set(self.states()), {"completed"})
        self.assertEqual(self.stored("SELECT count(*) FROM deliveries"), [(len(self.states()),)])

    def test_authorised_payment_whose_notification_is_lost_is_not_called_free(self):
        """The visitor does not come back either. The shop asks once the payment's time is over."""
        path, url = self.buy_candle()
        self.browser.decide(url, "pay")
        page = self.order_page(path, "waiting", "If you have paid already")
        self.assertNotIn("charged", page.text)
        self.assertEqual(self.visitor.request(path + "/pay", {}).location, url)  # which leads back with the confirmation
        self.make_due()
        self.completed(path, "Handed to the carrier")
        self.assertEqual(self.events(), ["begun", "found_authorised", *PAID_ORDER[2:]])
        self.assertEqual(self.states(), ["completed"])

    def test_parallel_genuine_returns_all_end_on_the_paid_page(self):
        path, url = self.buy_candle()
        paid = self.browser.decide(url, "pay")
        pages = self.together(self.RETURNS, lambda: Visitor(self.address).request(paid))
        self.assertEqual([(page.status, page.location) for page in pages], [(303, path)] * self.RETURNS)
        self.completed(path)
        self.assertEqual(self.stored("SELECT number FROM deliveries"), [(path.rpartition("/")[2],)])
        self.assertEqual(self.stored("SELECT count(*) FROM transitions WHERE event = 'delivered'"), [(1,)])
        self.assertEqual(self.events(), PAID_ORDER)
        self.assertEqual(self.captures_and_completions(), ["PayConfirm", "PayCompleteRequest"])

    def test_confirmation_by_a_key_that_is_not_here_yet_is_answered_503_and_accepted_after_a_set_up(self):
        """Although a stranger has just brought a set-up about."""
        self.forge(self.buy_candle()[1])
        path, url = self.buy_candle()
        self.control("/keys/rotate", {})
        notice = path + "/notified?" + urllib.parse.urlsplit(self.browser.decide(url, "pay")).query
        page = self.visitor.request(notice)
        self.assertEqual(page.status, 503)
        self.assertEqual(page.text, "UNKNOWN_KEY")
        self.completed(path)  # the confirmation was kept, and nobody sends it again
        self.assertEqual(self.visitor.request(notice).status, 200)

    def forge(self, url):
        """Sends many confirmations of this payment under keys that do not exist."""
        genuine = parameters(self.browser.decide(url, "pay"))[0]
        for number in range(self.FORGERIES):
            data = re.sub(' KEYID="[^"]*"', f' KEYID="nobody-{number}"', genuine)
            query = urllib.parse.urlencode({"DATA": data, "SIGNATURE": "00"})
            self.assertEqual(self.visitor.request("/orders/1/notified?" + query).status, 503)

    def test_stranger_cannot_fill_the_disk(self):
        path, url = self.buy_candle()
        self.forge(url)
        self.assertLessEqual(self.stored("SELECT count(*) FROM kept")[0][0], 4)
        self.order_page(path, "waiting")
        for _ in range(self.FORGERIES):
            self.assertEqual(self.add("mug", 1, Visitor(self.address)).status, 303)
        self.assertEqual(self.stored("SELECT count(*) FROM purchases"), [(1,)])
        self.assertLessEqual(len(private_keys(self.merchant)), 2)


class Relay:
    """A proxy between the shop and the service's capture address that can refuse, lose or hold messages."""

    def __init__(self, capture):
        self.refused = set()  # message types to refuse with 503
        self.lost = set()  # message types whose responses are dropped
        self.held = set()  # message types to hold until release(), then drop
        self.holding = threading.Semaphore(0)  # counts the held messages
        self.released = threading.Event()
        self.passed = []  # the types of all forwarded messages
        self.capture = capture
        relay = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                kind = re.search(r'MSGTYPE="([^"]*)"', parameters(self.path)[0]).group(1)
                if kind in relay.held:
                    relay.holding.release()
                    relay.released.wait(PAGE_SECONDS)
                    return
                if kind in relay.refused:
                    self.send_error(503)
                    return
                relay.passed.append(kind)
                status, _, body = Browser.request(capture + "?" + urllib.parse.urlsplit(self.path).query)
                if kind not in relay.lost:
                    self.send_response(status)
                    self.end_headers()
                    self.wfile.write(body.encode())

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.address = f"http://127.0.0.1:{self.server.server_port}/capture"
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.02,))
        self.thread.start()

    def use(self, merchant):
        """Puts this address into the account's configuration."""
        replace_in(merchant / "config.xml", self.capture, self.address)

    def wait_until_passed(self, kind):
        deadline = time.monotonic() + PAGE_SECONDS
        while kind not in self.passed:
            if time.monotonic() > deadline:
                raise AssertionError(f"no {kind} arrived")
            time.sleep(0.01)

    def wait_until_holding(self, count):
        for _ in range(count):
            if not self.holding.acquire(timeout=PAGE_SECONDS):
                raise AssertionError("fewer messages arrived than expected")

    def release(self):
        """Drops the held messages, and holds no more."""
        self.held = set()
        self.released.set()

    def close(self):
        self.release()
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()


class ShopAnswers(ShopCase):
    """The capture address does not answer."""

    def setUp(self):
        super().setUp()
        self.relay = Relay(self.addresses["capture"])
        self.addCleanup(self.relay.close)
        self.relay.use(self.merchant)
        self.path, self.url = self.buy_candle()
        self.relay.held = {"PayConfirm"}

    def test_notification_is_answered_before_the_capture(self):
        notice = self.path + "/notified?" + urllib.parse.urlsplit(self.browser.decide(self.url, "pay")).query
        page = self.visitor.request(notice)
        self.assertEqual((page.status, page.text), (200, "received\n"))
        self.relay.wait_until_holding(1)
        page = self.order_page(self.path, "paid", "is being captured", "This page renews itself")
        self.assertTrue(page.renews_itself())
        self.assertEqual(self.visitor.request(notice).status, 200)
        self.relay.release()
        self.completed(self.path)

    def test_pages_are_served_while_a_capture_stalls(self):
        self.return_to_shop(self.browser.decide(self.url, "pay"), self.path)
        self.relay.wait_until_holding(1)
        others = [self.buy_candle() for _ in range(8)]
        for path, url in others:
            self.return_to_shop(self.browser.decide(url, "pay"), path)
            self.order_page(path, "paid")
        self.check_page(self.visitor.request("/"), 200, "Beeswax candle")
        self.relay.release()
        for path, _ in [(self.path, ""), *others]:
            self.completed(path)
        self.assertEqual(self.states(), ["completed"] * 9)

    def test_ends_with_success_while_a_capture_stalls_and_goes_on_at_the_next_start(self):
        self.return_to_shop(self.browser.decide(self.url, "pay"), self.path)
        self.relay.wait_until_holding(1)
        self.stop_shop_after("ended during an exchange with the payment service")
        self.relay.release()
        self.make_due()  # the lease of the worker that is gone
        self.completed(self.path)
        self.assertEqual(self.states(), ["completed"])


class ShopWithUnreliableService(ShopCase):
    def setUp(self):
        super().setUp()
        self.relay = Relay(self.addresses["capture"])
        self.addCleanup(self.relay.close)
        self.relay.use(self.merchant)
        self.path, url = self.buy_candle()
        self.paid = self.browser.decide(url, "pay")

    def test_completes_later_and_does_not_capture_again(self):
        self.relay.refused = {"PayCompleteRequest"}
        self.return_to_shop(self.paid, self.path)
        page = self.wait_for(self.path, "captured", "This page renews itself")
        self.assertTrue(page.renews_itself())
        self.relay.refused = set()
        self.completed(self.path)
        self.assertEqual([kind for kind in self.relay.passed if kind != "StatusRequest"], ["PayConfirm", "PayCompleteRequest"])

    def test_asks_before_it_captures_again(self):
        self.relay.lost = {"PayConfirm", "StatusRequest"}
        self.return_to_shop(self.paid, self.path)
        self.relay.wait_until_passed("StatusRequest")
        self.order_page(self.path, "paid", "did not answer", "This page renews itself")
        self.assertEqual(self.states(), ["captured"])
        self.relay.lost = set()
        self.completed(self.path)
        self.assertEqual([kind for kind in self.relay.passed if kind != "StatusRequest"], ["PayConfirm", "PayCompleteRequest"])


class ShopUnderPressure(ShopCase):
    """Clients that try to use up the shop's threads or memory."""

    def connect(self, text):
        target = urllib.parse.urlsplit(self.address)
        connection = socket.create_connection((target.hostname, target.port), timeout=PAGE_SECONDS)
        self.addCleanup(connection.close)
        connection.sendall(text)
        return connection

    def peak_memory(self):
        """The shop's peak memory in KB."""
        status = pathlib.Path(f"/proc/{self.shop.process.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s*(\d+) kB", status).group(1))

    def test_clients_that_never_finish_their_requests(self):
        clients = [self.connect(b"GET / HTTP/1.1\r\nX: ") for _ in range(80)]
        ended = threading.Event()

        def keep_sending():
            while not ended.wait(0.1):
                for client in clients:
                    try:
                        client.send(b"x")
                    except OSError:
                        pass  # the shop has closed the connection

        thread = threading.Thread(target=keep_sending)
        thread.start()
        try:
            self.check_page(self.visitor.request("/"), 200, "Beeswax candle")
        finally:
            ended.set()
            thread.join()

    def test_requests_without_end(self):
        chunk = b"x" * 65536
        requests = {
            "headers": (b"GET / HTTP/1.1\r\n", (b"X: " + b"x" * 1000 + b"\r\n") * 64),
            "one header": (b"GET / HTTP/1.1\r\nX: ", chunk),
            "address": (b"GET /", chunk),
            "chunks": (b"POST /basket/add HTTP/1.1\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n",
                       b"10000\r\n" + chunk + b"\r\n"),
        }
        for name, (start, more) in requests.items():
            with self.subTest(name):
                before = self.peak_memory()
                client = self.connect(start)
                with self.assertRaises(OSError):
                    for _ in range(1024):
                        client.sendall(more)
                self.assertLess(self.peak_memory() - before, 16384)
        self.check_page(self.visitor.request("/"), 200, "Beeswax candle")


class ShopWithoutService(ShopCase):
    def restart_sandbox(self):
        """Restarts the service with its data. Writes its new port to the account's configuration."""
        old = self.service.rpartition("/")[0]
        self.stop_sandbox()
        self.sandbox = Program(os.environ["KVX_SANDBOX"], "--data", self.directory / "service", "--json")
        self.addresses = json.loads(self.sandbox.line())
        self.service = self.addresses["auto"]
        replace_in(self.merchant / "config.xml", old, self.service.rpartition("/")[0])

    def test_captures_later(self):
        path, url = self.buy_candle()
        paid = self.browser.decide(url, "pay")
        self.stop_sandbox()
        for _ in range(2):
            self.return_to_shop(paid, path)
        self.assertTrue(self.order_page(path, "paid", "Handed to the carrier").renews_itself())
        self.restart_sandbox()
        self.completed(path)
        self.assertEqual(self.states(), ["completed"])
        self.assertEqual(self.captures_and_completions()[-2:], ["PayConfirm", "PayCompleteRequest"])


class ShopProgram(ShopCase):
    def test_ends_with_success_on_either_signal(self):
        for ending in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(ending):
                shop = self.start()
                self.assertTrue(shop.line().startswith(OPENING))
                shop.process.send_signal(ending)
                self.assertEqual(shop.finish(), (0, "", ""))

    def test_sets_up_a_directory_once(self):
        current = self.merchant / "keys" / "current"
        key = current.read_text()
        shop = self.start(password="wrong, but not used")
        self.assertTrue(shop.line().startswith(OPENING))
        self.assertEqual(shop.stop(), (0, "", ""))
        self.assertEqual(current.read_text(), key)

    def test_reports_a_wrong_password(self):
        self.merchant = self.directory / "another"
        status, out, errors = self.start(password="guessed").finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("ConfigurationSetup_Reconfigure: ", errors)
        self.assertIn("0x80040213", errors)

    def test_stops_at_a_current_key_that_cannot_be_read(self):
        self.check_that_an_unreadable_key_ends_the_start()

    def test_reports_a_directory_that_cannot_be_created(self):
        self.merchant = self.directory / "nowhere" / "merchant"
        status, out, errors = self.start().finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("ConfigurationSetup_SetConfiguration: ", errors)
        self.assertIn("No such file or directory", errors)

    def test_reports_that_the_service_is_down(self):
        self.stop_sandbox()
        self.merchant = self.directory / "another"
        status, out, errors = self.start().finish()
        self.assertEqual((status, out), (1, ""))
        self.assertRegex(errors, "ConfigurationSetup_Reconfigure: .*0x8004")

    def test_does_not_share_its_port(self):
        port = urllib.parse.urlsplit(self.address).port
        status, out, errors = self.start("--port", port).finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn(f"cannot listen on 127.0.0.1:{port}", errors)

    def test_takes_a_free_port_for_port_0(self):
        shop = self.start("--port", 0)
        self.assertTrue(shop.line().startswith(OPENING))
        self.assertEqual(shop.stop(), (0, "", ""))

    def test_prints_its_usage(self):
        shop = os.environ["KVX_SHOP"]
        self.assertEqual(Program(shop).finish()[0], 2)
        for options in (["--port"], ["--port", "x"], ["--port", "65536"], ["--port", "-1"], ["--fast", "1"],
                        ["one more"]):
            with self.subTest(options):
                status, out, errors = self.start(*options).finish()
                self.assertEqual((status, out), (2, ""))
                self.assertIn("Usage:", errors)
        status, out, errors = Program(shop, "--help").finish()
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("Usage:", out)


if __name__ == "__main__":
    unittest.main()
