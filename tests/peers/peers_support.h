/// Real servers as peers: nginx, tinyproxy and the TLS server of the openssl program.
#ifndef TALLOWIN_TESTS_PEERS_PEERS_SUPPORT_H
#define TALLOWIN_TESTS_PEERS_PEERS_SUPPORT_H

#include <cstdint>
#include <memory>
#include <string>

#include "net/kvxhttp.h"
#include "tests/support/child_process.h"
#include "tests/support/test_support.h"

namespace kvxtest {

/// nginx with a plain and a TLS listener over one site.
///
/// /file    the bytes given to the constructor
/// /echo    the request line, the credentials as received and the user agent, one a line
/// /private the text "welcome", for "user" with the password "pass" alone
/// /moved   a redirect to /file
/// /busy    status 503
class Nginx {
public:
    explicit Nginx(std::string const& file);
    [[nodiscard]] std::string plain(std::string const& path) const;
    [[nodiscard]] std::string secure(std::string const& path) const;

private:
    TempDir m_Directory;
    std::uint16_t m_Port = 0;
    std::uint16_t m_SecurePort = 0;
    std::unique_ptr<ChildProcess> m_Process;
};

/// tinyproxy; with `password` set it wants to be told who asks.
class Tinyproxy {
public:
    explicit Tinyproxy(std::string const& password = "");
    [[nodiscard]] std::string port() const { return std::to_string(m_Port); }

    /// What it has logged.
    [[nodiscard]] std::string log() const;

private:
    TempDir m_Directory;
    std::uint16_t m_Port = 0;
    std::unique_ptr<ChildProcess> m_Process;
};

/// `openssl s_server` on the files of a directory; `option` is one more argument, such as "-tls1_2".
class OpensslServer {
public:
    OpensslServer(std::string const& option, std::string const& file);
    [[nodiscard]] std::string url(std::string const& path) const;

private:
    TempDir m_Directory;
    std::string m_Port;
    std::unique_ptr<ChildProcess> m_Process;
};

/// Runs a whole session over `url` and returns the body; through `proxy` unless it is null.
std::string fetch(std::string const& url, Tinyproxy const* proxy = nullptr);

}  // namespace kvxtest

#endif
