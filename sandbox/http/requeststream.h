#ifndef TALLOWIN_SANDBOX_HTTP_REQUESTSTREAM_H
#define TALLOWIN_SANDBOX_HTTP_REQUESTSTREAM_H

#include <httplib.h>

#include <cstddef>
#include <string>

#include "sandbox/http/connection.h"

namespace sandbox {

/// What the HTTP library reads from and writes to: bytes that have been read already, then the connection; and a text.
class RequestStream : public httplib::Stream {
public:
    /// `connection` is borrowed; `begin` has been read from it before, and is shown to the library as `ahead`.
    RequestStream(Connection& connection, std::string begin, std::string ahead);

    /// All bytes received from the connection.
    [[nodiscard]] std::string const& received() const { return m_Received; }

    /// The response as far as it was written; nothing of it has been sent.
    [[nodiscard]] std::string const& written() const { return m_Written; }

    /// Whether the request exceeds the size limit. Bytes after the limit are not read.
    [[nodiscard]] bool isTooLong() const { return m_TooLong; }

    [[nodiscard]] bool is_readable() const override { return true; }
    [[nodiscard]] bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override;
    ssize_t write(char const* from, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    [[nodiscard]] socket_t socket() const override { return m_Connection.socket(); }

private:
    Connection& m_Connection;  ///< Borrowed.
    std::size_t m_MostReceived;
    std::string m_Received;
    std::string m_Written;
    std::string m_Ahead;
    bool m_TooLong = false;
    std::size_t m_Next = 0;  ///< First byte of m_Ahead that has not been read.
};

inline constexpr std::size_t kMaxRequestLine = std::size_t{4} * 1024 * 1024;  ///< Bytes.

/// Reads up to and including the first line end. What came after it is in the result as well. Without a line end the
/// result is what came before the end, a failure or more than kMaxRequestLine bytes.
std::string readFirstLine(Connection& connection);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_REQUESTSTREAM_H
