// The classes of ledger.hpp: whole payments against the sandbox, every outcome, failures, ownership.
//
// They see the flat functions alone, so what is tested here is what the header adds.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "tallowin/codes.h"
#include "tallowin/ledger.hpp"
#include "tests/ledger/ledgersupport.h"

using namespace kvxtest;
using nlohmann::json;
using tallowin::Outcome;
using tallowin::Reason;

namespace {

/// A shop with a running service, through the classes.
class CppLedger : public LedgerFlowTest {
protected:
    [[nodiscard]] tallowin::Ledger ledger() const {
        tallowin::Ledger made;
        made.setOption("STATUSTYPE", "Status");
        made.open(store(), shop().path());
        return made;
    }

    [[nodiscard]] Returned decided(std::string const& url, std::string const& decision) const {
        return sandbox().shopper(url, decision);
    }
};

/// A shop whose service key the test has.
class CppLedgerSigned : public LedgerTest {
protected:
    [[nodiscard]] tallowin::Ledger ledger() const { return tallowin::Ledger(store(), account()); }
};

template <typename Call>
tallowin::LedgerError failureOf(Call const& call) {
    try {
        call();
    } catch (tallowin::LedgerError const& failure) {
        return failure;
    }
    throw std::logic_error("the call succeeds");
}

template <typename Call>
std::int32_t codeOf(Call const& call) {
    return failureOf(call).code();
}

}  // namespace

TEST_F(CppLedger, PaysCapturesAndExports) {
    tallowin::Ledger orders = ledger();
    std::string const url = orders.begin("B-1", "19.90", "EUR", {{"SUCCESSLINK", "http://shop.example/paid"}});
    EXPECT_EQ(orders.begin("B-1", "19.90", "EUR", {{"SUCCESSLINK", "http://shop.example/paid"}}), url);
    EXPECT_EQ(orders.getState("B-1"), "waiting");
    Returned const returned = decided(url, "pay");
    tallowin::Confirmation const paid = orders.confirm("return", returned.m_Data, returned.m_Signature);
    EXPECT_EQ(paid.outcome(), Outcome::kPaidNow);
    EXPECT_TRUE(paid.isPaidNow());
    EXPECT_EQ(paid.order(), "B-1");
    EXPECT_EQ(paid.reason(), Reason::kNone);
    EXPECT_EQ(paid.sentence(), "");
    EXPECT_EQ(paid.httpStatus(), 200);
    tallowin::Confirmation const again = orders.confirm("notification", returned.m_Data, returned.m_Signature);
    EXPECT_EQ(again.outcome(), Outcome::kKnownAlready);
    EXPECT_FALSE(again.isPaidNow());
    EXPECT_EQ(orders.runDue(10), 1);
    EXPECT_EQ(orders.runDue(10), 0);
    EXPECT_EQ(orders.getState("B-1"), "captured");
    json const order = json::parse(orders.getOrder("B-1"));
    EXPECT_EQ(order.at("amount"), "19.90");
    EXPECT_EQ(sandbox().stateOf(order.at("attempts").at(0).at("token")), "captured");
    json const evidence = json::parse(orders.exportOrder("B-1"));
    EXPECT_EQ(evidence.at("transitions").size(), 4U);  // begun, paid, capture sent, captured
}

TEST_F(CppLedger, FindsAPaymentOfWhichNobodyWasTold) {
    tallowin::Ledger orders = ledger();
    EXPECT_EQ(orders.nextPaid(), std::nullopt);
    (void)decided(orders.begin("B-1", "19.90", "EUR"), "pay");
    json const order = json::parse(orders.getOrder("B-1"));
    std::int64_t const expiry = order.at("attempts").at(0).at("expires");
    orders.setOption("NOW", std::to_string(expiry + 301 * 1000));
    EXPECT_GE(orders.runDue(10), 1);
    EXPECT_EQ(orders.nextPaid(), "B-1");
    EXPECT_EQ(orders.nextPaid(), std::nullopt);
}

TEST_F(CppLedger, PagesThroughOrders) {
    tallowin::Ledger orders = ledger();
    for (char const* number : {"B-1", "B-2", "B-3"}) {
        (void)orders.begin(number, "1.00", "EUR");
    }
    json const first = json::parse(orders.listOrders("waiting", "", 2));
    EXPECT_EQ(first.at("orders").size(), 2U);
    EXPECT_EQ(first.at("next"), "B-2");
    json const second = json::parse(orders.listOrders("waiting", "B-2", 2));
    EXPECT_EQ(second.at("orders").at(0).at("number"), "B-3");
    EXPECT_TRUE(second.at("next").is_null());
    EXPECT_EQ(json::parse(orders.listOrders()).at("orders").size(), 3U);
    EXPECT_EQ(json::parse(orders.listOrders("paid")).at("orders").size(), 0U);
}

TEST_F(CppLedger, ReportsAPaymentThatTheShopperCancelled) {
    tallowin::Ledger orders = ledger();
    Returned const returned = decided(orders.begin("B-1", "19.90", "EUR"), "cancel");
    tallowin::Confirmation const confirmation = orders.confirm("return", returned.m_Data, returned.m_Signature);
    EXPECT_EQ(confirmation.outcome(), Outcome::kNotPaid);
    EXPECT_EQ(confirmation.order(), "B-1");
    EXPECT_EQ(confirmation.httpStatus(), 200);
}

TEST_F(CppLedger, RenewsTheKey) {
    tallowin::Ledger orders = ledger();
    std::string const before = shop().dir().read("keys/current");
    tallowin::Renewal outcome = tallowin::Renewal::kUnchanged;
    orders.renewKeys(autoUrl(), "demo", "demo", &outcome);
    EXPECT_EQ(outcome, tallowin::Renewal::kDone);
    EXPECT_NE(shop().dir().read("keys/current"), before);
    arm("drop,exchange=keyexport");
    EXPECT_THROW(orders.renewKeys("", "demo", "demo", &outcome), tallowin::LedgerError);
    EXPECT_EQ(outcome, tallowin::Renewal::kInDoubt);
    EXPECT_EQ(codeOf([&] { orders.renewKeys("", "demo", "wrong", &outcome); }), KVX_E_SERVER_ERROR);
    EXPECT_EQ(outcome, tallowin::Renewal::kUnchanged);
    orders.renewKeys("", "demo", "demo");
}

TEST_F(CppLedgerSigned, RefusesWithReasonAndSentence) {
    tallowin::Ledger orders = ledger();
    tallowin::Confirmation const text = orders.confirm("return", "no message", "00");
    EXPECT_EQ(text.outcome(), Outcome::kRefused);
    EXPECT_EQ(text.reason(), Reason::kFormat);
    EXPECT_NE(text.sentence(), "");
    EXPECT_EQ(text.order(), "");
    EXPECT_EQ(text.httpStatus(), 400);
    (void)m_Ledger.url();
    std::string const said = says("authorised", {{"AMOUNT", "0.01"}});
    tallowin::Confirmation const amount = orders.confirm("return", said, m_Signer.sign(said, "server"));
    EXPECT_EQ(amount.outcome(), Outcome::kRefused);
    EXPECT_EQ(amount.reason(), Reason::kWrongAmount);
    EXPECT_EQ(amount.order(), "A-17");
}

TEST_F(CppLedgerSigned, SaysThatAConfirmationIsKept) {
    tallowin::Ledger orders = ledger();
    (void)m_Ledger.url();
    makeKey("later");
    std::string const said = says("authorised", {{"KEYID", "later"}});
    tallowin::Confirmation const kept = orders.confirm("notification", said, m_Signer.sign(said, "later"));
    EXPECT_EQ(kept.outcome(), Outcome::kKept);
    EXPECT_EQ(kept.reason(), Reason::kUnknownKey);
    EXPECT_EQ(kept.httpStatus(), 503);
}

TEST_F(CppLedgerSigned, ThrowsWithCodeFunctionAndReason) {
    tallowin::Ledger orders = ledger();
    (void)orders.begin("B-1", "19.90", "EUR");
    tallowin::LedgerError const conflict = failureOf([&] { (void)orders.begin("B-1", "29.90", "EUR"); });
    EXPECT_EQ(conflict.code(), KVX_E_LEDGER_CONFLICT);
    EXPECT_STREQ(conflict.name(), "KVX_E_LEDGER_CONFLICT");
    EXPECT_STREQ(conflict.function(), "LedgerOrder_Begin");
    EXPECT_NE(conflict.reason().find("29.90"), std::string::npos) << conflict.reason();
    EXPECT_NE(std::string(conflict.what()).find(conflict.reason()), std::string::npos) << conflict.what();
    static_assert(std::is_base_of_v<tallowin::ResultError, tallowin::LedgerError>);

    EXPECT_EQ(codeOf([&] { (void)orders.getState("B-2"); }), KVX_E_NOT_FOUND);
    EXPECT_EQ(codeOf([&] { (void)orders.getOrder("B-2"); }), KVX_E_NOT_FOUND);
    EXPECT_EQ(codeOf([&] { (void)orders.exportOrder("B-2"); }), KVX_E_NOT_FOUND);
    EXPECT_EQ(codeOf([&] { (void)orders.listOrders("nonsense"); }), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(codeOf([&] { orders.resolve("B-1", "captured", "Kim: seen"); }), KVX_E_LEDGER_STATE);
    EXPECT_EQ(codeOf([&] { (void)orders.runDue(0); }), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(codeOf([&] { (void)orders.createOrder("", "1.00", "EUR"); }), KVX_E_LEDGER_INVALID);
    EXPECT_EQ(codeOf([&] { orders.createOrder("B-3", "1.00", "EUR").setAttribute("TOKEN", "x"); }),
              KVX_E_LEDGER_INVALID);
    EXPECT_EQ(codeOf([&] { orders.setOption("NOSUCH", "1"); }), KVX_E_INVALID_OPTION);
    EXPECT_EQ(codeOf([&] { tallowin::Ledger other("sqlite:" + m_Dir.file("none/orders.db"), account()); }),
              KVX_E_LEDGER_CANNOT_OPEN);
    EXPECT_EQ(codeOf([&] { (void)tallowin::Ledger().nextPaid(); }), KVX_E_NO_CONTEXT);
    EXPECT_EQ(codeOf([&] { (void)tallowin::Ledger().confirm("return", "x", "y"); }), KVX_E_NO_CONTEXT);
}

TEST_F(CppLedgerSigned, MovesAndDoesNotCopy) {
    static_assert(std::is_nothrow_move_constructible_v<tallowin::Ledger>);
    static_assert(std::is_nothrow_move_assignable_v<tallowin::LedgerOrder>);
    static_assert(!std::is_copy_constructible_v<tallowin::Ledger>);
    static_assert(!std::is_copy_assignable_v<tallowin::LedgerOrder>);
    static_assert(sizeof(tallowin::Ledger) == sizeof(void*));
    tallowin::Ledger first = ledger();
    KVX_HANDLE const handle = first.handle();
    tallowin::Ledger second = std::move(first);
    EXPECT_EQ(second.handle(), handle);
    EXPECT_EQ(codeOf([&] { (void)first.listOrders(); }), KVX_E_BAD_HANDLE);  // NOLINT(bugprone-use-after-move)
    tallowin::LedgerOrder order = second.createOrder("B-1", "1.00", "EUR");
    tallowin::LedgerOrder moved = std::move(order);
    EXPECT_NE(moved.begin(), "");
    second.close();
    EXPECT_EQ(codeOf([&] { (void)moved.begin(); }), KVX_E_BAD_HANDLE);
    EXPECT_EQ(codeOf([&] { (void)second.getState("B-1"); }), KVX_E_BAD_HANDLE);
    EXPECT_EQ(ledger().getState("B-1"), "waiting");
}

TEST_F(CppLedgerSigned, PassesTextsThatAreNotTerminatedAndRefusesZeroBytes) {
    tallowin::Ledger orders = ledger();
    std::string_view const cut("B-17", 3);
    (void)orders.begin(cut, std::string_view("1.005", 4), "EUR");
    EXPECT_EQ(json::parse(orders.getOrder("B-1")).at("amount"), "1.00");
    using namespace std::string_view_literals;
    EXPECT_THROW((void)orders.getState("B-1\0"sv), std::invalid_argument);
    EXPECT_THROW((void)orders.confirm("re\0turn"sv, "", ""), std::invalid_argument);
    tallowin::Confirmation const refused[] = {orders.confirm("return", "a\0b"sv, "00"),
                                              orders.confirm("return", "<KVX/>", "00\0"sv)};
    for (tallowin::Confirmation const& confirmation : refused) {
        EXPECT_EQ(confirmation.outcome(), Outcome::kRefused) << "a stranger has sent it";
        EXPECT_EQ(confirmation.reason(), Reason::kFormat);
        EXPECT_EQ(confirmation.httpStatus(), 400);
        EXPECT_EQ(confirmation.order(), "");
    }
    std::string const attribute(50000, 'x');
    EXPECT_NE(orders.begin("B-2", "1.00", "EUR", {{"TEXT", attribute}}).find(attribute), std::string::npos);
}

TEST(CppLedgerNames, AreThoseOfTheConstants) {
    EXPECT_STREQ(tallowin::nameOf(Outcome::kPaidNow), "PAID_NOW");
    EXPECT_STREQ(tallowin::nameOf(Outcome::kKept), "KEPT");
    EXPECT_STREQ(tallowin::nameOf(Reason::kWrongAmount), "WRONG_AMOUNT");
    EXPECT_STREQ(tallowin::nameOf(Reason::kKeptFull), "KEPT_FULL");
    EXPECT_STREQ(tallowin::nameOf(static_cast<Outcome>(99)), "");
}
