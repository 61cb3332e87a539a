// Sends a finished response the way a fault wants it: whole, cut, late, byte by byte, twice, or not at all.
// The first empty line divides head and body. A position in the response counts from its first byte; without a given
// number it is the middle of the body.
// Faults that change what a response says were applied when it was made; such a response is sent like any other.
#include "sandbox/http/delivery.h"

#include <algorithm>
#include <utility>

#include "sandbox/http/connection.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr char kBlankLine[] = "\r\n\r\n";
constexpr std::size_t kMegabyte = std::size_t{1024} * 1024;

/// Where the body begins; the end when there is none.
std::size_t bodyOf(std::string const& response) {
    std::size_t const end = response.find(kBlankLine);
    return end == std::string::npos ? response.size() : end + sizeof kBlankLine - 1;
}

/// How many bytes are sent before a fault in the middle of the response: up to half of the body without a given number.
std::size_t bytesBefore(std::string const& response, Fault const& fault) {
    std::size_t const body = bodyOf(response);
    std::size_t const middle = body + (response.size() - body) / 2;
    return std::min(response.size(), fault.m_Bytes ? static_cast<std::size_t>(*fault.m_Bytes) : middle);
}

void sendBytewise(Connection& connection, std::string const& response, double seconds) {
    for (char const& byte : response) {
        if (!connection.write(&byte, 1)) {
            return;
        }
        if (seconds > 0) {
            // Without a pause a slow client would receive many bytes together.
            connection.pause(seconds);
        }
    }
}

/// Sends blanks after the body, and a Content-Length that includes them.
void sendHuge(Connection& connection, std::string const& response, std::int64_t megabytes) {
    std::size_t const size = static_cast<std::size_t>(megabytes) * kMegabyte;
    std::size_t const body = bodyOf(response);
    std::string head = response.substr(0, body);
    std::string const length = "Content-Length: ";
    std::size_t const at = head.find(length);
    if (at != std::string::npos) {
        std::size_t const from = at + length.size();
        head.replace(from, head.find("\r\n", from) - from, std::to_string(std::max(size, response.size() - body)));
    }
    std::string const rest = response.substr(body);
    std::string const blanks(kMegabyte, ' ');
    bool going = connection.write(head.data(), head.size()) && connection.write(rest.data(), rest.size());
    for (std::size_t sent = rest.size(); going && sent < size; sent += blanks.size()) {
        going = connection.write(blanks.data(), std::min(blanks.size(), size - sent));
    }
}

void send(Connection& connection, std::string const& text) {
    connection.write(text.data(), text.size());
}

constexpr std::size_t kMaxKept = std::size_t{64} * 1024;

}  // namespace

void deliver(Connection& connection, std::string const& response, std::optional<Fault> const& fault) {
    if (!fault) {
        connection.write(response.data(), response.size(), Connection::Next::kEnd);
        return;
    }
    switch (fault->m_Kind) {
        case FaultKind::kReset:
            connection.reset();
            return;
        case FaultKind::kDrop:
            return;
        case FaultKind::kDelay:
            connection.pause(secondsOf(*fault));
            send(connection, response);
            return;
        case FaultKind::kStallBefore:
            connection.pauseWhileConnected(secondsOf(*fault));
            return;
        case FaultKind::kStallInside:
            send(connection, response.substr(0, bytesBefore(response, *fault)));
            connection.pauseWhileConnected(secondsOf(*fault));
            return;
        case FaultKind::kBytewise:
            sendBytewise(connection, response, secondsOf(*fault));
            return;
        case FaultKind::kTruncate:
            send(connection, response.substr(0, bytesBefore(response, *fault)));
            return;
        case FaultKind::kNoBlankLine: {
            std::size_t const body = bodyOf(response);
            send(connection, response.substr(0, body - std::min<std::size_t>(body, 2)) + response.substr(body));
            return;
        }
        case FaultKind::kNulBytes:
            send(connection, std::string(response).insert(bytesBefore(response, *fault), 1, '\0'));
            return;
        case FaultKind::kTwice:
            send(connection, response + response);
            return;
        case FaultKind::kHuge:
            sendHuge(connection, response, megabytesOf(*fault));
            return;
        default:
            send(connection, response);
    }
}

ExchangeLog::ExchangeLog(Store& store, std::unique_ptr<Store::Request> request, Exchange exchange, TimePoint begin)
    : m_Store(store), m_Request(std::move(request)), m_Exchange(std::move(exchange)), m_Begin(begin) {}

void ExchangeLog::responseReady(std::string const& response) {
    m_Exchange.m_Response = keptText(response);
    m_Exchange.m_Microseconds = microsecondsSince(m_Begin);
    m_Exchange.m_Number = m_Request->end(m_Exchange);
}

void ExchangeLog::responseSent(std::size_t bytes, bool isReset) {
    if (!m_Exchange.m_Fault.empty()) {
        m_Store.setDelivery(m_Exchange.m_Number, deliveryText(bytes, isReset, microsecondsSince(m_Begin)));
    }
}

std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin).count();
}

std::string deliveryText(std::size_t bytes, bool isReset, std::int64_t microseconds) {
    return std::to_string(bytes) + " bytes, then " + (isReset ? "a reset" : "the end") + ", after " +
           millisecondsText(microseconds);
}

std::string keptText(std::string const& text) {
    return text.size() <= kMaxKept ? text : text.substr(0, kMaxKept) + "... (cut)";
}

std::string keptRequest(std::string const& raw) {
    std::string kept;
    std::size_t from = 0;
    bool inHead = true;
    while (inHead && from < raw.size()) {
        std::size_t const lineEnd = std::min(raw.find('\n', from), raw.size() - 1) + 1;
        std::string line = raw.substr(from, lineEnd - from);
        std::string const name = "authorization:";
        kept += lowerCase(line.substr(0, name.size())) == name ? "Authorization: (covered)\r\n" : line;
        inHead = line != "\r\n" && line != "\n";
        from = lineEnd;
    }
    return keptText(kept + raw.substr(std::min(from, raw.size())));
}

}  // namespace sandbox
