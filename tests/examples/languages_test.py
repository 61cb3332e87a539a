"""The examples in C++, Python, PHP and JavaScript against a running sandbox, and the pages that quote them.

CMakeLists.txt sets environment variables with the paths of programs and interpreters.
"""

import fcntl
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import threading
import unittest
import urllib.parse

from examples_test import ROOT, QuickstartTests
from sandboxcase import RESPONSE_SECONDS, TIMEOUT_SECONDS, Browser, Program, SandboxCase, parameters


def composer_project(directory):
    """Copies the examples in PHP to `directory` and installs the package there, as Composer does for a shop."""
    shutil.copytree(ROOT / "examples" / "php", directory)
    project = json.loads((directory / "composer.json").read_text())
    project["repositories"] = [{"type": "path", "url": str(ROOT / "bindings" / "php")}, {"packagist": False}]
    (directory / "composer.json").write_text(json.dumps(project))
    subprocess.run([os.environ["KVX_COMPOSER"], "install", "--no-interaction", "--no-progress", "--quiet"], cwd=directory,
                   env={**os.environ, "COMPOSER_ALLOW_SUPERUSER": "1", "COMPOSER_HOME": str(directory / "home")}, check=True,
                   timeout=TIMEOUT_SECONDS)


class QuickstartInCpp(QuickstartTests, SandboxCase):
    program = [os.environ["KVX_QUICKSTART_CPP"]]


class QuickstartInPython(QuickstartTests, SandboxCase):
    program = ["env", f"PYTHONPATH={ROOT / 'bindings' / 'python' / 'src'}", sys.executable, "-B",
               ROOT / "examples" / "python" / "quickstart.py"]


class QuickstartInPhp(QuickstartTests, SandboxCase):
    def setUp(self):
        super().setUp()
        composer_project(self.directory / "project")
        self.program = [os.environ["KVX_PHP"], self.directory / "project" / "quickstart.php"]


class QuickstartInNode(QuickstartTests, SandboxCase):
    program = ["env", f"NODE_PATH={os.environ['KVX_NODE_MODULES']}", os.environ["KVX_NODE"],
               ROOT / "examples" / "node" / "quickstart.js"]

    def setUp(self):
        super().setUp()
        if not (pathlib.Path(os.environ["KVX_NODE_MODULES"]) / "@kelvane" / "tallowin" / "node_modules" / "koffi").exists():
            self.skipTest("koffi is not installed: npm had no network")


class ShopInPhp(SandboxCase):
    """The three pages in PHP's own web server."""

    def setUp(self):
        super().setUp()
        composer_project(self.directory / "project")
        self.orders = self.directory / "orders"
        self.orders.mkdir()
        setting_up = Program(os.environ["KVX_PHP"], "-r", "require $argv[1] . '/vendor/autoload.php';"
                             "(new Kelvane\\Tallowin\\ConfigurationSetup($argv[2]))->reconfigure($argv[3], 'demo', 'demo');",
                             "--", self.directory / "project", self.merchant, self.service)
        self.assertEqual(setting_up.finish(), (0, "", ""))
        self.address = self.serve()

    def serve(self):
        """Starts PHP's own web server on the three pages. Their address."""
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            address = f"127.0.0.1:{free.getsockname()[1]}"
        server = Program(os.environ["KVX_PHP"], "-d", "ffi.enable=true", "-d", "display_errors=0", "-S", address, "-t",
                         self.directory / "project",
                         env={**os.environ, "SHOP_ACCOUNT": str(self.merchant), "SHOP_ORDERS": str(self.orders),
                              "SHOP_ADDRESS": f"http://{address}"})
        self.assertIn(f"http://{address}) started", server.process.stderr.readline())
        reader = threading.Thread(target=server.process.stderr.read)
        reader.start()

        def stop():
            server.process.terminate()
            reader.join(TIMEOUT_SECONDS)
            server.process.wait(TIMEOUT_SECONDS)
            server.watchdog.cancel()
            server.process.stdin.close()
            server.process.stdout.close()
            server.process.stderr.close()

        self.addCleanup(stop)
        return f"http://{address}"

    def buy(self):
        status, location, page = Browser.request(self.address + "/pay.php", {})
        self.assertEqual(status, 303, page)
        return location

    def paid(self):
        paid = []
        for path in sorted(self.orders.iterdir()):
            with open(path, encoding="utf-8") as file:
                fcntl.flock(file, fcntl.LOCK_SH)  # the shop writes it in place under a lock
                paid.append(json.load(file)["paid"])
        return paid

    def test_captures_what_was_paid(self):
        back = self.browser.decide(self.buy(), "pay")
        status, _, page = Browser.request(back)
        self.assertEqual((status, "is paid." in page), (200, True), page)
        self.assertEqual(self.states(), ["captured"])
        self.assertEqual(self.paid(), [True])

    def test_shows_a_return_twice_and_captures_once(self):
        back = self.browser.decide(self.buy(), "pay")
        for _ in range(3):
            self.assertEqual(Browser.request(back)[0], 200)
        self.assertEqual(sum(exchange["kind"] == "capture" for exchange in self.exchanges()), 1)

    def exchanges(self):
        return json.loads(Browser.request(self.addresses["control"] + "/exchanges")[2])["exchanges"]

    def test_reports_unpaid_orders(self):
        for decision in ("decline", "cancel"):
            status, _, page = Browser.request(self.browser.decide(self.buy(), decision))
            self.assertEqual((status, "You have not paid." in page), (200, True), page)
        self.assertEqual(self.paid(), [False, False])

    def test_refuses_forgeries(self):
        payment = self.buy()
        back = self.browser.decide(payment, "cancel")
        own = payment.replace(self.addresses["pay"], self.address + "/return.php")
        for address in (back.replace("cancelled", "authorised"), own, self.address + "/return.php",
                        self.address + "/return.php?DATA[]=1&SIGNATURE[]=2", self.address + "/notify.php?DATA=%3ca%3e&SIGNATURE=00",
                        self.address + "/return.php?SIGNATURE=00&DATA=" + "x" * 40000):
            with self.subTest(address[:70]):
                self.assertEqual(Browser.request(address)[0], 400)
        self.assertEqual((self.paid(), self.states()), ([False], ["cancelled"]))

    def test_refuses_to_pay_without_the_form(self):
        self.assertEqual(Browser.request(self.address + "/pay.php")[0], 405)

    def test_is_notified_when_the_shopper_does_not_return(self):
        back = self.browser.decide(self.buy(), "pay")
        for _ in range(RESPONSE_SECONDS * 1000):
            if self.paid() == [True]:
                break
        self.assertEqual(self.states(), ["captured"])
        data, signature = parameters(back)
        query = urllib.parse.urlencode({"DATA": data, "SIGNATURE": signature})
        self.assertEqual(Browser.request(f"{self.address}/notify.php?{query}")[0], 204)

    def test_answers_a_notification_of_a_cancelled_payment(self):
        query = urllib.parse.urlsplit(self.browser.decide(self.buy(), "cancel")).query
        self.assertEqual(Browser.request(f"{self.address}/notify.php?{query}")[0], 204)
        self.assertEqual(self.paid(), [False])

    def test_asks_again_after_a_capture_that_failed(self):
        payment = self.buy()
        self.arm("notification")
        back = self.browser.decide(payment, "pay")
        self.arm("capture")
        self.assertEqual(Browser.request(back)[0], 400)
        self.assertEqual(self.paid(), [False])
        self.assertEqual(Browser.request(back)[0], 200)
        self.assertEqual(self.paid(), [True])

    def arm(self, exchange):
        """The next exchange of that kind is carried out, and its response is lost."""
        fault = json.dumps({"kind": "drop", "exchange": exchange})
        done = subprocess.run(["curl", "-sSf", "-m", str(RESPONSE_SECONDS), "-H", "Content-Type: application/json", "-d", fault,
                               self.addresses["control"] + "/faults"], capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
        self.assertEqual((done.returncode, done.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
