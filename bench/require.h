/// Checks of the benchmarks.
#ifndef TALLOWIN_BENCH_REQUIRE_H
#define TALLOWIN_BENCH_REQUIRE_H

#include <stdexcept>

namespace kvxbench {

/// Throws std::runtime_error with `message` unless `condition`. For checks that all contestants do the same work.
inline void require(bool condition, char const* message) {
    if (!condition) {
        throw std::runtime_error(message);
    }
}

}  // namespace kvxbench

#endif
