#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_RAWCLIENT_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_RAWCLIENT_H

#include <cstdint>
#include <map>
#include <string>

/// HTTP over a bare socket, so that tests see every byte of a response.
namespace sandboxtest {

/// A connection to a port of 127.0.0.1; every wait on it ends after ten seconds.
class RawConnection {
public:
    /// Throws std::runtime_error when the port is closed.
    explicit RawConnection(std::uint16_t port);
    ~RawConnection();
    RawConnection(RawConnection const&) = delete;
    RawConnection& operator=(RawConnection const&) = delete;

    [[nodiscard]] int get() const { return m_Number; }

    /// Sends all of `text`. Throws std::runtime_error.
    void send(std::string const& text) const;

    /// All bytes until the peer closes. Throws std::runtime_error when it does not.
    [[nodiscard]] std::string readToEnd() const;

private:
    int m_Number;
};

struct RawResponse {
    int m_Status = 0;
    std::map<std::string, std::string> m_Headers;  ///< Names in lower case.
    std::string m_Body;
};

/// Sends `request` to the port of 127.0.0.1 and reads until the other side closes; every wait ends after ten seconds.
/// With a non-empty `authorityFile` the connection is TLS, verified against that file and the name `host`. Throws
/// std::runtime_error when anything of that fails.
std::string exchangeRaw(std::uint16_t port, std::string const& request, std::string const& authorityFile = "",
                        std::string const& host = "127.0.0.1");

/// The same with TLS over `socket`, which is connected already and borrowed.
std::string exchangeTls(int socket, std::string const& request, std::string const& authorityFile,
                        std::string const& host = "127.0.0.1");

/// Splits a response. Throws std::runtime_error when `bytes` is none.
RawResponse parseResponse(std::string const& text);

/// The request of a merchant: HTTP/1.0, no Host, the header UserAgent, Basic credentials in their own Base64.
std::string merchantGet(std::string const& target, std::string const& user = "", std::string const& password = "");

/// JSON as a client of the control API posts it.
std::string jsonPost(std::string const& target, std::string const& body);

/// A request without a body. `host` is left out when it is empty.
std::string bareRequest(std::string const& method, std::string const& target, std::string const& host = "");

/// A form as a browser posts it.
std::string formPost(std::string const& target, std::string const& body);

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_RAWCLIENT_H
