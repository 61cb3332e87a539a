// What a payment says, looked at by a second opinion: each rule alone, then refused and accepted by a service.
#include "sandbox/service/contentcheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandboxtest;
using sandbox::Message;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// The problems of a PayInit over 12.50 EUR with one attribute changed or added.
std::vector<std::string> problemsWith(std::string const& name, std::string const& value) {
    Message message("PayInit");
    message.set("TOKEN", "t1").set("NOTE", "own");
    for (char const* const each : {"AMOUNT", "CURRENCY"}) {
        if (name != each) {
            message.set(each, each == std::string("AMOUNT") ? "12.50" : "EUR");
        }
    }
    message.set(name, value);
    return sandbox::contentProblems(message);
}

TEST(ContentCheck, AcceptsAmountsAndCurrencies) {
    for (char const* const amount : {"12.50", "1", "1000", "0.01", "0.001", "0.0001", "12.5", "999999999999999"}) {
        EXPECT_THAT(problemsWith("AMOUNT", amount), IsEmpty()) << amount;
    }
    for (char const* const currency : {"EUR", "USD", "JPY", "CHF", "TND", "CLF"}) {
        EXPECT_THAT(problemsWith("CURRENCY", currency), IsEmpty()) << currency;
    }
}

TEST(ContentCheck, RefusesAmountsAndCurrencies) {
    struct Row {
        char const* m_Name;
        char const* m_Value;
        char const* m_Problem;
    };
    for (Row const& row :
         {Row{"AMOUNT", "", "AMOUNT is missing"}, Row{"AMOUNT", "0", "AMOUNT is zero: '0'"},
          Row{"AMOUNT", "0.00", "AMOUNT is zero: '0.00'"}, Row{"AMOUNT", "-12.50", "AMOUNT is negative: '-12.50'"},
          Row{"AMOUNT", "12,50", "AMOUNT is not an amount such as 12.50: '12,50'"},
          Row{"AMOUNT", "12.", "AMOUNT is not an amount such as 12.50: '12.'"},
          Row{"AMOUNT", ".50", "AMOUNT is not an amount such as 12.50: '.50'"},
          Row{"AMOUNT", "1.2.3", "AMOUNT is not an amount such as 12.50: '1.2.3'"},
          Row{"AMOUNT", "012.50", "AMOUNT is not an amount such as 12.50: '012.50'"},
          Row{"AMOUNT", "12.50001", "AMOUNT is not an amount such as 12.50: '12.50001'"},
          Row{"AMOUNT", "1e3", "AMOUNT is not an amount such as 12.50: '1e3'"},
          Row{"AMOUNT", "--1", "AMOUNT is not an amount such as 12.50: '--1'"},
          Row{"AMOUNT", "12.50 ", "AMOUNT is not an amount such as 12.50: '12.50 '"},
          Row{"AMOUNT", "1000000000000000", "AMOUNT is not an amount such as 12.50: '1000000000000000'"},
          Row{"CURRENCY", "", "CURRENCY is missing"}, Row{"CURRENCY", "EURO", "CURRENCY is none of ISO 4217: 'EURO'"},
          Row{"CURRENCY", "eur", "CURRENCY is none of ISO 4217: 'eur'"},
          Row{"CURRENCY", "978", "CURRENCY is none of ISO 4217: '978'"}}) {
        EXPECT_THAT(problemsWith(row.m_Name, row.m_Value), ElementsAre(row.m_Problem));
    }
    EXPECT_THAT(sandbox::contentProblems(Message("PayInit")), ElementsAre("AMOUNT is missing", "CURRENCY is missing"));
}

TEST(ContentCheck, FindsMisspeltNames) {
    for (char const* const name :
         {"ORDERIDS", "ORDERD", "ORDERIT", "ODRERID", "XORDERID", "OrderId", "orderid", "ORDER_ID"}) {
        EXPECT_THAT(problemsWith(name, "A-17"),
                    ElementsAre(std::string("the attribute ") + name + " looks like a misspelt ORDERID"));
    }
    for (char const* const name : {"ORDER", "ORDERIDXX", "ID", "X.y-1", "REODRID"}) {
        EXPECT_THAT(problemsWith(name, "A-17"), IsEmpty()) << name;
    }
    EXPECT_THAT(problemsWith("TOKENS", "5"), IsEmpty()) << "TOKEN is there too";
}

TEST(ContentCheck, FindsValuesThatAreEncodedTwice) {
    EXPECT_THAT(problemsWith("DESCRIPTION", "Two%20candles"),
                ElementsAre("DESCRIPTION is percent-encoded inside of the message: 'Two%20candles'"));
    EXPECT_THAT(problemsWith("NOTE2", "A &amp; B"), ElementsAre("NOTE2 is escaped twice: 'A &amp; B'"));
    EXPECT_THAT(problemsWith("DESCRIPTION", "100% wool, 5 %"), IsEmpty());
    EXPECT_THAT(problemsWith("SUCCESSLINK", "http://shop.example/a%20b?c=%2f"), IsEmpty());
}

TEST(ContentCheck, LooksAtTheEncodingOfData) {
    EXPECT_THAT(sandbox::encodingProblems("%3cKVX%20A%3d%22%c3%a9%22%2f%3e"), IsEmpty());
    EXPECT_THAT(sandbox::encodingProblems("%3CKVX%2f%3e"),
                ElementsAre("DATA is percent-encoded with capital letters: '%3C'"));
    EXPECT_THAT(sandbox::encodingProblems("%3cKVX+A%2f%3e"),
                ElementsAre("DATA holds a byte that is not percent-encoded: '+'"));
    EXPECT_THAT(sandbox::encodingProblems("%253cKVX%252f%253e"), ElementsAre("DATA is percent-encoded twice"));
}

class Content : public SandboxTest {
protected:
    void beLenient() {
        m_Lenient = true;
        restart();
    }

    [[nodiscard]] std::vector<std::string> warnings() const {
        std::vector<std::string> found;
        sandbox::Exchange const last = sandboxtest::exchangesOf(*m_Service).back();
        for (sandbox::CheckStep const& step : last.m_Steps) {
            if (step.m_Warning) {
                EXPECT_EQ(step.m_What, "Warning");
                EXPECT_FALSE(step.m_Good);
                found.push_back(step.m_Found);
            }
        }
        return found;
    }

    [[nodiscard]] nlohmann::json counts() const {
        std::string const request = "GET /control HTTP/1.0\r\n\r\n";
        return nlohmann::json::parse(
                   parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request)).m_Body)
            .at("counts");
    }

    std::string m_Odd = m_Merchant.message(
        "PayInit", " TOKEN=\"t1\" EXPIRATION=\"20991231 23:59:59\" AMUONT=\"12.50\" CURRENCY=\"EURO\"");
};

TEST_F(Content, IsRefusedWithEverythingThatIsOdd) {
    RawResponse const page = openPage(m_Odd);
    EXPECT_EQ(page.m_Status, 400);
    EXPECT_EQ(
        lastVerdict(),
        "AMOUNT is missing; CURRENCY is none of ISO 4217: 'EURO'; the attribute AMUONT looks like a misspelt AMOUNT");
    EXPECT_THAT(page.m_Body, HasSubstr("looks like a misspelt AMOUNT"));
    EXPECT_TRUE(sandboxtest::paymentsOf(*m_Service).empty());
    EXPECT_EQ(counts().at("warnings"), 0);
}

TEST_F(Content, IsAcceptedWithWarningsByALenientService) {
    beLenient();
    EXPECT_EQ(openPage(m_Odd).m_Status, 200);
    EXPECT_EQ(lastVerdict(), "ok");
    EXPECT_THAT(warnings(), ElementsAre("AMOUNT is missing", "CURRENCY is none of ISO 4217: 'EURO'",
                                        "the attribute AMUONT looks like a misspelt AMOUNT"));
    EXPECT_EQ(counts().at("warnings"), 3);
    EXPECT_THAT(get("/").m_Body, HasSubstr("<dt>Warnings</dt><dd>3</dd>"));
    restart();
    EXPECT_EQ(counts().at("warnings"), 3) << "they are kept";
}

TEST_F(Content, IsDecodedASecondTimeByALenientService) {
    std::string const text = m_Merchant.payInit("t1");
    std::string const query = "?DATA=" + percentEncoded(percentEncoded(text)) + "&SIGNATURE=" + m_Merchant.sign(text);
    EXPECT_EQ(get("/pay" + query).m_Status, 400);
    EXPECT_EQ(lastVerdict(), "DATA is percent-encoded twice");
    beLenient();
    EXPECT_EQ(get("/pay" + query).m_Status, 200);
    EXPECT_THAT(warnings(), ElementsAre("DATA is percent-encoded twice"));
    EXPECT_EQ(sandboxtest::paymentsOf(*m_Service).at(0).m_Token, "t1");
}

TEST_F(Content, IsRefusedWhenItTravelledInAnUnusualEncoding) {
    std::string const text = m_Merchant.payInit("t1");
    std::string query = m_Merchant.signedQuery(text);
    query.replace(query.find("%3c"), 3, "%3C");
    EXPECT_EQ(get("/pay" + query).m_Status, 400);
    EXPECT_EQ(lastVerdict(), "DATA is percent-encoded with capital letters: '%3C'");
    beLenient();
    EXPECT_EQ(get("/pay" + query).m_Status, 200);
    EXPECT_THAT(warnings(), ElementsAre("DATA is percent-encoded with capital letters: '%3C'"));
}

}  // namespace
