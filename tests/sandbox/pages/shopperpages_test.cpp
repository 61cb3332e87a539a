// The pages for shoppers as functions: no service runs. First what holds for every page in every language (well-formed,
// labelled, escaped, without scripts), then the style sheet with its contrasts, the languages, and page by page.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/pages/shopperpages.h"
#include "sandbox/pages/templates.h"
#include "tests/sandbox/support/pagereader.h"
#include "tests/sandbox/support/testmerchant.h"

/// The pages for shoppers, without a running service.
namespace {

using namespace sandboxtest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

/// A value with everything that could break a page, and how the page must show it.
constexpr char kNastyBytes[] = "</dd><script>alert(\"1\")</script>&amp;'\0\x1B\x7F\xE9\x80\xC3\xA9\xE2\x82]]>-->";
std::string const kNasty(kNastyBytes, sizeof kNastyBytes - 1);
std::string const kNastyShown =
    "</dd><script>alert(\"1\")</script>&amp;'\u2400\u241B\u2421\u00E9\uFFFD\u00E9\u00E2\uFFFD]]>-->";

sandbox::StoredPayment samplePayment(sandbox::Attributes attributes) {
    sandbox::StoredPayment stored;
    stored.m_Payment.m_Id = "P0123456789abcdef";
    stored.m_Payment.m_Account = "demo";
    stored.m_Payment.m_Token = "t1";
    stored.m_Payment.m_Attributes = std::move(attributes);
    stored.m_Payment.m_History = {{"2024-01-31T23:59:07Z", sandbox::PaymentState::kOpened, ""}};
    stored.m_FormKey = "00112233445566778899aabbccddeeff";
    return stored;
}

sandbox::Attributes sampleOrder(std::string const& langId = "") {
    return {{"MSGTYPE", "PayInit"}, {"EXPIRATION", "20991231 23:59:07"}, {"ORDERID", "A-17"}, {"AMOUNT", "12.50"},
            {"CURRENCY", "EUR"},    {"DESCRIPTION", "Two candles"},      {"LANGID", langId}};
}

PageReader paymentPageOf(sandbox::Attributes const& attributes) {
    return PageReader(sandbox::paymentPage(samplePayment(attributes), "1001").m_Body);
}

sandbox::Exchange sampleExchange(std::string const& data, std::string const& signature) {
    sandbox::Exchange exchange;
    exchange.m_Data = data;
    exchange.m_Signature = signature;
    return exchange;
}

sandbox::HttpResponse returnedWith(std::string const& query) {
    sandbox::HttpRequest request;
    request.m_Query = sandbox::Query(query);
    return sandbox::returnedPage(request);
}

constexpr char kMessage[] = R"(<KVX MSGTYPE="PayConfirm" ORDERID="A &amp; B" RESULT="authorised"/>)";

/// All pages in all variants, with their names.
std::vector<std::pair<std::string, sandbox::HttpResponse>> allPages() {
    sandbox::Payment const payment = samplePayment(sampleOrder()).m_Payment;
    sandbox::StoredPayment nasty = samplePayment({{"ORDERID", kNasty},
                                                  {"AMOUNT", kNasty},
                                                  {"CURRENCY", kNasty},
                                                  {"DESCRIPTION", kNasty},
                                                  {"EXPIRATION", kNasty},
                                                  {"LANGID", kNasty}});
    nasty.m_Payment.m_Id = nasty.m_Payment.m_Account = nasty.m_FormKey = kNasty;
    std::string const signedQuery = "DATA=" + percentEncoded(kMessage) + "&SIGNATURE=00ff";
    std::string const nastyQuery = "DATA=" + percentEncoded(kNasty) + "&SIGNATURE=" + percentEncoded(kNasty);
    std::vector<std::pair<std::string, sandbox::HttpResponse>> pages = {
        {"payment without anything", sandbox::paymentPage(samplePayment({}), "")},
        {"payment, nasty", sandbox::paymentPage(nasty, kNasty)},
        {"error without a message", sandbox::errorPage(404, "there is no such payment", {})},
        {"error", sandbox::errorPage(400, "SIGNATURE is missing", sampleExchange(kMessage, ""))},
        {"error, nasty", sandbox::errorPage(400, kNasty, sampleExchange(kNasty, kNasty))},
        {"error, explained",
         sandbox::errorPage(400, "x", sampleExchange(kMessage, "00"), {"AMOUNT was changed", "change AMOUNT"})},
        {"error, explained, nasty", sandbox::errorPage(400, "x", sampleExchange(kMessage, "00"), {kNasty, kNasty})},
        {"error, nasty value",
         sandbox::errorPage(409, kNasty, sampleExchange("<KVX MSGTYPE=\"&lt;\xE9\x01&quot;\"/>", "00"))},
        {"outcome", sandbox::outcomePage(payment, signedQuery)},
        {"outcome, nasty", sandbox::outcomePage(nasty.m_Payment, nastyQuery)},
        {"returned", returnedWith(signedQuery)},
        {"returned with nothing", returnedWith("")},
        {"returned, nasty", returnedWith(nastyQuery)},
        {"returned, unreadable", returnedWith("DATA=%zz")}};
    for (sandbox::Language const& language : sandbox::allLanguages()) {
        pages.emplace_back("payment in " + language["tag"].get<std::string>(),
                           sandbox::paymentPage(samplePayment(sampleOrder(language["tag"])), "1001"));
    }
    return pages;
}

// --- Escaping

TEST(EscapeHtml, ShowsEveryByteOfEveryKind) {
    struct Row {
        std::string m_Bytes;
        std::string m_Html;
    };
    for (Row const& row : {Row{"", ""},
                           {"A-17", "A-17"},
                           {"<script>", "&lt;script&gt;"},
                           {"&\"'", "&amp;&quot;&#39;"},
                           {"&amp;", "&amp;amp;"},
                           {"a\n\tb", "a\n\tb"},
                           {std::string("\0", 1), "\u2400"},
                           {"\r\x1B\x1F\x7F", "\u240D\u241B\u241F\u2421"},
                           {"Caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x95\xAF", "Café € \U0001F56F"},
                           {"Caf\xE9 \xA0\xFF", "Café \u00A0ÿ"},
                           {"\x80\x9F", "\uFFFD\uFFFD"},
                           {"\xC2\x85", "\uFFFD"},                        // a control character in UTF-8
                           {"\xC2\xA0", "\u00A0"},                        // the first character after the controls
                           {"\xC0\xAF", "À\u00AF"},                       // overlong "/"
                           {"\xE0\x9F\xBF", "à\uFFFD¿"},                  // overlong U+07FF
                           {"\xF0\x8F\xBF\xBF", "ð\uFFFD¿¿"},             // overlong U+FFFF
                           {"\xED\x9F\xBF", "\uD7FF"},                    // the last character before the surrogates
                           {"\xED\xA0\x80", "í\u00A0\uFFFD"},             // a surrogate
                           {"\xEF\xBF\xBD", "\uFFFD"},                    // the replacement character itself
                           {"\xEF\xBF\xBE\xEF\xBF\xBF", "\uFFFD\uFFFD"},  // noncharacters
                           {"\xF4\x8F\xBF\xBD", "\U0010FFFD"},            // among the last characters
                           {"\xF4\x90\x80\x80", "ô\uFFFD\uFFFD\uFFFD"},   // above the last character
                           {"\xE2\x82", "â\uFFFD"},                       // truncated
                           {"\xC3<", "Ã&lt;"},  // an incomplete sequence does not swallow the next character
                           {"\xE2\x82\"", "â\uFFFD&quot;"}}) {
        EXPECT_EQ(sandbox::escapeHtml(row.m_Bytes), row.m_Html) << ::testing::PrintToString(row.m_Bytes);
    }
}

TEST(EscapeHtml, GivesCleanTextForEveryPairOfBytes) {
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            std::string const pair{static_cast<char>(first), static_cast<char>(second)};
            std::string const html = sandbox::escapeHtml(pair);
            ASSERT_TRUE(isCleanUtf8(html)) << first << " " << second;
            ASSERT_EQ(html.find_first_of("<>\"'"), std::string::npos) << first << " " << second;
        }
    }
}

TEST(EscapeHtml, KeepsAValueOf100KilobytesToTheLastByte) {
    std::string const value(100000, '<');
    std::string const html = sandbox::escapeHtml(value);
    EXPECT_EQ(html.size(), value.size() * 4);
    EXPECT_EQ(PageReader("<!DOCTYPE html>\n<p>" + html + "</p>").text("/p"), value);
}

// --- All pages

TEST(EveryPage, IsWellFormedAndClean) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        EXPECT_EQ(response.m_ContentType, "text/html; charset=utf-8");
        EXPECT_NO_THROW(PageReader(response.m_Body));
        EXPECT_TRUE(isCleanUtf8(response.m_Body));
    }
}

// Behind a header without the empty line at its end, browsers take a page for more of that header, up to the first
// empty line.
TEST(EveryPage, HasNoEmptyLineOfItsOwn) {
    for (auto const& [name, response] : allPages()) {
        if (name.find("nasty") == std::string::npos) {
            EXPECT_THAT(response.m_Body, Not(HasSubstr("\n\n"))) << name;
        }
    }
}

TEST(EveryPage, ReportsItsLanguageCharacterSetAndWidth) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        EXPECT_EQ(page.text("/html/@lang").size(), 2u);
        EXPECT_EQ(page.text("/html/head/meta[1]/@charset"), "utf-8");
        EXPECT_EQ(page.text("/html/head/meta[@name='viewport']/@content"), "width=device-width, initial-scale=1");
        EXPECT_THAT(page.text("/html/head/title"), StartsWith(page.text("//h1")));
    }
}

TEST(EveryPage, HasItsLandmarksAndHeadingsInOrder) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        EXPECT_EQ(page.count("//header"), 1u);
        EXPECT_EQ(page.count("//main"), 1u);
        EXPECT_EQ(page.count("/html/body/*[not(self::header or self::main)]"), 0u);
        EXPECT_EQ(page.count("//h1"), 1u);
        EXPECT_EQ(page.count("/html/body/main/*[1][self::h1]"), 1u);
        EXPECT_EQ(page.count("//h3 | //h4 | //h5 | //h6"), 0u);
        EXPECT_EQ(page.count("//h2"), page.count("/html/body/main/section[@aria-labelledby=h2/@id]"));
        EXPECT_EQ(page.count("//section"), page.count("//h2"));
    }
}

TEST(EveryPage, NamesWhatItRefersToOnce) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        std::vector<std::string> const names = page.texts("//@id");
        std::set<std::string> const unique(names.begin(), names.end());
        EXPECT_EQ(unique.size(), names.size());
        for (std::string const& label : page.texts("//@aria-labelledby")) {
            EXPECT_EQ(unique.count(label), 1u) << label;
        }
    }
}

TEST(EveryPage, GivesDataItsNames) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        EXPECT_EQ(page.count("//dt"), page.count("//dl/div[count(*)=2]/dt[string(.)!='']/following-sibling::dd"));
        EXPECT_EQ(page.count("//dd"), page.count("//dt"));
        EXPECT_EQ(page.count("//table"), page.count("//table[thead/tr/th[@scope='col']]"));
        EXPECT_EQ(page.count("//th"), page.count("//th[@scope and string(.)!='']"));
        EXPECT_EQ(page.count("//button"), page.count("//button[string(.)!='']"));
        EXPECT_EQ(page.count("//input"), page.count("//input[@type='hidden']"));
    }
}

TEST(EveryPage, RunsAndLoadsNothing) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        EXPECT_EQ(page.count("//script | //img | //link | //iframe | //object | //@src | //@href | //@style"), 0u);
        EXPECT_EQ(page.count("//@*[starts-with(name(), 'on')]"), 0u);
        EXPECT_THAT(page.text("//style"), Not(HasSubstr("url(")));
        EXPECT_THAT(page.text("//meta[@http-equiv='Content-Security-Policy']/@content"),
                    StartsWith("default-src 'none'"));
    }
}

TEST(EveryPage, SaysThatNoMoneyMoves) {
    for (auto const& [name, response] : allPages()) {
        SCOPED_TRACE(name);
        PageReader const page(response.m_Body);
        sandbox::Language const& language = sandbox::languageFor(page.text("/html/@lang"));
        EXPECT_EQ(page.text("/html/@lang"), language["tag"]);
        EXPECT_THAT(page.text("//header/p"), HasSubstr(language["notice"].get<std::string>()));
    }
}

// --- The style sheet

class StyleSheet : public ::testing::Test {
protected:
    /// The value of `property` in the rule for `selector` outside media blocks; empty when not set.
    [[nodiscard]] std::string value(std::string const& selector, std::string const& property) const {
        for (StyleRule const& rule : m_Rules) {
            if (rule.m_Selector == selector && rule.m_Media.empty() && rule.m_Declarations.count(property) > 0) {
                return rule.m_Declarations.at(property);
            }
        }
        return "";
    }

    /// The colours of a scheme by their names, "--page" and so on.
    [[nodiscard]] std::map<std::string, std::string> palette(std::string const& media) const {
        std::map<std::string, std::string> colours;
        for (StyleRule const& rule : m_Rules) {
            if (rule.m_Selector == ":root" && rule.m_Media == media) {
                colours.insert(rule.m_Declarations.begin(), rule.m_Declarations.end());
            }
        }
        colours.erase("color-scheme");
        return colours;
    }

    /// The colour that `declared` refers to as its last word, "1px solid var(--line)".
    static std::string colour(std::map<std::string, std::string> const& palette, std::string const& declared) {
        std::size_t const from = declared.rfind("var(");
        if (from == std::string::npos || declared.back() != ')') {
            throw std::runtime_error("no named colour: '" + declared + "'");
        }
        return palette.at(declared.substr(from + 4, declared.size() - from - 5));
    }

    /// The sheet of the dashboard, which begins with that of the pages for shoppers.
    std::string m_Sheet =
        PageReader(sandbox::renderPage(200, "problem_page", {{"isBroad", true}}).m_Body).text("//style");
    std::vector<StyleRule> m_Rules = readStyleSheet(m_Sheet);
    std::string const m_Dark = "screen and (prefers-color-scheme:dark)";
};

TEST(ContrastRatio, IsThatOfTheStandard) {
    EXPECT_NEAR(contrastRatio("#000000", "#ffffff"), 21.0, 0.001);
    EXPECT_NEAR(contrastRatio("#ffffff", "#ffffff"), 1.0, 0.001);
    EXPECT_NEAR(contrastRatio("#777777", "#ffffff"), 4.48, 0.005);
    EXPECT_NEAR(contrastRatio("#ff0000", "#ffffff"), 4.00, 0.005);
    EXPECT_NEAR(contrastRatio("#0000ff", "#ffffff"), 8.59, 0.005);
    EXPECT_THROW(contrastRatio("#fff", "#ffffff"), std::invalid_argument);
}

TEST_F(StyleSheet, IsTheSameOnEveryPage) {
    std::string const common = paymentPageOf(sampleOrder()).text("//style");
    for (auto const& [name, response] : allPages()) {
        EXPECT_EQ(PageReader(response.m_Body).text("//style"), common) << name;
    }
    EXPECT_THAT(m_Sheet, StartsWith(common));
    EXPECT_GT(m_Sheet.size(), common.size());
}

TEST_F(StyleSheet, NamesAllColoursInBothSchemes) {
    EXPECT_EQ(value(":root", "color-scheme"), "light dark");
    std::map<std::string, std::string> const light = palette("");
    std::map<std::string, std::string> const dark = palette(m_Dark);
    ASSERT_GT(light.size(), 5u);
    ASSERT_EQ(light.size(), dark.size());
    for (auto const& [name, colour] : light) {
        EXPECT_EQ(dark.count(name), 1u) << name;
        EXPECT_NO_THROW(contrastRatio(colour, "#000000")) << name;
    }
}

TEST_F(StyleSheet, HasEnoughContrastInBothSchemes) {
    constexpr double kText = 4.5;
    constexpr double kOther = 3.0;
    for (std::string const& media : {std::string(), m_Dark}) {
        std::map<std::string, std::string> const colours = palette(media);
        std::string const page = colour(colours, value("body", "background"));
        int texts = 0;
        int lines = 0;
        for (StyleRule const& rule : m_Rules) {
            SCOPED_TRACE(media + " " + rule.m_Selector);
            std::map<std::string, std::string> const& set = rule.m_Declarations;
            // The contrast with a background from another rule could not be computed.
            ASSERT_EQ(set.count("color"), set.count("background"));
            if (set.count("color") > 0) {
                EXPECT_GE(contrastRatio(colour(colours, set.at("color")), colour(colours, set.at("background"))),
                          kText);
                ++texts;
            }
            for (auto const& [property, declared] : set) {
                bool const isLine = property.compare(0, 6, "border") == 0 && declared.find("var(") != std::string::npos;
                if (isLine || property == "fill" || declared.find(" solid ") != std::string::npos) {
                    EXPECT_GE(contrastRatio(colour(colours, declared), page), kOther) << property;
                    ++lines;
                }
            }
        }
        EXPECT_GE(texts, 5);  // body, notice, button, primary button, raw text
        EXPECT_GE(lines, 5);  // lists, tables, raw text, buttons, focus
    }
}

TEST_F(StyleSheet, UsesNoOtherColours) {
    for (StyleRule const& rule : m_Rules) {
        for (auto const& [property, declared] : rule.m_Declarations) {
            if (rule.m_Selector != ":root") {
                EXPECT_THAT(declared, Not(HasSubstr("#"))) << rule.m_Selector;
                EXPECT_THAT(declared, Not(HasSubstr("rgb"))) << rule.m_Selector;
                EXPECT_NE(property, "opacity") << rule.m_Selector;
            }
        }
    }
}

TEST_F(StyleSheet, MakesButtonsBigAndTheFirstOneStandOutWithoutItsColour) {
    std::string const height = value("button", "min-height");
    ASSERT_THAT(height, ::testing::EndsWith("px"));
    EXPECT_GE(std::stoi(height), 44);
    EXPECT_EQ(value(".primary", "font-weight"), "bold");
    EXPECT_EQ(value(".primary", "flex-basis"), "100%");
    EXPECT_EQ(value("button", "font-weight"), "");
}

TEST_F(StyleSheet, ShowsTheFocus) {
    EXPECT_EQ(value(":focus-visible", "outline"), "3px solid var(--focus)");
    for (StyleRule const& rule : m_Rules) {
        if (rule.m_Selector != ":focus-visible") {
            EXPECT_EQ(rule.m_Declarations.count("outline"), 0u) << rule.m_Selector;
        }
    }
}

TEST_F(StyleSheet, WrapsEverythingEverywhere) {
    EXPECT_EQ(value("body", "overflow-wrap"), "anywhere");
    for (char const* selector : {"dd", "td", "pre"}) {
        EXPECT_EQ(value(selector, "white-space"), "pre-wrap") << selector;  // line ends are kept, long lines wrap
    }
    for (StyleRule const& rule : m_Rules) {
        SCOPED_TRACE(rule.m_Media + " " + rule.m_Selector);
        EXPECT_EQ(rule.m_Declarations.count("overflow-wrap") > 0, rule.m_Selector == "body");
        EXPECT_EQ(rule.m_Declarations.count("min-width") > 0, rule.m_Selector == ".wide table");
        if (rule.m_Media.empty() && rule.m_Declarations.count("width") > 0) {
            EXPECT_THAT(rule.m_Declarations.at("width"), ::testing::EndsWith("%"));
        }
    }
    EXPECT_EQ(value(".wide", "overflow-x"), "auto");
}

// --- Languages

TEST(Languages, EachHasItsOwnTexts) {
    EXPECT_EQ(sandbox::allLanguages().size(), 6u);
    EXPECT_EQ(sandbox::allLanguages().front()["tag"], "en");
    for (auto const& [name, english] : sandbox::allLanguages().front().items()) {
        std::set<std::string> texts;
        for (sandbox::Language const& language : sandbox::allLanguages()) {
            auto const text = language.at(name).get<std::string>();
            EXPECT_TRUE(isCleanUtf8(text)) << text;
            EXPECT_EQ(sandbox::escapeHtml(text), text);
            EXPECT_NE(text, "") << name;
            texts.insert(text);
        }
        EXPECT_EQ(texts.size(), sandbox::allLanguages().size()) << ::testing::PrintToString(texts);
    }
    for (sandbox::Language const& language : sandbox::allLanguages()) {
        EXPECT_EQ(language.size(), 16u) << language["tag"];
    }
}

TEST(Languages, AreNamedByTheFirstPartOfLangId) {
    struct Row {
        char const* m_LangId;
        char const* m_Tag;
    };
    for (Row const& row :
         {Row{"en", "en"},      {"de", "de"},  {"fr", "fr"},     {"es", "es"},      {"it", "it"},    {"nl", "nl"},
          {"DE", "de"},         {"dE", "de"},  {"de-AT", "de"},  {"de_AT", "de"},   {"NL_be", "nl"}, {"fr-CH", "fr"},
          {"de-CH-1996", "de"}, {"de-", "de"}, {"", "en"},       {"pt", "en"},      {"deu", "en"},   {"d", "en"},
          {" de", "en"},        {"-de", "en"}, {"german", "en"}, {"\xC3\xA9", "en"}}) {
        PageReader const page = paymentPageOf(sampleOrder(row.m_LangId));
        EXPECT_EQ(page.text("/html/@lang"), row.m_Tag) << row.m_LangId;
        EXPECT_EQ(page.text("//h1"), sandbox::languageFor(row.m_Tag)["title"]) << row.m_LangId;
    }
    EXPECT_EQ(paymentPageOf({}).text("/html/@lang"), "en");
}

TEST(Languages, SayEverythingOnThePaymentPage) {
    for (sandbox::Language const& language : sandbox::allLanguages()) {
        SCOPED_TRACE(language["tag"]);
        PageReader const page = paymentPageOf({{"LANGID", language["tag"]}, {"DESCRIPTION", "Tea"}});
        std::set<std::string> shown;
        for (char const* path : {"//h1", "//h2", "//dt", "//button", "//header/p/text()", "//dd[@class]"}) {
            for (std::string const& text : page.texts(path)) {
                shown.insert(text.substr(text.find_first_not_of(' ')));
            }
        }
        std::set<std::string> texts;
        for (auto const& [name, text] : language.items()) {
            if (name != "tag") {
                texts.insert(text.get<std::string>());
            }
        }
        EXPECT_EQ(shown, texts);
    }
}

// --- The payment page

TEST(PaymentPageContent, ShowsWhatIsPaid) {
    PageReader const page = paymentPageOf(sampleOrder());
    EXPECT_THAT(page.texts("//dt"), ElementsAre("Amount", "Order", "Description", "Merchant", "Merchant number",
                                                "Can be paid until", "Payment number"));
    EXPECT_THAT(page.texts("//dd"), ElementsAre("12.50 EUR", "A-17", "Two candles", "demo", "1001",
                                                "2099-12-31 23:59:07 UTC", "P0123456789abcdef"));
    EXPECT_EQ(page.text("//time/@datetime"), "2099-12-31T23:59:07Z");
}

TEST(PaymentPageContent, SaysWhatIsNotGiven) {
    PageReader const page = paymentPageOf({{"ORDERID", ""}, {"DESCRIPTION", ""}, {"EXPIRATION", "soon"}});
    EXPECT_THAT(page.texts("//dd"), ElementsAre("not given", "not given", "demo", "1001", "soon", "P0123456789abcdef"));
    EXPECT_THAT(paymentPageOf({{"AMOUNT", "5"}}).texts("//dd"), ::testing::Contains("5"));
}

TEST(PaymentPageContent, ShowsForeignBytesAsText) {
    PageReader const page =
        paymentPageOf({{"AMOUNT", "1\n2"}, {"CURRENCY", kNasty}, {"ORDERID", kNasty}, {"DESCRIPTION", kNasty}});
    std::vector<std::string> const values = page.texts("//dd");
    ASSERT_GE(values.size(), 3u);
    EXPECT_EQ(values[0], "1\n2 " + kNastyShown);
    EXPECT_EQ(values[1], kNastyShown);
    EXPECT_EQ(values[2], kNastyShown);
}

TEST(PaymentPageContent, ShowsAValueOf100Kilobytes) {
    std::string const value(100000, 'x');
    EXPECT_THAT(paymentPageOf({{"DESCRIPTION", value}}).texts("//dd"), ::testing::Contains(value));
}

TEST(PaymentPageContent, HasOneFormWithThePrimaryButtonFirst) {
    PageReader const page = paymentPageOf(sampleOrder());
    EXPECT_EQ(page.text("//form/@method"), "post");
    EXPECT_EQ(page.text("//form/@action"), "/pay/decision");
    EXPECT_EQ(page.text("//form/input[@name='payment']/@value"), "P0123456789abcdef");
    EXPECT_EQ(page.text("//form/input[@name='key']/@value"), "00112233445566778899aabbccddeeff");
    EXPECT_EQ(page.count("//input"), 2u);
    EXPECT_THAT(page.texts("//form/button[@name='decision']/@value"), ElementsAre("pay", "decline", "cancel"));
    EXPECT_THAT(page.texts("//button"), ElementsAre("Pay", "Decline", "Cancel and go back"));
    EXPECT_EQ(page.text("//button[@class='primary']"), "Pay");
    EXPECT_EQ(page.count("//@tabindex | //@autofocus | //@disabled"), 0u);
}

// --- The pages that show a message

TEST(ErrorPage, SaysWhyAndShowsTheMessageItRead) {
    sandbox::HttpResponse const response =
        sandbox::errorPage(409, "the payment is declined already", sampleExchange(kMessage, "00ff"));
    EXPECT_EQ(response.m_Status, 409);
    PageReader const page(response.m_Body);
    EXPECT_EQ(page.text("//h1"), "Request rejected");
    EXPECT_EQ(page.text("//section[@aria-labelledby='reason']/p"), "the payment is declined already");
    EXPECT_THAT(page.texts("//tbody/tr/th"), ElementsAre("MSGTYPE", "ORDERID", "RESULT"));
    EXPECT_THAT(page.texts("//tbody/tr/td"), ElementsAre("PayConfirm", "A & B", "authorised"));
    EXPECT_EQ(page.text("//section[@aria-labelledby='data']/pre"), kMessage);
    EXPECT_EQ(page.text("//section[@aria-labelledby='signature']/pre"), "00ff");
}

TEST(ErrorPage, ExplainsASignature) {
    PageReader const page(
        sandbox::errorPage(400, "x", sampleExchange(kMessage, "00"), {kNasty, "change <AMOUNT>"}).m_Body);
    EXPECT_THAT(page.texts("//section[@aria-labelledby='diagnosis']/p"),
                ElementsAre(kNastyShown, "To mend it: change <AMOUNT>."));
    PageReader const plain(sandbox::errorPage(400, "x", sampleExchange(kMessage, "00")).m_Body);
    EXPECT_EQ(plain.count("//section[@aria-labelledby='diagnosis']"), 0u);
}

TEST(ErrorPage, ReportsWhyAMessageHasNoTable) {
    PageReader const page(sandbox::errorPage(400, "SIGNATURE is missing", sampleExchange("<KVX", "")).m_Body);
    EXPECT_EQ(page.count("//table"), 0u);
    EXPECT_THAT(page.text("//section[@aria-labelledby='message']/p"), HasSubstr("not well-formed"));
    EXPECT_EQ(page.text("//section[@aria-labelledby='data']/pre"), "<KVX");
    EXPECT_EQ(page.count("//section[@aria-labelledby='signature']"), 0u);
}

TEST(ErrorPage, KeepsRawTextToItsFirstLineEnd) {
    std::string const text = "\n\n<KVX MSGTYPE=\"" + std::string(100000, 'x') + "\"/>\n";
    PageReader const page(sandbox::errorPage(400, "x", sampleExchange(text, kNasty)).m_Body);
    EXPECT_EQ(page.text("//section[@aria-labelledby='data']/pre/code"), text);
    EXPECT_EQ(page.text("//section[@aria-labelledby='signature']/pre/code"), kNastyShown);
}

TEST(ErrorPage, AdvisesByStatusAndMessage) {
    auto const advice = [](int status, std::string const& data) {
        PageReader const page(sandbox::errorPage(status, "x", sampleExchange(data, "")).m_Body);
        return page.text("//section[@aria-labelledby='advice']/p");
    };
    EXPECT_THAT(advice(400, kMessage), HasSubstr("the message below"));
    EXPECT_THAT(advice(400, ""), HasSubstr("no message to show"));
    EXPECT_THAT(advice(403, ""), HasSubstr("use its buttons"));
    EXPECT_THAT(advice(404, ""), HasSubstr("belongs to this service"));
    EXPECT_THAT(advice(409, ""), HasSubstr("has not changed it"));
    EXPECT_EQ(advice(503, ""), advice(400, ""));
    EXPECT_THAT(PageReader(sandbox::errorPage(400, "x", {}).m_Body).texts("//pre"), IsEmpty());
}

TEST(OutcomePage, ShowsTheMessageAndItsRawForms) {
    sandbox::Payment payment = samplePayment(sampleOrder()).m_Payment;
    payment.m_State = sandbox::PaymentState::kAuthorised;
    std::string const query = "DATA=" + percentEncoded(kMessage) + "&SIGNATURE=00ff";
    sandbox::HttpResponse const response = sandbox::outcomePage(payment, query);
    EXPECT_EQ(response.m_Status, 200);
    PageReader const page(response.m_Body);
    EXPECT_EQ(page.text("//h1"), "The payment is authorised");
    EXPECT_THAT(page.texts("//tbody/tr/td"), ElementsAre("PayConfirm", "A & B", "authorised"));
    EXPECT_THAT(page.texts("//pre"), ElementsAre(kMessage, "00ff", query));
}

TEST(ReturnedPage, ShowsTheMessageAndTheSignature) {
    PageReader const page(returnedWith("DATA=" + percentEncoded(kMessage) + "&SIGNATURE=00ff").m_Body);
    EXPECT_THAT(page.texts("//tbody/tr/th"), ElementsAre("MSGTYPE", "ORDERID", "RESULT"));
    EXPECT_THAT(page.texts("//tbody/tr/td"), ElementsAre("PayConfirm", "A & B", "authorised"));
    EXPECT_THAT(page.texts("//pre"), ElementsAre(kMessage, "00ff"));
}

TEST(ReturnedPage, SaysWhatIsMissing) {
    PageReader const page(returnedWith("").m_Body);
    EXPECT_THAT(page.texts("//main/p"),
                ElementsAre(HasSubstr("RESULT"), HasSubstr("no DATA"), HasSubstr("no SIGNATURE")));
    EXPECT_EQ(page.count("//pre"), 0u);
}

TEST(ReturnedPage, RefusesAQueryThatCannotBeRead) {
    for (char const* query : {"DATA=%zz", "DATA=a&DATA=b", "SIGNATURE=1&SIGNATURE=2"}) {
        sandbox::HttpResponse const response = returnedWith(query);
        EXPECT_EQ(response.m_Status, 400) << query;
        EXPECT_EQ(PageReader(response.m_Body).text("//h1"), "Request rejected") << query;
    }
}

}  // namespace
