#include <sys/socket.h>

#include <cerrno>

#include "foundation/tbsystem.h"
#include "net/kvxhttp.h"
#include "net/kvxhttp_errno.h"
#include "net/kvxsocket.h"

KVX_Connection::~KVX_Connection() = default;

void* KVX_Connection::operator new(std::size_t bytes) {
    return TbRefCounter::operator new(bytes);
}

void KVX_Connection::operator delete(void* memory) noexcept {
    TbRefCounter::operator delete(memory);
}

SockConnection::~SockConnection() = default;

std::int32_t SockConnection::Connect(sockaddr* address) {
    m_Socket = MakeSocket();
    m_LastResult = ConnectSocket(m_Socket, address);
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

std::int32_t SockConnection::Read(TbStringStream& into) {
    m_LastResult =
        static_cast<int>(tbRetryInterrupted([this] { return tbSystem().recv(m_Socket, m_Buffer, kChunk, 0); }));
    if (m_LastResult == -1) {
        return -1;
    }
    m_Buffer[m_LastResult] = '\0';
    into.put(m_Buffer);
    return m_LastResult;
}

std::int32_t SockConnection::Write(TbStringStream& from) {
    KvxBytesToSend const bytes(from.str());
    SigPipeGuard const guard;
    m_LastResult =
        static_cast<int>(tbRetryInterrupted([&] { return tbSystem().send(m_Socket, bytes.data(), bytes.size(), 0); }));
    return m_LastResult;
}

std::int32_t SockConnection::LastError() {
    return KVX_E_SOCKET_FAMILY | BsdErrno(errno);
}

void SockConnection::Attach(int socket) {
    m_Socket = socket;
}

int SockConnection::Detach() {
    int const socket = m_Socket;
    m_Socket = -1;
    return socket;
}

std::int32_t SockConnection::Setup() {
    return KVX_OK;
}
