#include "tests/support/costs.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>

#include "foundation/tbmemory.h"

namespace kvxtest {

namespace {

std::atomic<std::uint64_t> g_Calls{0};
std::atomic<std::uint64_t> g_Bytes{0};
std::atomic<std::uint64_t> g_Last{0};

bool recordingGate(std::size_t bytes) {
    ++g_Calls;
    g_Bytes += bytes;
    g_Last = bytes;
    return true;
}

}  // namespace

Cost costOf(std::function<void()> const& call) {
    g_Calls = 0;
    g_Bytes = 0;
    g_Last = 0;
    tbSetAllocationGate(&recordingGate);
    call();
    tbSetAllocationGate(nullptr);
    return {g_Calls, g_Bytes, g_Bytes - g_Last};
}

void expectLinearCost(std::string const& what, std::size_t first, std::uint64_t bytesPerUnit,
                      std::function<std::uint64_t(std::size_t)> const& bytes) {
    double atFirst = 0.0;
    double now = 0.0;
    for (std::size_t size = first; size <= 8 * first; size *= 2) {
        now = static_cast<double>(bytes(size)) / static_cast<double>(size);
        EXPECT_LE(now, static_cast<double>(bytesPerUnit)) << what << ", " << size;
        atFirst = size == first ? now : atFirst;
    }
    EXPECT_LE(now, 1.5 * atFirst + 0.1) << what;
    testing::Test::RecordProperty(what, std::to_string(now));
}

std::uint64_t heldBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 0;
#else
    struct mallinfo2 const now = mallinfo2();
    return now.uordblks + now.hblkhd;
#endif
}

}  // namespace kvxtest
