// Every call into Java fails in turn, in every native method.

#include "tests/jni/shop.h"

using namespace kvxtest;

namespace {

constexpr int kMostCalls = 100;

/// Fails the test unless `jvm` was left with an exception, ours or its own, or ended.
/// A destructor alone says nothing: what it cannot find it does not destroy.
void expectReported(NativeRow const& row, FakeJvm const& jvm) {
    EXPECT_EQ(jvm.isFine(), row.destructs()) << "a failure that nobody is told of";
    EXPECT_LE(jvm.fatalErrors().size(), 1U);
    EXPECT_TRUE(jvm.fatalErrors().empty() || jvm.pendingClass().empty());
}

/// Calls a method with its first, second, third ... call into Java failing, until none is reached. Returns how many
/// calls there were.
int failEveryCallOfASuccess(Shop const& shop, NativeRow const& row, FakeJvm::Failure how) {
    for (int number = 0; number < kMostCalls; ++number) {
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
    ADD_FAILURE() << row.name() << " does not end";
    return kMostCalls;
}

/// The same for a call that fails in the core, or for its handle. Returns how many calls there were.
int failEveryCallOfAFailure(NativeRow const& row, bool isLiving, FakeJvm::Failure how) {
    for (int number = 0; number < kMostCalls; ++number) {
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
            EXPECT_FALSE(jvm.isFine()) << "a failure that nobody is told of";
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
    ADD_FAILURE() << row.name() << " does not end";
    return kMostCalls;
}

void failEveryCall(FakeJvm::Failure how) {
    Shop const shop;
    TempDir const nowhere;
    WorkingDirectory const here(nowhere.path());
    for (NativeRow const& row : nativeRows()) {
        auto const expected = static_cast<int>(2 + row.m_ArgumentCount + (row.m_ReturnsText ? 1 : 0));
        EXPECT_EQ(failEveryCallOfASuccess(shop, row, how), expected) << row.name();
        if (!row.destructs()) {
            EXPECT_GT(failEveryCallOfAFailure(row, false, how), 8) << row.name();
        }
        if (row.m_BareCode != KVX_OK) {
            EXPECT_GT(failEveryCallOfAFailure(row, true, how), 8) << row.name();
        }
    }
}

}  // namespace

TEST(FailingJava, IsReportedWhicheverCallLeavesAnException) {
    failEveryCall(FakeJvm::Failure::kWithException);
}

TEST(FailingJava, IsReportedWhicheverCallLeavesNone) {
    failEveryCall(FakeJvm::Failure::kWithoutException);
}

TEST(FailingJava, WithoutMemoryForAResultSaysSo) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        if (row.m_ReturnsText) {
            SCOPED_TRACE(row.name());
            auto const lastCall = static_cast<int>(2 + row.m_ArgumentCount);
            FakeJvm silent;
            ShopCall first(shop, row, silent);
            silent.failCall(lastCall, FakeJvm::Failure::kWithoutException);
            first.run();
            EXPECT_EQ(silent.failedFunction(), "NewStringUTF");
            expectRaised(silent, first.returned(), KVX_E_OUT_OF_MEMORY,
                         std::string(row.m_FailurePrefix) + "out of memory");

            FakeJvm telling;
            ShopCall second(shop, row, telling);
            telling.failCall(lastCall, FakeJvm::Failure::kWithException);
            second.run();
            EXPECT_EQ(telling.failedFunction(), "NewStringUTF");
            EXPECT_EQ(telling.pendingClass(), "java/lang/OutOfMemoryError") << "Java's own is as good as ours";
        }
    }
}

TEST(FailingJava, WithoutMemoryForAnArgumentSaysSo) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        for (int argument = 0; argument < static_cast<int>(row.m_ArgumentCount); ++argument) {
            SCOPED_TRACE(row.name() + ", argument " + std::to_string(argument));
            FakeJvm silent;
            ShopCall first(shop, row, silent);
            silent.failCall(2 + argument, FakeJvm::Failure::kWithoutException);
            first.run();
            EXPECT_EQ(silent.failedFunction(), "GetStringUTFChars");
            expectRaised(silent, first.returned(), KVX_E_OUT_OF_MEMORY,
                         std::string(row.m_FailurePrefix) + "out of memory");

            FakeJvm telling;
            ShopCall second(shop, row, telling);
            telling.failCall(2 + argument, FakeJvm::Failure::kWithException);
            second.run();
            EXPECT_EQ(telling.failedFunction(), "GetStringUTFChars");
            EXPECT_EQ(telling.pendingClass(), "java/lang/OutOfMemoryError");
            second.expectNothingDone();
        }
    }
}
