#include "fuzz/scriptednetwork.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "fuzz/fuzzcheck.h"
#include "tallowin/codes.h"

namespace kvxfuzz {

namespace {

/// Received bytes become text in chunks of this size.
constexpr std::size_t kChunk = 1024;

}  // namespace

ScriptedNetwork* ScriptedNetwork::s_Current = nullptr;

ScriptedNetwork::ScriptedNetwork() {
    s_Current = this;
    m_Calls->socket = &makeSocket;
    m_Calls->connect = &connectSocket;
    m_Calls->send = &sendBytes;
    m_Calls->recv = &receiveBytes;
    m_Calls->close = &closeFile;
    m_Calls->shutdown = [](int, int) { return 0; };
    m_Calls->poll = [](pollfd* files, nfds_t count, int) {
        for (nfds_t i = 0; i < count; ++i) {
            files[i].revents = files[i].events;
        }
        return static_cast<int>(count);
    };
    m_Calls->gethostbyname_r = [](char const*, hostent*, char*, std::size_t, hostent** result, int* reason) {
        *result = nullptr;
        *reason = HOST_NOT_FOUND;
        return 0;
    };
}

ScriptedNetwork::~ScriptedNetwork() {
    s_Current = nullptr;
}

std::string ScriptedNetwork::receivedText() const {
    std::string text;
    for (std::string const& piece : m_Received) {
        for (std::size_t begin = 0; begin < piece.size(); begin += kChunk) {
            text += upToZero(piece.substr(begin, kChunk));
        }
    }
    return text;
}

int ScriptedNetwork::makeSocket(int domain, int type, int protocol) {
    int const socket = ::socket(domain, type, protocol);
    s_Current->m_Sockets.push_back(socket);
    ++s_Current->m_Open;
    return socket;
}

int ScriptedNetwork::connectSocket(int, sockaddr const*, socklen_t) {
    ScriptedNetwork& network = *s_Current;
    if (network.m_Peers.empty()) {
        errno = ECONNREFUSED;
        return -1;
    }
    network.m_Peer = network.m_Peers.front();
    network.m_Peers.pop_front();
    network.m_Position = 0;
    network.m_Chunk = 0;
    network.m_Received.clear();
    network.m_Sent.emplace_back();
    return 0;
}

ssize_t ScriptedNetwork::sendBytes(int, void const* buffer, std::size_t bytes, int) {
    std::size_t const most = s_Current->m_Peer.m_MaxSend;
    std::size_t const count = most == 0 ? bytes : std::min(bytes, most);
    s_Current->m_Sent.back().append(static_cast<char const*>(buffer), count);
    return static_cast<ssize_t>(count);
}

ssize_t ScriptedNetwork::receiveBytes(int, void* buffer, std::size_t bytes, int) {
    return s_Current->receive(static_cast<char*>(buffer), bytes);
}

ssize_t ScriptedNetwork::receive(char* buffer, std::size_t bytes) {
    m_WasInterrupted = m_Peer.m_IsInterrupted && !m_WasInterrupted;
    if (m_WasInterrupted) {
        errno = EINTR;
        return -1;
    }
    std::size_t const left = m_Peer.m_Bytes.size() - m_Position;
    if (left == 0) {
        errno = m_Peer.m_Error;
        return m_Peer.m_Error == 0 ? 0 : -1;
    }
    std::size_t count = std::min(bytes, left);
    if (!m_Peer.m_Chunks.empty()) {
        count = std::min(count, std::max<std::size_t>(1, m_Peer.m_Chunks[m_Chunk++ % m_Peer.m_Chunks.size()]));
    }
    std::memcpy(buffer, m_Peer.m_Bytes.data() + m_Position, count);
    m_Received.push_back(m_Peer.m_Bytes.substr(m_Position, count));
    m_Position += count;
    return static_cast<ssize_t>(count);
}

int ScriptedNetwork::closeFile(int file) {
    auto& sockets = s_Current->m_Sockets;
    auto const found = std::find(sockets.begin(), sockets.end(), file);
    if (found != sockets.end()) {
        sockets.erase(found);
        --s_Current->m_Open;
    }
    return ::close(file);
}

std::int32_t codeOfSocketError(int error) {
    switch (error) {
        case ECONNRESET:
            return KVX_E_SOCKET_RESET;
        case ETIMEDOUT:
            return KVX_E_SOCKET_TIMEOUT;
        case ECONNREFUSED:
            return KVX_E_SOCKET_REFUSED;
        default:
            return KVX_E_SOCKET_FAMILY | error;
    }
}

ModelResponse::ModelResponse(std::string const& text) : m_Code(KVX_E_HTTP_BAD_REPLY) {
    std::size_t const space = text.find(' ');
    std::int32_t const status = space == std::string::npos ? 0 : modelNumber(text.substr(space + 1));
    std::size_t const end = text.find("\r\n\r\n", space);
    if (status != 0 && status != 200) {
        m_Code = KVX_E_HTTP_FAMILY | status;
    } else if (status == 200 && end != std::string::npos) {
        m_Code = KVX_OK;
        m_Body = text.substr(end + 4);
    }
}

std::int32_t modelNumber(std::string const& text) {
    using Limits = std::numeric_limits<std::int32_t>;
    long long const number = std::strtoll(text.c_str(), nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

}  // namespace kvxfuzz
