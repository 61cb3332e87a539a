// Result codes with their texts, the exception, the trace, and the exported look-up.
//
// One table repeats all texts in their order. Odd: the order decides which text a code finds; the position is named
// only while an environment variable is set.

#include "core/kvxbase.h"

#include <cstdlib>
#include <string>
#include <type_traits>

#include "core/kvxsource.h"
#include "tallowin/tallowin.h"
#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

/// Sets an environment variable, or removes it (null), and restores it at the end.
class Environment {
public:
    Environment(char const* name, char const* value) : m_Name(name) {
        if (char const* const before = std::getenv(name)) {
            m_Before = before;
            m_WasSet = true;
        }
        set(value);
    }
    Environment(Environment const&) = delete;
    Environment& operator=(Environment const&) = delete;
    ~Environment() { set(m_WasSet ? m_Before.c_str() : nullptr); }

    void set(char const* value) const {
        if (value == nullptr) {
            ::unsetenv(m_Name);
        } else {
            ::setenv(m_Name, value, 1);
        }
    }

private:
    char const* m_Name;
    std::string m_Before;
    bool m_WasSet = false;
};

struct Row {
    std::uint32_t m_Code;
    char const* m_Text;
};

// clang-format off
constexpr Row kTexts[] = {
    {0x80040201, "no context present"},
    {0x80040202, "file not found"},
    {0x80040203, "file I/O error"},
    {0x80040204, "invalid file format"},
    {0x80040205, "the buffer size is too small"},
    {0x80040206, "invalid URL"},
    {0x80040207, "invalid option"},
    {0x80040208, "request failed"},
    {0x80040209, "cryptographic error"},
    {0x8004020A, "no endpoint"},
    {0x8004020B, "invalid key blob"},
    {0x8004020C, "command failed"},
    {0x8004020D, "requested item was not found"},
    {0x8004020E, "no key identifier specified"},
    {0x8004020F, "no configuration found"},
    {0x80040210, "the requested key was not found"},
    {0x80040211, "unexpected error"},
    {0x80040212, "no default path was supplied"},
    {0x80040213, "the request failed"},
    {0x80040214, "invalid signature"},
    {0x8004021A, "missing signature"},
    {0x80070005, "access to URL resource denied"},
    {0x800C0005, "URL resource not found"},
    {0x800C0006, "URL resource not found"},
    {0x800C000C, "invalid URL request"},
    {0x8004303D, "connection refused"},
    {0x8004303C, "connection timeout"},
    {0x80043036, "connection reset"},
    {0x80043035, "connection aborted"},
    {0x80043033, "network not reachable"},
    {0x80042021, "DNS lookup failed"},
    {0x80042191, "access to URL resource denied"},
    {0x80042194, "URL resource not found"},
    {0x800421F7, "server temporarily unavailable"},
};

constexpr std::uint32_t kWithoutText[] = {
    0x80040216, 0x80040217, 0x80040218, 0x80040219, 0x80040281, 0x80040292, 0x80042019, 0x80042020, 0x80042022,
    0x80042023, 0x80040200, 0x80040215, 0x8004021B, 0x80042000, 0x80043000, 0x80044000, 0x80042197, 0x7FFFFFFF,
    0x80000000, 0xFFFFFFFF, 1,          2,          17,         0x40201,
};
// clang-format on

std::string textOf(long code, char const* detail = "", char const* file = "kvxctx", long line = 412) {
    return bytesOf(KVX_Exception(code, detail, file, line).text());
}

TEST(ErrorTable, HoldsThe34TextsInTheirOrder) {
    std::size_t index = 0;
    for (Row const& row : kTexts) {
        EXPECT_EQ(static_cast<std::uint32_t>(ErrorTable[index].m_Code), row.m_Code) << index;
        EXPECT_STREQ(ErrorTable[index].m_Text, row.m_Text) << index;
        ++index;
    }
    EXPECT_EQ(index, 34U);
    EXPECT_EQ(ErrorTable[index].m_Code, 0);
}

TEST(GetErrorStringFromResult, FindsEveryText) {
    for (Row const& row : kTexts) {
        TbString text("before");
        EXPECT_TRUE(KVX_ErrorLookup::GetErrorStringFromResult(static_cast<std::int32_t>(row.m_Code), text));
        EXPECT_EQ(bytesOf(text), row.m_Text) << std::hex << row.m_Code;
    }
}

TEST(GetErrorStringFromResult, LeavesTheTextAloneForAnUnknownCode) {
    for (std::uint32_t const code : kWithoutText) {
        TbString text("before");
        EXPECT_FALSE(KVX_ErrorLookup::GetErrorStringFromResult(static_cast<std::int32_t>(code), text));
        EXPECT_EQ(bytesOf(text), "before") << std::hex << code;
    }
}

TEST(GetErrorStringFromResult, NeverFindsSuccess) {
    TbString text("before");
    EXPECT_FALSE(KVX_ErrorLookup::GetErrorStringFromResult(0, text));
    EXPECT_EQ(bytesOf(text), "before");
}

TEST(GetErrorStringFromResult, TakesCodesWithAndWithoutSign) {
    for (Row const& row : kTexts) {
        TbString text;
        EXPECT_TRUE(KVX_ErrorLookup::GetErrorStringFromResult(static_cast<long>(row.m_Code), text)) << row.m_Text;
        EXPECT_EQ(bytesOf(text), row.m_Text);
    }
}

TEST(GetErrorStringFromResult, SharesSomeTextsAndKeepsTwoApart) {
    auto const text = [](std::uint32_t code) {
        TbString found;
        KVX_ErrorLookup::GetErrorStringFromResult(static_cast<std::int32_t>(code), found);
        return bytesOf(found);
    };
    EXPECT_EQ(text(0x800C0006), text(0x80042194));
    EXPECT_EQ(text(0x800C0005), text(0x80042194));
    EXPECT_EQ(text(0x80070005), text(0x80042191));
    EXPECT_NE(text(0x80040208), text(0x80040213));
}

TEST(UseExtendedErrorInfo, IsTrueWheneverTheVariableIsSetAndAsksEachTime) {
    Environment const variable("KVXDEBUG", nullptr);
    EXPECT_FALSE(KVX_ErrorLookup::UseExtendedErrorInfo());
    for (char const* value : {"1", "", "0", "no"}) {
        variable.set(value);
        EXPECT_TRUE(KVX_ErrorLookup::UseExtendedErrorInfo()) << value;
    }
    variable.set(nullptr);
    EXPECT_FALSE(KVX_ErrorLookup::UseExtendedErrorInfo());
}

TEST(Exception, HasTheTextOfItsCodeAndTheDetailInParentheses) {
    Environment const variable("KVXDEBUG", nullptr);
    EXPECT_EQ(textOf(KVX_E_FILE_NOT_FOUND, "D"), "file not found (D)");
    EXPECT_EQ(textOf(KVX_E_FILE_NOT_FOUND), "file not found");
    EXPECT_EQ(textOf(KVX_E_HTTP_STATE), "ErrorCode = 0x80042023");
    EXPECT_EQ(textOf(KVX_E_HTTP_STATE, "D"), "ErrorCode = 0x80042023 (D)");
    EXPECT_EQ(textOf(36, "why"), "ErrorCode = 0x24 (why)");
    EXPECT_EQ(textOf(0), "ErrorCode = 0x0");
}

TEST(Exception, NamesEveryCodeWithoutTextInHexadecimal) {
    Environment const variable("KVXDEBUG", nullptr);
    for (std::uint32_t const code : kWithoutText) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "ErrorCode = 0x%x", code);
        EXPECT_EQ(textOf(static_cast<std::int32_t>(code)), expected);
        EXPECT_EQ(textOf(static_cast<long>(code)), expected);
    }
}

TEST(Exception, NeverNamesItsPositionWithoutTheVariable) {
    Environment const variable("KVXDEBUG", nullptr);
    for (Row const& row : kTexts) {
        EXPECT_EQ(textOf(static_cast<std::int32_t>(row.m_Code)), row.m_Text);
    }
}

TEST(Exception, BeginsWithItsPositionWhenTheVariableIsSet) {
    for (char const* value : {"1", ""}) {
        Environment const variable("KVXDEBUG", value);
        EXPECT_EQ(textOf(KVX_E_FILE_NOT_FOUND, "D"), "kvxctx(412) : error 80040202 : file not found (D)");
        EXPECT_EQ(textOf(KVX_E_FILE_NOT_FOUND), "kvxctx(412) : error 80040202 : file not found");
        EXPECT_EQ(textOf(KVX_E_HTTP_STATE, "", "kvxhttp", 7), "kvxhttp(7) : error 80042023 : ErrorCode = 0x80042023");
        EXPECT_EQ(textOf(2, "D", "kvxbase", 55), "kvxbase(55) : error 2 : ErrorCode = 0x2 (D)");
    }
}

TEST(Exception, TakesCodesWithAndWithoutSign) {
    for (long const code : {static_cast<long>(0x80040202UL), static_cast<long>(KVX_E_FILE_NOT_FOUND)}) {
        KVX_Exception const failure(code, "", "kvxctx", 1);
        EXPECT_EQ(failure.code(), KVX_E_FILE_NOT_FOUND);
        EXPECT_EQ(bytesOf(failure.text()), "file not found");
    }
}

TEST(Exception, TakesForeignTextAsItIs) {
    Environment const variable("KVXDEBUG", nullptr);
    std::string const foreign = "%s%n%08x (" + std::string(100000, 'x') + ")";
    EXPECT_EQ(textOf(KVX_E_SERVER_ERROR, foreign.c_str()), "the request failed (" + foreign + ")");
    std::string const zero("a\0b", 3);
    EXPECT_EQ(bytesOf(KVX_Exception(1, stringOf(zero), "f", 1).text()), "ErrorCode = 0x1 (" + zero + ")");
}

TEST(Exception, CopiesAllFourMembers) {
    std::string const before = textOf(KVX_E_NO_CONTEXT, "detail", "kvxctx", 71);
    auto* const original = new KVX_Exception(KVX_E_NO_CONTEXT, "detail", "kvxctx", 71);
    KVX_Exception const copy(*original);
    KVX_Exception assigned(1, "", "x", 1);
    assigned = *original;
    delete original;
    for (KVX_Exception const* failure : {&copy, static_cast<KVX_Exception const*>(&assigned)}) {
        EXPECT_EQ(failure->code(), KVX_E_NO_CONTEXT);
        EXPECT_EQ(bytesOf(failure->text()), before);
        EXPECT_EQ(bytesOf(failure->file()), "kvxctx");
        EXPECT_EQ(failure->line(), 71);
    }
}

TEST(Exception, HasNoVirtualOperation) {
    EXPECT_FALSE(std::is_polymorphic_v<KVX_Exception>);
}

TEST(Exception, WritesOneTraceRecordAndNoneWhenCopied) {
    Environment const variable("KVXDEBUG", nullptr);
    TraceRecorder const recorder;
    KVX_Exception const failure(static_cast<long>(0x80040203UL), "disk", "kvxctx", 212);
    KVX_Exception const copy(failure);
    EXPECT_EQ(copy.line(), 212);
    EXPECT_EQ(linesOf(recorder.records()),
              std::vector<std::string>{"kvxctx:212:80040203:EXCEPTION:file I/O error (disk)"});
}

TEST(Exception, TracesItsTextWithThePrefix) {
    Environment const variable("KVXDEBUG", "");
    TraceRecorder const recorder;
    KVX_Exception const failure(KVX_E_FILE_IO, "", "kvxctx", 212);
    EXPECT_EQ(failure.code(), KVX_E_FILE_IO);
    EXPECT_EQ(linesOf(recorder.records()),
              std::vector<std::string>{"kvxctx:212:80040203:EXCEPTION:kvxctx(212) : error 80040203 : file I/O error"});
}

TEST(Source, FailsAndTracesUnderItsName) {
    for (char const* name : {"kvxbase", "another"}) {
        KvxSource const source(name);
        TraceRecorder const recorder;
        Thrown const failure = thrown([&] { source.fail(KVX_E_NOT_FOUND, 7, "detail"); });
        EXPECT_EQ(failure.m_Code, KVX_E_NOT_FOUND);
        EXPECT_EQ(failure.m_File, name);
        EXPECT_EQ(failure.m_Line, 7);
        source.trace(8, "EVENT", "more");
        ASSERT_EQ(recorder.records().size(), 2U);
        EXPECT_EQ(recorder.records()[1].m_Detail, "more");
    }
}

TEST(TraceLog, WritesNothingAnywhereWithoutASink) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    KVX_TraceLog::Write("kvxctx", 23, 0, "OPEN CONTEXT", "detail");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ExportedLookup, CopiesAsMuchAsFitsAndTellsTheNeed) {
    struct Case {
        std::int32_t m_Size;
        char const* m_Expected;  // the buffer afterwards; '?' is untouched
    };
    // "invalid URL" needs 12 bytes.
    Case const cases[] = {
        {100, "invalid URL"},
        {13, "invalid URL"},
        {12, "invalid URL"},
        {11, "invalid UR"},
        {2, "i"},
        {1, ""},
        {0, "???????????????"},
        {-1, "???????????????"},
        {INT32_MIN, "???????????????"},
    };
    for (Case const& row : cases) {
        char buffer[16] = "???????????????";
        std::int32_t size = row.m_Size;
        EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_URL, &size, buffer), 1) << row.m_Size;
        EXPECT_EQ(size, 12) << row.m_Size;
        EXPECT_STREQ(buffer, row.m_Expected) << row.m_Size;
    }
}

TEST(ExportedLookup, TellsTheNeedWithoutABuffer) {
    std::int32_t size = 100;
    EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_URL, &size, nullptr), 1);
    EXPECT_EQ(size, 12);
}

TEST(ExportedLookup, KeepsAnsweringANullSizeLikeAnUnknownCode) {
    char buffer[4] = "abc";
    EXPECT_EQ(KVX_GetErrorStringFromResult(KVX_E_INVALID_URL, nullptr, buffer), 0);
    EXPECT_STREQ(buffer, "abc");
}

TEST(ExportedLookup, TouchesNothingForAnUnknownCode) {
    for (std::int32_t const code : {KVX_OK, KVX_E_BAD_HANDLE, std::int32_t{2}}) {
        char buffer[4] = "abc";
        std::int32_t size = 4;
        EXPECT_EQ(KVX_GetErrorStringFromResult(code, &size, buffer), 0);
        EXPECT_EQ(size, 4);
        EXPECT_STREQ(buffer, "abc");
    }
}

}  // namespace
