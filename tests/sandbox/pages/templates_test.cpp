#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sandbox/pages/templates.h"
#include "sandbox/text/wiretext.h"
#include "tests/sandbox/support/pagereader.h"

/// Pages from templates, without a running service.
namespace {

using namespace sandboxtest;
using ::testing::HasSubstr;

/// The error page of the dashboard, whose template is nearly empty.
std::string problemPage(nlohmann::json const& problem) {
    return sandbox::renderPage(404, "problem_page", {{"title", "T"}, {"problem", problem}}).m_Body;
}

TEST(Templates, ArePutIntoTheFrame) {
    sandbox::HttpResponse const response =
        sandbox::renderPage(404, "problem_page", {{"title", "A <title>"}, {"problem", "x"}});
    EXPECT_EQ(response.m_Status, 404);
    EXPECT_EQ(response.m_ContentType, "text/html; charset=utf-8");
    PageReader const page(response.m_Body);
    EXPECT_EQ(page.text("/html/head/title"), "A <title> - tallowin-sandbox");
    EXPECT_EQ(page.text("/html/body/main/h1"), "A <title>");
    EXPECT_EQ(page.text("/html/@lang"), "en");
    EXPECT_EQ(page.text("//main/p[@role='alert']"), "x");
}

TEST(Templates, EscapeEveryKindOfValue) {
    EXPECT_EQ(PageReader(problemPage("<b a=\"'&\xE9\x01\">")).text("//main/p"), "<b a=\"'&\u00E9\u2401\">");
    EXPECT_EQ(PageReader(problemPage("{{title}} {{>frame}}")).text("//main/p"), "{{title}} {{>frame}}");
    EXPECT_EQ(PageReader(problemPage(17)).text("//main/p"), "17");
    EXPECT_EQ(PageReader(problemPage(0)).text("//main/p"), "0");
}

TEST(Templates, LeaveOutWhatIsEmpty) {
    for (nlohmann::json const& empty :
         {nlohmann::json(""), nlohmann::json(), nlohmann::json(false), nlohmann::json::array()}) {
        EXPECT_EQ(PageReader(problemPage(empty)).count("//main/p"), 0u) << empty;
    }
}

TEST(Templates, ShowTheBytesOfATextThatIsNotUtf8) {
    nlohmann::json const content = {{"title", "T"}, {"problem", "\uFFFD!"}, {"problemHex", "e921"}};
    EXPECT_EQ(PageReader(sandbox::renderPage(200, "problem_page", content).m_Body).text("//main/p"), "\u00E9!");
}

TEST(Templates, ShowTextsAsTheyWereSent) {
    for (std::string const& text : {std::string(), std::string("\r"), std::string("\n\na\r\n\r\n b\r"),
                                    std::string("\t\n \n"), std::string("<KVX/>\n")}) {
        nlohmann::json const content = {{"title", "T"}, {"query", sandbox::verbatim(text)}};
        std::string const page = sandbox::renderPage(200, "message_page", content).m_Body;
        std::string const shown =
            sandbox::replaceAll(sandbox::replaceAll(text, "<KVX/>", "&lt;KVX/&gt;"), "\r", "<small>CR</small>");
        // The reader drops white space between elements, so the bytes are compared.
        EXPECT_THAT(page, HasSubstr("<pre><code>" + shown + "</code></pre>")) << ::testing::PrintToString(text);
    }
}

TEST(Templates, MayBeUsedBySeveralThreads) {
    std::vector<std::string> pages(4);
    std::vector<std::thread> threads;
    for (std::string& page : pages) {
        threads.emplace_back([&page] { page = problemPage("x"); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(pages, ::testing::Each(problemPage("x")));
}

TEST(Templates, ThatAreMissingAreReported) {
    EXPECT_THROW((void)sandbox::renderPage(200, "nothing", {{"title", "T"}}), std::logic_error);
    EXPECT_THROW((void)sandbox::templateText("nothing.html"), std::logic_error);
}

}  // namespace
