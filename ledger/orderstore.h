/// The rows of the store, and every statement on them.
///
/// The columns are explained in schema_1.sql and its successors. Functions that change rows run inside a transaction
/// that the caller commits; the others may run outside of one. All of them throw Failure, and Conflict inside a
/// transaction.
#ifndef TALLOWIN_LEDGER_ORDERSTORE_H
#define TALLOWIN_LEDGER_ORDERSTORE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ledger/lifecycle.h"
#include "ledger/options.h"
#include "ledger/storedatabase.h"

namespace ledger {

struct OrderRow {
    std::int64_t m_Id = 0;
    std::string m_Number;
    std::string m_Amount;
    std::string m_Currency;
    std::string m_Attributes;
    Time m_CreatedAt = 0;
    std::int64_t m_NewestAttempt = 0;
    std::optional<std::int64_t> m_PaidAttempt;
    std::optional<Time> m_ToldAt;
    std::optional<Time> m_DeliveredAt;
    std::optional<Time> m_ReportAt;
};

struct AttemptRow {
    std::int64_t m_OrderId = 0;
    std::int64_t m_Attempt = 0;
    std::string m_Token;
    State m_State = State::kOpened;
    std::string m_Message;  ///< Stored with a new attempt; never read again.
    std::string m_Url;
    Time m_CreatedAt = 0;
    Time m_ExpiresAt = 0;
    std::optional<std::string> m_Result;
    std::optional<Time> m_PaidAt;
    std::optional<std::string> m_PaymentId;
    std::optional<std::string> m_Confirmation;
    std::int64_t m_Tries = 0;
    std::int64_t m_Refusals = 0;
    std::optional<std::int64_t> m_LastCode;
    std::optional<std::string> m_LastReason;
    std::optional<Time> m_DueAt;
    std::optional<std::string> m_LeaseOwner;
    std::int64_t m_Asks = 0;
};

/// An attempt and its order.
struct Payment {
    AttemptRow m_Attempt;
    OrderRow m_Order;
};

/// What is stored of a transition beside the states.
struct Evidence {
    std::string m_Cause;
    std::optional<std::int64_t> m_Code;
    std::optional<std::string> m_Message;
    std::optional<std::string> m_Signature;
    std::optional<std::string> m_KeyFingerprint;
};

struct TransitionRecord {
    std::int64_t m_Sequence = 0;
    std::int64_t m_Attempt = 0;
    std::string m_From;
    std::string m_To;
    std::string m_Event;
    Time m_At = 0;
    Evidence m_Evidence;
};

/// What distinguishes the merchant account of the store from another.
struct AccountRow {
    std::string m_CustomerId;  ///< "": not known.
    std::string m_PaymentUrl;
};

/// A key that the service has signed with.
struct ServiceKey {
    std::string m_Fingerprint;
    std::string m_KeyId;
    std::string m_Blob;
    Time m_FirstAt = 0;
    std::optional<Time> m_ReplacedAt;
};

struct KeptRow {
    std::int64_t m_Id = 0;
    std::int64_t m_OrderId = 0;
    std::int64_t m_Attempt = 0;
    std::string m_KeyId;
    std::string m_Messenger;
    std::string m_Data;
    std::string m_Signature;
    Time m_CreatedAt = 0;
};

/// Which orders a page lists.
enum class Filter { kAll, kState, kPaid, kUntold, kUndelivered, kSurplus, kAttention };

/// What filters look for.
struct FilterValues {
    std::string m_State;         ///< kState.
    std::int64_t m_MaxAsks = 0;  ///< kAttention.
};

class Store {
public:
    explicit Store(std::unique_ptr<Database> database) : m_Database(std::move(database)) {}

    [[nodiscard]] Database& database() { return *m_Database; }

    // Orders.
    std::optional<OrderRow> orderNumbered(std::string const& number);
    OrderRow order(std::int64_t id);

    /// The order that is paid and was begun first of those that have not been reported.
    std::optional<OrderRow> untoldOrder();

    /// The order whose delivery has been overdue for the longest time. One that is to be reported behind `horizon` was
    /// put there by a clock that has been set back since.
    std::optional<OrderRow> undeliveredOrder(Time now, Time horizon);

    /// Up to `limit` orders behind the order with the id `after`, in the order in which they were begun.
    std::vector<OrderRow> orders(Filter filter, FilterValues const& values, std::int64_t after, std::int64_t limit);

    /// Adds the order; its id is set.
    void add(OrderRow& order);

    /// Stores what may change of the order.
    void save(OrderRow const& order);

    // Attempts.
    std::optional<Payment> paymentWithToken(std::string const& token);
    AttemptRow attempt(std::int64_t orderId, std::int64_t attempt);
    std::vector<AttemptRow> attempts(std::int64_t orderId);
    void add(AttemptRow const& attempt);

    /// Stores what may change of the attempt.
    void save(AttemptRow const& attempt);

    /// The attempt that has been due for the longest time. One that is due behind `horizon` was put there by a clock
    /// that has been set back since, and is due now; a waiting one only when that is later than its expiry and `grace`.
    std::optional<AttemptRow> dueAttempt(Time now, Time horizon, Time grace);

    /// Makes the attempts due whose outcome is in doubt and that were left for a person, but not those of which the
    /// service has refused so many captures or completions in a row.
    void wakeDoubtful(Time now, std::int64_t captures, std::int64_t completions);

    /// Makes the attempts due that are authorised and that were not to be captured.
    void wakeAuthorised(Time now);

    // Evidence.
    void add(AttemptRow const& attempt, State from, Event event, Time at, Evidence const& evidence);
    std::vector<TransitionRecord> transitions(std::int64_t orderId);

    // Account.
    std::optional<AccountRow> account();
    void setAccount(AccountRow const& account);

    // Keys.
    std::optional<ServiceKey> keyWithFingerprint(std::string const& fingerprint);

    /// Makes `key` the current one; the others are replaced at `now`.
    void setCurrentKey(ServiceKey const& key, Time now);

    // Kept confirmations.
    bool isKept(KeptRow const& kept);
    std::int64_t keptOf(std::int64_t orderId, std::int64_t attempt);
    std::int64_t keptInAll();
    void add(KeptRow const& kept);
    void removeKept(std::int64_t id);
    void removeKeptBefore(Time time);
    bool hasKeptBefore(Time time);

    /// The ids of all keys of kept confirmations, each once.
    std::vector<std::string> keptKeys();

    /// The first kept confirmations under a key, up to `limit`.
    std::vector<KeptRow> kept(std::string const& keyId, std::int64_t limit);

private:
    std::unique_ptr<Database> m_Database;
};

}  // namespace ledger

#endif
