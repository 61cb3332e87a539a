"""The commands on docs/operate.md, run as they stand against a sandbox, in the order of the page."""

import os
import pathlib
import pwd
import re
import shutil
import sqlite3
import subprocess
import unittest

from sandboxcase import TIMEOUT_SECONDS, SandboxCase, private_keys

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
PAGE = (ROOT / "docs" / "operate.md").read_text()


def blocks(language, page=PAGE):
    return re.findall(rf"^```{language}\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)


class OperatePage(SandboxCase):
    sandbox_options = ("--proxy", "--fault", "proxy-407,times=always")

    def setUp(self):
        super().setUp()
        self.account = self.directory / "account"
        password = self.directory / "password"
        password.write_text("demo\n")
        tools = self.directory / "bin"
        tools.mkdir()
        (tools / "tallowin").symlink_to(os.environ["KVX_TOOL"])
        self.environment = {**os.environ, "ACCOUNT": str(self.account), "SHOP_USER": pwd.getpwuid(os.getuid()).pw_name,
                            "SERVICE": self.service, "NAME": "demo", "PASSWORD_FILE": str(password),
                            "PATH": f"{tools}:{os.environ['PATH']}"}

    def run_command(self, command):
        """The output of a command, which must succeed."""
        done = subprocess.run(["bash", "-euc", command], env=self.environment, cwd=self.directory, capture_output=True, text=True,
                              timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_commands_set_up_check_save_restore_and_renew(self):
        make, set_up, check, save, restore, renew = blocks("sh")
        self.run_command(make)
        self.run_command(set_up)
        self.assertEqual(self.run_command(check), "")

        current = self.account / "keys" / "current"
        key = self.account / "keys" / "private" / current.read_text()
        key.chmod(0o640)
        self.assertEqual(self.run_command(check), f"{key}\n")
        key.chmod(0o600)

        self.run_command(save)
        self.assertEqual((self.directory / "account.tar").stat().st_mode & 0o777, 0o600)
        files = self.content()
        shutil.rmtree(self.account)
        self.run_command(make)
        self.run_command(restore)
        self.assertEqual(self.content(), files)
        self.assertEqual(self.run_command(check), "")
        self.run_command("tallowin pay --dir \"$ACCOUNT\" --amount 19.90 --currency EUR")

        before = current.read_text()
        self.run_command(renew)
        self.assertNotEqual(current.read_text(), before)
        self.assertEqual(len(private_keys(self.account)), 2)
        self.run_command("tallowin pay --dir \"$ACCOUNT\" --amount 19.90 --currency EUR")

    def content(self):
        return {str(file.relative_to(self.account)): file.read_bytes() for file in self.account.rglob("*") if file.is_file()}

    def test_a_proxy_that_refuses_shows_its_status(self):
        settings, = blocks("xml")
        make, set_up = blocks("sh")[:2]
        self.run_command(make)
        (self.account / "settings.xml").write_text(settings.replace("proxy.example", "127.0.0.1")
                                                   .replace("3128", str(self.addresses["proxyPort"])))
        done = subprocess.run(["bash", "-euc", set_up], env=self.environment, capture_output=True, text=True,
                              timeout=TIMEOUT_SECONDS, check=False)
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn("0x80042197", done.stdout + done.stderr)
        self.assertIn("0x80042197", PAGE)

    def test_query_counts_the_payments_of_each_state(self):
        schema, = blocks("sql", (ROOT / "docs" / "integrate.md").read_text())
        query, = blocks("sql")
        database = sqlite3.connect(":memory:")
        self.addCleanup(database.close)
        database.executescript(schema)
        rows = [("1", 1, "1", "EUR", "paid"), ("2", 1, "1", "EUR", "open"), ("3", 2, "1", "EUR", "open")]
        database.executemany("INSERT INTO payments (token, order_id, amount, currency, state) VALUES (?, ?, ?, ?, ?)", rows)
        self.assertEqual(sorted(database.execute(query)), [("open", 2), ("paid", 1)])


if __name__ == "__main__":
    unittest.main()
