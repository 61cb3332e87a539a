// A proxy's reply to CONNECT. Model: from "HTTP/1" on, the digits behind the next space and further spaces and tabs are
// the status; a status that is no number or 0 is no reply. One read counts.
//
// Input: how the connection ends, the size of the one chunk, then the reply.

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/scriptednetwork.h"
#include "net/kvxhttp.h"

namespace kvxfuzz {

namespace {

/// Standard error in memory while it lives: the reply is printed there.
class CapturedErrors {
public:
    CapturedErrors() : m_Original(stderr), m_Stream(::open_memstream(&m_Bytes, &m_Size)) { stderr = m_Stream; }
    CapturedErrors(CapturedErrors const&) = delete;
    CapturedErrors& operator=(CapturedErrors const&) = delete;
    ~CapturedErrors() {
        restore();
        std::free(m_Bytes);
    }

    /// Ends the capture.
    std::string text() {
        restore();
        return {m_Bytes, m_Size};
    }

private:
    void restore() {
        if (m_Stream != nullptr) {
            stderr = m_Original;
            std::fclose(m_Stream);
            m_Stream = nullptr;
        }
    }

    char* m_Bytes = nullptr;
    std::size_t m_Size = 0;
    FILE* m_Original;
    FILE* m_Stream;
};

class TunnelSession : public KVX_HttpSession {
public:
    using KVX_HttpSession::KVX_HttpSession;
    using KVX_HttpSession::m_Connection;
    using KVX_HttpSession::ProxyConnect;
};

std::int32_t modelCode(std::string const& reply) {
    std::size_t const protocol = reply.find("HTTP/1");
    std::size_t const space = protocol == std::string::npos ? protocol : reply.find(' ', protocol);
    if (space == std::string::npos) {
        return KVX_E_HTTP_BAD_REPLY;
    }
    std::size_t const number = std::min(reply.find_first_not_of(" \t", space), reply.size());
    std::size_t const end = std::min(reply.find_first_not_of("0123456789", number), reply.size());
    std::int32_t const status = modelNumber(reply.substr(number, end - number));
    if (status == 0) {
        return KVX_E_HTTP_BAD_REPLY;
    }
    return status == 200 ? KVX_OK : KVX_E_HTTP_FAMILY | status;
}

}  // namespace

void runTarget(Input input) {
    Peer peer;
    peer.m_Error = input.flag() ? ECONNRESET : 0;
    peer.m_Chunks = {input.byte() * std::size_t{8}};
    peer.m_Bytes = input.rest();

    ScriptedNetwork network;
    network.add(peer);
    KVX_RequestInfo request;
    request.scheme = "https";
    request.host = "pay.example";
    request.port = "443";
    {
        TunnelSession session(request);
        session.m_Connection.reset(new SockConnection);
        sockaddr unused = {};
        requireEqual(session.m_Connection->Connect(&unused), KVX_OK, "connect");
        CapturedErrors printed;
        std::int32_t const code = codeOf([&] { session.ProxyConnect(); });
        std::string const output = printed.text();

        if (network.received().empty() && peer.m_Error != 0) {
            requireEqual(code, codeOfSocketError(peer.m_Error), "code of a broken connection to the proxy");
            requireEqual(output, "", "output without a reply");
        } else {
            requireEqual(code, modelCode(network.receivedText()), "code of a proxy's reply");
            requireEqual(output, "Proxy response:\n" + network.receivedText() + "\n", "output");
        }
        require(network.received().size() <= 1, "one read");
        requireEqual(
            network.sent().front(),
            "CONNECT pay.example:443 HTTP/1.0\r\nPragma: no-cache\r\nUserAgent: Tallowin Application Component "
            "1.0\r\n\r\n",
            "request to the proxy");
        requireEqual(network.open(), 1, "the session keeps the socket");
    }
    requireEqual(network.open(), 0, "sockets left open");
}

}  // namespace kvxfuzz
