// tallowin-demo: whole payments against a running sandbox, every library call with its result.
#include <tallowin/tallowin.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "demonstration.h"
#include "report.h"

namespace {

constexpr int kUsage = 2;

// A run takes a second or two. The library has no timeout, so SIGALRM ends a run that hangs.
constexpr unsigned kTimeoutSeconds = 120;

char const kHelp[] =
    "Usage: tallowin-demo SERVICE DIRECTORY\n"
    "\n"
    "Runs whole payments against a running tallowin-sandbox, as merchant and as shopper.\n"
    "\n"
    "  SERVICE    set-up address of the sandbox, such as http://127.0.0.1:8080/auto\n"
    "  DIRECTORY  the merchant's configuration directory; this program creates it, its parent must exist\n"
    "\n"
    "Exit status: 0 when every step had the expected result, 1 when one had not, 2 for wrong usage.\n";

/// Colours only on a terminal, and not when NO_COLOR is set.
bool wantsColours() {
    return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
}

/// Returns whether every step had the expected result.
bool runDemonstration(demo::Settings const& settings, demo::Report& report) {
    try {
        demo::Demonstration(settings, report).run();
        return true;
    } catch (std::exception const& failure) {
        std::cout << std::flush;
        std::cerr << "\nThe demonstration stops here: " << failure.what() << '\n';
        return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string const first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h") {
        std::cout << kHelp;
        return EXIT_SUCCESS;
    }
    if (argc != 3) {
        std::cerr << kHelp;
        return kUsage;
    }
    alarm(kTimeoutSeconds);
    std::cout << "Tallowin " << KVX_GetVersion() << ": whole payments through libtallowin.so\n";
    demo::Report report(wantsColours());
    bool const done = runDemonstration({argv[1], argv[2]}, report);
    report.table();
    std::cout << '\n'
              << report.steps() << " steps, " << (done ? "all as expected" : "the demonstration did not finish")
              << ".\n";
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
