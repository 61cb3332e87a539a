// One HTTP exchange over a scripted network: the request's bytes, the response's body or failure.
//
// Input: how the connection ends, which limits hold, a line each with path, user, password and sizes of chunks, then
// the response.

#include <cerrno>

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/scriptednetwork.h"
#include "net/kvxhttp.h"

namespace kvxfuzz {

namespace {

constexpr int kErrors[] = {0, ECONNRESET, ETIMEDOUT, EPIPE};
constexpr std::size_t kMaxResponse = 100;
constexpr std::size_t kShortSend = 20;
constexpr std::uint32_t kAmpleSeconds = 10000;

/// Which limits hold: bits of a byte of the input.
enum Limits : std::uint8_t { kResponse = 1, kTimes = 2, kSendAll = 4, kHost = 8, kShort = 16, kPort = 32 };

/// A text as the connection sends it: zeros from its first zero byte on.
std::string asSent(std::string const& text) {
    std::string result = upToZero(text);
    result.resize(text.size(), '\0');
    return result;
}

std::string modelCredentials(std::string const& text) {
    static std::string const s_Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bits;
    for (std::size_t i = 0; i < text.size() && static_cast<signed char>(text[i]) > 0; ++i) {
        for (int bit = 6; bit >= -1; --bit) {
            bits += bit == 6 ? '0' : (text[i] >> (bit + 1)) % 2 == 0 ? '0' : '1';
        }
    }
    bits.resize((bits.size() / 24 + 1) * 24, '0');
    std::string result;
    for (std::size_t i = 0; i < bits.size(); i += 6) {
        result += s_Alphabet[std::stoul(bits.substr(i, 6), nullptr, 2)];
    }
    return result;
}

}  // namespace

void runTarget(Input input) {
    Peer peer;
    std::uint8_t const end = input.byte();
    peer.m_Error = kErrors[end % 4];
    peer.m_IsInterrupted = (end & 4U) != 0;
    std::uint8_t const limits = input.byte();
    peer.m_MaxSend = (limits & kShort) != 0 ? kShortSend : 0;
    std::string const path = input.line();
    std::string const user = input.line();
    std::string const password = input.line();
    for (char const size : input.line()) {
        peer.m_Chunks.push_back(static_cast<unsigned char>(size) * std::size_t{5});
    }
    peer.m_Bytes = input.rest();

    ScriptedNetwork network;
    network.add(peer);
    KVX_RequestInfo request;
    request.scheme = "http";
    request.host = "127.0.0.1";
    request.port = (limits & kPort) != 0 ? "8080" : "80";
    request.transfer.maxResponse = (limits & kResponse) != 0 ? kMaxResponse : 0;
    request.transfer.ioTimeout = (limits & kTimes) != 0 ? kAmpleSeconds : 0;
    request.transfer.totalTimeout = request.transfer.ioTimeout;
    request.transfer.sendAll = (limits & kSendAll) != 0;
    request.transfer.sendHost = (limits & kHost) != 0;
    request.path = tbText(path);
    request.user = tbText(user);
    request.password = tbText(password);
    TbStringStream out("before");
    std::int32_t const code = codeOf([&] { HttpSession(request, out); });

    ModelResponse const model(network.receivedText());
    std::int32_t expected = peer.m_Error == 0 ? model.m_Code : codeOfSocketError(peer.m_Error);
    if ((limits & kResponse) != 0 && peer.m_Bytes.size() > kMaxResponse) {
        expected = KVX_E_BUFFER_TOO_SMALL;
    }
    requireEqual(code, expected, "code of an exchange");
    requireEqual(textOf(out.str()), "before" + (expected == KVX_OK ? model.m_Body : ""), "body of a response");

    std::string const port = (limits & kPort) != 0 ? ":8080" : "";
    std::string const host = (limits & kHost) != 0 ? "Host: 127.0.0.1" + port + "\r\n" : "";
    std::string sent =
        asSent("GET " + path + " HTTP/1.0\r\n" + host + "Authorization: Basic " +
               modelCredentials(user + ":" + password) + "\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n");
    if (peer.m_MaxSend != 0 && (limits & (kSendAll | kTimes)) == 0) {
        sent = sent.substr(0, peer.m_MaxSend);  // one send, whatever it takes
    }
    requireEqual(network.sent().front(), sent, "request");
    requireEqual(network.open(), 0, "sockets left open");
}

}  // namespace kvxfuzz
