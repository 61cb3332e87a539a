// What all parts of the ledger share: opening, the one way to change an attempt, and what a person resolves.
#include "ledger/orderledger.h"

#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "ledger/byteforms.h"
#include "ledger/failure.h"

namespace ledger {

namespace {

struct ResolutionRow {
    char const* m_State;
    Event m_Event;
};

// clang-format off
constexpr ResolutionRow kResolutions[] = {
    {"authorised",      Event::kResolvedAuthorised},
    {"captured",        Event::kResolvedCaptured},
    {"completed",       Event::kResolvedCompleted},
    {"capture_refused", Event::kResolvedRefused},
    {"cancelled",       Event::kResolvedCancelled},
};
// clang-format on

Event resolutionTo(std::string const& state) {
    for (ResolutionRow const& row : kResolutions) {
        if (state == row.m_State) {
            return row.m_Event;
        }
    }
    throw Failure(KVX_E_LEDGER_INVALID, "a person does not resolve to the state \"" + printable(state) + "\"");
}

std::string hostName() {
    constexpr std::size_t kMaxName = 256;
    char name[kMaxName] = "";
    ::gethostname(name, sizeof name - 1);
    return name;
}

}  // namespace

OrderLedger::OrderLedger() : m_Random(std::random_device()()) {
    m_Worker = hostName() + ":" + std::to_string(::getpid()) + ":" + std::to_string(m_Random() % 1000000);
}

void OrderLedger::open(std::string const& store, std::string const& directory) {
    m_Keys.reset();
    m_Store.reset();
    m_Account.reset();
    m_HasWoken = false;
    auto account = std::make_unique<Account>(directory);
    auto opened = std::make_unique<Store>(openDatabase(store, m_Options.m_BusySeconds));
    auto keys = std::make_unique<ServiceKeys>(*account, *opened);
    keys->recordCurrent(now());
    m_Account = std::move(account);
    m_Store = std::move(opened);
    m_Keys = std::move(keys);
}

void OrderLedger::abandon() noexcept {
    if (m_Store != nullptr) {
        m_Store->database().abandon();
    }
}

Store& OrderLedger::store() const {
    if (m_Store == nullptr) {
        throw Failure(KVX_E_NO_CONTEXT, "no store has been opened");
    }
    return *m_Store;
}

Account const& OrderLedger::account() const {
    static_cast<void>(store());
    return *m_Account;
}

OrderRow OrderLedger::requireOrder(std::string const& number) {
    std::optional<OrderRow> order = store().orderNumbered(number);
    if (!order) {
        throw Failure(KVX_E_NOT_FOUND, "there is no order \"" + printable(number) + "\"");
    }
    return std::move(*order);
}

AttemptRow OrderLedger::standingAttempt(OrderRow const& order) {
    return store().attempt(order.m_Id, order.m_PaidAttempt.value_or(order.m_NewestAttempt));
}

void OrderLedger::move(OrderRow& order, AttemptRow& attempt, Event event, Evidence const& evidence, Time at) {
    State const from = attempt.m_State;
    std::optional<State> const to = stateAfter(from, event);
    if (!to) {
        throw std::logic_error(std::string(nameOf(event)) + " leads nowhere from " + nameOf(from));
    }
    attempt.m_State = *to;
    if (*to != from) {
        attempt.m_DueAt = dueIn(attempt, at);
        attempt.m_LeaseOwner.reset();
    }
    bool const pays = rowOf(*to).m_IsPaid;
    if ((pays || *to == State::kSurplus) && !attempt.m_PaidAt) {
        attempt.m_PaidAt = at;
    }
    bool const counts = order.m_PaidAttempt == attempt.m_Attempt;
    if (pays != counts) {
        order.m_PaidAttempt = pays ? std::optional<std::int64_t>(attempt.m_Attempt) : std::nullopt;
        store().save(order);
    }
    store().save(attempt);
    store().add(attempt, from, event, at, evidence);
}

/// When the worker has to look at the attempt in its state.
std::optional<Time> OrderLedger::dueIn(AttemptRow const& attempt, Time at) const {
    switch (rowOf(attempt.m_State).m_Job) {
        case Job::kAsk:
            return attempt.m_ExpiresAt + m_Options.m_GraceSeconds * kSecond;
        case Job::kCapture:
        case Job::kComplete:
            return at;
        case Job::kTakeover:
            return at + m_Options.m_LeaseSeconds * kSecond;
        case Job::kSettle:
            return at + m_Options.m_SettleSeconds * kSecond;
        case Job::kNone:
            break;
    }
    return std::nullopt;
}

void OrderLedger::nextPaid(TextOut const& number) {
    while (std::optional<OrderRow> const seen = store().untoldOrder()) {
        number.requireRoomFor(seen->m_Number);
        bool const isFirst = inTransaction([&] {
            OrderRow order = store().order(seen->m_Id);
            if (order.m_ToldAt || !order.m_PaidAttempt) {
                return false;
            }
            order.m_ToldAt = now();
            store().save(order);
            return true;
        });
        if (isFirst) {
            number.copy(seen->m_Number);
            return;
        }
    }
    throw Failure(KVX_E_NOT_FOUND, "no order is paid and not told");
}

void OrderLedger::resolve(std::string const& number, std::string const& state, std::string const& note) {
    Event const event = resolutionTo(state);
    if (note.empty()) {
        throw Failure(KVX_E_LEDGER_INVALID, "the note is empty");
    }
    inTransaction([&] {
        OrderRow order = requireOrder(number);
        AttemptRow attempt = standingAttempt(order);
        if (!stateAfter(attempt.m_State, event)) {
            throw Failure(KVX_E_LEDGER_STATE, "the order is " + std::string(nameOf(attempt.m_State)) +
                                                  ", a person cannot make it " + state);
        }
        attempt.m_Tries = 0;
        attempt.m_Refusals = 0;
        Evidence evidence;
        evidence.m_Cause = note;
        move(order, attempt, event, evidence, now());
        return true;
    });
}

}  // namespace ledger
