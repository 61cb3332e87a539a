// The worked example of docs/formats.md, recomputed.

#include <openssl/sha.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include "core/kvxctx.h"
#include "tests/support/test_support.h"

namespace {

std::string fileText(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The one line of the fenced block that is called `name`.
std::string exampleCalled(std::string const& name) {
    std::string const page = fileText(KVX_DOCS_DIR "/formats.md");
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
        std::string key = fileText(KVX_TEST_DATA_DIR "/rsa/key512.private.hex");
        key.erase(std::remove(key.begin(), key.end(), '\n'), key.end());
        m_Dir.write("keys/private/k", key);
        m_Context.Open(m_Dir.path().c_str());
    }

    kvxtest::TempDir m_Dir;
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
    EXPECT_EQ(kvxtest::bytesOf(m_Context.BufferToHex(digest, sizeof digest)), exampleCalled("example-digest"));
}

TEST_F(WorkedExample, SignatureAndUrlAreWhatTheComponentMakes) {
    TbString const message = exampleCalled("example-message").c_str();
    TbString signature;
    m_Context.SignData(message, "k", signature);
    EXPECT_EQ(kvxtest::bytesOf(signature), exampleCalled("example-signature"));

    TbStringStream stream(message);
    TbString url;
    m_Context.RequestToURL("https://pay.example/init", stream, signature, url);
    EXPECT_EQ(kvxtest::bytesOf(url), exampleCalled("example-url"));
}

}  // namespace
