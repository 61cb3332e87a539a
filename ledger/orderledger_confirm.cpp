// Confirming: from the bytes that a messenger brings to a verdict.
//
// Order: sizes, signature, key, type, token, content; then the decision, which depends on order and attempt alone. Most
// confirmations come twice and the second changes nothing, so a transaction reads first and waits for other writers
// only where there is something to record. A confirmation under a key that is not here is kept when it claims to be for
// an attempt that fits, a few for each attempt, so that a stranger can fill no more than the room of an own order.
#include <algorithm>
#include <cstddef>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "ledger/orderledger.h"

namespace ledger {

namespace {

constexpr std::size_t kMaxSignature = 4096;
constexpr std::size_t kMaxMessenger = 64;

Verdict refused(std::int32_t reason, std::string sentence, std::string number = "") {
    return {KVX_LEDGER_REFUSED, reason, std::move(sentence), std::move(number)};
}

Verdict accepted(std::int32_t outcome, std::string sentence, std::string number) {
    return {outcome, KVX_LEDGER_REASON_NONE, std::move(sentence), std::move(number)};
}

Verdict kept(std::int32_t reason, std::string sentence) {
    return {KVX_LEDGER_KEPT, reason, std::move(sentence), ""};
}

/// "AMOUNT is "1.00", the order's is "2.00"".
std::string difference(char const* name, std::string const& found, std::string const& wanted) {
    return std::string(name) + " is \"" + printable(found) + "\", the order's is \"" + printable(wanted) + "\"";
}

bool isHex(std::string const& text) {
    return text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::string messengerOf(Confirmation const& confirmation) {
    return confirmation.m_Messenger.substr(0, kMaxMessenger);
}

/// The event for a result that is no payment; nothing for any other result.
std::optional<Event> unpaidEvent(Options const& options, std::string const& result) {
    if (result == options.m_Declined) {
        return Event::kConfirmedDeclined;
    }
    if (result == options.m_Cancelled) {
        return Event::kConfirmedCancelled;
    }
    if (result == options.m_Expired) {
        return Event::kConfirmedExpired;
    }
    return std::nullopt;
}

}  // namespace

Verdict const& OrderLedger::confirm(Confirmation const& confirmation, TextOut const& number) {
    static_cast<void>(store());
    m_LastVerdict.reset();
    m_LastVerdict = examine(confirmation, number);
    return *m_LastVerdict;
}

Verdict OrderLedger::examine(Confirmation const& confirmation, TextOut const& number) {
    if (confirmation.m_Data.size() > static_cast<std::size_t>(m_Options.m_MaxData) ||
        confirmation.m_Signature.size() > kMaxSignature) {
        return refused(KVX_LEDGER_REASON_TOO_LARGE, "DATA has " + std::to_string(confirmation.m_Data.size()) +
                                                        " bytes, SIGNATURE " +
                                                        std::to_string(confirmation.m_Signature.size()));
    }
    Time const at = now();
    std::optional<Message> message;
    Result const result = account().verify(confirmation.m_Data, confirmation.m_Signature, message);
    if (result.m_Code == KVX_E_NOT_FOUND) {
        number.requireRoomFor("");
        return keep(confirmation, at);
    }
    if (std::optional<Verdict> refusal = refusalOfVerification(result, confirmation)) {
        return std::move(*refusal);
    }
    return examineVerified(confirmation, message.value(), &number, at);
}

/// The verdict on a confirmation whose signature fits. Without `number` no room is required for the order's number.
Verdict OrderLedger::examineVerified(Confirmation const& confirmation, Message const& message, TextOut const* number,
                                     Time at) {
    Claim const claim = claimOf(message);
    if (m_Keys->isOwn(claim.m_KeyId)) {
        return refused(KVX_LEDGER_REASON_OWN_KEY, "the merchant's own key has signed it");
    }
    std::optional<std::string> const keyFingerprint = m_Keys->accepted(claim.m_KeyId, at, m_Options.m_OldKeySeconds);
    if (!keyFingerprint) {
        return refused(KVX_LEDGER_REASON_NOT_SERVICE_KEY,
                       "the key \"" + printable(claim.m_KeyId) + "\" is not the service's, or no longer");
    }
    if (claim.m_Type != "PayConfirm") {
        return refused(KVX_LEDGER_REASON_WRONG_TYPE, "it is a \"" + printable(claim.m_Type) + "\"");
    }
    return inTransactionIfChanged(store().database(), [&](Transaction& transaction) {
        std::optional<Payment> payment = store().paymentWithToken(claim.m_Token);
        if (!payment) {
            return refusedForToken(claim);
        }
        AttemptRow& attempt = payment->m_Attempt;
        OrderRow& order = payment->m_Order;
        if (number != nullptr) {
            number->requireRoomFor(order.m_Number);
        }
        if (std::optional<Verdict> refusal = refusalOfContent(claim, order)) {
            return std::move(*refusal);
        }
        Decision const decision = decide(order, attempt, claim, at);
        // Only a caller can deliver; a payment that the worker finds waits for a confirmation or for Ledger_NextPaid.
        bool const isReported = decision.m_Tells && number != nullptr;
        if (!decision.m_Event && !isReported) {
            return decision.m_Verdict;
        }
        transaction.startChanges();
        if (isReported) {
            noteReport(order, at);
        }
        if (!decision.m_Event) {
            store().save(order);
            return decision.m_Verdict;
        }
        bool const isPaid = claim.m_Result == m_Options.m_Authorised;
        if (isPaid) {
            attempt.m_Confirmation = confirmation.m_Data;
            attempt.m_PaymentId = claim.m_PaymentId;
        } else {
            attempt.m_Result = claim.m_Result;
        }
        Evidence evidence;
        evidence.m_Cause = messengerOf(confirmation);
        evidence.m_Message = confirmation.m_Data;
        evidence.m_Signature = confirmation.m_Signature;
        evidence.m_KeyFingerprint = *keyFingerprint;
        bool const isStored = move(order, attempt, *decision.m_Event, evidence, at);
        if (isReported && !isStored) {
            store().save(order);
        }
        return decision.m_Verdict;
    });
}

/// The verdict on a confirmation that did not verify; nothing when it did. Throws Failure when that is not its fault.
std::optional<Verdict> OrderLedger::refusalOfVerification(Result const& result, Confirmation const& confirmation) {
    switch (result.m_Code) {
        case KVX_OK:
            return std::nullopt;
        case KVX_E_MISSING_SIGNATURE:
            return refused(KVX_LEDGER_REASON_NO_SIGNATURE, result.m_Reason);
        case KVX_E_NO_KEY_ID:
            return refused(KVX_LEDGER_REASON_NO_KEY_ID, result.m_Reason);
        case KVX_E_WRONG_RESPONSE:
            return refused(KVX_LEDGER_REASON_WRONG_TYPE, result.m_Reason);
        case KVX_E_INVALID_SIGNATURE:
            if (m_Keys->isOwn(keyIdNamedIn(confirmation.m_Data))) {
                return refused(KVX_LEDGER_REASON_OWN_KEY, "it names the merchant's own key");
            }
            return refused(KVX_LEDGER_REASON_BAD_SIGNATURE, result.m_Reason);
        case KVX_E_INVALID_KEY:
        case KVX_E_COMMAND_FAILED:
            // With a signature that is hexadecimal the key's file is what cannot be read.
            if (!isHex(confirmation.m_Signature)) {
                return refused(KVX_LEDGER_REASON_BAD_SIGNATURE, "the signature is not hexadecimal");
            }
            break;
        case KVX_E_INVALID_FORMAT:
            if (!account().hasBrokenSettings()) {
                return refused(KVX_LEDGER_REASON_FORMAT, result.m_Reason);
            }
            break;
        default:
            break;
    }
    throw Failure(result.m_Code, result.m_Reason);
}

Verdict OrderLedger::refusedForToken(Claim const& claim) {
    return refused(KVX_LEDGER_REASON_UNKNOWN_TOKEN, "no payment has the TOKEN \"" + printable(claim.m_Token) + "\"");
}

std::optional<Verdict> OrderLedger::refusalOfContent(Claim const& claim, OrderRow const& order) const {
    if (claim.m_OrderId != order.m_Number) {
        return refused(KVX_LEDGER_REASON_WRONG_ORDER, difference("ORDERID", claim.m_OrderId, order.m_Number),
                       order.m_Number);
    }
    if (claim.m_Amount != order.m_Amount) {
        return refused(KVX_LEDGER_REASON_WRONG_AMOUNT, difference("AMOUNT", claim.m_Amount, order.m_Amount),
                       order.m_Number);
    }
    if (claim.m_Currency != order.m_Currency) {
        return refused(KVX_LEDGER_REASON_WRONG_CURRENCY, difference("CURRENCY", claim.m_Currency, order.m_Currency),
                       order.m_Number);
    }
    if (claim.m_Result != m_Options.m_Authorised && !unpaidEvent(m_Options, claim.m_Result)) {
        return refused(KVX_LEDGER_REASON_WRONG_RESULT,
                       m_Options.m_ResultAttribute + " is \"" + printable(claim.m_Result) + "\"", order.m_Number);
    }
    return std::nullopt;
}

/// Keeps a confirmation whose key is not here, when what it claims fits an attempt and there is room.
Verdict OrderLedger::keep(Confirmation const& confirmation, Time at) {
    std::string const keyId = keyIdNamedIn(confirmation.m_Data);
    std::optional<Message> const message = account().filled(confirmation.m_Data);
    if (keyId.empty() || !message) {
        return refused(KVX_LEDGER_REASON_NO_KEY_ID, "it names no key that a file can have the name of");
    }
    Claim const claim = claimOf(*message);
    if (claim.m_Type != "PayConfirm") {
        return refused(KVX_LEDGER_REASON_WRONG_TYPE, "it is a \"" + printable(claim.m_Type) + "\"");
    }
    std::optional<Payment> const payment = store().paymentWithToken(claim.m_Token);
    if (!payment) {
        return refusedForToken(claim);
    }
    if (std::optional<Verdict> refusal = refusalOfContent(claim, payment->m_Order)) {
        refusal->m_Number.clear();
        return std::move(*refusal);
    }
    KeptRow const row{0,
                      payment->m_Attempt.m_OrderId,
                      payment->m_Attempt.m_Attempt,
                      keyId,
                      messengerOf(confirmation),
                      confirmation.m_Data,
                      confirmation.m_Signature,
                      at};
    std::string const sentence = "the key \"" + printable(keyId) + "\" is not in the directory";
    if (store().isKept(row)) {
        return kept(KVX_LEDGER_REASON_UNKNOWN_KEY, sentence);
    }
    return inTransaction([&] {
        if (store().isKept(row)) {
            return kept(KVX_LEDGER_REASON_UNKNOWN_KEY, sentence);
        }
        if (store().keptOf(row.m_OrderId, row.m_Attempt) >= m_Options.m_KeptEach ||
            store().keptInAll() >= m_Options.m_MaxKept) {
            return kept(KVX_LEDGER_REASON_KEPT_FULL, sentence + ", and there is no room to keep it");
        }
        store().add(row);
        return kept(KVX_LEDGER_REASON_UNKNOWN_KEY, sentence);
    });
}

OrderLedger::Claim OrderLedger::claimOf(Message const& message) const {
    Claim claim;
    claim.m_KeyId = message.get("KEYID");
    claim.m_Type = message.get("MSGTYPE");
    claim.m_Token = message.get("TOKEN");
    claim.m_OrderId = message.get("ORDERID");
    claim.m_Amount = message.get("AMOUNT");
    claim.m_Currency = message.get("CURRENCY");
    claim.m_Result = message.get(m_Options.m_ResultAttribute.c_str());
    claim.m_PaymentId = message.get("ID");
    return claim;
}

/// What becomes of the attempt. Requires: refusalOfContent() finds nothing.
OrderLedger::Decision OrderLedger::decide(OrderRow const& order, AttemptRow const& attempt, Claim const& claim,
                                          Time at) const {
    bool const isLate =
        m_Options.m_AcceptSeconds != 0 && at - attempt.m_ExpiresAt > m_Options.m_AcceptSeconds * kSecond;
    std::optional<Event> const unpaid = unpaidEvent(m_Options, claim.m_Result);
    Decision decision =
        unpaid ? decideUnpaid(attempt, claim, *unpaid, isLate) : decidePaid(order, attempt, claim, isLate);
    decision.m_Verdict.m_Number = order.m_Number;
    return decision;
}

OrderLedger::Decision OrderLedger::decideUnpaid(AttemptRow const& attempt, Claim const& claim, Event event,
                                                bool isLate) const {
    if (attempt.m_Result == claim.m_Result) {
        return {accepted(KVX_LEDGER_KNOWN_ALREADY, "recorded before", ""), std::nullopt, false};
    }
    if (attempt.m_PaidAt) {
        return {refused(KVX_LEDGER_REASON_CONTRADICTS, "the payment is known as paid"), std::nullopt, false};
    }
    if (isLate) {
        return {refused(KVX_LEDGER_REASON_TOO_LATE, "the payment expired too long ago"), std::nullopt, false};
    }
    bool const changes = stateAfter(attempt.m_State, event).has_value();
    return {accepted(KVX_LEDGER_NOT_PAID, "the service says " + printable(claim.m_Result), ""),
            changes ? std::optional<Event>(event) : std::nullopt, false};
}

OrderLedger::Decision OrderLedger::decidePaid(OrderRow const& order, AttemptRow const& attempt, Claim const& claim,
                                              bool isLate) const {
    if (attempt.m_PaidAt) {
        if (attempt.m_PaymentId && *attempt.m_PaymentId != claim.m_PaymentId) {
            return {refused(KVX_LEDGER_REASON_OTHER_PAYMENT, difference("ID", claim.m_PaymentId, *attempt.m_PaymentId)),
                    std::nullopt, false};
        }
        bool const isNew = !attempt.m_Confirmation && stateAfter(attempt.m_State, Event::kConfirmedLater);
        std::optional<Event> const event =
            isNew ? std::optional<Event>(Event::kConfirmedLater) : std::optional<Event>();
        bool const counts = order.m_PaidAttempt == attempt.m_Attempt && attempt.m_State != State::kCaptureRefused;
        if (counts && !order.m_ToldAt) {
            return {accepted(KVX_LEDGER_PAID_NOW, "paid", ""), event, true};
        }
        return {accepted(KVX_LEDGER_KNOWN_ALREADY, "recorded before", ""), event, false};
    }
    if (isLate) {
        return {refused(KVX_LEDGER_REASON_TOO_LATE, "the payment expired too long ago"), std::nullopt, false};
    }
    if (order.m_PaidAttempt) {
        return {accepted(KVX_LEDGER_SURPLUS,
                         "attempt " + std::to_string(*order.m_PaidAttempt) + " has paid the order, this is attempt " +
                             std::to_string(attempt.m_Attempt),
                         ""),
                Event::kConfirmedSurplus, false};
    }
    if (order.m_ToldAt) {
        return {accepted(KVX_LEDGER_KNOWN_ALREADY, "paid again, after an earlier payment was given up", ""),
                Event::kConfirmedPaid, false};
    }
    return {accepted(KVX_LEDGER_PAID_NOW, "paid", ""), Event::kConfirmedPaid, true};
}

}  // namespace ledger
