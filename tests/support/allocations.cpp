#include "tests/support/allocations.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"
#include "foundation/tbmemory.h"
#include "foundation/tbobject.h"

namespace kvxtest {

namespace {

std::atomic<long> g_Requested{0};
std::atomic<long> g_Failing{-1};
std::atomic<bool> g_AllFromThere{false};
std::atomic<std::uint64_t> g_Calls{0};
std::atomic<std::uint64_t> g_Bytes{0};

bool failingGate(std::size_t) {
    long const number = g_Requested++;
    return g_AllFromThere ? number < g_Failing : number != g_Failing;
}

bool countingGate(std::size_t bytes) {
    ++g_Calls;
    g_Bytes += bytes;
    return true;
}

}  // namespace

FailingAllocation::FailingAllocation(long failing, Mode mode) {
    g_Requested = 0;
    g_Failing = failing;
    g_AllFromThere = mode == Mode::kAllFromThere;
    tbSetAllocationGate(&failingGate);
}

FailingAllocation::~FailingAllocation() {
    tbSetAllocationGate(nullptr);
}

long FailingAllocation::requested() {
    return g_Requested;
}

long survivesEveryFailingAllocation(std::function<void()> const& call) {
    constexpr long kMaxRuns = 100000;
    for (long run = 0; run < kMaxRuns; ++run) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        bool reached = false;
        try {
            FailingAllocation const failing(run, FailingAllocation::Mode::kAllFromThere);
            call();
            reached = FailingAllocation::requested() > run;
        } catch (TBFC_Exception const& failure) {
            EXPECT_EQ(failure.code(), KVX_E_OUT_OF_MEMORY) << "allocation " << run;
            reached = true;
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << "objects left behind by failing allocation " << run;
        if (!reached) {
            return run;
        }
    }
    ADD_FAILURE() << "no end after " << kMaxRuns << " runs";
    return kMaxRuns;
}

AllocationMeter::AllocationMeter() {
    g_Calls = 0;
    g_Bytes = 0;
    tbSetAllocationGate(&countingGate);
}

AllocationMeter::~AllocationMeter() {
    tbSetAllocationGate(nullptr);
}

std::uint64_t AllocationMeter::calls() {
    return g_Calls;
}

std::uint64_t AllocationMeter::bytes() {
    return g_Bytes;
}

}  // namespace kvxtest
