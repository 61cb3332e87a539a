#include "sandbox/http/requeststream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace sandbox {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{16} * 1024;

/// Of what is read after the first line: the head and the largest body, in chunks that are not too small.
constexpr std::size_t kMaxAfterBegin = std::size_t{2} * 1024 * 1024;

/// Asks `lookup` (getpeername or getsockname) for one end of the connection.
template <class Lookup>
void describe(Lookup lookup, int socket, std::string& ip, int& port) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (lookup(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return;
    }
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    ip = text;
    port = ntohs(address.sin_port);
}

}  // namespace

RequestStream::RequestStream(Connection& connection, std::string begin, std::string ahead)
    : m_Connection(connection),
      m_MostReceived(begin.size() + kMaxAfterBegin),
      m_Received(std::move(begin)),
      m_Ahead(std::move(ahead)) {}

ssize_t RequestStream::read(char* to, std::size_t size) {
    // The library reads the head byte by byte, so bytes are fetched in pieces.
    if (m_Next == m_Ahead.size()) {
        m_TooLong = m_Received.size() >= m_MostReceived;
        if (m_TooLong) {
            return -1;
        }
        m_Ahead.resize(kPieceBytes);
        m_Next = 0;
        ssize_t const count = m_Connection.read(m_Ahead.data(), m_Ahead.size());
        m_Ahead.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        if (count <= 0) {
            return count;
        }
        m_Received += m_Ahead;
    }
    std::size_t const count = std::min(size, m_Ahead.size() - m_Next);
    m_Ahead.copy(to, count, m_Next);
    m_Next += count;
    return static_cast<ssize_t>(count);
}

ssize_t RequestStream::write(char const* from, std::size_t size) {
    constexpr char kContinue[] = "HTTP/1.1 100 ";
    if (m_Written.empty() && std::string_view(from, size).substr(0, sizeof kContinue - 1) == kContinue) {
        // No part of the response: the client waits for it before it sends the rest of its request.
        return m_Connection.write(from, size) ? static_cast<ssize_t>(size) : -1;
    }
    m_Written.append(from, size);
    return static_cast<ssize_t>(size);
}

void RequestStream::get_remote_ip_and_port(std::string& ip, int& port) const {
    describe(::getpeername, m_Connection.socket(), ip, port);
}

void RequestStream::get_local_ip_and_port(std::string& ip, int& port) const {
    describe(::getsockname, m_Connection.socket(), ip, port);
}

std::string readFirstLine(Connection& connection) {
    std::string text;
    char piece[kPieceBytes];
    std::size_t searched = 0;
    while (text.size() <= kMaxRequestLine && text.find('\n', searched) == std::string::npos) {
        searched = text.size();
        ssize_t const count = connection.read(piece, sizeof piece);
        if (count <= 0) {
            break;
        }
        text.append(piece, static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace sandbox
