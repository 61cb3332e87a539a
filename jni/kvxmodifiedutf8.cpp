// Conversion of text in any encoding to modified UTF-8.
//
// Reads one well-formed character at a time and copies it, splits it into two surrogates when it has four bytes, or
// writes a byte that starts no character as Latin-1. Surrogates of three bytes and U+0000 as two bytes count as well
// formed, since Java strings hold them. Output is collected in blocks, because every append to a TbString may
// reallocate.

#include "jni/kvxmodifiedutf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "foundation/tbexception.h"

namespace {

constexpr std::size_t kMaxBytes = static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

/// The length in bytes of the well-formed character at `at`; 0 when there is none. Never reads past the terminator,
/// which is not a continuation byte.
std::size_t characterLength(unsigned char const* at) {
    unsigned char const first = at[0];
    if (first < 0x80U) {
        return 1;
    }
    if ((first & 0xE0U) == 0xC0U) {
        bool const isShortest =
            first >= 0xC2U || (first == 0xC0U && at[1] == 0x80U);  // C0 80 is the only form of U+0000
        return isShortest && isContinuation(at[1]) ? 2 : 0;
    }
    if ((first & 0xF0U) == 0xE0U) {
        bool const isShortest = first != 0xE0U || at[1] >= 0xA0U;
        return isShortest && isContinuation(at[1]) && isContinuation(at[2]) ? 3 : 0;
    }
    if (first >= 0xF0U && first <= 0xF4U) {
        bool const isInRange = (first != 0xF0U || at[1] >= 0x90U) && (first != 0xF4U || at[1] < 0x90U);
        return isInRange && isContinuation(at[1]) && isContinuation(at[2]) && isContinuation(at[3]) ? 4 : 0;
    }
    return 0;
}

/// Collects bytes and appends them to a string in blocks.
class Writer {
public:
    explicit Writer(TbString& text) : m_Text(text) {}
    Writer(Writer const&) = delete;
    Writer& operator=(Writer const&) = delete;
    ~Writer() { ::explicit_bzero(m_Block, sizeof m_Block); }  // the text may be a password

    void put(unsigned byte) {
        if (m_Count == sizeof m_Block) {
            flush();
        }
        m_Block[m_Count++] = static_cast<char>(byte);
    }

    void putTwo(unsigned character) {
        put(0xC0U | character >> 6);
        put(0x80U | (character & 0x3FU));
    }

    void putThree(unsigned character) {
        put(0xE0U | character >> 12);
        put(0x80U | (character >> 6 & 0x3FU));
        put(0x80U | (character & 0x3FU));
    }

    void flush() {
        if (kMaxBytes - m_Text.length() < m_Count) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        m_Text.append(m_Block, m_Count);
        m_Count = 0;
    }

private:
    TbString& m_Text;
    char m_Block[512];
    std::uint32_t m_Count = 0;
};

void putSurrogates(Writer& writer, unsigned char const* at) {
    unsigned const character = (at[0] & 0x07U) << 18 | (at[1] & 0x3FU) << 12 | (at[2] & 0x3FU) << 6 | (at[3] & 0x3FU);
    unsigned const offset = character - 0x10000U;
    writer.putThree(0xD800U | offset >> 10);
    writer.putThree(0xDC00U | (offset & 0x3FFU));
}

}  // namespace

void kvxToModifiedUtf8(char const* text, TbString& result) {
    Writer writer(result);
    auto const* at = reinterpret_cast<unsigned char const*>(text);
    while (*at != 0) {
        std::size_t const length = characterLength(at);
        switch (length) {
            case 0:
                writer.putTwo(*at);
                break;
            case 4:
                putSurrogates(writer, at);
                break;
            default:
                for (std::size_t i = 0; i < length; ++i) {
                    writer.put(at[i]);
                }
        }
        at += length == 0 ? 1 : length;
    }
    writer.flush();
}
