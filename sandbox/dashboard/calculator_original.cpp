// The search for the message that was signed instead of DATA, and its differences from DATA.
//
// Searched by digest, newest first: each payment's PayInit, the confirmations that the service could have signed for
// its states, then DATA of all exchanges. Long messages are skipped. Confirmations are not stored; they are built again
// with the key in question, including the MSGTYPE that the fault `wrong-type` uses.

#include <algorithm>
#include <cstddef>
#include <utility>

#include "sandbox/crypto/signature.h"
#include "sandbox/dashboard/calculator.h"
#include "sandbox/service/confirmation.h"

namespace sandbox {

namespace {

// Longer messages are skipped, so that the whole search takes about a second.
constexpr std::int64_t kMaxRecalledBytes = std::int64_t{16} * 1024;

bool hasDigest(std::string const& text, std::string const& digest) {
    return digestOf(text, Widening::kZero) == digest || digestOf(text, Widening::kSign) == digest;
}

/// The confirmation of `payment` with this digest, as the service signs it with the key `keyId`, faults included.
/// Nothing when there is none.
std::optional<std::string> findConfirmation(std::string const& keyId, Payment const& payment,
                                            std::string const& digest) {
    for (HistoryEntry const& step : payment.m_History) {
        for (char const* type : {kConfirmationType, kUnexpectedType}) {
            std::string text = confirmationBy(keyId, type, payment, stateName(step.m_State)).text();
            if (hasDigest(text, digest)) {
                return text;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> valueOf(Attributes const& attributes, std::string const& name) {
    for (auto const& [present, value] : attributes) {
        if (present == name) {
            return value;
        }
    }
    return std::nullopt;
}

/// `text` without white space between its attributes. White space in values stays.
std::string withoutBlanksBetween(std::string const& text) {
    std::string out;
    char quote = '\0';
    for (char const c : text) {
        bool const isBlank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (quote != '\0' || !isBlank) {
            out += c;
        }
        if (quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == quote) {
            quote = '\0';
        }
    }
    return out;
}

}  // namespace

std::optional<SeenMessage> recallSeen(Services const& services, KnownKey const& key, std::string const& digest) {
    for (StoredPayment const& stored : services.m_Store.latestPayments(kMaxRecalled, kMaxRecalledBytes)) {
        std::string const page = "/payment?id=" + stored.m_Payment.m_Id;
        if (hasDigest(stored.m_Message, digest)) {
            return SeenMessage{stored.m_Message, "the PayInit of payment " + stored.m_Payment.m_Id, page};
        }
        std::optional<std::string> confirmation =
            key.ofService() ? findConfirmation(key.m_Id, stored.m_Payment, digest) : std::nullopt;
        if (confirmation) {
            return SeenMessage{std::move(*confirmation), "a confirmation of payment " + stored.m_Payment.m_Id, page};
        }
    }
    for (auto const& [number, data] : services.m_Store.latestData(kMaxRecalled, kMaxRecalledBytes)) {
        if (hasDigest(data, digest)) {
            std::string const text = std::to_string(number);
            return SeenMessage{data, "DATA of exchange " + text, "/exchange?number=" + text};
        }
    }
    return std::nullopt;
}

std::vector<Difference> differences(Attributes const& inSigned, Attributes const& inData) {
    std::vector<Difference> found;
    for (auto const& [name, value] : inSigned) {
        std::optional<std::string> other = valueOf(inData, name);
        if (other != value) {
            found.push_back({name, value, std::move(other)});
        }
    }
    for (auto const& [name, value] : inData) {
        if (!valueOf(inSigned, name)) {
            found.push_back({name, std::nullopt, value});
        }
    }
    return found;
}

std::string differenceInWriting(std::string const& inSigned, std::string const& inData) {
    if (Message::parse(inSigned).attributes() != Message::parse(inData).attributes()) {
        return "the attributes are in a different order";
    }
    if (withoutBlanksBetween(inSigned) == withoutBlanksBetween(inData)) {
        return "only white space between the attributes differs";
    }
    return "only the notation differs, such as escapes, quotation marks or the end tag";
}

}  // namespace sandbox
