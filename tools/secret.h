/// Passwords: read from standard input, a file or the terminal, and wiped.
#ifndef TALLOWIN_TOOLS_SECRET_H
#define TALLOWIN_TOOLS_SECRET_H

#include <cstddef>
#include <memory>
#include <string>

#include "tools/standardstreams.h"

namespace tool {

/// A short text that is wiped when it is dropped.
class Secret {
public:
    /// The longest secret, in bytes.
    static constexpr std::size_t kMaxLength = 4096;

    Secret();
    Secret(Secret&&) noexcept = default;
    Secret& operator=(Secret&&) = delete;
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;
    ~Secret();

    /// NUL-terminated; valid as long as the object.
    [[nodiscard]] char const* text() const { return m_Text.get(); }
    [[nodiscard]] std::size_t length() const { return m_Length; }

    /// Appends one byte. ToolFailure when it is NUL or the secret is too long.
    void append(char character);

    /// Whether `character` occurs.
    [[nodiscard]] bool contains(char character) const;

    /// Whether every byte is below 0x80.
    [[nodiscard]] bool isSevenBit() const;

private:
    std::unique_ptr<char[]> m_Text;
    std::size_t m_Length = 0;
};

/// Reads the first line of `file`, or of standard input for "-". With an empty `file` it asks on the terminal, without
/// echo, when standard input is one, and reads standard input otherwise. ToolFailure when there is no line; messages
/// never hold the text.
Secret readSecret(StandardStreams const& streams, std::string const& file, std::string const& prompt);

}  // namespace tool

#endif
