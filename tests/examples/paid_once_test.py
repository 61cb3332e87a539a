"""docs/paid-once.md: its program in C++ is compiled and sells.

CMakeLists.txt sets environment variables with the paths of the library and of the sandbox.
"""

import os
import pathlib
import subprocess
import unittest

from language_pages_test import blocks_of
from sandboxcase import TIMEOUT_SECONDS, Program, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
MAX_LINES = 12


class PaidOnceInCpp(SandboxCase):
    frame = """#include <iostream>
#include <string>

{block}
void deliver(std::string const& order) { std::cout << "deliver " << order << std::endl; }

int main(int, char** arguments) {
    std::string const directory = arguments[1], store = arguments[3];
    tallowin::ConfigurationSetup(directory).reconfigure(arguments[2], "demo", "demo");
    tallowin::Ledger orders(store, directory);
    orders.setOption("STATUSTYPE", "Status");
    std::cout << pay(orders, "A-17", "19.90") << std::endl;
    std::string data, signature;
    std::getline(std::cin, data);
    std::getline(std::cin, signature);
    if (!data.empty()) {
        for (char const* const messenger : {"return", "notification"}) {
            std::cout << confirmed(orders, messenger, data, signature) << std::endl;
        }
        std::cout << confirmed(orders, "return", data, "00") << std::endl;
    }
    work(orders);
    if (data.empty()) {
        orders.setOption("NOW", "4102444800000");
        work(orders);
    }
    std::cout << orders.getState("A-17") << std::endl;
}
"""

    def start(self):
        """Compiles the page's block in the frame and starts the program. Returns it, and the payment URL."""
        block, = blocks_of("paid-once.md", "cpp")
        before, shop = block.split("\n\n", 2)[0::2]
        self.assertEqual(before, "#include <tallowin/ledger.hpp>")
        self.assertLessEqual(shop.count("\n"), MAX_LINES)
        (self.directory / "shop.cpp").write_text(self.frame.replace("{block}", block))
        library = pathlib.Path(os.environ["TALLOWIN_LIBRARY"]).parent
        done = subprocess.run(["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", f"-I{ROOT / 'include'}", "shop.cpp", "-o", "shop",
                               f"-L{library}", "-ltallowin-ledger", "-ltallowin", f"-Wl,-rpath,{library}"],
                              cwd=self.directory, timeout=TIMEOUT_SECONDS, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        program = Program(self.directory / "shop", self.merchant, self.service, f"sqlite:{self.directory / 'orders.db'}")
        return program, program.line()

    def test_delivers_once_and_captures(self):
        program, url = self.start()
        self.assertEqual(program.finish(*parameters(self.browser.decide(url, "pay"))),
                         (0, "deliver A-17\n200\n200\n400\ncaptured\n", ""))
        self.assertEqual(self.states(), ["captured"])

    def test_delivers_when_no_confirmation_arrives(self):
        program, url = self.start()
        self.browser.decide(url, "pay")
        self.assertEqual(program.finish("", ""), (0, "deliver A-17\ncaptured\n", ""))
        self.assertEqual(self.states(), ["captured"])


if __name__ == "__main__":
    unittest.main()
