"""tallowin setup: what it writes, where the password comes from, what it refuses and what it warns about."""

import json
import os
import signal
import subprocess
import unittest

from sandboxcase import Browser, private_keys
from toolcase import TIMEOUT_SECONDS, TOOL, AccountCase, Terminal, environment


def mode(path):
    return oct(path.stat().st_mode & 0o7777)


class SetUp(AccountCase):
    has_account = False

    def test_makes_a_complete_protected_account(self):
        run = self.set_up()
        self.assertIn(f"{self.merchant} is set up", run.out)
        self.assertIn("1-SERVER-1", run.out)
        self.assertEqual(sorted(path.name for path in self.directory.iterdir()), ["merchant", "service"])
        self.assertEqual((self.merchant / "settings.xml").read_text(), '<KVX PROFILE="strict"/>')
        self.assertEqual(mode(self.merchant / "settings.xml"), "0o644")
        self.assertEqual(len(private_keys(self.merchant)), 1)
        self.succeed("pay", "--dir", self.merchant)

    def test_reports_every_file_as_json(self):
        out = self.set_up("--json", "--plain").json()
        self.assertEqual((out["command"], out["ok"], out["directory"]), ("setup", True, str(self.merchant)))
        self.assertEqual(out["keyId"], (self.merchant / "keys" / "current").read_text())
        self.assertEqual(out["serverKeyId"], "1-SERVER-1")
        self.assertRegex(out["serverKeyFingerprint"], "^[0-9a-f]{64}$")
        files = {str(path.relative_to(self.merchant)): mode(path)[2:] for path in self.merchant.rglob("*") if path.is_file()}
        self.assertEqual({row["file"]: row["mode"].lstrip("0") for row in out["written"]}, files)
        self.assertNotIn("settings.xml", files)

    def test_obeys_the_file_mode_creation_mask(self):
        self.set_up(preexec_fn=lambda: os.umask(0o077))
        self.assertEqual((mode(self.merchant), mode(self.merchant / "settings.xml")), ("0o700", "0o600"))

    def test_uses_an_empty_folder_that_exists(self):
        self.merchant.mkdir(mode=0o750)
        inode = self.merchant.stat().st_ino
        self.set_up()
        self.assertEqual((self.merchant.stat().st_ino, mode(self.merchant)), (inode, "0o750"))

    def test_repeats_from_the_stored_address_and_keeps_settings(self):
        self.set_up("--plain")
        first = (self.merchant / "keys" / "current").read_text()
        (self.merchant / "settings.xml").write_text('<KVX QUIET="1"/>')
        out = self.succeed("setup", "--dir", self.merchant, "--user", "demo", "--json", given="demo\n").json()
        self.assertNotEqual(out["keyId"], first)
        self.assertEqual((self.merchant / "settings.xml").read_text(), '<KVX QUIET="1"/>')
        self.assertEqual(sorted(private_keys(self.merchant)), sorted([first, out["keyId"]]))
        self.assertNotIn("settings.xml", [row["file"] for row in out["written"]])

    def test_stores_the_settings_of_its_options(self):
        authority = self.directory / "ca.pem"
        authority.write_text("none")
        self.set_up("--plain")
        fingerprint = self.succeed("setup", "--dir", self.merchant, "--user", "demo", "--json",
                                   given="demo\n").json()["serverKeyFingerprint"]
        self.succeed("setup", "--dir", self.merchant, "--user", "demo", "--ca", "ca.pem", "--pin", fingerprint,
                     given="demo\n", cwd=self.directory)
        self.assertEqual((self.merchant / "settings.xml").read_text(),
                         f'<KVX PROFILE="strict" TLSCAFILE="{authority}" KEYPIN="{fingerprint}"/>')

    def test_goes_through_a_proxy(self):
        addresses = self.another_sandbox("--proxy")
        self.succeed("setup", "--dir", self.merchant, addresses["auto"], "--user", "demo", "--plain", "--proxy",
                     f"127.0.0.1:{addresses['proxyPort']}", given="demo\n")
        self.assertEqual((self.merchant / "settings.xml").read_text(),
                         f'<KVX USEPROXY="1" PROXYHOST="127.0.0.1" PROXYPORT="{addresses["proxyPort"]}"/>')
        exchanges = json.loads(Browser.request(addresses["control"] + "/exchanges")[2])
        self.assertIn("GET http://127.0.0.1:", json.dumps(exchanges))

    def test_trusts_the_named_authority_only(self):
        addresses = self.another_sandbox("--tls")
        command = ("setup", "--dir", self.merchant, addresses["tlsAuto"], "--user", "demo")
        self.assertIn("--ca FILE", self.fail_with(1, "0x80044", *command, given="demo\n").errors)
        self.assertFalse(self.merchant.exists())
        self.succeed(*command, "--ca", addresses["ca"], given="demo\n")

    def test_shows_every_step_on_a_terminal(self):
        terminal = Terminal("setup", "--dir", self.merchant, self.service, "--user", "demo")
        terminal.wait_for("password of demo: ")
        terminal.type("demo\n")
        self.assertEqual(terminal.finish(), 0)
        for step in ("configuration of the account", "defaults of the account", "key of the service", "new key pair",
                     "publication of the new key"):
            self.assertRegex(terminal.shown, step + r" +done +\d+\.\d\d s")
        self.assertNotIn("demo\r\n", terminal.shown.replace("password of demo", ""))

    def test_shows_the_exchange_that_does_not_end(self):
        self.arm("stall-before", exchange="keyexport")
        terminal = Terminal("setup", "--dir", self.merchant, self.service, "--user", "demo", "--plain")
        terminal.wait_for("password of demo: ")
        terminal.type("demo\n")
        terminal.wait_for("publication of the new key ...")
        self.assertRegex(terminal.shown, r"new key pair +done")
        os.kill(terminal.process, signal.SIGINT)
        self.assertEqual(os.WTERMSIG(terminal.finish()), signal.SIGINT)
        self.assertEqual([path.name for path in self.directory.iterdir()], ["service"])

    def test_leaves_no_trace_when_it_fails(self):
        for kind in ("http-status", "error", "truncate", "wrong-type"):
            for exchange in ("setup", "defaults", "keyquery", "keyexport"):
                with self.subTest(kind=kind, exchange=exchange):
                    self.arm(kind, exchange=exchange)
                    self.fail_with(1, "the set-up failed: 0x8004", "setup", "--dir", self.merchant, self.service, "--user",
                                   "demo", given="demo\n")
                    self.assertEqual([path.name for path in self.directory.iterdir()], ["service"])

    def test_keeps_the_account_when_a_repetition_fails(self):
        self.set_up()
        before = {path: path.read_bytes() for path in self.merchant.rglob("*") if path.is_file()}
        self.arm("error", exchange="setup")
        self.fail_with(1, "the set-up failed", "setup", "--dir", self.merchant, "--user", "demo", given="demo\n")
        self.assertEqual({path: path.read_bytes() for path in self.merchant.rglob("*") if path.is_file()}, before)

    def test_signals_remove_the_unfinished_directory(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                self.arm("stall-before", exchange="keyexport")
                process = subprocess.Popen([TOOL, "setup", "--dir", self.merchant, self.service, "--user", "demo"],
                                           stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, env=environment())
                process.stdin.write(b"demo\n")
                process.stdin.close()
                self.wait_for_faults()
                process.send_signal(number)
                self.assertEqual(process.wait(TIMEOUT_SECONDS), -number)
                self.assertEqual([path.name for path in self.directory.iterdir()], ["service"])

    def test_several_at_once_make_one_account(self):
        command = [TOOL, "setup", "--dir", self.merchant, self.service, "--user", "demo"]
        runs = [subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 env=environment()) for _ in range(4)]
        results = [run.communicate(b"demo\n", TIMEOUT_SECONDS)[1].decode() for run in runs]
        self.assertIn(0, [run.returncode for run in runs])
        for run, errors in zip(runs, results):
            if run.returncode != 0:
                self.assertIn("by another process", errors)
        self.assertEqual(sorted(path.name for path in self.directory.iterdir()), ["merchant", "service"])
        self.succeed("pay", "--dir", self.merchant)


class SetUpPassword(AccountCase):
    has_account = False

    def command(self, *options):
        return ("setup", "--dir", self.merchant, self.service, "--user", "demo", *options)

    def test_is_the_first_line_of_standard_input_or_a_file(self):
        for name, text in (("plain", "demo"), ("line", "demo\n"), ("more", "demo\nsecond line\n"), ("dos", "demo\r\n")):
            with self.subTest(name=name):
                (self.directory / "password").write_bytes(text.encode())
                self.succeed(*self.command(), given=text)
                self.succeed(*self.command("--password-file", "-"), given=text)
                self.succeed(*self.command("--password-file", self.directory / "password"), given="wrong")

    def test_is_typed_without_echo_and_the_echo_comes_back(self):
        terminal = Terminal(*self.command())
        terminal.wait_for("password of demo: ")
        terminal.type("wr0ng\n")
        terminal.finish()
        self.assertNotIn("wr0ng", terminal.shown)
        self.assertIn("0x80040213", terminal.shown)

    def test_stops_and_continues_on_a_terminal(self):
        shell = ("/bin/bash", "-c", 'set -m; "$@"; echo stopped; read -r line; fg', "shell", TOOL)
        terminal = Terminal(*self.command(), program=shell)
        terminal.wait_for("password of demo: ")
        terminal.type("\x1a")
        terminal.wait_for("stopped\r\n")
        self.assertTrue(terminal.has_echo())
        terminal.shown = ""
        terminal.type("\n")
        terminal.wait_for("password of demo: ")
        self.assertFalse(terminal.has_echo())
        terminal.type("demo\n")
        self.assertEqual(terminal.finish(), 0)

    def test_comes_back_to_echo_after_a_signal(self):
        shell = Terminal(*self.command())
        shell.wait_for("password of demo: ")
        self.assertFalse(shell.has_echo())
        shell.type("\x03")
        self.assertEqual(os.WTERMSIG(os.waitpid(shell.process, 0)[1]), signal.SIGINT)
        self.assertTrue(shell.has_echo())
        os.close(shell.descriptor)

    def test_must_be_there_and_sendable(self):
        for given, text in (("", "no password in the input"), ("a@b\n", "cannot be sent"), ("a?b\n", "cannot be sent"),
                            ("caf\u00e9\n", "cannot be sent"), ("a\0b\n", "zero byte"), ("x" * 5000, "longer than")):
            with self.subTest(text=text):
                self.fail_with(1, text, *self.command(), given=given)
        self.fail_with(1, "cannot open the password file", *self.command("--password-file", self.directory / "s3cret"))
        self.fail_with(1, "cannot read the password", *self.command("--password-file", self.directory))
        self.assertFalse(self.merchant.exists())

    def test_is_never_an_argument_nor_printed(self):
        listed = []
        self.arm("stall-before", exchange="setup")
        process = subprocess.Popen([TOOL, *self.command()], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=environment(KVXDEBUG="1"))
        process.stdin.write(b"s3cret-pw\n")
        process.stdin.flush()
        self.wait_for_faults()
        for name in ("cmdline", "environ"):
            with open(f"/proc/{process.pid}/{name}", "rb") as file:
                listed.append(file.read())
        process.terminate()
        listed += process.communicate(timeout=TIMEOUT_SECONDS)
        self.assertNotIn(b"s3cret-pw", b"".join(listed))


class SetUpRefusals(AccountCase):
    has_account = False

    def test_of_wrong_addresses(self):
        for address, text in (("ftp://host/", "neither http"), ("HTTP://host/", "neither http"), ("host/auto", "neither http"),
                              ("http:///auto", "host must be"), ("http://host", "needs a \"/\""),
                              ("http://host:8480", "needs a \"/\""), ("http://host:8480auto", "port must be"),
                              ("http://host:8480auto/x", "port must be"), ("http://host:/", "port must be"),
                              ("http://host:0/", "port must be"), ("http://host:65536/", "port must be"),
                              ("http://host:99999999999/", "port must be"), ("http://ho st/", "blank"),
                              ("http://host/?a=b", "query"), ("http://host/#a", "query"), ("http://host/\x01", "blank"),
                              ("http://host/caf\u00e9", "ASCII"), ("http://user:pw@host/", "no user or password")):
            with self.subTest(address=address):
                self.fail_with(2, text, "setup", "--dir", self.merchant, address, "--user", "demo", given="demo\n")

    def test_of_wrong_options(self):
        for options, text in ((("--user", ""), "--user takes"), (("--user", "d\u00e9mo"), "--user takes"),
                              (("--user", "a?b"), "cannot be sent"), (("--user", "demo", "--pin", "12"), "--pin takes"),
                              (("--user", "demo", "--pin", "g" * 64), "--pin takes"),
                              (("--user", "demo", "--ca", "missing"), "no file missing"),
                              (("--user", "demo", "--proxy", "host:port"), "port must be"),
                              (("--user", "demo", "--proxy", ":80"), "host must be"),
                              (("--user", "demo", "--shop-user", "no such user"), "has no user"), ((), "--user")):
            with self.subTest(options=options):
                self.fail_with(2, text, "setup", "--dir", self.merchant, self.service, *options, given="demo\n")
        self.fail_with(2, "needs the address", "setup", "--dir", self.merchant, "--user", "demo", given="demo\n")
        self.assertFalse(self.merchant.exists())

    def test_of_services_that_do_not_answer(self):
        address = self.service
        self.stop_sandbox()
        run = self.fail_with(1, "0x8004303D", "setup", "--dir", self.merchant, address, "--user", "demo", given="demo\n")
        self.assertIn("compare host and port", run.errors)

    def test_of_wrong_passwords(self):
        run = self.fail_with(1, "0x80040213", "setup", "--dir", self.merchant, self.service, "--user", "demo",
                             given="wrong\n")
        self.assertIn("KVX_E_SERVER_ERROR (the request failed)", run.errors)
        self.assertRegex(run.errors, r"(?m)^  reason: .*the password of the account 'demo'")
        self.assertIn("compare user and password", run.errors)
        error = self.tool("setup", "--dir", self.merchant, self.service, "--user", "demo", "--json", given="wrong\n").json()["error"]
        self.assertEqual((error["code"], error["name"], error["meaning"]),
                         ("0x80040213", "KVX_E_SERVER_ERROR", "the request failed"))
        self.assertIn("the password of the account 'demo'", error["reason"])

    def test_of_directories_that_cannot_be_made(self):
        (self.directory / "file").write_text("")
        (self.directory / "link").symlink_to("nowhere")
        for name, text in (("missing/merchant", "No such file"), ("file", "is no directory"), ("file/merchant", "directory"),
                           ("link", "a link that leads nowhere"),
                           ("x" * 300, "name too long")):
            with self.subTest(name=name[:20]):
                run = self.tool("setup", "--dir", self.directory / name, self.service, "--user", "demo", given="demo\n")
                self.assertEqual((run.status, run.out), (1, ""))
                self.assertIn(text.lower(), run.errors.lower())


class SetUpWarnings(AccountCase):
    has_account = False

    def warnings_of(self, *options, **settings):
        return "\n".join(self.set_up("--json", *options, **settings).json().get("warnings", []))

    def test_of_root_without_the_shop_s_user(self):
        expected = "belongs to root" if os.geteuid() == 0 else ""
        self.assertIn(expected, self.warnings_of())

    def test_of_a_shop_s_user_that_cannot_read_the_key(self):
        warnings = self.warnings_of("--shop-user", "nobody")
        self.assertRegex(warnings, "user nobody cannot read .*keys/private/0-1001-.* mode 0600")
        self.assertNotIn("belongs to root", warnings)
        self.assertIn(f"user nobody cannot search {self.directory}:", warnings)
        run = self.set_up("--shop-user", "nobody", "--json")
        self.assertFalse(run.json()["shopUserCanSign"])

    def test_not_of_a_user_that_can(self):
        run = self.set_up("--shop-user", str(os.geteuid()), "--json")
        self.assertTrue(run.json()["shopUserCanSign"])
        self.assertNotIn("warnings", run.json())

    def test_of_files_that_everybody_can_write(self):
        self.set_up()
        (self.merchant / "settings.xml").chmod(0o666)
        self.assertIn("every user of this system can write to " + str(self.merchant / "settings.xml"), self.warnings_of())

    def test_of_keys_that_everybody_can_read(self):
        self.set_up("--plain")
        (self.merchant / "settings.xml").write_text('<KVX KEYMODE="0640"/>')
        self.assertNotIn("every user", self.warnings_of())

    def test_of_settings_that_stay(self):
        self.set_up()
        self.assertIn("settings.xml exists already", self.warnings_of("--plain"))

    def test_on_standard_error_for_people(self):
        run = self.set_up("--shop-user", "nobody")
        self.assertIn("tallowin setup: warning: user nobody cannot", run.errors)


if __name__ == "__main__":
    unittest.main()
