// Beginning a payment: the content of an order, and its attempts.
//
// The message is made and signed before the transaction, so that nobody waits for a signature. When another process has
// begun the order in the meantime, this message is dropped and the other URL returned.
#include <algorithm>
#include <cstddef>
#include <ctime>

#include "ledger/byteforms.h"
#include "ledger/failure.h"
#include "ledger/json.h"
#include "ledger/orderledger.h"

namespace ledger {

namespace {

constexpr std::size_t kMaxNumber = KVX_LEDGER_NUMBER_SIZE - 1;
constexpr std::size_t kMaxAmount = 32;
constexpr std::size_t kMaxCurrency = 8;
constexpr std::size_t kMaxName = 64;

/// Attributes that the ledger or the component sets.
constexpr char const* kReserved[] = {"ORDERID", "AMOUNT", "CURRENCY",   "MSGTYPE",
                                     "KEYID",   "TOKEN",  "EXPIRATION", "CONFIGPATH"};

void requireWord(char const* what, std::string const& value, std::size_t max) {
    bool const isWord = std::all_of(value.begin(), value.end(), [](char byte) { return byte >= '!' && byte <= '~'; });
    if (value.empty() || value.size() > max || !isWord) {
        throw Failure(KVX_E_LEDGER_INVALID, std::string(what) + " \"" + printable(value) + "\" has not 1 to " +
                                                std::to_string(max) + " characters from \"!\" to \"~\"");
    }
}

/// What a name in XML may begin with, of plain ASCII. A message with any other name could not be read by the service.
bool isNameStart(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') || character == '_';
}

bool isNameCharacter(char character) {
    return isNameStart(character) || (character >= '0' && character <= '9') || character == '.' || character == '-';
}

/// The time in "YYYYMMDD HH:MM:SS", UTC. Throws Failure when it is none.
Time timeIn(std::string const& text) {
    static constexpr char kForm[] = "00000000 00:00:00";
    bool isTime = text.size() == sizeof kForm - 1;
    for (std::size_t at = 0; isTime && at < text.size(); ++at) {
        isTime = kForm[at] == '0' ? text[at] >= '0' && text[at] <= '9' : text[at] == kForm[at];
    }
    if (!isTime) {
        throw Failure(KVX_E_UNEXPECTED, "the payment has the EXPIRATION \"" + printable(text) + "\"");
    }
    auto const number = [&](std::size_t at, std::size_t digits) { return std::stoi(text.substr(at, digits)); };
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(4, 2) - 1;
    parts.tm_mday = number(6, 2);
    parts.tm_hour = number(9, 2);
    parts.tm_min = number(12, 2);
    parts.tm_sec = number(15, 2);
    return static_cast<Time>(::timegm(&parts)) * kSecond;
}

/// A member of the attributes as JSON.
std::string memberOf(std::string const& name, std::string const& value) {
    return jsonText(name) + ": " + jsonText(value);
}

[[noreturn]] void failForContent(OrderContent const& content, std::string const& difference) {
    throw Failure(KVX_E_LEDGER_CONFLICT, "order " + content.m_Number + " exists with " + difference);
}

}  // namespace

void OrderContent::requireValid() const {
    requireWord("the number", m_Number, kMaxNumber);
    requireWord("the amount", m_Amount, kMaxAmount);
    requireWord("the currency", m_Currency, kMaxCurrency);
}

void OrderContent::setAttribute(std::string const& name, std::string const& value) {
    if (name.empty() || name.size() > kMaxName || !isNameStart(name[0]) ||
        !std::all_of(name.begin(), name.end(), isNameCharacter)) {
        throw Failure(KVX_E_LEDGER_INVALID, "\"" + printable(name) + "\" is no name of an attribute");
    }
    for (char const* const reserved : kReserved) {
        if (name == reserved) {
            throw Failure(KVX_E_LEDGER_INVALID, name + " is not set by the shop");
        }
    }
    m_Attributes[name] = value;
}

std::string OrderContent::attributesAsJson() const {
    std::string json = "{";
    for (auto const& [name, value] : m_Attributes) {
        json += (json.size() > 1 ? ", " : "") + memberOf(name, value);
    }
    return json + "}";
}

std::string OrderLedger::begin(OrderContent const& content) {
    Time const at = now();
    std::optional<AttemptRow> made;  // once, however often the transaction begins
    return inTransactionIfChanged(store().database(), [&](Transaction& transaction) {
        std::optional<OrderRow> order = store().orderNumbered(content.m_Number);
        if (order) {
            requireSameContent(content, *order);
            if (std::optional<std::string> url = openUrl(*order, at)) {
                return std::move(*url);
            }
        }
        if (!made) {
            made = newAttempt(content, at);
        }
        AttemptRow attempt = *made;
        transaction.startChanges();
        if (order) {
            ++order->m_NewestAttempt;
            store().save(*order);
        } else {
            order.emplace();
            order->m_Number = content.m_Number;
            order->m_Amount = content.m_Amount;
            order->m_Currency = content.m_Currency;
            order->m_Attributes = content.attributesAsJson();
            order->m_CreatedAt = attempt.m_CreatedAt;
            order->m_NewestAttempt = 1;
            store().add(*order);
        }
        attempt.m_OrderId = order->m_Id;
        attempt.m_Attempt = order->m_NewestAttempt;
        attempt.m_State = stateAfter(State::kOpened, Event::kBegun).value();
        attempt.m_DueAt = dueIn(attempt, attempt.m_CreatedAt);
        store().add(attempt);
        Evidence evidence;
        evidence.m_Cause = "merchant";
        evidence.m_Message = attempt.m_Message;
        store().add(attempt, State::kOpened, Event::kBegun, attempt.m_CreatedAt, evidence);
        return attempt.m_Url;
    });
}

/// Throws Failure unless the order has this content.
void OrderLedger::requireSameContent(OrderContent const& content, OrderRow const& order) const {
    if (content.m_Amount != order.m_Amount) {
        failForContent(content, "the amount " + order.m_Amount + ", not " + content.m_Amount);
    }
    if (content.m_Currency != order.m_Currency) {
        failForContent(content, "the currency " + order.m_Currency + ", not " + content.m_Currency);
    }
    if (content.attributesAsJson() == order.m_Attributes) {
        return;
    }
    for (auto const& [name, value] : content.m_Attributes) {
        if (order.m_Attributes.find(memberOf(name, value)) == std::string::npos) {
            failForContent(content, "another value of the attribute " + name);
        }
    }
    failForContent(content, "more attributes");
}

/// The URL of the newest payment; nothing when it has ended or its time has run out. Throws Failure when the order has
/// been paid.
std::optional<std::string> OrderLedger::openUrl(OrderRow const& order, Time at) {
    if (order.m_PaidAttempt) {
        throw Failure(KVX_E_LEDGER_PAID, "order " + order.m_Number + " has been paid");
    }
    AttemptRow const attempt = store().attempt(order.m_Id, order.m_NewestAttempt);
    bool const isOpen = attempt.m_State == State::kWaiting && at < attempt.m_ExpiresAt;
    return isOpen ? std::optional<std::string>(attempt.m_Url) : std::nullopt;
}

/// A payment at the service that is not stored yet.
AttemptRow OrderLedger::newAttempt(OrderContent const& content, Time at) {
    Message const message = account().createPayment();
    message.set("ORDERID", content.m_Number);
    message.set("AMOUNT", content.m_Amount);
    message.set("CURRENCY", content.m_Currency);
    for (auto const& [name, value] : content.m_Attributes) {
        message.set(name.c_str(), value);
    }
    AttemptRow attempt;
    attempt.m_Token = message.get("TOKEN");
    attempt.m_ExpiresAt = timeIn(message.get("EXPIRATION"));
    attempt.m_Url = message.url();
    attempt.m_Message = message.text();
    attempt.m_CreatedAt = at;
    return attempt;
}

}  // namespace ledger
