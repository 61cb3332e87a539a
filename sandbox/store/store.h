#ifndef TALLOWIN_SANDBOX_STORE_STORE_H
#define TALLOWIN_SANDBOX_STORE_STORE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/store/database.h"
#include "sandbox/store/eventfeed.h"
#include "sandbox/store/jointwriter.h"
#include "sandbox/store/rows.h"

namespace sandbox {

/// The service's own key as it is stored.
struct StoredServerKey {
    std::string m_Id;
    std::string m_PrivateDer;
};

/// A merchant's public key.
struct MerchantKey {
    std::string m_Account;
    std::string m_Blob;
    std::string m_Customer = {};  ///< The customer number of the account, where the store returns the key.
};

/// A merchant's public key with its key id and when it was published.
struct PublishedKey {
    std::string m_Id;
    MerchantKey m_Key;
    std::string m_Time;
};

/// A payment with the parts that only the service knows.
struct StoredPayment {
    Payment m_Payment;
    std::string m_FormKey;  ///< Must come back with the shopper's decision.
    std::string m_Message;  ///< The PayInit as it came. The attributes of `m_Payment` are read from it.
};

/// A move that time makes unless another one comes before it.
struct DueMove {
    std::int64_t m_Due = 0;  ///< The second of the service's clock in which it is made.
    PaymentState m_State = PaymentState::kLapsed;
    std::string m_Note;
};

/// Accounts, keys, payments with their history, notifications and exchanges, in one SQLite file. Every member is done
/// whole or not at all, and may be called by any thread. Failures of the database throw std::runtime_error.
///
/// What a member changes is committed on return, and lists do not wait for those who write. While a thread carries out
/// a request, see Request, what it changes is committed at the request's end, together with that of other threads;
/// until then single rows are read as requests have left them, and lists show what is committed.
class Store {
public:
    enum class Login { kOk, kUnknownUser, kWrongPassword };
    enum class KeyAdded { kNew, kKnown, kTaken };

    /// Opens the file, and creates its tables when it is empty. A file of another layout throws std::runtime_error.
    explicit Store(std::string const& path, Retention retention = {});

    /// Creates the tables in an empty file, and makes exchanges of the requests that an earlier process began and did
    /// not finish; all in one transaction. A file of another layout throws std::runtime_error; `path` stands in its
    /// text.
    static void prepareTables(Database& database, std::string const& path);

    /// A request that a thread carries out, of which it has one at a time. What it has changed is on record with the
    /// request: should the service end before end(), the next one that opens the file makes an exchange without a
    /// response of it.
    class Request {
    public:
        /// Borrows `store`. What was changed by a request that does not come to its end() is committed.
        explicit Request(Store& store) : m_Store(store), m_Unit(store.m_Writer, [this] { putOnRecord(); }) {}

        /// What is put on record. To be called before anything is changed.
        void begin(Exchange exchange) { m_Exchange = std::move(exchange); }

        /// Adds the exchange, and returns its number when all that the request has changed is committed. Throws
        /// std::runtime_error when some of it is lost.
        std::int64_t end(Exchange const& exchange);

    private:
        void putOnRecord();

        Store& m_Store;  ///< Borrowed.
        Exchange m_Exchange = {};
        std::int64_t m_Begun = 0;  ///< Its number in begun_exchanges, once it is there. Used in turns of the writer.
        JointWriter::Unit m_Unit;
    };

    /// Runs `action` once what the calling thread has changed is committed: after its request, or at once.
    void whenCommitted(std::function<void()> action) { m_Writer.runAfter(std::move(action)); }

    /// Creates the account or gives it a new password.
    void putAccount(std::string const& user, std::string const& password);
    [[nodiscard]] Login checkAccount(std::string const& user, std::string const& password);

    /// The customer number of an existing account.
    [[nodiscard]] std::string customerOf(std::string const& user);

    /// The names of all accounts, oldest first.
    [[nodiscard]] std::vector<std::string> accounts();

    /// Oldest first.
    [[nodiscard]] std::vector<StoredServerKey> serverKeys();
    void addServerKey(StoredServerKey const& key, std::string const& time);

    /// Adds a key to an account. `kKnown`: this key is stored already. `kTaken`: the key id belongs to another key or
    /// account. Nothing changes in both cases.
    KeyAdded addMerchantKey(std::string const& id, MerchantKey const& key, std::string const& time);

    /// Of the keys that are committed, also in a request.
    [[nodiscard]] std::optional<MerchantKey> merchantKey(std::string const& id);

    /// Oldest first.
    [[nodiscard]] std::vector<PublishedKey> merchantKeys();

    /// How much there is of everything.
    [[nodiscard]] Counts counts();

    /// Sets the identifier and the form key of the payment that is the account's payment number `number`.
    using MakeIdentifiers = std::function<void(StoredPayment& fresh, std::int64_t number)>;

    /// Adds `fresh` unless its account already has a payment with its token. Returns whichever is then stored, without
    /// its history. With `makeIdentifiers` the identifiers are those of the first number, from the count of the
    /// account's payments on, whose identifier is free.
    StoredPayment openPayment(StoredPayment fresh, std::string const& time,
                              MakeIdentifiers const& makeIdentifiers = nullptr);

    /// Whether the history of a payment is read as well.
    enum class History { kRead, kLeft };

    [[nodiscard]] std::optional<StoredPayment> paymentById(std::string const& id, History history = History::kRead);
    [[nodiscard]] std::optional<StoredPayment> paymentByToken(std::string const& account, std::string const& token,
                                                              History history = History::kRead);

    /// Which payments of an account are searched.
    enum class Search { kEarlier, kAll };

    /// The identifier of the newest other payment of the same account in one of `states`, of all or of those that were
    /// opened before `payment`; nothing when there is none.
    [[nodiscard]] std::optional<std::string> otherPayment(Payment const& payment, Search search,
                                                          std::vector<PaymentState> const& states);

    /// What a payment is about, without the rest of it.
    struct Subject {
        std::string m_Account;
        std::string m_Order;
    };

    /// By identifier, of those of the payments `ids` that there are.
    [[nodiscard]] std::map<std::string, Subject> subjectsOf(std::set<std::string> const& ids);

    [[nodiscard]] Listing<Payment> payments(Filter const& filter, Page const& page);

    /// The newest payment that the filter matches; nothing when there is none.
    [[nodiscard]] std::optional<Payment> newestPayment(Filter const& filter);

    /// Undecided payments of these accounts whose EXPIRATION lies before `moment`, at most `limit`.
    [[nodiscard]] std::vector<Payment> paymentsToExpire(std::int64_t moment, std::int64_t limit,
                                                        AccountScope const& accounts);

    /// Of the payments the newest `count`, newest first, without those whose message has more than `longest` bytes.
    [[nodiscard]] std::vector<StoredPayment> latestPayments(std::int64_t count, std::int64_t longest);

    /// Moves the payment from one of the states `from` to the state of `step`, adds `step` to its history and the
    /// notification to those that are to be sent, and replaces the move that is due by `next`. False, with nothing
    /// changed, when it is in none of them: of two callers at the same time one gets true.
    bool advance(std::string const& id, std::vector<PaymentState> const& from, HistoryEntry const& step,
                 std::optional<Notification> const& notification = std::nullopt,
                 std::optional<DueMove> const& next = std::nullopt);

    /// The move that waits for the payment; nothing when none does.
    [[nodiscard]] std::optional<DueMove> dueMove(std::string const& id);

    /// The identifiers of the payments of these accounts whose moves are due at `now`, with these moves, in the order
    /// of their times.
    [[nodiscard]] std::vector<std::pair<std::string, DueMove>> dueMoves(std::int64_t now, AccountScope const& accounts);

    /// Refuses captures of the payment for good, with `reason`, and adds `step` to its history. False, with nothing
    /// changed, when it is not in the state of `step`.
    bool refuseCaptures(std::string const& id, HistoryEntry const& step, std::string const& reason);

    /// Why captures of the payment are refused; nothing when they are not.
    [[nodiscard]] std::optional<std::string> captureRefusal(std::string const& id);

    /// Adds the notification with this number again, to be sent. Nothing when there is none; else the new one.
    std::optional<Notification> repeatNotification(std::int64_t number);

    /// Copies everything to `target`. Payments are not held up meanwhile.
    void copyTo(Database& target);

    /// Takes everything from `source`, a database of the present layout, in place of what there is. Counts as a change.
    void replaceBy(Database& source);

    /// Texts by name that outlast the process. An empty text removes its name.
    [[nodiscard]] std::map<std::string, std::string> settings();
    void setSetting(std::string const& name, std::string const& value);

    /// Passes on moves of payments, exchanges and outcomes of notifications as they are stored.
    [[nodiscard]] EventFeed& events() { return m_Events; }

    /// Oldest first.
    [[nodiscard]] std::vector<Notification> notifications();
    [[nodiscard]] std::vector<Notification> notificationsOf(std::string const& payment);

    /// Those still to be sent with numbers above `after`, oldest first.
    [[nodiscard]] std::vector<Notification> pendingNotifications(std::int64_t after);

    /// Stores the outcome of the notification with this number.
    void updateNotification(Notification const& notification);

    /// Adds an exchange that has ended. Returns the number that the exchange got.
    std::int64_t addExchange(Exchange const& exchange);

    /// Stores how much was sent of the response of the exchange with that number.
    void setDelivery(std::int64_t number, std::string const& delivery);

    [[nodiscard]] Listing<Exchange> exchanges(Filter const& filter, Page const& page);

    /// The same without the long parts: data, signature, steps, request and response are empty.
    [[nodiscard]] Listing<Exchange> exchangeSummaries(Filter const& filter, Page const& page);

    /// Summaries of those that belong to `payment`, oldest first, at most `limit`: those about it, those of its
    /// merchant or of unknown merchants with its TOKEN, and those without any TOKEN that have its order.
    [[nodiscard]] Listing<Exchange> exchangeSummariesOf(Payment const& payment, std::int64_t limit);

    [[nodiscard]] std::optional<Exchange> exchange(std::int64_t number);

    /// The number and DATA of the newest `count` exchanges, newest first, without those whose DATA is empty or has more
    /// than `longest` bytes.
    [[nodiscard]] std::vector<std::pair<std::int64_t, std::string>> latestData(std::int64_t count,
                                                                               std::int64_t longest);

    /// Removes exchanges that are there when it is called. Payments are not held up meanwhile. Returns how many.
    std::int64_t removeExchanges(Filter const& filter, Page const& page);

    /// Removes payments with their history and notifications, all or those of an account; as removeExchanges().
    std::int64_t removePayments(std::optional<std::string> const& account);

private:
    using Turn = JointWriter::Turn;

    /// What single rows are read by.
    class RowReader {
    public:
        explicit RowReader(Store& store);
        [[nodiscard]] Database& database() const { return m_Turn ? m_Turn->database() : *m_Reader; }

    private:
        std::optional<Turn> m_Turn;   ///< In a request.
        ReaderPool::Reader m_Reader;  ///< Else.
    };

    /// What `read` makes of each row that the query finds among what is committed.
    template <class Read, class... Values>
    auto committedRows(Read read, std::string const& sql, Values const&... values) {
        return m_Readers.take()->prepare(sql, values...).all(read);
    }

    /// The same of the first row, as the thread's request has left it; nothing when there is none.
    template <class Read, class... Values>
    auto presentRow(Read read, std::string const& sql, Values const&... values) {
        return RowReader(*this).database().prepare(sql, values...).first(read);
    }

    /// Rows are removed in batches. A thread pauses between two: one that only unlocked and locked again would mostly
    /// be the next one to get the lock.
    static constexpr std::int64_t kBatch = 256;
    static constexpr std::chrono::microseconds kPause{200};

    /// The rows of a statement that `read` reads, as many as `page` admits. It adds to the bytes that the page counts.
    template <class Row, class Read>
    static Listing<Row> listingOf(Statement& row, Page const& page, Read read) {
        Listing<Row> found;
        std::size_t bytes = 0;
        while (row.step()) {
            if (static_cast<std::int64_t>(found.m_Rows.size()) == page.m_Limit || bytes >= page.m_MaxBytes) {
                found.m_More = true;
                break;
            }
            found.m_Rows.push_back(read(row, bytes));
        }
        return found;
    }

    static std::string firstColumn(Statement const& row);
    static std::string conditionsOf(Filter const& filter, char const* payment);
    static void bind(Statement& row, Filter const& filter, Page const& page);
    Listing<Exchange> listExchanges(std::string const& select, Filter const& filter, Page const& page);
    std::int64_t insertExchange(Exchange const& exchange);
    void makeFreeIdentifiers(StoredPayment& fresh, MakeIdentifiers const& makeIdentifiers);
    bool prune();
    bool pruneExchanges(std::int64_t count, std::int64_t before);
    bool prunePayments(std::int64_t count, std::int64_t before);
    std::int64_t lastNumberIn(char const* counter);
    std::int64_t removePayments(Statement chosen);
    void insertHistory(std::string const& id, HistoryEntry const& step);
    void insertNotification(Notification const& notification);
    void replaceDueMove(std::string const& id, std::optional<DueMove> const& next);

    Retention m_Retention;
    std::mutex m_Mutex;  ///< Held while a key is looked up. Guards the next one.

    /// By key id: some that are committed. They never change, but for replaceBy(), which forgets them after it.
    std::map<std::string, MerchantKey> m_KnownKeys;
    EventFeed m_Events;
    JointWriter m_Writer;
    Database& m_Database = m_Writer.database();  ///< Used in turns of the writer.
    ReaderPool m_Readers;  ///< Ends before m_Writer, so that the last connection to close is one that can tidy up.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_STORE_H
