/// The bytes of one run, read as choices.
#ifndef TALLOWIN_FUZZ_FUZZINPUT_H
#define TALLOWIN_FUZZ_FUZZINPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kvxfuzz {

/// Reads from the front. Behind the last byte every choice is 0 and every text empty, so that each input has a meaning.
class Input {
public:
    Input(std::uint8_t const* bytes, std::size_t size) : m_Bytes(bytes), m_Size(size) {}

    [[nodiscard]] bool isEmpty() const { return m_Position == m_Size; }

    std::uint8_t byte() { return isEmpty() ? std::uint8_t{0} : m_Bytes[m_Position++]; }

    /// From 0 to `limit` - 1. Requires: 0 < `limit` <= 256.
    std::size_t below(std::size_t limit) { return byte() % limit; }

    bool flag() { return (byte() & 1U) != 0; }

    /// A text with its length in front, in one byte.
    std::string text() { return take(byte()); }

    /// The next line, without its end; everything when there is no end.
    std::string line() {
        std::uint8_t const* const end = std::find(m_Bytes + m_Position, m_Bytes + m_Size, std::uint8_t{'\n'});
        std::string result = take(static_cast<std::size_t>(end - m_Bytes) - m_Position);
        byte();
        return result;
    }

    /// Everything before the next line "%%", without it; everything when there is none.
    std::string section() {
        static constexpr char s_End[] = "\n%%\n";
        std::uint8_t const* const begin = m_Bytes + m_Position;
        std::uint8_t const* const end = std::search(begin, m_Bytes + m_Size, s_End, s_End + sizeof s_End - 1);
        std::string result = take(static_cast<std::size_t>(end - begin));
        take(sizeof s_End - 1);
        return result;
    }

    /// At most `count` bytes.
    std::string take(std::size_t count) {
        std::size_t const size = std::min(count, m_Size - m_Position);
        std::string result(reinterpret_cast<char const*>(m_Bytes) + m_Position, size);
        m_Position += size;
        return result;
    }

    std::string rest() { return take(m_Size); }

private:
    std::uint8_t const* m_Bytes;  ///< Borrowed.
    std::size_t m_Size;
    std::size_t m_Position = 0;
};

/// One run of the target that the program was linked with. Deterministic.
void runTarget(Input input);

}  // namespace kvxfuzz

#endif
