/// Real servers as peers: nginx, tinyproxy and the TLS server of the openssl program.
#ifndef TALLOWIN_TESTS_PEERS_PEERSSUPPORT_H
#define TALLOWIN_TESTS_PEERS_PEERSSUPPORT_H

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/directories.h"
#include "tests/support/fetch.h"
#include "tests/support/processes.h"

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
    TemporaryDirectory m_Directory;
    std::uint16_t m_Port = 0;
    std::uint16_t m_SecurePort = 0;
    std::unique_ptr<ChildProcess> m_Process;
};

/// tinyproxy; with a `password` it demands the credentials of "user".
class Tinyproxy {
public:
    explicit Tinyproxy(std::string const& password = "");
    [[nodiscard]] std::string port() const { return std::to_string(m_Port); }

    /// The text of its log.
    [[nodiscard]] std::string log() const;

private:
    TemporaryDirectory m_Directory;
    std::uint16_t m_Port = 0;
    std::unique_ptr<ChildProcess> m_Process;
};

/// `openssl s_server` on the files of a directory; `option` is one more argument, such as "-tls1_2".
class OpensslServer {
public:
    OpensslServer(std::string const& option, std::string const& file);
    [[nodiscard]] std::string url(std::string const& path) const;

private:
    TemporaryDirectory m_Directory;
    std::string m_Port;
    std::unique_ptr<ChildProcess> m_Process;
};

/// Runs a whole session over `url` through `proxy` and returns the body.
std::string fetchThrough(Tinyproxy const& proxy, std::string const& url);

}  // namespace kvxtest

#endif
