"""docs/paid-once.md: its C runs as it stands, its commands and queries work, its tables are those of header and store."""

import json
import os
import pathlib
import re
import sqlite3
import subprocess
import unittest
import urllib.request

from sandboxcase import RESPONSE_SECONDS, TIMEOUT_SECONDS, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
PAGE = (ROOT / "docs" / "paid-once.md").read_text()
HEADER = (ROOT / "include" / "tallowin" / "ledger.h").read_text()
MAIN = pathlib.Path(__file__).parent / "paidoncepage_main.c"


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


def section(title):
    return PAGE.split(f"\n## {title}\n")[1].split("\n## ")[0]


class PaidOncePage(SandboxCase):
    def setUp(self):
        super().setUp()
        self.program = self.directory / "shop"
        self.account = self.directory / "account"
        self.path = self.directory / "orders.db"
        code, = blocks("c")
        (self.directory / "page.c").write_text(code)
        libraries = pathlib.Path(os.environ["KVX_LIBRARIES"])
        subprocess.run([os.environ["CC"], "-std=c99", "-Wall", "-Wextra", "-Werror", "-I", ROOT / "include",
                        self.directory / "page.c", MAIN, "-o", self.program, "-L", libraries, "-ltallowin-ledger", "-ltallowin",
                        f"-Wl,-rpath,{libraries}"], check=True, timeout=TIMEOUT_SECONDS)
        self.run_shop("setup", self.service)

    def run_shop(self, *arguments):
        done = subprocess.run([self.program, f"sqlite:{self.path}", self.account, *arguments], capture_output=True, text=True,
                              timeout=TIMEOUT_SECONDS)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.splitlines()

    def pay(self, number):
        url, = self.run_shop("pay", number, "12.50")
        return parameters(self.browser.decide(url, "pay"))

    def shell(self, command, **variables):
        done = subprocess.run(["bash", "-euc", command], cwd=self.directory, env={**os.environ, **variables}, text=True,
                              capture_output=True, timeout=TIMEOUT_SECONDS)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_twelve_lines_make_a_shop(self):
        url = self.run_shop("pay", "A-1", "12.50")
        self.assertEqual(self.run_shop("pay", "A-1", "12.50"), url)
        data, signature = parameters(self.browser.decide(url[0], "pay"))
        self.assertEqual(self.run_shop("confirmed", data, signature), ["deliver A-1", "200"])
        self.assertEqual(self.run_shop("confirmed", data, signature), ["200"])
        self.assertEqual(self.run_shop("confirmed", data.replace("12.50", "12.51"), signature), ["400"])
        self.assertEqual(self.run_shop("work"), [])
        self.assertEqual(self.run_shop("state", "A-1"), ["captured"])
        self.assertEqual(self.states(), ["captured"])

    def test_twelve_lines_wait_for_a_new_key(self):
        request = urllib.request.Request(self.addresses["control"] + "/keys/rotate", b"{}", {"Content-Type": "application/json"})
        urllib.request.urlopen(request, timeout=RESPONSE_SECONDS).close()
        data, signature = self.pay("A-1")
        self.assertEqual(self.run_shop("confirmed", data, signature), ["503"])
        self.run_shop("setup", self.service)
        self.assertEqual(self.run_shop("work"), ["deliver A-1"])
        self.assertEqual(self.run_shop("confirmed", data, signature), ["200"])

    def test_commands_and_queries_work(self):
        data, signature = self.pay("A-1")
        self.run_shop("confirmed", data, signature)
        backup, check = blocks("sh")
        self.shell(backup, STORE=str(self.path), BACKUP=str(self.directory / "backup.db"))
        copy = sqlite3.connect(self.directory / "backup.db")
        self.addCleanup(copy.close)
        self.assertEqual(copy.execute("SELECT number, paid_attempt FROM orders").fetchall(), [("A-1", 1)])
        queries, = blocks("sql")
        rows = [copy.execute(query).fetchall() for query in queries.split(";") if query.strip()]
        self.assertEqual(rows, [[], [(0,)], [(0,)], []])
        copy.execute("UPDATE attempts SET tries = 10, last_reason = 'refused'")
        failing = queries.split(";")[-2]
        self.assertEqual(copy.execute(failing).fetchall(), [("A-1", "authorised", 10, "refused")])
        evidence = json.loads(self.run_shop("export", "A-1")[0])
        transition, = [row for row in evidence["transitions"] if "signature" in row]
        (self.directory / "signed.b64").write_text(transition["signedBase64"])
        (self.directory / "signature.b64").write_text(transition["signatureBase64"])
        (self.directory / "key.pem").write_text(evidence["keys"][0]["pem"])
        self.assertIn("Signature Verified Successfully", self.shell(check))

    def test_tables_are_those_of_the_store(self):
        self.pay("A-1")
        store = sqlite3.connect(self.path)
        self.addCleanup(store.close)
        tables = {name: [row[1] for row in store.execute(f"PRAGMA table_info({name})")] for name, in store.execute(
            "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'")}
        shown = {cells[1].strip(" `"): re.findall(r"`(\w+)`", cells[3])
                 for cells in (line.split("|") for line in section("The store").splitlines() if line.startswith("| `"))}
        self.assertEqual(shown, tables)


class PaidOnceNames(unittest.TestCase):
    def test_outcomes_are_those_of_the_header(self):
        outcomes = set(re.findall(r"#define KVX_LEDGER_(?!REASON_|RENEWAL_|NUMBER_|H\b)(\w+)", HEADER))
        shown = set(re.findall(r"^\| `(\w+)` \|", section("Outcomes"), re.MULTILINE))
        self.assertEqual(shown, outcomes)

    def test_outcomes_of_a_renewal_are_those_of_the_header(self):
        outcomes = set(re.findall(r"#define KVX_LEDGER_RENEWAL_(\w+)", HEADER))
        shown = set(re.findall(r"^\| [^|]* \| `(\w+)` \|", section("Renewing the key"), re.MULTILINE))
        self.assertEqual(shown, outcomes)

    def test_c_has_at_most_twelve_lines_besides_declarations(self):
        code, = blocks("c")
        bodies = re.findall(r"^    (.*)$", code, re.MULTILINE)
        lines = [line for line in bodies if not re.fullmatch(r"(char|int32_t|KVX_HANDLE) [^()]*;", line)]
        self.assertLessEqual(len(lines), 12)
        self.assertGreater(len(lines), 5)


if __name__ == "__main__":
    unittest.main()
