/// Calls on a stack of a chosen size.
#ifndef TALLOWIN_TESTS_SUPPORT_SMALLSTACK_H
#define TALLOWIN_TESTS_SUPPORT_SMALLSTACK_H

#include <cstddef>
#include <functional>

namespace kvxtest {

/// Runs `call` on a thread of its own with a stack of `stackBytes`.
void onStackOf(std::size_t stackBytes, std::function<void()> const& call);

}  // namespace kvxtest

#endif
