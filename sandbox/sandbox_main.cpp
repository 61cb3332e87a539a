#include <pthread.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/service.h"

namespace {

struct Arguments {
    sandbox::Options options;
    std::string account = "demo:demo";
    std::vector<std::string> faults;
    bool json = false;
};

void describe(CLI::App& program, Arguments& arguments) {
    program.add_option("--data", arguments.options.dataDirectory, "directory for database, keys and certificates")
        ->required();
    program.add_option("--port", arguments.options.port, "port of plain HTTP, 0 picks a free one")
        ->capture_default_str();
    program.add_flag("--tls", arguments.options.tls, "listen with TLS as well");
    program.add_option("--tls-port", arguments.options.tlsPort, "port of TLS, 0 picks a free one")
        ->capture_default_str()
        ->needs("--tls");
    program.add_flag("--proxy", arguments.options.proxy, "run an HTTP proxy as well, for merchants that use one");
    program.add_option("--proxy-port", arguments.options.proxyPort, "port of the proxy, 0 picks a free one")
        ->capture_default_str()
        ->needs("--proxy");
    program
        .add_option("--control-port", arguments.options.controlPort,
                    "port of dashboard and control API that faults never touch, 0 picks a free one")
        ->capture_default_str();
    program.add_option("--fault", arguments.faults, "a fault to arm: kind,name=value,... (may be given several times)");
    program.add_option("--account", arguments.account, "the merchant's account as user:password")
        ->capture_default_str()
        ->check([](std::string const& text) {
            return text.find(':', 1) == std::string::npos || text[0] == ':' ? "must have the form user:password" : "";
        });
    program.add_flag("--json", arguments.json, "tell the addresses as one line of JSON");
}

std::string readyLine(sandbox::Service const& service, Arguments const& arguments) {
    std::string const base = service.baseUrl();
    if (!arguments.json) {
        std::string const tls = arguments.options.tls ? " and " + service.tlsBaseUrl() + "/auto" : "";
        std::string const proxy = arguments.options.proxy ? ", proxy at " + service.proxyUrl() : "";
        return "The sandbox is ready: set-up at " + base + "/auto" + tls + proxy + ", dashboard at " +
               service.controlUrl() + "/";
    }
    nlohmann::json line = {{"auto", base + "/auto"},
                           {"pay", base + "/pay"},
                           {"capture", base + "/capture"},
                           {"payments", base + "/"},
                           {"dashboard", service.controlUrl() + "/"},
                           {"control", service.controlUrl() + "/control"},
                           {"port", service.plainPort()},
                           {"controlPort", service.controlPort()},
                           {"serverKeyId", service.serverKeyId()},
                           {"data", arguments.options.dataDirectory}};
    if (arguments.options.tls) {
        line["tlsAuto"] = service.tlsBaseUrl() + "/auto";
        line["tlsPort"] = service.tlsPort();
        line["ca"] = service.authorityFile();
    }
    if (arguments.options.proxy) {
        line["proxy"] = service.proxyUrl();
        line["proxyPort"] = service.proxyPort();
    }
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

/// Runs until SIGINT or SIGTERM. A second one ends the process at once, which loses nothing that was answered.
void serve(Arguments const& arguments) {
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    // Blocked before the first thread starts, so that only sigwait() takes them.
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);
    sandbox::Service service(arguments.options);
    service.start();
    std::cout << readyLine(service, arguments) << std::endl;
    int ending = 0;
    sigwait(&endings, &ending);
    pthread_sigmask(SIG_UNBLOCK, &endings, nullptr);
    service.stop();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App program("A payment service for trying merchants out, on 127.0.0.1 only.", "tallowin-sandbox");
    Arguments arguments;
    describe(program, arguments);
    try {
        program.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        constexpr int kUsage = 2;
        return program.exit(error) == 0 ? 0 : kUsage;
    }
    std::size_t const colon = arguments.account.find(':');
    arguments.options.accountUser = arguments.account.substr(0, colon);
    arguments.options.accountPassword = arguments.account.substr(colon + 1);
    try {
        std::string& directory = arguments.options.dataDirectory;
        directory = directory.empty() ? "" : std::filesystem::absolute(directory).string();
        for (std::string const& fault : arguments.faults) {
            arguments.options.faults.push_back(sandbox::parseFault(fault));
        }
        serve(arguments);
    } catch (std::exception const& failure) {
        std::cerr << "tallowin-sandbox: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
