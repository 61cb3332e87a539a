// What all parts of the ledger share: opening, the one way to change an attempt, and what a person resolves.
#include "ledger/orderledger.h"

#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "ledger/byteforms.h"
#include "ledger/failure.h"

namespace ledger {

namespace {

/// What a person says of the surplus payments of an order, beside the one that counts.
constexpr char kSurplusSettled[] = "surplus_settled";

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

std::string accountName(AccountRow const& account) {
    return account.m_CustomerId.empty() ? "at " + printable(account.m_PaymentUrl)
                                        : "\"" + printable(account.m_CustomerId) + "\"";
}

/// Requires that the directory is of the account that the store belongs to, which is the first that opened it. Servers
/// with directories of their own share CUSTOMERID; their keys and addresses may differ. Throws Failure.
void requireAccount(Account const& directory, Store& store) {
    constexpr char kConfig[] = "config.xml";
    AccountRow const mine{directory.value(kConfig, "CUSTOMERID").value_or(""),
                          directory.value(kConfig, "VTURL").value_or("")};
    auto const isRecorded = [&] {
        std::optional<AccountRow> const first = store.account();
        if (!first) {
            return false;
        }
        bool const haveIds = !first->m_CustomerId.empty() && !mine.m_CustomerId.empty();
        bool const isSame =
            haveIds ? first->m_CustomerId == mine.m_CustomerId : first->m_PaymentUrl == mine.m_PaymentUrl;
        if (!isSame) {
            throw Failure(KVX_E_LEDGER_CONFLICT, "the store belongs to the account " + accountName(*first) + ", " +
                                                     directory.directory() + " to the account " + accountName(mine));
        }
        return haveIds || mine.m_CustomerId.empty();
    };
    if (!inSnapshot(store.database(), isRecorded)) {
        inTransaction(store.database(), [&] {
            if (!isRecorded()) {
                store.setAccount(mine);
            }
            return true;
        });
    }
}

}  // namespace

OrderLedger::OrderLedger() : m_Random(std::random_device()()) {
    m_Worker = printable(hostName()) + ":" + std::to_string(::getpid()) + ":" + std::to_string(m_Random() % 1000000);
}

void OrderLedger::open(std::string const& store, std::string const& directory) {
    m_Keys.reset();
    m_Store.reset();
    m_Account.reset();
    m_HasWoken = false;
    auto account = std::make_unique<Account>(directory);
    auto opened = std::make_unique<Store>(openDatabase(store, m_Options.m_BusySeconds));
    auto keys = std::make_unique<ServiceKeys>(*account, *opened);
    static_cast<void>(keys->current());  // nothing is recorded for a directory that has not been set up
    requireAccount(*account, *opened);
    keys->recordCurrent(timeOf(*opened));
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

Time OrderLedger::timeOf(Store& store) const {
    return m_Options.m_Now ? *m_Options.m_Now : store.database().sharedTime().value_or(m_Options.now());
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

bool OrderLedger::move(OrderRow& order, AttemptRow& attempt, Event event, Evidence const& evidence, Time at) {
    State const from = attempt.m_State;
    std::optional<State> const to = stateAfter(from, event);
    if (!to) {
        throw std::logic_error(std::string(nameOf(event)) + " leads nowhere from " + nameOf(from));
    }
    attempt.m_State = *to;
    if (*to != from) {
        attempt.m_DueAt = dueIn(attempt, at);
        attempt.m_LeaseOwner.reset();
        attempt.m_Asks = 0;
    }
    if (from == State::kWaiting && *to != from) {
        attempt.m_Tries = 0;  // those were of status requests
        attempt.m_Refusals = 0;
    }
    bool const pays = rowOf(*to).m_IsPaid;
    if ((pays || *to == State::kSurplus) && !attempt.m_PaidAt) {
        attempt.m_PaidAt = at;
    }
    bool const changesOrder = pays != (order.m_PaidAttempt == attempt.m_Attempt);
    if (changesOrder) {
        order.m_PaidAttempt = pays ? std::optional<std::int64_t>(attempt.m_Attempt) : std::nullopt;
        store().save(order);
    }
    store().save(attempt);
    store().add(attempt, from, event, at, evidence);
    return changesOrder;
}

/// When the worker has to look at the attempt in its state.
std::optional<Time> OrderLedger::dueIn(AttemptRow const& attempt, Time at) const {
    switch (rowOf(attempt.m_State).m_Job) {
        case Job::kAsk:
            return attempt.m_ExpiresAt + m_Options.m_GraceSeconds * kSecond;
        case Job::kCapture:
            return m_Options.m_Capture ? std::optional<Time>(at) : std::nullopt;
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
    while (true) {
        Time const at = now();
        std::optional<OrderRow> seen = store().untoldOrder();
        if (!seen && m_Options.m_Acknowledge) {
            seen = store().undeliveredOrder(at, at + m_Options.m_LeaseSeconds * kSecond + kMaxClockSkew);
        }
        if (!seen) {
            throw Failure(KVX_E_NOT_FOUND, "no order is paid and not reported");
        }
        number.requireRoomFor(seen->m_Number);
        bool const isFirst = inTransaction([&] {
            OrderRow order = store().order(seen->m_Id);
            if (!isToBeReported(order, at)) {
                return false;
            }
            noteReport(order, at);
            store().save(order);
            return true;
        });
        if (isFirst) {
            number.copy(seen->m_Number);
            return;
        }
    }
}

bool OrderLedger::isToBeReported(OrderRow const& order, Time at) {
    if (!order.m_PaidAttempt || standingAttempt(order).m_State == State::kCaptureRefused) {
        return false;
    }
    Time const horizon = at + m_Options.m_LeaseSeconds * kSecond + kMaxClockSkew;
    bool const isOverdue = order.m_ReportAt && (*order.m_ReportAt <= at || *order.m_ReportAt > horizon);
    return !order.m_ToldAt || (m_Options.m_Acknowledge && isOverdue);
}

void OrderLedger::noteReport(OrderRow& order, Time at) const {
    if (!order.m_ToldAt) {
        order.m_ToldAt = at;
    }
    if (m_Options.m_Acknowledge) {
        order.m_ReportAt = at + m_Options.m_LeaseSeconds * kSecond;
    }
}

void OrderLedger::delivered(std::string const& number) {
    inTransaction([&] {
        OrderRow order = requireOrder(number);
        if (order.m_DeliveredAt) {
            return false;
        }
        if (!order.m_PaidAttempt && !order.m_ToldAt) {
            throw Failure(KVX_E_LEDGER_STATE, "the order is not paid");
        }
        Time const at = now();
        order.m_ToldAt = order.m_ToldAt.value_or(at);
        order.m_DeliveredAt = at;
        order.m_ReportAt.reset();
        store().save(order);
        AttemptRow attempt = standingAttempt(order);
        Evidence evidence;
        evidence.m_Cause = "merchant";
        move(order, attempt, Event::kDelivered, evidence, at);
        return true;
    });
}

void OrderLedger::renewKeys(SetupLogin const& login, std::int32_t& outcome) {
    SetupRenewal(account().directory(), store(), m_Options).renew(login, outcome);
    m_Keys->recordCurrent(now());
}

/// All surplus payments of the order have been voided or paid back.
void OrderLedger::settleSurplus(std::string const& number, std::string const& note) {
    inTransaction([&] {
        OrderRow order = requireOrder(number);
        bool isAny = false;
        for (AttemptRow& attempt : store().attempts(order.m_Id)) {
            if (attempt.m_State == State::kSurplus) {
                Evidence evidence;
                evidence.m_Cause = note;
                move(order, attempt, Event::kResolvedSurplus, evidence, now());
                isAny = true;
            }
        }
        if (!isAny) {
            throw Failure(KVX_E_LEDGER_STATE, "the order has no surplus payment");
        }
        return true;
    });
}

/// Gives up the waiting payments before the one that stands for the order which asking has not cleared up; false when
/// there is none. Inside a transaction.
bool OrderLedger::giveUpEarlier(OrderRow& order, std::string const& note) {
    bool isAny = false;
    for (AttemptRow& attempt : store().attempts(order.m_Id)) {
        if (attempt.m_State == State::kWaiting && attempt.m_Asks >= m_Options.m_MaxAsks) {
            Evidence evidence;
            evidence.m_Cause = note;
            move(order, attempt, Event::kResolvedCancelled, evidence, now());
            isAny = true;
        }
    }
    return isAny;
}

void OrderLedger::resolve(std::string const& number, std::string const& state, std::string const& note) {
    if (note.empty()) {
        throw Failure(KVX_E_LEDGER_INVALID, "the note is empty");
    }
    if (state == kSurplusSettled) {
        settleSurplus(number, note);
        return;
    }
    Event const event = resolutionTo(state);
    inTransaction([&] {
        OrderRow order = requireOrder(number);
        AttemptRow attempt = standingAttempt(order);
        bool const isAskedAbout = attempt.m_State == State::kWaiting && attempt.m_Asks < m_Options.m_MaxAsks;
        if (isAskedAbout || !stateAfter(attempt.m_State, event)) {
            if (event == Event::kResolvedCancelled && giveUpEarlier(order, note)) {
                return true;
            }
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
