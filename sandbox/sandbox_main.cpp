// The program tallowin-sandbox: command line, one line of addresses on standard output, end on SIGINT or SIGTERM.
// Both signals are blocked before the first thread starts and taken with sigwait() alone. Exit status 2 means a wrong
// command line, 1 a service that cannot start.
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/faults/fault.h"
#include "sandbox/service.h"
#include "sandbox/text/wiretext.h"

namespace {

constexpr char kTokenCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr int kTokenBytes = 16;

struct Arguments {
    sandbox::Options m_Options;
    std::string m_Account = "demo:demo";
    std::vector<std::string> m_Faults;
    std::vector<double> m_NotifyRetries;
    bool m_Json = false;
};

void describe(CLI::App& program, Arguments& arguments) {
    sandbox::Options& options = arguments.m_Options;
    program.set_version_flag("--version", "tallowin-sandbox " KVX_VERSION, "print the version and end");
    program.add_option("--data", options.m_DataDirectory, "directory for database, keys and certificates")->required();
    program.add_option("--port", options.m_Port, "port for plain HTTP; 0 for any free port")->capture_default_str();
    program.add_flag("--tls", options.m_Tls, "also listen with TLS");
    program.add_option("--tls-port", options.m_TlsPort, "port for TLS; 0 for any free port")
        ->capture_default_str()
        ->needs("--tls");
    program.add_flag("--proxy", options.m_Proxy, "also run an HTTP proxy, for merchants that use one");
    program.add_option("--proxy-port", options.m_ProxyPort, "port of the proxy; 0 for any free port")
        ->capture_default_str()
        ->needs("--proxy");
    program
        .add_option("--control-port", options.m_ControlPort,
                    "port of dashboard and control API, never affected by faults; 0 for any free port")
        ->capture_default_str();
    program.add_option("--fault", arguments.m_Faults, "fault to arm: kind,name=value,... (repeatable)");
    program
        .add_option("--listen", options.m_Listen.m_Address, "IPv4 address to listen on; other machines need a token")
        ->type_name("ADDRESS")
        ->capture_default_str();
    program.add_option("--host", options.m_Listen.m_Name, "name under which clients reach the address of --listen")
        ->type_name("NAME");
    program.add_option("--token", options.m_Token, "demanded for dashboard and control API")
        ->type_name("TEXT")
        ->check([](std::string const& text) {
            bool const good = !text.empty() && text.find_first_not_of(kTokenCharacters) == std::string::npos;
            return good ? "" : "must have letters, digits, '-' and '_' only";
        });
    program
        .add_option("--notify-ca", options.m_NotifyAuthority,
                    "file with the authorities of merchants that are notified under TLS")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    program.add_option("--scenario", options.m_ScenarioFile, "file with faults and standing decisions to arm")
        ->type_name("FILE");
    program.add_option("--account", arguments.m_Account, "the merchant's account, as user:password")
        ->capture_default_str()
        ->check([](std::string const& text) {
            return text.find(':', 1) == std::string::npos || text[0] == ':' ? "must have the form user:password" : "";
        });
    program.add_option("--seed", options.m_Seed, "makes the identifiers of payments predictable")->type_name("TEXT");
    program
        .add_option("--notify-retries", arguments.m_NotifyRetries,
                    "seconds before each retry of a notification, separated by commas")
        ->type_name("SECONDS,...")
        ->delimiter(',')
        ->check(CLI::Range(0.0, 86400.0));
    program.add_flag("--lenient", options.m_Lenient,
                     "accept odd content of payments with a warning instead of refusing it");
    program
        .add_option("--keep", options.m_Retention.m_Newest,
                    "keep that many payments and exchanges, the newest of each; all without it")
        ->check(CLI::PositiveNumber);
    program
        .add_option("--keep-for", options.m_Retention.m_Seconds,
                    "keep payments and exchanges for that long: 90s, 30m, 12h, 7d")
        ->transform(CLI::AsNumberWithUnit(
            std::map<std::string, std::int64_t>{{"s", 1}, {"m", 60}, {"h", 60 * 60}, {"d", 24 * 60 * 60}}))
        ->check(CLI::PositiveNumber);
    program.add_flag("--json", arguments.m_Json, "print the addresses as one line of JSON");
}

std::string readyLine(sandbox::Service const& service, Arguments const& arguments) {
    sandbox::Addresses const addresses = service.addresses();
    std::string const& base = addresses.m_Plain.m_Url;
    sandbox::Options const& options = arguments.m_Options;
    std::string const& token = options.m_Token;
    std::string const dashboard = addresses.m_Control.m_Url + "/" + (token.empty() ? "" : "?token=" + token);
    if (!arguments.m_Json) {
        std::string const tls = options.m_Tls ? " and " + addresses.m_Tls.m_Url + "/auto" : "";
        std::string const proxy = options.m_Proxy ? ", proxy at " + addresses.m_Proxy.m_Url : "";
        return "The sandbox is ready: set-up at " + base + "/auto" + tls + proxy + ", dashboard at " + dashboard;
    }
    nlohmann::json line = {{"auto", base + "/auto"},
                           {"pay", base + "/pay"},
                           {"capture", base + "/capture"},
                           {"payments", base + "/"},
                           {"dashboard", dashboard},
                           {"control", addresses.m_Control.m_Url + "/control"},
                           {"port", addresses.m_Plain.m_Port},
                           {"controlPort", addresses.m_Control.m_Port},
                           {"serverKeyId", service.services().m_Keys.current()->m_Id},
                           {"data", options.m_DataDirectory}};
    if (!token.empty()) {
        line["token"] = token;
    }
    if (options.m_Tls) {
        line["tlsAuto"] = addresses.m_Tls.m_Url + "/auto";
        line["tlsPort"] = addresses.m_Tls.m_Port;
        line["ca"] = service.authorityFile();
    }
    if (options.m_Proxy) {
        line["proxy"] = addresses.m_Proxy.m_Url;
        line["proxyPort"] = addresses.m_Proxy.m_Port;
    }
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// Fills in what --host and --token leave open. The machine's name stands for all of its addresses.
void completeListenAddress(sandbox::Options& options) {
    sandbox::ListenAddress& listen = options.m_Listen;
    if (listen.m_Name.empty()) {
        char machine[256] = "";
        ::gethostname(machine, sizeof machine - 1);
        listen.m_Name = listen.m_Address == "0.0.0.0" ? machine : listen.m_Address;
    }
    if (options.m_Token.empty() && !listen.isLocal()) {
        options.m_Token = sandbox::randomHex(kTokenBytes);
    }
}

/// Every connection takes a descriptor, and the usual limit is 1024. That of the system is far above it. Without
/// success the service has room for fewer connections.
void allowManyDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Runs until SIGINT or SIGTERM. A second one ends the process at once, which loses nothing that a client received.
void serve(Arguments const& arguments) {
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    // Blocked before the first thread starts, so that only sigwait() takes them.
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);
    allowManyDescriptors();
    sandbox::Service service(arguments.m_Options);
    service.start();
    std::cout << readyLine(service, arguments) << std::endl;
    int ending = 0;
    sigwait(&endings, &ending);
    pthread_sigmask(SIG_UNBLOCK, &endings, nullptr);
    service.stop();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App program("A payment service for testing merchants.", "tallowin-sandbox");
    Arguments arguments;
    sandbox::Options& options = arguments.m_Options;
    options.m_Listen.m_Name = "";
    describe(program, arguments);
    try {
        program.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        constexpr int kUsage = 2;
        return program.exit(error) == 0 ? 0 : kUsage;
    }
    std::size_t const colon = arguments.m_Account.find(':');
    options.m_AccountUser = arguments.m_Account.substr(0, colon);
    options.m_AccountPassword = arguments.m_Account.substr(colon + 1);
    try {
        std::string& directory = options.m_DataDirectory;
        directory = directory.empty() ? "" : std::filesystem::absolute(directory).string();
        completeListenAddress(options);
        if (!arguments.m_NotifyRetries.empty()) {
            options.m_NotificationBackoff.clear();
        }
        for (double const seconds : arguments.m_NotifyRetries) {
            options.m_NotificationBackoff.push_back(
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds)));
        }
        for (std::string const& fault : arguments.m_Faults) {
            options.m_Faults.push_back(sandbox::parseFault(fault));
        }
        serve(arguments);
    } catch (std::exception const& failure) {
        std::cerr << "tallowin-sandbox: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
