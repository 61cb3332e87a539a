/// Gigabytes of text in a few megabytes of memory.
#ifndef TALLOWIN_TESTS_SUPPORT_THINMEMORY_H
#define TALLOWIN_TESTS_SUPPORT_THINMEMORY_H

#include <cstddef>

namespace kvxtest {

/// Lets all whole pages of the `bytes` bytes at `memory` be one block of pages, over and over, so that a byte written
/// to one is read from many. Their contents are lost. False when the system has no room for that.
bool makeThin(char* memory, std::size_t bytes);

/// A text of as many letters "x", made of thin memory.
class ThinText {
public:
    explicit ThinText(std::size_t length);
    ThinText(ThinText const&) = delete;
    ThinText& operator=(ThinText const&) = delete;
    ~ThinText();

    /// NUL-terminated; null when the system has no room, such as the addresses of a 32-bit process.
    [[nodiscard]] char const* get() const { return m_Text; }

private:
    std::size_t m_Bytes;
    char* m_Text = nullptr;
};

}  // namespace kvxtest

#endif
