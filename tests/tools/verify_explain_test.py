"""tallowin verify --explain: what was signed, by which key, and which single change makes the confirmation pass."""

import json
import re
import unittest
import urllib.parse

from sandboxcase import parameters
from toolcase import AccountCase


class Explain(AccountCase):
    """Each test changes a confirmation that the sandbox has signed."""

    def setUp(self):
        super().setUp()
        out = self.succeed("pay", "--dir", self.merchant, "--amount", "12.50", "--currency", "EUR", "--order", "A-1",
                           "--json").json()
        self.url = out["url"]
        self.token = out["token"]
        self.address = self.browser.decide(out["url"], "pay")
        self.data, self.signature = parameters(self.address)

    def explain(self, data, signature, *options):
        """The explanation of a refused confirmation. People must get its sentence first."""
        arguments = ["verify", "--dir", self.merchant, data, signature, "--explain", *options]
        run = self.tool(*arguments, "--json")
        self.assertEqual(run.status, 1, run.out + run.errors)
        report = run.json()
        self.assertFalse(report["ok"])
        self.assertTrue(report["error"]["code"], report)
        people = self.tool(*arguments)
        self.assertEqual((people.status, people.errors), (1, ""))
        self.assertEqual(people.out.splitlines()[0], report["explanation"]["sentence"])
        self.assertIn("\n  its reason:       " + report["error"]["reason"] + "\n", people.out)
        return report["explanation"]

    def changed(self, old, new):
        self.assertIn(old, self.data)
        return self.data.replace(old, new)

    def test_names_the_attribute_that_was_changed(self):
        for old, new, sentence, change in (
                ('AMOUNT="12.50"', 'AMOUNT="1.50"', "AMOUNT was changed from 12.50 to 1.50", "change AMOUNT to 12.50"),
                ('AMOUNT="12.50"', 'AMOUNT="999.00"', "AMOUNT was changed from 12.50 to 999.00", "change AMOUNT to 12.50"),
                ('CURRENCY="EUR"', 'CURRENCY="JPY"', "CURRENCY was changed from EUR to JPY", "change CURRENCY to EUR"),
                ('KEYID="1-SERVER-1"', 'KEYID="1-SERVER-2"', "KEYID was changed from 1-SERVER-1 to 1-SERVER-2",
                 "change KEYID to 1-SERVER-1"),
                ('/>', ' TIP="5"/>', "TIP was added with the value 5", "remove TIP")):
            with self.subTest(new=new):
                found = self.explain(self.changed(old, new), self.signature)
                self.assertEqual((found["sentence"], found["change"]), (sentence, change))
                self.assertEqual(found["signedText"], self.data)
                self.assertEqual(found["signer"]["keyId"], "1-SERVER-1")
                self.assertEqual((found["signer"]["owner"], found["signer"]["current"]), ("the server", True))
                self.assertEqual(len(found["differences"]), 1)

    def test_the_change_it_names_makes_it_pass(self):
        found = self.explain(self.changed("12.50", "1.50"), self.signature)
        self.succeed("verify", "--dir", self.merchant, found["signedText"], self.signature, "--amount", "12.50")

    def test_uses_what_the_order_expects(self):
        forged = self.changed(self.token, "0" * 32).replace("12.50", "77777777.00")
        found = self.explain(forged, self.signature, "--token", self.token, "--amount", "12.50")
        self.assertEqual([row["name"] for row in found["differences"]], ["TOKEN", "AMOUNT"])
        self.assertEqual(found["signedText"], self.data)
        self.assertIsNone(self.explain(forged, self.signature)["signedText"])

    def test_uses_originals(self):
        forged = self.changed(self.token, "0" * 32).replace("12.50", "77777777.00")
        for content in (self.address, self.data + "\n", urllib.parse.urlsplit(self.address).query):
            with self.subTest(content=content[:20]):
                original = self.directory / "original"
                original.write_text(content)
                found = self.explain(forged, self.signature, "--original", original)
                self.assertEqual(found["signedText"], self.data)
                self.assertEqual(len(found["differences"]), 2)
        self.fail_with(1, "cannot read the original", "verify", "--dir", self.merchant, forged, self.signature, "--explain",
                       "--original", self.directory / "missing")
        (self.directory / "broken").write_text("%zz")
        self.fail_with(1, "holds no message", "verify", "--dir", self.merchant, forged, self.signature, "--explain",
                       "--original", self.directory / "broken")

    def test_names_damage_on_the_way(self):
        for data, sentence in ((self.data.replace('"', "&quot;"), "DATA was changed on its way: it was escaped for HTML"),
                               (self.data.replace(" ", "+"), "DATA was changed on its way: each space became +"),
                               (self.data.replace('"/>', '" />'), "The text of DATA was changed: ' ' was added after")):
            with self.subTest(sentence=sentence):
                self.assertIn(sentence, self.explain(data, self.signature)["sentence"])

    def test_names_a_damaged_signature(self):
        digit = "1" if self.signature[9] == "0" else "0"
        for signature in (self.signature[:9] + digit + self.signature[10:], self.signature[:-1], "0" + self.signature):
            with self.subTest(length=len(signature)):
                found = self.explain(self.data, signature)
                self.assertIn("SIGNATURE was changed: ", found["sentence"])
                self.assertEqual(found["change"], "use the signature " + self.signature)

    def test_names_a_missing_signature(self):
        arguments = ["verify", "--dir", self.merchant, self.data, "--explain", "--json"]
        self.assertEqual(self.tool(*arguments).json()["explanation"]["sentence"], "There is no SIGNATURE")

    def test_names_a_key_that_is_unknown_or_another(self):
        other = self.explain(self.data, "ab" * (len(self.signature) // 2))
        self.assertIn("SIGNATURE was not made with the key '1-SERVER-1' of the server", other["sentence"])
        self.assertIsNone(other["signer"])
        (self.merchant / "keys" / "public" / "1-SERVER-1").rename(self.directory / "kept")
        unknown = self.explain(self.data, self.signature)
        self.assertIn("The message names the key '1-SERVER-1', which is not a key of this directory", unknown["sentence"])

    def test_names_the_merchant_s_own_message(self):
        (self.merchant / "settings.xml").write_text('<KVX PROFILE="strict"/>')
        found = self.explain(*parameters(self.url))
        self.assertRegex(found["sentence"], r"^This is a message of the merchant 1001, signed with its own key 0-1001-\w+")
        self.assertTrue(found["valid"])

    def test_names_a_pin(self):
        (self.merchant / "settings.xml").write_text(f'<KVX KEYPIN="{"0" * 64}"/>')
        found = self.explain(self.data, self.signature)
        self.assertIn("refuses the message for another reason", found["sentence"])
        self.assertIn("KEYPIN", found["change"])

    def test_explains_nothing_that_passes_or_is_not_asked_for(self):
        run = self.tool("verify", "--dir", self.merchant, self.address, "--explain", "--json")
        self.assertEqual((run.status, "explanation" in run.json()), (0, False))
        run = self.tool("verify", "--dir", self.merchant, self.changed("12.50", "1.50"), self.signature, "--json")
        self.assertEqual((run.status, "explanation" in run.json()), (1, False))

    def test_people_never_get_controls(self):
        forged = self.changed("EUR", "\x1b[2J\u202e")
        run = self.tool("verify", "--dir", self.merchant, forged, self.signature, "--explain")
        self.assertEqual(run.status, 1)
        self.assertFalse(re.search("[\x00-\x09\x0b-\x1f\u202e]", run.out), run.out)
        report = json.loads(self.tool("verify", "--dir", self.merchant, forged, self.signature, "--explain", "--json").out)
        self.assertNotIn("\x1b", report["explanation"]["sentence"])


if __name__ == "__main__":
    unittest.main()
