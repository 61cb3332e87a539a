// The dashboard's pages, read as XML from a running service. First what holds for every page (navigation, headings,
// escaping, methods), then page by page: overview, payment, exchange, faults, keys and clock, calculator. Between them
// stand the tests of forms that another site sends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/faults/fault.h"
#include "sandbox/store/database.h"
#include "sandbox/text/wiretext.h"
#include "tests/sandbox/support/pagereader.h"
#include "tests/sandbox/support/sandboxfixture.h"

/// The pages of the dashboard: every address, every form, every error.
namespace {

using namespace sandboxtest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

using Fields = std::map<std::string, std::string>;

/// A value with everything that could break a page, and how the page must show it.
constexpr char kNasty[] = "&lt;script&gt;alert(1)&lt;/script&gt;&amp;&quot;&apos;\xE9\x80\x1B";
constexpr char kNastyShown[] = "<script>alert(1)</script>&\"'\u00E9\uFFFD\u241B";

constexpr char kValid[] = "The signature is valid.";

class Dashboard : public SandboxTest {
protected:
    [[nodiscard]] RawResponse ask(std::string const& request) const {
        return parseResponse(exchangeRaw(m_Service->addresses().m_Control.m_Port, request));
    }

    /// Loads the page at `target` and expects this status.
    [[nodiscard]] PageReader open(std::string const& target, int status = 200) const {
        RawResponse const response = ask(bareRequest("GET", target));
        EXPECT_EQ(response.m_Status, status) << target;
        EXPECT_EQ(response.m_Headers.at("content-type"), "text/html; charset=utf-8") << target;
        EXPECT_TRUE(isCleanUtf8(response.m_Body)) << target;
        return PageReader(response.m_Body);
    }

    [[nodiscard]] RawResponse submit(std::string const& target, Fields const& fields) const {
        std::string body;
        for (auto const& [name, value] : fields) {
            body += (body.empty() ? "" : "&") + name + "=" + percentEncoded(value);
        }
        return ask(formPost(target, body));
    }

    [[nodiscard]] std::string formKey() const { return open("/calculator").text("//form/input[@name='key']/@value"); }

    /// Submits a form with the right key.
    [[nodiscard]] RawResponse fill(std::string const& target, Fields fields) const {
        fields["key"] = formKey();
        return submit(target, fields);
    }

    void openNastyPayment() {
        m_Lenient = true;
        restart();
        openPage(m_Merchant.message("PayInit", std::string(" TOKEN=\"") + kNasty + "\" ORDERID=\"" + kNasty +
                                                   "\" AMOUNT=\"" + kNasty + "\" EXPIRATION=\"20991231 23:59:59\""));
    }

    [[nodiscard]] std::string onlyPayment() const { return sandboxtest::paymentsOf(*m_Service).at(0).m_Id; }
};

/// The parts of a payment on the overview.
std::string paymentLine(int row) {
    return "//ul[@class='payments']/li[" + std::to_string(row) + "]";
}

std::string paymentCells(int row) {
    return paymentLine(row) + "/a | " + paymentLine(row) + "/details/summary/*";
}

std::string tableRow(std::string const& section, int row) {
    return "//section[@aria-labelledby='" + section + "']//tbody/tr[" + std::to_string(row) + "]/*";
}

// --- All pages

class EveryDashboardPage : public Dashboard {
protected:
    EveryDashboardPage() {
        askCapture(authorise("t1"));
        openNastyPayment();
        EXPECT_EQ(openPage(std::string("<KVX MSGTYPE=\"PayInit\" KEYID=\"\xFF\"/>")).m_Status, 400);
        m_Service->services().m_Faults.arm(sandbox::parseFault("error,exchange=setup,times=always,text=<b>\xE9"));
        m_Pages = {"/",
                   "/?live=1",
                   "/payment?id=" + sandboxtest::paymentsOf(*m_Service).at(0).m_Id,
                   "/payment?id=" + sandboxtest::paymentsOf(*m_Service).at(1).m_Id,
                   "/faults",
                   "/keys",
                   "/calculator",
                   "/calculator?DATA=" + percentEncoded(m_Merchant.payInit("t1")) + "&SIGNATURE=00",
                   "/calculator?DATA=%00%ff%3cscript%3e&SIGNATURE=%00%ff%3cscript%3e"};
        for (std::size_t number = 1; number <= sandboxtest::exchangesOf(*m_Service).size(); ++number) {
            m_Pages.push_back("/exchange?number=" + std::to_string(number));
        }
    }

    std::vector<std::string> m_Pages;
};

TEST_F(EveryDashboardPage, IsAPageWithNavigationAndHeadingsInOrder) {
    for (std::string const& target : m_Pages) {
        SCOPED_TRACE(target);
        PageReader const page = open(target);
        EXPECT_THAT(page.texts("//header/nav[@aria-label]/ul/li/a/@href"),
                    ElementsAre("/", "/faults", "/keys", "/calculator"));
        EXPECT_LE(page.count("//nav//a[@aria-current='page']"), 1u);
        EXPECT_EQ(page.count("//h1"), 1u);
        EXPECT_EQ(page.count("/html/body/main/*[1][self::h1]"), 1u);
        EXPECT_THAT(page.text("/html/head/title"), StartsWith(page.text("//h1")));
        EXPECT_EQ(page.count("//h3 | //h4"), 0u);
        EXPECT_EQ(page.count("//h2"), page.count("/html/body/main/section[@aria-labelledby=h2/@id]"));
        std::vector<std::string> const ids = page.texts("//@id");
        EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
    }
}

TEST_F(EveryDashboardPage, NamesItsTablesCellsAndFields) {
    for (std::string const& target : m_Pages) {
        SCOPED_TRACE(target);
        PageReader const page = open(target);
        EXPECT_EQ(page.count("//table"), page.count("//table[caption[string(.)!='']][thead/tr/th[@scope='col']]"));
        EXPECT_EQ(page.count("//tbody/tr"), page.count("//tbody/tr[th[@scope='row'][string(.)!='']]"));
        EXPECT_EQ(page.count("//th"), page.count("//th[@scope]"));
        EXPECT_EQ(page.count("//table[not(@class)]"),
                  page.count("//div[@class='wide'][@tabindex='0'][@aria-label]/table"));
        EXPECT_EQ(page.count("//table[count(tbody/tr) != count(tbody/tr[count(*)=count(../../thead/tr/th)])]"), 0u);
        EXPECT_EQ(page.count("//input[@type='hidden'] | //label/input | //label/select | //label/textarea"),
                  page.count("//input | //select | //textarea"));
        EXPECT_EQ(page.count("//button"), page.count("//button[string(.)!='']"));
        EXPECT_EQ(page.count("//dd"), page.count("//dl/div/dt[string(.)!='']"));
        EXPECT_EQ(page.count("//form"),
                  page.count("//form[@method='post'][input[@name='key']] | //form[@method='get']"));
        EXPECT_EQ(page.count("//form[@method='get']//input[@name='key']"), 0u);
        EXPECT_EQ(page.count("//details"), page.count("//details[*[1][self::summary][string(.)!='']]"));
        EXPECT_EQ(page.count("//svg"), page.count("//svg[@role='img'][@aria-label!='']"));
    }
}

TEST_F(EveryDashboardPage, LoadsNothingAndRunsNothingButTheScriptOfALivePage) {
    for (std::string const& target : m_Pages) {
        SCOPED_TRACE(target);
        PageReader const page = open(target);
        bool const live = target == "/?live=1";
        EXPECT_EQ(page.count("//script"), live ? 1u : 0u);
        EXPECT_EQ(page.count("/html/body/script[@nonce]"), live ? 1u : 0u);
        EXPECT_EQ(page.count("//b | //img | //link | //iframe | //object | //@src"), 0u);
        EXPECT_EQ(page.count("//main//style | //@style | //@*[starts-with(name(), 'on')]"), 0u);
        EXPECT_EQ(page.count("//@href[not(starts-with(., '/') or starts-with(., '#'))]"), 0u);
        EXPECT_EQ(page.count("//@action[not(starts-with(., '/'))]"), 0u);
    }
}

TEST_F(EveryDashboardPage, LinksToPagesThatAreThere) {
    std::set<std::string> targets;
    for (std::string const& target : m_Pages) {
        PageReader const page = open(target);
        for (std::string const& link : page.texts("//@href")) {
            if (link.front() == '#') {
                EXPECT_EQ(page.count("//*[@id='" + link.substr(1) + "']"), 1u) << target << link;
            } else {
                targets.insert(link);
            }
        }
    }
    EXPECT_GE(targets.size(), m_Pages.size());
    for (std::string const& target : targets) {
        EXPECT_EQ(ask(bareRequest("GET", target)).m_Status, 200) << target;
    }
}

TEST_F(EveryDashboardPage, IsForNamesOfThisMachineOnly) {
    for (std::string const& target : m_Pages) {
        RawResponse const response = ask(bareRequest("GET", target, "evil.example"));
        EXPECT_EQ(response.m_Status, 403) << target;
        EXPECT_THAT(PageReader(response.m_Body).text("//main/p[@role='alert']"), HasSubstr("evil.example"));
        EXPECT_THAT(response.m_Body, Not(HasSubstr(formKey())));
        EXPECT_EQ(ask(bareRequest("GET", target, "localhost:1")).m_Status, 200) << target;
    }
}

TEST_F(Dashboard, RefusesOtherMethods) {
    for (auto const& [path, allowed] : std::vector<std::pair<std::string, std::string>>{{"/", "GET"},
                                                                                        {"/payment", "GET"},
                                                                                        {"/exchange", "GET"},
                                                                                        {"/faults", "GET, POST"},
                                                                                        {"/faults/lift", "POST"},
                                                                                        {"/keys", "GET"},
                                                                                        {"/keys/rotate", "POST"},
                                                                                        {"/keys/clock", "POST"},
                                                                                        {"/calculator", "GET, POST"}}) {
        for (char const* method : {"GET", "POST", "PUT", "DELETE"}) {
            if (allowed.find(method) != std::string::npos) {
                continue;
            }
            RawResponse const response = ask(bareRequest(method, path));
            EXPECT_EQ(response.m_Status, 405) << method << path;
            EXPECT_EQ(response.m_Headers.at("allow"), allowed) << path;
            EXPECT_THAT(PageReader(response.m_Body).text("//main/p"), HasSubstr(method));
        }
    }
}

// --- The overview

TEST_F(Dashboard, ShowsTheAddressesForMerchantSetUp) {
    sandbox::Options all = options();
    all.m_Tls = true;
    all.m_Proxy = true;
    restart(all);
    PageReader const page = open("/");
    std::vector<std::string> const values = page.texts("//section[@aria-labelledby='set-up']//dd");
    EXPECT_THAT(values, Contains(m_Service->addresses().m_Plain.m_Url + "/auto"));
    EXPECT_THAT(values, Contains(m_Service->addresses().m_Tls.m_Url + "/auto"));
    EXPECT_THAT(values, Contains(m_Service->addresses().m_Control.m_Url + "/control"));
    EXPECT_THAT(values, Contains("demo"));
    EXPECT_THAT(values, Contains(m_Service->services().m_Keys.current()->m_Id));
    EXPECT_THAT(values, Contains("2023-11-14T22:13:20Z"));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='set-up']//dt"), Contains("HTTP proxy"));
    restart();
    EXPECT_THAT(open("/").texts("//section[@aria-labelledby='set-up']//dt"),
                ElementsAre("Set-up address", "Account", "Control API", "Signing key", "Service time", "Armed faults",
                            "Warnings"));
}

TEST_F(Dashboard, ShowsPaymentsNewestFirst) {
    m_Lenient = true;
    restart();
    EXPECT_EQ(open("/").text("//section[@aria-labelledby='payments']/div/p"), "There are no payments yet.");
    press(openPage(m_Merchant.payInit("t1")), "pay");
    m_Now += 60;
    openPage(m_Merchant.message("PayInit", " TOKEN=\"t2\" EXPIRATION=\"20991231 23:59:59\""));
    PageReader const page = open("/");
    std::vector<sandbox::Payment> const payments = sandboxtest::paymentsOf(*m_Service);
    EXPECT_THAT(page.texts(paymentCells(1)), ElementsAre(payments.at(1).m_Id, "opened", "not given", "not given",
                                                         "demo", "2023-11-14T22:14:20Z", "1 exchange"));
    EXPECT_THAT(page.texts(paymentCells(2)), ElementsAre(payments.at(0).m_Id, "authorised", "12.50 EUR", "A-17", "demo",
                                                         "2023-11-14T22:13:20Z", "2 exchanges"));
    EXPECT_EQ(page.text(paymentLine(1) + "/a/@href"), "/payment?id=" + payments.at(1).m_Id);
}

TEST_F(Dashboard, FoldsExchangesUnderTheirPayment) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("delay,exchange=decision,seconds=0"));
    askCapture(authorise("t1"));
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = open("/");
    EXPECT_EQ(page.count(paymentLine(2) + "/details[not(@open)]"), 1u);
    EXPECT_THAT(page.texts(paymentLine(2) + "/details/ol/li/a"), ElementsAre("2 page", "3 decision", "4 capture"));
    EXPECT_THAT(page.texts(paymentLine(2) + "/details/ol/li/a/@href"),
                ElementsAre("/exchange?number=2", "/exchange?number=3", "/exchange?number=4"));
    EXPECT_THAT(page.texts(paymentLine(2) + "/details/ol/li/span[1]"), ElementsAre("ok", "ok", "ok"));
    EXPECT_EQ(page.text(paymentLine(2) + "/details/ol/li[2]/span[2]"), "delay,exchange=decision,seconds=0");
    EXPECT_THAT(page.texts(paymentLine(1) + "/details/ol/li/a"), ElementsAre("5 page"));
}

TEST_F(Dashboard, FiltersPaymentsAndExchanges) {
    press(openPage(m_Merchant.payInit("t1")), "pay");
    openPage(m_Merchant.payInit("t2"));
    openPage(m_Merchant.message("PayInit",
                                " TOKEN=\"t3\" ORDERID=\"B 1\" AMOUNT=\"1.00\" CURRENCY=\"EUR\" "
                                "EXPIRATION=\"20991231 23:59:59\""));
    struct Row {
        char const* m_Query;
        std::vector<std::string> m_States;
        std::size_t m_Exchanges;
    };
    for (Row const& row : {Row{"", {"opened", "opened", "authorised"}, 5},
                           Row{"account=&order=&state=", {"opened", "opened", "authorised"}, 5},
                           Row{"state=opened", {"opened", "opened"}, 5}, Row{"order=A-17", {"opened", "authorised"}, 3},
                           Row{"order=B%201", {"opened"}, 1}, Row{"order=A-17&state=opened", {"opened"}, 3},
                           Row{"account=demo&state=authorised", {"authorised"}, 5}, Row{"account=nobody", {}, 0}}) {
        SCOPED_TRACE(row.m_Query);
        PageReader const page = open(std::string("/?") + row.m_Query);
        EXPECT_EQ(page.texts("//ul[@class='payments']/li//span[starts-with(@class, 'state')]"), row.m_States);
        EXPECT_EQ(page.count("//section[@aria-labelledby='exchanges']//tbody/tr"), row.m_Exchanges);
    }
    PageReader const page = open("/?order=B%201&state=opened&live=1");
    EXPECT_EQ(page.text("//form[@method='get']//input[@name='order']/@value"), "B 1");
    EXPECT_EQ(page.text("//form[@method='get']//option[@selected]/@value"), "opened");
    EXPECT_EQ(page.text("//form[@method='get']/input[@name='live']/@value"), "1");
    EXPECT_THAT(page.texts("//section[@aria-labelledby='payments']/p/a/@href"),
                ElementsAre("/?order=B%201&state=opened", "/?live=1"));
    EXPECT_EQ(open("/?account=nobody").text("//section[@aria-labelledby='payments']/div/p"),
              "No payment fits the filter.");
    EXPECT_THAT(open("/?state=stuck", 400).text("//main/p"), HasSubstr("unknown payment state 'stuck'"));
}

TEST_F(Dashboard, PlotsOutcomesAndResponseTimes) {
    EXPECT_EQ(open("/").count("//svg"), 0u);
    press(openPage(m_Merchant.payInit("t1")), "pay");
    press(openPage(m_Merchant.payInit("t2")), "decline");
    m_Service->services().m_Faults.arm(sandbox::parseFault("http-status,exchange=page"));
    openPage(m_Merchant.payInit("t3"));
    PageReader const page = open("/");
    EXPECT_THAT(page.texts("//figure[1]/svg/rect/@class"), ElementsAre("declined", "authorised"));
    EXPECT_EQ(page.text("//figure[1]/svg/@aria-label"), "Latest payments by outcome: 1 authorised, 1 declined");
    EXPECT_THAT(page.texts("//figure[1]/figcaption/span"), ElementsAre("authorised", "declined"));
    EXPECT_THAT(page.texts("//figure[2]/svg/rect/@class"), ElementsAre("bad", "good", "good", "good", "good", "good"));
    EXPECT_THAT(page.text("//figure[2]/svg/rect[1]/title"), StartsWith("6 page: "));
    EXPECT_THAT(page.text("//figure[2]/svg/@aria-label"), StartsWith("Response times of the latest 6 exchanges: half"));
    EXPECT_EQ(page.count("//rect[@x<0 or @y<0 or @x+@width>6000 or @y+@height>600 or @height=0]"), 0u);
}

TEST_F(Dashboard, ShowsAsManyPaymentsAsCanBeRead) {
    for (int i = 0; i < 101; ++i) {
        openPage(m_Merchant.payInit("t" + std::to_string(i)));
    }
    PageReader const page = open("/");
    EXPECT_EQ(page.count("//ul[@class='payments']/li"), 100u);
    EXPECT_EQ(page.text(paymentLine(1) + "/a"), sandboxtest::paymentsOf(*m_Service).back().m_Id);
    EXPECT_THAT(page.text("//section[@aria-labelledby='payments']/div/p"), HasSubstr("100 of 101"));
}

TEST_F(Dashboard, ShowsTheNewestExchanges) {
    openPage(m_Merchant.payInit("t1"));
    m_Service->services().m_Faults.arm(sandbox::parseFault("http-status,exchange=page"));
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = open("/");
    std::vector<std::string> const failed = page.texts(tableRow("exchanges", 1));
    ASSERT_EQ(failed.size(), 7u);
    EXPECT_THAT(std::vector<std::string>(failed.begin(), failed.begin() + 5),
                ElementsAre("3", "page", "not looked at", "A-17", "http-status,exchange=page"));
    EXPECT_THAT(failed[5], EndsWith(" ms"));
    EXPECT_EQ(failed[6], "2023-11-14T22:13:20Z");
    EXPECT_EQ(page.text(tableRow("exchanges", 1) + "/a/@href"), "/exchange?number=3");
    EXPECT_EQ(page.text(tableRow("exchanges", 1) + "/strong"), "not looked at");
    EXPECT_THAT(page.texts(tableRow("exchanges", 2)), Contains("ok"));
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(get("/capture").m_Status, 200);
    }
    PageReader const later = open("/");
    EXPECT_EQ(later.count("//section[@aria-labelledby='exchanges']//tbody/tr"), 50u);
    EXPECT_EQ(later.text(tableRow("exchanges", 1) + "[1]"), "53");
    EXPECT_EQ(later.text(tableRow("exchanges", 50) + "[1]"), "4");
}

TEST_F(Dashboard, AllowsTheScriptOfALivePageAlone) {
    std::string const still = get("/").m_Headers.at("content-security-policy");
    EXPECT_THAT(still, HasSubstr("default-src 'none'"));
    EXPECT_THAT(still, ::testing::Not(HasSubstr("script-src")));
    RawResponse const first = get("/?live=1");
    RawResponse const second = get("/?live=1");
    for (RawResponse const* response : {&first, &second}) {
        std::string const nonce = PageReader(response->m_Body).text("/html/body/script/@nonce");
        EXPECT_GE(nonce.size(), 32u);
        EXPECT_EQ(response->m_Headers.at("content-security-policy"),
                  still + "; script-src 'nonce-" + nonce + "'; connect-src 'self'");
    }
    EXPECT_NE(first.m_Headers.at("content-security-policy"), second.m_Headers.at("content-security-policy"));
}

TEST_F(Dashboard, CanRefreshItself) {
    PageReader const still = open("/");
    EXPECT_EQ(still.count("//meta[@http-equiv='refresh']"), 0u);
    EXPECT_EQ(still.text("//main//p/a[@href='/?live=1']"), "Follow what happens");
    PageReader const live = open("/?live=1");
    EXPECT_EQ(live.text("/html/head/noscript/meta[@http-equiv='refresh']/@content"), "2");
    EXPECT_EQ(live.count("//main//p/a[@href='/']"), 1u);
    EXPECT_EQ(live.count("//main//p/a[@href='/?live=1']"), 0u);
    EXPECT_EQ(open("/?live=0").count("//meta[@http-equiv='refresh']"), 0u);
    EXPECT_THAT(open("/?live=%zz", 400).text("//main/p"), HasSubstr("percent-encoding"));
}

// --- One payment

TEST_F(Dashboard, ShowsAPayment) {
    askCapture(authorise("t1"));
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = open("/payment?id=" + onlyPayment());
    EXPECT_EQ(page.text("//h1"), "Payment " + onlyPayment());
    EXPECT_THAT(page.texts("//main/dl//dd"), ElementsAre("captured", "12.50 EUR", "A-17", "demo", "t1", onlyPayment()));
    EXPECT_THAT(page.texts(tableRow("history", 2)),
                ElementsAre("2023-11-14T22:13:20Z", "authorised", "shopper chose pay"));
    EXPECT_EQ(page.count("//section[@aria-labelledby='history']//tbody/tr"), 3u);
    EXPECT_THAT(page.text("//section[@aria-labelledby='notifications']/p"), HasSubstr("no NOTIFYADDRESS"));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='attributes']//tbody/tr[3]/*"), ElementsAre("TOKEN", "t1"));
    // Page, decision and capture, but no exchange of the other payment with the same order.
    EXPECT_THAT(page.texts("//section[@aria-labelledby='exchanges']//tbody/tr/th/a/@href"),
                ElementsAre("/exchange?number=2", "/exchange?number=3", "/exchange?number=4"));
}

std::string station(std::string const& id) {
    return "//ol[@class='stations']/li[@id='station-" + id + "']";
}

TEST_F(Dashboard, ShowsAPaymentAsALineOfStations) {
    askCapture(authorise("t1"));
    PageReader const page = open("/payment?id=" + onlyPayment());
    EXPECT_THAT(page.texts("//ol[@class='line']/li/a"),
                ElementsAre("Set-up", "Page", "Decision", "Return", "Notification", "Capture", "Completion"));
    EXPECT_THAT(page.texts("//ol[@class='line']/li/span"),
                ElementsAre("not yet", "ok", "authorised", "sent", "none", "captured", "not yet"));
    EXPECT_THAT(page.texts("//ol[@class='stations']/li/@class"),
                ElementsAre("none", "good", "good", "good", "none", "good", "none"));
    EXPECT_THAT(page.texts(station("page") + "/details[1]//tbody/tr[3]/*"), ElementsAre("TOKEN", "t1"));
    EXPECT_EQ(page.text(station("decision") + "/details[1]//a/@href"), "/exchange?number=3");
    EXPECT_EQ(page.count(station("decision") + "//table"), 0u);
    EXPECT_THAT(page.texts(station("return") + "/details[1]//tbody/tr[last()]/*"), ElementsAre("RESULT", "authorised"));
    std::string const calculator = page.text(station("return") + "//a[contains(@href, 'calculator')]/@href");
    EXPECT_EQ(open(calculator).text("//section[@aria-labelledby='verdict']/p"), kValid);
    EXPECT_THAT(page.texts(station("capture") + "//tbody/tr[last()]/td"), ElementsAre("authorised", "captured"));
}

TEST_F(Dashboard, ShowsWhereAPaymentFailed) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("wrong-signature,exchange=decision"));
    m_Service->services().m_Faults.arm(sandbox::parseFault("refuse-capture,text=Card stolen"));
    std::string const confirm = authorise("t1");
    EXPECT_EQ(attributeOf(askCapture(confirm), "MSGTYPE"), "Error");
    PageReader const page = open("/payment?id=" + onlyPayment());
    EXPECT_THAT(page.texts("//ol[@class='stations']/li/@class"),
                ElementsAre("none", "good", "good", "bad", "none", "bad", "none"));
    EXPECT_EQ(page.text(station("return") + "/p/span"), "wrong-signature,exchange=decision");
    EXPECT_EQ(page.text(station("capture") + "/p/span"), "Card stolen");
    press(openPage(m_Merchant.payInit("t2")), "decline");
    EXPECT_EQ(
        open("/payment?id=" + sandboxtest::paymentsOf(*m_Service).at(1).m_Id).text(station("decision") + "/@class"),
        "bad");
    openPage(m_Merchant.payInit("t3"));
    PageReader const undecided = open("/payment?id=" + sandboxtest::paymentsOf(*m_Service).at(2).m_Id);
    EXPECT_EQ(undecided.text(station("decision") + "/@class"), "wait");
    EXPECT_EQ(undecided.text(station("return") + "/@class"), "none");
}

TEST_F(Dashboard, ArmsFaultsAtTheStationsOfAPayment) {
    openPage(m_Merchant.payInit("t1"));
    PageReader const page = open("/payment?id=" + onlyPayment());
    EXPECT_EQ(page.count("//ol[@class='stations']/li/details[@class='arm']/form"), 7u);
    for (std::string const id : {"set-up", "page", "decision", "return", "notification", "capture", "completion"}) {
        std::string const form = station(id) + "/details/form";
        std::vector<std::string> const kinds = page.texts(form + "//option/@value");
        EXPECT_GE(kinds.size(), 8u) << id;
        for (std::string const& kind : kinds) {
            Fields fields = {{"kind", kind}};
            for (char const* name : {"exchange", "account", "order"}) {
                fields[name] = page.text(form + "/input[@name='" + name + "']/@value");
            }
            EXPECT_EQ(fields["account"], "demo");
            EXPECT_EQ(fields["order"], id == "set-up" ? "" : "A-17");
            EXPECT_EQ(fill("/faults", fields).m_Status, 303) << id << kind;
        }
    }
    EXPECT_THAT(page.texts(station("return") + "//option/@value"), Not(Contains("drop")));
    EXPECT_THAT(page.texts(station("decision") + "//option/@value"), Not(Contains("wrong-amount")));
}

TEST_F(Dashboard, ShowsNotificationsWithTheirOutcome) {
    press(openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"merchant@localhost\"")), "pay");
    PageReader const page = open("/payment?id=" + onlyPayment());
    std::vector<std::string> const cells = page.texts(tableRow("notifications", 1));
    ASSERT_EQ(cells.size(), 6u);
    EXPECT_EQ(cells[0], "authorised");
    EXPECT_EQ(cells[1], "merchant@localhost");
}

TEST_F(Dashboard, ShowsAPaymentAsItIsNow) {
    openPage(m_Merchant.bareInit(" TOKEN=\"t1\" EXPIRATION=\"20231114 23:13:20\""));
    std::string const target = "/payment?id=" + onlyPayment();
    EXPECT_EQ(open(target).text("//main/dl/div[1]/dd"), "opened");
    m_Now += 3601;
    EXPECT_EQ(open(target).text("//main/dl/div[1]/dd"), "expired");
}

TEST_F(Dashboard, ShowsForeignBytesOfAPaymentAsText) {
    openNastyPayment();
    PageReader const page = open("/payment?id=" + onlyPayment());
    std::vector<std::string> const values = page.texts("//main/dl//dd");
    EXPECT_EQ(values.at(1), kNastyShown);
    EXPECT_EQ(values.at(2), kNastyShown);
    EXPECT_EQ(values.at(4), kNastyShown);
    EXPECT_THAT(page.texts("//section[@aria-labelledby='attributes']//td"), Contains(kNastyShown));
    EXPECT_THAT(open("/").texts(paymentCells(1)), Contains(kNastyShown));
}

TEST_F(Dashboard, ReportsAnUnknownPaymentOrExchange) {
    for (char const* target : {"/payment", "/payment?id=", "/payment?id=%3cb%3e%00", "/exchange",
                               "/exchange?number=", "/exchange?number=x", "/exchange?number=0", "/exchange?number=99",
                               "/exchange?number=99999999999999999999", "/exchange?number=1%20"}) {
        EXPECT_THAT(open(target, 404).text("//main/p[@role='alert']"), StartsWith("There is no ")) << target;
    }
}

// --- One exchange

TEST_F(Dashboard, ShowsAnExchange) {
    std::string const text = m_Merchant.payInit("t1");
    openPage(text);
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = open("/exchange?number=2");
    EXPECT_EQ(page.text("//h1"), "Exchange 2");
    std::vector<std::string> const values = page.texts("//main/dl//dd");
    ASSERT_EQ(values.size(), 7u);
    EXPECT_THAT(std::vector<std::string>(values.begin(), values.end() - 1),
                ElementsAre("ok", "none", "page", "/pay", "A-17", "2023-11-14T22:13:20Z"));
    EXPECT_THAT(page.texts(tableRow("steps", 3)), ElementsAre("DATA is a message", "PayInit", "yes"));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='steps']//tbody/tr/td[2]"), ::testing::Each("yes"));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='message']//tbody/tr[3]/*"), ElementsAre("TOKEN", "t1"));
    EXPECT_EQ(page.text("//section[@aria-labelledby='message']/pre"), text);
    EXPECT_THAT(page.text("//section[@aria-labelledby='request']/pre"), StartsWith("GET /pay?DATA="));
    EXPECT_THAT(page.text("//section[@aria-labelledby='request']/pre"), HasSubstr(" HTTP/1.0CR\n"));
    EXPECT_THAT(page.text("//section[@aria-labelledby='answer']/pre"), StartsWith("HTTP/1.1 200 OKCR\n"));
    std::vector<sandbox::Payment> const payments = sandboxtest::paymentsOf(*m_Service);
    EXPECT_THAT(page.texts("//main/ul/li/a"), ElementsAre("Previous exchange", "Next exchange",
                                                          "Payment " + payments.at(0).m_Id, HasSubstr("calculator")));
    EXPECT_THAT(open("/exchange?number=1").texts("//main/ul/li/a/@href"),
                ElementsAre("/exchange?number=2", HasSubstr("/calculator?")));
    EXPECT_THAT(open("/exchange?number=3").texts("//main/ul/li/a/@href"),
                ElementsAre("/exchange?number=2", "/payment?id=" + payments.at(1).m_Id, HasSubstr("/calculator?")));
}

TEST_F(Dashboard, ShowsWhatWasWrongWithAnExchange) {
    std::string const text = m_Merchant.payInit("t1");
    EXPECT_EQ(get("/pay?DATA=" + percentEncoded(text) + "&SIGNATURE=" + m_Merchant.sign(text, true) + "00").m_Status,
              400);
    PageReader const page = open("/exchange?number=2");
    EXPECT_THAT(page.text("//main/dl/div[1]/dd/strong"), HasSubstr("not one of DATA"));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='steps']//strong"), Contains("no"));
}

TEST_F(Dashboard, ShowsAnExchangeThatWasNotChecked) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("reset,exchange=capture"));
    EXPECT_THROW((void)get("/capture?DATA=" + percentEncoded("<KVX MSGTYPE=\"PayConfirm\"/>")), std::runtime_error);
    PageReader const page = open("/exchange?number=2");
    EXPECT_EQ(page.text("//main/dl/div[2]/dd"), "reset,exchange=capture");
    EXPECT_EQ(page.text("//section[@aria-labelledby='steps']/p"), "The request was not checked.");
    EXPECT_THAT(page.texts("//section[@aria-labelledby='message']//tbody/tr/*"), ElementsAre("MSGTYPE", "PayConfirm"));
}

TEST_F(Dashboard, ExplainsWhyANotificationHasNoChecks) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop,exchange=notification"));
    press(openPage(m_Merchant.payInit("t1", " NOTIFYADDRESS=\"http://127.0.0.1:1/\"")), "pay");
    std::string number;
    ASSERT_TRUE(comesTrue([&] {
        for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(*m_Service)) {
            if (exchange.m_Kind == sandbox::ExchangeKind::kNotification) {
                number = std::to_string(exchange.m_Number);
            }
        }
        return !number.empty();
    }));
    PageReader const page = open("/exchange?number=" + number);
    EXPECT_THAT(page.text("//section[@aria-labelledby='steps']/p"),
                StartsWith("A notification has no checks, because this service sends the request."));
    EXPECT_EQ(page.text("//h2[@id='request']"), "Request sent");
    EXPECT_EQ(page.text("//h2[@id='answer']"), "Response of the merchant");
}

TEST_F(Dashboard, ShowsHowMuchOfAResponseWasSent) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("truncate,exchange=status,bytes=9"));
    exchangeRaw(m_Service->addresses().m_Plain.m_Port,
                merchantGet("/capture" + m_Merchant.signedQuery(m_Merchant.message("StatusRequest", " TOKEN=\"t1\""))));
    PageReader const page = open("/exchange?number=2");
    EXPECT_EQ(page.text("//main/dl/div[8]/dt"), "Delivery");
    EXPECT_THAT(page.text("//main/dl/div[8]/dd"), StartsWith("9 bytes, then the end, after "));
}

TEST_F(Dashboard, ShowsTheChecksOfADecision) {
    press(openPage(m_Merchant.payInit("t1")), "decline");
    PageReader const page = open("/exchange?number=3");
    EXPECT_THAT(page.texts(tableRow("steps", 1)),
                ElementsAre("The form came from the payment page",
                            "payment " + sandboxtest::paymentsOf(*m_Service)[0].m_Id, "yes"));
    EXPECT_THAT(page.texts(tableRow("steps", 2)), ElementsAre("The shopper decided", "decline", "yes"));
}

TEST_F(Dashboard, ShowsAnInterruptedRequest) {
    m_Service.reset();
    sandbox::Database(m_Directory.path() + "/sandbox.db")
        .execute(
            "INSERT INTO begun_exchanges (time, kind, order_id, path, data, request) VALUES "
            "('2023-11-14T22:13:20Z', 'capture', '', '/capture', '', 'GET /capture HTTP/1.0')");
    restart();
    PageReader const page = open("/exchange?number=2");
    EXPECT_EQ(page.text("//main/dl/div[1]/dd"), "not answered: the sandbox ended before");
    EXPECT_EQ(page.text("//section[@aria-labelledby='steps']/p"), "No checks are recorded, only the result.");
}

TEST_F(Dashboard, ShowsRawBytesOfAnExchange) {
    exchangeRaw(m_Service->addresses().m_Plain.m_Port, formPost("/pay/decision", std::string("<b>\0\xFF", 5)));
    PageReader const page = open("/exchange?number=2");
    EXPECT_THAT(page.text("//section[@aria-labelledby='request']/pre"), EndsWith("<b>\u2400\u00FF"));
    EXPECT_THAT(page.text("//section[@aria-labelledby='message']/p"), HasSubstr("no DATA"));
    EXPECT_EQ(page.count("//main/ul/li/a[contains(@href, 'calculator')]"), 0u);
}

TEST_F(Dashboard, LinksAnExchangeToTheCalculator) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"a+b%20&amp;\xE9\n\"");
    openPage(text);
    std::string const target = open("/exchange?number=2").text("//a[contains(@href, 'calculator?')]/@href");
    PageReader const page = open(target);
    EXPECT_EQ(page.text("//section[@aria-labelledby='verdict']/p"), kValid);
    EXPECT_EQ(page.text("//textarea[@name='SIGNATURE']"), "\n" + m_Merchant.sign(text));
}

TEST_F(Dashboard, DecodesTheConfirmationThatADecisionSent) {
    press(openPage(m_Merchant.payInit("t1")), "decline");
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = open("/exchange?number=3");
    EXPECT_EQ(page.text("//h2[@id='sent']"), "Confirmation sent with the return link");
    EXPECT_THAT(page.texts("//section[@aria-labelledby='sent']//tbody/tr[last()]/*"),
                ElementsAre("RESULT", "declined"));
    std::string const text = page.text("//section[@aria-labelledby='sent']/pre");
    EXPECT_THAT(text, StartsWith("<KVX MSGTYPE=\"PayConfirm\""));
    PageReader const checked = open(page.text("//section[@aria-labelledby='sent']/p/a/@href"));
    EXPECT_THAT(checked.texts("//section[@aria-labelledby='verdict']/p"), ElementsAre(kValid));
    EXPECT_EQ(open("/exchange?number=4").count("//h2[@id='sent']"), 0u);
}

TEST_F(Dashboard, DecodesTheConfirmationOnAPageAndTheMessageInAResponse) {
    press(openPage(m_Merchant.bareInit(" TOKEN=\"t1\" EXPIRATION=\"20991231 23:59:59\"")), "pay");
    PageReader const page = open("/exchange?number=3");
    EXPECT_THAT(page.texts("//section[@aria-labelledby='sent']//tbody/tr[last()]/*"),
                ElementsAre("RESULT", "authorised"));
    EXPECT_EQ(
        open(page.text("//section[@aria-labelledby='sent']/p/a/@href")).text("//section[@aria-labelledby='verdict']/p"),
        kValid);
    PageReader const exported = open("/exchange?number=1");
    EXPECT_EQ(exported.text("//h2[@id='sent']"), "Message in the response");
    EXPECT_EQ(exported.text("//section[@aria-labelledby='sent']//tbody/tr[1]/td"), "KeyExportResponse");
    EXPECT_EQ(exported.count("//section[@aria-labelledby='sent']/p/a"), 0u);
}

// --- Faults

TEST_F(Dashboard, ArmsAndRemovesFaults) {
    EXPECT_EQ(open("/faults").text("//section[@aria-labelledby='armed']/p"), "No fault is armed.");
    RawResponse const armed = fill("/faults", {{"kind", "error"},
                                               {"exchange", "setup"},
                                               {"order", ""},
                                               {"times", "2"},
                                               {"seconds", ""},
                                               {"bytes", ""},
                                               {"status", ""},
                                               {"text", "a, <b> + c"},
                                               {"megabytes", ""}});
    EXPECT_EQ(armed.m_Status, 303);
    EXPECT_EQ(armed.m_Headers.at("location"), "/faults");
    EXPECT_EQ(fill("/faults", {{"kind", "drop"}, {"order", "A 1"}}).m_Status, 303);
    EXPECT_EQ(reasonOf(askAuto("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>")), "a, <b> + c");
    PageReader const page = open("/faults");
    EXPECT_THAT(page.texts("//ol[@class='armed']/li[1]/*"),
                ElementsAre("error,exchange=setup,times=2,text=a, <b> + c", "1 of 2", HasSubstr("Remove fault 1")));
    EXPECT_EQ(page.text("//ol[@class='armed']/li[1]//input[@name='id']/@value"), "1");
    EXPECT_EQ(page.text("//ol[@class='armed']/li[2]/code"), "drop,order=A 1");
    EXPECT_EQ(page.text("//ol[@class='armed']/li[2]//input[@name='id']/@value"), "2");
    EXPECT_EQ(fill("/faults/lift", {{"id", "1"}}).m_Status, 303);
    ASSERT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    EXPECT_EQ(m_Service->services().m_Faults.armed()[0].m_Id, 2);
    RawResponse const gone = fill("/faults/lift", {{"id", "1"}});
    EXPECT_EQ(gone.m_Status, 400);
    EXPECT_THAT(PageReader(gone.m_Body).text("//section[@aria-labelledby='armed']/p[@role='alert']"),
                HasSubstr("No fault '1' is armed"));
    EXPECT_EQ(open("/faults").text("//button[@name='id']/@value"), "all");
    EXPECT_EQ(fill("/faults/lift", {{"id", "all"}}).m_Status, 303);
    EXPECT_THAT(m_Service->services().m_Faults.armed(), IsEmpty());
    for (char const* id : {"", "x", "1x", "-1", "99999999999999999999"}) {
        EXPECT_EQ(fill("/faults/lift", {{"id", id}}).m_Status, 400) << id;
    }
}

TEST_F(Dashboard, ReadsFormsAsBrowsersWriteThem) {
    std::string const body = "key=" + formKey() + "&kind=drop&exchange=any&order=A+1%2B2%3D%26&times=always";
    EXPECT_EQ(ask(formPost("/faults", body)).m_Status, 303);
    EXPECT_EQ(m_Service->services().m_Faults.armed().at(0).m_Fault.m_Order, "A 1+2=&");
    EXPECT_EQ(m_Service->services().m_Faults.armed().at(0).m_Fault.m_Times, 0);
}

TEST_F(Dashboard, ReadsAFormOfBlanks) {
    std::string const start = "key=" + formKey() + "&DATA=%3c";
    RawResponse const response = ask(formPost("/calculator", start + std::string(1024 * 1024 - start.size(), '+')));
    EXPECT_EQ(response.m_Status, 200);
    EXPECT_THAT(response.m_Body, HasSubstr("class=\"verdict bad\""));
}

/// The part of the page of faults that is about one kind.
std::string kindPath(std::string const& kind) {
    return "//ul[@class='kinds']/li/details[form/input[@name='kind']/@value='" + kind + "']";
}

TEST_F(Dashboard, OffersEveryKindOfFault) {
    PageReader const page = open("/faults");
    std::vector<std::string> values = page.texts("//input[@name='kind']/@value");
    EXPECT_EQ(page.texts("//ul[@class='kinds']/li/details/summary/strong"), values);
    std::vector<std::string> names;
    for (sandbox::FaultKindRow const& row : sandbox::allFaultKinds()) {
        SCOPED_TRACE(row.m_Name);
        names.emplace_back(row.m_Name);
        EXPECT_THAT(page.text(kindPath(row.m_Name) + "/summary"), HasSubstr(row.m_Meaning));
        EXPECT_EQ(page.count(kindPath(row.m_Name) + "/summary/small"), row.m_CarriedOut ? 0u : 1u);
        std::vector<std::string> exchanges = sandbox::exchangeNames(row);
        exchanges.insert(exchanges.begin(), "any");
        EXPECT_EQ(page.texts(kindPath(row.m_Name) + "//select[@name='exchange']/option/@value"), exchanges);
    }
    std::sort(values.begin(), values.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(values, names);
    EXPECT_EQ(page.count("//ul[@class='kinds']/li/details[@open]"), 0u);
}

TEST_F(Dashboard, ShowsOnlyTheFieldsOfAKind) {
    PageReader const page = open("/faults?kind=delay");
    for (sandbox::FaultKindRow const& row : sandbox::allFaultKinds()) {
        SCOPED_TRACE(row.m_Name);
        std::vector<std::string> fields = {"times"};
        bool const ofConnection = sandbox::exchangeNames(row).back() == "connection";
        if (!ofConnection) {
            fields = {"account", "order", "times"};
        }
        if (row.m_Kind != sandbox::FaultKind::kRefuse) {
            fields.emplace_back("skip");
        }
        for (std::string const& name : sandbox::parameterNames(row)) {
            fields.push_back(name);
        }
        EXPECT_THAT(page.texts(kindPath(row.m_Name) + "//label/input/@name"),
                    ::testing::UnorderedElementsAreArray(fields));
        Fields filled = {{"kind", row.m_Name}, {"exchange", "any"}};
        for (std::string const& name : fields) {
            filled[name] = page.text(kindPath(row.m_Name) + "//input[@name='" + name + "']/@value");
        }
        EXPECT_EQ(fill("/faults", filled).m_Status, 303);
    }
    EXPECT_EQ(page.text("//ul[@class='kinds']/li/details[@open]//input[@name='kind']/@value"), "delay");
}

TEST_F(Dashboard, OffersTheSituationsOfTheGuide) {
    PageReader const page = open("/faults");
    std::vector<std::string> const texts = page.texts("//ul[@class='situations']//button/@value");
    EXPECT_EQ(page.texts("//ul[@class='situations']/li/details/summary").front(),
              "The service captured, but its response is lost");
    EXPECT_GE(page.count("//ul[@class='situations']/li"), 20u);
    EXPECT_THAT(texts, Contains("error,exchange=capture,text=Account closed"));
    EXPECT_THAT(texts, Contains("tls-wrong-host"));
    EXPECT_THAT(page.texts("//ul[@class='situations']//details/p"),
                Contains("The merchant should be set to verify certificates: without that setting the library accepts "
                         "any."));
    for (std::string const& text : texts) {
        EXPECT_EQ(fill("/faults", {{"fault", text}}).m_Status, 303) << text;
        EXPECT_EQ(sandbox::faultText(m_Service->services().m_Faults.armed().back().m_Fault), text);
    }
    RawResponse const refused = fill("/faults", {{"fault", "burn"}});
    EXPECT_EQ(refused.m_Status, 400);
    EXPECT_THAT(PageReader(refused.m_Body).text("//p[@role='alert']"), HasSubstr("unknown fault 'burn'"));
}

TEST_F(Dashboard, CountsArmedFaultsOnEveryPage) {
    EXPECT_EQ(open("/keys").count("//nav//span"), 0u);
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop"));
    EXPECT_EQ(open("/keys").text("//nav//a[@href='/faults']/span"), "1 armed");
}

TEST_F(Dashboard, KeepsWhatWasFilledInWhenAFaultIsRefused) {
    RawResponse const response = fill(
        "/faults",
        {{"kind", "truncate"}, {"exchange", "capture"}, {"order", "\"<A-1>"}, {"times", "often"}, {"bytes", "4\0030"}});
    EXPECT_EQ(response.m_Status, 400);
    PageReader const page(response.m_Body);
    EXPECT_THAT(page.text("//section[@aria-labelledby='arm']/p[@role='alert']"),
                HasSubstr("times must be a whole number"));
    EXPECT_EQ(page.text("//ul[@class='kinds']/li/details[@open]//input[@name='kind']/@value"), "truncate");
    std::string const kind = kindPath("truncate");
    EXPECT_EQ(page.text(kind + "//select[@name='exchange']/option[@selected]/@value"), "capture");
    EXPECT_EQ(page.text(kind + "//input[@name='order']/@value"), "\"<A-1>");
    EXPECT_EQ(page.text(kind + "//input[@name='times']/@value"), "often");
    EXPECT_EQ(page.text(kind + "//input[@name='bytes']/@value"), "4\u24030");
    EXPECT_EQ(page.texts("//input[@name='times'][@value='often']").size(), 1u);
    EXPECT_THAT(m_Service->services().m_Faults.armed(), IsEmpty());
}

TEST_F(Dashboard, RefusesImpossibleFaultsWithTheReason) {
    struct Row {
        Fields m_Fields;
        char const* m_Reason;
    };
    for (Row const& row : {Row{{}, "unknown fault ''"}, Row{{{"kind", "burn"}}, "unknown fault 'burn'"},
                           Row{{{"kind", "drop"}, {"exchange", "connection"}}, "only to: setup"},
                           Row{{{"kind", "drop"}, {"exchange", ""}}, "unknown exchange ''"},
                           Row{{{"kind", "drop"}, {"times", "0"}}, "from 1"},
                           Row{{{"kind", "delay"}, {"seconds", "soon"}}, "must be a number, not 'soon'"},
                           Row{{{"kind", "delay"}, {"bytes", "1"}}, "delay takes no bytes"}}) {
        RawResponse const response = fill("/faults", row.m_Fields);
        EXPECT_EQ(response.m_Status, 400);
        EXPECT_THAT(PageReader(response.m_Body).text("//p[@role='alert']"), HasSubstr(row.m_Reason));
    }
    RawResponse const twice = ask(formPost("/faults", "kind=drop&kind=drop&key=" + formKey()));
    EXPECT_EQ(twice.m_Status, 400);
    EXPECT_THAT(PageReader(twice.m_Body).text("//p[@role='alert']"), HasSubstr("twice"));
}

// --- Forms of other sites

TEST_F(Dashboard, RefusesFormsWithoutItsKey) {
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop"));
    std::string const key = formKey();
    std::string const old = [this, &key] {
        restart();
        EXPECT_NE(formKey(), key);
        return key;
    }();
    m_Service->services().m_Faults.arm(sandbox::parseFault("drop"));
    for (std::string const path : {"/faults", "/faults/lift", "/keys/rotate", "/keys/clock", "/calculator"}) {
        for (Fields fields : {Fields{}, {{"key", ""}}, {{"key", old}}, {{"key", formKey() + "0"}}}) {
            fields.insert({{"kind", "drop"}, {"id", "all"}, {"ahead", "60"}, {"DATA", "a"}});
            RawResponse const response = submit(path, fields);
            EXPECT_EQ(response.m_Status, 403) << path;
            EXPECT_THAT(PageReader(response.m_Body).text("//p[@role='alert']"), HasSubstr("did not come from a page"));
        }
        RawResponse const foreign =
            ask("POST " + path + " HTTP/1.1\r\nHost: evil.example\r\nContent-Length: 36\r\n\r\nkey=" + formKey());
        EXPECT_EQ(foreign.m_Status, 403) << path;
    }
    EXPECT_EQ(m_Service->services().m_Faults.armed().size(), 1u);
    EXPECT_EQ(m_Service->services().m_Keys.current()->m_Id, "1-SERVER-1");
    EXPECT_EQ(open("/keys").text("//section[@aria-labelledby='clock']//dl/div[2]/dd"), "0");
}

// --- Keys and clock

TEST_F(Dashboard, ShowsAndRotatesKeys) {
    PageReader const before = open("/keys");
    EXPECT_THAT(before.texts(tableRow("server", 1)), ElementsAre("1-SERVER-1", "signing", "512", StartsWith("3048")));
    EXPECT_THAT(before.texts(tableRow("merchants", 1)),
                ElementsAre(m_Merchant.keyId(), "demo", "2023-11-14T22:13:20Z", "512"));
    RawResponse const rotated = fill("/keys/rotate", {});
    EXPECT_EQ(rotated.m_Status, 303);
    EXPECT_EQ(rotated.m_Headers.at("location"), "/keys");
    EXPECT_EQ(m_Service->services().m_Keys.current()->m_Id, "1-SERVER-2");
    PageReader const after = open("/keys");
    EXPECT_THAT(after.texts("//section[@aria-labelledby='server']//tbody/tr/td[1]"), ElementsAre("old", "signing"));
}

TEST_F(Dashboard, SetsTheClock) {
    RawResponse const set = fill("/keys/clock", {{"ahead", "3600"}});
    EXPECT_EQ(set.m_Status, 303);
    EXPECT_EQ(set.m_Headers.at("location"), "/keys");
    PageReader const page = open("/keys");
    EXPECT_THAT(page.texts("//section[@aria-labelledby='clock']//dd"), ElementsAre("2023-11-14T23:13:20Z", "3600"));
    EXPECT_EQ(page.text("//input[@name='ahead']/@value"), "3600");
    EXPECT_EQ(fill("/keys/clock", {{"ahead", "-60"}}).m_Status, 303);
    for (char const* bad : {"", "soon", "1.5", "315360001", "-315360001", "99999999999999999999"}) {
        RawResponse const response = fill("/keys/clock", {{"ahead", bad}});
        EXPECT_EQ(response.m_Status, 400) << bad;
        PageReader const refused(response.m_Body);
        EXPECT_EQ(refused.count("//section[@aria-labelledby='clock']/p[@role='alert']"), 1u) << bad;
        EXPECT_EQ(refused.text("//input[@name='ahead']/@value"), bad);
        EXPECT_EQ(refused.text("//section[@aria-labelledby='clock']//dl/div[2]/dd"), "-60") << bad;
    }
}

// --- The calculator

TEST_F(Dashboard, ChecksPastedTexts) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"Caf\xE9\"");
    PageReader const empty = open("/calculator");
    EXPECT_EQ(empty.count("//section"), 1u);
    std::string const address = "http://shop.example/ok?cart=1&" + m_Merchant.signedQuery(text).substr(1);
    for (Fields const& fields : {Fields{{"DATA", text}, {"SIGNATURE", m_Merchant.sign(text)}},
                                 Fields{{"DATA", percentEncoded(text)}, {"SIGNATURE", m_Merchant.sign(text) + "\r\n"}},
                                 Fields{{"DATA", address}, {"SIGNATURE", ""}}}) {
        RawResponse const response = fill("/calculator", fields);
        EXPECT_EQ(response.m_Status, 200);
        PageReader const page(response.m_Body);
        EXPECT_EQ(page.text("//section[@aria-labelledby='verdict']/p"), kValid);
        EXPECT_EQ(page.text("//section[@aria-labelledby='comparison']//dl/div[1]/dd"),
                  m_Merchant.keyId() + " of the merchant demo, 512 bits");
        EXPECT_EQ(page.text("//section[@aria-labelledby='comparison']//dl/div[2]/dd"),
                  page.text("//section[@aria-labelledby='comparison']//dl/div[4]/dd"));
        EXPECT_THAT(page.texts(tableRow("matches", 1)),
                    ElementsAre(m_Merchant.keyId(), "the merchant demo", "zero-extended", "unchanged"));
        EXPECT_THAT(page.texts("//section[@aria-labelledby='message']//tbody/tr[3]/*"), ElementsAre("TOKEN", "t1"));
        // The text in the field afterwards gives the same result.
        std::string const kept = page.text("//textarea[@name='DATA']").substr(1);
        RawResponse const again =
            fill("/calculator", {{"DATA", kept}, {"SIGNATURE", page.text("//textarea[@name='SIGNATURE']").substr(1)}});
        EXPECT_EQ(PageReader(again.m_Body).text("//section[@aria-labelledby='verdict']/p"), kValid);
    }
}

TEST_F(Dashboard, ExplainsWhatDiffers) {
    std::string const text = m_Merchant.payInit("t1");
    PageReader const page =
        open("/calculator?DATA=" + percentEncoded(text + "\n") + "&SIGNATURE=" + m_Merchant.sign(text));
    EXPECT_EQ(page.text("//section[@aria-labelledby='verdict']/p[@class='verdict bad']"),
              "DATA was changed on its way: white space was added at its end.");
    EXPECT_THAT(page.text("//section[@aria-labelledby='verdict']/p[2]"), StartsWith("To mend it: "));
    EXPECT_THAT(page.texts("//section[@aria-labelledby='verdict']//li"),
                ElementsAre(HasSubstr("digest"), HasSubstr("after this change: white space at the end removed")));
    EXPECT_THAT(page.texts(tableRow("matches", 1)).back(), HasSubstr("white space at the end removed"));
    PageReader const unknown =
        open("/calculator?DATA=" + percentEncoded("<KVX MSGTYPE=\"a\" KEYID=\"<x>\"/>") + "&SIGNATURE=00");
    EXPECT_THAT(unknown.texts("//section[@aria-labelledby='verdict']//li"),
                Contains(HasSubstr("KEYID '<x>' is neither")));
    PageReader const half = open("/calculator?SIGNATURE=00");
    EXPECT_THAT(half.texts("//section[@aria-labelledby='verdict']//li"), ElementsAre("There is no DATA."));
    EXPECT_EQ(half.count("//section[@aria-labelledby='message']"), 0u);
}

/// The calculator's page for a message that is not the one signed.
class DashboardCalculator : public Dashboard {
protected:
    [[nodiscard]] PageReader calculate(std::string const& sent, std::string const& signature) const {
        return open("/calculator?DATA=" + percentEncoded(sent) + "&SIGNATURE=" + signature);
    }

    /// `text` with the amount of the order raised.
    [[nodiscard]] static std::string raised(std::string text) { return text.replace(text.find("12.50"), 5, "92.50"); }

    static void expectRaised(PageReader const& page, std::string const& original) {
        EXPECT_EQ(page.text("//section[@aria-labelledby='verdict']/p[@class='verdict bad']"),
                  "AMOUNT was changed from 12.50 to 92.50.");
        EXPECT_EQ(page.text("//section[@aria-labelledby='original']/pre"),
                  sandbox::replaceAll(original, "\xE9", "\u00E9"));
        EXPECT_THAT(page.texts("//section[@aria-labelledby='original']/div//tbody/tr/*"),
                    ElementsAre("AMOUNT", "12.50", "92.50"));
        EXPECT_THAT(page.texts("//section[@aria-labelledby='verdict']//li"),
                    Contains("DATA differs from that message in: AMOUNT."));
    }
};

TEST_F(DashboardCalculator, ShowsWhatWasSignedInAPayInit) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"Caf\xE9\"");
    std::string const other = sandbox::replaceAll(raised(text), "A-17", "B-99");
    EXPECT_EQ(calculate(other, m_Merchant.sign(text)).count("//section[@aria-labelledby='original']"), 0u);
    openPage(text);
    openPage(m_Merchant.payInit("t2"));
    PageReader const page = calculate(raised(text), m_Merchant.sign(text));
    EXPECT_EQ(page.text("//section[@aria-labelledby='original']/p/a"),
              "the PayInit of payment " + sandboxtest::paymentsOf(*m_Service).at(0).m_Id);
    EXPECT_EQ(page.text("//section[@aria-labelledby='original']/p/a/@href"),
              "/payment?id=" + sandboxtest::paymentsOf(*m_Service).at(0).m_Id);
    expectRaised(page, text);
    PageReader const missing =
        calculate("<KVX MSGTYPE=\"PayInit\" KEYID=\"" + m_Merchant.keyId() + "\"/>", m_Merchant.sign(text));
    EXPECT_THAT(missing.texts("//section[@aria-labelledby='original']/div//td[2]"), ::testing::Each("missing"));
}

TEST_F(DashboardCalculator, ShowsWhatWasSignedInAConfirmation) {
    for (char const* fault : {"", "wrong-type,exchange=decision", "stale-key,exchange=decision"}) {
        if (*fault != '\0') {
            m_Service->services().m_Keys.rotate();
            m_Service->services().m_Faults.arm(sandbox::parseFault(fault));
        }
        // Without return links the confirmation is shown on a page.
        std::string const token = std::string("t") + fault;
        PageReader const outcome(
            press(openPage(m_Merchant.message("PayInit", " TOKEN=\"" + token +
                                                             "\" EXPIRATION=\"20991231 23:59:59\" "
                                                             "AMOUNT=\"12.50\" CURRENCY=\"EUR\" ORDERID=\"\xE9\"")),
                  "decline")
                .m_Body);
        std::string const query = "?" + outcome.text("//section[@aria-labelledby='query']/pre");
        std::string const confirm = percentDecoded(queryValue(query, "DATA"));
        PageReader const page = calculate(raised(confirm), queryValue(query, "SIGNATURE"));
        expectRaised(page, confirm);
        EXPECT_THAT(page.text("//section[@aria-labelledby='original']/p/a"), StartsWith("a confirmation of payment "))
            << fault;
    }
}

TEST_F(DashboardCalculator, ShowsWhatWasSignedInAnyExchange) {
    std::string const text = m_Merchant.message("PayConfirm", " TOKEN=\"t1\" AMOUNT=\"12.50\" NOTE=\"\xE9\"");
    EXPECT_EQ(attributeOf(askCapture(text), "MSGTYPE"), "Error");
    PageReader const page = calculate(raised(text), m_Merchant.sign(text));
    expectRaised(page, text);
    EXPECT_EQ(page.text("//section[@aria-labelledby='original']/p/a"), "DATA of exchange 2");
    EXPECT_EQ(page.text("//section[@aria-labelledby='original']/p/a/@href"), "/exchange?number=2");
}

TEST_F(DashboardCalculator, LoadsExamples) {
    std::map<std::string, std::string> verdicts;
    for (std::string const& target : open("/calculator").texts("//section[@aria-labelledby='form']/ul/li/a/@href")) {
        verdicts[target] = open(target).text("//section[@aria-labelledby='verdict']/p[1]");
    }
    EXPECT_EQ(verdicts.size(), 5u);
    EXPECT_EQ(verdicts.at("/calculator?example=valid"), kValid);
    EXPECT_EQ(verdicts.at("/calculator?example=amount"), "AMOUNT was changed from 12.50 to 1.50.");
    EXPECT_EQ(verdicts.at("/calculator?example=plus"), "DATA was changed on its way: each space became +.");
    EXPECT_THAT(verdicts.at("/calculator?example=escaped"), HasSubstr("encoded"));
    EXPECT_THAT(verdicts.at("/calculator?example=key"), HasSubstr("not made with the key"));
    EXPECT_EQ(open("/calculator?example=unknown").count("//section"), 1u);
}

TEST_F(DashboardCalculator, FindsOneChangeOfAMessageThatNobodySaw) {
    std::string const text = m_Merchant.payInit("t1");
    expectRaised(calculate(raised(text), m_Merchant.sign(text)), text);
}

TEST_F(DashboardCalculator, SkipsLongMessages) {
    std::string const text =
        m_Merchant.message("PayConfirm", " AMOUNT=\"12.50\" NOTE=\"" + std::string(16 * 1024, 'x') + "\"");
    askCapture(text);
    PageReader const page = calculate(raised(text), m_Merchant.sign(text));
    EXPECT_EQ(page.count("//section[@aria-labelledby='original']"), 0u);
}

TEST_F(Dashboard, DescribesTheKeyInKeyId) {
    EXPECT_EQ(fill("/keys/rotate", {}).m_Status, 303);
    auto const named = [this](std::string const& keyId) {
        std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"" + keyId + "\"/>";
        return open("/calculator?DATA=" + percentEncoded(text))
            .text("//section[@aria-labelledby='comparison']//dl/div[1]/dd");
    };
    EXPECT_EQ(named("1-SERVER-1"), "1-SERVER-1 of this service, old, 512 bits");
    EXPECT_EQ(named("1-SERVER-2"), "1-SERVER-2 of this service, signing, 512 bits");
    EXPECT_EQ(named("x"), "x (unknown key)");
    EXPECT_EQ(named(""), "no KEYID can be read");
}

TEST_F(Dashboard, KeepsWhatWasPastedWhenItCannotBeRead) {
    RawResponse const response = fill("/calculator", {{"DATA", "%zz<\xE9"}, {"SIGNATURE", "\"00"}});
    EXPECT_EQ(response.m_Status, 400);
    PageReader const page(response.m_Body);
    EXPECT_THAT(page.text("//p[@role='alert']"), HasSubstr("percent-encoding"));
    EXPECT_EQ(page.text("//textarea[@name='DATA']"), "\n%zz<\u00E9");
    EXPECT_EQ(page.text("//textarea[@name='SIGNATURE']"), "\n\"00");
}

TEST_F(Dashboard, CalculatesLongMessages) {
    std::string const text = m_Merchant.payInit("t1", " NOTE=\"" + std::string(300000, 'x') + "\"");
    RawResponse const response = fill("/calculator", {{"DATA", text}, {"SIGNATURE", m_Merchant.sign(text)}});
    EXPECT_EQ(PageReader(response.m_Body).text("//section[@aria-labelledby='verdict']/p"), kValid);
    EXPECT_EQ(fill("/calculator", {{"DATA", std::string(1024 * 1024, 'x')}}).m_Status, 413);
}

TEST_F(Dashboard, TakesNoFormsInParts) {
    std::string const body =
        "--x\r\nContent-Disposition: form-data; name=\"key\"\r\n\r\n" + formKey() + "\r\n--x--\r\n";
    RawResponse const response =
        ask("POST /keys/rotate HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=x\r\n"
            "Content-Length: " +
            std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_EQ(response.m_Status, 415);
    EXPECT_EQ(m_Service->services().m_Keys.current()->m_Id, "1-SERVER-1");
}

}  // namespace
