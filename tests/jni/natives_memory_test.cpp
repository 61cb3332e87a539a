// Allocations fail in turn, in every native method.
//
// A call that would succeed is repeated with one allocation failing, or all from a certain one on: the first and last
// of its allocations, where the native method's own are, and a sample of those in between. A call that fails anyway is
// repeated for each of its allocations. Every run must succeed or report the code, and must not leak objects.

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "foundation/tbobject.h"
#include "tests/jni/shop.h"
#include "tests/support/allocations.h"
#include "tests/support/systemcalls.h"

using namespace kvxtest;

namespace {

using Mode = FailingAllocation::Mode;

/// The numbers of the allocations to fail, out of about `count`: the first and the last, which are the native method's
/// own, and samples of those in between, which belong to the core and have their own tests.
std::vector<long> allocationsToFail(long count) {
    constexpr long kAtEachEnd = 20;
    constexpr long kSamples = 20;
    std::vector<long> numbers;
    long const step = count / kSamples + 1;
    for (long number = 0; number <= count; ++number) {
        if (number < kAtEachEnd || number > count - kAtEachEnd || number % step == 0) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

/// Runs the call with one allocation failing. True when the call got that far.
bool runFailing(ShopCall& call, long number, Mode mode) {
    FailingAllocation const failing(number, mode);
    call.run();
    return FailingAllocation::requested() > number;
}

void expectOutOfMemory(NativeRow const& row, FakeJvm const& jvm) {
    EXPECT_EQ(jvm.pendingClass(), kExceptionClass);
    EXPECT_EQ(jvm.pendingCode(), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(jvm.pendingText().find(row.m_FailurePrefix), 0U) << jvm.pendingText();
    EXPECT_TRUE(jvm.fatalErrors().empty());
}

/// Fails allocations of a call that would succeed. Returns how many of the runs failed.
long failAllocationsOfASuccess(Shop const& shop, NativeRow const& row, Mode mode) {
    long count = 0;
    {
        FakeJvm jvm;
        ShopCall call(shop, row, jvm);
        runFailing(call, -1, Mode::kOnlyThat);
        count = FailingAllocation::requested();
    }
    long failures = 0;
    for (long const number : allocationsToFail(count)) {
        SCOPED_TRACE(row.name() + ", allocation " + std::to_string(number) + " of " + std::to_string(count));
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        {
            FakeJvm jvm;
            ShopCall call(shop, row, jvm);
            bool const isReached = runFailing(call, number, mode);
            if (jvm.isFine()) {
                EXPECT_FALSE(isReached && mode == Mode::kAllFromThere && number == 0) << "this allocation is needed";
                call.expectSuccess();
            } else {
                EXPECT_TRUE(isReached);
                expectOutOfMemory(row, jvm);
                call.expectNothingDone();
                ++failures;
            }
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    }
    return failures;
}

/// Fails each allocation of a call that fails in the core. The code is the core's or KVX_E_OUT_OF_MEMORY.
void failAllocationsOfAFailure(NativeRow const& row, Mode mode) {
    std::string const text = std::string(row.m_FailurePrefix) + row.m_BareText;
    long number = 0;
    for (bool isReached = true; isReached; ++number) {
        ASSERT_LT(number, 10000);
        SCOPED_TRACE(row.name() + ", allocation " + std::to_string(number));
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        {
            FakeJvm jvm;
            JavaObject const object(row);
            jobject const self = jvm.newObject(object.handle());
            Returned returned;
            {
                FailingAllocation const failing(number, mode);
                returned = row.callBare(jvm, self);
                isReached = FailingAllocation::requested() > number;
            }
            EXPECT_EQ(jvm.pendingClass(), kExceptionClass);
            EXPECT_EQ(jvm.pendingText().find(row.m_FailurePrefix), 0U) << jvm.pendingText();
            EXPECT_TRUE(jvm.pendingCode() == row.m_BareCode || (isReached && jvm.pendingCode() == KVX_E_OUT_OF_MEMORY))
                << jvm.pendingCode();
            if (!isReached) {
                EXPECT_EQ(jvm.pendingText(), text);
            }
            EXPECT_EQ(returned.m_Number, 0);
            EXPECT_EQ(returned.m_Text, nullptr);
            EXPECT_TRUE(object.isLiving());
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    }
}

void failAllocations(Mode mode) {
    WithoutSync const quick;
    Shop const shop;
    TemporaryDirectory const nowhere;
    WorkingDirectory const here(nowhere.path());
    for (NativeRow const& row : nativeRows()) {
        long const failures = failAllocationsOfASuccess(shop, row, mode);
        if (row.m_ArgumentCount != 0 || row.m_MakesObject || row.m_ReturnsText) {
            EXPECT_GT(failures, 0) << row.name();
        }
        if (row.m_BareCode != KVX_OK) {
            failAllocationsOfAFailure(row, mode);
        }
    }
}

}  // namespace

TEST(ExhaustedMemory, RaisesTheExceptionWhenOneAllocationFails) {
    failAllocations(Mode::kOnlyThat);
}

TEST(ExhaustedMemory, RaisesTheExceptionWhenNoMemoryIsLeft) {
    failAllocations(Mode::kAllFromThere);
}

TEST(ExhaustedMemory, KeepsTheCoresCodeWithoutMemoryForItsText) {
    // The last allocations of a failing call are made for the exception's text.
    NativeRow const& row = rowOf(KvxNative::kMessageCapture);
    JavaObject const object(row);
    {
        FakeJvm jvm;
        row.callBare(jvm, jvm.newObject(object.handle()));  // the first failure of a thread makes its record as well
    }
    long count = 0;
    {
        FakeJvm jvm;
        FailingAllocation const none(-1, Mode::kOnlyThat);
        row.callBare(jvm, jvm.newObject(object.handle()));
        count = FailingAllocation::requested();
    }
    FakeJvm jvm;
    FailingAllocation const failing(count - 1, Mode::kAllFromThere);
    Returned const returned = row.callBare(jvm, jvm.newObject(object.handle()));
    expectRaised(jvm, returned, KVX_E_UNEXPECTED, row.m_FailurePrefix);
}

TEST(ExhaustedMemory, IsRaisedWhenNoObjectCanBeConstructed) {
    for (NativeRow const& row : nativeRows()) {
        if (!row.constructs()) {
            continue;
        }
        SCOPED_TRACE(row.name());
        std::vector<std::unique_ptr<JavaObject>> taken;
        FakeJvm jvm;
        jobject const self = jvm.newObject(0);
        Returned returned;
        {
            FailingAllocation const failing(0, Mode::kAllFromThere);
            do {
                taken.push_back(std::make_unique<JavaObject>(row));
            } while (taken.back()->handle() != 0);
            returned = row.callBare(jvm, self);
        }
        expectOutOfMemory(row, jvm);
        EXPECT_EQ(jvm.handleOf(self), 0);
        taken.clear();

        FakeJvm later;
        jobject const other = later.newObject(0);
        row.callBare(later, other);
        expectFine(later);
        EXPECT_TRUE(kvxIsLivingInSlot(row.m_Kind, objectOf(later.handleOf(other))));
        row.m_Destroy(objectOf(later.handleOf(other)));
    }
}
