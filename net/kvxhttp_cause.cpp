#include "net/kvxhttp_cause.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>
#include <initializer_list>

#include "foundation/tbforkgate.h"
#include "net/kvxdecimal.h"
#include "net/kvxhttp_errno.h"

namespace {

constexpr std::int32_t kNumberMask = 0xFFF;
constexpr std::int32_t kLastPort = 65535;

/// A port as digits alone, in the range of ports.
bool isPort(char const* text) {
    bool const isNumber = *text != '\0' && text[std::strspn(text, "0123456789")] == '\0';
    std::int32_t const port = DecimalNumber(text);
    return isNumber && port > 0 && port <= kLastPort;
}

void putCertificateWords(KvxCause& cause, int verdict) {
    cause.put("the server's certificate is refused: ").put(::X509_verify_cert_error_string(verdict));
}

/// What a reason of the TLS library means; its numbers are the low bits of the code.
void putTlsWords(KvxCause& cause, KVX_RequestInfo const& request, int reason) {
    constexpr int kLastKind = SSL_ERROR_WANT_RETRY_VERIFY;  // below it, codes have the kind of the failure for a reason
    constexpr int kCertificateMask = 0xFF;
    if (reason == kKvxTlsTrust) {
        cause.put("the trusted authorities cannot be read, or there are none");
        if (!request.transfer.trustFile.isEmpty()) {
            cause.put(": ").put(request.transfer.trustFile.c_str());
        }
    } else if (reason == kKvxTlsHost) {
        cause.put("the host is no name that a certificate can have");
    } else if ((reason & kKvxTlsCertificate) != 0) {
        putCertificateWords(cause, reason & kCertificateMask);
    } else if (reason == SSL_ERROR_SYSCALL) {
        cause.put("the connection was lost during TLS");
    } else if (reason == SSL_ERROR_ZERO_RETURN) {
        cause.put("the server closed the TLS connection");
    } else if (reason <= kLastKind) {
        cause.put("TLS could not be started");
    } else {
        TbForkGate const gate;
        char const* const words = ::ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, reason));
        cause.put("TLS failed: ");
        if (words != nullptr) {
            cause.put(words);
        } else {
            cause.put("reason ").put(static_cast<long>(reason));
        }
        if (reason == SSL_R_WRONG_VERSION_NUMBER) {
            cause.put(" (the server does not speak TLS at this port: is it an http address?)");
        }
    }
}

void putWords(KvxCause& cause, KVX_RequestInfo const& request, std::int32_t code) {
    std::int32_t const number = code & kNumberMask;
    switch (code & ~kNumberMask) {
        case KVX_E_SOCKET_FAMILY:
            cause.putSystem(NativeErrno(number));
            return;
        case KVX_E_TLS_FAMILY:
            putTlsWords(cause, request, number);
            return;
        default:
            break;
    }
    if (code == KVX_E_OUT_OF_MEMORY) {
        cause.put("out of memory");
    } else if (code == KVX_E_BUFFER_TOO_SMALL) {
        cause.put("the response is longer than MAXRESPONSE");
    } else if (code == KVX_E_HTTP_NAME_LOOKUP) {
        bool const hasProxy = !request.proxyHost.isEmpty();
        bool const hasName = hasProxy || !request.host.isEmpty();
        cause.put(hasName ? "the resolver finds no IPv4 address for the name of the "
                          : "the address has no host; a \"/\" must follow host and port");
        cause.put(!hasName ? "" : hasProxy ? "proxy" : "host");
    } else {
        cause.put("it fails");
    }
}

/// A port that is no number is the usual mistake of an address without a "/" behind it.
void putPortHint(KvxCause& cause, URL_INFO const& url) {
    if (isPort(url.port.c_str()) || url.host.isEmpty() || !kvxShowsAddress(url)) {
        return;
    }
    cause.put(" (the port \"").put(url.port.c_str()).put("\" counts as ");
    cause.put(static_cast<long>(static_cast<std::uint16_t>(DecimalNumber(url.port.c_str()))));
    cause.put("; a \"/\" must follow host and port)");
}

/// The address and the proxy on the way to it.
KvxCause wayCause(KVX_RequestInfo const& request) {
    KvxCause cause = kvxAddressCause(request);
    if (!request.proxyHost.isEmpty() && std::strchr(request.proxyHost.c_str(), '@') == nullptr) {
        cause.put(" through the proxy ").put(request.proxyHost.c_str()).put(":").put(request.proxyPort.c_str());
    }
    return cause;
}

}  // namespace

bool kvxShowsAddress(URL_INFO const& url) noexcept {
    for (TbString const* part : {&url.scheme, &url.host, &url.port, &url.path}) {
        if (std::strchr(part->c_str(), '@') != nullptr) {
            return false;
        }
    }
    return true;
}

KvxCause kvxAddressCause(URL_INFO const& url) noexcept {
    KvxCause cause;
    if (!kvxShowsAddress(url)) {
        cause.put("(address not shown: it may hold a piece of a password, one with an \"@\" or a \"?\")");
        return cause;
    }
    cause.put(url.scheme.c_str()).put("://").put(url.host.c_str()).put(":").put(url.port.c_str());
    return cause;
}

KvxCause kvxExchangeCause(KVX_RequestInfo const& request, std::int32_t code) noexcept {
    KvxCause cause = wayCause(request);
    cause.put(": ");
    putWords(cause, request, code);
    putPortHint(cause, request);
    return cause;
}

KvxCause kvxReplyCause(KVX_RequestInfo const& request, TbString const& reply) noexcept {
    constexpr std::size_t kMaxLine = 120;
    KvxCause cause = wayCause(request);
    if (TCSNCMP(reply.c_str(), "HTTP/", 5) != 0) {
        cause.put(reply.isEmpty() ? ": the connection was closed without a response" : ": the response is not HTTP");
        return cause;
    }
    char line[kMaxLine + 1];
    std::size_t const length = std::strcspn(reply.c_str(), "\r\n");
    std::size_t const shown = length < kMaxLine ? length : kMaxLine;
    std::memcpy(line, reply.c_str(), shown);
    line[shown] = '\0';
    cause.put(" responded: ").put(line);
    if (std::strstr(reply.c_str(), "\r\n\r\n") == nullptr) {
        cause.put(" (and the response breaks off inside its header)");
    }
    return cause;
}
