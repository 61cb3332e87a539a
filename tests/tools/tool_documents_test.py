"""Completion and manual pages of tallowin, compared with what the commands declare and tried in real shells."""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import unittest

from toolcase import TIMEOUT_SECONDS, Terminal, ToolCase, environment

DOCUMENTS = pathlib.Path(os.environ["KVX_TOOL_DOCUMENTS"])


class DocumentCase(ToolCase):
    def commands(self, prefix=()):
        """Every command as a tuple of words, as --help lists them."""
        out = self.succeed(*prefix, "--help").out
        listed = re.search(r"^Subcommands:\n((?:  .*\n)+)", out, re.MULTILINE)
        found = []
        for name in re.findall(r"^  (\S+)  ", listed.group(1) if listed else "", re.MULTILINE):
            found.append((*prefix, name))
            if name != "sandbox":
                found += self.commands((*prefix, name))
        return found

    def options(self, command):
        """The long options of a command, as --help lists them."""
        found = re.findall(r"^  (?:-h,)?(--[a-z-]+)", self.succeed(*command, "--help").out, re.MULTILINE)
        self.assertIn("--help", found)
        return found


class Manual(DocumentCase):
    def pages(self):
        return {path.name: path.read_text() for path in (DOCUMENTS / "man1").iterdir()}

    def test_has_a_page_for_every_command(self):
        expected = {"tallowin.1"} | {"tallowin-" + "-".join(command) + ".1" for command in self.commands()
                                     if command != ("sandbox",)}
        self.assertGreater(len(expected), 12)
        self.assertEqual(set(self.pages()), expected)

    def test_describes_every_option(self):
        for command in self.commands():
            if command == ("sandbox",):
                continue
            page = self.pages()["tallowin-" + "-".join(command) + ".1"].replace("\\-", "-")
            listed = re.findall(r"^\\fB(--[a-z-]+)", page, re.MULTILINE)
            self.assertEqual(listed, self.options(command), command)

    def test_can_be_formatted_without_warnings(self):
        for path in sorted((DOCUMENTS / "man1").iterdir()):
            with self.subTest(page=path.name):
                done = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", path], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, timeout=TIMEOUT_SECONDS, check=False)
                self.assertEqual((done.returncode, done.stdout), (0, ""))


class Completion(DocumentCase):
    """The same questions to each shell: the words of a command line, and what is suggested for the last of them."""

    def setUp(self):
        super().setUp()
        (self.directory / "a folder").mkdir()
        (self.directory / "a file").write_text("")

    def bash(self, *words):
        script = ('source "$1"; shift; compopt() { :; }; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tallowin; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        return self.shell("bash", "-c", script, "bash", DOCUMENTS / "bash" / "tallowin", "tallowin", *words)

    def fish(self, *words):
        line = shlex.join(["tallowin", *words]) if words[-1] else shlex.join(["tallowin", *words[:-1]]) + " "
        script = f"source {shlex.quote(str(DOCUMENTS / 'fish' / 'tallowin.fish'))}; complete -C {shlex.quote(line)}"
        home = environment(HOME=str(self.directory), XDG_CONFIG_HOME=str(self.directory), XDG_DATA_HOME=str(self.directory))
        return {line.split("\t")[0] for line in self.shell("fish", "--no-config", "-c", script, env=home)}

    def shell(self, *command, env=None):
        done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=TIMEOUT_SECONDS, cwd=self.directory, env=env or environment(), check=False)
        self.assertEqual(done.stderr, "")
        return set(done.stdout.splitlines()) - {""}

    def test_suggests_every_command_and_option(self):
        for ask in (self.bash, self.fish):
            for parent in {command[:-1] for command in self.commands()}:
                expected = {command[-1] for command in self.commands() if command[:-1] == parent}
                self.assertLessEqual(expected, ask(*parent, ""), (ask.__name__, parent))
            for command in self.commands():
                if command != ("sandbox",):
                    self.assertLessEqual(set(self.options(command)), ask(*command, "--"), (ask.__name__, command))

    def test_suggests_values(self):
        for ask in (self.bash, self.fish):
            with self.subTest(shell=ask.__name__):
                self.assertEqual({name.rstrip("/") for name in ask("pay", "--dir", "a")}, {"a folder"})
                self.assertIn("a file", {name.rstrip("/") for name in ask("setup", "--ca", "a")})
                self.assertEqual(ask("get", "con"), {"config.xml"})
                self.assertIn("a file", ask("sandbox", "a"))
                self.assertEqual(ask("pay", "--amount", "1"), set())
                self.assertEqual(ask("keys", "prune", "--dry"), {"--dry-run"})

    def test_bash_completes_behind_an_equals_sign(self):
        self.assertEqual(self.bash("pay", "--dir", "=", "a"), {"a folder"})
        self.assertIn("a folder", self.bash("pay", "--dir", "="))

    def test_zsh_completes_on_a_terminal(self):
        functions = self.directory / "functions"
        functions.mkdir()
        shutil.copy(DOCUMENTS / "zsh" / "_tallowin", functions)
        home = environment(ZDOTDIR=str(self.directory), HOME=str(self.directory))
        (self.directory / ".zshrc").write_text(
            f"PS1='ready '\nfpath=({functions} $fpath)\nautoload -U compinit\ncompinit -u -d {self.directory}/dump\n"
            'show() { print -r -- "<$BUFFER>"; }\nzle -N show\nbindkey "^X" show\n')
        terminal = Terminal("-i", env=home, program=("/usr/bin/zsh",))
        terminal.wait_for("ready ")
        for typed, completed in (("req", "request"), ("pay --curr", "pay --currency"), ("keys pr", "keys prune"),
                                 ("keys prune --dr", "keys prune --dry-run"), ("get sett", "get settings.xml"),
                                 ("verify --no", "verify --no")):
            with self.subTest(typed=typed):
                terminal.type(f"tallowin {typed}\t\x18")
                terminal.wait_for(">")
                self.assertRegex(terminal.shown, rf"<tallowin {completed} ?>")
                terminal.shown = ""
                terminal.type("\x15")
        terminal.type("exit\n")
        terminal.finish()


if __name__ == "__main__":
    unittest.main()
