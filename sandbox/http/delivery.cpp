#include "sandbox/http/delivery.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace sandbox {

namespace {

constexpr char kBlankLine[] = "\r\n\r\n";
constexpr std::size_t kMegabyte = 1024 * 1024;

/// Where the body begins; the end when there is none.
std::size_t bodyOf(std::string const& answer) {
    std::size_t const end = answer.find(kBlankLine);
    return end == std::string::npos ? answer.size() : end + sizeof kBlankLine - 1;
}

/// How many bytes go before a fault in the middle of the answer: half of the body when it is not told.
std::size_t bytesBefore(std::string const& answer, Fault const& fault) {
    std::size_t const body = bodyOf(answer);
    std::size_t const middle = body + (answer.size() - body) / 2;
    return std::min(answer.size(), fault.m_Bytes ? static_cast<std::size_t>(*fault.m_Bytes) : middle);
}

void sendBytewise(Connection& connection, std::string const& answer, double seconds) {
    for (char const& byte : answer) {
        if (!connection.write(&byte, 1)) {
            return;
        }
        if (seconds > 0) {
            // Without it a reader who is not at once there gets many together.
            connection.pause(seconds);
        }
    }
}

/// Blanks after the body, in a head that has been made to agree with it.
void sendHuge(Connection& connection, std::string const& answer, std::int64_t megabytes) {
    std::size_t const size = static_cast<std::size_t>(megabytes) * kMegabyte;
    std::size_t const body = bodyOf(answer);
    std::string head = answer.substr(0, body);
    std::string const length = "Content-Length: ";
    std::size_t const at = head.find(length);
    if (at != std::string::npos) {
        std::size_t const from = at + length.size();
        head.replace(from, head.find("\r\n", from) - from, std::to_string(std::max(size, answer.size() - body)));
    }
    std::string const rest = answer.substr(body);
    std::string const blanks(kMegabyte, ' ');
    bool going = connection.write(head.data(), head.size()) && connection.write(rest.data(), rest.size());
    for (std::size_t sent = rest.size(); going && sent < size; sent += blanks.size()) {
        going = connection.write(blanks.data(), std::min(blanks.size(), size - sent));
    }
}

void send(Connection& connection, std::string const& text) {
    connection.write(text.data(), text.size());
}

}  // namespace

void deliver(Connection& connection, std::string const& answer, std::optional<Fault> const& fault) {
    if (!fault) {
        send(connection, answer);
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
            send(connection, answer);
            return;
        case FaultKind::kStallBefore:
            connection.pauseWhileConnected(secondsOf(*fault));
            return;
        case FaultKind::kStallInside:
            send(connection, answer.substr(0, bytesBefore(answer, *fault)));
            connection.pauseWhileConnected(secondsOf(*fault));
            return;
        case FaultKind::kBytewise:
            sendBytewise(connection, answer, secondsOf(*fault));
            return;
        case FaultKind::kTruncate:
            send(connection, answer.substr(0, bytesBefore(answer, *fault)));
            return;
        case FaultKind::kNoBlankLine: {
            std::size_t const body = bodyOf(answer);
            send(connection, answer.substr(0, body - std::min<std::size_t>(body, 2)) + answer.substr(body));
            return;
        }
        case FaultKind::kNulBytes:
            send(connection, std::string(answer).insert(bytesBefore(answer, *fault), 1, '\0'));
            return;
        case FaultKind::kTwice:
            send(connection, answer + answer);
            return;
        case FaultKind::kHuge:
            sendHuge(connection, answer, megabytesOf(*fault));
            return;
        default:
            send(connection, answer);
    }
}

}  // namespace sandbox
