/// Memory that runs short.
#ifndef TALLOWIN_FUZZ_SHORTAGE_H
#define TALLOWIN_FUZZ_SHORTAGE_H

#include <cstddef>

#include "foundation/tbmemory.h"
#include "fuzz/fuzzinput.h"

namespace kvxfuzz {

/// Lets one allocation of the library fail while it lives. One at a time.
class Shortage {
public:
    /// `number` from 1; 0: none fails.
    explicit Shortage(std::size_t number) {
        s_Left = number;
        tbSetAllocationGate([](std::size_t) { return s_Left == 0 || --s_Left != 0; });
    }
    Shortage(Shortage const&) = delete;
    Shortage& operator=(Shortage const&) = delete;
    ~Shortage() { tbSetAllocationGate(nullptr); }

private:
    static inline std::size_t s_Left = 0;
};

/// The number of an allocation to fail: mostly none.
inline std::size_t shortageFrom(Input& input) {
    std::size_t const choice = input.byte();
    return choice < 192 ? 0 : choice - 191;
}

}  // namespace kvxfuzz

#endif
