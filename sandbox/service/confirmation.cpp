// Faults of content. takeFault() decides before a request is carried out: it finds the other payment of `replay` and
// `swap`, or says in a step why the fault cannot happen; such a fault stays armed. withWrongContent() changes one
// attribute of a message before it is signed. A wrong value keeps the form of the right one, so that only a comparison
// with the order finds it.
#include "sandbox/service/confirmation.h"

#include <cstddef>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/rowwith.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

/// The amount with its first digit that is no zero another one.
std::string otherAmount(std::string const& amount) {
    std::size_t const digit = amount.find_first_of("123456789");
    if (digit == std::string::npos) {
        return "1.00";
    }
    std::string other = amount;
    other[digit] = static_cast<char>(other[digit] == '9' ? '8' : other[digit] + 1);
    return other;
}

std::string otherCurrency(std::string const& currency) {
    return currency == "USD" ? "EUR" : "USD";
}

std::string otherOrder(std::string const& order) {
    return order + "-X";
}

std::string otherToken(std::string const& token) {
    std::string other = token.empty() ? "1" : token;
    other.back() = other.back() == '0' ? '1' : '0';
    return other;
}

/// Of a paid payment that it was declined, of any other that it was paid.
std::string otherResult(std::string const& result) {
    bool const good = result == stateName(PaymentState::kAuthorised) || result == stateName(PaymentState::kCaptured) ||
                      result == stateName(PaymentState::kCompleted);
    return stateName(good ? PaymentState::kDeclined : PaymentState::kAuthorised);
}

/// A kind that replaces one attribute.
struct ReplacementRow {
    FaultKind m_Kind;
    char const* m_Name;
    std::string (*m_Other)(std::string const& value);
};

// clang-format off
constexpr ReplacementRow kReplacements[] = {
    {FaultKind::kWrongAmount,   "AMOUNT",   otherAmount},
    {FaultKind::kWrongCurrency, "CURRENCY", otherCurrency},
    {FaultKind::kWrongOrder,    "ORDERID",  otherOrder},
    {FaultKind::kWrongToken,    "TOKEN",    otherToken},
    {FaultKind::kWrongResult,   "RESULT",   otherResult},
};

/// The states of payments whose message can stand for that of another.
struct SearchRow {
    FaultKind m_Kind;
    unsigned m_Exchanges;
    Store::Search m_Search;
    std::vector<PaymentState> m_States;
    char const* m_Missing;
};

constexpr unsigned kConfirmations = bit(ExchangeKind::kDecision) | bit(ExchangeKind::kNotification);
constexpr unsigned kCapture = bit(ExchangeKind::kCapture);
constexpr unsigned kComplete = bit(ExchangeKind::kComplete);

std::vector<SearchRow> const& searches() {
    using S = PaymentState;
    static std::vector<SearchRow> const rows = {
        {FaultKind::kReplay, kConfirmations, Store::Search::kEarlier, {S::kAuthorised, S::kLapsed, S::kCaptured, S::kCompleted},
         "the account has no earlier payment that was paid"},
        {FaultKind::kReplay, kCapture,       Store::Search::kEarlier, {S::kCaptured, S::kCompleted},
         "the account has no earlier payment that was captured"},
        {FaultKind::kReplay, kComplete,      Store::Search::kEarlier, {S::kCompleted},
         "the account has no earlier payment that was completed"},
        {FaultKind::kSwap,   kConfirmations, Store::Search::kAll,     {S::kOpened, S::kPending},
         "the account has no other payment that is undecided"},
        {FaultKind::kSwap,   kCapture,       Store::Search::kAll,     {S::kOpened, S::kAuthorised},
         "the account has no other payment that is opened or authorised"},
        {FaultKind::kSwap,   kComplete,      Store::Search::kAll,     {S::kOpened, S::kAuthorised, S::kCaptured},
         "the account has no other payment that is opened, authorised or captured"},
    };
    return rows;
}
// clang-format on

SearchRow const* searchOf(FaultKind kind, ExchangeKind exchange) {
    for (SearchRow const& row : searches()) {
        if (row.m_Kind == kind && (row.m_Exchanges & bit(exchange)) != 0) {
            return &row;
        }
    }
    return nullptr;
}

/// `message` with `value` in the place of the attribute `name`, or behind the others when it has none.
Message replaced(Message const& message, std::string const& name, std::string const& value) {
    Message out(message.type());
    for (auto const& [present, old] : message.attributes()) {
        if (present != "MSGTYPE") {
            out.set(present, present == name ? value : old);
        }
    }
    if (!message.find(name)) {
        out.set(name, value);
    }
    return out;
}

/// A kind that happens to payments in one state only.
struct StateRow {
    FaultKind m_Kind;
    PaymentState m_State;
};

constexpr StateRow kStates[] = {
    {FaultKind::kPending, PaymentState::kOpened},
    {FaultKind::kRefuseCapture, PaymentState::kAuthorised},
};

/// Whether a fault can only happen to an exchange about a payment that the service knows.
bool needsPayment(FaultKind kind) {
    return rowWith(kReplacements, &ReplacementRow::m_Kind, kind) != nullptr ||
           rowWith(kStates, &StateRow::m_Kind, kind) != nullptr || kind == FaultKind::kReplay ||
           kind == FaultKind::kSwap;
}

void copyIfGiven(Payment const& payment, char const* name, Message& to) {
    if (std::optional<std::string> const value = payment.attribute(name)) {
        to.set(name, *value);
    }
}

/// A signature with its last bit the other way round.
std::string flipLastBit(std::string const& signature) {
    std::string bytes = fromHex(signature).value();
    bytes.back() = static_cast<char>(static_cast<unsigned char>(bytes.back()) ^ 1U);
    return toHex(bytes);
}

KeyRing::Key signingKey(Services const& services, FaultEffect const& effect) {
    if (effect.is(FaultKind::kWrongKey)) {
        return services.m_Keys.impostor();
    }
    if (effect.is(FaultKind::kStaleKey)) {
        return services.m_Keys.stale();
    }
    return services.m_Keys.current();
}

/// Whether `fault` can happen to an exchange of this kind about `payment`, which is null when it names none. Sets
/// `other` for `replay` and `swap`. Appends a step that says why it cannot.
bool canHappen(Services const& services, Fault const& fault, ExchangeKind exchange, Payment const* payment,
               std::optional<Payment>& other, std::vector<CheckStep>& steps) {
    if (!needsPayment(fault.m_Kind)) {
        return true;
    }
    auto const refuse = [&](std::string const& reason) {
        steps.push_back({std::string("The fault ") + faultRow(fault.m_Kind).m_Name + " did not happen", reason});
        return false;
    };
    if (payment == nullptr) {
        return refuse("the request names no payment");
    }
    StateRow const* const row = rowWith(kStates, &StateRow::m_Kind, fault.m_Kind);
    if (row != nullptr && payment->m_State != row->m_State) {
        return refuse(std::string("the payment is ") + stateName(payment->m_State));
    }
    SearchRow const* const search = searchOf(fault.m_Kind, exchange);
    if (search == nullptr) {
        return true;
    }
    std::optional<std::string> const id = services.m_Store.otherPayment(*payment, search->m_Search, search->m_States);
    if (!id) {
        return refuse(search->m_Missing);
    }
    other = services.m_Store.paymentById(*id).value().m_Payment;
    return true;
}

}  // namespace

FaultEffect takeFault(Services const& services, ExchangeKind exchange, std::string const& order,
                      std::string const& account, Payment const* payment, std::vector<CheckStep>& steps,
                      FaultRegistry::CanHappen const& allowed) {
    FaultEffect effect;
    effect.m_Fault = services.m_Faults.take(exchange, order, account, [&](Fault const& fault) {
        return (!allowed || allowed(fault)) && canHappen(services, fault, exchange, payment, effect.m_Other, steps);
    });
    return effect;
}

Message withWrongContent(FaultEffect const& effect, Payment const& payment, Message const& message) {
    ReplacementRow const* const row =
        effect.m_Fault ? rowWith(kReplacements, &ReplacementRow::m_Kind, effect.m_Fault->m_Kind) : nullptr;
    if (row == nullptr) {
        return message;
    }
    bool const hasState = row->m_Kind == FaultKind::kWrongResult && message.find("STATE").has_value();
    std::string const name = hasState ? "STATE" : row->m_Name;
    std::string const ordered = payment.attribute(name).value_or("");
    return replaced(message, name, row->m_Other(message.find(name).value_or(ordered)));
}

PaymentState decidedState(Payment const& payment) {
    bool const settled = payment.m_State == PaymentState::kCaptured || payment.m_State == PaymentState::kCompleted ||
                         payment.m_State == PaymentState::kLapsed;
    return settled ? PaymentState::kAuthorised : payment.m_State;
}

Message confirmation(Services const& services, Payment const& payment, std::string const& result) {
    return confirmationBy(services.m_Keys.current()->m_Id, kConfirmationType, payment, result);
}

Message confirmationBy(std::string const& keyId, std::string const& type, Payment const& payment,
                       std::string const& result) {
    Message message(type);
    message.set("KEYID", keyId).set("ID", payment.m_Id).set("TOKEN", payment.m_Token);
    copyIfGiven(payment, "AMOUNT", message);
    copyIfGiven(payment, "CURRENCY", message);
    copyIfGiven(payment, "ORDERID", message);
    message.set("RESULT", result);
    return message;
}

std::string signedConfirmation(Services const& services, Payment const& payment, std::string const& result,
                               FaultEffect const& effect) {
    KeyRing::Key const key = signingKey(services, effect);
    char const* const type = effect.is(FaultKind::kWrongType) ? kUnexpectedType : kConfirmationType;
    // What is replayed is what was confirmed then; what is swapped reports the result of this payment.
    std::string const reported =
        effect.is(FaultKind::kReplay) && effect.m_Other ? stateName(decidedState(*effect.m_Other)) : result;
    Message const message = confirmationBy(key->m_Id, type, effect.m_Other ? *effect.m_Other : payment, reported);
    std::string const text = withWrongContent(effect, payment, message).text();
    std::string signature = signText(key->m_Key.get(), text, Widening::kSign);
    if (effect.is(FaultKind::kWrongSignature)) {
        signature = flipLastBit(signature);
    }
    return "DATA=" + percentEncode(text) + "&SIGNATURE=" + signature;
}

}  // namespace sandbox
