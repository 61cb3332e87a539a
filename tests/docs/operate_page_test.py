"""The commands on docs/operate.md, run as they stand against a sandbox, in the order of the page."""

import os
import pathlib
import pwd
import re
import shutil
import sqlite3
import subprocess
import sys
import unittest

from sandboxcase import TIMEOUT_SECONDS, Program, SandboxCase, parameters, private_keys

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
PAGE = (ROOT / "docs" / "operate.md").read_text()


def blocks(language, page=PAGE):
    return re.findall(rf"^```{language}\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)


SERVER = """
import sys
import tallowin

def pay():
    with tallowin.MessageFactory(sys.argv[1]) as factory, factory.create_pay_init() as order:
        order.set_attribute("AMOUNT", "19.90")
        order.set_attribute("CURRENCY", "EUR")
        return order.get_url()

for line in sys.stdin:
    try:
        print(pay(), flush=True)
    except tallowin.TallowinError as failure:
        print(type(failure).__name__, flush=True)
"""


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
        make, set_up, check, save, restore, renew, renew_live = blocks("sh")
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

        if "KVX_LEDGER_DRIVER" not in os.environ:
            return
        before = current.read_text()
        store = f"sqlite:{self.directory / 'orders.db'}"
        self.environment["STORE"] = store
        self.run_command(f"'{os.environ['KVX_LEDGER_DRIVER']}' '{store}' \"$ACCOUNT\" 0 begin A-1")
        self.run_command(renew_live)
        self.assertNotEqual(current.read_text(), before)
        self.assertEqual(len(private_keys(self.account)), 3)

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

    # ---- Several servers, upgrade

    def set_up(self):
        make, set_up = blocks("sh")[:2]
        self.run_command(make)
        self.run_command(set_up)

    def server(self, account, **variables):
        """A process of the shop that prints a payment URL, or what fails, for each line of its input."""
        server = Program(sys.executable, "-c", SERVER, account, env={**self.environment, **variables})
        self.addCleanup(server.stop)
        return server

    def ask(self, server):
        server.process.stdin.write("pay\n")
        server.process.stdin.flush()
        return server.line()

    def signing_key(self, server):
        """The id of the key that signs the server's next payment."""
        return re.search(r'KEYID="([^"]*)"', parameters(self.ask(server))[0])[1]

    def current_key(self, account):
        return (account / "keys" / "current").read_text()

    def test_any_server_captures_what_another_has_started(self):
        self.set_up()
        other = self.directory / "other"
        shutil.copytree(self.account, other)
        for first, second in ((self.account, other), (other, self.account)):
            with self.subTest(first=first.name):
                address = self.browser.decide(self.ask(self.server(first)), "pay")
                self.run_command(f"tallowin capture --dir '{second}' --amount 19.90 --currency EUR '{address}'")
        self.assertEqual(self.states(), ["captured", "captured"])

    def test_a_copy_is_renewed_in_the_order_of_the_page_while_it_is_used(self):
        self.set_up()
        other = self.directory / "other"
        shutil.copytree(self.account, other)
        server = self.server(other)
        old = self.current_key(self.account)
        self.run_command(blocks("sh")[5])
        new = self.current_key(self.account)
        self.assertNotEqual(new, old)
        self.assertIn("first `keys/public` and `keys/private`, then\n  `keys/current`, then the rest", PAGE)
        for part, key in (("keys/public", old), ("keys/private", old), ("keys/current", new), (".", new)):
            with self.subTest(part=part):
                self.run_command(f"cp -aT '{self.account}/{part}' '{other}/{part}'")
                self.assertEqual(self.signing_key(server), key)
                self.browser.decide(self.ask(server), "pay")

    def test_one_set_up_serves_all_processes_on_one_directory(self):
        self.set_up()
        servers = [self.server(self.account) for _ in range(2)]
        before = self.current_key(self.account)
        self.assertEqual([self.signing_key(server) for server in servers], [before, before])
        self.run_command(blocks("sh")[5])
        after = self.current_key(self.account)
        self.assertNotEqual(after, before)
        self.assertEqual([self.signing_key(server) for server in servers], [after, after])

    def test_an_upgrade_leaves_running_processes_and_the_directory_alone(self):
        self.set_up()
        installed = self.directory / "libtallowin.so.1"
        replacement = self.directory / "replacement"
        shutil.copyfile(os.environ["TALLOWIN_LIBRARY"], installed)
        running = self.server(self.account, TALLOWIN_LIBRARY=str(installed))
        self.assertIn("/pay?DATA=", self.ask(running))
        files = self.content()

        replacement.write_text("another release")  # which no process can load, so that each shows which file it has
        replacement.replace(installed)
        self.assertIn("/pay?DATA=", self.ask(running))
        self.assertIn("LoadError", self.ask(self.server(self.account, TALLOWIN_LIBRARY=str(installed))))

        shutil.copyfile(os.environ["TALLOWIN_LIBRARY"], replacement)
        replacement.replace(installed)
        self.assertIn("/pay?DATA=", self.ask(self.server(self.account, TALLOWIN_LIBRARY=str(installed))))
        self.assertEqual(self.content(), files)


if __name__ == "__main__":
    unittest.main()
