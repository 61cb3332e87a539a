// The sandbox with many payments: what its pages and its control API cost, and how much they hold up payments.
//
//   sandbox_bench [--program FILE] [--data DIRECTORY] [--payments N] [--clients N] [--rounds N]
//
//   --program   the tallowin-sandbox to measure; else the one that was built with this program
//   --data      its data directory, kept for another run; else a new one, removed at the end
//   --payments  adds payments, each a page, a decision and a capture, until there are so many; 2000
//   --clients   that pay at the same time, each over connections of its own; 8
//   --rounds    pairs of windows of two seconds, without and with an open live page; 5, and 0 for none
//
// Times of pages are processor time of the
// service, the median of nine requests, so other load on the machine affects them little. Windows with and without the
// live page alternate. The memory is what the service has resident before and after one client has followed the cursors
// of /control/exchanges through all of them.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/require.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/text/wiretext.h"

namespace {

using kvxbench::require;
using Clock = std::chrono::steady_clock;

constexpr int kRequests = 9;
constexpr std::chrono::seconds kWindow{2};
constexpr std::chrono::seconds kRefresh{2};
constexpr double kGoalWithPage = 0.95;
constexpr char kKeyId[] = "0-1001-bench";

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// What stands between `before` and `after` in `text`; empty when it is not there.
std::string between(std::string const& text, std::string const& before, char after) {
    std::size_t const at = text.find(before);
    if (at == std::string::npos) {
        return "";
    }
    std::size_t const from = at + before.size();
    return text.substr(from, text.find(after, from) - from);
}

/// A connection to the port of this machine, owned by the caller.
int connected(std::uint16_t port) {
    int const socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int const yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        throw std::runtime_error("no connection");
    }
    return socket;
}

/// The response to one request, read to the end of the connection. The body is dropped unless it is wanted.
std::string request(std::uint16_t port, std::string const& text, bool wanted = true) {
    int const socket = connected(port);
    ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
    std::string response;
    char piece[65536];
    for (ssize_t count = 0; (count = ::recv(socket, piece, sizeof piece, 0)) > 0;) {
        if (wanted || response.empty()) {
            response.append(piece, static_cast<std::size_t>(count));
        }
    }
    ::close(socket);
    require(!response.empty(), "no response");
    return response;
}

std::string get(std::uint16_t port, std::string const& target, bool wanted = true) {
    std::string response = request(port, "GET " + target + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n", wanted);
    if (response.compare(9, 1, "2") != 0 && response.compare(9, 1, "3") != 0) {
        throw std::runtime_error(target.substr(0, 40) + ": " + response.substr(0, 300));
    }
    return response;
}

/// A service in a process of its own.
class Sandbox {
public:
    Sandbox(std::string const& program, std::string const& data) {
        int out[2];
        require(::pipe2(out, O_CLOEXEC) == 0, "no pipe");
        std::vector<std::string> words = {program, "--data", data, "--json"};
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        Clock::time_point const begin = Clock::now();
        int const status = ::posix_spawn(&m_Process, program.c_str(), &actions, nullptr, pointers.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        require(status == 0, "the sandbox does not start");
        std::string line;
        for (char byte = 0; ::read(out[0], &byte, 1) == 1 && byte != '\n';) {
            line += byte;
        }
        m_SecondsToStart = secondsSince(begin);
        ::close(out[0]);
        m_Port = portOf(line, "\"port\":");
        m_ControlPort = portOf(line, "\"controlPort\":");
        require(::clock_getcpuclockid(m_Process, &m_Processor) == 0, "no processor clock");
    }
    ~Sandbox() {
        ::kill(m_Process, SIGTERM);
        int status = 0;
        ::waitpid(m_Process, &status, 0);
    }
    Sandbox(Sandbox const&) = delete;
    Sandbox& operator=(Sandbox const&) = delete;

    [[nodiscard]] std::uint16_t port() const { return m_Port; }
    [[nodiscard]] std::uint16_t controlPort() const { return m_ControlPort; }
    [[nodiscard]] double secondsToStart() const { return m_SecondsToStart; }

    [[nodiscard]] double processorSeconds() const {
        timespec time{};
        ::clock_gettime(m_Processor, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    /// "VmRSS" or "VmHWM" in megabytes.
    [[nodiscard]] double megabytes(std::string const& name) const {
        std::ifstream status("/proc/" + std::to_string(m_Process) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, name.size() + 1, name + ":") == 0) {
                return std::stod(line.substr(name.size() + 1)) / 1024;
            }
        }
        throw std::runtime_error("no memory size");
    }

    [[nodiscard]] std::int64_t count(std::string const& name) const {
        return std::stoll(between(get(m_ControlPort, "/control"), "\"" + name + "\": ", ','));
    }

private:
    static std::uint16_t portOf(std::string const& line, std::string const& name) {
        std::size_t const at = line.find(name);
        require(at != std::string::npos, "the sandbox is not ready");
        return static_cast<std::uint16_t>(std::stoi(line.substr(at + name.size())));
    }

    pid_t m_Process = -1;
    clockid_t m_Processor = 0;
    double m_SecondsToStart = 0;
    std::uint16_t m_Port = 0;
    std::uint16_t m_ControlPort = 0;
};

/// A merchant and its shoppers. Its key is made once and kept beside the data.
class Merchant {
public:
    explicit Merchant(std::string const& file) : m_Key(keyFrom(file)) {}

    void publish(Sandbox const& sandbox) const {
        std::string const text = std::string("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"") + kKeyId + "\" KEYBLOB=\"" +
                                 sandbox::publicKeyBlob(m_Key.get()) + "\"/>";
        // demo:demo
        std::string const response =
            request(sandbox.port(), "GET /auto?DATA=" + sandbox::percentEncode(text) +
                                        " HTTP/1.0\r\nAuthorization: Basic ZGVtbzpkZW1v\r\n\r\n");
        require(response.find("KeyExportResponse") != std::string::npos, "the key is not taken");
    }

    /// Opens the page, pays and captures.
    void pay(Sandbox const& sandbox, std::string const& token) const {
        std::string const page =
            get(sandbox.port(), signedTarget("/pay", "<KVX MSGTYPE=\"PayInit\" KEYID=\"" + std::string(kKeyId) +
                                                         "\" TOKEN=\"" + token + "\" ORDERID=\"order-" + token +
                                                         "\" AMOUNT=\"12.50\" CURRENCY=\"EUR\" LANGID=\"en\""
                                                         " SUCCESSLINK=\"http://shop.example/ok\""
                                                         " FAILLINK=\"http://shop.example/failed\""
                                                         " BACKLINK=\"http://shop.example/back\""
                                                         " DESCRIPTION=\"Two pairs of socks, one of them blue\""
                                                         " EXPIRATION=\"20991231 23:59:59\"/>"));
        std::string const form =
            "payment=" + fieldOf(page, "payment") + "&key=" + fieldOf(page, "key") + "&decision=pay";
        std::string const back =
            request(sandbox.port(),
                    "POST /pay/decision HTTP/1.0\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                    "Content-Length: " +
                        std::to_string(form.size()) + "\r\n\r\n" + form);
        std::string confirm = sandbox::percentDecode(between(back, "DATA=", '&')).value_or("");
        std::string const serverKey = "KEYID=\"" + between(confirm, "KEYID=\"", '"') + "\"";
        std::size_t const at = confirm.find(serverKey);
        require(at != std::string::npos && at > 0, "no confirmation");
        confirm.replace(at, serverKey.size(), std::string("KEYID=\"") + kKeyId + "\"");
        std::string const captured = get(sandbox.port(), signedTarget("/capture", confirm));
        require(captured.find("RESULT=\"captured\"") != std::string::npos, "not captured");
    }

private:
    static sandbox::KeyHolder keyFrom(std::string const& file) {
        std::ifstream in(file);
        std::string text;
        if (std::getline(in, text)) {
            return sandbox::readPrivateKeyDer(sandbox::fromHex(text).value());
        }
        sandbox::KeyHolder key = sandbox::makeSigningKey(512);
        std::ofstream(file) << sandbox::toHex(sandbox::privateKeyDer(key.get())) << '\n';
        return key;
    }

    [[nodiscard]] std::string signedTarget(std::string const& path, std::string const& text) const {
        return path + "?DATA=" + sandbox::percentEncode(text) +
               "&SIGNATURE=" + sandbox::signText(m_Key.get(), text, sandbox::Widening::kZero);
    }

    static std::string fieldOf(std::string const& page, std::string const& name) {
        return between(page, "name=\"" + name + "\" value=\"", '"');
    }

    sandbox::KeyHolder m_Key;
};

/// What the clients got done.
struct Done {
    std::vector<double> m_Seconds;  ///< Of each payment, sorted.
    double m_PerSecond = 0;
    double m_Processor = 0;  ///< Milliseconds that the service spent for each payment, all else that it did included.

    [[nodiscard]] double quantile(double part) const {
        return m_Seconds[static_cast<std::size_t>(part * static_cast<double>(m_Seconds.size() - 1))];
    }
};

/// So many clients pay until `enough` says so, asked before each payment.
Done payAll(Sandbox const& sandbox, Merchant const& merchant, int count, std::function<bool()> const& enough) {
    static std::atomic<std::int64_t> s_Serial{0};
    std::string const run = sandbox::randomHex(6);
    Done done;
    std::mutex mutex;
    std::string failure;
    std::vector<std::thread> clients;
    double const processor = sandbox.processorSeconds();
    Clock::time_point const begin = Clock::now();
    for (int i = 0; i < count; ++i) {
        clients.emplace_back([&] {
            std::vector<double> seconds;
            try {
                while (!enough()) {
                    Clock::time_point const start = Clock::now();
                    merchant.pay(sandbox, run + "-" + std::to_string(++s_Serial));
                    seconds.push_back(secondsSince(start));
                }
            } catch (std::exception const& error) {
                std::lock_guard<std::mutex> const lock(mutex);
                failure = error.what();
            }
            std::lock_guard<std::mutex> const lock(mutex);
            done.m_Seconds.insert(done.m_Seconds.end(), seconds.begin(), seconds.end());
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    auto const payments = static_cast<double>(done.m_Seconds.size());
    done.m_PerSecond = payments / secondsSince(begin);
    done.m_Processor = (sandbox.processorSeconds() - processor) / payments * 1000;
    std::sort(done.m_Seconds.begin(), done.m_Seconds.end());
    return done;
}

void fill(Sandbox const& sandbox, Merchant const& merchant, int clients, std::int64_t payments) {
    std::atomic<std::int64_t> left{payments - sandbox.count("payments")};
    if (left <= 0) {
        return;
    }
    Done const done = payAll(sandbox, merchant, clients, [&left] { return left-- <= 0; });
    std::printf("filling: %zu payments, %.0f a second, %.2f ms of processor time each\n", done.m_Seconds.size(),
                done.m_PerSecond, done.m_Processor);
}

void measurePage(Sandbox const& sandbox, std::string const& name, std::string const& target) {
    std::vector<double> times;
    std::size_t bytes = 0;
    for (int i = 0; i < kRequests; ++i) {
        double const before = sandbox.processorSeconds();
        bytes = get(sandbox.controlPort(), target).size();
        times.push_back((sandbox.processorSeconds() - before) * 1000);
    }
    std::printf("processor time of %s: %.1f ms, %zu bytes\n", name.c_str(), median(times), bytes);
}

void measurePages(Sandbox const& sandbox) {
    std::string const payments = get(sandbox.controlPort(), "/");
    std::string const id = between(payments, "/payment?id=", '"');
    measurePage(sandbox, "/", "/");
    measurePage(sandbox, "/?state=captured&account=demo", "/?state=captured&account=demo");
    measurePage(sandbox, "/payment?id=", "/payment?id=" + id);
    measurePage(sandbox, "/exchange?number=", "/exchange?number=" + between(payments, "/exchange?number=", '"'));
    for (std::string const page : {"/faults", "/keys", "/calculator", "/calculator?example=amount"}) {
        measurePage(sandbox, page, page);
    }
    measurePage(sandbox, "/control", "/control");
    measurePage(sandbox, "/control/payments?id=", "/control/payments?id=" + id);
    measurePage(sandbox, "/control/payments?order=", "/control/payments?order=order-unknown");
    measurePage(sandbox, "/control/payments?state=opened", "/control/payments?state=opened");
}

/// A stream of events as a live page has it.
class Events {
public:
    explicit Events(std::uint16_t port) : m_Socket(connected(port)) {
        std::string const text = "GET /control/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        ::send(m_Socket, text.data(), text.size(), MSG_NOSIGNAL);
    }
    ~Events() { ::close(m_Socket); }
    Events(Events const&) = delete;
    Events& operator=(Events const&) = delete;

    /// Reads what has come. Whether there was an event.
    bool read() {
        bool any = false;
        char piece[65536];
        for (ssize_t count = 0; (count = ::recv(m_Socket, piece, sizeof piece, MSG_DONTWAIT)) != -1;) {
            require(count > 0, "the stream of events ended");
            any = any || std::string(piece, static_cast<std::size_t>(count)).find("event: ") != std::string::npos;
        }
        return any;
    }

private:
    int m_Socket;
};

/// Follows the events and asks for `/` as an open live page does, at most once in two seconds, until `stop`.
void keepPageOpen(Sandbox const& sandbox, std::atomic<bool> const& stop) {
    Events events(sandbox.controlPort());
    Clock::time_point next = Clock::now();
    bool stale = true;
    while (!stop) {
        stale = events.read() || stale;
        if (stale && Clock::now() >= next) {
            get(sandbox.controlPort(), "/?live=1", false);
            next = Clock::now() + kRefresh;
            stale = false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

Done payForAWindow(Sandbox const& sandbox, Merchant const& merchant, int clients, bool withPage) {
    std::atomic<bool> stop{false};
    std::thread page;
    if (withPage) {
        page = std::thread([&] { keepPageOpen(sandbox, stop); });
    }
    Clock::time_point const end = Clock::now() + kWindow;
    Done done = payAll(sandbox, merchant, clients, [end] { return Clock::now() >= end; });
    stop = true;
    if (withPage) {
        page.join();
    }
    return done;
}

void measureLivePage(Sandbox const& sandbox, Merchant const& merchant, int clients, int rounds) {
    std::vector<double> ratios;
    std::vector<double> without;
    std::vector<double> with;
    std::vector<double> slowWithout;
    std::vector<double> slowWith;
    std::vector<double> processorWithout;
    std::vector<double> processorWith;
    payForAWindow(sandbox, merchant, clients, false);
    for (int i = 0; i < rounds; ++i) {
        // Which comes first changes, so that a machine that gets busier favours neither.
        Done const first = payForAWindow(sandbox, merchant, clients, i % 2 == 0);
        Done const second = payForAWindow(sandbox, merchant, clients, i % 2 != 0);
        Done const& open = i % 2 == 0 ? first : second;
        Done const& closed = i % 2 == 0 ? second : first;
        ratios.push_back(open.m_PerSecond / closed.m_PerSecond);
        without.push_back(closed.m_PerSecond);
        with.push_back(open.m_PerSecond);
        slowWithout.push_back(closed.quantile(0.99) * 1000);
        slowWith.push_back(open.quantile(0.99) * 1000);
        processorWithout.push_back(closed.m_Processor);
        processorWith.push_back(open.m_Processor);
    }
    std::printf("payments a second: %.0f; with an open live page: %.0f\n", median(without), median(with));
    std::printf("99 of 100 payments within %.0f ms; with an open live page: %.0f ms\n", median(slowWithout),
                median(slowWith));
    std::printf("processor time of a payment: %.2f ms; with an open live page: %.2f ms\n", median(processorWithout),
                median(processorWith));
    std::sort(ratios.begin(), ratios.end());
    std::printf("\n%-44s %8s  %-14s %5s\n", "times faster", "ratio", "quartiles", "goal");
    double const ratio = median(ratios);
    std::printf("%-44s %8.2f  %.2f to %.2f   %.2f%s\n", "payments with an open live page, without", ratio,
                ratios[ratios.size() / 4], ratios[ratios.size() * 3 / 4], kGoalWithPage,
                ratio < kGoalWithPage ? "  SHORT" : "");
}

/// Reads all exchanges, page by page where the answers have pages.
void measureListing(Sandbox const& sandbox) {
    double const before = sandbox.megabytes("VmRSS");
    double const processor = sandbox.processorSeconds();
    double megabytes = 0;
    int pages = 0;
    std::string next = "0";
    while (!next.empty()) {
        std::string const response = get(sandbox.controlPort(), "/control/exchanges?after=" + next);
        megabytes += static_cast<double>(response.size()) / 1024 / 1024;
        ++pages;
        // The member comes after the list.
        std::size_t const at = response.rfind("\"next\": ");
        next = at == std::string::npos || response.size() - at > 64
                   ? ""
                   : std::to_string(std::stoll(response.substr(at + 8)));
    }
    std::printf("all of /control/exchanges: %d answers, %.0f MB, %.0f ms of processor time\n", pages, megabytes,
                (sandbox.processorSeconds() - processor) * 1000);
    std::printf("resident before that: %.0f MB; after: %.0f MB; most: %.0f MB\n", before, sandbox.megabytes("VmRSS"),
                sandbox.megabytes("VmHWM"));
}

struct Arguments {
    std::string m_Program = KVX_BENCH_SANDBOX;
    std::string m_Data;
    std::int64_t m_Payments = 2000;
    int m_Clients = 8;
    int m_Rounds = 5;
};

Arguments readArguments(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; i += 2) {
        std::string const name = argv[i];
        require(i + 1 < argc, "an option without a value");
        std::string const value = argv[i + 1];
        if (name == "--program") {
            arguments.m_Program = value;
        } else if (name == "--data") {
            arguments.m_Data = value;
        } else if (name == "--payments") {
            arguments.m_Payments = std::stoll(value);
        } else if (name == "--clients") {
            arguments.m_Clients = std::stoi(value);
        } else if (name == "--rounds") {
            arguments.m_Rounds = std::stoi(value);
        } else {
            throw std::runtime_error("unknown option " + name);
        }
    }
    return arguments;
}

void measure(Arguments const& arguments, std::string const& directory) {
    std::string const data = directory + "/data";
    Merchant const merchant(directory + "/key");
    {
        Sandbox const sandbox(arguments.m_Program, data);
        merchant.publish(sandbox);
        fill(sandbox, merchant, arguments.m_Clients, arguments.m_Payments);
    }
    Sandbox const sandbox(arguments.m_Program, data);
    std::printf("%lld payments, %lld exchanges, %.0f MB in the database; started in %.3f s\n",
                static_cast<long long>(sandbox.count("payments")), static_cast<long long>(sandbox.count("exchanges")),
                static_cast<double>(std::filesystem::file_size(data + "/sandbox.db")) / 1024 / 1024,
                sandbox.secondsToStart());
    measurePages(sandbox);
    measureListing(sandbox);
    if (arguments.m_Rounds > 0) {
        measureLivePage(sandbox, merchant, arguments.m_Clients, arguments.m_Rounds);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Arguments const arguments = readArguments(argc, argv);
        char path[] = "/tmp/sandbox_bench.XXXXXX";
        bool const temporary = arguments.m_Data.empty();
        std::string const directory = temporary ? ::mkdtemp(path) : arguments.m_Data;
        std::filesystem::create_directories(directory);
        measure(arguments, directory);
        if (temporary) {
            std::filesystem::remove_all(directory);
        }
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "sandbox_bench: %s\n", failure.what());
        return 1;
    }
    return 0;
}
