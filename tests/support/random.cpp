#include "tests/support/random.h"

#include <cstdlib>

namespace kvxtest {

std::uint64_t testSeed() {
    char const* const given = std::getenv("KVX_TEST_SEED");
    return given == nullptr ? 20240131U : std::strtoull(given, nullptr, 10);
}

std::string Random::text(std::string const& characters, std::size_t most) {
    std::string result;
    for (std::size_t left = below(most + 1); left > 0; --left) {
        result += of(characters);
    }
    return result;
}

}  // namespace kvxtest
