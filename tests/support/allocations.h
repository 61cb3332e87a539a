/// Failing and counted allocations of the library.
#ifndef TALLOWIN_TESTS_SUPPORT_ALLOCATIONS_H
#define TALLOWIN_TESTS_SUPPORT_ALLOCATIONS_H

#include <cstdint>
#include <functional>

namespace kvxtest {

/// Fails allocation number `failing` (from 0) and all later ones, or only that one, while it lives.
class FailingAllocation {
public:
    enum class Mode { kOnlyThat, kAllFromThere };
    FailingAllocation(long failing, Mode mode);
    FailingAllocation(FailingAllocation const&) = delete;
    FailingAllocation& operator=(FailingAllocation const&) = delete;
    ~FailingAllocation();

    /// Allocations requested since construction.
    static long requested();
};

/// Runs `call` again and again, failing its first, second, third ... allocation, until it succeeds without a failure.
/// Every run must end in KVX_E_OUT_OF_MEMORY as TBFC_Exception, or succeed, and must leave no object behind.
/// Returns how many runs it took.
long survivesEveryFailingAllocation(std::function<void()> const& call);

/// Counts the allocations of the library while it lives. Not together with FailingAllocation.
class AllocationMeter {
public:
    AllocationMeter();
    AllocationMeter(AllocationMeter const&) = delete;
    AllocationMeter& operator=(AllocationMeter const&) = delete;
    ~AllocationMeter();

    static std::uint64_t calls();
    static std::uint64_t bytes();
};

}  // namespace kvxtest

#endif
