// Every call into Java fails in turn, in every native method.
//
// Each method is run with its first call into Java failing, then its second, and so on, until a run reaches no failing
// call. Every failing run must leave an exception pending or have ended the virtual machine, must not have had its
// effect, and must not leak objects. A JNI function may fail with or without an exception; both are walked.

#include <gtest/gtest.h>

#include "foundation/tbobject.h"
#include "tests/jni/shop.h"

using namespace kvxtest;

namespace {

constexpr int kMaxCalls = 100;

/// Fails the test unless an exception, ours or Java's, is pending or the virtual machine was ended.
/// Only a destructor may report nothing: it ignores an object it cannot find.
void expectReported(NativeRow const& row, FakeJvm const& jvm) {
    EXPECT_EQ(jvm.isFine(), row.destructs()) << "the failure is not reported";
    EXPECT_LE(jvm.fatalErrors().size(), 1U);
    EXPECT_TRUE(jvm.fatalErrors().empty() || jvm.pendingClass().empty());
}

/// Calls a method with its first, second, third ... call into Java failing, until a run succeeds. Returns the number of
/// calls into Java that it makes.
int failEachCallOfASuccess(Shop const& shop, NativeRow const& row, FakeJvm::Failure how) {
    for (int number = 0; number < kMaxCalls; ++number) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        {
            FakeJvm jvm;
            ShopCall call(shop, row, jvm);
            jvm.failCall(number, how);
            call.run();
            SCOPED_TRACE(row.name() + ", call " + std::to_string(number) + " of " + jvm.failedFunction());
            if (jvm.failedFunction().empty()) {
                call.expectSuccess();
                return number;
            }
            expectReported(row, jvm);
            call.expectNothingDone();
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << row.name() << ", call " << number;
    }
    ADD_FAILURE() << row.name() << " makes too many calls";
    return kMaxCalls;
}

/// The same for a call that fails anyway: in the core when `isLiving`, otherwise because of its handle.
int failEachCallOfAFailure(NativeRow const& row, bool isLiving, FakeJvm::Failure how) {
    for (int number = 0; number < kMaxCalls; ++number) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        {
            FakeJvm jvm;
            JavaObject const object(row);
            if (!isLiving) {
                row.m_Destroy(objectOf(object.handle()));
            }
            jobject const self = jvm.newObject(object.handle());
            jvm.failCall(number, how);
            Returned const returned = row.callBare(jvm, self);
            SCOPED_TRACE(row.name() + ", call " + std::to_string(number) + " of " + jvm.failedFunction());
            EXPECT_FALSE(jvm.isFine()) << "the failure is not reported";
            EXPECT_TRUE(jvm.fatalErrors().empty() || jvm.pendingClass().empty());
            EXPECT_EQ(returned.m_Number, 0);
            EXPECT_EQ(returned.m_Text, nullptr);
            EXPECT_EQ(jvm.handleOf(self), object.handle());
            if (jvm.failedFunction().empty()) {
                return number;
            }
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << row.name() << ", call " << number;
    }
    ADD_FAILURE() << row.name() << " makes too many calls";
    return kMaxCalls;
}

void failEachCall(FakeJvm::Failure how) {
    Shop const shop;
    TemporaryDirectory const nowhere;
    WorkingDirectory const here(nowhere.path());
    for (NativeRow const& row : nativeRows()) {
        auto const expected = static_cast<int>(2 + row.m_ArgumentCount + (row.m_ReturnsText ? 1 : 0));
        EXPECT_EQ(failEachCallOfASuccess(shop, row, how), expected) << row.name();
        if (!row.destructs()) {
            EXPECT_GT(failEachCallOfAFailure(row, false, how), 8) << row.name();
        }
        if (row.m_BareCode != KVX_OK) {
            EXPECT_GT(failEachCallOfAFailure(row, true, how), 8) << row.name();
        }
    }
}

/// Fails call number `number` into Java, first without and then with an exception. Each run must report exhausted
/// memory: the first by a KVXException, the second by Java's own exception.
void expectExhaustedMemoryReported(Shop const& shop, NativeRow const& row, int number, char const* function) {
    FakeJvm silent;
    ShopCall first(shop, row, silent);
    silent.failCall(number, FakeJvm::Failure::kWithoutException);
    first.run();
    EXPECT_EQ(silent.failedFunction(), function);
    expectRaised(silent, first.returned(), KVX_E_OUT_OF_MEMORY, std::string(row.m_FailurePrefix) + "out of memory");

    FakeJvm raising;
    ShopCall second(shop, row, raising);
    raising.failCall(number, FakeJvm::Failure::kWithException);
    second.run();
    EXPECT_EQ(raising.failedFunction(), function);
    EXPECT_EQ(raising.pendingClass(), "java/lang/OutOfMemoryError") << "Java's own exception stays";
    second.expectNothingDone();
}

}  // namespace

TEST(FailingJava, IsReportedWhicheverCallLeavesAnException) {
    failEachCall(FakeJvm::Failure::kWithException);
}

TEST(FailingJava, IsReportedWhicheverCallLeavesNone) {
    failEachCall(FakeJvm::Failure::kWithoutException);
}

TEST(FailingJava, WithoutMemoryForAResultIsReported) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        if (row.m_ReturnsText) {
            SCOPED_TRACE(row.name());
            expectExhaustedMemoryReported(shop, row, static_cast<int>(2 + row.m_ArgumentCount), "NewStringUTF");
        }
    }
}

TEST(FailingJava, WithoutMemoryForAnArgumentIsReported) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        for (int argument = 0; argument < static_cast<int>(row.m_ArgumentCount); ++argument) {
            SCOPED_TRACE(row.name() + ", argument " + std::to_string(argument));
            expectExhaustedMemoryReported(shop, row, 2 + argument, "GetStringUTFChars");
        }
    }
}
