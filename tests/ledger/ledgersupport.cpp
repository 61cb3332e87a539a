// A ledger for tests. The service's private key never lies in the directory that the ledger sees: with it, the key
// would be one of the merchant's.
#include "tests/ledger/ledgersupport.h"

#include <chrono>

#include "core/kvxctx.h"
#include "tests/support/tbtext.h"

namespace kvxtest {

namespace {

std::string quoted(std::string const& name, std::string const& value) {
    return " " + name + "=\"" + value + "\"";
}

}  // namespace

void LedgerHandle::option(std::string const& name, std::string const& value) const {
    EXPECT_EQ(Ledger_SetOption(m_Handle, name.c_str(), value.c_str()), KVX_OK) << name;
}

std::int32_t LedgerHandle::open(std::string const& store, std::string const& directory) const {
    return Ledger_Open(m_Handle, store.c_str(), directory.c_str());
}

std::int32_t LedgerHandle::begin(Purchase const& purchase, std::string& url) const {
    KVX_HANDLE order = nullptr;
    std::int32_t code = Ledger_CreateOrder(m_Handle, purchase.m_Number.c_str(), purchase.m_Amount.c_str(),
                                           purchase.m_Currency.c_str(), &order);
    for (auto const& [name, value] : purchase.m_Attributes) {
        code = code == KVX_OK ? LedgerOrder_SetAttribute(order, name.c_str(), value.c_str()) : code;
    }
    if (code == KVX_OK) {
        std::int32_t size = 0;
        code = LedgerOrder_Begin(order, &size, nullptr);
        if (code == KVX_E_BUFFER_TOO_SMALL) {
            url.resize(static_cast<std::size_t>(size));
            code = LedgerOrder_Begin(order, &size, url.data());
            url.resize(static_cast<std::size_t>(size) - 1);
        }
    }
    DestroyLedgerOrder(order);
    return code;
}

std::string LedgerHandle::url(Purchase const& purchase) const {
    std::string url;
    EXPECT_EQ(begin(purchase, url), KVX_OK) << lastLedgerError();
    return url;
}

Confirmed LedgerHandle::confirm(std::string const& data, std::string const& signature,
                                std::string const& messenger) const {
    Confirmed confirmed;
    std::int32_t outcome = -1;
    std::int32_t reason = -1;
    char number[KVX_LEDGER_NUMBER_SIZE] = "";
    std::int32_t size = sizeof number;
    confirmed.m_Code =
        Ledger_Confirm(m_Handle, messenger.c_str(), data.c_str(), signature.c_str(), &outcome, &size, number);
    if (confirmed.m_Code != KVX_OK) {
        return confirmed;
    }
    confirmed.m_Outcome = Ledger_GetOutcomeName(outcome);
    confirmed.m_Sentence =
        copiedOut([&](std::int32_t* need, char* buffer) { return Ledger_GetReason(m_Handle, &reason, need, buffer); });
    confirmed.m_Reason = Ledger_GetReasonName(reason);
    confirmed.m_Number = number;
    return confirmed;
}

int LedgerHandle::run(std::int32_t limit) const {
    std::int32_t done = -1;
    EXPECT_EQ(Ledger_RunDue(m_Handle, limit, &done), KVX_OK) << lastLedgerError();
    return done;
}

std::int32_t LedgerHandle::resolve(std::string const& state, std::string const& note, std::string const& number) const {
    return Ledger_Resolve(m_Handle, number.c_str(), state.c_str(), note.c_str());
}

std::string LedgerHandle::state(std::string const& number) const {
    return copiedOut([&](auto* size, auto* buffer) { return Ledger_GetState(m_Handle, number.c_str(), size, buffer); });
}

nlohmann::json LedgerHandle::order(std::string const& number) const {
    return nlohmann::json::parse(
        copiedOut([&](auto* size, auto* buffer) { return Ledger_GetOrder(m_Handle, number.c_str(), size, buffer); }));
}

nlohmann::json LedgerHandle::attempt(std::size_t attempt, std::string const& number) const {
    return order(number).at("attempts").at(attempt - 1);
}

nlohmann::json LedgerHandle::evidence(std::string const& number) const {
    return nlohmann::json::parse(copiedOut(
        [&](auto* size, auto* buffer) { return Ledger_ExportOrder(m_Handle, number.c_str(), size, buffer); }));
}

std::vector<std::string> LedgerHandle::history(std::string const& number) const {
    std::vector<std::string> history;
    nlohmann::json const exported = evidence(number);
    for (nlohmann::json const& row : exported.at("transitions")) {
        history.push_back(row.at("from").get<std::string>() + " " + row.at("event").get<std::string>() + " " +
                          row.at("to").get<std::string>());
    }
    return history;
}

std::vector<std::string> LedgerHandle::numbers(std::string const& filter, std::string const& after,
                                               std::int32_t limit) const {
    std::vector<std::string> numbers;
    nlohmann::json const page = nlohmann::json::parse(copiedOut([&](auto* size, auto* buffer) {
        return Ledger_ListOrders(m_Handle, filter.c_str(), after.c_str(), limit, size, buffer);
    }));
    for (nlohmann::json const& order : page.at("orders")) {
        numbers.push_back(order.at("number"));
    }
    return numbers;
}

std::vector<std::string> LedgerHandle::nextPaid() const {
    std::vector<std::string> numbers;
    char number[KVX_LEDGER_NUMBER_SIZE] = "";
    std::int32_t size = sizeof number;
    while (Ledger_NextPaid(m_Handle, &size, number) == KVX_OK) {
        numbers.emplace_back(number);
        size = sizeof number;
    }
    return numbers;
}

std::string lastLedgerError() {
    return copiedOut([](auto* size, auto* buffer) { return Ledger_GetLastErrorText(size, buffer); });
}

LedgerTest::LedgerTest() {
    m_Signer.setDefaults(R"( KVX.ISVALID="yes" PAYINITTTL="600")");
    for (char const* name :
         {"config.xml", "default.xml", "keys/current", "keys/public/own", "keys/private/own", "keys/public/server"}) {
        copy(name);
    }
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    m_Start = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    setClock(0);
    openAgain(m_Ledger);
}

void LedgerTest::copy(std::string const& name) const {
    m_Dir.write("account/" + name, m_Signer.read(name));
}

std::string LedgerTest::says(std::string const& result, Attributes const& changes, std::size_t attempt) const {
    Attributes attributes = {{"AMOUNT", "12.50"},
                             {"CURRENCY", "EUR"},
                             {"ID", "P" + std::to_string(attempt)},
                             {"KEYID", "server"},
                             {"MSGTYPE", "PayConfirm"},
                             {"ORDERID", "A-17"},
                             {"RESULT", result},
                             {"TOKEN", m_Ledger.attempt(attempt).at("token")}};
    for (auto const& [name, value] : changes) {
        attributes[name] = value;
    }
    std::string text = "<KVX";
    for (auto const& [name, value] : attributes) {
        text += value.empty() ? "" : quoted(name, value);
    }
    return text + "/>";
}

Confirmed LedgerTest::confirm(std::string const& data, std::string const& keyId, std::string const& messenger) const {
    return m_Ledger.confirm(data, m_Signer.sign(data, keyId), messenger);
}

std::string LedgerTest::outcome(std::string const& result, std::size_t attempt) const {
    Confirmed const confirmed = confirm(says(result, {}, attempt));
    EXPECT_EQ(confirmed.m_Code, KVX_OK) << lastLedgerError();
    return confirmed.m_Outcome;
}

void LedgerTest::setClock(std::int64_t seconds) const {
    m_Ledger.option("NOW", std::to_string(m_Start + seconds * 1000));
}

void LedgerTest::setClockAfterExpiry(std::int64_t seconds, std::size_t attempt) const {
    std::int64_t const expires = m_Ledger.attempt(attempt).at("expires");
    m_Ledger.option("NOW", std::to_string(expires + seconds * 1000));
}

void LedgerTest::openAgain(LedgerHandle const& ledger) const {
    ASSERT_EQ(ledger.open(store(), account()), KVX_OK) << lastLedgerError();
}

void LedgerTest::makeKey(std::string const& keyId) const {
    KVX_Context context;
    context.Open(stringOf(m_Signer.path()));
    TbString id(keyId.c_str());
    context.GenKey(id);
}

void LedgerTest::publishKey(std::string const& keyId, bool current) const {
    copy("keys/public/" + keyId);
    if (current) {
        m_Dir.write("account/config.xml",
                    "<KVX VTURL=\"http://127.0.0.1:1/pay\" CAPTUREURL=\"http://127.0.0.1:1/capture\""
                    " VTKEYID=\"" +
                        keyId + "\"/>");
    }
}

LedgerFlowTest::LedgerFlowTest() {
    openShop();
    for (auto const& [name, value] :
         Attributes{{"STATUSTYPE", "Status"}, {"SETTLESECONDS", "0"}, {"RETRYBASE", "0"}, {"COMPLETE", "0"}}) {
        m_Ledger.option(name, value);
    }
    EXPECT_EQ(m_Ledger.open(store(), shop().path()), KVX_OK) << lastLedgerError();
}

void LedgerFlowTest::pay(std::string const& number) {
    Purchase purchase;
    purchase.m_Number = number;
    EXPECT_EQ(decide(m_Ledger.url(purchase), "pay"), "PAID_NOW");
}

std::string LedgerFlowTest::decide(std::string const& url, std::string const& decision) {
    Returned const returned = sandbox().shopper(url, decision);
    return m_Ledger.confirm(returned.m_Data, returned.m_Signature).m_Outcome;
}

std::string LedgerFlowTest::stateAtService(std::size_t attempt) const {
    return sandbox().stateOf(m_Ledger.attempt(attempt).at("token"));
}

}  // namespace kvxtest
