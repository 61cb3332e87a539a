/// Accounts in directories of their own, signatures made by other code, scripted payment servers.
#ifndef TALLOWIN_TESTS_CORE_CORESUPPORT_H
#define TALLOWIN_TESTS_CORE_CORESUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "core/kvxctx.h"
#include "tests/support/directories.h"
#include "tests/support/rawserver.h"

namespace kvxtest {

/// A configuration directory with a context opened on it.
class Account {
public:
    Account() { m_Context.Open(path()); }

    [[nodiscard]] char const* path() const { return m_Dir.path().c_str(); }
    void write(std::string const& name, std::string const& content) const { m_Dir.write(name, content); }
    [[nodiscard]] std::string read(std::string const& name) const { return m_Dir.read(name); }
    [[nodiscard]] bool exists(std::string const& name) const { return m_Dir.exists(name); }

    /// Stores the test key of 512 bits under `keyId`: its public half, and the private one too for an own key.
    void writeServerKey(std::string const& keyId) const;
    void writeOwnKey(std::string const& keyId) const;

    /// Names of the files in `folder`, sorted.
    [[nodiscard]] std::vector<std::string> filesIn(std::string const& folder) const { return m_Dir.namesIn(folder); }

    /// Whether writing has left a file of its own behind in `folder`.
    [[nodiscard]] bool hasTemporaryFile(std::string const& folder = "") const;

    TemporaryDirectory m_Dir;
    KVX_Context m_Context;
};

/// An account with a current key "own" and the server's key "server", both the test key of 512 bits.
class Merchant : public Account {
public:
    /// `config` is the content of config.xml.
    explicit Merchant(std::string const& config =
                          R"(<KVX VTURL="https://pay.example/page" CAPTUREURL="http://pay.example/capture"/>)");
};

/// Tests on one account: the directory and the context are at hand by their own names.
class AccountTest : public testing::Test, protected Account {};

/// Widens `text` as a signer (`high` "00" above 0x7F) or a verifier (`high` "ff") does and signs it with the test key
/// of 512 bits, by another way than the code under test. Hexadecimal text.
enum class Widening { kWithoutSign, kWithSign };
std::string signedElsewhere(std::string const& text, Widening widening);

/// Answers the first client with the first text, the second with the second, and so on; the last one over and over.
/// Texts are bodies of responses with status 200, unless they begin with "HTTP/".
class ExchangeServer {
public:
    /// `beforeResponse` is called on the server's thread, before each response, with the number of the request from 0.
    explicit ExchangeServer(std::vector<std::string> responses, std::function<void(std::size_t)> beforeResponse = {});

    /// "http://127.0.0.1:PORT" + `path`.
    [[nodiscard]] std::string url(std::string const& path) const;

    /// The raw requests, in order. Ends the server first.
    std::vector<std::string> const& requests() { return m_Server.records(); }

    /// The messages in the requests, in order. Ends the server first.
    std::vector<std::string> messages();

private:
    std::vector<std::string> m_Responses;
    std::function<void(std::size_t)> m_BeforeResponse;
    std::size_t m_Served = 0;
    RawServer m_Server;
};

}  // namespace kvxtest

#endif
