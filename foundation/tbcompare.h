/// Comparing texts eight bytes at a time. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBCOMPARE_H
#define TALLOWIN_FOUNDATION_TBCOMPARE_H

#include <cstdint>
#include <cstring>

/// The eight bytes at `bytes` as a number, in the processor's order.
inline std::uint64_t tbEightBytes(char const* bytes) noexcept {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

/// The result of TCSNCMP for the `length` bytes at `left` and at `right`.
std::int32_t tbCompareTexts(std::uint32_t length, char const* left, char const* right) noexcept;

#endif
