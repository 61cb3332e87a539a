"""tallowin keys renew: a new key of the merchant's over the ledger of a shop, which is tests/ledger/ledgerdriver.cpp."""

import fcntl
import json
import os
import shutil
import subprocess
import unittest

import jsonschema

from sandboxcase import TIMEOUT_SECONDS
from toolcase import ROOT, AccountCase

SCHEMA = json.loads((ROOT / "tools" / "tallowin.schema.json").read_text())


class KeysRenew(AccountCase):
    def setUp(self):
        super().setUp()
        self.database = self.directory / "orders.db"
        done = subprocess.run([os.environ["KVX_LEDGER_DRIVER"], f"sqlite:{self.database}", self.merchant, "0", "begin", "A-1"],
                              capture_output=True, text=True, timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def words(self, *arguments, directory=None):
        return ("keys", "renew", *arguments, "--dir", directory or self.merchant, "--store", f"sqlite:{self.database}", "--user",
                "demo")

    def current(self, directory=None):
        return ((directory or self.merchant) / "keys" / "current").read_text()

    def refuse(self, name, *arguments, given="demo\n"):
        run = self.tool(*self.words(*arguments), "--json", given=given)
        self.assertEqual((run.status, run.errors), (1, ""), run.out)
        jsonschema.validate(run.json(), SCHEMA)
        self.assertEqual(run.json()["error"]["name"], name)
        return run.json()["error"]

    def test_renews_the_key(self):
        before = self.current()
        run = self.succeed(*self.words("--json"), given="demo\n")
        jsonschema.validate(run.json(), SCHEMA)
        self.assertEqual((run.json()["replacedKeyId"], run.json()["keyId"]), (before, self.current()))
        self.assertNotEqual(self.current(), before)
        self.assertIn(f"in place of {self.current()}.", self.succeed(*self.words(self.service), given="demo\n").out)
        self.pay(order="A-2")

    def test_says_what_a_failure_leaves(self):
        before = self.current()
        error = self.refuse("KVX_E_SERVER_ERROR", given="wrong\n")
        self.assertIn("knows no other", error["hint"])
        self.assertNotIn("wrong", json.dumps(error))
        self.arm("drop", exchange="keyexport")
        error = self.refuse("KVX_E_HTTP_BAD_REPLY")
        self.assertTrue(error["mayHaveHappened"])
        self.assertIn("run the command again", error["hint"])
        self.assertEqual(self.current(), before)
        self.succeed(*self.words(), given="demo\n")
        self.assertNotEqual(self.current(), before)

    def test_waits_for_nobody(self):
        folder = os.open(self.merchant, os.O_RDONLY)
        self.addCleanup(os.close, folder)
        fcntl.flock(folder, fcntl.LOCK_EX)  # as keys prune does
        self.assertIn("try again", self.refuse("KVX_E_LEDGER_BUSY")["hint"])

    def test_leaves_keys_that_prune_must_keep(self):
        before = self.current()
        self.succeed(*self.words(), given="demo\n")
        out = self.succeed("keys", "prune", "--dir", self.merchant).out
        self.assertIn(f"kept {before}: a process may still sign with it", out)
        self.assertIn(f"kept {self.current()}: it signs new messages", out)

    def test_gives_the_key_to_another_server(self):
        other = self.directory / "other"
        shutil.copytree(self.merchant, other)
        (self.directory / "secret").write_text("sixteen bytes or more\n")
        self.succeed(*self.words("--key-secret-file", self.directory / "secret"), given="demo\n")
        self.assertNotEqual(self.current(other), self.current())
        self.succeed("orders", "resume", "--dir", other, "--store", f"sqlite:{self.database}", "--option",
                     "KEYSECRET=sixteen bytes or more")
        self.assertEqual(self.current(other), self.current())
        (self.directory / "secret").write_text("short\n")
        self.assertIn("KEYSECRET", self.refuse("KVX_E_INVALID_OPTION", "--key-secret-file", self.directory / "secret")["reason"])

    def test_needs_a_store_that_is_there(self):
        self.database.unlink()
        run = self.tool(*self.words(), given="demo\n")
        self.assertEqual(run.status, 1)
        self.assertIn("cannot open the store", run.errors)


if __name__ == "__main__":
    unittest.main()
