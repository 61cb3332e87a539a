// The program tallowin-sandbox as a process: its output in words and as JSON, options and wrong usage, signals, exit
// status. It is started with posix_spawn on a directory of its own and killed at the end if it still runs. Every wait
// is bounded.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/sandbox/support/descriptorlimit.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// The program around the service, run as a process.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

/// The running program; killed at the end when it still runs.
class Program {
public:
    explicit Program(std::vector<std::string> arguments) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        m_Output = ends[0];
        arguments.insert(arguments.begin(), SANDBOX_PROGRAM);
        std::vector<char*> raw;
        for (std::string& argument : arguments) {
            raw.push_back(argument.data());
        }
        raw.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        int const result = ::posix_spawn(&m_Process, SANDBOX_PROGRAM, &actions, nullptr, raw.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (result != 0) {
            ::close(m_Output);
            throw std::runtime_error("the program did not start");
        }
    }

    ~Program() {
        if (m_Process > 0) {
            ::kill(m_Process, SIGKILL);
            ::waitpid(m_Process, nullptr, 0);
        }
        ::close(m_Output);
    }
    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    /// The next line of output, or what there was at its end. Waits thirty seconds at most.
    std::string line() {
        std::string text;
        pollfd waiting{m_Output, POLLIN, 0};
        char c = 0;
        while (::poll(&waiting, 1, 30000) == 1 && ::read(m_Output, &c, 1) == 1 && c != '\n') {
            text += c;
        }
        return text;
    }

    void signal(int number) const { ::kill(m_Process, number); }

    /// The exit status; -1 when a signal ended it. The output ends with the process, within thirty seconds.
    int status() {
        pollfd waiting{m_Output, POLLIN, 0};
        char rest[256];
        while (::poll(&waiting, 1, 30000) == 1 && ::read(m_Output, rest, sizeof rest) > 0) {
        }
        int state = 0;
        ::waitpid(m_Process, &state, 0);
        m_Process = 0;
        return WIFEXITED(state) ? WEXITSTATUS(state) : -1;
    }

private:
    pid_t m_Process = 0;
    int m_Output = -1;
};

TEST(SandboxProgram, ReportsItsAddressesAsJsonAndEndsOnSignals) {
    for (int const ending : {SIGTERM, SIGINT}) {
        TemporaryDirectory const directory;
        Program program({"--data", directory.path(), "--json", "--tls", "--account", "shop:p:w"});
        nlohmann::json const line = nlohmann::json::parse(program.line());
        std::uint16_t const port = line.at("port");
        std::string const base = "http://127.0.0.1:" + std::to_string(port);
        EXPECT_EQ(line.at("auto"), base + "/auto");
        EXPECT_EQ(line.at("pay"), base + "/pay");
        EXPECT_EQ(line.at("capture"), base + "/capture");
        EXPECT_EQ(line.at("payments"), base + "/");
        EXPECT_EQ(line.at("ca"), directory.path() + "/ca.pem");
        std::string const target = "/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");
        EXPECT_THAT(exchangeRaw(port, merchantGet(target, "shop", "p:w")), HasSubstr("SetupResponse"));
        EXPECT_THAT(exchangeRaw(line.at("tlsPort"), merchantGet(target, "shop", "p:w"), line.at("ca")),
                    HasSubstr(line.at("serverKeyId").get<std::string>()));
        program.signal(ending);
        EXPECT_EQ(program.status(), 0);
    }
}

TEST(SandboxProgram, ReportsItsVersion) {
    Program program({"--version"});
    EXPECT_THAT(program.line(), StartsWith("tallowin-sandbox 1."));
    EXPECT_EQ(program.status(), 0);
}

TEST(SandboxProgram, HasRoomForMoreConnectionsThanItsFirstLimitOfDescriptors) {
    constexpr std::size_t kFirstLimit = 100;
    TemporaryDirectory const directory;
    std::unique_ptr<Program> program;
    {
        DescriptorLimit const limit;
        ASSERT_TRUE(limit.set(kFirstLimit));
        program = std::make_unique<Program>(std::vector<std::string>{"--data", directory.path(), "--json"});
    }
    std::uint16_t const port = nlohmann::json::parse(program->line()).at("port");
    std::vector<std::unique_ptr<RawConnection>> silent;
    while (silent.size() < 3 * kFirstLimit) {
        silent.push_back(std::make_unique<RawConnection>(port));
    }
    EXPECT_EQ(parseResponse(exchangeRaw(port, merchantGet("/"))).m_Status, 200);
    program->signal(SIGTERM);
    EXPECT_EQ(program->status(), 0);
}

TEST(SandboxProgram, EndsAtOnceOnASecondSignal) {
    TemporaryDirectory const directory;
    Program program({"--data", directory.path(), "--json", "--fault", "huge,exchange=setup"});
    RawConnection const stuck(nlohmann::json::parse(program.line()).at("port"));
    stuck.send(
        merchantGet("/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"), "demo", "demo"));
    // The response has begun, no client reads it, and it takes seconds to end.
    char byte = 0;
    ASSERT_EQ(::recv(stuck.get(), &byte, 1, 0), 1);
    program.signal(SIGTERM);
    program.signal(SIGINT);
    EXPECT_EQ(program.status(), -1);
}

TEST(SandboxProgram, StoresAsMuchAsItIsToldTo) {
    TemporaryDirectory const directory;
    auto const exchanges = [&directory](std::vector<std::string> more) {
        more.insert(more.begin(), {"--data", directory.path(), "--json"});
        Program program(more);
        std::uint16_t const port = nlohmann::json::parse(program.line()).at("port");
        for (int i = 0; i < 3; ++i) {
            exchangeRaw(port, merchantGet("/capture"));
        }
        std::string const body = parseResponse(exchangeRaw(port, bareRequest("GET", "/control"))).m_Body;
        program.signal(SIGTERM);
        EXPECT_EQ(program.status(), 0);
        return nlohmann::json::parse(body).at("counts").at("exchanges").get<int>();
    };
    EXPECT_EQ(exchanges({}), 3);
    EXPECT_EQ(exchanges({"--keep-for", "2d"}), 6);
    EXPECT_EQ(exchanges({"--keep", "4"}), 7) << "four are left at the start";
}

TEST(SandboxProgram, RunsAProxyWhenItIsAskedTo) {
    TemporaryDirectory const directory;
    Program program({"--data", directory.path(), "--json", "--proxy", "--proxy-port", "0"});
    nlohmann::json const line = nlohmann::json::parse(program.line());
    std::uint16_t const port = line.at("proxyPort");
    EXPECT_EQ(line.at("proxy"), "http://127.0.0.1:" + std::to_string(port));
    EXPECT_EQ(parseResponse(exchangeRaw(port, merchantGet(line.at("payments")))).m_Status, 200);
    program.signal(SIGTERM);
    EXPECT_EQ(program.status(), 0);
}

TEST(SandboxProgram, ReportsWhereItsFilesAreFromEverywhere) {
    TemporaryDirectory const directory;
    std::string const relative = std::filesystem::relative(directory.path()).string();
    Program program({"--data", relative, "--json", "--tls"});
    nlohmann::json const line = nlohmann::json::parse(program.line());
    for (char const* name : {"data", "ca"}) {
        std::filesystem::path const path = line.at(name).get<std::string>();
        EXPECT_TRUE(path.is_absolute()) << path;
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
    }
}

TEST(SandboxProgram, ReportsItsAddressesInWords) {
    TemporaryDirectory const directory;
    Program program({"--data", directory.path()});
    std::string const line = program.line();
    EXPECT_THAT(line, HasSubstr("set-up at http://127.0.0.1:"));
    EXPECT_THAT(line, Not(HasSubstr("proxy")));
    program.signal(SIGTERM);
    EXPECT_EQ(program.status(), 0);
    Program other({"--data", directory.path(), "--proxy"});
    EXPECT_THAT(other.line(), HasSubstr(", proxy at http://127.0.0.1:"));
}

TEST(SandboxProgram, PrintsATokenWhenOtherMachinesReachIt) {
    TemporaryDirectory const directory;
    Program open({"--data", directory.path(), "--json", "--listen", "0.0.0.0", "--host", "sandbox.example"});
    nlohmann::json const line = nlohmann::json::parse(open.line());
    std::string const token = line.at("token");
    EXPECT_EQ(token.size(), 32u);
    std::string const base = "http://sandbox.example:" + std::to_string(line.at("controlPort").get<int>());
    EXPECT_EQ(line.at("dashboard"), base + "/?token=" + token);
    EXPECT_EQ(line.at("control"), base + "/control");
    EXPECT_THAT(exchangeRaw(line.at("controlPort"), bareRequest("GET", "/control")), HasSubstr(" 401 "));
    open.signal(SIGTERM);
    EXPECT_EQ(open.status(), 0);
    Program closed({"--data", directory.path(), "--listen", "127.0.0.2", "--token", "T"});
    std::string const words = closed.line();
    EXPECT_THAT(words, HasSubstr("http://127.0.0.2:"));
    EXPECT_THAT(words, HasSubstr("/?token=T"));
    closed.signal(SIGTERM);
    EXPECT_EQ(closed.status(), 0);
    Program nowhere({"--data", directory.path(), "--listen", "localhost"});
    EXPECT_THAT(nowhere.line(), HasSubstr("'localhost' is no IPv4 address"));
    EXPECT_EQ(nowhere.status(), 1);
}

TEST(SandboxProgram, RefusesWrongUsage) {
    EXPECT_EQ(Program({}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--port", "70000"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--account", "nobody"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--account", ":password"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--tls-port", "0"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--proxy-port", "0"}).status(), 2);
    for (char const* value : {"0", "-1", "many"}) {
        EXPECT_EQ(Program({"--data", "/tmp", "--keep", value}).status(), 2) << value;
        EXPECT_EQ(Program({"--data", "/tmp", "--keep-for", value}).status(), 2) << value;
    }
    EXPECT_EQ(Program({"--data", "/tmp", "--keep-for", "2 weeks"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--token", "two words"}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--token", ""}).status(), 2);
    EXPECT_EQ(Program({"--data", "/tmp", "--notify-ca", "/tmp/missing.pem"}).status(), 2);
    EXPECT_EQ(Program({"--help"}).status(), 0);
}

TEST(SandboxProgram, ArmsTheFaultsThatItIsGiven) {
    TemporaryDirectory const directory;
    Program program({"--data", directory.path(), "--json", "--fault", "http-status,exchange=setup,status=404",
                     "--fault", "error,exchange=setup,text=not now"});
    std::uint16_t const port = nlohmann::json::parse(program.line()).at("port");
    std::string const target = "/auto?DATA=" + percentEncoded("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>");
    auto const ask = [&] { return parseResponse(exchangeRaw(port, merchantGet(target, "demo", "demo"))); };
    EXPECT_EQ(ask().m_Status, 404);
    EXPECT_EQ(attributeOf(ask().m_Body, "MESSAGE"), "not now");
    EXPECT_EQ(attributeOf(ask().m_Body, "MSGTYPE"), "SetupResponse");
}

TEST(SandboxProgram, RefusesAFaultThatCannotHappen) {
    TemporaryDirectory const directory;
    for (auto const& [fault, reason] : std::map<std::string, std::string>{
             {"explode", "unknown fault 'explode'"},
             {"drop,exchange=connection", "drop does not apply to the exchange 'connection'"},
             {"drop,times=never", "a fault's times must be a whole number, not 'never'"},
         }) {
        Program program({"--data", directory.path(), "--fault", "drop", "--fault", fault});
        EXPECT_THAT(program.line(), HasSubstr("tallowin-sandbox: " + reason));
        EXPECT_EQ(program.status(), 1);
    }
    EXPECT_EQ(Program({"--data", directory.path(), "--fault"}).status(), 2);
}

TEST(SandboxProgram, ReportsWhyItCannotStart) {
    TemporaryDirectory const directory;
    Program program({"--data", directory.path() + "/missing/data"});
    EXPECT_THAT(program.line(), HasSubstr("cannot create the data directory"));
    EXPECT_EQ(program.status(), 1);
}

}  // namespace
