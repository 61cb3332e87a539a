/// What the tests of the core share: accounts in directories of their own, test keys, scripted payment servers.
#ifndef TALLOWIN_TESTS_CORE_CORE_SUPPORT_H
#define TALLOWIN_TESTS_CORE_CORE_SUPPORT_H

#include <functional>
#include <string>
#include <vector>

#include "core/kvxctx.h"
#include "tests/support/raw_server.h"
#include "tests/support/test_support.h"

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
    [[nodiscard]] std::vector<std::string> filesIn(std::string const& folder) const;

    /// Whether writing has left a file of its own behind in `folder`.
    [[nodiscard]] bool hasTemporaryFile(std::string const& folder = "") const;

    TempDir m_Dir;
    KVX_Context m_Context;
};

/// Content of the file `name` below the folder of test data.
std::string dataFile(std::string const& name);

/// The same without line ends: hexadecimal text as the key directory holds it.
std::string hexFile(std::string const& name);

/// Widens `text` as a signer (`high` "00" above 0x7F) or a verifier (`high` "ff") does and signs it with the test key
/// of 512 bits, by another way than the code under test. Hexadecimal text.
enum class Widening { kWithoutSign, kWithSign };
std::string signedElsewhere(std::string const& text, Widening widening);

/// A whole HTTP answer with status 200 and `body`.
std::string answerWith(std::string const& body);

/// Answers the first client with the first text, the second with the second, and so on; the last one over and over.
/// Texts are bodies of answers with status 200, unless they begin with "HTTP/".
class ExchangeServer {
public:
    /// `beforeAnswer` is called, on the server's thread, with the number of the request (from 0) before its answer.
    explicit ExchangeServer(std::vector<std::string> answers, std::function<void(std::size_t)> beforeAnswer = {});

    /// "http://127.0.0.1:PORT" + `path`.
    [[nodiscard]] std::string url(std::string const& path) const;

    /// The raw requests, in order. Ends the server first.
    std::vector<std::string> const& requests() { return m_Server.records(); }

    /// The messages in the requests, in order. Ends the server first.
    std::vector<std::string> messages();

private:
    std::vector<std::string> m_Answers;
    std::function<void(std::size_t)> m_BeforeAnswer;
    std::size_t m_Served = 0;
    RawServer m_Server;
};

/// The value of `name` in the query of a URL or of a request line; empty when there is none.
std::string queryValue(std::string const& text, std::string const& name);

/// Undoes percent-encoding. Fails the test for an escape without two lower-case digits.
std::string percentDecoded(std::string const& text);

/// Traces as lines "file:line:code:event:detail", the code in hexadecimal.
std::vector<std::string> linesOf(std::vector<TraceRecorder::Record> const& records);

}  // namespace kvxtest

#endif
