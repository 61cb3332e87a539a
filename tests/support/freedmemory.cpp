#include "tests/support/freedmemory.h"

#include <atomic>
#include <string_view>

#include "foundation/tbmemory.h"

namespace kvxtest {

namespace {

/// Parts short enough that a cut copy still has one. User and password share no group of Base64.
constexpr std::string_view kParts[] = {
    "uQxZ",   "S3cret", "Canary",  // as they are, and percent-encoded
    "dVF4Wn", "UzNjcm", "NhbmFy",
};

std::atomic<int> g_Leaks{0};
std::atomic<int> g_Searched{0};

void search(void const* memory, std::size_t bytes) {
    std::string_view const block(static_cast<char const*>(memory), bytes);
    ++g_Searched;
    for (std::string_view const part : kParts) {
        if (block.find(part) != std::string_view::npos) {
            ++g_Leaks;
            return;
        }
    }
}

}  // namespace

FreedMemory::FreedMemory() {
    g_Leaks = 0;
    g_Searched = 0;
    tbSetReleaseObserver(&search);
}

FreedMemory::~FreedMemory() {
    tbSetReleaseObserver(nullptr);
}

int FreedMemory::leaks() {
    return g_Leaks;
}

int FreedMemory::searched() {
    return g_Searched;
}

}  // namespace kvxtest
