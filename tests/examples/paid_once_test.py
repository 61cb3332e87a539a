"""docs/paid-once.md: its programs in C++ and Java are compiled and sell.

CMakeLists.txt sets environment variables with the paths of the libraries, of the jar and of the sandbox.
"""

import os
import pathlib
import subprocess
import unittest

from language_pages_test import blocks_of
from sandboxcase import TIMEOUT_SECONDS, Program, SandboxCase, parameters

ROOT = pathlib.Path(os.environ["KVX_ROOT"])
MAX_LINES = 12


class PaidOnceTests:
    """A program around the block of one language: `start` returns it, running, and the payment URL that it prints."""

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


class PaidOnceInCpp(PaidOnceTests, SandboxCase):
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


class PaidOnceInJava(PaidOnceTests, SandboxCase):
    frame = """import java.io.BufferedReader;
import java.io.InputStreamReader;
import kelvane.tallowin.ConfigurationSetup;
{imports}
public class Page {{
{shop}
void deliver(String order) {{ System.out.println("deliver " + order); }}

public static void main(String[] arguments) throws Exception {{
    try (ConfigurationSetup setup = new ConfigurationSetup()) {{
        setup.SetConfiguration(arguments[0]);
        setup.Reconfigure(arguments[1], "demo", "demo");
    }}
    Page page = new Page();
    try (Ledger orders = new Ledger(arguments[2], arguments[0])) {{
        orders.setOption("STATUSTYPE", "Status");
        System.out.println(page.pay(orders, "A-17", "19.90"));
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        String data = in.readLine(), signature = in.readLine();
        if (!data.isEmpty()) {{
            for (String messenger : new String[] {{"return", "notification"}}) {{
                System.out.println(page.confirmed(orders, messenger, data, signature));
            }}
            System.out.println(page.confirmed(orders, "return", data, "00"));
        }}
        page.work(orders);
        if (data.isEmpty()) {{
            orders.setOption("NOW", "4102444800000");
            page.work(orders);
        }}
        System.out.println(orders.getState("A-17"));
    }}
}}
}}
"""

    def start(self):
        block, = blocks_of("paid-once.md", "java")
        imports, shop = block.split("\n\n", 1)
        self.assertLessEqual(shop.count("\n"), MAX_LINES)
        page = self.directory / "Page.java"
        page.write_text(self.frame.format(imports=imports, shop=shop))
        program = Program(os.environ["KVX_JAVA_RUN"], "-Xcheck:jni", "-cp", os.environ["KVX_JAR"], page, self.merchant, self.service,
                          f"sqlite:{self.directory / 'orders.db'}")
        return program, program.line()


if __name__ == "__main__":
    unittest.main()
