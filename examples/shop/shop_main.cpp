// tallowin-shop: a web shop that takes payments through the library, until SIGINT or SIGTERM.
//
// Order: arguments, the end with open requests, serving, main. Both signals are blocked in all threads and taken with
// sigwait(), so no signal handler is needed. The library has no timeout: at the end the shop waits some seconds for
// open requests, then lists the unfinished orders and exits without them.
#include <pthread.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "merchantaccount.h"
#include "storefront.h"

namespace {

constexpr int kUsage = 2;
constexpr int kMaxPort = 65535;

// How long open requests may take at the end. Longer than the timeout for a visitor's request.
constexpr std::chrono::seconds kShutdownTimeout{7};

char const kHelp[] =
    "Usage: TALLOWIN_PASSWORD=... tallowin-shop DIRECTORY SERVICE USER [--port N]\n"
    "\n"
    "A demonstration web shop on 127.0.0.1. Prints its address and serves until SIGINT or SIGTERM.\n"
    "\n"
    "  DIRECTORY  the configuration directory of the account; the first start sets it up\n"
    "  SERVICE    the payment service's set-up address, such as http://127.0.0.1:8080/auto of a sandbox\n"
    "  USER       the account's user; a new sandbox has \"demo\" with password \"demo\"\n"
    "  --port N   the shop's port; 0, the default, takes a free one\n"
    "\n"
    "Orders are kept in memory only. When the shop ends during a capture that the service does not answer, it lists\n"
    "the unfinished orders on standard error.\n"
    "\n"
    "Exit status: 0 after SIGINT or SIGTERM, 1 when the shop could not start, 2 for wrong usage.\n";

struct Arguments {
    std::string m_Directory;
    std::string m_Service;
    std::string m_User;
    std::string m_Password;
    int m_Port = 0;
};

std::optional<int> readPort(std::string const& text) {
    int port = 0;
    char const* const end = text.data() + text.size();
    std::from_chars_result const read = std::from_chars(text.data(), end, port);
    bool const whole = read.ec == std::errc() && read.ptr == end;
    return whole && port >= 0 && port <= kMaxPort ? std::optional<int>(port) : std::nullopt;
}

std::optional<Arguments> readArguments(int argc, char** argv) {
    char const* const password = std::getenv("TALLOWIN_PASSWORD");
    bool const withPort = argc == 6 && std::string(argv[4]) == "--port";
    std::optional<int> const port = withPort ? readPort(argv[5]) : 0;
    if (password == nullptr || !port || (argc != 4 && !withPort)) {
        return std::nullopt;
    }
    return Arguments{argv[1], argv[2], argv[3], password, *port};
}

/// Exits at once: threads may wait for the service forever.
[[noreturn]] void leaveUnfinished(std::vector<std::string> const& orders) {
    std::cerr << "tallowin-shop: ended with open requests\n";
    for (std::string const& order : orders) {
        std::cerr << "tallowin-shop: order " << order
                  << " is paid, but its capture is not confirmed: ask the payment service for its state\n";
    }
    std::_Exit(EXIT_SUCCESS);
}

void serve(storefront::MerchantAccount& account, int port) {
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    // Every thread inherits the mask, so only sigwait() receives the signals.
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);
    storefront::Storefront shop(account, port);
    std::cout << "The shop is open at " << shop.address() << "/" << std::endl;
    int ending = 0;
    sigwait(&endings, &ending);
    if (!shop.close(kShutdownTimeout)) {
        leaveUnfinished(shop.inSettlement());
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string const first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h") {
        std::cout << kHelp;
        return EXIT_SUCCESS;
    }
    std::optional<Arguments> const arguments = readArguments(argc, argv);
    if (!arguments) {
        std::cerr << kHelp;
        return kUsage;
    }
    try {
        storefront::MerchantAccount account(arguments->m_Directory, arguments->m_Service, arguments->m_User,
                                            arguments->m_Password);
        account.setUpOnce();
        serve(account, arguments->m_Port);
    } catch (std::exception const& failure) {
        std::cerr << "tallowin-shop: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
