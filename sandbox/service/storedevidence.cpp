// The keys and the stored messages that the calculator compares with.
//
// Messages are searched by digest, newest first: each payment's PayInit, the confirmations that the service could have
// signed for its states, then DATA of all exchanges. Long messages are skipped. Confirmations are not stored; they are
// built again with the key in question, including the MSGTYPE that the fault `wrong-type` uses.

#include "sandbox/service/storedevidence.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/crypto/signature.h"
#include "sandbox/service/confirmation.h"

namespace sandbox {

namespace {

using diagnosis::KnownKey;
using diagnosis::SeenMessage;

// How many payments and how many exchanges are searched, the latest of each.
constexpr std::int64_t kMaxRecalled = 1000;

// How many bytes are digested to find a single change; a fraction of a second.
constexpr long long kMaxSearched = 40'000'000;

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

/// All keys of the service, then those of the merchants.
std::vector<KnownKey> knownKeys(Services const& services) {
    std::vector<KnownKey> keys;
    std::string const current = services.m_Keys.current()->m_Id;
    for (KeyRing::Key const& key : services.m_Keys.all()) {
        keys.push_back({key->m_Id, "", key->m_Id == current, std::shared_ptr<EVP_PKEY>(key, key->m_Key.get())});
    }
    for (PublishedKey const& published : services.m_Store.merchantKeys()) {
        keys.push_back({published.m_Id, published.m_Key.m_Account, false, readPublicKeyBlob(published.m_Key.m_Blob)});
    }
    return keys;
}

/// The Recall among the messages of `services`: of the newest payments, the confirmations that were signed for them,
/// and DATA of the newest exchanges.
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

}  // namespace

diagnosis::Evidence storedEvidence(Services const& services) {
    std::string const count = std::to_string(kMaxRecalled);
    return {knownKeys(services),
            [&services](KnownKey const& key, std::string const& digest) { return recallSeen(services, key, digest); },
            {"this service", "is neither a key of this service nor a key published here by a merchant",
             "Nor does it belong to another message: the latest " + count + " payments and the latest " + count +
                 " exchanges were searched."},
            true,
            kMaxSearched};
}

}  // namespace sandbox
