// Looking up: states, orders and evidence as JSON.
//
// Each function reads in one transaction (inSnapshot), so that what it returns was true at one moment. The members are
// listed in docs/paid-once.md.
#include <set>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "ledger/json.h"
#include "ledger/orderledger.h"

namespace ledger {

namespace {

constexpr std::int32_t kMaxPage = 1000;
constexpr std::int64_t kEvidenceVersion = 1;
constexpr char kDamaged[] = "damaged";  // in lists, in place of a state

struct FilterRow {
    char const* m_Name;
    Filter m_Filter;
};

// clang-format off
constexpr FilterRow kFilters[] = {
    {"",            Filter::kAll},
    {"paid",        Filter::kPaid},
    {"untold",      Filter::kUntold},
    {"undelivered", Filter::kUndelivered},
    {"surplus",     Filter::kSurplus},
    {"attention",   Filter::kAttention},
};
// clang-format on

Filter filterNamed(std::string const& name) {
    for (FilterRow const& row : kFilters) {
        if (name == row.m_Name) {
            return row.m_Filter;
        }
    }
    if (stateNamed(name)) {
        return Filter::kState;
    }
    throw Failure(KVX_E_LEDGER_INVALID, "there is no filter \"" + printable(name) + "\"");
}

/// Whether a person has to look at the attempt, because the worker will not, or has not got anywhere.
bool wantsAttention(AttemptRow const& attempt, std::int64_t maxAsks) {
    return (rowOf(attempt.m_State).m_WantsAttention && !attempt.m_DueAt) || attempt.m_Asks >= maxAsks;
}

/// The name of a result code; null for none.
std::optional<std::string> codeName(std::optional<std::int64_t> const& code) {
    return code ? std::optional<std::string>(KVX_GetErrorName(static_cast<std::int32_t>(*code))) : std::nullopt;
}

void writeOrderMembers(JsonWriter& json, OrderRow const& order, std::string const& state, AttemptRow const& standing) {
    json.member("number", order.m_Number)
        .member("amount", order.m_Amount)
        .member("currency", order.m_Currency)
        .member("state", state);
    json.name("paid").flag(order.m_PaidAttempt.has_value());
    json.member("created", order.m_CreatedAt)
        .member("told", order.m_ToldAt)
        .member("delivered", order.m_DeliveredAt)
        .member("newestAttempt", order.m_NewestAttempt)
        .member("paidAttempt", order.m_PaidAttempt)
        .member("lastCode", standing.m_LastCode)
        .member("lastCodeName", codeName(standing.m_LastCode))
        .member("lastReason", standing.m_LastReason)
        .member("due", standing.m_DueAt);
}

void writeAttempt(JsonWriter& json, AttemptRow const& attempt, std::int64_t maxAsks) {
    json.open('{')
        .member("attempt", attempt.m_Attempt)
        .member("token", attempt.m_Token)
        .member("state", std::string(nameOf(attempt.m_State)));
    json.name("attention").flag(wantsAttention(attempt, maxAsks));
    json.member("url", attempt.m_Url)
        .member("created", attempt.m_CreatedAt)
        .member("expires", attempt.m_ExpiresAt)
        .member("result", attempt.m_Result)
        .member("paid", attempt.m_PaidAt)
        .member("paymentId", attempt.m_PaymentId)
        .member("tries", attempt.m_Tries)
        .member("refusals", attempt.m_Refusals)
        .member("asks", attempt.m_Asks)
        .member("lastCode", attempt.m_LastCode)
        .member("lastCodeName", codeName(attempt.m_LastCode))
        .member("lastReason", attempt.m_LastReason)
        .member("due", attempt.m_DueAt)
        .member("leaseOwner", attempt.m_LeaseOwner)
        .close('}');
}

void writeOrder(JsonWriter& json, OrderRow const& order, AttemptRow const& standing,
                std::vector<AttemptRow> const& attempts, std::int64_t maxAsks) {
    json.open('{');
    writeOrderMembers(json, order, nameOf(standing.m_State), standing);
    json.name("attributes").raw(order.m_Attributes);
    json.name("attempts").open('[');
    for (AttemptRow const& attempt : attempts) {
        writeAttempt(json, attempt, maxAsks);
    }
    json.close(']').close('}');
}

void writeTransition(JsonWriter& json, TransitionRecord const& record) {
    Evidence const& evidence = record.m_Evidence;
    json.open('{')
        .member("sequence", record.m_Sequence)
        .member("attempt", record.m_Attempt)
        .member("from", record.m_From)
        .member("to", record.m_To)
        .member("event", record.m_Event)
        .member("cause", evidence.m_Cause)
        .member("time", record.m_At)
        .member("code", evidence.m_Code)
        .member("codeName", codeName(evidence.m_Code))
        .member("message", evidence.m_Message);
    if (evidence.m_Message) {
        json.member("messageBase64", base64Of(*evidence.m_Message));
    }
    if (evidence.m_Message && evidence.m_Signature) {
        std::string const signedBytes = widened(*evidence.m_Message);
        json.member("keyFingerprint", evidence.m_KeyFingerprint)
            .member("signature", *evidence.m_Signature)
            .member("signatureBase64", base64Of(bytesOf(*evidence.m_Signature)))
            .member("signedBase64", base64Of(signedBytes))
            .member("sha1", hexOf(sha1Of(signedBytes)));
    }
    json.close('}');
}

}  // namespace

std::string OrderLedger::stateOf(std::string const& number) {
    return inSnapshot(store().database(),
                      [&] { return std::string(nameOf(standingAttempt(requireOrder(number)).m_State)); });
}

std::string OrderLedger::orderAsJson(std::string const& number) {
    return inSnapshot(store().database(), [&] { return readOrder(number); });
}

std::string OrderLedger::readOrder(std::string const& number) {
    OrderRow const order = requireOrder(number);
    JsonWriter json;
    writeOrder(json, order, standingAttempt(order), store().attempts(order.m_Id), m_Options.m_MaxAsks);
    return json.json();
}

std::string OrderLedger::ordersAsJson(std::string const& filter, std::string const& after, std::int32_t limit) {
    Filter const chosen = filterNamed(filter);
    if (limit < 1 || limit > kMaxPage) {
        throw Failure(KVX_E_LEDGER_INVALID, "the limit is not from 1 to " + std::to_string(kMaxPage));
    }
    return inSnapshot(store().database(), [&] { return readOrders(chosen, filter, after, limit); });
}

std::string OrderLedger::readOrders(Filter chosen, std::string const& state, std::string const& after,
                                    std::int32_t limit) {
    std::int64_t const afterId = after.empty() ? 0 : requireOrder(after).m_Id;
    std::vector<OrderRow> orders =
        store().orders(chosen, {state, m_Options.m_MaxAsks}, afterId, std::int64_t{limit} + 1);
    bool const hasMore = orders.size() > static_cast<std::size_t>(limit);
    if (hasMore) {
        orders.pop_back();
    }
    JsonWriter json;
    json.open('{').name("orders").open('[');
    for (OrderRow const& order : orders) {
        json.open('{');
        try {
            AttemptRow const standing = standingAttempt(order);
            writeOrderMembers(json, order, nameOf(standing.m_State), standing);
        } catch (Failure const& failure) {
            if (failure.code() != KVX_E_LEDGER_DAMAGED) {
                throw;
            }
            AttemptRow damaged;
            damaged.m_LastCode = failure.code();
            damaged.m_LastReason = failure.what();
            writeOrderMembers(json, order, kDamaged, damaged);
        }
        json.close('}');
    }
    json.close(']');
    json.member("next", hasMore ? std::optional<std::string>(orders.back().m_Number) : std::nullopt).close('}');
    return json.json();
}

std::string OrderLedger::evidenceAsJson(std::string const& number) {
    return inSnapshot(store().database(), [&] { return readEvidence(number); });
}

std::string OrderLedger::readEvidence(std::string const& number) {
    OrderRow const order = requireOrder(number);
    std::vector<TransitionRecord> const records = store().transitions(order.m_Id);
    JsonWriter json;
    json.open('{').member("evidenceVersion", kEvidenceVersion);
    json.member("signatures", std::string("RSA, PKCS#1 v1.5 padding around the bare SHA-1 digest of signedBase64; "
                                          "these bytes are those of message, each followed by 00, or by ff when it is "
                                          "80 or above"));
    json.name("order");
    writeOrder(json, order, standingAttempt(order), store().attempts(order.m_Id), m_Options.m_MaxAsks);
    std::set<std::string> fingerprints;
    json.name("transitions").open('[');
    for (TransitionRecord const& record : records) {
        writeTransition(json, record);
        if (record.m_Evidence.m_KeyFingerprint) {
            fingerprints.insert(*record.m_Evidence.m_KeyFingerprint);
        }
    }
    json.close(']').name("keys").open('[');
    for (std::string const& fingerprint : fingerprints) {
        std::optional<ServiceKey> const key = store().keyWithFingerprint(fingerprint);
        if (key) {
            json.open('{')
                .member("fingerprint", key->m_Fingerprint)
                .member("keyId", key->m_KeyId)
                .member("pem", publicKeyPem(bytesOf(key->m_Blob)))
                .member("first", key->m_FirstAt)
                .member("replaced", key->m_ReplacedAt)
                .close('}');
        }
    }
    json.close(']').close('}');
    return json.json();
}

}  // namespace ledger
