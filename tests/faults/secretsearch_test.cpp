// Secrets stay where they belong: nowhere in what is printed, traced, thrown or written, and nowhere in memory at the
// end.
//
// A process runs the whole component with unique texts as user name, password, server password and token: set-up,
// payment URL, confirmation, capture, completion, and failing ones. Its output, trace records, exception texts and
// files are searched, and when all objects are destroyed all its writable memory: for the passwords, for their Base64
// text, for the private key as text, as numbers in both byte orders. The servers are processes of their own. Known:
// with TRACEOPT="rawhttp" the whole request is printed, and the configuration on disk holds the credentials that the
// server put into it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "api/cConfigurationSetup.h"
#include "api/kvxboundary.h"
#include "core/kvxbase.h"
#include "tallowin/tallowin.h"
#include "tests/faults/failingheap.h"
#include "tests/faults/isolation.h"
#include "tests/faults/memoryscan.h"
#include "tests/faults/stage.h"
#include "tests/support/directories.h"
#include "tests/support/rawserver.h"
#include "tests/support/testdata.h"
#include "tests/support/tlsserver.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

constexpr Canary kUser(1);
constexpr Canary kPassword(2);
constexpr Canary kServerUser(3);
constexpr Canary kServerPassword(4);
constexpr Canary kToken(5);

struct NamedCanary {
    char const* m_Name;
    Canary m_Canary;
    bool m_IsSent;  ///< Stands in requests or responses as it is.
};
constexpr NamedCanary kCanaries[] = {
    {"the user name", kUser, false},
    {"the password", kPassword, false},
    {"the server's password", kServerPassword, true},
    {"the token", kToken, true},
};

constexpr std::size_t kMaxPlaces = 12;

std::string credentialsOfServer() {
    return kServerUser.text() + ":" + kServerPassword.text() + "@";
}

/// What the server answers. `base` is its own address, with credentials.
std::string responseTo(std::string const& request, std::string const& base) {
    auto const has = [&](char const* part) { return request.find(part) != std::string::npos; };
    if (has("/unauthorised?")) {
        return "HTTP/1.0 401 Unauthorized\r\n\r\n";
    }
    if (has("/refused?")) {
        return httpResponse(R"(<KVX MSGTYPE="Error" MESSAGE="refused"/>)");
    }
    if (has("SetupRequest")) {
        return httpResponse(R"(<KVX MSGTYPE="SetupResponse" VTKEYID="server" CUSTOMERID="c2" VERSION="2" VTURL=")" +
                            base + R"(/pay" CAPTUREURL=")" + base + R"(/capture"/>)");
    }
    if (has("PayCompleteRequest")) {
        return httpResponse(R"(<KVX MSGTYPE="PayCompleteResponse"/>)");
    }
    return httpResponse(bodyFor(request));
}

enum class Way { kPlain, kProxy, kTls, kTlsProxy };

/// The server or proxy of a way, in a process of its own.
SideProcess::Serve serverFor(Way way) {
    return [way](auto const& isReady) {
        std::string base;
        auto const answer = [&](Peer& peer) { peer.send(responseTo(peer.receiveRequest(), base)); };
        auto const answerBehindTunnel = [&](Peer& peer) {
            std::string const request = peer.receiveRequest();
            if (request.rfind("CONNECT ", 0) != 0) {
                peer.send(responseTo(request, base));
                return;
            }
            peer.send("HTTP/1.0 200 Connection established\r\n\r\n");
            TlsPeer inner(peer);
            if (inner.isReady()) {
                answer(inner);
            }
        };
        std::unique_ptr<RawServer> server;
        if (way == Way::kTls) {
            server = std::make_unique<TlsServer>(RawServer::Script(answer));
        } else if (way == Way::kTlsProxy) {
            TlsIdentity::shared();
            server = std::make_unique<RawServer>(RawServer::Script(answerBehindTunnel));
        } else {
            server = std::make_unique<RawServer>(RawServer::Script(answer));
        }
        bool const isSecure = way == Way::kTls || way == Way::kTlsProxy;
        base = (isSecure ? "https://" : "http://") + credentialsOfServer() + "127.0.0.1:" + server->portText();
        isReady(server->port());
        for (;;) {
            ::pause();
        }
    };
}

void complainUnless(Report& report, char const* what, std::int32_t code, std::int32_t wanted) {
    if (code != wanted) {
        char text[160];
        std::snprintf(text, sizeof text, "%s returns %08x", what, static_cast<unsigned>(code));
        report.add(text);
    }
}

/// Complains about canaries in `text`, which comes from `where`.
void lookInto(Report& report, std::string const& where, char const* text) {
    for (NamedCanary const& canary : kCanaries) {
        Revealed plain;
        plain.add(canary.m_Canary);
        if (std::strstr(text, plain.c_str()) != nullptr) {
            report.add(std::string(canary.m_Name) + " in " + where);
        }
    }
}

/// Runs what is to fail and looks into the exception's text.
void lookIntoException(Report& report, std::function<void()> const& call) {
    try {
        call();
        report.add("no exception");
    } catch (KVX_Exception const& failure) {
        lookInto(report, "an exception's text", failure.text().c_str());
    }
}

/// "http://127.0.0.1:PORT" + `path`, without credentials.
struct Address {
    char const* m_Scheme;
    std::uint16_t m_Port;

    [[nodiscard]] std::string at(char const* path) const {
        return std::string(m_Scheme) + "://127.0.0.1:" + std::to_string(m_Port) + path;
    }
};

/// Adds the credentials of the server behind the scheme.
void revealServerAddress(Revealed& text, Address const& address, char const* path) {
    text.add(address.m_Scheme).add("://").add(kServerUser).add(":").add(kServerPassword).add("@127.0.0.1:");
    text.add(std::to_string(address.m_Port).c_str()).add(path);
}

void setUp(Report& report, Stage const& stage, Address const& address) {
    KVX_HANDLE const setup = CreateConfigurationSetup();
    Revealed user;
    Revealed password;
    user.add(kUser);
    password.add(kPassword);
    complainUnless(report, "SetConfiguration", ConfigurationSetup_SetConfiguration(setup, stage.path().c_str()),
                   KVX_OK);
    auto const reconfigure = [&](char const* path) {
        return ConfigurationSetup_Reconfigure(setup, address.at(path).c_str(), user.c_str(), password.c_str());
    };
    complainUnless(report, "Reconfigure", reconfigure("/auto"), KVX_OK);
    complainUnless(report, "Reconfigure, refused", reconfigure("/refused"), KVX_E_SERVER_ERROR);
    complainUnless(report, "Reconfigure, unauthorised", reconfigure("/unauthorised"), KVX_E_HTTP_UNAUTHORIZED);
    complainUnless(report, "SetOption", ConfigurationSetup_SetOption(setup, "UserName", user.c_str()), KVX_OK);
    complainUnless(report, "SetOption", ConfigurationSetup_SetOption(setup, "Password", password.c_str()), KVX_OK);
    Revealed url;
    revealServerAddress(url, address, "/auto");
    complainUnless(report, "Reconfigure, credentials in the address",
                   ConfigurationSetup_Reconfigure(setup, url.c_str(), "", ""), KVX_OK);
    char value[64];
    std::int32_t size = sizeof value;
    complainUnless(report, "GetAttribute",
                   ConfigurationSetup_GetAttribute(setup, "config.xml", "VTKEYID", &size, value), KVX_OK);
    complainUnless(report, "SetAttribute", ConfigurationSetup_SetAttribute(setup, "config.xml", "NEW", "1"), KVX_OK);
    DestroyConfigurationSetup(setup);
}

void failThroughClasses(Report& report, Stage const& stage, Address const& address, bool isProxied) {
    KVXCIMPL_ConfigurationSetup setup;
    setup.SetConfiguration(stage.path().c_str());
    ClosedPort const nobody;
    std::string const urls[] = {
        address.at("/refused"), address.at("/unauthorised"), "ht!p://x/y", "http://", "nonsense",
        // A proxy answers for every host.
        isProxied ? "" : std::string(address.m_Scheme) + "://127.0.0.1:" + nobody.text() + "/auto"};
    for (std::string const& url : urls) {
        lookIntoException(report, [&] {
            Revealed user;
            Revealed password;
            user.add(kUser);
            password.add(kPassword);
            setup.Reconfigure(url.c_str(), kvxSecretText(user.c_str()), kvxSecretText(password.c_str()));
        });
    }
    lookIntoException(report, [&] {
        Revealed url;
        revealServerAddress(url, address, "/refused");
        setup.Reconfigure(kvxSecretText(url.c_str()), "", "");
    });
}

/// Sends a new message with `send`.
void exchange(Report& report, char const* what, KVX_HANDLE message, std::int32_t wanted,
              std::int32_t (*send)(KVX_HANDLE message)) {
    complainUnless(report, what, send(message), wanted);
    DestroyMessageObject(message);
}

std::int32_t executeAndDestroy(KVX_HANDLE message) {
    KVX_HANDLE response = nullptr;
    std::int32_t const code = MessageObject_Execute(message, &response);
    DestroyMessageObject(response);
    return code;
}

KVX_HANDLE newCompletion(KVX_HANDLE factory) {
    Revealed token;
    token.add(kToken);
    KVX_HANDLE message = nullptr;
    MessageFactory_CreatePayComplete(factory, "id1", token.c_str(), &message);
    return message;
}

void pay(Report& report, Stage const& stage) {
    KVX_HANDLE const factory = CreateMessageFactory();
    MessageFactory_Open(factory, stage.path().c_str());
    KVX_HANDLE message = nullptr;
    complainUnless(report, "CreatePayInit", MessageFactory_CreatePayInit(factory, &message), KVX_OK);
    char url[4096];
    std::int32_t size = sizeof url;
    complainUnless(report, "GetURL", MessageObject_GetURL(message, &size, url), KVX_OK);
    OPENSSL_cleanse(url, sizeof url);
    exchange(report, "Capture", message, KVX_OK, &MessageObject_Capture);
    exchange(report, "Execute", newCompletion(factory), KVX_OK, &executeAndDestroy);

    KVX_HANDLE confirmation = nullptr;
    complainUnless(report, "VerifyPayConfirm",
                   MessageFactory_VerifyPayConfirm(factory, dataText("signing/confirm.txt").c_str(),
                                                   dataHex("signing/confirm.signature.hex").c_str(), &confirmation),
                   KVX_OK);
    DestroyMessageObject(confirmation);
    complainUnless(report, "VerifyPayConfirm, forged",
                   MessageFactory_VerifyPayConfirm(factory, R"(<KVX MSGTYPE="PayConfirm" KEYID="server"/>)",
                                                   dataHex("signing/confirm.signature.hex").c_str(), &confirmation),
                   KVX_E_INVALID_SIGNATURE);
    DestroyMessageFactory(factory);
}

/// Points the capture address to `path`, with the server's credentials, and captures in vain.
void payInVain(Report& report, Stage const& stage, Address const& address) {
    KVX_HANDLE const setup = CreateConfigurationSetup();
    ConfigurationSetup_SetConfiguration(setup, stage.path().c_str());
    {
        Revealed url;
        revealServerAddress(url, address, "/refused");
        ConfigurationSetup_SetAttribute(setup, "config.xml", "CAPTUREURL", url.c_str());
    }
    DestroyConfigurationSetup(setup);
    KVX_HANDLE const factory = CreateMessageFactory();
    MessageFactory_Open(factory, stage.path().c_str());
    exchange(report, "Capture, refused", newCompletion(factory), KVX_E_SERVER_ERROR, &MessageObject_Capture);
    exchange(report, "Execute, refused", newCompletion(factory), KVX_E_SERVER_ERROR, &executeAndDestroy);
    DestroyMessageFactory(factory);
}

// ---- The search in memory

/// Hexadecimal digits that never agree by chance.
constexpr std::size_t kHexPiece = 16;

/// Room for secrets while a search is prepared. Wiped after each use.
unsigned char g_Secret[4096];

std::size_t readSecretFile(std::string const& path) {
    int const file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t const count = ::read(file, g_Secret, sizeof g_Secret);
    ::close(file);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void lookForBothOrders(MemoryScan& scan, char const* name, unsigned char* bytes, std::size_t length) {
    scan.lookFor(name, bytes, length);
    std::reverse(bytes, bytes + length);
    scan.lookFor(name, bytes, length);
    std::reverse(bytes, bytes + length);
}

unsigned char valueOf(unsigned char digit) {
    return static_cast<unsigned char>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

/// The secret numbers of a key on disk, all after modulus and public exponent: as text, and as numbers.
void lookForKey(MemoryScan& scan, std::string const& path) {
    std::size_t const digits = readSecretFile(path);
    std::size_t const length = digits / 2;
    static unsigned char s_Key[sizeof g_Secret / 2];
    for (std::size_t i = 0; i < length; ++i) {
        s_Key[i] = static_cast<unsigned char>(valueOf(g_Secret[2 * i]) << 4 | valueOf(g_Secret[2 * i + 1]));
    }
    auto const lengthAt = [](std::size_t& at) {
        std::size_t size = s_Key[at++];
        if (size >= 0x80) {
            std::size_t bytes = size & 0x7F;
            for (size = 0; bytes > 0; --bytes) {
                size = size << 8 | s_Key[at++];
            }
        }
        return size;
    };
    constexpr char const* kNumbers[] = {"version", "modulus",   "exponent",  "d",  "p",
                                        "q",       "d mod p-1", "d mod q-1", "1/q"};
    constexpr std::size_t kPublicNumbers = 3;
    std::size_t at = 1;
    lengthAt(at);
    for (std::size_t number = 0; number < std::size(kNumbers) && at < length; ++number) {
        ++at;
        std::size_t const size = lengthAt(at);
        if (number >= kPublicNumbers) {
            std::size_t const sign = s_Key[at] == 0 ? 1 : 0;
            scan.lookFor("the private key's text", g_Secret + 2 * (at + sign), 2 * (size - sign), kHexPiece);
            lookForBothOrders(scan, kNumbers[number], s_Key + at + sign, size - sign);
        }
        at += size;
    }
    OPENSSL_cleanse(g_Secret, sizeof g_Secret);
    OPENSSL_cleanse(s_Key, sizeof s_Key);
}

/// The Base64 text of "USER:PASSWORD", from the password on.
void lookForBase64(MemoryScan& scan, char const* name, Canary const& user, Canary const& password) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    static_assert((Canary::kLength + 1) % 3 == 0, "the password begins at a group");
    static_cast<void>(user);
    std::size_t used = 0;
    for (std::size_t i = 0; i + 2 < Canary::kLength; i += 3) {
        auto const byte = [&](std::size_t j) {
            return static_cast<unsigned>(static_cast<unsigned char>(password.at(i + j)));
        };
        unsigned const bits = byte(0) << 16 | byte(1) << 8 | byte(2);
        for (unsigned const shift : {18U, 12U, 6U, 0U}) {
            g_Secret[used++] = static_cast<unsigned char>(kDigits[bits >> shift & 63]);
        }
    }
    scan.lookFor(name, g_Secret, used);
    OPENSSL_cleanse(g_Secret, sizeof g_Secret);
}

void lookForCanary(MemoryScan& scan, char const* name, Canary const& canary) {
    Revealed text;
    text.add(canary);
    scan.lookFor(name, text.c_str(), text.length());
}

MemoryScan scanForPasswords() {
    MemoryScan scan;
    lookForCanary(scan, "the password", kPassword);
    lookForCanary(scan, "the server's password", kServerPassword);
    lookForBase64(scan, "the password in Base64", kUser, kPassword);
    lookForBase64(scan, "the server's password in Base64", kServerUser, kServerPassword);
    return scan;
}

/// Complains about blocks released with a password in them. The search at the end would miss those that were handed
/// out and written again.
class PasswordsInReleasedBlocks {
public:
    explicit PasswordsInReleasedBlocks(Report& report) : m_Report(report) {}
    PasswordsInReleasedBlocks(PasswordsInReleasedBlocks const&) = delete;
    PasswordsInReleasedBlocks& operator=(PasswordsInReleasedBlocks const&) = delete;
    ~PasswordsInReleasedBlocks() {
        std::string const found = ReleaseWatch::report();
        if (!found.empty()) {
            m_Report.add("released with a password in it: " + found);
        }
    }

private:
    Report& m_Report;
    MemoryScan m_Scan = scanForPasswords();
    ReleaseWatch m_Watch{[](void const* scan, void const* memory, std::size_t bytes) {
                             return static_cast<MemoryScan const*>(scan)->isIn(memory, bytes);
                         },
                         &m_Scan};
};

void searchMemory(Report& report, Stage const& stage) {
    MemoryScan scan = scanForPasswords();
    for (auto const& entry : std::filesystem::directory_iterator(stage.path() + "/keys/private")) {
        // The test itself has read the account's first key; the set-up has made others and used them.
        if (entry.path().filename() != "own") {
            lookForKey(scan, entry.path());
        }
    }
    std::string const found = scan.find(kMaxPlaces);
    if (!found.empty()) {
        report.add("in memory:\n" + found);
    }
}

// ---- What the process leaves

/// Files outside keys/private: names and contents. The configuration holds what the server put into it.
void searchFiles(Report& report, Stage const& stage) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(stage.path())) {
        std::string const name = entry.path().lexically_relative(stage.path());
        std::string const content = entry.is_regular_file() ? stage.read(name) : "";
        for (NamedCanary const& canary : kCanaries) {
            bool const isKnown = name == "config.xml" && canary.m_IsSent;
            if (name.find(canary.m_Canary.text()) != std::string::npos ||
                (!isKnown && content.find(canary.m_Canary.text()) != std::string::npos)) {
                report.add(std::string(canary.m_Name) + " in the file " + name);
            }
        }
        bool const isPublic = name.rfind("keys/public/", 0) == 0;
        if (isPublic &&
            content.size() > stage.read("keys/private/" + name.substr(std::strlen("keys/public/"))).size() &&
            name != "keys/public/server") {
            report.add("a private key in " + name);
        }
    }
}

/// What was printed. Tracing prints requests and responses as they are, and that alone.
void searchOutput(Report& report, std::string const& printed, bool isTraced) {
    for (NamedCanary const& canary : kCanaries) {
        bool const isPrinted = printed.find(canary.m_Canary.text()) != std::string::npos;
        if (isPrinted != (isTraced && canary.m_IsSent)) {
            report.add(std::string(canary.m_Name) + (isPrinted ? " is printed" : " is not traced"));
        }
    }
    if ((printed.find("Authorization: Basic ") != std::string::npos) != isTraced) {
        report.add("the Base64 text of the credentials is printed, or is not traced");
    }
}

struct Scene {
    char const* m_Name;
    Way m_Way;
    bool m_IsTraced;    ///< TRACEOPT="rawhttp".
    bool m_IsDebugged;  ///< KVXDEBUG is set.
};

/// Names of tests would hold its bytes, addresses among them.
void PrintTo(Scene const& scene, std::ostream* out) {
    *out << scene.m_Name;
}

constexpr Scene kRuns[] = {
    {"plain", Way::kPlain, false, false},
    {"debugged", Way::kPlain, false, true},
    {"through a proxy", Way::kProxy, false, false},
    {"over TLS", Way::kTls, false, false},
    {"over TLS through a proxy", Way::kTlsProxy, false, true},
    {"traced", Way::kPlain, true, false},
};

std::string settingsFor(Scene const& run, std::uint16_t port) {
    std::string settings = "<KVX";
    if (run.m_Way == Way::kProxy || run.m_Way == Way::kTlsProxy) {
        settings += R"( USEPROXY="1" PROXYHOST="127.0.0.1" PROXYPORT=")" + std::to_string(port) + "\"";
    }
    return settings + (run.m_IsTraced ? R"( TRACEOPT="rawhttp"/>)" : "/>");
}

/// The part of the test that runs in its own process.
void runComponent(Report& report, Scene const& run, Stage const& stage, Address const& address) {
    if (run.m_IsDebugged) {
        ::setenv("KVXDEBUG", "1", 1);
    }
    std::optional<HeapWatch> watch;
    if (std::getenv("KVX_FAULTS_STACKS") != nullptr) {
        watch.emplace();
    }
    {
        std::optional<PasswordsInReleasedBlocks> released;
        if (!run.m_IsTraced) {
            released.emplace(report);
        }
        TraceRecorder const trace;
        setUp(report, stage, address);
        pay(report, stage);
        failThroughClasses(report, stage, address, run.m_Way == Way::kProxy || run.m_Way == Way::kTlsProxy);
        payInVain(report, stage, address);
        for (TraceRecorder::Record const& record : trace.records()) {
            lookInto(report, "trace record " + record.m_Event, record.m_Detail.c_str());
        }
    }
    if (!run.m_IsTraced) {
        searchMemory(report, stage);
    }
}

}  // namespace

class Secrets : public testing::TestWithParam<Scene> {};

TEST_P(Secrets, StayWhereTheyBelong) {
    Scene const& run = GetParam();
    TemporaryDirectory const root;
    SideProcess const server(serverFor(run.m_Way));
    bool const isSecure = run.m_Way == Way::kTls || run.m_Way == Way::kTlsProxy;
    Address const address = {isSecure ? "https" : "http", server.port()};
    Stage const stage(root.file("account"));
    stage.write("settings.xml", settingsFor(run, server.port()));
    std::string const output = root.file("output");
    Report const report = inIsolation([&](Report& fresh) {
        int const file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        ::dup2(file, STDOUT_FILENO);
        ::dup2(file, STDERR_FILENO);
        runComponent(fresh, run, stage, address);
    });
    EXPECT_TRUE(report.m_Finished);
    EXPECT_TRUE(report.m_Text[0] == '\0') << report.m_Text;
    // In a process of its own too: the next test must not find what this search compares with.
    Report const left = inIsolation([&](Report& fresh) {
        searchFiles(fresh, stage);
        searchOutput(fresh, contentOf(output), run.m_IsTraced);
    });
    EXPECT_TRUE(left.m_Finished);
    EXPECT_TRUE(left.m_Text[0] == '\0') << left.m_Text;
}

INSTANTIATE_TEST_SUITE_P(AllWays, Secrets, testing::ValuesIn(kRuns), [](auto const& row) {
    std::string name = row.param.m_Name;
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    return name;
});

/// A parsed key lives on between calls; with the last object it is gone, and not earlier.
TEST(KeptKeys, LeaveMemoryWithTheLastObject) {
    TemporaryDirectory const root;
    Stage const stage(root.file("account"));
    // By another process: this one must have no copy of the new key.
    Report const made = inIsolation([&](Report&) {
        KVX_Context account;
        account.Open(stage.path().c_str());
        TbString keyId("fresh");
        account.GenKey(keyId);
        account.UpdateFile("keys/current", keyId);
    });
    ASSERT_TRUE(made.m_Finished);
    Report const report = inIsolation([&](Report& fresh) {
        MemoryScan scan;
        lookForKey(scan, stage.path() + "/keys/private/fresh");
        auto const isThere = [&] { return !scan.find(kMaxPlaces).empty(); };
        KVX_HANDLE const factory = CreateMessageFactory();
        MessageFactory_Open(factory, stage.path().c_str());
        {
            KVXCIMPL_ConfigurationSetup const outsideTheSlots;
            for (int i = 0; i < 2; ++i) {
                KVX_HANDLE message = nullptr;
                MessageFactory_CreatePayInit(factory, &message);
                char url[4096];
                std::int32_t size = sizeof url;
                complainUnless(fresh, "GetURL", MessageObject_GetURL(message, &size, url), KVX_OK);
                DestroyMessageObject(message);
            }
            DestroyMessageFactory(factory);
            if (!isThere()) {
                fresh.add("not kept, or not seen");
            }
        }
        if (isThere()) {
            fresh.add("in memory:\n" + scan.find(kMaxPlaces));
        }
    });
    EXPECT_TRUE(report.m_Finished);
    EXPECT_TRUE(report.m_Text[0] == '\0') << report.m_Text;
}

TEST(MemoryScan, FindsAReleasedSecret) {
    Report const report = inIsolation([](Report& fresh) {
        MemoryScan scan;
        lookForCanary(scan, "a secret", kPassword);
        std::string const before = scan.find(4);
        if (!before.empty()) {
            fresh.add("found too early: " + before);
        }
        // Far inside a large block, and not the last one: the search itself allocates.
        auto* const block = static_cast<char*>(std::malloc(100000));
        void* const behind = std::malloc(100);
        {
            Revealed text;
            text.add(kPassword);
            std::memcpy(block + 90000, text.c_str(), text.length());
            asm volatile("" : : "r"(block) : "memory");  // the copy counts, though nothing reads it
        }
        std::free(block);
        fresh.add(scan.find(4));
        std::free(behind);
    });
    EXPECT_TRUE(report.m_Finished);
    EXPECT_EQ(std::string(report.m_Text).find("a secret (4 pieces) in [heap]"), 0U) << report.m_Text;
}

TEST(ReleaseWatch, FindsASecretInABlockThatIsWrittenAgain) {
    Report const report = inIsolation([](Report& fresh) {
        PasswordsInReleasedBlocks const released(fresh);
        for (int i = 0; i < 2; ++i) {
            auto* const block = static_cast<char*>(std::malloc(1000));
            std::memset(block, i, 1000);
            if (i == 0) {
                Revealed text;
                text.add(kPassword);
                std::memcpy(block + 500, text.c_str(), text.length());
            }
            asm volatile("" : : "r"(block) : "memory");  // what was written counts, though nothing reads it
            std::free(block);
        }
    });
    EXPECT_TRUE(report.m_Finished);
    EXPECT_EQ(std::string(report.m_Text).find("released with a password in it: 1 blocks"), 0U) << report.m_Text;
}
