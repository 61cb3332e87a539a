"""tallowin pay: the payments that the other commands act on."""

import datetime
import os
import unittest

from sandboxcase import parameters
from toolcase import AccountCase, environment


class Pay(AccountCase):
    def pay(self, *options, **settings):
        return self.succeed("pay", "--dir", self.merchant, "--json", *options, **settings).json()

    def test_prints_an_address_that_the_service_accepts(self):
        url = self.succeed("pay", "--dir", self.merchant, "--amount", "12.50", "--currency", "EUR", "--order", "A-1").out
        self.assertTrue(url.startswith(self.addresses["pay"] + "?DATA=") and url.endswith("\n"), url)
        status, _, page = self.browser.request(url.strip())
        self.assertEqual(status, 200)
        self.assertIn("12.50", page)
        self.assertEqual(self.states(), ["opened"])

    def test_reports_token_and_message_as_json(self):
        out = self.pay("--amount", "12.50", "--currency", "EUR", "--order", "A-1", "--set", "LANGID=de", "--set", "X.y-1=[a,b]")
        message = out["message"]
        self.assertEqual({name: message[name] for name in ("MSGTYPE", "AMOUNT", "CURRENCY", "ORDERID", "LANGID", "X.y-1")},
                         {"MSGTYPE": "PayInit", "AMOUNT": "12.50", "CURRENCY": "EUR", "ORDERID": "A-1", "LANGID": "de",
                          "X.y-1": "[a,b]"})
        self.assertEqual((out["token"], out["expiration"]), (message["TOKEN"], message["EXPIRATION"]))
        self.assertIn(f'TOKEN="{out["token"]}"', parameters(out["url"])[0])

    def test_keeps_every_character_of_a_value(self):
        value = "a=b & <\"'> \\ caf\u00e9 \n\t end"
        self.assertEqual(self.pay("--set", "X=" + value)["message"]["X"], value)
        self.assertEqual(self.pay("--set", "X=")["message"]["X"], "")

    def test_refuses_names_that_cannot_work(self):
        for text in ("X", "=1", "A B=1", "A&B=1", 'A="" B=1'[1:], "\u00c4=1", ""):
            with self.subTest(text=text):
                self.fail_with(2, "NAME=VALUE", "pay", "--dir", self.merchant, "--set", text)

    def test_takes_times_in_every_form(self):
        for text, stamp in (("20301231 23:59:59", "20301231 23:59:59"), ("2030-12-31T23:59:59Z", "20301231 23:59:59"),
                            ("2028-02-29 00:00:00", "20280229 00:00:00")):
            with self.subTest(text=text):
                self.assertEqual(self.pay("--expires", text)["expiration"], stamp)
        before = datetime.datetime.utcnow().replace(microsecond=0)
        stamp = datetime.datetime.strptime(self.pay("--expires", "900")["expiration"], "%Y%m%d %H:%M:%S")
        self.assertTrue(datetime.timedelta(seconds=900) <= stamp - before <= datetime.timedelta(seconds=960), stamp)

    def test_refuses_times_that_are_none(self):
        for text in ("", "tomorrow", "-5", "20301331 00:00:00", "20300229 00:00:00", "20300101 24:00:00",
                     "20300101 00:00:60", "20300101", "20300101 00:00:00 UTC", "9" * 30, "1e3", "2030-12-31T23:59:59+01:00"):
            with self.subTest(text=text):
                self.fail_with(2, "--expires", "pay", "--dir", self.merchant, "--expires", text)

    def test_warns_when_the_time_is_over(self):
        self.assertIn("over already", self.pay("--expires", "20200101 00:00:00")["warnings"][0])
        self.assertNotIn("warnings", self.pay("--expires", "20991231 23:59:59"))

    def test_opens_the_browser(self):
        fake = self.directory / "xdg-open"
        fake.write_text('#!/bin/sh\necho noise\nprintf %s "$1" >"$(dirname "$0")/opened"\n')
        fake.chmod(0o755)
        with_fake = environment(PATH=f"{self.directory}:{os.environ['PATH']}")
        out = self.pay("--open", env=with_fake)
        self.assertEqual((self.directory / "opened").read_text(), out["url"])
        fake.write_text("#!/bin/sh\nexit 3\n")
        for settings in ({"env": with_fake}, {"env": environment(PATH="/nowhere")}):
            run = self.tool("pay", "--dir", self.merchant, "--open", **settings)
            self.assertEqual(run.status, 1)
            self.assertTrue(run.out.startswith(self.addresses["pay"]))  # the address is not lost
            self.assertIn("xdg-open", run.errors)

    def test_reports_damaged_accounts(self):
        (self.merchant / "config.xml").write_text("<KVX")
        self.fail_with(1, "0x80040204", "pay", "--dir", self.merchant)
        (self.merchant / "keys" / "current").unlink()
        self.fail_with(1, "has not been set up", "pay", "--dir", self.merchant)
        (self.merchant / "keys" / "current").mkdir()
        self.fail_with(1, "0x80040219", "pay", "--dir", self.merchant)


if __name__ == "__main__":
    unittest.main()
