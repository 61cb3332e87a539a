"""tallowin orders: the ledger of a shop, which is tests/ledger/ledgerdriver.cpp."""

import json
import os
import subprocess
import unittest

import jsonschema

from sandboxcase import TIMEOUT_SECONDS, parameters
from toolcase import ROOT, AccountCase, environment

SCHEMA = json.loads((ROOT / "tools" / "tallowin.schema.json").read_text())
LATER = "4102444800000"
"""A time behind the expiry of every payment, for the option NOW."""


class OrdersCase(AccountCase):
    def setUp(self):
        super().setUp()
        self.database = self.directory / "orders.db"

    def shop(self, *arguments):
        done = subprocess.run([os.environ["KVX_LEDGER_DRIVER"], f"sqlite:{self.database}", self.merchant, "0", *arguments],
                              capture_output=True, text=True, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.strip()

    def paid(self, number):
        """An order that is paid and confirmed, and not captured."""
        confirmation = parameters(self.browser.decide(self.shop("begin", number), "pay"))
        self.write("confirmation", "\n".join(confirmation) + "\n")
        self.assertEqual(self.shop("confirm", self.directory / "confirmation"), "PAID_NOW " + number)

    def write(self, name, text):
        (self.directory / name).write_text(text)

    def words(self, command, *arguments):
        return ("orders", command, *arguments, "--dir", self.merchant, "--store", f"sqlite:{self.database}")

    def orders(self, command, *arguments):
        """Runs the command. Returns its JSON, which the schema must describe."""
        run = self.succeed(*self.words(command, *arguments), "--json")
        self.assertEqual(run.errors, "")
        jsonschema.validate(run.json(), SCHEMA)
        return run.json()

    def people(self, command, *arguments):
        return self.succeed(*self.words(command, *arguments)).out

    def refuse(self, name, command, *arguments):
        """The command must fail with the result code of that name. Returns the reason."""
        run = self.tool(*self.words(command, *arguments), "--json")
        self.assertEqual((run.status, run.errors), (1, ""), run.out)
        jsonschema.validate(run.json(), SCHEMA)
        self.assertEqual(run.json()["error"]["name"], name)
        return run.json()["error"]["reason"]


class OrdersRead(OrdersCase):
    def test_lists_orders_by_state_and_in_pages(self):
        self.paid("A-1")
        for number in ("A-2", "A-3"):
            self.shop("begin", number)
        found = self.orders("list")
        self.assertEqual([(order["number"], order["state"]) for order in found["orders"]],
                         [("A-1", "authorised"), ("A-2", "waiting"), ("A-3", "waiting")])
        self.assertIsNone(found["next"])
        self.assertEqual([order["number"] for order in self.orders("list", "--filter", "paid")["orders"]], ["A-1"])
        self.assertEqual([order["number"] for order in self.orders("list", "--filter", "waiting")["orders"]], ["A-2", "A-3"])
        first = self.orders("list", "--limit", "2")
        self.assertEqual((len(first["orders"]), first["next"]), (2, "A-2"))
        self.assertEqual([order["number"] for order in self.orders("list", "--after", first["next"])["orders"]], ["A-3"])
        self.assertRegex(self.people("list"), r"(?m)^A-1 +authorised +12\.50 EUR +\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC$")
        self.assertIn("--after A-2", self.people("list", "--limit", "2"))

    def test_shows_an_order_and_its_payments(self):
        self.paid("A-1")
        order = self.orders("show", "A-1")["order"]
        self.assertEqual((order["amount"], order["currency"], order["paid"], len(order["attempts"])), ("12.50", "EUR", True, 1))
        self.assertEqual(order["attributes"], {name: "http://shop.example/back" for name in ("BACKLINK", "FAILLINK", "SUCCESSLINK")})
        out = self.people("show", "A-1")
        self.assertRegex(out, r"(?m)^state +authorised$")
        self.assertRegex(out, r"(?m)^attempt 1: authorised$")
        self.assertIn(order["attempts"][0]["token"], out)

    def test_exports_what_openssl_verifies(self):
        self.paid("A-1")
        evidence = self.orders("export", "A-1")["evidence"]
        self.assertEqual(json.loads(self.people("export", "A-1")), evidence)
        signed = [transition for transition in evidence["transitions"] if "signature" in transition]
        self.assertEqual([transition["event"] for transition in signed], ["confirmed_paid"])
        keys = {key["fingerprint"]: key["pem"] for key in evidence["keys"]}
        self.write("key.pem", keys[signed[0]["keyFingerprint"]])
        self.write("signed.b64", signed[0]["signedBase64"])
        self.write("signature.b64", signed[0]["signatureBase64"])
        self.openssl("base64", "-d", "-A", "-in", "signed.b64", "-out", "signed")
        self.openssl("base64", "-d", "-A", "-in", "signature.b64", "-out", "signature")
        self.openssl("dgst", "-sha1", "-binary", "-out", "digest", "signed")
        self.assertIn("Successfully", self.openssl("pkeyutl", "-verify", "-pubin", "-inkey", "key.pem", "-in", "digest", "-sigfile",
                                                   "signature", "-pkeyopt", "rsa_padding_mode:pkcs1"))

    def openssl(self, *arguments):
        done = subprocess.run(["openssl", *arguments], cwd=self.directory, capture_output=True, text=True, timeout=TIMEOUT_SECONDS,
                              check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_reads_the_store_of_the_variable(self):
        self.shop("begin", "A-1")
        variables = environment(TALLOWIN_STORE=f"sqlite:{self.database}", TALLOWIN_DIR=str(self.merchant))
        self.assertIn("A-1", self.succeed("orders", "list", env=variables).out)


class OrdersWrite(OrdersCase):
    def test_resumes_what_is_due(self):
        self.paid("A-1")
        found = self.orders("resume")
        self.assertEqual((found["done"], found["attention"]), (1, []))
        self.assertEqual(self.states(), ["captured"])
        self.assertEqual(self.orders("resume")["done"], 0)
        self.assertIn("included: 0\n", self.people("resume"))

    def test_leaves_it_to_the_shop_to_be_told(self):
        self.browser.decide(self.shop("begin", "A-1"), "pay")
        self.orders("resume", "--option", "STATUSTYPE=Status", "--option", "NOW=" + LATER)
        self.assertEqual([order["number"] for order in self.orders("list", "--filter", "untold")["orders"]], ["A-1"])

    def test_does_no_more_than_the_limit(self):
        for number in ("A-1", "A-2", "A-3"):
            self.paid(number)
        self.assertEqual(self.orders("resume", "--limit", "2")["done"], 2)
        self.assertEqual(sorted(self.states()), ["authorised", "captured", "captured"])

    def test_resolves_an_order_that_needs_a_person(self):
        self.paid("A-1")
        self.arm("drop", exchange="capture")
        self.assertEqual([order["number"] for order in self.orders("resume")["attention"]], ["A-1"])
        self.assertIn("need a person", self.people("resume"))
        self.assertIn("needs a person", self.people("show", "A-1"))
        resolved = self.orders("resolve", "A-1", "--state", "captured", "--note", "Kim: captured, says the service")
        self.assertEqual((resolved["number"], resolved["state"]), ("A-1", "captured"))
        self.assertEqual(self.orders("list", "--filter", "attention")["orders"], [])
        last = self.orders("export", "A-1")["evidence"]["transitions"][-1]
        self.assertEqual((last["event"], last["to"]), ("resolved_captured", "captured"))
        self.assertIn("Kim: captured, says the service", json.dumps(last))


class OrdersRefusals(OrdersCase):
    def test_makes_no_store(self):
        run = self.fail_with(1, "No such file", *self.words("list"))
        self.assertIn("made by the shop", run.errors)
        self.assertFalse(self.database.exists())

    def test_needs_store_and_account(self):
        self.fail_with(2, "TALLOWIN_STORE", "orders", "list", "--dir", self.merchant)
        self.fail_with(2, "TALLOWIN_DIR", "orders", "list", "--store", "sqlite:orders.db")
        self.fail_with(1, "No such file", "orders", "list", "--dir", self.directory / "none", "--store", "sqlite:orders.db")
        self.fail_with(2, "required", "orders")

    def test_says_why_a_store_cannot_be_used(self):
        self.database.write_text("no database" * 1000)
        self.refuse("KVX_E_LEDGER_DAMAGED", "list")
        run = self.tool("orders", "list", "--dir", self.merchant, "--store", "files:orders", "--json")
        self.assertEqual(run.json()["error"]["name"], "KVX_E_LEDGER_CANNOT_OPEN")

    def test_gives_the_reason_of_the_ledger(self):
        self.paid("A-1")
        self.refuse("KVX_E_NOT_FOUND", "show", "A-2")
        self.refuse("KVX_E_NOT_FOUND", "export", "A-2")
        self.assertIn("nonsense", self.refuse("KVX_E_LEDGER_INVALID", "list", "--filter", "nonsense"))
        self.assertIn("NOSUCH", self.refuse("KVX_E_INVALID_OPTION", "resume", "--option", "NOSUCH=1"))
        self.refuse("KVX_E_LEDGER_STATE", "resolve", "A-1", "--state", "captured", "--note", "Kim: seen")

    def test_refuses_wrong_command_lines(self):
        self.fail_with(2, "number", *self.words("show"))
        self.fail_with(2, "--state", *self.words("resolve", "A-1", "--note", "Kim"))
        self.fail_with(2, "--note", *self.words("resolve", "A-1", "--state", "captured"))
        self.fail_with(2, "empty", *self.words("resolve", "A-1", "--state", "captured", "--note", ""))
        self.fail_with(2, "--limit", *self.words("list", "--limit", "0"))
        self.shop("begin", "A-1")
        self.fail_with(2, "NAME=VALUE", *self.words("list", "--option", "STATUSTYPE"))


if __name__ == "__main__":
    unittest.main()
