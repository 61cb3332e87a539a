// The catalogue of result codes: what programs find in tools/errortable.h, the library's own tables, and
// docs/errors.md.

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "core/kvxbase.h"
#include "tallowin/tallowin.h"
#include "tests/support/directories.h"
#include "tools/errortable.h"

using namespace kvxtest;

namespace {

std::string textOf(std::int32_t code) {
    char text[128] = {};
    std::int32_t size = sizeof text;
    return KVX_GetErrorStringFromResult(code, &size, text) == 1 ? text : "";
}

std::string hexadecimal(std::int32_t code) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "0x%08X", static_cast<std::uint32_t>(code));
    return digits;
}

TEST(ErrorCatalogue, AgreesWithTheLibraryInNamesAndTexts) {
    int texts = 0;
    for (errortable::Row const& row : errortable::kCodes) {
        EXPECT_STREQ(KVX_GetErrorName(row.m_Code), row.m_Name);
        EXPECT_EQ(textOf(row.m_Code), row.m_Text == nullptr ? "" : row.m_Text) << row.m_Name;
        texts += row.m_Text != nullptr ? 1 : 0;
    }
    EXPECT_EQ(texts, 34);
    for (errortable::Row const& row : errortable::kFamilies) {
        EXPECT_STREQ(KVX_GetErrorName(row.m_Code), row.m_Name);
        EXPECT_STREQ(KVX_GetErrorName(row.m_Code | 0xFFE), row.m_Name);
        EXPECT_EQ(textOf(row.m_Code), "") << row.m_Name;
    }
}

TEST(ErrorCatalogue, GivesAdviceForEveryCode) {
    std::set<std::int32_t> seen;
    auto const expectWhole = [&](errortable::Row const& row) {
        EXPECT_TRUE(seen.insert(row.m_Code).second) << row.m_Name;
        for (char const* part : {row.m_Meaning, row.m_Retry, row.m_Money, row.m_Action}) {
            ASSERT_NE(part, nullptr) << row.m_Name;
            EXPECT_EQ(std::string(part).back(), '.') << row.m_Name << ": " << part;
        }
    };
    for (errortable::Row const& row : errortable::kCodes) {
        expectWhole(row);
    }
    for (errortable::Row const& row : errortable::kFamilies) {
        expectWhole(row);
    }
}

TEST(ErrorCatalogue, FindsCodesThenFamiliesThenErrnos) {
    using errortable::find;
    EXPECT_STREQ(find(KVX_E_SERVER_ERROR)->m_Text, "the request failed");
    EXPECT_STREQ(find(KVX_E_HTTP_FAMILY | 407)->m_Label, "Proxy Authentication Required");
    EXPECT_STREQ(find(KVX_E_TLS_FAMILY | 0x10B)->m_Label, "wrong version number");
    EXPECT_EQ(find(KVX_E_TLS_FAMILY | 0x7FF)->m_Code, KVX_E_TLS_FAMILY);
    EXPECT_EQ(find(KVX_E_SOCKET_FAMILY | 2)->m_Code, KVX_E_SOCKET_FAMILY);
    EXPECT_STREQ(find(2)->m_Name, "ENOENT");
    EXPECT_EQ(find(4000), &errortable::kSystemError);
    EXPECT_EQ(find(4096), nullptr);
    EXPECT_EQ(find(-1), nullptr);
}

TEST(ErrorsPage, HasEveryCodeAndItsText) {
    std::string const page = contentOf(KVX_DOCS_DIR "/errors.md");
    for (errortable::Row const& row : errortable::kCodes) {
        std::string const number = row.m_Code >= 0 ? std::to_string(row.m_Code) : hexadecimal(row.m_Code);
        EXPECT_NE(page.find("| " + number), std::string::npos) << row.m_Name;
        EXPECT_NE(page.find(row.m_Name), std::string::npos) << row.m_Name;
        if (row.m_Text != nullptr) {
            EXPECT_NE(page.find("\"" + std::string(row.m_Text) + "\" |"), std::string::npos) << row.m_Name;
        }
    }
}

}  // namespace
