"""docs/command-line.md and the schema of the JSON, compared with what the program does."""

import json
import os
import pathlib
import re
import subprocess
import unittest

import jsonschema

from sandboxcase import Program, parameters
from toolcase import ROOT, TIMEOUT_SECONDS, TOOL, AccountCase, ToolCase, environment

PAGE = (ROOT / "docs" / "command-line.md").read_text()
SCHEMA = json.loads((ROOT / "tools" / "tallowin.schema.json").read_text())
HAS_LEDGER = "KVX_LEDGER_DRIVER" in os.environ


def of_ledger(command):
    """Whether only a build with the ledger has the command."""
    return command.startswith("orders ") or command == "keys renew"


class Page(AccountCase):
    has_account = False

    def setUp(self):
        super().setUp()
        programs = self.directory / "bin"
        programs.mkdir()
        (programs / "tallowin").symlink_to(TOOL)
        self.env = environment(PATH=f"{programs}:{os.environ['PATH']}", TALLOWIN_SANDBOX=os.environ["KVX_SANDBOX"],
                               TALLOWIN_DIR=str(self.merchant))

    def run_block(self, block, given=""):
        """Runs a block of the page with the port of the sandbox in place of the page's. Returns its output."""
        port = str(self.addresses["port"])
        done = subprocess.run(["bash", "-euc", block.replace("8480", port)], input=given, cwd=self.directory, env=self.env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_blocks_lead_to_a_captured_payment(self):
        blocks = re.findall(r"^```sh\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)
        start, setup, pay, verify, capture, scripts = blocks
        self.assertIn("--port 8480", start)
        another = Program("bash", "-euc", "exec " + start.replace("--port 8480", "--port 0"), cwd=self.directory / "bin",
                          env=self.env)
        self.assertTrue(another.line().startswith("The sandbox is ready"))
        self.assertEqual(another.stop()[0], 0)
        self.assertIn("is set up", self.run_block(setup, "demo\n"))
        address = self.browser.decide(self.run_block(pay).strip(), "pay")
        self.assertIn("genuine and says what was expected", self.run_block(verify, address + "\n"))
        self.assertIn("is captured", self.run_block(capture, address + "\n"))
        self.assertEqual(self.states(), ["captured"])
        self.run_scripts(scripts)

    def run_scripts(self, block):
        (self.directory / "password").write_text("demo\n")
        until = block.index("tallowin verify")
        self.run_block(block[:until])
        payment = json.loads((self.directory / "payment.json").read_text())
        (self.directory / "return-address").write_text(self.browser.decide(payment["url"], "pay"))
        out = self.run_block(block[until:])
        self.assertTrue(json.loads((self.directory / "verified.json").read_text())["ok"])
        self.assertRegex(out, r"(?m)^STATE +authorised$")

    def test_lists_every_command(self):
        listed = set(re.findall(r"^\| `([a-z ]+)` \|", PAGE, re.MULTILINE))
        declared = self.declared()
        for parent in {"keys", "orders"} & declared:
            declared = declared - {parent} | {f"{parent} {name}" for name in self.declared(parent)}
        if not HAS_LEDGER:
            listed = {name for name in listed if not of_ledger(name)}
        self.assertEqual(listed, declared)

    def declared(self, *command):
        """The commands that --help lists below `command`."""
        return set(re.findall(r"^  ([a-z]+)  ", self.succeed(*command, "--help").out, re.MULTILINE))


class Schema(AccountCase):
    def check(self, *arguments, status=0, **settings):
        directory = () if arguments[0] == "explain" else ("--dir", self.merchant)
        run = self.tool(*arguments, "--json", *directory, **settings)
        self.assertEqual((run.status, run.errors), (status, ""), run.out)
        jsonschema.validate(run.json(), SCHEMA)
        kind = "refusal" if "explanation" in run.json() else "failure" if "error" in run.json() else run.json()["command"]
        self.seen.add(kind)
        self.assertEqual(run.json()["ok"], status == 0)

    def test_describes_every_command(self):
        self.seen = set()
        token, address = self.pay()
        self.check("setup", "--user", "demo", "--shop-user", "nobody", given="demo\n")
        self.check("pay")
        self.check("pay", "--expires", "20200101 00:00:00")
        self.check("verify", address, "--amount", "12.50")
        self.check("verify", address, "--amount", "1.50", status=1)
        data, signature = parameters(address)
        for forged in ((data.replace("12.50", "1.50"), signature), (data, signature[:-2] + "zz"),
                       (data.replace("1-SERVER-1", "9"), signature)):
            self.check("verify", *forged, "--explain", status=1)
        self.check("capture", address, "--amount", "1.50", status=1)
        self.arm("drop", exchange="capture")
        self.check("capture", address, status=1)
        self.check("capture", address)
        identifier = self.succeed("verify", "--dir", self.merchant, address, "--json").json()["message"]["ID"]
        self.check("complete", "--id", identifier, "--token", token)
        self.check("request", "Status", "--set", "TOKEN=" + token)
        self.check("request", "Unknown", status=1)
        self.check("get", "config.xml")
        self.check("get", "config.xml", "VTURL")
        self.check("set", "settings.xml", "UNKNOWN", "1")
        self.check("show")
        self.check("doctor", "--offline", status=1)
        self.check("explain", "ENOMEM")
        self.check("explain", "none", status=1)
        self.check("keys", "list")
        self.check("keys", "prune", "--older-than", "0")
        others = set(filter(of_ledger, SCHEMA["definitions"]))  # tool_orders_test.py and tool_renewal_test.py have those
        self.assertEqual(self.seen, set(SCHEMA["definitions"]) - others)

    def test_refuses_other_members(self):
        for wrong in ({}, {"command": "pay", "ok": True}, {"command": "pay", "ok": False, "error": {}},
                      {"command": "set", "ok": True, "file": "a", "name": "b", "value": "c", "more": 1}):
            with self.subTest(wrong=wrong), self.assertRaises(jsonschema.ValidationError):
                jsonschema.validate(wrong, SCHEMA)

    def test_bytes_that_are_no_utf8_are_replaced(self):
        (self.merchant / "settings.xml").write_bytes(b'<KVX X="\xff"/>')
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "settings.xml", "X", "--json").json()["value"], "\ufffd")


if __name__ == "__main__":
    unittest.main()
