// Generates docs/fault-table.md from the rows.
//
// Texts for people stand in the heads of the sections and in tables here. The advice in the last column follows from
// the row: its exchange, its result and the state it leaves.

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "tallowin/codes.h"
#include "tests/flow/faulttable.h"

namespace kvxtest {

namespace {

using sandbox::ExchangeKind;
using sandbox::FaultKind;

constexpr char kHead[] = R"(<!-- Generated from the rows of tests/flow/faulttable.cpp, do not edit. -->
# When something goes wrong

The outcome of a set-up and of a payment for every fault that `tallowin-sandbox` injects on request: the result of the
component, the state of the payment, and what to do.

- **Carried out** says whether the service carried out the request. Without a response a merchant cannot know.
- The codes are those of [codes.h](../include/tallowin/codes.h).
- **Strict** is the outcome with `PROFILE="strict"` in [settings.xml](hardening.md#profile), when a delay or a stall outlasts
  the limits there; where nothing is said, it is the same.
- Without settings there is no time limit: the results beside `delay` and the stalls are returned once the service answers
  or closes, and until then the call waits. There is no size limit either: the results beside `huge` hold while memory
  lasts.
- Without settings `https` does not authenticate the server, so no certificate makes a call fail: see
  [risks](risks.md#the-network).
- *Safe* holds for this service, where repeating a request changes nothing and gets the same response. Ask your own
  provider for the same promise before you repeat a capture or a completion.

## The faults

| Fault | What happens |
|---|---|
)";

constexpr char kSetUpHead[] = R"(
## Setting up

`ConfigurationSetup_Reconfigure` on a directory that was set up before and whose defaults are no longer valid. It makes
four exchanges: setup, defaults, keyquery (the server's key) and keyexport (the merchant's new key). Files written by
earlier exchanges stay when a later one fails; the merchant's current key changes last. Until a set-up succeeds, the
merchant signs with the old key, which the service still knows.

| Fault | Exchange | Carried out | The component returns | Directory afterwards | What to do | Strict |
|---|---|---|---|---|---|---|
)";

constexpr char kShopperHead[] = R"(
## The shopper

The shopper opens the payment page (page) and pays (decision); the response redirects to the shop with the confirmation.
The component is called only when a confirmation has arrived: `MessageFactory_VerifyPayConfirm`.

| Fault | Exchange | Carried out | The browser gets | The component returns | Payment afterwards | What to do | Strict |
|---|---|---|---|---|---|---|---|
)";

constexpr char kPaymentHead[] = R"(
## Capture and completion

`MessageObject_Capture` of an authorised payment, and `MessageObject_Execute` of a completion of a captured one.

| Fault | Exchange | Carried out | The component returns | Payment afterwards | What to do | Strict |
|---|---|---|---|---|---|---|
)";

constexpr char kProxyHead[] = R"(
## Through a proxy

`MessageObject_Capture` of an authorised payment through a proxy with a fault. The proxy forwards a request to an `http`
address; to an `https` address it opens a tunnel (CONNECT). The component judges the response to CONNECT by the bytes of
its first read.

| Fault | Address | Carried out | The component returns | Payment afterwards | What to do | Strict |
|---|---|---|---|---|---|---|
)";

struct CodeName {
    std::int32_t m_Code;
    char const* m_Name;
};

// clang-format off
constexpr CodeName kCodeNames[] = {
    {KVX_OK,                  "`KVX_OK`"},
    {KVX_E_BUFFER_TOO_SMALL,  "`KVX_E_BUFFER_TOO_SMALL`"},
    {KVX_E_HTTP_BAD_REPLY,    "`KVX_E_HTTP_BAD_REPLY`"},
    {KVX_E_HTTP_FAMILY | 407, "`KVX_E_HTTP_FAMILY` and 407"},
    {KVX_E_HTTP_UNAVAILABLE,  "`KVX_E_HTTP_UNAVAILABLE`"},
    {KVX_E_INVALID_FORMAT,    "`KVX_E_INVALID_FORMAT`"},
    {KVX_E_INVALID_SIGNATURE, "`KVX_E_INVALID_SIGNATURE`"},
    {KVX_E_NOT_FOUND,         "`KVX_E_NOT_FOUND`"},
    {KVX_E_SERVER_ERROR,      "`KVX_E_SERVER_ERROR`"},
    {KVX_E_SOCKET_REFUSED,    "`KVX_E_SOCKET_REFUSED`"},
    {KVX_E_SOCKET_RESET,      "`KVX_E_SOCKET_RESET`"},
    {KVX_E_SOCKET_TIMEOUT,    "`KVX_E_SOCKET_TIMEOUT`"},
    {KVX_E_TLS_FAMILY,        "`KVX_E_TLS_FAMILY` and a reason"},
    {KVX_E_WRONG_RESPONSE,    "`KVX_E_WRONG_RESPONSE`"},
};

struct BrowserResultText {
    BrowserResult m_BrowserResult;
    char const* m_Text;
};

constexpr BrowserResultText kBrowserResultTexts[] = {
    {BrowserResult::kWhole,       "the answer"},
    {BrowserResult::kWrongReturn, "the way back to the shop"},
    {BrowserResult::kNothing,     "nothing"},
    {BrowserResult::kReset,       "a reset"},
    {BrowserResult::kCut,         "the beginning of the answer"},
    {BrowserResult::kStatus,      "a status and a text"},
    {BrowserResult::kNoBlankLine, "an answer without the empty line"},
    {BrowserResult::kZeroByte,    "an answer with a zero byte in it"},
    {BrowserResult::kTwice,       "the answer twice"},
    {BrowserResult::kHuge,        "the answer and blanks"},
};
// clang-format on

constexpr char kNoConfirmation[] = "(no confirmation)";
constexpr char kNothingToDo[] = "nothing";
constexpr char kUnnoticed[] = "nothing shows it";

std::string codeName(std::optional<std::int32_t> const& result) {
    for (CodeName const& row : kCodeNames) {
        if (row.m_Code == result) {
            return row.m_Name;
        }
    }
    throw std::logic_error("a result without a name");
}

std::string browserResultText(BrowserResult expected) {
    for (BrowserResultText const& row : kBrowserResultTexts) {
        if (row.m_BrowserResult == expected) {
            return row.m_Text;
        }
    }
    throw std::logic_error("an outcome without a text");
}

std::string directoryText(std::string const& left) {
    char const* const names[] = {"`config.xml`", "`default.xml`", "the server's key", "the merchant's key"};
    std::string text;
    for (std::size_t at = 0; at < left.size(); ++at) {
        if (left[at] != '.') {
            text += (text.empty() ? "new: " : ", ") + std::string(names[at]);
            text += left[at] == 'r' ? " with all that came behind it" : left[at] == 'f' ? " (not the right one)" : "";
        }
    }
    return left == "nnnn" ? "all new" : text.empty() ? "as before" : text;
}

bool isOfTls(FaultKind kind) {
    return sandbox::faultRow(kind).m_Exchanges == static_cast<unsigned>(ExchangeKind::kConnection);
}

std::string whatToDoAfterSetUp(FaultTableRow const& row) {
    if (row.m_Result != KVX_OK) {
        return "set up again: safe";
    }
    std::string const left = row.m_Left;
    if (left[0] == 'r') {
        return "nothing shows it; set up again to be rid of the rest";
    }
    if (left[1] == 'r') {
        return "nothing shows it; remove `default.xml` and set up again to be rid of the rest";
    }
    if (left[2] == 'f') {
        return "nothing shows it until confirmations fail with `KVX_E_INVALID_SIGNATURE`; set up again";
    }
    if (left[2] == '.') {
        return "nothing shows it, on a first set-up until confirmations fail with `KVX_E_NOT_FOUND`; set up again";
    }
    return isOfTls(row.m_Kind) ? kUnnoticed : kNothingToDo;
}

bool isOfContent(FaultKind kind) {
    constexpr FaultKind kKinds[] = {FaultKind::kWrongAmount, FaultKind::kWrongCurrency, FaultKind::kWrongOrder,
                                    FaultKind::kWrongToken,  FaultKind::kWrongResult,   FaultKind::kReplay,
                                    FaultKind::kSwap};
    return std::find(std::begin(kKinds), std::end(kKinds), kind) != std::end(kKinds);
}

std::string whatToDoAtTheDecision(FaultTableRow const& row) {
    if (row.m_Result == kNotCalled) {
        return "let the shopper pay again: safe; or ask for the payment's state";
    }
    if (row.m_Result != KVX_OK) {
        return "hand nothing over; let the shopper pay again: safe; or ask for the payment's state";
    }
    if (isOfContent(row.m_Kind)) {
        return "compare `TOKEN`, `ORDERID`, `AMOUNT`, `CURRENCY` and `RESULT` with the order before you hand anything "
               "over";
    }
    if (row.m_Kind == FaultKind::kPending) {
        return "hand nothing over until a notification, or the payment's state, has the final result";
    }
    return row.m_Kind == FaultKind::kWrongType ? "look at `MSGTYPE` before you hand anything over" : kNothingToDo;
}

std::string whatToDo(FaultTableRow const& row) {
    if (isOfSetUp(row.m_Exchange)) {
        return whatToDoAfterSetUp(row);
    }
    if (row.m_Exchange == ExchangeKind::kPage) {
        return row.m_BrowserResult == BrowserResult::kWhole ? kNothingToDo
                                                            : "let the shopper load the page again: safe";
    }
    if (row.m_Exchange == ExchangeKind::kDecision) {
        return whatToDoAtTheDecision(row);
    }
    if (isOfContent(row.m_Kind)) {
        return "nothing shows it, and the response is not signed: rely on the signed confirmation";
    }
    if (row.m_Kind == FaultKind::kRefuseCapture) {
        return "hand nothing over and don't repeat it: the refusal stays; offer a new payment";
    }
    if (row.m_Result == KVX_OK) {
        return isOfTls(row.m_Kind) ? kUnnoticed : kNothingToDo;
    }
    if (row.m_Kind == FaultKind::kProxyAuthentication) {
        return "take a proxy that asks for none, then capture the same confirmation again: safe";
    }
    return row.m_Exchange == ExchangeKind::kComplete ? "make the completion anew and send it: safe"
                                                     : "capture the same confirmation again: safe";
}

std::string faultName(FaultTableRow const& row) {
    std::string const details = *row.m_Details != '\0' ? std::string(",") + row.m_Details : "";
    return std::string("`") + sandbox::faultRow(row.m_Kind).m_Name + details + "`";
}

/// The exchange, or for the proxy the scheme of the address.
std::string placeOf(FaultTableRow const& row) {
    if (row.m_Exchange == ExchangeKind::kProxy) {
        return row.m_Tunnelled ? "`https`" : "`http`";
    }
    return sandbox::exchangeName(row.m_Exchange);
}

/// The columns between "carried out" and "what to do".
std::string outcome(FaultTableRow const& row) {
    if (isOfSetUp(row.m_Exchange)) {
        return codeName(row.m_Result) + " | " + directoryText(row.m_Left);
    }
    if (isOfShopper(row.m_Exchange)) {
        std::string const result = row.m_Result == kNotCalled ? kNoConfirmation : codeName(row.m_Result);
        return browserResultText(row.m_BrowserResult) + " | " + result + " | " + row.m_Left;
    }
    return codeName(row.m_Result) + " | " + row.m_Left;
}

/// How strict settings differ: result, carrying out and what is left, as far as each is another.
std::string strictOutcome(FaultTableRow const& row) {
    FaultTableRow const strict = strictRow(row);
    std::string text = strict.m_Result != row.m_Result ? codeName(strict.m_Result) : "";
    auto const add = [&text](std::string const& more) { text += (text.empty() ? "" : "; ") + more; };
    if (strict.m_CarriedOut != row.m_CarriedOut) {
        add("not carried out");
    }
    if (std::string(strict.m_Left) != row.m_Left) {
        add(isOfSetUp(row.m_Exchange) ? directoryText(strict.m_Left) : strict.m_Left);
    }
    return text;
}

using OfSection = bool (*)(ExchangeKind exchange);

std::string section(char const* head, OfSection isOfSection) {
    std::string text = head;
    for (FaultTableRow const& row : faultTable()) {
        if (isOfSection(row.m_Exchange)) {
            text += "| " + faultName(row) + " | " + placeOf(row) + " | " + (row.m_CarriedOut ? "yes" : "no") + " | " +
                    outcome(row) + " | " + whatToDo(row) + " | " + strictOutcome(row) + " |\n";
        }
    }
    return text;
}

bool isOfSettlement(ExchangeKind exchange) {
    return exchange == ExchangeKind::kCapture || exchange == ExchangeKind::kComplete;
}

bool isInTable(FaultKind kind) {
    for (FaultTableRow const& row : faultTable()) {
        if (row.m_Kind == kind) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string faultTablePage() {
    std::string page = kHead;
    for (sandbox::FaultKindRow const& kind : sandbox::allFaultKinds()) {
        if (isInTable(kind.m_Kind)) {
            page += std::string("| `") + kind.m_Name + "` | " + kind.m_Meaning + " |\n";
        }
    }
    page += section(kSetUpHead, &isOfSetUp);
    page += section(kShopperHead, &isOfShopper);
    page += section(kPaymentHead, &isOfSettlement);
    page += section(kProxyHead, [](ExchangeKind exchange) { return exchange == ExchangeKind::kProxy; });
    return page;
}

}  // namespace kvxtest
