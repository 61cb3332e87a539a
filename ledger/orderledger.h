/// Orders over one store and one merchant account: what the flat functions of tallowin/ledger.h do.
///
/// A public function reads what it needs, decides, and changes the store in one transaction that reads and decides once
/// more. Every change of an attempt passes through move(), which obeys the table of the lifecycle. One thread at a
/// time.
#ifndef TALLOWIN_LEDGER_ORDERLEDGER_H
#define TALLOWIN_LEDGER_ORDERLEDGER_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "ledger/component.h"
#include "ledger/options.h"
#include "ledger/orderstore.h"
#include "ledger/servicekeys.h"
#include "ledger/setuprenewal.h"
#include "ledger/textout.h"
#include "tallowin/ledger.h"

namespace ledger {

/// What a shop asks to be paid.
struct OrderContent {
    std::string m_Number;
    std::string m_Amount;
    std::string m_Currency;
    std::map<std::string, std::string> m_Attributes;

    /// Throws Failure (KVX_E_LEDGER_INVALID) when number, amount or currency is not acceptable.
    void requireValid() const;

    /// Sets an attribute of the payment message. Throws Failure (KVX_E_LEDGER_INVALID).
    void setAttribute(std::string const& name, std::string const& value);

    /// The attributes as a JSON object, ordered by name.
    [[nodiscard]] std::string attributesAsJson() const;
};

/// A confirmation as it came.
struct Confirmation {
    std::string m_Messenger;
    std::string m_Data;
    std::string m_Signature;
};

/// What Ledger_Confirm says, with the reason as a constant and as a sentence.
struct Verdict {
    std::int32_t m_Outcome = KVX_LEDGER_REFUSED;
    std::int32_t m_Reason = KVX_LEDGER_REASON_NONE;
    std::string m_Sentence;
    std::string m_Number;  ///< Of the order; empty before the signature has been verified.
};

class OrderLedger {
public:
    OrderLedger();

    void setOption(std::string const& name, std::string const& value) { m_Options.set(name, value); }
    void open(std::string const& store, std::string const& directory);

    /// Forgets the store without closing it: it belongs to the parent process.
    void abandon() noexcept;

    /// The payment URL.
    std::string begin(OrderContent const& content);

    /// Requires room in `number` before anything changes.
    Verdict const& confirm(Confirmation const& confirmation, TextOut const& number);

    /// The verdict on the last confirmation; nothing when there was none.
    [[nodiscard]] std::optional<Verdict> const& lastVerdict() const { return m_LastVerdict; }

    /// Copies the number of an order that is paid and has not been reported, or that was not delivered since.
    void nextPaid(TextOut const& number);
    void delivered(std::string const& number);

    /// Renews the merchant's key; `outcome` is set in any case.
    void renewKeys(SetupLogin const& login, std::int32_t& outcome);

    std::int32_t runDue(std::int32_t limit);
    void resolve(std::string const& number, std::string const& state, std::string const& note);

    std::string stateOf(std::string const& number);
    std::string orderAsJson(std::string const& number);
    std::string ordersAsJson(std::string const& filter, std::string const& after, std::int32_t limit);
    std::string evidenceAsJson(std::string const& number);

private:
    /// What a verified confirmation says.
    struct Claim {
        std::string m_KeyId;
        std::string m_Type;
        std::string m_Token;
        std::string m_OrderId;
        std::string m_Amount;
        std::string m_Currency;
        std::string m_Result;
        std::string m_PaymentId;
    };

    /// What becomes of an attempt by a claim.
    struct Decision {
        Verdict m_Verdict;
        std::optional<Event> m_Event;  ///< Nothing: the attempt stays as it is.
        bool m_Tells = false;          ///< "Paid now" is said, which is recorded.
    };

    [[nodiscard]] Store& store() const;
    [[nodiscard]] Account const& account() const;

    /// The time by the option NOW, else by the clock that all users of the store share, else by the system's.
    [[nodiscard]] Time now() const { return timeOf(store()); }
    [[nodiscard]] Time timeOf(Store& store) const;

    /// Runs `work` in a transaction on the store.
    template <class Work>
    auto inTransaction(Work work) {
        return ledger::inTransaction(store().database(), std::move(work));
    }

    OrderRow requireOrder(std::string const& number);

    /// The attempt that stands for its order: the one that paid, else the newest.
    AttemptRow standingAttempt(OrderRow const& order);

    /// Moves `attempt` by `event`, records the evidence and stores the row, and that of the order when it changes
    /// whether the order is paid; returns whether it did. The attempt is due when its new state says so. Requires: the
    /// table has a row for it, and a transaction is open.
    bool move(OrderRow& order, AttemptRow& attempt, Event event, Evidence const& evidence, Time at);

    /// Whether the order is to be reported as paid now.
    bool isToBeReported(OrderRow const& order, Time at);

    /// Notes in the row that the order is reported as paid.
    void noteReport(OrderRow& order, Time at) const;
    [[nodiscard]] std::optional<Time> dueIn(AttemptRow const& attempt, Time at) const;

    void settleSurplus(std::string const& number, std::string const& note);
    bool giveUpEarlier(OrderRow& order, std::string const& note);

    // Begin.
    void requireSameContent(OrderContent const& content, OrderRow const& order) const;
    std::optional<std::string> openUrl(OrderRow const& order, Time at);
    AttemptRow newAttempt(OrderContent const& content, Time at);

    // Confirm.
    Verdict examine(Confirmation const& confirmation, TextOut const& number);
    Verdict examineVerified(Confirmation const& confirmation, Message const& message, TextOut const* number, Time at);
    std::optional<Verdict> refusalOfVerification(Result const& result, Confirmation const& confirmation);
    static Verdict refusedForToken(Claim const& claim);
    std::optional<Verdict> refusalOfContent(Claim const& claim, OrderRow const& order) const;
    Verdict keep(Confirmation const& confirmation, Time at);
    Claim claimOf(Message const& message) const;
    [[nodiscard]] Decision decide(OrderRow const& order, AttemptRow const& attempt, Claim const& claim, Time at) const;
    [[nodiscard]] Decision decideUnpaid(AttemptRow const& attempt, Claim const& claim, Event event, bool isLate) const;
    [[nodiscard]] Decision decidePaid(OrderRow const& order, AttemptRow const& attempt, Claim const& claim,
                                      bool isLate) const;

    // Look up, inside a transaction.
    std::string readOrder(std::string const& number);
    std::string readOrders(Filter chosen, std::string const& state, std::string const& after, std::int32_t limit);
    std::string readEvidence(std::string const& number);

    // Worker.
    void wake();
    std::int32_t tryKept(std::int32_t limit);
    std::int32_t tryKeptUnder(std::string const& keyId, std::int32_t limit, Time at);
    bool examineKept(KeptRow const& kept, Time at);
    bool runOne();
    bool capture(OrderRow const& order, AttemptRow const& attempt);
    bool complete(OrderRow const& order, AttemptRow const& attempt);
    bool ask(AttemptRow const& attempt);
    bool interrupt(AttemptRow const& attempt);
    bool withoutAsking(AttemptRow const& attempt);
    Message captureMessage(OrderRow const& order, AttemptRow const& attempt) const;
    bool claim(AttemptRow const& seen, std::optional<Event> event, std::string const& text, std::string const& owner);
    void recordExchange(AttemptRow const& seen, std::string const& owner, Event done, Event failed, Event inDoubt,
                        Result const& result);
    void recordAnswer(AttemptRow const& seen, std::string const& owner, Result const& result,
                      std::optional<Message> const& response);
    [[nodiscard]] std::optional<Event> eventFound(OrderRow const& order, AttemptRow const& attempt,
                                                  std::string const& word) const;
    bool postpone(AttemptRow const& seen, Result const& result);
    bool rest(AttemptRow const& seen);
    [[nodiscard]] bool hasNextStep(AttemptRow const& attempt) const;
    [[nodiscard]] Time backoff(std::int64_t tries);
    std::string newOwner();

    Options m_Options;
    std::unique_ptr<Account> m_Account;
    std::unique_ptr<Store> m_Store;
    std::unique_ptr<ServiceKeys> m_Keys;  ///< Gone before the two above.
    std::optional<Verdict> m_LastVerdict;
    std::mt19937_64 m_Random;
    std::string m_Worker;        ///< Names this handle among all workers.
    std::uint64_t m_Claims = 0;  ///< Jobs that this handle has claimed.
    bool m_HasWoken = false;     ///< wake() has been called since the store was opened.
};

}  // namespace ledger

#endif
