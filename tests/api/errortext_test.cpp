// KVX_GetErrorStringFromResult, KVX_GetErrorName and KVX_GetVersion.
//
// Sizes and buffers follow the rule of all text outputs; the texts themselves are tested in the core.

#include <cerrno>
#include <climits>
#include <cstring>

#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"

using namespace kvxtest;

namespace {

constexpr char kText[] = "invalid signature";
constexpr std::int32_t kNeed = sizeof kText;

struct Copied {
    std::int32_t m_Size;
    char const* m_Expected;  ///< Null: nothing is written.
};

TEST(ErrorText, CopiesAsMuchAsFitsAndTellsTheNeed) {
    Copied const rows[] = {
        {INT_MIN, nullptr},
        {-2, nullptr},
        {-1, nullptr},
        {0, nullptr},
        {1, ""},
        {2, "i"},
        {kNeed - 1, "invalid signatur"},
        {kNeed, kText},
        {kNeed + 1, kText},
        {INT_MAX, kText},
    };
    for (Copied const& row : rows) {
        Outputs outputs;
        std::int32_t size = row.m_Size;
        EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &size, outputs.m_Buffer), 1) << row.m_Size;
        EXPECT_EQ(size, kNeed) << row.m_Size;
        if (row.m_Expected == nullptr) {
            outputs.expectUntouched("size " + std::to_string(row.m_Size));
        } else {
            EXPECT_STREQ(outputs.m_Buffer, row.m_Expected) << row.m_Size;
            EXPECT_EQ(outputs.m_Buffer[std::strlen(row.m_Expected) + 1], Outputs::kByteMark) << row.m_Size;
        }
    }
}

TEST(ErrorText, TellsTheNeedWithoutABuffer) {
    for (std::int32_t const given : {INT_MIN, -1, 0, 1, kNeed - 1, kNeed, kNeed + 1, INT_MAX}) {
        std::int32_t size = given;
        EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &size, nullptr), 1) << given;
        EXPECT_EQ(size, kNeed) << given;
    }
}

TEST(ErrorText, KeepsAnsweringANullSizeLikeAnUnknownCode) {
    Outputs outputs;
    EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, nullptr, outputs.m_Buffer), 0);
    EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, nullptr, nullptr), 0);
    outputs.expectUntouched("null size");
}

TEST(ErrorText, OfACodeWithoutOneTouchesNothing) {
    for (std::int32_t const code :
         {0, 1, 2, -1, INT_MIN, INT_MAX, KVX_E_BAD_HANDLE, KVX_E_OUT_OF_MEMORY, KVX_E_NO_MESSAGE_TYPE,
          KVX_E_CANNOT_OPEN, KVX_E_OUT_OF_RANGE, KVX_E_DUPLICATE_KEY, KVX_E_HTTP_BAD_URL, KVX_E_HTTP_UNKNOWN_SCHEME,
          KVX_E_HTTP_BAD_REPLY, KVX_E_HTTP_STATE, KVX_E_HTTP_FAMILY, KVX_E_SOCKET_FAMILY, KVX_E_TLS_FAMILY}) {
        Outputs outputs;
        EXPECT_EQ(KVX_GetErrorStringFromResult(code, &outputs.m_Size, outputs.m_Buffer), 0) << code;
        EXPECT_EQ(KVX_GetErrorStringFromResult(code, nullptr, nullptr), 0) << code;
        outputs.expectUntouched("code " + std::to_string(code));
    }
}

TEST(ErrorText, OfEveryRowIsCopiedWhole) {
    int rows = 0;
    for (KVX_ErrorRow const* row = ErrorTable; row->m_Code != 0; ++row, ++rows) {
        std::int32_t size = 0;
        ASSERT_EQ(KVX_GetErrorStringFromResult(row->m_Code, &size, nullptr), 1) << row->m_Text;
        ASSERT_EQ(size, static_cast<std::int32_t>(std::strlen(row->m_Text)) + 1);
        std::string text(static_cast<std::size_t>(size), '#');
        EXPECT_EQ(KVX_GetErrorStringFromResult(row->m_Code, &size, text.data()), 1);
        EXPECT_STREQ(text.c_str(), row->m_Text);
    }
    EXPECT_EQ(rows, 34);
}

TEST(ErrorText, IsTheSameForTwoCodesOfOneMeaning) {
    auto const text = [](std::int32_t code) {
        char buffer[64] = {};
        std::int32_t size = sizeof buffer;
        EXPECT_EQ(KVX_GetErrorStringFromResult(code, &size, buffer), 1);
        return std::string(buffer);
    };
    EXPECT_EQ(text(KVX_E_URL_DATA_NOT_FOUND), text(KVX_E_HTTP_NOT_FOUND));
    EXPECT_EQ(text(KVX_E_WRONG_RESPONSE), "request failed");
    EXPECT_EQ(text(KVX_E_SERVER_ERROR), "the request failed");
}

TEST(ErrorName, IsThatOfTheConstant) {
    struct Row {
        std::int32_t m_Code;
        char const* m_Name;
    };
    Row const rows[] = {
        {KVX_OK, "KVX_OK"},
        {KVX_E_NO_CONTEXT, "KVX_E_NO_CONTEXT"},
        {KVX_E_BAD_HANDLE, "KVX_E_BAD_HANDLE"},  // a code without a text
        {KVX_E_DUPLICATE_KEY, "KVX_E_DUPLICATE_KEY"},
        {KVX_E_URL_INVALID_REQUEST, "KVX_E_URL_INVALID_REQUEST"},
        {KVX_E_HTTP_UNAVAILABLE, "KVX_E_HTTP_UNAVAILABLE"},
        {KVX_E_HTTP_BAD_URL, "KVX_E_HTTP_BAD_URL"},
        {KVX_E_SOCKET_REFUSED, "KVX_E_SOCKET_REFUSED"},
        {KVX_E_TLS_FAMILY, "KVX_E_TLS_FAMILY"},
        // Numbers inside the families.
        {KVX_E_HTTP_FAMILY | 407, "KVX_E_HTTP_FAMILY"},
        {KVX_E_HTTP_FAMILY | 0xFFF, "KVX_E_HTTP_FAMILY"},
        {KVX_E_SOCKET_FAMILY | 1, "KVX_E_SOCKET_FAMILY"},
        {KVX_E_TLS_FAMILY | 0x10B, "KVX_E_TLS_FAMILY"},
        // The system's own, where a directory cannot be created.
        {ENOENT, "ENOENT"},
        {EEXIST, "EEXIST"},
        {ENOTDIR, "ENOTDIR"},
        {EACCES, "EACCES"},
        {EROFS, "EROFS"},
        {EDQUOT, "EDQUOT"},
        // Errors that no page lists have one too.
        {EAGAIN, "EAGAIN"},
        {EHWPOISON, "EHWPOISON"},
        // No result codes.
        {-1, ""},
        {INT_MIN, ""},
        {INT_MAX, ""},
        {KVX_E_TLS_FAMILY + 0x1000, ""},
        {KVX_E_NO_CONTEXT - 1, ""},
        {4095, ""},
    };
    for (Row const& row : rows) {
        EXPECT_STREQ(KVX_GetErrorName(row.m_Code), row.m_Name) << row.m_Code;
    }
}

TEST(ErrorName, EveryCodeWithATextHasOne) {
    for (KVX_ErrorRow const* row = ErrorTable; row->m_Code != 0; ++row) {
        EXPECT_EQ(std::string(KVX_GetErrorName(row->m_Code)).rfind("KVX_E_", 0), 0U) << row->m_Text;
    }
}

TEST(ErrorName, NeedsNoMemory) {
    FailingAllocation const none(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_STREQ(KVX_GetErrorName(KVX_E_OUT_OF_MEMORY), "KVX_E_OUT_OF_MEMORY");
    EXPECT_STREQ(KVX_GetErrorName(KVX_E_TLS_FAMILY | 1), "KVX_E_TLS_FAMILY");
}

TEST(Version, OfTheLibraryIsThatOfTheHeaders) {
    EXPECT_STREQ(KVX_GetVersion(), TALLOWIN_VERSION_STRING);
    EXPECT_EQ(std::string(KVX_GetVersion()), std::to_string(TALLOWIN_VERSION_MAJOR) + "." +
                                                 std::to_string(TALLOWIN_VERSION_MINOR) + "." +
                                                 std::to_string(TALLOWIN_VERSION_PATCH));
}

}  // namespace
