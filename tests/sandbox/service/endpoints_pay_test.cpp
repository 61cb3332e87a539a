// The payment page at /pay: what it accepts and refuses, the shopper's decision, the return links, expiry. Pages are
// read as XML. Refusals are compared with the page and with the stored exchange.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "sandbox/pages/templates.h"
#include "sandbox/text/wiretext.h"
#include "tests/sandbox/support/pagereader.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// The payment page and the shopper's return link, over a real socket.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class PaymentPage : public SandboxTest {
protected:
    /// The page that refuses `text`; the exchange must have been recorded with `reason`.
    void expectRefused(std::string const& text, std::string const& reason) const {
        RawResponse const page = openPage(text);
        EXPECT_EQ(page.m_Status, 400) << text;
        EXPECT_THAT(page.m_Body, HasSubstr(sandbox::escapeHtml(reason)));
        std::string const shown = sandbox::replaceAll(sandbox::escapeHtml(text), "\u240D", "<small>CR</small>");
        EXPECT_THAT(page.m_Body, HasSubstr("<pre><code>" + shown + "</code></pre>"));
        EXPECT_THAT(lastVerdict(), HasSubstr(reason));
        EXPECT_TRUE(sandboxtest::paymentsOf(*m_Service).empty());
    }

    [[nodiscard]] std::string serverBlob() const {
        return attributeOf(askAuto("<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"" +
                                   m_Service->services().m_Keys.current()->m_Id + "\"/>"),
                           "KEYBLOB");
    }

    void expectSignedReturn(RawResponse const& response, std::string const& link, std::string const& result) const {
        ASSERT_EQ(response.m_Status, 302) << response.m_Body;
        std::string const location = response.m_Headers.at("location");
        EXPECT_THAT(location, StartsWith(link + "DATA=%3cKVX%20MSGTYPE%3d%22PayConfirm%22%20"));
        std::string const data = percentDecoded(queryValue(location, "DATA"));
        EXPECT_EQ(attributeOf(data, "MSGTYPE"), "PayConfirm");
        EXPECT_EQ(attributeOf(data, "KEYID"), m_Service->services().m_Keys.current()->m_Id);
        EXPECT_EQ(attributeOf(data, "ID"), sandboxtest::paymentsOf(*m_Service).back().m_Id);
        EXPECT_EQ(attributeOf(data, "TOKEN"), sandboxtest::paymentsOf(*m_Service).back().m_Token);
        EXPECT_EQ(attributeOf(data, "AMOUNT"), "12.50");
        EXPECT_EQ(attributeOf(data, "CURRENCY"), "EUR");
        EXPECT_EQ(attributeOf(data, "ORDERID"), "A-17");
        EXPECT_EQ(attributeOf(data, "RESULT"), result);
        EXPECT_TRUE(verifies(serverBlob(), data, queryValue(location, "SIGNATURE")));
    }
};

TEST_F(PaymentPage, ExplainsASignatureThatIsRefused) {
    std::string const text = m_Merchant.payInit("t1");
    std::string const raised = sandbox::replaceAll(text, "12.50", "92.50");
    RawResponse const response = get("/pay?DATA=" + percentEncoded(raised) + "&SIGNATURE=" + m_Merchant.sign(text));
    EXPECT_EQ(response.m_Status, 400);
    EXPECT_THAT(
        PageReader(response.m_Body).texts("//section[@aria-labelledby='diagnosis']/p"),
        ::testing::ElementsAre("AMOUNT was changed from 12.50 to 92.50", "To mend it: change AMOUNT to 12.50."));
    std::string const longText = m_Merchant.payInit("t2", " NOTE=\"" + std::string(16 * 1024, 'x') + "\"");
    EXPECT_THAT(get("/pay?DATA=" + percentEncoded(longText) + "&SIGNATURE=" + m_Merchant.sign(text)).m_Body,
                Not(HasSubstr("id=\"diagnosis\"")));
    RawResponse const content = openPage(m_Merchant.message("PayInit", " TOKEN=\"t2\""));
    EXPECT_EQ(content.m_Status, 400);
    EXPECT_THAT(content.m_Body, Not(HasSubstr("id=\"diagnosis\"")));
}

TEST_F(PaymentPage, ShowsTheOrderAndRecordsThePayment) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    EXPECT_EQ(page.m_Status, 200);
    EXPECT_THAT(page.m_Headers.at("content-type"), StartsWith("text/html"));
    for (char const* part :
         {"A-17", "12.50 EUR", "<dd>demo</dd>", "<dd>1001</dd>", "value=\"pay\"", "value=\"decline\"",
          "value=\"cancel\"", "<html lang=\"en\">", "method=\"post\" action=\"/pay/decision\""}) {
        EXPECT_THAT(page.m_Body, HasSubstr(part));
    }
    EXPECT_THAT(page.m_Body, Not(HasSubstr("<script")));
    ASSERT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
    sandbox::Payment const payment = sandboxtest::paymentsOf(*m_Service)[0];
    EXPECT_EQ(payment.m_State, sandbox::PaymentState::kOpened);
    EXPECT_EQ(payment.m_Token, "t1");
    EXPECT_EQ(payment.m_Account, "demo");
    EXPECT_EQ(payment.attribute("AMOUNT"), "12.50");
    ASSERT_EQ(payment.m_History.size(), 1u);
    EXPECT_EQ(payment.m_History[0].m_Time, "2023-11-14T22:13:20Z");
}

TEST_F(PaymentPage, KeepsItsFormFreeToLeadToTheShop) {
    // Browsers hold the redirect that answers a form against `form-action` as well.
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    std::string const header = page.m_Headers.at("content-security-policy");
    EXPECT_THAT(header, StartsWith("default-src 'none'"));
    EXPECT_THAT(header, Not(HasSubstr("form-action")));
    EXPECT_THAT(page.m_Body, HasSubstr("http-equiv=\"Content-Security-Policy\""));
    EXPECT_THAT(page.m_Body, Not(HasSubstr("form-action")));
}

TEST_F(PaymentPage, IsReadableInTheRecordWhateverTheBrowserAccepts) {
    std::string request = merchantGet("/pay" + m_Merchant.signedQuery(m_Merchant.payInit("t1")));
    request.insert(request.size() - 2, "Accept-Encoding: gzip, deflate, br\r\n");
    std::string const response = exchangeRaw(m_Service->addresses().m_Plain.m_Port, request);
    EXPECT_EQ(parseResponse(response).m_Headers.count("content-encoding"), 0u);
    EXPECT_THAT(response, HasSubstr("<button"));
    EXPECT_EQ(sandboxtest::exchangesOf(*m_Service).back().m_Response, response);
}

TEST_F(PaymentPage, EscapesWhatTheMerchantWrote) {
    m_Lenient = true;
    restart();
    std::string const page =
        openPage(m_Merchant.message("PayInit",
                                    " TOKEN=\"&lt;t&gt;\" EXPIRATION=\"20991231 23:59:59\" AMOUNT=\"&lt;script&gt;1\""
                                    " CURRENCY=\"&amp;&apos;\" ORDERID=\"&quot;&gt;&lt;b&gt;\x01\""))
            .m_Body;
    EXPECT_THAT(page, HasSubstr("&quot;&gt;&lt;b&gt;\u2401"));
    EXPECT_THAT(page, HasSubstr("&lt;script&gt;1 &amp;&#39;"));
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_THAT(page, Not(HasSubstr("<b>")));
    std::string const list = get("/").m_Body;
    EXPECT_THAT(list, HasSubstr("&quot;&gt;&lt;b&gt;"));
    EXPECT_THAT(list, Not(HasSubstr("<b>")));
}

TEST_F(PaymentPage, SpeaksTheLanguageOfTheMessage) {
    std::string const page = openPage(m_Merchant.payInit("t1", " LANGID=\"de-AT\"")).m_Body;
    EXPECT_THAT(page, HasSubstr("<html lang=\"de\">"));
    EXPECT_THAT(page, HasSubstr("<dt>H\xC3\xA4ndler</dt><dd>demo</dd>"));
}

TEST_F(PaymentPage, CanBePaidUntilTheExpiration) {
    EXPECT_THAT(openPage(m_Merchant.payInit("t1")).m_Body,
                HasSubstr("<time datetime=\"2099-12-31T23:59:59Z\">2099-12-31 23:59:59 UTC</time>"));
}

TEST_F(PaymentPage, SendsThePayingShopperToTheSuccessLink) {
    RawResponse const response = press(openPage(m_Merchant.payInit("t1")), "pay");
    expectSignedReturn(response, "http://shop.example/ok?", "authorised");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kAuthorised);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.size(), 2u);
}

TEST_F(PaymentPage, SendsTheDecliningShopperToTheFailLinkBeforeItsFragment) {
    RawResponse const response = press(openPage(m_Merchant.payInit("t1")), "decline");
    expectSignedReturn(response, "http://shop.example/failed?", "declined");
    EXPECT_THAT(response.m_Headers.at("location"), ::testing::EndsWith("#top"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kDeclined);
}

TEST_F(PaymentPage, ExtendsTheQueryOfTheBackLink) {
    RawResponse const response = press(openPage(m_Merchant.payInit("t1")), "cancel");
    expectSignedReturn(response, "http://shop.example/back?cart=7&", "cancelled");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kCancelled);
}

TEST_F(PaymentPage, SignsHighBytesSoThatTheMerchantVerifiesThem) {
    RawResponse const page = openPage(
        m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\" ORDERID=\"Caf\xE9 \x80 &amp; \xC3\xA9\""
                            " SUCCESSLINK=\"http://shop.example/\""));
    ASSERT_EQ(page.m_Status, 200) << page.m_Body;
    std::string const location = press(page, "pay").m_Headers.at("location");
    std::string const data = percentDecoded(queryValue(location, "DATA"));
    EXPECT_EQ(attributeOf(data, "ORDERID"), "Caf\xE9 \x80 & \xC3\xA9");
    EXPECT_TRUE(verifies(serverBlob(), data, queryValue(location, "SIGNATURE")));
}

TEST_F(PaymentPage, LeavesOutWhatTheOrderDidNotName) {
    m_Lenient = true;
    restart();
    RawResponse const page = openPage(m_Merchant.message(
        "PayInit", " TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\" SUCCESSLINK=\"http://shop.example/\""));
    std::string const data = percentDecoded(queryValue(press(page, "pay").m_Headers.at("location"), "DATA"));
    EXPECT_EQ(data, "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\" ID=\"" +
                        sandboxtest::paymentsOf(*m_Service)[0].m_Id + "\" TOKEN=\"t\" RESULT=\"authorised\"/>");
}

TEST_F(PaymentPage, ShowsTheOutcomeWhenThereIsNoLink) {
    RawResponse const page = openPage(m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\""));
    RawResponse const response = press(page, "pay");
    EXPECT_EQ(response.m_Status, 200);
    EXPECT_THAT(response.m_Body, HasSubstr("The payment is authorised"));
    EXPECT_THAT(response.m_Body, HasSubstr("DATA=%3cKVX"));
}

TEST_F(PaymentPage, RepeatsTheSameDecision) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    std::string const first = press(page, "pay").m_Headers.at("location");
    EXPECT_EQ(press(page, "pay").m_Headers.at("location"), first);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.size(), 2u);
}

TEST_F(PaymentPage, RefusesAnotherDecisionAfterTheFirst) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    press(page, "decline");
    RawResponse const response = press(page, "pay");
    EXPECT_EQ(response.m_Status, 409);
    EXPECT_THAT(response.m_Body, HasSubstr("declined already"));
    EXPECT_THAT(attributeOf(response.m_Body, "href"), StartsWith("http://shop.example/failed?DATA="));
    EXPECT_THAT(response.m_Body, HasSubstr("<th scope=\"row\">TOKEN</th><td>t1</td>"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kDeclined);
}

TEST_F(PaymentPage, RefusesAForeignForm) {
    openPage(m_Merchant.payInit("t1"));
    std::string const id = sandboxtest::paymentsOf(*m_Service)[0].m_Id;
    struct Row {
        std::string m_Body;
        int m_Status;
    };
    for (Row const& row :
         {Row{"payment=" + id + "&key=" + std::string(32, '0') + "&decision=pay", 403},
          Row{"payment=" + id + "&key=&decision=pay", 403}, Row{"payment=" + id + "&decision=pay", 403},
          Row{"payment=P0&key=x&decision=pay", 404}, Row{"", 400}, Row{"payment=" + id + "&decision=refund", 400}}) {
        RawResponse const response =
            parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, formPost("/pay/decision", row.m_Body)));
        EXPECT_EQ(response.m_Status, row.m_Status) << row.m_Body;
    }
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kOpened);
}

TEST_F(PaymentPage, ShowsAReloadedPageOfAnOpenPaymentAgain) {
    EXPECT_EQ(openPage(m_Merchant.payInit("t1")).m_Body, openPage(m_Merchant.payInit("t1")).m_Body);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
}

TEST_F(PaymentPage, RefusesATokenThatWasUsed) {
    RawResponse const page = openPage(m_Merchant.payInit("t1"));
    EXPECT_THAT(openPage(m_Merchant.payInit("t1", " NOTE=\"another\"")).m_Body, HasSubstr("TOKEN was used already"));
    press(page, "pay");
    RawResponse const again = openPage(m_Merchant.payInit("t1"));
    EXPECT_EQ(again.m_Status, 400);
    EXPECT_THAT(again.m_Body, HasSubstr("which is authorised"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
}

TEST_F(PaymentPage, LeadsBackToTheShopWhenThePaymentIsDecided) {
    std::string const address = press(openPage(m_Merchant.payInit("t1")), "pay").m_Headers.at("location");
    std::string const link = attributeOf(openPage(m_Merchant.payInit("t1")).m_Body, "href");
    EXPECT_EQ(link, address);
    askCapture(m_Merchant.message("PayCompleteRequest",
                                  " TOKEN=\"t1\" ID=\"" + sandboxtest::paymentsOf(*m_Service)[0].m_Id + "\""));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kCompleted);
    EXPECT_EQ(attributeOf(openPage(m_Merchant.payInit("t1")).m_Body, "href"), address) << "it stays the confirmation";
}

TEST_F(PaymentPage, LeadsBackToTheShopWhoComesTooLate) {
    std::string const text =
        m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20231114 22:13:20\" FAILLINK=\"http://shop.example/no\"");
    m_Now = 1700000001;
    RawResponse const page = openPage(text);
    EXPECT_EQ(page.m_Status, 400);
    EXPECT_THAT(page.m_Body, HasSubstr("The payment has expired"));
    EXPECT_THAT(page.m_Body, HasSubstr("EXPIRATION is 2023-11-14T22:13:20Z, now is 2023-11-14T22:13:21Z"));
    EXPECT_THAT(page.m_Body, Not(HasSubstr("<button")));
    std::string const link = attributeOf(page.m_Body, "href");
    EXPECT_THAT(link, StartsWith("http://shop.example/no?DATA="));
    EXPECT_EQ(attributeOf(percentDecoded(queryValue(link, "DATA")), "RESULT"), "expired");
    EXPECT_TRUE(verifies(serverBlob(), percentDecoded(queryValue(link, "DATA")), queryValue(link, "SIGNATURE")));
    ASSERT_EQ(sandboxtest::paymentsOf(*m_Service).size(), 1u);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kExpired);
    m_Now = 1700000000;
    EXPECT_EQ(attributeOf(openPage(text).m_Body, "href"), link) << "what has expired stays so";
}

TEST_F(PaymentPage, CanBeOpenedUntilTheExpiration) {
    EXPECT_EQ(openPage(m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20231114 22:13:20\"")).m_Status, 200);
}

TEST_F(PaymentPage, LeadsBackWhoPaidInTimeAndLoadsThePageLater) {
    std::string const text =
        m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20231114 22:13:20\" SUCCESSLINK=\"http://shop.example/ok\"");
    std::string const address = press(openPage(text), "pay").m_Headers.at("location");
    m_Now = 1700000001;
    RawResponse const page = openPage(text);
    EXPECT_THAT(page.m_Body, HasSubstr("The payment is already decided"));
    EXPECT_THAT(page.m_Body, HasSubstr("which is authorised"));
    EXPECT_EQ(attributeOf(page.m_Body, "href"), address);
}

TEST_F(PaymentPage, AcceptsNoDecisionAfterTheExpiration) {
    RawResponse const page = openPage(
        m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20231114 22:13:20\" FAILLINK=\"http://shop.example/no\""));
    m_Now = 1700000001;
    RawResponse const back = press(page, "pay");
    EXPECT_EQ(back.m_Status, 302);
    std::string const location = back.m_Headers.at("location");
    EXPECT_THAT(location, StartsWith("http://shop.example/no?DATA="));
    EXPECT_EQ(attributeOf(percentDecoded(queryValue(location, "DATA")), "RESULT"), "expired");
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kExpired);
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_History.size(), 2u);
    EXPECT_EQ(press(page, "pay").m_Headers.at("location"), location) << "a second click changes nothing";
    m_Now = 1700000000;
    EXPECT_EQ(press(page, "pay").m_Headers.at("location"), location) << "what has expired stays so";
}

TEST_F(PaymentPage, ReportsThatAnUndecidedPaymentHasExpired) {
    openPage(m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20231114 22:13:20\""));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kOpened);
    m_Now = 1700000001;
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service)[0].m_State, sandbox::PaymentState::kExpired);
    EXPECT_EQ(attributeOf(askCapture(m_Merchant.message("StatusRequest", " TOKEN=\"t\"")), "STATE"), "expired");
}

TEST_F(PaymentPage, RefusesWhatIsNoPayInit) {
    expectRefused(m_Merchant.message("PayConfirm", " TOKEN=\"t\""), "takes a PayInit, not a 'PayConfirm'");
    expectRefused(m_Merchant.message("PayInit", " TOKEN=\"t\""), "needs the attribute EXPIRATION");
    expectRefused(m_Merchant.message("PayInit", " TOKEN=\"t\" EXPIRATION=\"tomorrow\""), "EXPIRATION is not a time");
    expectRefused(m_Merchant.message("PayInit", " EXPIRATION=\"20991231 23:59:59\""), "needs the attribute TOKEN");
    expectRefused("<KVX MSGTYPE=\"PayInit\"/>", "needs the attribute KEYID");
    expectRefused("<KVX MSGTYPE=\"PayInit\" KEYID=\"0-x\"/>", "KEYID names no merchant key");
    expectRefused("<KVX MSGTYPE=\"PayInit\" KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"/>",
                  "names no merchant key");
    expectRefused("<KVX", "not well-formed");
}

TEST_F(PaymentPage, RefusesLinksThatAreNoHttpAddresses) {
    for (char const* link : {"javascript:alert(1)", "//shop.example/", "/ok", "HTTP://shop.example/", "ftp://x/"}) {
        expectRefused(
            m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\" FAILLINK=\"" + std::string(link) + "\""),
            "FAILLINK is not an address");
    }
    for (char const* link : {"http://", "https://", "http:///x", "http://:80/", "http://?a", "http://#a"}) {
        expectRefused(
            m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\" BACKLINK=\"" + std::string(link) + "\""),
            "BACKLINK names no host");
    }
    expectRefused(m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\""
                                      " SUCCESSLINK=\"http://x/\r\nSet-Cookie: a=b\""),
                  "SUCCESSLINK holds a space");
}

TEST_F(PaymentPage, ReportsWhyASignatureIsRefused) {
    std::string const text = m_Merchant.bareInit(" TOKEN=\"t\" EXPIRATION=\"20991231 23:59:59\" A=\"\xE9\"");
    std::string const target = "/pay?DATA=" + percentEncoded(text);
    std::string const good = m_Merchant.sign(text);
    struct Row {
        std::string m_Query;
        char const* m_Reason;
    };
    for (Row const& row :
         {Row{"", "SIGNATURE is missing"}, Row{"&SIGNATURE=", "SIGNATURE is missing"},
          Row{"&SIGNATURE=xyz", "not lower-case hexadecimal"}, Row{"&SIGNATURE=" + good.substr(2), "not one of DATA"},
          Row{"&SIGNATURE=" + m_Merchant.sign(text + " "), "not one of DATA"},
          Row{"&SIGNATURE=" + TestMerchant("x").sign(text), "not one of DATA"},
          Row{"&SIGNATURE=" + m_Merchant.sign(text, true), "sign-extended bytes"},
          Row{"&SIGNATURE=" + good + "&SIGNATURE=" + good, "SIGNATURE stands in the query twice"}}) {
        RawResponse const page = get(target + row.m_Query);
        EXPECT_EQ(page.m_Status, 400);
        EXPECT_THAT(page.m_Body, HasSubstr(row.m_Reason));
        EXPECT_THAT(page.m_Body, HasSubstr(sandbox::escapeHtml(text)));
    }
    EXPECT_EQ(get(target + "&SIGNATURE=" + good).m_Status, 200);
}

TEST_F(PaymentPage, RefusesTheMessageOfAnotherMerchantsKey) {
    TestMerchant const other(m_Merchant.keyId());
    RawResponse const page = get("/pay" + other.signedQuery(m_Merchant.payInit("t1")));
    EXPECT_THAT(page.m_Body, HasSubstr("is not one of DATA under the key &#39;" + m_Merchant.keyId()));
}

TEST_F(PaymentPage, ListsPaymentsWithTheirStates) {
    EXPECT_THAT(get("/").m_Body, HasSubstr("no payments yet"));
    press(openPage(m_Merchant.payInit("t1")), "pay");
    openPage(m_Merchant.payInit("t2"));
    std::string const list = get("/").m_Body;
    EXPECT_THAT(list, HasSubstr(">authorised<"));
    EXPECT_THAT(list, HasSubstr(">opened<"));
}

TEST_F(PaymentPage, ShowsReturnedShoppersTheMessage) {
    RawResponse const page = get("/returned?DATA=%3cKVX%2f%3e&SIGNATURE=00");
    EXPECT_EQ(page.m_Status, 200);
    EXPECT_THAT(page.m_Body, HasSubstr("&lt;KVX/&gt;"));
    EXPECT_EQ(get("/returned?DATA=%zz").m_Status, 400);
}

}  // namespace
