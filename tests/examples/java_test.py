"""The three pages of a shop in Java, and the programs of the page for Java, against a running sandbox.

CMakeLists.txt sets environment variables with the paths of all programs.
"""

import json
import os
import re
import subprocess
import unittest
import urllib.request

from examples_test import ROOT, CompiledExample
from sandboxcase import RESPONSE_SECONDS, TIMEOUT_SECONDS, Browser, Program, SandboxCase, parameters

SET_UP = """
import kelvane.tallowin.ConfigurationSetup;
public class SetUp {
    public static void main(String[] arguments) throws Exception {
        try (ConfigurationSetup setup = new ConfigurationSetup()) {
            setup.SetConfiguration(arguments[0]);
            setup.Reconfigure(arguments[1], "demo", "demo");
        }
    }
}
"""

# What another program does while the pages are served: payments can be signed at any moment.
RENEW = """
import kelvane.tallowin.ledger.Ledger;
public class Renew {
    public static void main(String[] arguments) throws Exception {
        try (Ledger orders = new Ledger("sqlite:" + arguments[0] + "/orders.db", arguments[0])) {
            orders.renewKeys(arguments[1], "demo", "demo");
        }
    }
}
"""


class ShopPagesInJava(CompiledExample, SandboxCase):
    example = "ShopPages"

    def setUp(self):
        super().setUp()
        self.run_program("SetUp", SET_UP)
        self.log = r"^$"
        self.deliveries = []
        self.start_shop()
        self.addCleanup(self.stop_shop)

    def run_program(self, name, text):
        program = self.directory / f"{name}.java"
        program.write_text(text)
        running = Program(os.environ["KVX_JAVA_RUN"], "-cp", os.environ["KVX_JAR"], program, self.merchant, self.service)
        self.assertEqual(running.finish(), (0, "", ""))

    def start_shop(self):
        self.shop = Program(*self.command, self.merchant)
        self.address = self.shop.line()
        self.assertRegex(self.address, r"^http://127\.0\.0\.1:[0-9]+$")

    def stop_shop(self):
        _, out, errors = self.shop.stop()
        self.deliveries += out.splitlines()
        self.assertRegex(errors, self.log)

    def delivered(self):
        """Stops the shop. Returns how many orders have been delivered, each of them once."""
        self.stop_shop()
        self.assertEqual(len(self.deliveries), len(set(self.deliveries)))
        for line in self.deliveries:
            self.assertRegex(line, r"^deliver [0-9a-f-]{36}$")
        return len(self.deliveries)

    def buy(self):
        status, location, page = Browser.request(self.address + "/pay", {})
        self.assertEqual(status, 303, page)
        return location

    def wait_for(self, *states):
        """Waits until the payments have these states at the service: the worker captures when it comes round."""
        for _ in range(RESPONSE_SECONDS * 1000):
            if self.states() == list(states):
                return
        self.assertEqual(self.states(), list(states))

    def captures(self):
        exchanges = json.loads(Browser.request(self.addresses["control"] + "/exchanges")[2])["exchanges"]
        return sum(exchange["kind"] == "capture" for exchange in exchanges)

    def arm(self, exchange):
        """The next exchange of that kind is carried out, and its response is lost."""
        fault = json.dumps({"kind": "drop", "exchange": exchange})
        done = subprocess.run(["curl", "-sSf", "-m", str(RESPONSE_SECONDS), "-H", "Content-Type: application/json", "-d", fault,
                               self.addresses["control"] + "/faults"], capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_shows_a_return_twice_delivers_and_captures_once(self):
        back = self.browser.decide(self.buy(), "pay")
        for _ in range(3):
            status, _, page = Browser.request(back)
            self.assertEqual((status, "is paid." in page), (200, True), page)
        self.wait_for("captured")
        self.assertEqual((self.captures(), self.delivered()), (1, 1))

    def test_is_notified_when_the_shopper_does_not_return(self):
        back = self.browser.decide(self.buy(), "pay")
        self.wait_for("captured")
        query = back.partition("?")[2]
        self.assertEqual(Browser.request(f"{self.address}/notify?{query}")[0], 200)
        self.assertEqual((self.captures(), self.delivered()), (1, 1))

    def test_takes_note_of_unpaid_orders(self):
        for decision in ("decline", "cancel"):
            back = self.browser.decide(self.buy(), decision)
            for _ in range(2):  # before or after the notification
                status, _, page = Browser.request(back)
                self.assertEqual((status, "You have not paid." in page), (200, True), page)
            self.assertEqual(Browser.request(f"{self.address}/notify?{back.partition('?')[2]}")[0], 200)
        self.assertEqual((self.states(), self.captures(), self.delivered()), (["declined", "cancelled"], 0, 0))

    def test_refuses_forgeries(self):
        self.log = r"^(/(pay|return|notify): .*\n)+$"
        payment = self.buy()
        back = self.browser.decide(payment, "cancel")
        own = payment.replace(self.addresses["pay"], self.address + "/return")
        for address in (back.replace("cancelled", "authorised"), own, self.address + "/return", self.address + "/pay",
                        self.address + "/notify?DATA=%3ca%3e&SIGNATURE=00", self.address + "/return?DATA&SIGNATURE=",
                        self.address + "/return?DATA=%00%ff&SIGNATURE=%00", self.address + "/notify"):
            with self.subTest(address[:70]):
                status, _, page = Browser.request(address)
                self.assertEqual((status, "does not pay" in page), (400, True), page)
        self.assertEqual((self.states(), self.captures(), self.delivered()), (["cancelled"], 0, 0))

    def test_finds_out_about_a_capture_whose_response_was_lost(self):
        payment = self.buy()
        self.arm("notification")
        back = self.browser.decide(payment, "pay")
        self.arm("capture")
        for _ in range(2):
            self.assertEqual(Browser.request(back)[0], 200)
        self.wait_for("captured")
        self.assertEqual((self.captures(), self.delivered()), (1, 1))

    def test_knows_its_orders_after_a_restart(self):
        payment = self.buy()
        self.shop.process.kill()
        self.stop_shop()
        self.arm("notification")
        back = self.browser.decide(payment, "pay")
        self.start_shop()
        status, _, page = Browser.request(f"{self.address}/return?{back.partition('?')[2]}")
        self.assertEqual((status, "is paid." in page), (200, True), page)
        self.wait_for("captured")
        self.assertEqual((self.captures(), self.delivered()), (1, 1))

    def test_asks_to_wait_for_a_key_that_is_not_here(self):
        self.log = r"^(/notify: KEPT: .*\n)*$"
        request = urllib.request.Request(self.addresses["control"] + "/keys/rotate", b"{}", {"Content-Type": "application/json"})
        urllib.request.urlopen(request, timeout=RESPONSE_SECONDS).close()
        back = self.browser.decide(self.buy(), "pay")
        status, _, page = Browser.request(back)
        self.assertEqual((status, "Reload this page" in page), (503, True), page)
        self.run_program("Renew", RENEW)
        self.wait_for("captured")
        status, _, page = Browser.request(back)
        self.assertEqual((status, "is paid." in page), (200, True), page)
        self.assertEqual(self.delivered(), 1)


class JavaPage(SandboxCase):
    """docs/java.md: its blocks run as written, one after the other, in one program."""

    FRAME = """
import java.io.BufferedReader;
import java.io.InputStreamReader;
{imports}
public class Page {{
    static String data, signature;
    static void sendShopperTo(String url) throws Exception {{
        System.out.println(url);
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        data = in.readLine();
        signature = in.readLine();
    }}
    static void mustBe(MessageObject message, String name, String wanted) throws KVXException {{
        if (!message.GetAttribute(name).equals(wanted)) {{
            throw new AssertionError(name);
        }}
    }}
    public static void main(String[] arguments) throws Exception {{
        String directory = arguments[0], service = arguments[1], user = "demo", password = "demo";
{blocks}
    }}
}}
"""

    def test_blocks_of_java_set_up_pay_and_explain_a_failure(self):
        page = (ROOT / "docs" / "java.md").read_text()
        blocks = re.findall(r"^```java\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
        imports = [block for block in blocks if block.startswith("import ")]
        self.assertEqual(len(imports), 1)
        program = self.directory / "Page.java"
        program.write_text(self.FRAME.format(imports=imports[0], blocks="".join(b for b in blocks if b not in imports)))
        running = Program(os.environ["KVX_JAVA_RUN"], "-Xcheck:jni", "-cp", os.environ["KVX_JAR"], program, self.merchant,
                          self.service)
        address = self.browser.decide(running.line(), "pay")
        status, out, errors = running.finish(*parameters(address))
        self.assertEqual((status, errors), (0, ""), out)
        captured, code, advice = out.splitlines()
        self.assertEqual(captured, "The payment is captured.")
        self.assertRegex(code, r"^KVX_E_INVALID_SIGNATURE: .*invalid signature")
        self.assertNotEqual(advice, "")
        self.assertEqual(self.states(), ["captured"])

    def test_the_installed_files_are_those_the_page_names(self):
        page = (ROOT / "docs" / "java.md").read_text()
        coordinates = dict(re.findall(r"<(groupId|artifactId)>([^<]*)</", page))
        pom = (ROOT / "java" / "maven" / "pom.xml.in").read_text()
        self.assertEqual(coordinates, dict(re.findall(r"<(groupId|artifactId)>([^<]*)</", pom)))


if __name__ == "__main__":
    unittest.main()
