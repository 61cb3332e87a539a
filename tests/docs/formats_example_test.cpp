// The examples on docs/formats.md, recomputed.

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/kvxctx.h"
#include "tests/support/directories.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"
#include "xml/xmlelement.h"
#include "xml/xmlholder.h"

using namespace kvxtest;

namespace {

/// Rows of the tables of the page.
constexpr std::size_t kReadingRules = 14;
constexpr std::size_t kNamesThatCannotWork = 6;

/// The one line of the fenced block that is called `name`.
std::string exampleCalled(std::string const& name) {
    std::string const page = contentOf(KVX_DOCS_DIR "/formats.md");
    std::string const fence = "```" + name + "\n";
    std::size_t const begin = page.find(fence);
    EXPECT_NE(begin, std::string::npos) << name;
    std::size_t const text = begin + fence.size();
    return page.substr(text, page.find('\n', text) - text);
}

/// A directory with the fixed key of the example as key "k".
class WorkedExample : public testing::Test {
protected:
    void SetUp() override {
        m_Dir.write("keys/private/k", dataHex("rsa/key512.private.hex"));
        m_Context.Open(m_Dir.path().c_str());
    }

    TemporaryDirectory m_Dir;
    KVX_Context m_Context;
};

TEST_F(WorkedExample, DigestIsThatOfTheWidenedMessage) {
    std::string widened;
    for (char const character : exampleCalled("example-message")) {
        widened += character;
        widened += '\0';
    }
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<unsigned char const*>(widened.data()), widened.size(), digest);
    EXPECT_EQ(bytesOf(m_Context.BufferToHex(digest, sizeof digest)), exampleCalled("example-digest"));
}

TEST_F(WorkedExample, SignatureAndUrlAreWhatTheComponentMakes) {
    TbString const message = exampleCalled("example-message").c_str();
    TbString signature;
    m_Context.SignData(message, "k", signature);
    EXPECT_EQ(bytesOf(signature), exampleCalled("example-signature"));

    TbStringStream stream(message);
    TbString url;
    m_Context.RequestToURL("https://pay.example/init", stream, signature, url);
    EXPECT_EQ(bytesOf(url), exampleCalled("example-url"));
}

TEST(EntityTable, SaysWhatAReaderFinds) {
    std::string const page = contentOf(KVX_DOCS_DIR "/formats.md");
    std::size_t const begin = page.find("| Written | Read |");
    ASSERT_NE(begin, std::string::npos);
    std::string const table = page.substr(begin, page.find("\n\n", begin) - begin);
    std::regex const row("\\| `([^`]*)` \\| `([^`]*)` \\|");
    KVX_Context context;
    int count = 0;
    for (auto at = std::sregex_iterator(table.begin(), table.end(), row); at != std::sregex_iterator(); ++at, ++count) {
        xmlElement* parsed = nullptr;
        context.XmlFromString(("<KVX V=\"" + (*at)[1].str() + "\"/>").c_str(), &parsed);
        xmlElementPtr const document = xmlAdopt(parsed);
        TbString value;
        ASSERT_TRUE(document->getAttribute("V", value));
        EXPECT_EQ(bytesOf(value), (*at)[2].str()) << (*at)[1].str();
    }
    EXPECT_EQ(count, 5);
}

/// The cells of a table's rows, without backticks; a cell of several values has one string for each.
std::vector<std::vector<std::string>> rowsBelow(std::string const& header) {
    std::string const page = contentOf(KVX_DOCS_DIR "/formats.md");
    std::size_t const begin = page.find(header);
    EXPECT_NE(begin, std::string::npos) << header;
    std::istringstream lines(page.substr(begin, page.find("\n\n", begin) - begin));
    std::vector<std::vector<std::string>> rows;
    std::regex const value("`([^`]*)`");
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> values;
        for (auto at = std::sregex_iterator(line.begin(), line.end(), value); at != std::sregex_iterator(); ++at) {
            values.push_back((*at)[1].str());
        }
        if (!values.empty() && line.find("| refused |") != std::string::npos) {
            values.emplace_back("refused");
        }
        if (!values.empty()) {
            rows.push_back(values);
        }
    }
    return rows;
}

/// `text` read and written again, or "refused".
std::string rewritten(std::string const& text) {
    KVX_Context context;
    xmlElement* parsed = nullptr;
    try {
        context.XmlFromString(text.c_str(), &parsed);
    } catch (KVX_Exception const& failure) {
        EXPECT_EQ(failure.code(), KVX_E_INVALID_FORMAT);
        return "refused";
    }
    xmlElementPtr const document = xmlAdopt(parsed);
    TbStringStream out;
    document->toStream(out);
    return bytesOf(out.str());
}

TEST(ReadingRules, SayWhatADocumentIsReadAs) {
    auto const rows = rowsBelow("| Rule | Document | Read and written again |");
    for (auto const& row : rows) {
        ASSERT_EQ(row.size(), 2U);
        EXPECT_EQ(rewritten(row[0]), row[1]) << row[0];
    }
    EXPECT_EQ(rows.size(), kReadingRules);
}

TEST(ReadingRules, SayWhatBecomesOfANameThatCannotWork) {
    auto const rows = rowsBelow("| Name | Written | Read and written again |");
    for (auto const& row : rows) {
        ASSERT_EQ(row.size(), 3U);
        xmlElementPtr const message(new xmlElement("KVX"));
        message->setAttribute("AMOUNT", "10");
        message->setAttribute(row[0].c_str(), "1");
        TbStringStream out;
        message->toStream(out);
        EXPECT_EQ(bytesOf(out.str()), row[1]) << row[0];
        EXPECT_EQ(rewritten(row[1]), row[2]) << row[0];
    }
    EXPECT_EQ(rows.size(), kNamesThatCannotWork);
}

}  // namespace
