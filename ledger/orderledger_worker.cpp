// The worker: one job at a time, until nothing is due.
//
// A job is claimed in a transaction that finds the attempt as it was seen, and with a capture or completion stores the
// intent to send it. Then comes the exchange, outside of any transaction, then the transaction that records its result.
// Whoever dies in between leaves an attempt whose lease runs out; the next worker finds it "capturing" and knows only
// that a capture may have been sent. A result that arrives after the lease has run out still counts when it is success.
//
// A lease is the time when the attempt is due again. A clock that was set back leaves such times far ahead; what lies
// more than kMaxClockSkew behind the longest pause is due at once. So the clocks of workers may differ by that much.
#include <algorithm>
#include <exception>
#include <limits>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "ledger/moneytable.h"
#include "ledger/orderledger.h"
#include "ledger/testpoints.h"

namespace ledger {

namespace {

/// Whether the attempt is as it was seen: in the same state, claimed by nobody since.
bool isAsSeen(AttemptRow const& attempt, AttemptRow const& seen) {
    return attempt.m_State == seen.m_State && attempt.m_DueAt == seen.m_DueAt &&
           attempt.m_LeaseOwner == seen.m_LeaseOwner;
}

void storeResult(AttemptRow& attempt, Result const& result) {
    attempt.m_LastCode = result.m_Code;
    attempt.m_LastReason =
        result.m_Code == KVX_OK ? std::optional<std::string>() : std::optional<std::string>(result.m_Reason);
}

/// What a status response says of another payment than this one; "" when nothing. It is not signed: the connection
/// makes it the service's, and the response to this request. So it need not name the payment, but whatever it repeats
/// has to be right.
std::string differenceIn(Message const& response, OrderRow const& order, AttemptRow const& attempt) {
    struct Known {
        char const* m_Name;
        std::optional<std::string> m_Value;  ///< Nothing: not known yet.
    };
    Known const known[] = {{"TOKEN", attempt.m_Token},
                           {"ID", attempt.m_PaymentId},
                           {"ORDERID", order.m_Number},
                           {"AMOUNT", order.m_Amount},
                           {"CURRENCY", order.m_Currency}};
    for (Known const& row : known) {
        std::optional<std::string> const found = response.find(row.m_Name);
        if (found && row.m_Value && *found != *row.m_Value) {
            return std::string(row.m_Name) + " is \"" + printable(*found) + "\", not \"" + printable(*row.m_Value) +
                   "\"";
        }
    }
    return "";
}

Evidence evidenceOf(std::string const& worker, Result const& result) {
    Evidence evidence;
    evidence.m_Cause = result.m_Reason.empty() ? worker : worker + ": " + result.m_Reason;
    evidence.m_Code = result.m_Code;
    return evidence;
}

}  // namespace

std::int32_t OrderLedger::runDue(std::int32_t limit) {
    if (limit < 1) {
        throw Failure(KVX_E_LEDGER_INVALID, "the limit is less than 1");
    }
    static_cast<void>(store());
    // A renewal that cannot be finished must not keep the worker from its other jobs.
    std::exception_ptr renewalFailure;
    try {
        SetupRenewal(account().directory(), store(), m_Options).catchUp();
    } catch (Failure const&) {
        renewalFailure = std::current_exception();
    }
    m_Keys->recordCurrent(now());
    if (!m_HasWoken) {
        wake();
    }
    m_HasWoken = true;
    std::int32_t done = tryKept(limit);
    store().database().tidy();
    while (done < limit && runOne()) {
        ++done;
        store().database().tidy();
    }
    if (renewalFailure != nullptr) {
        std::rethrow_exception(renewalFailure);
    }
    return done;
}

/// Makes due what handles with other options have left alone.
void OrderLedger::wake() {
    inTransaction([&] {
        if (m_Options.canAsk() || m_Options.m_CaptureIdempotent) {
            constexpr std::int64_t kAny = std::numeric_limits<std::int64_t>::max();
            store().wakeDoubtful(now(), m_Options.canAsk() ? kAny : m_Options.m_MaxRefusals, m_Options.m_MaxRefusals);
        }
        if (m_Options.m_Capture) {
            store().wakeAuthorised(now());
        }
        return true;
    });
}

/// Drops the kept confirmations that have waited too long, and examines those whose key has become the service's.
std::int32_t OrderLedger::tryKept(std::int32_t limit) {
    Time const at = now();
    Time const oldest = at - m_Options.m_OldKeySeconds * kSecond;
    if (store().hasKeptBefore(oldest)) {
        inTransaction([&] {
            store().removeKeptBefore(oldest);
            return true;
        });
    }
    std::int32_t done = 0;
    for (std::string const& keyId : store().keptKeys()) {
        if (done == limit) {
            break;
        }
        try {
            if (!m_Keys->isKnown(keyId, at, m_Options.m_OldKeySeconds)) {
                continue;
            }
        } catch (Failure const& failure) {
            if (failure.code() == KVX_E_CANNOT_OPEN) {
                continue;  // the key's file cannot be read, which must not keep the worker from its other jobs
            }
            throw;
        }
        done += tryKeptUnder(keyId, limit - done, at);
    }
    return done;
}

/// Examines up to `limit` kept confirmations under a key that is here; returns how many.
std::int32_t OrderLedger::tryKeptUnder(std::string const& keyId, std::int32_t limit, Time at) {
    constexpr std::int32_t kPage = 100;
    std::int32_t done = 0;
    while (done < limit) {
        std::vector<KeptRow> const page = store().kept(keyId, std::min(limit - done, kPage));
        for (KeptRow const& kept : page) {
            if (!examineKept(kept, at)) {
                return done;
            }
            inTransaction([&] {
                store().removeKept(kept.m_Id);
                return true;
            });
            ++done;
        }
        if (page.empty()) {
            break;
        }
    }
    return done;
}

/// Records what a kept confirmation says; false when the key's file is broken, which must not keep the worker from its
/// other jobs.
bool OrderLedger::examineKept(KeptRow const& kept, Time at) {
    Confirmation const confirmation{"kept " + kept.m_Messenger, kept.m_Data, kept.m_Signature};
    std::optional<Message> message;
    Result const result = account().verify(kept.m_Data, kept.m_Signature, message);
    try {
        if (!refusalOfVerification(result, confirmation)) {
            examineVerified(confirmation, message.value(), nullptr, at);
        }
        return true;
    } catch (Failure const& failure) {
        if (failure.code() == result.m_Code) {
            return false;
        }
        throw;
    }
}

/// Does the job of the attempt that has been due for the longest time; false when none is due.
bool OrderLedger::runOne() {
    Time const longest =
        std::max({m_Options.m_LeaseSeconds, m_Options.m_RetryMax, m_Options.m_SettleSeconds}) * kSecond + kMaxClockSkew;
    while (true) {
        Time const at = now();
        std::optional<AttemptRow> const attempt =
            store().dueAttempt(at, at + longest, std::max(m_Options.m_GraceSeconds * kSecond, longest));
        if (!attempt) {
            return false;
        }
        bool isDone = false;
        switch (rowOf(attempt->m_State).m_Job) {
            case Job::kCapture:
                isDone = m_Options.m_Capture ? capture(store().order(attempt->m_OrderId), *attempt) : rest(*attempt);
                break;
            case Job::kComplete:
                isDone = m_Options.m_Complete ? complete(store().order(attempt->m_OrderId), *attempt) : rest(*attempt);
                break;
            case Job::kTakeover:
                isDone = interrupt(*attempt);
                break;
            case Job::kAsk:
            case Job::kSettle:
                isDone = m_Options.canAsk() ? ask(*attempt) : withoutAsking(*attempt);
                break;
            case Job::kNone:
                isDone = rest(*attempt);
                break;
        }
        if (isDone) {
            return true;
        }
    }
}

bool OrderLedger::capture(OrderRow const& order, AttemptRow const& attempt) {
    std::optional<Message> message;
    std::string text;
    try {
        message.emplace(captureMessage(order, attempt));
        text = message->text();
    } catch (Failure const& failure) {
        return postpone(attempt, {failure.code(), failure.what()});
    }
    std::string const owner = newOwner();
    if (!claim(attempt, Event::kCaptureSent, text, owner)) {
        return false;
    }
    reached(TestPoint::kBeforeSending);
    Result const result = message->capture();
    reached(TestPoint::kAfterSending);
    recordExchange(attempt, owner, Event::kCaptureDone, Event::kCaptureFailed, Event::kCaptureInDoubt, result);
    return true;
}

/// What a capture sends: the confirmation; for a payment that only a status response has made known, what it would say.
Message OrderLedger::captureMessage(OrderRow const& order, AttemptRow const& attempt) const {
    if (attempt.m_Confirmation) {
        std::optional<Message> message = account().filled(*attempt.m_Confirmation);
        if (!message) {
            throw Failure(KVX_E_LEDGER_DAMAGED, "the stored confirmation is no message");
        }
        return std::move(*message);
    }
    Message message = account().createRequest("PayConfirm");
    if (attempt.m_PaymentId) {
        message.set("ID", *attempt.m_PaymentId);
    }
    message.set("TOKEN", attempt.m_Token);
    message.set("AMOUNT", order.m_Amount);
    message.set("CURRENCY", order.m_Currency);
    message.set("ORDERID", order.m_Number);
    message.set(m_Options.m_ResultAttribute.c_str(), m_Options.m_Authorised);
    return message;
}

bool OrderLedger::complete(OrderRow const& order, AttemptRow const& attempt) {
    std::optional<Message> message;
    std::string text;
    try {
        message.emplace(account().createCompletion(attempt.m_PaymentId.value_or(""), attempt.m_Token));
        text = message->text();
    } catch (Failure const& failure) {
        return postpone(attempt, {failure.code(), failure.what()});
    }
    std::string const owner = newOwner();
    if (!claim(attempt, Event::kCompleteSent, text, owner)) {
        return false;
    }
    reached(TestPoint::kBeforeSending);
    std::optional<Message> response;
    Result result = message->execute(response);
    reached(TestPoint::kAfterSending);
    std::string const difference = response ? differenceIn(*response, order, attempt) : "";
    if (!difference.empty()) {
        result = {KVX_E_WRONG_RESPONSE, "the response to a completion is about another payment: " + difference};
    }
    recordExchange(attempt, owner, Event::kCompleteDone, Event::kCompleteFailed, Event::kCompleteInDoubt, result);
    return true;
}

/// Asks the service for the state of the payment.
bool OrderLedger::ask(AttemptRow const& attempt) {
    std::optional<Message> message;
    try {
        message.emplace(account().createRequest(m_Options.m_StatusType));
        message->set("TOKEN", attempt.m_Token);
        if (attempt.m_PaymentId) {
            message->set("ID", *attempt.m_PaymentId);
        }
    } catch (Failure const& failure) {
        return postpone(attempt, {failure.code(), failure.what()});
    }
    std::string const owner = newOwner();
    if (!claim(attempt, std::nullopt, "", owner)) {
        return false;
    }
    reached(TestPoint::kBeforeSending);
    std::optional<Message> response;
    Result const result = message->execute(response);
    reached(TestPoint::kAfterSending);
    recordAnswer(attempt, owner, result, response);
    return true;
}

/// The lease of a worker that may have sent something has run out.
bool OrderLedger::interrupt(AttemptRow const& seen) {
    return inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (!isAsSeen(attempt, seen)) {
            return false;
        }
        OrderRow order = store().order(seen.m_OrderId);
        Evidence evidence;
        evidence.m_Cause = m_Worker + ": " + seen.m_LeaseOwner.value_or("a worker") + " has not come back";
        move(order, attempt, Event::kInterrupted, evidence, now());
        if (!hasNextStep(attempt)) {
            attempt.m_DueAt.reset();
            store().save(attempt);
        }
        return true;
    });
}

/// What is due where the service cannot be asked.
bool OrderLedger::withoutAsking(AttemptRow const& seen) {
    bool const isWaiting = seen.m_State == State::kWaiting;
    if (!isWaiting && !hasNextStep(seen)) {
        return rest(seen);
    }
    return inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (!isAsSeen(attempt, seen)) {
            return false;
        }
        OrderRow order = store().order(seen.m_OrderId);
        Evidence evidence;
        evidence.m_Cause = m_Worker;
        move(order, attempt, isWaiting ? Event::kTimedOut : Event::kRepeated, evidence, now());
        return true;
    });
}

/// Claims the job of an attempt for `owner`, with the intent to send `text`; false when the attempt is no longer as it
/// was seen.
bool OrderLedger::claim(AttemptRow const& seen, std::optional<Event> event, std::string const& text,
                        std::string const& owner) {
    return inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (!isAsSeen(attempt, seen)) {
            return false;
        }
        Time const at = now();
        if (event) {
            OrderRow order = store().order(seen.m_OrderId);
            Evidence evidence;
            evidence.m_Cause = m_Worker;
            evidence.m_Message = text;
            move(order, attempt, *event, evidence, at);
        }
        attempt.m_DueAt = at + m_Options.m_LeaseSeconds * kSecond;
        attempt.m_LeaseOwner = owner;
        store().save(attempt);
        return true;
    });
}

/// Records the result of a capture or a completion.
void OrderLedger::recordExchange(AttemptRow const& seen, std::string const& owner, Event done, Event failed,
                                 Event inDoubt, Result const& result) {
    inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        bool const isOk = result.m_Code == KVX_OK;
        Event const event = isOk ? done : mayHaveMovedMoney(result.m_Code) ? inDoubt : failed;
        // After the lease only success is news: the attempt is in doubt already, or another worker has it.
        bool const isMine = attempt.m_LeaseOwner == owner;
        if ((!isMine && !isOk) || !stateAfter(attempt.m_State, event)) {
            return false;
        }
        OrderRow order = store().order(seen.m_OrderId);
        Time const at = now();
        storeResult(attempt, result);
        attempt.m_Tries = isOk ? 0 : attempt.m_Tries + 1;
        attempt.m_Refusals = result.m_Code == KVX_E_SERVER_ERROR ? attempt.m_Refusals + 1 : 0;
        move(order, attempt, event, evidenceOf(m_Worker, result), at);
        Time const pause = isOk ? 0 : backoff(attempt.m_Tries);
        if (event == inDoubt) {
            attempt.m_DueAt = at + std::max(pause, m_Options.m_SettleSeconds * kSecond);
        } else if (event == failed) {
            attempt.m_DueAt = at + pause;
        }
        bool const isFinal = attempt.m_State == State::kCaptured && !m_Options.m_Complete;
        if (isFinal || (event == inDoubt && !hasNextStep(attempt))) {
            attempt.m_DueAt.reset();
        }
        store().save(attempt);
        return true;
    });
}

/// Records the response to a status request.
void OrderLedger::recordAnswer(AttemptRow const& seen, std::string const& owner, Result const& result,
                               std::optional<Message> const& response) {
    std::string word;
    std::string paymentId;
    Evidence evidence;
    if (response) {
        word = response->get(m_Options.m_StatusAttribute.c_str());
        paymentId = response->get("ID");
        evidence.m_Message = response->text();
    }
    inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (attempt.m_LeaseOwner != owner) {
            return false;
        }
        OrderRow order = store().order(seen.m_OrderId);
        Time const at = now();
        Result outcome = result;
        if (response) {
            std::string const difference = differenceIn(*response, order, attempt);
            if (!difference.empty()) {
                outcome = {KVX_E_WRONG_RESPONSE, "the status response is about another payment: " + difference};
            }
        }
        std::optional<Event> event;
        if (outcome.m_Code == KVX_OK) {
            event = eventFound(order, attempt, word);
            if (!event) {
                outcome.m_Reason = "the status response says \"" + printable(word) + "\"";
            }
        }
        // With the event the refused completion would be sent again, for ever.
        bool const isLeft = event == Event::kFoundCaptured && attempt.m_State == State::kCompletionUnknown &&
                            attempt.m_Refusals >= m_Options.m_MaxRefusals;
        if (isLeft) {
            event.reset();
            outcome.m_Reason = "the service refuses to complete, and says \"" + printable(word) + "\"";
        }
        if (attempt.m_State == State::kWaiting) {
            // One refusal may be any trouble of the service; the same again and again says that there is no payment.
            attempt.m_Refusals = outcome.m_Code == KVX_E_SERVER_ERROR ? attempt.m_Refusals + 1 : 0;
            if (attempt.m_Refusals != 0 && attempt.m_Refusals >= m_Options.m_MaxAsks) {
                event = Event::kFoundNothing;
            }
        }
        storeResult(attempt, outcome);
        if (!event || !stateAfter(attempt.m_State, *event)) {
            ++attempt.m_Tries;
            ++attempt.m_Asks;
            attempt.m_LeaseOwner.reset();
            attempt.m_DueAt = isLeft ? std::optional<Time>() : at + backoff(attempt.m_Tries);
            if (!outcome.m_Reason.empty()) {
                attempt.m_LastReason = outcome.m_Reason;
            }
            store().save(attempt);
            return true;
        }
        if (!paymentId.empty() && !attempt.m_PaymentId) {
            attempt.m_PaymentId = paymentId;
        }
        // Captures that failed are still in a row after a response that says that none has happened; so are
        // completions.
        bool const isStillCaptured = event == Event::kFoundCaptured && attempt.m_State == State::kCompletionUnknown;
        if ((event == Event::kFoundCaptured || event == Event::kFoundCompleted) && !isStillCaptured) {
            attempt.m_Tries = 0;
            attempt.m_Refusals = 0;
        }
        Evidence found = evidenceOf(m_Worker, outcome);
        found.m_Message = evidence.m_Message;
        move(order, attempt, *event, found, at);
        if (attempt.m_State == State::kCaptured && !m_Options.m_Complete) {
            attempt.m_DueAt.reset();
            store().save(attempt);
        }
        return true;
    });
}

/// The event for the service's word for a state; nothing for a word that is none of the configured ones.
std::optional<Event> OrderLedger::eventFound(OrderRow const& order, AttemptRow const& attempt,
                                             std::string const& word) const {
    bool const isPaid = word == m_Options.m_Authorised || word == m_Options.m_Captured || word == m_Options.m_Completed;
    if (isPaid && order.m_PaidAttempt && order.m_PaidAttempt != attempt.m_Attempt) {
        return Event::kFoundSurplus;
    }
    if (word == m_Options.m_Authorised) {
        bool const isRefused = attempt.m_State == State::kUnknown && attempt.m_Refusals >= m_Options.m_MaxRefusals;
        return isRefused ? Event::kFoundRefused : Event::kFoundAuthorised;
    }
    struct Word {
        std::string const& m_Word;
        Event m_Event;
    };
    Word const words[] = {
        {m_Options.m_Captured, Event::kFoundCaptured},   {m_Options.m_Completed, Event::kFoundCompleted},
        {m_Options.m_Opened, Event::kFoundOpened},       {m_Options.m_Declined, Event::kFoundDeclined},
        {m_Options.m_Cancelled, Event::kFoundCancelled}, {m_Options.m_Expired, Event::kFoundExpired},
        {m_Options.m_Lapsed, Event::kFoundLapsed},
    };
    for (Word const& known : words) {
        if (word == known.m_Word) {
            return known.m_Event;
        }
    }
    return std::nullopt;
}

/// Tries the job again after a pause: it failed before anything was sent.
bool OrderLedger::postpone(AttemptRow const& seen, Result const& result) {
    return inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (!isAsSeen(attempt, seen)) {
            return false;
        }
        ++attempt.m_Tries;
        storeResult(attempt, result);
        attempt.m_DueAt = now() + backoff(attempt.m_Tries);
        store().save(attempt);
        return true;
    });
}

/// Nothing is to be done by this worker's options, so the attempt is due no longer.
bool OrderLedger::rest(AttemptRow const& seen) {
    inTransaction([&] {
        AttemptRow attempt = store().attempt(seen.m_OrderId, seen.m_Attempt);
        if (isAsSeen(attempt, seen)) {
            attempt.m_DueAt.reset();
            store().save(attempt);
        }
        return true;
    });
    return false;
}

/// Whether the worker can find out itself what became of an exchange in doubt.
bool OrderLedger::hasNextStep(AttemptRow const& attempt) const {
    return m_Options.canAsk() || (m_Options.m_CaptureIdempotent && attempt.m_Refusals < m_Options.m_MaxRefusals);
}

/// The pause after so many failures in a row.
Time OrderLedger::backoff(std::int64_t tries) {
    Time const longest = m_Options.m_RetryMax * kSecond;
    Time pause = m_Options.m_RetryBase * kSecond;
    for (std::int64_t doubled = 1; doubled < tries && pause < longest; ++doubled) {
        pause *= 2;
    }
    pause = std::min(pause, longest);
    if (!m_Options.m_Jitter) {
        return pause;
    }
    return pause / 2 + static_cast<Time>(m_Random() % static_cast<std::uint64_t>(pause / 2 + 1));
}

std::string OrderLedger::newOwner() {
    return m_Worker + ":" + std::to_string(++m_Claims);
}

}  // namespace ledger
