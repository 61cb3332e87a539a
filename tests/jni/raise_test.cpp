// How failures become Java exceptions.
//
// `Raise` covers kvxRaise: the exception's content, a pending exception, missing memory, an unsuitable exception class.
// `Attempt` and `Report` cover C++ exceptions on their way into a `KvxOutcome` and out of it. `JavaText` covers strings
// in both directions, `HandleNumber` the conversion of addresses.

#include <gtest/gtest.h>

#include <exception>
#include <new>
#include <stdexcept>

#include "foundation/tbexception.h"
#include "jni/kvxjni.h"
#include "tests/jni/fakejvm.h"
#include "tests/jni/nativerows.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

KvxOutcome outcomeOf(std::function<void()> const& call) {
    KvxOutcome outcome;
    kvxAttempt(outcome, call);
    return outcome;
}

/// The message after the prefix of the exception that reports `outcome`.
std::string reasonOf(KvxOutcome const& outcome) {
    FakeJvm jvm;
    EXPECT_FALSE(kvxReport(jvm.env(), KvxNative::kMessageOpen, outcome));
    std::string const prefix = "MessageFactory::Open(): ";
    EXPECT_EQ(jvm.pendingText().substr(0, prefix.size()), prefix);
    EXPECT_EQ(jvm.pendingCode(), outcome.m_Code);
    return jvm.pendingText().substr(prefix.size());
}

}  // namespace

TEST(Raise, ThrowsCodeAndText) {
    for (std::int32_t const code : {KVX_E_UNEXPECTED, KVX_E_NOT_FOUND, 0, 2, -1, INT32_MIN, INT32_MAX}) {
        FakeJvm jvm;
        kvxRaise(jvm.env(), code, "prefix: ", "message");
        expectRaised(jvm, {}, code, "prefix: message");
    }
}

TEST(Raise, ReplacesAPendingException) {
    FakeJvm jvm;
    jvm.makePending("java/lang/NoSuchFieldError");
    kvxRaise(jvm.env(), KVX_E_NOT_FOUND, "prefix: ", "");
    expectRaised(jvm, {}, KVX_E_NOT_FOUND, "prefix: ");
}

TEST(Raise, TakesAnyEncodingAndLength) {
    std::string const many(100000, '\xe9');
    std::string expected = "p: ";
    for (std::size_t i = 0; i < many.size(); ++i) {
        expected += "\xc3\xa9";
    }
    FakeJvm jvm;
    kvxRaise(jvm.env(), KVX_E_NOT_FOUND, "p: ", many.c_str());
    expectRaised(jvm, {}, KVX_E_NOT_FOUND, expected);
}

TEST(Raise, ThrowsTheCodeWithoutMemoryForTheText) {
    FakeJvm jvm;
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        kvxRaise(jvm.env(), KVX_E_NOT_FOUND, "prefix: ", "message");
        EXPECT_GT(FailingAllocation::requested(), 0);
    }
    expectRaised(jvm, {}, KVX_E_NOT_FOUND, "prefix: ");
}

TEST(Raise, EndsTheVirtualMachineWithoutTheClassOrAMethod) {
    FakeJvm without;
    without.removeExceptionClass();
    without.makePending("java/lang/NoSuchFieldError");
    kvxRaise(without.env(), KVX_E_NOT_FOUND, "", "");
    EXPECT_EQ(without.fatalErrors(), std::vector<std::string>{"Class kelvane/tallowin/KVXException not found"});
    for (char const* const method : {"<init>", "putHR", "putErrorMessage"}) {
        FakeJvm lacking;
        lacking.removeExceptionMethod(method);
        kvxRaise(lacking.env(), KVX_E_NOT_FOUND, "", "");
        EXPECT_EQ(lacking.fatalErrors(), std::vector<std::string>{"Incompatible class kelvane/tallowin/KVXException"});
    }
}

TEST(Raise, EndsTheVirtualMachineWhenTheClassCannotBeThrown) {
    FakeJvm jvm;
    jvm.makeExceptionClassUnthrowable();
    kvxRaise(jvm.env(), KVX_E_CRYPTO, "A(): ", "b");
    EXPECT_EQ(jvm.fatalErrors(), std::vector<std::string>{"Incompatible class kelvane/tallowin/KVXException"});
    EXPECT_EQ(jvm.pendingClass(), "");
}

// A class that cannot be looked up for lack of memory does not count as missing.
TEST(Raise, LeavesAPendingVirtualMachineError) {
    for (int call = 0; call < 4; ++call) {
        FakeJvm jvm;
        jvm.failCall(call, FakeJvm::Failure::kWithException);
        kvxRaise(jvm.env(), KVX_E_CRYPTO, "A(): ", "b");
        EXPECT_EQ(jvm.failedFunction(), call == 0 ? "FindClass" : "GetMethodID");
        EXPECT_EQ(jvm.pendingClass(), "java/lang/OutOfMemoryError");
        EXPECT_TRUE(jvm.fatalErrors().empty());
    }
}

// Nothing can be said about the pending exception when the class to compare it with cannot be looked up.
TEST(Raise, LeavesWhatIsPendingWhenItsKindCannotBeFound) {
    FakeJvm jvm;
    jvm.removeExceptionClass();
    jvm.failCall(1, FakeJvm::Failure::kWithException);
    kvxRaise(jvm.env(), KVX_E_CRYPTO, "A(): ", "b");
    EXPECT_EQ(jvm.failedFunction(), "FindClass");
    EXPECT_EQ(jvm.pendingClass(), "java/lang/NoClassDefFoundError");
    EXPECT_TRUE(jvm.fatalErrors().empty());
}

TEST(Raise, LeavesTheErrorOfTheLookupOfTheLastResort) {
    FakeJvm jvm;
    jvm.removeClass("java/lang/OutOfMemoryError");
    jvm.failCall(5, FakeJvm::Failure::kWithoutException);
    kvxRaise(jvm.env(), KVX_E_CRYPTO, "A(): ", "b");
    EXPECT_EQ(jvm.failedFunction(), "NewObject");
    EXPECT_EQ(jvm.pendingClass(), "java/lang/NoClassDefFoundError");
}

TEST(JavaText, IsRefusedWhenItIsTooLongForTheVirtualMachine) {
    FakeJvm jvm;
    EXPECT_EQ(thrownCode([&] { static_cast<void>(kvxTextOf(jvm.env(), jvm.newStringOfLength(0x7FFFFFFF / 3 + 1))); }),
              KVX_E_OUT_OF_MEMORY);
}

TEST(Raise, IsUsedByRefuseWithTheHandlePrefix) {
    for (NativeRow const& row : nativeRows()) {
        FakeJvm jvm;
        EXPECT_FALSE(kvxRefuse(jvm.env(), row.m_Native, "reason"));
        expectRaised(jvm, {}, KVX_E_UNEXPECTED, std::string(row.m_HandlePrefix) + "reason");
    }
}

TEST(Attempt, SucceedsWhenNothingIsThrown) {
    KvxOutcome const outcome = outcomeOf([] {});
    EXPECT_TRUE(outcome.m_Succeeded);
    FakeJvm jvm;
    EXPECT_TRUE(kvxReport(jvm.env(), KvxNative::kMessageOpen, outcome));
    expectFine(jvm);
}

TEST(Attempt, KeepsTheCodeAndTextOfTheCoresException) {
    KvxOutcome const outcome = outcomeOf([] { throw KVX_Exception(KVX_E_NOT_FOUND, "detail", "kvxctx", 1); });
    EXPECT_FALSE(outcome.m_Succeeded);
    EXPECT_EQ(outcome.m_Code, KVX_E_NOT_FOUND);
    EXPECT_EQ(reasonOf(outcome), "requested item was not found (detail)");
}

TEST(Attempt, KeepsTheCoresCodeWithoutMemoryForItsText) {
    auto const thrown = std::make_exception_ptr(KVX_Exception(KVX_E_NOT_FOUND, "detail", "kvxctx", 1));
    KvxOutcome outcome;
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        kvxAttempt(outcome, [&] { std::rethrow_exception(thrown); });
        EXPECT_GT(FailingAllocation::requested(), 0);
    }
    EXPECT_FALSE(outcome.m_Succeeded);
    EXPECT_EQ(outcome.m_Code, KVX_E_NOT_FOUND);
    EXPECT_EQ(reasonOf(outcome), "out of memory");
}

TEST(Attempt, GivesEveryOtherExceptionACode) {
    struct Row {
        std::function<void()> m_Call;
        std::int32_t m_Code;
        char const* m_Reason;
    };
    for (Row const& row : {
             Row{[] { throw TBFC_Exception(KVX_E_OUT_OF_MEMORY); }, KVX_E_OUT_OF_MEMORY, "out of memory"},
             Row{[] { throw TBFC_Exception(KVX_E_OUT_OF_RANGE); }, KVX_E_OUT_OF_RANGE, "unexpected error"},
             Row{[] { throw TBFC_Exception(KVX_E_DUPLICATE_KEY); }, KVX_E_DUPLICATE_KEY, "unexpected error"},
             Row{[] { throw std::bad_alloc(); }, KVX_E_OUT_OF_MEMORY, "out of memory"},
             Row{[] { throw std::bad_array_new_length(); }, KVX_E_OUT_OF_MEMORY, "out of memory"},
             Row{[] { throw std::length_error("x"); }, KVX_E_UNEXPECTED, "unexpected error"},
             Row{[] { throw 7; }, KVX_E_UNEXPECTED, "unexpected error"},
         }) {
        KvxOutcome const outcome = outcomeOf(row.m_Call);
        EXPECT_FALSE(outcome.m_Succeeded);
        EXPECT_FALSE(outcome.m_Pending);
        EXPECT_EQ(outcome.m_Code, row.m_Code);
        EXPECT_EQ(reasonOf(outcome), row.m_Reason);
    }
}

TEST(Report, LeavesAPendingJavaException) {
    KvxOutcome const outcome = outcomeOf([] { throw KvxPendingException{}; });
    EXPECT_TRUE(outcome.m_Pending);
    FakeJvm jvm;
    jvm.makePending("java/lang/OutOfMemoryError");
    EXPECT_FALSE(kvxReport(jvm.env(), KvxNative::kMessageOpen, outcome));
    EXPECT_EQ(jvm.pendingClass(), "java/lang/OutOfMemoryError");
}

TEST(Report, RaisesOneWhenJavaDidNot) {
    FakeJvm jvm;
    EXPECT_FALSE(kvxReport(jvm.env(), KvxNative::kMessageOpen, outcomeOf([] { throw KvxPendingException{}; })));
    expectRaised(jvm, {}, KVX_E_OUT_OF_MEMORY, "MessageFactory::Open(): out of memory");
}

TEST(JavaText, IsReadByteForByte) {
    FakeJvm jvm;
    for (std::string const text : {"", "a", "caf\xc3\xa9", "\xc0\x80", "\xed\xa0\xbd\xed\xb8\x80"}) {
        EXPECT_EQ(bytesOf(kvxTextOf(jvm.env(), jvm.newString(text))), text);
    }
    EXPECT_EQ(bytesOf(kvxTextOf(jvm.env(), nullptr)), "");
}

TEST(JavaText, IsLeftAsItIsWhereTheVirtualMachineHandsOutItsOwnCharacters) {
    FakeJvm jvm;
    jvm.handOutNoCopies();
    EXPECT_EQ(bytesOf(kvxTextOf(jvm.env(), jvm.newString("S3cret"))), "S3cret");
}

TEST(JavaText, ReleasesItsCharactersWhenMemoryIsExhausted) {
    FakeJvm jvm;
    jstring const text = jvm.newString("text");
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_EQ(thrownCode([&] { (void)kvxTextOf(jvm.env(), text); }), KVX_E_OUT_OF_MEMORY);
}

TEST(JavaText, IsMadeOfAnyText) {
    FakeJvm jvm;
    jstring const made = kvxNewString(jvm.env(), KvxNative::kMessageToString, TbString("caf\xe9"));
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(jvm.textOf(made), "caf\xc3\xa9");
    jstring const empty = kvxNewString(jvm.env(), KvxNative::kMessageToString, TbString());
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(jvm.textOf(empty), "");
    expectFine(jvm);
}

TEST(JavaText, IsNotMadeWithoutMemory) {
    FakeJvm jvm;
    TbString const text("text");
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_EQ(kvxNewString(jvm.env(), KvxNative::kMessageToString, text), nullptr);
    EXPECT_EQ(jvm.pendingClass(), kExceptionClass);
    EXPECT_EQ(jvm.pendingCode(), KVX_E_OUT_OF_MEMORY);
}

TEST(HandleNumber, IsTheAddressInThirtyTwoBits) {
    auto const numberOf = [](std::uintptr_t address) { return kvxHandleOf(reinterpret_cast<KVX_HANDLE>(address)); };
    EXPECT_EQ(numberOf(0), 0);
    EXPECT_EQ(numberOf(0x01234560), 0x01234560);
    EXPECT_EQ(numberOf(0x7FFFFE00), 0x7FFFFE00);
    EXPECT_EQ(numberOf(0x80000000), INT32_MIN);
    EXPECT_EQ(numberOf(0xFFFFFE00), -512);
}
