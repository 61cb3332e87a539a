#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "foundation/tbsystem.h"
#include "net/kvxhttp.h"
#include "net/kvxhttp_errno.h"
#include "net/kvxresponse.h"
#include "net/kvxsocket.h"
#include "net/kvxwait.h"

KVX_Connection::~KVX_Connection() = default;

std::int32_t KVX_Connection::ReadUpTo(TbStringStream& into, std::uint32_t) {
    return Read(into);
}

void* KVX_Connection::operator new(std::size_t bytes) {
    return TbRefCounter::operator new(bytes);
}

void KVX_Connection::operator delete(void* memory) noexcept {
    TbRefCounter::operator delete(memory);
}

SockConnection::~SockConnection() {
    ::explicit_bzero(m_Buffer, sizeof m_Buffer);  // a response may hold credentials
}

std::int32_t SockConnection::Connect(sockaddr* address) {
    m_Socket = MakeSocket();
    m_LastResult = ConnectSocket(m_Socket, address, m_Limits);
    if (m_LastResult == -1) {
        m_LastResult = LastError();
        return m_LastResult;
    }
    return KVX_OK;
}

std::int32_t SockConnection::Disconnect() {
    m_LastResult = tbSystem().shutdown(m_Socket, SHUT_WR);
    return KVX_OK;
}

/// Receives up to `bytes` bytes to `room`.
std::int32_t SockConnection::receive(char* room, std::size_t bytes) {
    auto const receive = [&] { return tbSystem().recv(m_Socket, room, bytes, 0); };
    KvxDeadline const end(m_Limits.ioTimeout, m_Limits.deadline);
    m_LastResult = static_cast<int>(m_Limits.hasEnd() ? kvxCallWhenReady(m_Socket, POLLIN, end, receive)
                                                      : tbRetryInterrupted(receive));
    return m_LastResult;
}

std::int32_t SockConnection::Read(TbStringStream& into) {
    if (receive(m_Buffer, kChunk) == -1) {
        return -1;
    }
    m_Buffer[m_LastResult] = '\0';
    into.put(m_Buffer);
    return m_LastResult;
}

std::int32_t SockConnection::ReadUpTo(TbStringStream& into, std::uint32_t most) {
    return kvxReceiveInto(into, most, [&](char* room) { return receive(room, most); });
}

std::int32_t SockConnection::Write(TbStringStream& from) {
    KvxBytesToSend const bytes(from.str());
    KvxDeadline const end(m_Limits.ioTimeout, m_Limits.deadline);
    bool const continues = m_Limits.sendAll || m_Limits.hasEnd();
    std::size_t sent = 0;
    ssize_t count = 0;
    auto const send = [&] { return tbSystem().send(m_Socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL); };
    do {
        count = m_Limits.hasEnd() ? kvxCallWhenReady(m_Socket, POLLOUT, end, send) : tbRetryInterrupted(send);
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    } while (continues && count > 0 && sent < bytes.size());
    m_LastResult = count == -1 ? -1 : static_cast<int>(sent);
    return m_LastResult;
}

std::int32_t SockConnection::LastError() {
    return KVX_E_SOCKET_FAMILY | BsdErrno(errno);
}

void SockConnection::Attach(int socket) {
    m_Socket = socket;
    if (m_Limits.hasEnd()) {
        tbSystem().setNonBlocking(m_Socket);
    }
}

int SockConnection::Detach() {
    int const socket = m_Socket;
    m_Socket = -1;
    return socket;
}

std::int32_t SockConnection::Setup() {
    return KVX_OK;
}
