"""The examples and the demonstration against a running sandbox; pages that quote examples against the examples.

CMakeLists.txt sets environment variables with the paths of all programs.

Order: the examples, the demonstration, demo.sh, the quotations.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import urllib.request

from sandboxcase import RESPONSE_SECONDS, TIMEOUT_SECONDS, Browser, Program, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])


JAVA_PATH = f"{os.environ['KVX_JAR']}:{ROOT / 'examples' / 'common' / 'shop'}"


def java_example(name):
    """The command that runs an example in Java from its source."""
    return [os.environ["KVX_JAVA_RUN"], "-Xcheck:jni", "-cp", JAVA_PATH, ROOT / "examples" / "java" / (name + ".java")]


class CompiledExample:
    """For classes of tests that start one example often: compiles it once. `example` is its name."""

    example = ""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        classes = tempfile.TemporaryDirectory(prefix="tallowin-tests-")
        cls.addClassCleanup(classes.cleanup)
        compiler = pathlib.Path(os.environ["KVX_JAVA_RUN"]).with_name("javac")
        subprocess.run([compiler, "-Xlint:all", "-Werror", "-d", classes.name, "-cp", JAVA_PATH,
                        ROOT / "examples" / "java" / (cls.example + ".java")], check=True, timeout=TIMEOUT_SECONDS)
        cls.command = [os.environ["KVX_JAVA_RUN"], "-Xcheck:jni", "-cp", f"{JAVA_PATH}:{classes.name}", cls.example]


class PaymentTests:
    """Tests of the payment examples in C and C++. `program` is the example's path."""

    program = ""

    def start(self, password="demo"):
        return Program(self.program, self.merchant, self.service, "demo",
                       env={**os.environ, "TALLOWIN_PASSWORD": password})

    def url_of(self, example):
        self.assertEqual(example.line(), "Send the shopper to:")
        url = example.line()
        self.assertEqual(example.line(), "Paste the address that the browser shows now:")
        return url

    def test_captures_and_completes_what_was_paid(self):
        example = self.start()
        address = self.browser.decide(self.url_of(example), "pay")
        status, out, errors = example.finish(address)
        self.assertEqual((status, errors), (0, ""))
        self.assertRegex(out, r"^Payment P[0-9a-f]+ is captured and completed\.\n$")
        self.assertEqual(self.states(), ["completed"])

    def test_sets_up_a_directory_once(self):
        keys = []
        for _ in range(2):
            example = self.start()
            address = self.browser.decide(self.url_of(example), "pay")
            self.assertEqual(example.finish(address)[0], 0)
            keys.append((self.merchant / "keys" / "current").read_text())
        self.assertEqual(keys[0], keys[1])

    def test_stops_at_a_current_key_that_cannot_be_read(self):
        self.start().finish()
        self.check_that_an_unreadable_key_ends_the_start()

    def test_refuses_cancelled_and_declined_payments(self):
        for decision in ("cancel", "decline"):
            with self.subTest(decision):
                example = self.start()
                address = self.browser.decide(self.url_of(example), decision)
                status, out, errors = example.finish(address)
                self.assertEqual((status, out, errors), (1, "", 'refused: RESULT is not "authorised"\n'))
        self.assertEqual(self.states(), ["cancelled", "declined"])

    def test_refuses_an_altered_confirmation(self):
        example = self.start()
        address = self.browser.decide(self.url_of(example), "cancel")
        forged = address.replace("cancelled", "authorised")
        self.assertNotEqual(forged, address)
        status, out, errors = example.finish(forged)
        self.assertEqual((status, out), (1, ""))
        self.assertIn("result 0x80040214, invalid signature", errors)

    def test_refuses_the_confirmation_of_another_payment(self):
        first = self.start()
        address = self.browser.decide(self.url_of(first), "pay")
        second = self.start()
        self.url_of(second)
        status, out, errors = second.finish(address)
        self.assertEqual((status, out), (1, ""))
        self.assertIn("refused: TOKEN is not", errors)
        self.assertEqual(first.finish(address)[0], 0)

    def test_refuses_its_own_payment_message_as_a_confirmation(self):
        example = self.start()
        status, out, errors = example.finish(self.url_of(example))
        self.assertEqual((status, out, errors), (1, "", 'refused: MSGTYPE is not "PayConfirm"\n'))

    def test_survives_invalid_addresses(self):
        for address in ("", "nonsense", "/?DATA=", "/?DATA=%", "/?DATA=%4&SIGNATURE=%", "/?DATA=%zz&SIGNATURE=%0",
                        "/?DATA=x&SIGNATURE=" + "%41" * 2000, "/?DATA=" + "%3c" * 2000 + "&SIGNATURE=00"):
            with self.subTest(address[:40]):
                example = self.start()
                self.url_of(example)
                status, out, errors = example.finish(address)
                self.assertEqual((status, out), (1, ""))
                self.assertNotEqual(errors, "")

    def test_reports_a_wrong_password(self):
        status, out, errors = self.start("guessed").finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("result 0x80040213", errors)

    def test_prints_its_usage(self):
        self.assertEqual(Program(self.program).finish()[0], 2)


class PaymentInC(PaymentTests, SandboxCase):
    program = os.environ["KVX_PAYMENT_C"]


class PaymentInCpp(PaymentTests, SandboxCase):
    program = os.environ["KVX_PAYMENT_CPP"]


class QuickstartTests:
    """Tests of the quickstarts. `program` is the command that runs one."""

    program = []

    def start(self):
        return Program(*self.program, self.merchant, self.service)

    def test_captures_what_was_paid(self):
        example = self.start()
        address = self.browser.decide(example.line(), "pay")
        self.assertEqual(example.finish(*parameters(address)), (0, "The payment is captured.\n", ""))
        self.assertEqual(self.states(), ["captured"])

    def test_refuses_a_cancelled_payment(self):
        example = self.start()
        address = self.browser.decide(example.line(), "cancel")
        status, out, errors = example.finish(*parameters(address))
        self.assertNotEqual(status, 0)
        self.assertEqual(out, "")
        self.assertIn('not paid: RESULT is "cancelled", not "authorised"\n', errors)
        self.assertEqual(self.states(), ["cancelled"])

    def test_refuses_an_altered_confirmation(self):
        example = self.start()
        data, signature = parameters(self.browser.decide(example.line(), "pay"))
        status, out, errors = example.finish(data.replace("19.90", "9.90"), signature)
        self.assertNotEqual(status, 0)
        self.assertEqual(out, "")
        self.assertIn("0x80040214", errors)
        self.assertIn("invalid signature", errors)


class QuickstartInC(QuickstartTests, SandboxCase):
    program = [os.environ["KVX_QUICKSTART_C"]]

    def test_makes_a_key_at_every_start_and_leaves_the_earlier_one(self):
        keys = []
        for _ in range(2):
            example = self.start()
            example.line()
            example.finish()
            keys.append((self.merchant / "keys" / "current").read_text())
        self.assertNotEqual(keys[0], keys[1])
        self.assertEqual({file.name for file in (self.merchant / "keys" / "private").iterdir()}, set(keys))


class QuickstartInJava(QuickstartTests, SandboxCase):
    program = java_example("Quickstart")


class ShopInJava(CompiledExample, SandboxCase):
    """The shop in Java, through its web pages."""

    example = "Shop"

    def setUp(self):
        super().setUp()
        self.log = r"^$"
        self.open_shop()
        self.addCleanup(self.stop_shop)

    def start(self, password="demo"):
        return Program(*self.command, self.merchant, self.service, "demo",
                       env={**os.environ, "TALLOWIN_PASSWORD": password})

    def open_shop(self):
        self.shop = self.start()
        line = self.shop.line()
        self.assertTrue(line.startswith("The shop is open at http://127.0.0.1:"), line)
        self.address = line.split(" ")[-1]

    def stop_shop(self):
        _, out, errors = self.shop.stop()
        self.assertEqual(out, "")
        self.assertRegex(errors, self.log)

    def number(self):
        """The number of the next order, which the page of the article has."""
        return re.search(r'name="number" value="([0-9a-f]{4}(?:-[0-9a-f]{4}){4})"', Browser.request(self.address)[2]).group(1)

    def buy(self, number=None):
        """Submits the shop's form. Returns the payment URL."""
        status, location, page = Browser.request(self.address + "buy", {"number": number or self.number()})
        self.assertEqual(status, 303, page)
        return location

    def order_page(self, back):
        """Follows the return to the shop. Returns the page of the order."""
        status, location, page = Browser.request(back)
        self.assertEqual(status, 303, page)
        return self.page(location)

    def page(self, path):
        status, _, page = Browser.request(self.address.rstrip("/") + path)
        self.assertEqual(status, 200, page)
        return page

    def wait_for(self, *states):
        """Waits until the payments have these states at the service: the worker captures when it comes round."""
        for _ in range(RESPONSE_SECONDS * 1000):
            if self.states() == list(states):
                return
        self.assertEqual(self.states(), list(states))

    def deliveries(self):
        return len(list((self.merchant / "deliveries").glob("*")))

    def control(self, path, **command):
        request = urllib.request.Request(self.addresses["control"] + path, json.dumps(command).encode(),
                                         {"Content-Type": "application/json"})
        urllib.request.urlopen(request, timeout=RESPONSE_SECONDS).close()

    def test_captures_and_completes_what_was_paid(self):
        number = self.number()
        page = self.order_page(self.browser.decide(self.buy(number), "pay"))
        self.assertRegex(page, "[Tt]he order is paid")
        self.assertIn(f"Order {number}", page)
        self.wait_for("completed")
        for _ in range(RESPONSE_SECONDS * 1000):
            page = self.page(f"/orders/{number}")
            if "http-equiv=\"refresh\"" not in page:
                break
        self.assertIn("The order is paid and on its way.", page)
        self.assertIn("Handed to the carrier.", page)
        link = re.search(r'<a href="([^"]*/payment\?id=[^"]*)">', page).group(1)
        self.assertEqual(Browser.request(link)[0], 200)
        self.assertEqual(self.deliveries(), 1)

    def test_looks_like_a_shop(self):
        page = self.page("/")
        self.assertIn("A demonstration.", page)
        for name, kind in (("/shop.css", ":root {"), ("/candle.svg", "<svg"), ("/flame.svg", "<svg")):
            self.assertIn(f'"{name}"', page)
            self.assertIn(kind, self.page(name))

    def test_stops_at_a_current_key_that_cannot_be_read(self):
        self.check_that_an_unreadable_key_ends_the_start()

    def test_reports_unpaid_orders_which_can_be_paid_again(self):
        for decision, wanted in (("decline", "declined"), ("cancel", "without paying")):
            with self.subTest(decision):
                number = self.number()
                page = self.order_page(self.browser.decide(self.buy(number), decision))
                self.assertIn(wanted, page)
                self.assertIn("Nothing has been charged.", page)
                self.order_page(self.browser.decide(self.buy(number), "pay"))
                self.assertNotIn("Nothing has been charged.", self.page(f"/orders/{number}"))
        self.wait_for("declined", "completed", "cancelled", "completed")
        self.assertEqual(self.deliveries(), 2)

    def test_never_says_of_an_authorised_payment_that_nothing_was_charged(self):
        number = self.number()
        payment = self.buy(number)
        self.control("/faults", kind="drop", exchange="notification")
        back = self.browser.decide(payment, "pay")
        page = self.page(f"/orders/{number}")
        self.assertNotIn("charged", page)
        self.assertIn("no confirmation of a payment yet", page)
        self.order_page(back)
        self.wait_for("completed")

    def test_sells_once_what_is_ordered_by_two_clicks(self):
        number = self.number()
        payment = self.buy(number)
        self.assertEqual(self.buy(number), payment)
        self.order_page(self.browser.decide(payment, "pay"))
        self.assertEqual(self.buy(number), f"/orders/{number}")
        self.wait_for("completed")
        self.assertEqual(self.deliveries(), 1)

    def test_shows_parallel_and_repeated_returns_the_same_paid_order(self):
        back = self.browser.decide(self.buy(), "pay")
        with concurrent.futures.ThreadPoolExecutor(20) as browsers:
            answers = list(browsers.map(Browser.request, [back] * 40))
        self.assertEqual({(status, location) for status, location, _ in answers}, {(303, answers[0][1])})
        self.wait_for("completed")
        self.assertEqual(self.deliveries(), 1)

    def test_knows_its_orders_after_a_restart(self):
        number = self.number()
        payment = self.buy(number)
        self.shop.process.kill()
        self.stop_shop()
        self.control("/faults", kind="drop", exchange="notification")
        back = self.browser.decide(payment, "pay")
        self.open_shop()
        self.assertIn("no confirmation", self.page(f"/orders/{number}"))
        self.assertIn("is paid", self.order_page(f"{self.address}paid?{back.partition('?')[2]}"))
        self.wait_for("completed")
        self.assertEqual(self.deliveries(), 1)

    def test_finds_out_about_a_capture_whose_response_was_lost(self):
        payment = self.buy()
        self.control("/faults", kind="drop", exchange="capture")
        self.order_page(self.browser.decide(payment, "pay"))
        self.wait_for("completed")

    def test_fetches_a_key_that_is_not_here(self):
        self.control("/keys/rotate")
        back = self.browser.decide(self.buy(), "pay")
        for _ in range(RESPONSE_SECONDS * 1000):
            status, _, page = Browser.request(back)
            if status != 503:
                break
            self.assertIn("One moment, please", page)
        self.assertEqual(status, 303)
        self.wait_for("completed")
        self.assertEqual(self.deliveries(), 1)

    def test_refuses_forged_confirmations(self):
        first, second = self.buy(), self.buy()
        paid = self.browser.decide(first, "pay")
        cancelled = self.browser.decide(second, "cancel").replace("/back?", "/paid?")
        own = first.replace(self.addresses["pay"], self.address + "paid")
        self.assertEqual(Browser.request(paid)[0], 303)
        self.assertIn("without paying", self.order_page(cancelled))
        for address, reason in ((cancelled.replace("cancelled", "authorised"), "BAD_SIGNATURE"),
                                (own, "OWN_KEY"),
                                (self.address + "paid", "FORMAT"),
                                (cancelled.partition("&SIGNATURE")[0], "NO_SIGNATURE"),
                                (self.address + "paid?DATA=%zz", "Bad Request"),
                                (self.address + "failed?DATA=%3ca%3e&SIGNATURE=00", "FORMAT"),
                                (self.address + "back?DATA=%00%ff&SIGNATURE=%00", "FORMAT"),
                                (self.address + "notified?" + cancelled.partition("?")[2].replace("cancelled", "authorised"), "REFUSED")):
            with self.subTest(address[:60]):
                status, _, page = Browser.request(address)
                self.assertEqual((status, reason in page), (400, True), page)
        self.wait_for("completed", "cancelled")
        self.assertEqual(self.deliveries(), 1)

    def test_has_no_other_pages(self):
        for path in ("admin", "buy", "orders/", "orders/none", "orders/" + "0" * 24, "paid/more"):
            self.assertEqual(Browser.request(self.address + path)[0], 404, path)
        for number in ("", "1", "../../secret"):
            self.assertEqual(Browser.request(self.address + "buy", {"number": number})[0], 400)

    def test_reports_a_wrong_password(self):
        self.merchant = self.directory / "another"
        status, out, errors = self.start("guessed").finish()
        self.assertEqual((status, out), (1, ""))
        self.assertIn("0x80040213", errors)


class Demonstration(SandboxCase):
    def run_demo(self):
        return Program(os.environ["KVX_DEMO"], self.service, self.merchant).finish()

    def test_ends_with_all_steps_as_expected(self):
        status, out, errors = self.run_demo()
        self.assertEqual((status, errors), (0, ""))
        rows = re.findall(r"^ ?(\d+)  (.*\S)$", out, re.MULTILINE)
        self.assertGreater(len(rows), 50)
        self.assertEqual([int(number) for number, _ in rows], list(range(1, len(rows) + 1)))
        self.assertTrue(out.endswith(f"\n{len(rows)} steps, all as expected.\n"), out[-200:])
        self.assertEqual(self.states(), ["completed", "cancelled"])

    def test_prints_the_real_addresses(self):
        out = self.run_demo()[1]
        urls = re.findall(r"\| (" + re.escape(self.addresses["pay"]) + r"\?DATA=\S+&SIGNATURE=[0-9a-f]+)$", out,
                          re.MULTILINE)
        self.assertEqual(len(urls), 2)
        # Both payments are decided, so the service refuses their URLs.
        for url in urls:
            self.assertEqual(Browser.request(url)[0], 400)

    def test_stops_at_the_first_unexpected_result(self):
        (self.merchant / "config.xml").mkdir(parents=True)
        status, out, errors = self.run_demo()
        self.assertEqual(status, 1)
        self.assertIn("The demonstration stops here: ConfigurationSetup_Reconfigure", errors)
        self.assertRegex(out, r" 2  ConfigurationSetup_Reconfigure +0x80040219 .* expected: 0x80040213 ")

    def test_stops_without_a_service(self):
        self.stop_sandbox()
        status, out, errors = self.run_demo()
        self.assertEqual(status, 1)
        self.assertIn("The demonstration stops here: ConfigurationSetup_Reconfigure", errors)
        self.assertIn("the demonstration did not finish", out)

    def test_prints_its_usage(self):
        self.assertEqual(Program(os.environ["KVX_DEMO"]).finish()[0], 2)
        status, out, _ = Program(os.environ["KVX_DEMO"], "--help").finish()
        self.assertEqual(status, 0)
        self.assertIn("Usage:", out)


class DemonstrationScript(unittest.TestCase):
    script = ROOT / "demo.sh"

    def test_prints_its_usage_from_anywhere(self):
        with tempfile.TemporaryDirectory() as elsewhere:
            status, out, errors = Program(self.script, "--help", cwd=elsewhere).finish()
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("--keep", out)

    def test_refuses_an_unknown_option(self):
        status, out, errors = Program(self.script, "--fast").finish()
        self.assertEqual((status, out), (2, ""))
        self.assertIn("unknown option --fast", errors)


class Quotations(unittest.TestCase):
    """Pages quote examples word for word."""

    def check(self, source, comment, page, language):
        marker = rf"^ *{comment} \[{{}}quickstart\][^\n]*\n"
        marked = re.findall(marker.format("") + "(.*?)" + marker.format("/"), (ROOT / "examples" / source).read_text(),
                            re.MULTILINE | re.DOTALL)
        self.assertEqual(len(marked), 1)
        fenced = re.findall(rf"^```{language}\n(.*?)^```$", (ROOT / page).read_text(), re.MULTILINE | re.DOTALL)
        self.assertIn(marked[0], fenced)
        return marked[0].count("\n")

    def test_readme_quotes_twenty_lines_of_c(self):
        self.assertLessEqual(self.check("c/quickstart.c", r"/\*", "README.md", "c"), 20)

    def test_page_for_java_quotes_its_quickstart(self):
        self.check("java/Quickstart.java", "//", "docs/java.md", "java")


if __name__ == "__main__":
    unittest.main()
