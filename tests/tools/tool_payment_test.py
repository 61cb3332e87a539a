"""tallowin pay, verify, capture, complete and request: the life of a payment."""

import datetime
import os
import unittest
import urllib.parse

from sandboxcase import parameters
from toolcase import AccountCase, Terminal, environment


class Pay(AccountCase):
    def made(self, *options, **settings):
        return self.succeed("pay", "--dir", self.merchant, "--json", *options, **settings).json()

    def test_prints_an_address_that_the_service_accepts(self):
        url = self.succeed("pay", "--dir", self.merchant, "--amount", "12.50", "--currency", "EUR", "--order", "A-1").out
        self.assertTrue(url.startswith(self.addresses["pay"] + "?DATA=") and url.endswith("\n"), url)
        status, _, page = self.browser.request(url.strip())
        self.assertEqual(status, 200)
        self.assertIn("12.50", page)
        self.assertEqual(self.states(), ["opened"])

    def test_reports_token_and_message_as_json(self):
        out = self.made("--amount", "12.50", "--currency", "EUR", "--order", "A-1", "--set", "LANGID=de", "--set", "X.y-1=[a,b]")
        message = out["message"]
        self.assertEqual({name: message[name] for name in ("MSGTYPE", "AMOUNT", "CURRENCY", "ORDERID", "LANGID", "X.y-1")},
                         {"MSGTYPE": "PayInit", "AMOUNT": "12.50", "CURRENCY": "EUR", "ORDERID": "A-1", "LANGID": "de",
                          "X.y-1": "[a,b]"})
        self.assertEqual((out["token"], out["expiration"]), (message["TOKEN"], message["EXPIRATION"]))
        self.assertIn(f'TOKEN="{out["token"]}"', parameters(out["url"])[0])

    def test_keeps_every_character_of_a_value(self):
        value = "a=b & <\"'> \\ caf\u00e9 \n\t end"
        self.assertEqual(self.made("--set", "X=" + value)["message"]["X"], value)
        self.assertEqual(self.made("--set", "X=")["message"]["X"], "")

    def test_refuses_names_that_cannot_work(self):
        for text in ("X", "=1", "A B=1", "A&B=1", 'A="" B=1'[1:], "\u00c4=1", ""):
            with self.subTest(text=text):
                self.fail_with(2, "NAME=VALUE", "pay", "--dir", self.merchant, "--set", text)

    def test_takes_times_in_every_form(self):
        for text, stamp in (("20301231 23:59:59", "20301231 23:59:59"), ("2030-12-31T23:59:59Z", "20301231 23:59:59"),
                            ("2028-02-29 00:00:00", "20280229 00:00:00")):
            with self.subTest(text=text):
                self.assertEqual(self.made("--expires", text)["expiration"], stamp)
        before = datetime.datetime.utcnow().replace(microsecond=0)
        stamp = datetime.datetime.strptime(self.made("--expires", "900")["expiration"], "%Y%m%d %H:%M:%S")
        self.assertTrue(datetime.timedelta(seconds=900) <= stamp - before <= datetime.timedelta(seconds=960), stamp)

    def test_refuses_times_that_are_none(self):
        for text in ("", "tomorrow", "-5", "20301331 00:00:00", "20300229 00:00:00", "20300101 24:00:00",
                     "20300101 00:00:60", "20300101", "20300101 00:00:00 UTC", "9" * 30, "1e3", "2030-12-31T23:59:59+01:00"):
            with self.subTest(text=text):
                self.fail_with(2, "--expires", "pay", "--dir", self.merchant, "--expires", text)

    def test_warns_when_the_time_is_over(self):
        self.assertIn("over already", self.made("--expires", "20200101 00:00:00")["warnings"][0])
        self.assertNotIn("warnings", self.made("--expires", "20991231 23:59:59"))

    def test_opens_the_browser(self):
        fake = self.directory / "xdg-open"
        fake.write_text('#!/bin/sh\necho noise\nprintf %s "$1" >"$(dirname "$0")/opened"\n')
        fake.chmod(0o755)
        with_fake = environment(PATH=f"{self.directory}:{os.environ['PATH']}")
        out = self.made("--open", env=with_fake)
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


class Verify(AccountCase):
    def verify(self, *arguments, **settings):
        return self.tool("verify", "--dir", self.merchant, "--json", *arguments, **settings)

    def test_takes_a_confirmation_in_every_form(self):
        token, address = self.pay()
        data, signature = parameters(address)
        query = urllib.parse.urlsplit(address).query
        encoded = dict(part.split("=") for part in query.split("&"))
        lines = f"{data}\n{signature}\n"
        file = self.directory / "confirmation"
        file.write_text(address)
        for arguments, given in (((address,), ""), ((query,), ""), (("?" + query,), ""), ((data, signature), ""),
                                 ((encoded["DATA"], encoded["SIGNATURE"]), ""), (("--file", file), ""),
                                 (("--file", "-"), address), (("-",), address), ((), address + "\n"), ((), query),
                                 ((), lines), ((), lines.replace("\n", "\r\n")), (("https://shop/?a=1&" + query + "#top",), ""),
                                 (("SIGNATURE=" + encoded["SIGNATURE"] + "&X=%zz&DATA=" + encoded["DATA"],), "")):
            with self.subTest(arguments=arguments, given=given):
                run = self.verify(*arguments, "--token", token, given=given)
                self.assertEqual(run.status, 0, run.out)
                self.assertEqual(run.json()["message"]["TOKEN"], token)

    def test_passes_when_everything_is_as_expected(self):
        token, address = self.pay()
        run = self.verify(address, "--token", token, "--amount", "12.50", "--currency", "EUR", "--order", "A-1")
        out = run.json()
        self.assertEqual((run.status, out["ok"], out["notCompared"]), (0, True, []))
        self.assertEqual([check["name"] for check in out["checks"]],
                         ["type", "key", "result", "token", "amount", "currency", "order"])
        self.assertTrue(all(check["passed"] and check["expected"] == check["found"] for check in out["checks"]))

    def test_names_what_is_not_as_expected(self):
        token, address = self.pay()
        for options, name in ((("--token", "x"), "token"), (("--amount", "12.5"), "amount"), (("--currency", "USD"), "currency"),
                              (("--order", "A-2"), "order"), (("--result", "declined"), "result")):
            with self.subTest(name=name):
                run = self.verify(address, *options)
                self.assertEqual((run.status, run.json()["ok"]), (1, False))
                self.assertEqual([check["name"] for check in run.json()["checks"] if not check["passed"]], [name])
                people = self.tool("verify", "--dir", self.merchant, address, *options)
                self.assertEqual((people.status, people.errors), (1, ""))
                self.assertRegex(people.out, rf'(?m)^{name} +NO +expected "{options[1]}", found')

    def test_says_what_was_not_compared(self):
        token, address = self.pay()
        self.assertEqual(self.verify(address, "--token", token).json()["notCompared"], ["amount", "currency", "order"])
        self.assertIn("--amount was not given", self.succeed("verify", "--dir", self.merchant, address).out)

    def test_says_when_no_option_names_an_order(self):
        token, address = self.pay()
        nothing = "no option named the order"
        for options, says in (((), True), (("--amount", "12.50"), True), (("--token", token), False), (("--order", "A-1"), False)):
            with self.subTest(options=options):
                out = self.succeed("verify", "--dir", self.merchant, address, *options).out
                self.assertEqual((nothing in out, "says what was expected" in out), (says, not says))

    def test_refuses_payments_that_were_not_made(self):
        for decision, result in (("decline", "declined"), ("cancel", "cancelled")):
            with self.subTest(decision=decision):
                address = self.pay(decision)[1]
                self.assertEqual(self.verify(address).status, 1)
                self.assertEqual(self.verify(address, "--result", result).status, 0)

    def test_refuses_the_merchant_s_own_message(self):
        url = self.succeed("pay", "--dir", self.merchant).out.strip()
        run = self.verify(url)
        self.assertEqual(run.status, 1)
        self.assertEqual([check["name"] for check in run.json()["checks"] if not check["passed"]], ["type", "key"])

    def test_refuses_what_was_changed(self):
        address = self.pay()[1]
        data, signature = parameters(address)
        for changed, code in (((data.replace("12.50", "1.50"), signature), "0x80040214"),
                              ((data, "0" + signature[1:] if signature[0] != "0" else "1" + signature[1:]), "0x80040214"),
                              ((data, "zz"), "0x8004020B"), ((data.replace("1-SERVER-1", "9"), signature), "0x8004020D"),
                              ((data[:-3], signature), "0x80040204")):
            with self.subTest(code=code):
                run = self.verify(*changed)
                self.assertEqual((run.status, run.json()["error"]["code"]), (1, code))
        run = self.verify(data)
        self.assertEqual(run.json()["error"]["code"], "0x8004021A")

    def test_refuses_what_is_no_confirmation(self):
        address = self.pay()[1]
        data, signature = parameters(address)
        for text, message in (("", "no confirmation"), ("  \n", "no confirmation"), ("hello", "no confirmation"),
                              ("http://shop/return", "no confirmation"), ("DATA=%3", "without two hexadecimal"),
                              ("DATA=%zz", "without two hexadecimal"), ("DATA=a&DATA=b", "DATA twice"),
                              ("DATA=a&SIGNATURE=&SIGNATURE=", "SIGNATURE twice"), ("DATA=%00", "zero byte"),
                              ("<KVX/>\0", "zero byte"), ("<" + "x" * (1 << 20), "longer than a megabyte"),
                              ("<KVX/>", "0x8004"), ("\x1b]0;x\x07", "no confirmation"), ("%3c%", "without two hexadecimal")):
            with self.subTest(text=text[:20]):
                run = self.fail_with(1, message, "verify", "--dir", self.merchant, given=text)
                self.assertNotIn("\x1b", run.errors)
        self.fail_with(1, "No such file", "verify", "--dir", self.merchant, "--file", self.directory / "missing")
        self.fail_with(1, "cannot read", "verify", "--dir", self.merchant, "--file", self.directory)
        self.fail_with(2, "not both", "verify", "--dir", self.merchant, address, "--file", "-")
        for empty in ("--token", "--amount", "--currency", "--order", "--result"):
            self.fail_with(2, "empty", "verify", "--dir", self.merchant, address, empty, "")

    def test_takes_texts_of_any_bytes(self):
        value = "\x1b[31m\u202e & caf"
        out = self.succeed("pay", "--dir", self.merchant, "--amount", "12.50", "--currency", "EUR", "--order", value,
                           "--json").json()
        address = self.browser.decide(out["url"], "pay")
        run = self.verify(address, "--order", value)
        self.assertEqual((run.status, run.json()["message"]["ORDERID"]), (0, value))
        people = self.tool("verify", "--dir", self.merchant, address, "--order", value)
        self.assertIn("\\x1B[31m\\xE2\\x80\\xAE & caf", people.out)

    def test_asks_for_the_address_on_a_terminal(self):
        address = self.pay()[1]
        terminal = Terminal("verify", "--dir", self.merchant)
        terminal.wait_for("Paste the address")
        terminal.type(address + "\n")
        self.assertEqual(terminal.finish(), 0)
        self.assertIn("genuine", terminal.shown)


class Capture(AccountCase):
    def capture(self, *arguments, **settings):
        return self.tool("capture", "--dir", self.merchant, "--json", *arguments, **settings)

    def test_captures_what_passes(self):
        token, address = self.pay()
        run = self.capture(address, "--token", token, "--amount", "12.50", "--currency", "EUR", "--order", "A-1")
        self.assertEqual((run.status, run.json()["captured"]), (0, True))
        self.assertEqual(self.states(), ["captured"])
        self.assertIn("is captured", self.succeed("capture", "--dir", self.merchant, given=address).out)  # once more

    def test_sends_nothing_otherwise(self):
        address = self.pay()[1]
        data, signature = parameters(address)
        for arguments in ((address, "--amount", "1.50"), (address, "--token", "x"), (address, "--result", "x"),
                          (data.replace("12.50", "1.50"), signature)):
            with self.subTest(arguments=arguments):
                run = self.capture(*arguments)
                self.assertEqual((run.status, run.json()["ok"]), (1, False))
        self.assertEqual(self.states(), ["authorised"])

    def test_says_when_the_payment_may_be_captured_all_the_same(self):
        for kind, may in (("drop", True), ("truncate", True), ("error", True), ("http-status", True)):
            with self.subTest(kind=kind):
                address = self.pay()[1]
                self.arm(kind, exchange="capture")
                run = self.capture(address)
                self.assertEqual((run.status, run.json()["error"].get("mayHaveHappened", False)), (1, may))
                self.assertIn("ask it before you repeat", run.json()["error"]["hint"])
        self.stop_sandbox()
        run = self.capture(address)
        self.assertEqual((run.status, "mayHaveHappened" in run.json()["error"]), (1, False))


class Complete(AccountCase):
    def test_completes_and_shows_the_response(self):
        token, address = self.pay()
        identifier = self.succeed("verify", "--dir", self.merchant, address, "--json").json()["message"]["ID"]
        out = self.succeed("complete", "--dir", self.merchant, "--id", identifier, "--token", token, "--json").json()
        self.assertEqual(out["response"]["MSGTYPE"], "PayCompleteResponse")
        self.assertEqual(self.states(), ["completed"])

    def test_reports_refusals(self):
        self.fail_with(1, "0x80040213", "complete", "--dir", self.merchant, "--id", "none", "--token", "none")
        self.fail_with(2, "--token", "complete", "--dir", self.merchant, "--id", "none")
        self.fail_with(2, "--id", "complete", "--dir", self.merchant, "--token", "none")
        self.fail_with(2, "NAME=VALUE", "complete", "--dir", self.merchant, "--id", "1", "--token", "1", "--set", "x")

    def test_sends_further_attributes(self):
        token, address = self.pay()
        identifier = self.succeed("verify", "--dir", self.merchant, address, "--json").json()["message"]["ID"]
        self.fail_with(1, "0x80040213", "complete", "--dir", self.merchant, "--id", identifier, "--token", token, "--set",
                       "AMOUNT=1.00")
        self.assertEqual(self.states(), ["authorised"])


class Request(AccountCase):
    def test_asks_for_the_state_of_a_payment(self):
        token, _ = self.pay()
        run = self.succeed("request", "--dir", self.merchant, "Status", "--set", "TOKEN=" + token)
        self.assertRegex(run.out, r"(?m)^STATE +authorised$")
        out = self.succeed("request", "--dir", self.merchant, "Status", "--set", "TOKEN=" + token, "--json").json()
        self.assertEqual((out["response"]["MSGTYPE"], out["response"]["STATE"]), ("StatusResponse", "authorised"))

    def test_reports_refusals(self):
        self.fail_with(1, "0x80040213", "request", "--dir", self.merchant, "Unknown")
        self.fail_with(2, "type", "request", "--dir", self.merchant)
        self.fail_with(2, "empty", "request", "--dir", self.merchant, "")


if __name__ == "__main__":
    unittest.main()
