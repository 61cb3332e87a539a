// The examples on docs/formats.md, recomputed.

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <regex>
#include <string>

#include "core/kvxctx.h"
#include "tests/support/directories.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"
#include "xml/xmlelement.h"
#include "xml/xmlholder.h"

using namespace kvxtest;

namespace {

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

}  // namespace
