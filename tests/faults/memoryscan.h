/// Secrets that a test can look for in its own memory.
///
/// A secret is never stored as it is: it is made character by character where it is used, and what the search compares
/// with is masked, so that the search does not find itself.
#ifndef TALLOWIN_TESTS_FAULTS_MEMORYSCAN_H
#define TALLOWIN_TESTS_FAULTS_MEMORYSCAN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvxtest {

/// A text of letters and digits that occurs nowhere else.
class Canary {
public:
    static constexpr std::size_t kLength = 32;

    /// The same text for the same number.
    constexpr explicit Canary(unsigned number) : m_Number(number) {}

    [[nodiscard]] char at(std::size_t index) const;

    /// Its text; for processes whose memory is not searched.
    [[nodiscard]] std::string text() const;

private:
    unsigned m_Number;
};

/// A text made of fixed parts and canaries, readable while it lives, wiped at the end.
class Revealed {
public:
    Revealed() = default;
    Revealed(Revealed const&) = delete;
    Revealed& operator=(Revealed const&) = delete;
    ~Revealed();

    Revealed& add(char const* text);
    Revealed& add(Canary const& canary);

    [[nodiscard]] char const* c_str() const { return m_Text; }
    [[nodiscard]] std::size_t length() const { return m_Length; }

private:
    char m_Text[512] = {};
    std::size_t m_Length = 0;
};

/// Looks for texts in all writable memory of the process.
class MemoryScan {
public:
    /// Adds the pieces of `bytes`, of `piece` bytes each, under a name. The bytes are not kept. At most kMaxPiece.
    void lookFor(char const* name, void const* bytes, std::size_t length, std::size_t piece = 8);

    /// Whether one of the pieces lies in `bytes` bytes at `memory`. Allocates nothing.
    [[nodiscard]] bool isIn(void const* memory, std::size_t bytes) const;

    /// Where texts lie: name, kind of memory, how many pieces are left, and what stands before. A line for each copy,
    /// `most` of them. With KVX_FAULTS_STACKS also the calls that allocated the memory last.
    [[nodiscard]] std::string find(std::size_t most) const;

private:
    static constexpr std::size_t kMaxPiece = 16;

    struct Piece {
        unsigned char m_Masked[kMaxPiece];
        std::size_t m_Length;
        char const* m_Name;
        std::size_t m_Position;

        /// Whether it lies at `at`, with room for it there.
        [[nodiscard]] bool isAt(unsigned char const* at) const;
    };

    std::vector<Piece> m_Pieces;
};

}  // namespace kvxtest

#endif
