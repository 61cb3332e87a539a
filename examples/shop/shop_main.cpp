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

// The library waits for the service without a limit, and so would a shop that ends in the middle of a capture. Longer
// than a visitor may take to send a request.
constexpr std::chrono::seconds kShutdownTimeout{7};

char const kHelp[] =
    "Usage: TALLOWIN_PASSWORD=... tallowin-shop DIRECTORY SERVICE USER [--port N]\n"
    "\n"
    "A web shop to click through, on 127.0.0.1. Prints its address and serves until SIGINT or SIGTERM.\n"
    "\n"
    "  DIRECTORY  the configuration directory of the account, set up when that has not been done yet\n"
    "  SERVICE    the payment service's set-up address, such as http://127.0.0.1:8080/auto of a tallowin-sandbox\n"
    "  USER       the account's user; a sandbox is born with \"demo\", password \"demo\"\n"
    "  --port N   the shop's port; without it, or with 0, a free one\n"
    "\n"
    "When it is told to end in the middle of a capture that the service does not answer, it says on standard error\n"
    "which orders were not finished: orders live in memory.\n"
    "\n"
    "Exit status: 0 when it was told to end, 1 when it could not open, 2 for wrong usage.\n";

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

/// Ends the program at once: threads still wait for the service, for ever perhaps.
[[noreturn]] void leaveUnfinished(std::vector<std::string> const& orders) {
    std::cerr << "tallowin-shop: ended before everything was answered\n";
    for (std::string const& order : orders) {
        std::cerr << "tallowin-shop: order " << order
                  << " is paid, but its capture is not confirmed: ask the payment service how it stands\n";
    }
    std::_Exit(EXIT_SUCCESS);
}

void serve(storefront::MerchantAccount& account, int port) {
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    // Blocked before the first thread starts, so that only sigwait() takes them.
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
