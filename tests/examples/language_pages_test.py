"""The pages for other languages: their programs run as written, block after block, and they quote the quickstarts.

CMakeLists.txt sets environment variables with the paths of programs and interpreters.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import textwrap
import unittest

from examples_test import ROOT
from languages_test import composer_project
from sandboxcase import TIMEOUT_SECONDS, Program, SandboxCase, parameters


def blocks_of(page, language):
    """The fenced blocks of a language on a page, in order."""
    text = (ROOT / "docs" / page).read_text()
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


class PageTests:
    """Tests of one page. `frame` is a program with {blocks} for those of the page; it defines directory, service, user, password
    and the function that sends the shopper."""

    page = language = quickstart = comment = ""
    frame = ""

    def program(self):
        """The page's blocks in their frame."""
        return self.frame.replace("{blocks}", "\n".join(textwrap.dedent(block) for block in blocks_of(self.page, self.language)))

    def check(self, *command, **settings):
        """Runs the program, pays, and compares what it prints."""
        program = Program(*command, self.merchant, self.service, **settings)
        address = self.browser.decide(program.line(), "pay")
        status, out, errors = program.finish(*parameters(address))
        self.assertEqual((status, errors), (0, ""), out)
        captured, failure = out.splitlines()
        self.assertEqual(captured, "The payment is captured.")
        self.assertRegex(failure, r"^KVX_E_INVALID_SIGNATURE .*invalid signature")
        self.assertEqual(self.states(), ["captured"])

    def test_quotes_its_quickstart(self):
        source = (ROOT / "examples" / self.quickstart).read_text()
        quoted = re.search(rf"^ *{self.comment} \[quickstart\]\n(.*?)^ *{self.comment} \[/quickstart\]$", source,
                           re.MULTILINE | re.DOTALL).group(1)
        self.assertIn(quoted, blocks_of(self.page, self.language))
        self.assertLessEqual(quoted.count("\n"), 20)


class PythonPage(PageTests, SandboxCase):
    page, language, quickstart, comment = "python.md", "python", "python/quickstart.py", "#"
    frame = """
import sys
directory, service = sys.argv[1:]
user = password = "demo"

def send_shopper_to(url):
    print(url, flush=True)
    return input(), input()

{blocks}
"""

    def test_commands_install_the_package_and_its_program_pays(self):
        shutil.copytree(ROOT / "bindings" / "python", self.directory / "bindings" / "python")  # a build writes beside it
        commands, = blocks_of(self.page, "sh")
        python = self.directory / "bin" / "python3"
        python.parent.mkdir()
        python.symlink_to("/usr/bin/python3")
        environment = {**os.environ, "PATH": f"{python.parent}:{os.environ['PATH']}", "PIP_ROOT_USER_ACTION": "ignore",
                       "PIP_DISABLE_PIP_VERSION_CHECK": "1"}
        done = subprocess.run(["bash", "-euc", commands], cwd=self.directory, env=environment, timeout=TIMEOUT_SECONDS,
                              capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        (self.directory / "program.py").write_text(self.program())
        self.check(sys.executable, "-B", self.directory / "program.py",
                   env={**os.environ, "PYTHONPATH": str(self.directory / "site")})


class PhpPage(PageTests, SandboxCase):
    page, language, quickstart, comment = "php.md", "php", "php/quickstart.php", "//"
    frame = """<?php
declare(strict_types=1);
require __DIR__ . '/vendor/autoload.php';
[, $directory, $service] = $argv;
$user = $password = 'demo';

function sendShopperTo(string $url): array
{
    echo $url, "\\n";
    return [rtrim(fgets(STDIN)), rtrim(fgets(STDIN))];
}

{blocks}
"""

    def test_project_of_the_page_is_that_of_the_example_and_its_program_pays(self):
        project = self.directory / "project"
        composer_project(project)
        ours = json.loads(blocks_of(self.page, "json")[0])
        used = json.loads((project / "composer.json").read_text())
        self.assertEqual(ours["require"], used["require"])
        self.assertEqual(ours["repositories"], [{"type": "path", "url": "../bindings/php"}])
        self.assertEqual([used["repositories"][0]["type"], pathlib.Path(used["repositories"][0]["url"])],
                         ["path", ROOT / "bindings" / "php"])
        (project / "program.php").write_text(self.program())
        self.check(os.environ["KVX_PHP"], project / "program.php")


class NodePage(PageTests, SandboxCase):
    page, language, quickstart, comment = "node.md", "js", "node/quickstart.js", "//"
    frame = """'use strict';
const readline = require('node:readline');
const [directory, service] = process.argv.slice(2);
const user = 'demo';
const password = 'demo';

async function sendShopperTo(url) {
  console.log(url);
  const lines = [];
  for await (const line of readline.createInterface({ input: process.stdin })) {
    lines.push(line);
  }
  return lines;
}

async function main() {
{blocks}
}

main();
"""

    def test_program_pays(self):
        modules = pathlib.Path(os.environ["KVX_NODE_MODULES"])
        if not (modules / "@kelvane" / "tallowin" / "node_modules" / "koffi").exists():
            self.skipTest("koffi is not installed: npm had no network")
        (self.directory / "program.js").write_text(self.program())
        self.check(os.environ["KVX_NODE"], self.directory / "program.js", env={**os.environ, "NODE_PATH": str(modules)})


class CppPage(PageTests, SandboxCase):
    page, language, quickstart, comment = "cpp.md", "cpp", "cpp/quickstart.cpp", "//"
    frame = """{include}
#include <iostream>
#include <string>
#include <utility>

static std::pair<std::string, std::string> sendShopperTo(std::string const& url) {
    std::cout << url << std::endl;
    std::string data, signature;
    std::getline(std::cin, data);
    std::getline(std::cin, signature);
    return {data, signature};
}

int main(int, char** arguments) {
    std::string const directory = arguments[1], service = arguments[2], user = "demo", password = "demo";
{blocks}
}
"""

    def test_command_compiles_the_program_and_it_pays(self):
        include, *blocks = blocks_of(self.page, self.language)
        self.assertEqual(include, "#include <tallowin/tallowin.hpp>\n")
        program = self.frame.replace("{include}", include).replace("{blocks}", "".join(blocks))
        (self.directory / "shop.cpp").write_text(program)
        command, = blocks_of(self.page, "sh")
        library = pathlib.Path(os.environ["TALLOWIN_LIBRARY"]).parent
        flags = f"-I{ROOT / 'include'} -L{library} -ltallowin -Wl,-rpath,{library}"
        self.assertIn("$(pkg-config --cflags --libs tallowin)", command)
        command = command.replace("$(pkg-config --cflags --libs tallowin)", flags)
        done = subprocess.run(["bash", "-euc", command], cwd=self.directory, timeout=TIMEOUT_SECONDS, capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.check(self.directory / "shop")


if __name__ == "__main__":
    unittest.main()
