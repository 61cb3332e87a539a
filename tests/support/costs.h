/// What a call costs, counted and not timed.
#ifndef TALLOWIN_TESTS_SUPPORT_COSTS_H
#define TALLOWIN_TESTS_SUPPORT_COSTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace kvxtest {

/// The requests of a call to the library's allocator.
struct Cost {
    std::uint64_t m_Calls = 0;
    std::uint64_t m_Bytes = 0;   ///< Of all requests: no less than is held at any time.
    std::uint64_t m_Copied = 0;  ///< Of all requests but the last: what one growing buffer copies at most.
};

/// Counts the requests of `call`. Not together with another meter or a failing allocation.
Cost costOf(std::function<void()> const& call);

/// Fails the test unless the bytes of `cost(n)` stay below `bytesPerUnit` * n, for four values of n, each twice the one
/// before, and unless the last costs at most one and a half times as much a unit as the first: a buffer that grows by
/// steps has up to half of itself to spare.
void expectLinearCost(std::string const& what, std::size_t first, std::uint64_t bytesPerUnit,
                      std::function<std::uint64_t(std::size_t)> const& bytes);

/// Bytes that the process holds on its heap. 0 where a sanitizer manages it.
std::uint64_t heldBytes();

}  // namespace kvxtest

#endif
