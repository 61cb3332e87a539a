/// Random choices that can be repeated.
#ifndef TALLOWIN_TESTS_SUPPORT_RANDOM_H
#define TALLOWIN_TESTS_SUPPORT_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace kvxtest {

/// The seed of this run's random tests: KVX_TEST_SEED when set, else a fixed one; printed with failures by the caller.
std::uint64_t testSeed();

/// Random choices of one test, from the seed of the run.
class Random {
public:
    Random() : m_Engine(testSeed()) {}

    /// From 0 to `limit` - 1.
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(m_Engine); }

    char byte() { return static_cast<char>(static_cast<unsigned char>(below(256))); }
    char of(std::string const& characters) { return characters[below(characters.size())]; }

    /// Up to `most` characters of `characters`.
    std::string text(std::string const& characters, std::size_t most);

private:
    std::mt19937_64 m_Engine;
};

}  // namespace kvxtest

#endif
