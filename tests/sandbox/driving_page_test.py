"""The lines of docs/sandbox.md that drive a sandbox from a test, run as written, and the options beside them.

CMakeLists.txt tells in KVX_ROOT where the tree is and in KVX_SANDBOX where the sandbox is.
"""

import http.server
import json
import os
import pathlib
import re
import subprocess
import threading
import unittest
import urllib.request

from merchant import Account, PrivateKey, Signer, Transport
from sandboxprocess import TIMEOUT_SECONDS, SandboxCase, SandboxProcess

PAGE = pathlib.Path(os.environ["KVX_ROOT"]) / "docs" / "sandbox.md"


class FailingShop(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_error(500)

    def log_message(self, *arguments):
        """No output."""


class Driven(SandboxCase):
    def start(self, *options):
        sandbox = SandboxProcess(self.data, *options)
        self.addCleanup(sandbox.discard)
        self.addresses = sandbox.addresses()
        return sandbox

    def publish(self):
        self.account = Account(Transport(), self.addresses["auto"])
        self.signer = Signer("0-1001-test", PrivateKey.make())
        self.account.publish(self.signer)

    def url(self, token, order, **more):
        text = self.signer.message("PayInit", TOKEN=token, ORDERID=order, AMOUNT="12.50", CURRENCY="EUR",
                                   EXPIRATION="20991231 23:59:59", FAILLINK="http://shop.example/failed", **more)
        return self.addresses["pay"] + self.signer.query(text)

    def control(self, path):
        with urllib.request.urlopen(self.addresses["control"] + path, timeout=TIMEOUT_SECONDS) as response:
            return json.load(response)

    def open_payment(self, token, order, **more):
        answer = Transport().browse(self.url(token, order, **more))
        self.assertEqual(answer.status, 200)
        return self.control("/payments")["payments"][-1]["id"]

    def curl(self, line, lines=False):
        done = subprocess.run(["bash", "-euc", line.replace("127.0.0.1:8481", f"127.0.0.1:{self.addresses['controlPort']}")],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""), line)
        return [json.loads(row) for row in done.stdout.splitlines()] if lines else json.loads(done.stdout)


class DrivingPage(Driven):
    def test_lines_of_the_page_do_what_they_say(self):
        block = re.search("### Driving it from a test\n.*?```sh\n(.*?)```", PAGE.read_text(), re.DOTALL).group(1)
        (healthy, by_order, by_token, by_id, wait, newest, notified, resend, standing, none_standing, frozen, step, scenario,
         armed, save, restore, snapshots, remove, export, description) = block.splitlines()
        sandbox = self.start()
        self.publish()
        self.assertTrue(self.curl(healthy)["ready"])
        first = self.open_payment("t1", "A-17", NOTIFYADDRESS="shop@example")
        self.assertEqual(self.curl(by_order)["id"], first)
        second = self.open_payment("t2", "A-18")
        self.assertEqual(self.curl(by_token.replace("TOKEN", "t2"))["id"], second)
        third = self.open_payment("t3", "A-19")
        decided = self.curl(by_id.replace("ID", third))
        self.assertEqual((decided["result"], decided["state"], decided["link"]), ("authorised", "authorised", ""))
        self.assertEqual(self.account.confirmation("http://x/?" + self.query_of(decided))["TOKEN"], "t3")
        self.assertEqual(self.curl(wait.replace("ID", first))["notifications"][0]["pending"], False)
        self.assertEqual(self.curl(newest)["id"], first)
        self.assertEqual(len(self.curl(notified.replace("ID", first))["notifications"]), 1)
        self.assertEqual(self.curl(resend)["payment"], first)
        self.assertEqual(self.curl(standing)["order"], "B-*")
        answer = Transport().browse(self.url("t4", "B-1"))
        self.assertEqual(answer.status, 302)
        self.assertEqual(self.curl(none_standing)["decisions"], [])
        before = self.curl(frozen)
        self.assertTrue(before["frozen"])
        after = self.curl(step)
        self.assertEqual(self.curl(scenario)["faults"][0]["skip"], 2)
        self.assertEqual(len(self.curl(armed)["steps"]), 1)
        self.assertEqual(self.curl(save)["name"], "prepared")
        self.open_payment("t5", "A-20")
        self.curl(restore)
        self.assertEqual(self.control("/payments?token=t5")["payments"], [])
        self.assertEqual(self.curl(snapshots)["snapshots"][0]["name"], "prepared")
        self.assertEqual(self.curl(remove)["snapshots"], [])
        self.assertEqual({row["payment"] if row["type"] == "exchange" else row["id"]
                          for row in self.curl(export.replace("ID", first), lines=True)}, {first})
        self.assertEqual(self.curl(description)["openapi"], "3.1.0")
        self.assertEqual(sandbox.stop(), self.STOPPED)
        self.start()
        kept = self.control("")["clock"]
        self.assertEqual((kept["present"], kept["frozen"]), (after["present"], True))
        self.assertNotEqual(kept["present"], before["present"])

    @staticmethod
    def query_of(decided):
        return "DATA=" + "".join(f"%{byte:02x}" for byte in decided["data"].encode()) + "&SIGNATURE=" + decided["signature"]


class DrivingOptions(Driven):
    def test_seed_makes_the_same_identifiers_again(self):
        found = []
        for name in ("one", "two"):
            self.data = self.data.with_name(name)
            sandbox = self.start("--seed", "7")
            self.publish()
            found.append([self.open_payment(token, "A") for token in ("a", "b")])
            self.assertEqual(sandbox.stop(), self.STOPPED)
        self.assertEqual(found[0], found[1])
        self.assertEqual(len(set(found[0])), 2)

    def test_notifications_are_retried_as_often_as_the_option_says(self):
        shop = http.server.HTTPServer(("127.0.0.1", 0), FailingShop)
        thread = threading.Thread(target=shop.serve_forever)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(shop.shutdown)
        self.addCleanup(shop.server_close)
        self.start("--notify-retries", "0,0.01,0")
        self.publish()
        payment = self.open_payment("t1", "A-17", NOTIFYADDRESS=f"http://127.0.0.1:{shop.server_port}/")
        self.curl(f"curl -sSf -H 'Content-Type: application/json' -d '{{\"decision\":\"pay\"}}' "
                  f"http://127.0.0.1:8481/control/payments/{payment}/decision")
        done = self.control(f"/payments/{payment}?until=notified&seconds=60")
        self.assertEqual(done["notifications"][0]["attempts"], 4)
        self.assertIn("given up", done["notifications"][0]["outcome"])

    def test_lenient_accepts_odd_content(self):
        self.start("--lenient")
        self.publish()
        text = self.signer.message("PayInit", TOKEN="t1", AMOUNT="12,50", CURRENCY="EUR", EXPIRATION="20991231 23:59:59")
        self.assertEqual(Transport().browse(self.addresses["pay"] + self.signer.query(text)).status, 200)
        self.assertEqual(self.control("")["counts"]["warnings"], 1)


if __name__ == "__main__":
    unittest.main()
