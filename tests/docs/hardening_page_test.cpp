// The values on docs/hardening.md, read by the code that they describe.

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>

#include "core/kvxctx_settings.h"
#include "tests/support/directories.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

/// Cells of the table of the profile.
constexpr int kValuesOfTheProfile = 15;

std::string page() {
    return contentOf(KVX_DOCS_DIR "/hardening.md");
}

/// The page from the line `heading` to the next heading.
std::string section(std::string const& heading) {
    std::string const text = page();
    std::size_t const begin = text.find("\n" + heading + "\n");
    EXPECT_NE(begin, std::string::npos) << heading;
    return text.substr(begin, text.find("\n#", begin + 1) - begin);
}

/// Everything that protects, as text, to compare and to show.
std::string described(KVX_Settings const& settings) {
    KVX_Transfer const& transfer = settings.m_Transfer;
    std::ostringstream out;
    out << transfer.connectTimeout << ' ' << transfer.ioTimeout << ' ' << transfer.totalTimeout << ' '
        << transfer.maxResponse << ' ' << transfer.verifyPeer << ' ' << bytesOf(transfer.trustFile) << ' '
        << static_cast<int>(transfer.minimumVersion) << ' ' << transfer.sendHost << ' ' << transfer.reuseTls << ' '
        << transfer.sendAll << ' ' << transfer.isQuiet << ' ' << settings.m_Documents.m_Bytes << ' '
        << settings.m_Documents.m_Levels << ' ' << bytesOf(settings.m_KeyPin) << ' ' << settings.m_MinKeyBits << ' '
        << settings.m_HasStrictKeys << ' ' << settings.m_HasStrictConfirm << ' ' << settings.m_HasStrictSignature << ' '
        << settings.m_HasStrictNames << ' ' << settings.m_SyncsFiles << ' ' << settings.m_KeyMode;
    return out.str();
}

KVX_Settings settingsIn(std::string const& text) {
    return kvxSettingsIn(text.c_str());
}

TEST(HardeningPage, ListsTheValuesOfTheProfile) {
    std::string const table = section("## PROFILE");
    std::regex const cell(R"(\| `([A-Z]+)` \| ([0-9.]+) (?=\|))");
    std::string attributes;
    int count = 0;
    for (auto at = std::sregex_iterator(table.begin(), table.end(), cell); at != std::sregex_iterator();
         ++at, ++count) {
        std::string const attribute = " " + (*at)[1].str() + "=\"" + (*at)[2].str() + "\"";
        EXPECT_NE(described(settingsIn("<KVX" + attribute + "/>")), described(KVX_Settings())) << attribute;
        attributes += attribute;
    }
    EXPECT_EQ(count, kValuesOfTheProfile);
    EXPECT_EQ(described(settingsIn("<KVX" + attributes + "/>")), described(kvxStrictSettings()));
}

TEST(HardeningPage, ShowsAWholeFile) {
    std::string const text = section("## A hardened file");
    std::string const fence = "```xml\n";
    std::size_t const begin = text.find(fence) + fence.size();
    KVX_Settings const settings = settingsIn(text.substr(begin, text.find("```", begin) - begin));

    KVX_Settings expected = kvxStrictSettings();
    expected.m_KeyPin = settings.m_KeyPin;
    expected.m_Transfer.sendHost = true;
    EXPECT_EQ(described(settings), described(expected));
    EXPECT_TRUE(std::regex_match(bytesOf(settings.m_KeyPin), std::regex("[0-9a-f]{64}")));
}

}  // namespace
