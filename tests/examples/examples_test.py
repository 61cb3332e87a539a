"""The examples and the demonstration against a running sandbox; pages that quote examples against the examples.

CMakeLists.txt sets environment variables with the paths of all programs.

Order: the examples, the demonstration, demo.sh, the quotations.
"""

import os
import pathlib
import re
import tempfile
import unittest

from sandboxcase import Browser, Program, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])


def java_example(name):
    """The command that runs an example in Java."""
    return [os.environ["KVX_JAVA_RUN"], "-Xcheck:jni", "-cp", os.environ["KVX_JAR"],
            ROOT / "examples" / "java" / (name + ".java")]


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


class ShopInJava(SandboxCase):
    """The shop in Java, through its web pages."""

    def setUp(self):
        super().setUp()
        self.shop = self.start()
        self.addCleanup(self.stop_shop)
        line = self.shop.line()
        self.assertTrue(line.startswith("The shop is open at http://127.0.0.1:"), line)
        self.address = line.split(" ")[-1]

    def start(self, password="demo"):
        return Program(*java_example("Shop"), self.merchant, self.service, "demo",
                       env={**os.environ, "TALLOWIN_PASSWORD": password})

    def stop_shop(self):
        _, out, errors = self.shop.stop()
        self.assertEqual((out, errors), ("", ""))

    def buy(self):
        """Submits the shop's form. Returns the payment URL."""
        status, location, page = Browser.request(self.address + "buy", {})
        self.assertEqual(status, 303, page)
        return location

    def test_captures_and_completes_what_was_paid(self):
        status, _, page = Browser.request(self.browser.decide(self.buy(), "pay"))
        self.assertEqual((status, "Order 1 is paid" in page), (200, True), page)
        self.assertEqual(self.states(), ["completed"])
        self.assertIn("Order 1: paid", Browser.request(self.address)[2])

    def test_stops_at_a_current_key_that_cannot_be_read(self):
        self.check_that_an_unreadable_key_ends_the_start()

    def test_reports_unpaid_orders(self):
        for decision, wanted in (("decline", "declined"), ("cancel", "without paying")):
            with self.subTest(decision):
                status, _, page = Browser.request(self.browser.decide(self.buy(), decision))
                self.assertEqual((status, wanted in page), (200, True), page)
        self.assertIn("Order 1: not paid yet", Browser.request(self.address)[2])

    def test_refuses_forged_and_repeated_confirmations(self):
        first, second = self.buy(), self.buy()
        paid = self.browser.decide(first, "pay")
        cancelled = self.browser.decide(second, "cancel").replace("/back?", "/paid?")
        own = first.replace(self.addresses["pay"], self.address + "paid")
        self.assertEqual(Browser.request(paid)[0], 200)
        for address, reason in ((paid, "has been paid already"),
                                (cancelled, "RESULT is not"),
                                (cancelled.replace("cancelled", "authorised"), "0x80040214"),
                                (own, "MSGTYPE is not"),
                                (self.address + "paid", "0x80040"),
                                (self.address + "paid?DATA=%zz", "Bad Request"),
                                (self.address + "paid?DATA=%3ca%3e&SIGNATURE=00", "0x80040")):
            with self.subTest(address[:60]):
                status, _, page = Browser.request(address)
                self.assertEqual((status, reason in page), (400, True), page)
        self.assertEqual(self.states(), ["completed", "cancelled"])

    def test_has_no_other_pages(self):
        self.assertEqual(Browser.request(self.address + "admin")[0], 404)
        self.assertEqual(Browser.request(self.address + "buy")[0], 404)

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
