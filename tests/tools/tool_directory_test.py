"""tallowin get, set, show, keys and sandbox: what a configuration directory holds, and the service beside it."""

import fcntl
import json
import os
import re
import shutil
import signal
import subprocess
import unittest

from sandboxcase import private_keys
from toolcase import ROOT, TIMEOUT_SECONDS, TOOL, AccountCase, Terminal, ToolCase, environment

DAY = 24 * 3600


class Get(AccountCase):
    def test_prints_a_value_or_a_whole_file(self):
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "config.xml", "VTURL").out, self.addresses["pay"] + "\n")
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "config.xml").out,
                         (self.merchant / "config.xml").read_text() + "\n")
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "config.xml", "CUSTOMERID", "--json").json(),
                         {"command": "get", "ok": True, "file": "config.xml", "name": "CUSTOMERID", "value": "1001"})

    def test_keeps_bytes_in_a_pipe_and_escapes_them_on_a_terminal(self):
        (self.merchant / "settings.xml").write_bytes(b'<KVX X="\x1b[31m\xff"/>')
        done = subprocess.run([TOOL, "get", "--dir", self.merchant, "settings.xml", "X"], stdout=subprocess.PIPE, check=True,
                              timeout=TIMEOUT_SECONDS)
        self.assertEqual(done.stdout, b"\x1b[31m\xff\n")
        terminal = Terminal("get", "--dir", self.merchant, "settings.xml", "X")
        terminal.finish()
        self.assertEqual(terminal.shown, "\\x1B[31m\\xFF\r\n")

    def test_refuses_what_is_not_there_or_secret(self):
        (key,) = private_keys(self.merchant)
        for arguments, status, text in ((("config.xml", "MISSING"), 1, "no value MISSING"), (("missing.xml", "A"), 1, "no file"),
                                        (("keys", "A"), 1, "0x8004"), (("../x",), 2, "FILE is"), (("/etc/passwd",), 2, "FILE is"),
                                        (("",), 2, "FILE is"), ((f"keys/private/{key}",), 2, "private keys"),
                                        (("config.xml", "A B"), 2, "names of values"), ((), 2, "file"),
                                        (("a/../../b",), 2, "FILE is"), (("keys/./private/" + key,), 2, "private keys")):
            with self.subTest(arguments=arguments):
                self.fail_with(status, text, "get", "--dir", self.merchant, *arguments)


class Set(AccountCase):
    def test_changes_a_value(self):
        self.succeed("set", "--dir", self.merchant, "default.xml", "PAYINITTTL", "60")
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "default.xml", "PAYINITTTL").out, "60\n")
        out = self.succeed("set", "--dir", self.merchant, "default.xml", "PAYINITTTL", "--stdin", "--json", given="<\"&'>\n").json()
        self.assertEqual(out["value"], "<\"&'>")
        self.assertEqual(self.succeed("get", "--dir", self.merchant, "default.xml", "PAYINITTTL").out, "<\"&'>\n")

    def test_makes_settings_when_they_are_missing(self):
        self.succeed("set", "--dir", self.merchant, "settings.xml", "IOTIMEOUT", "30")
        self.succeed("set", "--dir", self.merchant, "settings.xml", "PROFILE", "strict")
        self.assertEqual((self.merchant / "settings.xml").read_text(), '<KVX IOTIMEOUT="30" PROFILE="strict"/>')

    def test_warns_of_unknown_settings(self):
        run = self.succeed("set", "--dir", self.merchant, "settings.xml", "IOTIMEUOT", "30")
        self.assertIn("no setting of the name IOTIMEUOT", run.errors)

    def test_knows_every_setting_of_the_pages(self):
        page = (ROOT / "docs" / "hardening.md").read_text()
        names = set(re.findall(r"^\| `([A-Z]+)` \|", page, re.MULTILINE)) | set(re.findall(r"^### ([A-Z]+)$", page, re.MULTILINE))
        formats = re.search(r"^\| `settings.xml` \|.*", (ROOT / "docs" / "formats.md").read_text(), re.MULTILINE).group(0)
        names |= set(re.findall(r"`([A-Z]+)`", formats))
        self.assertGreater(len(names), 20)
        for name in sorted(names):
            with self.subTest(name=name):
                self.assertEqual(self.succeed("set", "--dir", self.merchant, "settings.xml", name, "1").errors, "")
                (self.merchant / "settings.xml").unlink()

    def test_refuses_what_would_be_lost(self):
        for arguments, status, text in ((("config.xml", "A", ""), 2, "not empty"), (("config.xml", "A"), 2, "not empty"),
                                        (("config.xml", "A(.0)", "x"), 2, "names of values"), (("config.xml",), 2, "name"),
                                        (("config.xml", "", "x"), 2, "names of values"), (("missing.xml", "A", "x"), 1, "0x8004"),
                                        (("../x", "A", "x"), 2, "FILE is"), (("keys/private/x", "A", "x"), 2, "private"),
                                        (("config.xml", "A", "x", "--stdin"), 2, "--stdin")):
            with self.subTest(arguments=arguments):
                self.fail_with(status, text, "set", "--dir", self.merchant, *arguments)
        self.fail_with(2, "zero byte", "set", "--dir", self.merchant, "config.xml", "A", "--stdin", given="a\0b")
        self.fail_with(1, "longer than", "set", "--dir", self.merchant, "config.xml", "A", "--stdin", given="x" * 70000)

    def test_leaves_a_damaged_file_as_it_is(self):
        (self.merchant / "settings.xml").write_text("<KVX")
        self.fail_with(1, "0x80040204", "set", "--dir", self.merchant, "settings.xml", "QUIET", "1")
        self.assertEqual((self.merchant / "settings.xml").read_text(), "<KVX")


class Show(AccountCase):
    def test_shows_the_account(self):
        (self.merchant / "settings.xml").write_text('<KVX QUIET="1" X="a&amp;b"/>')
        out = self.succeed("show", "--dir", self.merchant, "--json").json()
        self.assertEqual((out["customer"], out["paymentAddress"], out["captureAddress"], out["serverKeyId"]),
                         ("1001", self.addresses["pay"], self.addresses["capture"], "1-SERVER-1"))
        self.assertEqual(out["keyId"], (self.merchant / "keys" / "current").read_text())
        self.assertEqual((out["settings"], out["otherPrivateKeys"]), ({"QUIET": "1", "X": "a&b"}, 0))
        self.assertEqual(out["defaults"]["KVX.ISVALID"], "yes")
        self.assertIn({"file": "keys/current", "mode": "0644", "owner": out["files"][0]["owner"]}, out["files"])
        people = self.succeed("show", "--dir", self.merchant).out
        self.assertRegex(people, r"(?m)^server key fingerprint  [0-9a-f]{64}$")
        self.assertNotIn((self.merchant / "keys" / "private" / out["keyId"]).read_text(), people)

    def test_agrees_with_the_library_about_the_fingerprint(self):
        pin = self.succeed("show", "--dir", self.merchant, "--json").json()["serverKeyFingerprint"]
        self.succeed("set", "--dir", self.merchant, "settings.xml", "KEYPIN", pin)
        token, address = self.pay()
        self.succeed("verify", "--dir", self.merchant, address, "--token", token)

    def test_reports_damaged_files(self):
        (self.merchant / "default.xml").write_text("<KVX")
        self.fail_with(1, "default.xml", "show", "--dir", self.merchant)


class KeysList(AccountCase):
    def test_names_what_every_key_is_for(self):
        old = (self.merchant / "keys" / "current").read_text()
        self.control("POST", "/keys/rotate")
        self.succeed("setup", "--dir", self.merchant, "--user", "demo", given="demo\n")
        current = (self.merchant / "keys" / "current").read_text()
        (self.merchant / "keys" / "private" / "unpublished").write_text("00")
        keys = self.succeed("keys", "list", "--dir", self.merchant, "--json").json()["keys"]
        self.assertEqual([(key["id"], key["kind"], key["private"], key["public"]) for key in keys],
                         [("unpublished", "new", True, False), (current, "current", True, True), (old, "old", True, True),
                          ("1-SERVER-2", "server", False, True), ("1-SERVER-1", "other", False, True)])
        self.assertRegex(keys[1]["fingerprint"], "^[0-9a-f]{64}$")
        self.assertRegex(keys[1]["made"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC$")
        people = self.succeed("keys", "list", "--dir", self.merchant).out
        self.assertRegex(people, rf"(?m)^old +both halves +\S+ \S+ UTC  {old}$")

    def test_needs_a_command(self):
        self.fail_with(2, "--help", "keys")
        self.fail_with(2, "--help", "keys", "--dir", self.merchant)


class KeysPrune(AccountCase):
    def setUp(self):
        """Three keys: made three days ago, two days ago, and now."""
        super().setUp()
        self.ids = [(self.merchant / "keys" / "current").read_text()]
        for _ in range(2):
            self.succeed("setup", "--dir", self.merchant, "--user", "demo", given="demo\n")
            self.ids.append((self.merchant / "keys" / "current").read_text())
        for age, key in zip((3, 2, 0), self.ids):
            self.make_older(key, age * DAY)

    def make_older(self, key, seconds):
        for half in ("private", "public"):
            path = self.merchant / "keys" / half / key
            moment = path.stat().st_mtime_ns - seconds * 10 ** 9
            os.utime(path, ns=(moment, moment))

    def prune(self, *options):
        return self.succeed("keys", "prune", "--dir", self.merchant, "--json", *options).json()

    @unittest.skipUnless(os.geteuid() == 0, "needs root, which can remove files of others")
    def test_removes_nothing_behind_a_link_as_root(self):
        outside = self.directory / "system"
        (self.merchant / "keys" / "public").rename(outside)
        (self.merchant / "keys" / "public").symlink_to(outside)
        self.fail_with(1, "keys/public is a link", "keys", "prune", "--dir", self.merchant)
        self.assertTrue((outside / self.ids[0]).exists())

    def test_removes_both_halves_of_keys_that_were_replaced_long_ago(self):
        first, second, current = self.ids
        out = self.prune()
        self.assertEqual(out["removed"], [first])
        self.assertEqual({row["id"]: row["reason"] for row in out["kept"]},
                         {current: "it signs new messages", second: "a process may still sign with it",
                          "1-SERVER-1": "it is not an own key"})
        self.assertEqual(private_keys(self.merchant), sorted([second, current]))
        self.assertFalse((self.merchant / "keys" / "public" / first).exists())
        self.assertTrue((self.merchant / "keys" / "public" / "1-SERVER-1").exists())
        self.succeed("pay", "--dir", self.merchant)

    def test_takes_another_age(self):
        self.assertEqual(self.prune("--older-than", "100")["removed"], [])
        self.assertEqual(self.prune("--older-than", "0")["removed"], [self.ids[1], self.ids[0]])
        for wrong in ("-1", "x", "", "99999999", "1.5"):
            with self.subTest(wrong=wrong):
                self.fail_with(2, "--older-than", "keys", "prune", "--dir", self.merchant, "--older-than", wrong)

    def test_only_says_so_with_dry_run(self):
        self.assertEqual((self.prune("--dry-run")["removed"], len(private_keys(self.merchant))), ([self.ids[0]], 3))
        self.assertIn("would remove " + self.ids[0], self.succeed("keys", "prune", "--dir", self.merchant, "--dry-run").out)

    def test_keeps_keys_that_a_set_up_may_be_publishing(self):
        first, second, current = self.ids
        (self.merchant / "keys" / "current").write_text(second)  # the last set-up has not come to its end
        self.make_older(current, -5)
        out = self.prune("--older-than", "0")
        self.assertEqual(out["removed"], [first])
        self.assertIn({"id": current, "reason": "a set-up may be publishing it"}, out["kept"])

    def test_keeps_everything_without_a_current_private_key(self):
        current = self.ids[2]
        (self.merchant / "keys" / "private" / current).unlink()
        self.assertEqual(self.prune("--older-than", "0")["removed"], [])
        (self.merchant / "keys" / "current").write_text("")
        self.assertEqual(self.prune("--older-than", "0")["removed"], [])

    def test_keeps_keys_of_equal_age(self):
        for key in self.ids:
            os.utime(self.merchant / "keys" / "private" / key, ns=(0, 0))
        self.assertEqual(self.prune("--older-than", "0")["removed"], [])

    def test_keeps_keys_from_the_far_future(self):
        first, second, current = self.ids
        for half in ("private", "public"):  # more nanoseconds since 1970 than 64 bits hold with a sign
            os.utime(self.merchant / "keys" / half / first, (400 * 365 * DAY, 400 * 365 * DAY))
        out = self.prune("--older-than", "0")
        self.assertEqual(out["removed"], [second])
        self.assertIn({"id": first, "reason": "a set-up may be publishing it"}, out["kept"])

    def test_waits_for_no_set_up(self):
        descriptor = os.open(self.merchant, os.O_RDONLY)
        fcntl.flock(descriptor, fcntl.LOCK_SH)
        self.fail_with(1, "set-up", "keys", "prune", "--dir", self.merchant)
        os.close(descriptor)
        self.prune()

    def test_is_kept_away_by_a_running_set_up(self):
        self.arm("stall-before", exchange="keyexport")
        process = subprocess.Popen([TOOL, "setup", "--dir", self.merchant, "--user", "demo"], stdin=subprocess.PIPE,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment())
        process.stdin.write(b"demo\n")
        process.stdin.close()
        self.wait_for_faults()
        self.fail_with(1, "set-up", "keys", "prune", "--dir", self.merchant, "--older-than", "0")
        process.terminate()
        process.wait(TIMEOUT_SECONDS)
        self.assertIn(self.ids[1], self.prune("--older-than", "0")["removed"])
        self.assertEqual((self.merchant / "keys" / "current").read_text(), self.ids[2])

    def test_follows_no_links_and_touches_no_strange_files(self):
        private = self.merchant / "keys" / "private"
        outside = self.directory / "outside"
        outside.write_text("00")
        os.utime(outside, (0, 0))
        (private / "link").symlink_to(outside)
        (private / "folder").mkdir()
        (private / ".tallowin-1-1.tmp").write_text("")
        self.assertEqual(self.prune()["removed"], [self.ids[0]])
        self.assertTrue((private / "link").is_symlink() and (private / "folder").is_dir())
        self.assertTrue(outside.exists() and (private / ".tallowin-1-1.tmp").exists())

    def test_names_are_escaped(self):
        for half in ("private", "public"):
            path = self.merchant / "keys" / half / "\x1b[31m"
            path.write_text("00")
            os.utime(path, (0, 0))
        self.assertIn("removed \\x1B[31m", self.succeed("keys", "prune", "--dir", self.merchant).out)


class SandboxStart(ToolCase):
    def test_takes_the_place_of_the_program_with_all_arguments(self):
        process = subprocess.Popen([TOOL, "sandbox", "--data", self.directory / "service", "--json", "--fault", "error"],
                                   stdout=subprocess.PIPE, text=True,
                                   env=environment(TALLOWIN_SANDBOX=os.environ["KVX_SANDBOX"]))
        self.addCleanup(process.stdout.close)
        addresses = json.loads(process.stdout.readline())
        self.assertEqual(addresses["data"], str(self.directory / "service"))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(TIMEOUT_SECONDS), 0)

    def test_is_found_beside_the_program_and_in_the_path(self):
        copy = self.directory / "bin"
        copy.mkdir()
        shutil.copy(TOOL, copy / "tallowin")
        (copy / "tallowin-sandbox").write_text('#!/bin/sh\necho beside "$@"\nexit 3\n')
        (copy / "tallowin-sandbox").chmod(0o755)
        for program, settings in ((copy / "tallowin", {}), (TOOL, {"PATH": f"{copy}:{os.environ['PATH']}"})):
            done = subprocess.run([program, "sandbox", "--help", "--version", "x y"], stdout=subprocess.PIPE, text=True,
                                  check=False, timeout=TIMEOUT_SECONDS, env=environment(**settings))
            self.assertEqual((done.returncode, done.stdout), (3, "beside --help --version x y\n"))

    def test_reports_when_it_is_not_installed(self):
        run = self.fail_with(1, "cannot start tallowin-sandbox", "sandbox", env=environment(PATH="/nowhere"))
        self.assertIn("TALLOWIN_SANDBOX", run.errors)
        self.fail_with(1, "cannot start /nowhere/x", "sandbox", env=environment(TALLOWIN_SANDBOX="/nowhere/x"))


if __name__ == "__main__":
    unittest.main()
