// How the four flat functions with text outputs copy them: sizes, buffers, failures.
//
// One table holds the four functions with a text each; every test runs all of them. Odd: only MessageObject_ToString
// has a code for missing memory, the others let the exception pass.

#include <climits>
#include <cstring>

#include "api/kvxboundary.h"
#include "foundation/tbexception.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/thinmemory.h"

using namespace kvxtest;

namespace {

/// The four functions, each with a text to copy.
class CopyOutTest : public testing::Test {
protected:
    struct Source {
        std::string m_Name;
        std::string m_Text;
        CopyOut m_Call;
    };

    CopyOutTest() {
        EXPECT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), m_Account.path().c_str()), KVX_OK);
        EXPECT_EQ(MessageFactory_CreateRequest(m_Factory.get(), "T", m_Message.out()), KVX_OK);
        EXPECT_EQ(MessageObject_SetAttribute(m_Message.get(), "A", "a & b"), KVX_OK);
        TbString url;
        static_cast<KVXCIMPL_MessageObject*>(m_Message.get())->GetURL(url);
        m_Sources = {
            {"ConfigurationSetup_GetAttribute", "server",
             [this](auto* size, auto* buffer) {
                 return ConfigurationSetup_GetAttribute(m_Setup.get(), "config.xml", "VTKEYID", size, buffer);
             }},
            {"MessageObject_GetAttribute", "a & b",
             [this](auto* size, auto* buffer) {
                 return MessageObject_GetAttribute(m_Message.get(), "A", size, buffer);
             }},
            {"MessageObject_GetURL", bytesOf(url),
             [this](auto* size, auto* buffer) { return MessageObject_GetURL(m_Message.get(), size, buffer); }},
            {"MessageObject_ToString", R"(<KVX MSGTYPE="T" KEYID="own" A="a &amp; b"/>)",
             [this](auto* size, auto* buffer) { return MessageObject_ToString(m_Message.get(), size, buffer); }},
        };
    }

    AccountDirectory m_Account;
    SetupHandle m_Setup;
    FactoryHandle m_Factory{m_Account.path()};
    MadeMessage m_Message;
    std::vector<Source> m_Sources;
};

TEST_F(CopyOutTest, AsksTwiceAsItShould) {
    for (Source const& source : m_Sources) {
        EXPECT_EQ(copiedOut(source.m_Call), source.m_Text) << source.m_Name;
    }
}

TEST_F(CopyOutTest, CopiesOnlyWhatFitsWholeAndAlwaysTellsTheNeed) {
    for (Source const& source : m_Sources) {
        auto const need = static_cast<std::int32_t>(source.m_Text.size()) + 1;
        struct Row {
            std::int32_t m_Size;
            bool m_Fits;
        };
        for (Row const row : {Row{INT_MIN, false}, Row{-1, false}, Row{0, false}, Row{1, false}, Row{need - 1, false},
                              Row{need, true}, Row{need + 1, true}, Row{INT_MAX, true}}) {
            std::string const what = source.m_Name + " with size " + std::to_string(row.m_Size);
            std::string buffer(source.m_Text.size() + 8, '#');
            std::int32_t size = row.m_Size;
            EXPECT_EQ(source.m_Call(&size, buffer.data()), row.m_Fits ? KVX_OK : KVX_E_BUFFER_TOO_SMALL) << what;
            EXPECT_EQ(size, need) << what;
            std::string const expected = row.m_Fits ? source.m_Text + std::string(1, '\0') + "#######"
                                                    : std::string(source.m_Text.size() + 8, '#');
            EXPECT_EQ(buffer, expected) << what;

            size = row.m_Size;
            EXPECT_EQ(source.m_Call(&size, nullptr), row.m_Fits ? KVX_OK : KVX_E_BUFFER_TOO_SMALL) << what;
            EXPECT_EQ(size, need) << what << " without a buffer";
        }
    }
}

TEST_F(CopyOutTest, WithoutASizeIsTooSmallAndWritesNothing) {
    for (Source const& source : m_Sources) {
        Outputs outputs;
        EXPECT_EQ(source.m_Call(nullptr, outputs.m_Buffer), KVX_E_BUFFER_TOO_SMALL) << source.m_Name;
        EXPECT_EQ(source.m_Call(nullptr, nullptr), KVX_E_BUFFER_TOO_SMALL) << source.m_Name;
        outputs.expectUntouched(source.m_Name);
    }
}

TEST_F(CopyOutTest, EndsAtTheFirstZeroByteOfTheText) {
    TbString const value = stringOf(std::string("ab\0cd", 5));
    auto& message = *static_cast<KVXCIMPL_MessageObject*>(m_Message.get());
    message.SetAttribute("A", value);
    TbString whole;
    message.GetAttribute("A", whole);
    ASSERT_EQ(bytesOf(whole), std::string("ab\0cd", 5));

    std::int32_t size = 3;
    char buffer[8] = "#######";
    EXPECT_EQ(MessageObject_GetAttribute(m_Message.get(), "A", &size, buffer), KVX_OK);
    EXPECT_EQ(size, 3);
    EXPECT_EQ(std::string(buffer, 7), std::string("ab\0####", 7));
    EXPECT_EQ(textOf(m_Message.get()), R"(<KVX MSGTYPE="T" KEYID="own" A="ab)");
}

TEST_F(CopyOutTest, CopiesAnEmptyTextAsItsTerminator) {
    ASSERT_EQ(MessageObject_SetAttribute(m_Message.get(), "A", ""), KVX_OK);
    std::int32_t size = 1;
    char buffer[2] = {'#', '#'};
    EXPECT_EQ(MessageObject_GetAttribute(m_Message.get(), "A", &size, buffer), KVX_OK);
    EXPECT_EQ(size, 1);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
    size = 0;
    EXPECT_EQ(MessageObject_GetAttribute(m_Message.get(), "A", &size, buffer), KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 1);
}

TEST_F(CopyOutTest, ReportsTheCallsOwnFailureBeforeAMissingSize) {
    EXPECT_EQ(ConfigurationSetup_GetAttribute(m_Setup.get(), "config.xml", "NONE", nullptr, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(MessageObject_GetAttribute(m_Message.get(), "NONE", nullptr, nullptr), KVX_E_NOT_FOUND);
    MessageHandle const empty;
    EXPECT_EQ(MessageObject_GetAttribute(empty.get(), "A", nullptr, nullptr), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_ToString(empty.get(), nullptr, nullptr), KVX_E_UNEXPECTED);
    EXPECT_EQ(MessageObject_GetURL(empty.get(), nullptr, nullptr), KVX_E_UNEXPECTED);
}

TEST_F(CopyOutTest, LeavesTheSizeAloneWhenTheCallFails) {
    for (std::int32_t const given : {-1, 0, 5, 1000}) {
        std::int32_t size = given;
        Outputs outputs;
        EXPECT_EQ(ConfigurationSetup_GetAttribute(m_Setup.get(), "config.xml", "NONE", &size, outputs.m_Buffer),
                  KVX_E_NOT_FOUND);
        EXPECT_EQ(MessageObject_GetAttribute(m_Message.get(), "NONE", &size, outputs.m_Buffer), KVX_E_NOT_FOUND);
        MessageHandle const empty;
        EXPECT_EQ(MessageObject_ToString(empty.get(), &size, outputs.m_Buffer), KVX_E_UNEXPECTED);
        EXPECT_EQ(MessageObject_GetURL(empty.get(), &size, outputs.m_Buffer), KVX_E_UNEXPECTED);
        EXPECT_EQ(size, given);
        outputs.expectUntouched("failing calls");
    }
}

TEST_F(CopyOutTest, KeepsABufferOfItsOwnInToString) {
    for (Source const& source : m_Sources) {
        long failures = 0;
        for (bool reached = true; reached;) {
            ASSERT_LT(failures, 10000) << source.m_Name;
            Outputs outputs;
            std::int32_t result = 0;
            {
                FailingAllocation const failing(failures, FailingAllocation::Mode::kOnlyThat);
                result = source.m_Call(&outputs.m_Size, outputs.m_Buffer);
                reached = FailingAllocation::requested() > failures;
            }
            if (reached) {
                EXPECT_EQ(result, KVX_E_OUT_OF_MEMORY) << source.m_Name;
                outputs.expectUntouched(source.m_Name);
                ++failures;
            }
        }
        EXPECT_GT(failures, 0) << source.m_Name;
        if (source.m_Name == "MessageObject_ToString") {
            KVXCIMPL_MessageObject& message = *static_cast<KVXCIMPL_MessageObject*>(m_Message.get());
            FailingAllocation const failing(failures - 1, FailingAllocation::Mode::kOnlyThat);
            EXPECT_NO_THROW((void)message.ToString()) << "the last allocation is the flat function's own";
        }
    }
}

TEST(CopyOut, TakesTheLongestTextWhoseNeedFitsItsSize) {
    std::int32_t size = 0;
    ThinText const longest(std::size_t{INT_MAX} - 1);
    if (longest.get() == nullptr) {
        GTEST_SKIP() << "no 2 GiB of addresses in one piece";
    }
    EXPECT_EQ(kvxCopyOut(longest.get(), &size, nullptr), KVX_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, INT_MAX);
    EXPECT_EQ(kvxCopyOut(longest.get(), &size, nullptr), KVX_OK);
}

TEST(CopyOut, RefusesATextWhoseNeedNoSizeCanTell) {
    ThinText const longer(INT_MAX);
    if (longer.get() == nullptr) {
        GTEST_SKIP() << "no 2 GiB of addresses in one piece";
    }
    Outputs outputs;
    EXPECT_EQ(kvxCopyOut(longer.get(), &outputs.m_Size, outputs.m_Buffer), KVX_E_OUT_OF_MEMORY);
    outputs.expectUntouched("a text of 2 GiB");
}

}  // namespace
