/// The order ledger as C++17 classes: what tallowin.hpp does for tallowin.h, over ledger.h.
///
/// Header only. The rules at the heads of ledger.h and tallowin.hpp hold: objects move and do not copy; one thread at a
/// time uses a ledger and its orders; a text with a zero byte is refused (std::invalid_argument).
#ifndef TALLOWIN_LEDGER_HPP
#define TALLOWIN_LEDGER_HPP

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ledger.h"
#include "tallowin.hpp"

namespace tallowin {

/// A function of the ledger failed. It never means that an order is or is not paid.
class LedgerError : public ResultError {
public:
    /// Describes the failure `code` that `function` just returned on this thread.
    LedgerError(char const* function, std::int32_t code)
        : ResultError(function, code, lastReason(&Ledger_GetLastErrorText, code)) {}
};

/// What a confirmation is to an order.
enum class Outcome : std::int32_t {
    kRefused = KVX_LEDGER_REFUSED,             ///< Not accepted; nothing changed.
    kPaidNow = KVX_LEDGER_PAID_NOW,            ///< Deliver: once in the life of an order.
    kKnownAlready = KVX_LEDGER_KNOWN_ALREADY,  ///< Genuine, and recorded before.
    kNotPaid = KVX_LEDGER_NOT_PAID,            ///< Genuine: declined, cancelled or expired.
    kSurplus = KVX_LEDGER_SURPLUS,             ///< Genuine, but another attempt has paid the order.
    kKept = KVX_LEDGER_KEPT                    ///< Signed by a key that is not here yet; tried again by the worker.
};

/// Why a confirmation is refused or kept.
enum class Reason : std::int32_t {
    kNone = KVX_LEDGER_REASON_NONE,
    kTooLarge = KVX_LEDGER_REASON_TOO_LARGE,
    kFormat = KVX_LEDGER_REASON_FORMAT,
    kNoSignature = KVX_LEDGER_REASON_NO_SIGNATURE,
    kNoKeyId = KVX_LEDGER_REASON_NO_KEY_ID,
    kBadSignature = KVX_LEDGER_REASON_BAD_SIGNATURE,
    kOwnKey = KVX_LEDGER_REASON_OWN_KEY,
    kNotServiceKey = KVX_LEDGER_REASON_NOT_SERVICE_KEY,
    kWrongType = KVX_LEDGER_REASON_WRONG_TYPE,
    kUnknownToken = KVX_LEDGER_REASON_UNKNOWN_TOKEN,
    kWrongOrder = KVX_LEDGER_REASON_WRONG_ORDER,
    kWrongAmount = KVX_LEDGER_REASON_WRONG_AMOUNT,
    kWrongCurrency = KVX_LEDGER_REASON_WRONG_CURRENCY,
    kWrongResult = KVX_LEDGER_REASON_WRONG_RESULT,
    kTooLate = KVX_LEDGER_REASON_TOO_LATE,
    kOtherPayment = KVX_LEDGER_REASON_OTHER_PAYMENT,
    kContradicts = KVX_LEDGER_REASON_CONTRADICTS,
    kUnknownKey = KVX_LEDGER_REASON_UNKNOWN_KEY,
    kKeptFull = KVX_LEDGER_REASON_KEPT_FULL
};

/// What has become of a renewal of the merchant's key; ledger.h has the meanings.
enum class Renewal : std::int32_t {
    kUnchanged = KVX_LEDGER_RENEWAL_UNCHANGED,
    kDone = KVX_LEDGER_RENEWAL_DONE,
    kInDoubt = KVX_LEDGER_RENEWAL_IN_DOUBT,
};

/// The names of the C constants without their prefix, such as "PAID_NOW"; "" for any other number.
inline char const* nameOf(Outcome outcome) noexcept {
    return Ledger_GetOutcomeName(static_cast<std::int32_t>(outcome));
}
inline char const* nameOf(Reason reason) noexcept {
    return Ledger_GetReasonName(static_cast<std::int32_t>(reason));
}

/// An examined confirmation. A value: it copies, and needs no ledger.
class Confirmation {
public:
    Confirmation(Outcome outcome, Reason reason, std::string order, std::string sentence) noexcept
        : m_Outcome(outcome), m_Reason(reason), m_Order(std::move(order)), m_Sentence(std::move(sentence)) {}

    Outcome outcome() const noexcept { return m_Outcome; }

    /// Whether to deliver: true once in the life of an order, among all processes.
    bool isPaidNow() const noexcept { return m_Outcome == Outcome::kPaidNow; }

    /// The order's number; "" when the confirmation names none, or is refused before its signature has been verified.
    std::string const& order() const noexcept { return m_Order; }

    /// Why it is refused or kept; kNone otherwise.
    Reason reason() const noexcept { return m_Reason; }

    /// The same for logs; "" when it is neither refused nor kept.
    std::string const& sentence() const noexcept { return m_Sentence; }

    /// The status for the response at the notification address: 200; 400 refused; 503 kept.
    int httpStatus() const noexcept {
        constexpr int kOk = 200;
        constexpr int kBadRequest = 400;
        constexpr int kUnavailable = 503;
        if (m_Outcome == Outcome::kRefused) {
            return kBadRequest;
        }
        return m_Outcome == Outcome::kKept ? kUnavailable : kOk;
    }

private:
    Outcome m_Outcome;
    Reason m_Reason;
    std::string m_Order;
    std::string m_Sentence;
};

namespace detail {

inline void checkLedger(char const* function, std::int32_t code) {
    check<LedgerError>(function, code);
}

/// As many characters as `size` counts, without the terminator. Never throws: it only shortens.
inline void shorten(std::string& text, std::int32_t size) noexcept {
    text.erase(static_cast<std::size_t>(size) - 1);
}

constexpr std::size_t kNumberRoom = KVX_LEDGER_NUMBER_SIZE;

}  // namespace detail

/// An order under construction. It ends with its ledger: afterwards it fails with KVX_E_BAD_HANDLE.
class LedgerOrder {
public:
    /// Takes over a handle that a flat function returned. Requires: it is no one else's.
    static LedgerOrder adopt(KVX_HANDLE handle) noexcept { return LedgerOrder(Holder(handle)); }

    /// Sets or replaces an attribute of the order's payment message, such as SUCCESSLINK.
    void setAttribute(std::string_view name, std::string_view value) {
        detail::Terminated const key(name);
        detail::Terminated const text(value);
        detail::checkLedger("LedgerOrder_SetAttribute",
                            LedgerOrder_SetAttribute(m_Handle.get(), key.get(), text.get()));
    }

    /// The signed payment URL for the shopper's browser. Everything about the payment is on disk before it returns. The
    /// same number with the same content returns the same URL, so the call may be repeated after a failure.
    std::string begin() {
        return detail::copied<LedgerError>(
            "LedgerOrder_Begin", detail::kMessageRoom,
            [&](std::int32_t* size, char* buffer) { return LedgerOrder_Begin(m_Handle.get(), size, buffer); });
    }

    /// Destroys the native object; what was begun stays. So does the destructor.
    void close() noexcept { m_Handle.reset(); }

    /// Borrowed, for flat functions; null when closed.
    KVX_HANDLE handle() const noexcept { return m_Handle.get(); }

private:
    using Holder = detail::Handle<&DestroyLedgerOrder>;

    explicit LedgerOrder(Holder handle) noexcept : m_Handle(std::move(handle)) {}

    Holder m_Handle;
};

/// One handle on a store and a configuration directory. Each thread has its own.
class Ledger {
public:
    /// A ledger without a store, for options that open() needs.
    Ledger() : m_Handle(detail::created(CreateLedger())) {}

    /// Opens the store, such as "sqlite:/var/lib/shop/orders.db". Requires: `directory` has been set up.
    Ledger(std::string_view store, std::string_view directory) : Ledger() { open(store, directory); }

    /// Sets an option of this object, such as "STATUSTYPE"; ledger.h lists them. Give every ledger on one store the
    /// same.
    void setOption(std::string_view name, std::string_view value) {
        detail::Terminated const key(name);
        detail::Terminated const text(value);
        detail::checkLedger("Ledger_SetOption", Ledger_SetOption(m_Handle.get(), key.get(), text.get()));
    }

    /// Opens a store in place of the one that was open.
    void open(std::string_view store, std::string_view directory) {
        detail::Terminated const name(store);
        detail::Terminated const path(directory);
        detail::checkLedger("Ledger_Open", Ledger_Open(m_Handle.get(), name.get(), path.get()));
    }

    /// An order under construction. Nothing is stored yet.
    LedgerOrder createOrder(std::string_view number, std::string_view amount, std::string_view currency) {
        detail::Terminated const name(number);
        detail::Terminated const price(amount);
        detail::Terminated const money(currency);
        KVX_HANDLE made = nullptr;
        detail::checkLedger("Ledger_CreateOrder",
                            Ledger_CreateOrder(m_Handle.get(), name.get(), price.get(), money.get(), &made));
        return LedgerOrder::adopt(made);
    }

    /// Creates the order with these attributes and begins its payment; the payment URL.
    std::string begin(std::string_view number, std::string_view amount, std::string_view currency,
                      std::initializer_list<std::pair<std::string_view, std::string_view>> attributes = {}) {
        LedgerOrder order = createOrder(number, amount, currency);
        for (auto const& [name, value] : attributes) {
            order.setAttribute(name, value);
        }
        return order.begin();
    }

    /// Examines a confirmation and records what it says. `messenger` is the way it came, such as "return" or
    /// "notification"; `data` and `signature` are the query parameters DATA and SIGNATURE, percent-decoded.
    ///
    /// After an exception nothing has been recorded and nothing is known about the confirmation: respond with 503.
    /// A zero byte in `data` or `signature`, which any stranger can send, is refused as Reason::kFormat.
    Confirmation confirm(std::string_view messenger, std::string_view data, std::string_view signature) {
        if (data.find('\0') != std::string_view::npos || signature.find('\0') != std::string_view::npos) {
            return Confirmation(Outcome::kRefused, Reason::kFormat, std::string(),
                                "DATA or SIGNATURE holds a zero byte");
        }
        detail::Terminated const way(messenger);
        detail::Terminated const text(data);
        detail::Terminated const signedBy(signature);
        // All memory before the call: what it says of a paid order is said once.
        std::string order(detail::kNumberRoom, '\0');
        auto size = static_cast<std::int32_t>(order.size());
        std::int32_t outcome = KVX_LEDGER_REFUSED;
        detail::checkLedger("Ledger_Confirm", Ledger_Confirm(m_Handle.get(), way.get(), text.get(), signedBy.get(),
                                                             &outcome, &size, order.data()));
        detail::shorten(order, size);
        if (outcome != KVX_LEDGER_REFUSED && outcome != KVX_LEDGER_KEPT) {
            return Confirmation(static_cast<Outcome>(outcome), Reason::kNone, std::move(order), std::string());
        }
        std::int32_t reason = KVX_LEDGER_REASON_NONE;
        std::string sentence = detail::copied<LedgerError>(
            "Ledger_GetReason", detail::kAttributeRoom,
            [&](std::int32_t* need, char* buffer) { return Ledger_GetReason(m_Handle.get(), &reason, need, buffer); });
        return Confirmation(static_cast<Outcome>(outcome), static_cast<Reason>(reason), std::move(order),
                            std::move(sentence));
    }

    /// The number of one order that the worker found paid and that has not been reported; nothing when there is none.
    /// Each order is reported once, here or as Outcome::kPaidNow; with the option ACKNOWLEDGE until delivered() is
    /// called.
    std::optional<std::string> nextPaid() {
        std::string order(detail::kNumberRoom, '\0');
        auto size = static_cast<std::int32_t>(order.size());
        std::int32_t const code = Ledger_NextPaid(m_Handle.get(), &size, order.data());
        if (code == KVX_E_NOT_FOUND) {
            return std::nullopt;
        }
        detail::checkLedger("Ledger_NextPaid", code);
        detail::shorten(order, size);
        return std::optional<std::string>(std::move(order));
    }

    /// Records that the order has been delivered: it is not reported as paid any more. May be called again.
    void delivered(std::string_view order) {
        detail::Terminated const number(order);
        detail::checkLedger("Ledger_Delivered", Ledger_Delivered(m_Handle.get(), number.get()));
    }

    /// Renews the merchant's key while the old one still signs. An empty URL keeps the configured address. After an
    /// exception the old key is in use; `outcome`, when given, says whether the service may know the new one.
    void renewKeys(std::string_view url, std::string_view user, std::string_view password, Renewal* outcome = nullptr) {
        detail::Terminated const address(url);
        detail::Terminated const name(user);
        detail::Terminated const secret(password);
        std::int32_t result = KVX_LEDGER_RENEWAL_UNCHANGED;
        std::int32_t const code = Ledger_RenewKeys(m_Handle.get(), address.get(), name.get(), secret.get(), &result);
        if (outcome != nullptr) {
            *outcome = static_cast<Renewal>(result);
        }
        detail::checkLedger("Ledger_RenewKeys", code);
    }

    /// Does up to `limit` jobs that are due: captures, completions, status requests, kept confirmations. How many were
    /// done, failed ones included. Waits for the network.
    std::int32_t runDue(std::int32_t limit) {
        std::int32_t done = 0;
        detail::checkLedger("Ledger_RunDue", Ledger_RunDue(m_Handle.get(), limit, &done));
        return done;
    }

    /// Records what a person found out about an order that needs attention.
    void resolve(std::string_view order, std::string_view state, std::string_view note) {
        detail::Terminated const number(order);
        detail::Terminated const name(state);
        detail::Terminated const why(note);
        detail::checkLedger("Ledger_Resolve", Ledger_Resolve(m_Handle.get(), number.get(), name.get(), why.get()));
    }

    /// The order's state, such as "captured".
    std::string getState(std::string_view order) const {
        detail::Terminated const number(order);
        return detail::copied<LedgerError>("Ledger_GetState", detail::kNumberRoom,
                                           [&](std::int32_t* size, char* buffer) {
                                               return Ledger_GetState(m_Handle.get(), number.get(), size, buffer);
                                           });
    }

    /// The order with its attempts as JSON.
    std::string getOrder(std::string_view order) const {
        detail::Terminated const number(order);
        return detail::copied<LedgerError>("Ledger_GetOrder", detail::kMessageRoom,
                                           [&](std::int32_t* size, char* buffer) {
                                               return Ledger_GetOrder(m_Handle.get(), number.get(), size, buffer);
                                           });
    }

    /// A page of orders as JSON; ledger.h lists the filters. `after` is the member "next" of the page before.
    std::string listOrders(std::string_view filter = {}, std::string_view after = {}, std::int32_t limit = 100) const {
        detail::Terminated const name(filter);
        detail::Terminated const number(after);
        return detail::copied<LedgerError>(
            "Ledger_ListOrders", detail::kMessageRoom, [&](std::int32_t* size, char* buffer) {
                return Ledger_ListOrders(m_Handle.get(), name.get(), number.get(), limit, size, buffer);
            });
    }

    /// The order with every transition as JSON, whose signatures a third party can verify.
    std::string exportOrder(std::string_view order) const {
        detail::Terminated const number(order);
        return detail::copied<LedgerError>("Ledger_ExportOrder", detail::kMessageRoom,
                                           [&](std::int32_t* size, char* buffer) {
                                               return Ledger_ExportOrder(m_Handle.get(), number.get(), size, buffer);
                                           });
    }

    /// Closes the store and destroys the native object; so does the destructor.
    void close() noexcept { m_Handle.reset(); }

    /// Borrowed, for flat functions; null when closed.
    KVX_HANDLE handle() const noexcept { return m_Handle.get(); }

private:
    detail::Handle<&DestroyLedger> m_Handle;
};

}  // namespace tallowin

#endif
