// tallowin-shop: a web shop that takes payments through the order ledger, until SIGINT or SIGTERM.
//
// Order: set-up, the worker, serving, main. Visitors are served by the threads of the web server; everything that waits
// for the payment service is done by one worker. Any number of these programs may share one directory.
#include <pthread.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <tallowin/tallowin.hpp>

#include "../common/boundedserver.h"
#include "../common/missingfile.h"
#include "orderbook.h"
#include "storefront.h"

namespace {

using Clock = std::chrono::system_clock;

constexpr int kUsage = 2;
constexpr std::chrono::milliseconds kPause{200};
constexpr std::chrono::seconds kSetUpPause{10};
constexpr std::chrono::seconds kShutdownTimeout{7};  // longer than the timeout for a visitor's request

// Without it an exchange with a service that hangs never ends. Shorter than LEASESECONDS of the ledger.
constexpr char kSettings[] = "<KVX CONNECTTIMEOUT=\"5\" TOTALTIMEOUT=\"20\"/>\n";

struct Arguments {
    std::string m_Directory;
    std::string m_Service;
    std::string m_User;
    std::string m_Password;
    int m_Port = 0;
};

/// Sets up the account, unless an earlier set-up succeeded.
void setUpOnce(Arguments const& account) {
    tallowin::ConfigurationSetup setup(account.m_Directory);  // makes the directory
    if (examples::isMissing(account.m_Directory + "/settings.xml")) {
        std::ofstream file(account.m_Directory + "/settings.xml");
        file << kSettings;
        file.close();
        if (!file) {
            throw std::runtime_error("settings.xml cannot be written");
        }
    }
    if (examples::isMissing(account.m_Directory + "/keys/current")) {  // a set-up writes it last
        setup.reconfigure(account.m_Service, account.m_User, account.m_Password);
    }
    static_cast<void>(setup.getAttribute("keys/current"));  // a key that cannot be read ends the start, and stays
}

/// The worker. The service may change its signing key at any time: the ledger keeps a confirmation under a new key, and
/// a set-up imports the key. Visitors can forge such confirmations of their own orders, so there is a pause between
/// set-ups, and none for a confirmation that was there before the last one.
void work(Arguments const& account, storefront::OrderBook& orders, std::atomic<bool> const& stops) {
    Clock::time_point last;
    Clock::time_point next;
    for (; !stops; std::this_thread::sleep_for(kPause)) {
        try {
            Clock::time_point const now = Clock::now();
            auto const since = std::chrono::duration_cast<std::chrono::milliseconds>(last.time_since_epoch());
            if (now >= next && orders.hasKeptSince(since.count())) {
                next = now + kSetUpPause;
                orders.setUpAgain(account.m_Service, account.m_User, account.m_Password);
                last = now;
            }
            orders.work();
        } catch (std::exception const& failure) {  // the store remembers what is due
            std::cerr << std::string("tallowin-shop: ") + failure.what() + "\n";
        }
    }
}

void serve(Arguments const& arguments) {
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    // Every thread inherits the mask, so only sigwait() receives the signals.
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);
    storefront::OrderBook orders(arguments.m_Directory);  // for the worker; a store that cannot be used ends the start
    examples::BoundedServer server;
    std::string const address = server.bind(arguments.m_Port);
    std::string const dashboard = arguments.m_Service.substr(0, arguments.m_Service.rfind('/'));
    storefront::addPages(server, arguments.m_Directory, address, dashboard);
    server.start();
    std::atomic<bool> stops = false;
    std::future<void> const worker = std::async(std::launch::async, [&] { work(arguments, orders, stops); });
    std::cout << "The shop is open at " << address << "/" << std::endl;
    int ending = 0;
    sigwait(&endings, &ending);
    stops = true;
    bool const isClosed = server.close(kShutdownTimeout);
    if (worker.wait_for(kShutdownTimeout) != std::future_status::ready || !isClosed) {
        std::cerr << "tallowin-shop: ended during an exchange with the payment service; the next start goes on\n";
        std::_Exit(EXIT_SUCCESS);  // the exchange may take long, and the ledger knows of it
    }
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    CLI::App program("A demonstration web shop on 127.0.0.1. Prints its address and serves until SIGINT or SIGTERM.",
                     "TALLOWIN_PASSWORD=... tallowin-shop");
    program.add_option("DIRECTORY", arguments.m_Directory, "account and orders; the first start sets it up")
        ->required();
    program.add_option("SERVICE", arguments.m_Service, "the payment service's set-up address, as a sandbox prints it")
        ->required();
    program
        .add_option("USER", arguments.m_User, "the account's user; \"demo\" in a new sandbox, with password \"demo\"")
        ->required();
    program.add_option("--port", arguments.m_Port, "the shop's port; 0 takes a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    try {
        program.parse(argc, argv);
        char const* const password = std::getenv("TALLOWIN_PASSWORD");
        arguments.m_Password = password == nullptr ? throw CLI::RequiredError("TALLOWIN_PASSWORD") : password;
    } catch (CLI::ParseError const& failure) {
        bool const isHelp = failure.get_exit_code() == 0;
        (isHelp ? std::cout : std::cerr << failure.what() << "\n\n") << program.help();
        return isHelp ? EXIT_SUCCESS : kUsage;
    }
    try {
        setUpOnce(arguments);
        serve(arguments);
    } catch (std::exception const& failure) {
        std::cerr << "tallowin-shop: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
