/// Percent-encoding, for messages and for URLs. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXPERCENT_H
#define TALLOWIN_CORE_KVXPERCENT_H

#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>

#include "foundation/tbstringwriter.h"

/// What each byte becomes in the standard locale: a letter or digit itself, any other byte "%" and two lower-case
/// hexadecimal digits.
struct KvxPercentTable {
    static_assert(TbStringWriter::kSpare >= 4);

    constexpr KvxPercentTable() {
        constexpr char kDigits[] = "0123456789abcdef";
        for (unsigned byte = 0; byte < 256; ++byte) {
            bool const passes =
                (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
            m_Lengths[byte] = passes ? 1 : 3;
            m_Texts[byte][0] = passes ? static_cast<char>(byte) : '%';
            m_Texts[byte][1] = kDigits[byte >> 4];
            m_Texts[byte][2] = kDigits[byte & 0x0F];
        }
    }

    std::array<std::uint8_t, 256> m_Lengths{};
    std::array<char[4], 256> m_Texts{};  ///< Not terminated, and longer than m_Lengths tells.
};

inline constexpr KvxPercentTable kKvxPercentTable;

/// The bytes of `length` percent-encoded bytes, none of which passes in the current locale alone.
inline std::uint64_t kvxPercentEncodedSize(unsigned char const* bytes, std::uint32_t length) {
    std::uint32_t passing = 0;
    for (std::uint32_t i = 0; i < length; ++i) {
        auto const digit = static_cast<unsigned char>(bytes[i] - '0');
        auto const letter = static_cast<unsigned char>((bytes[i] | 0x20) - 'a');
        passing += static_cast<std::uint32_t>(digit < 10) + static_cast<std::uint32_t>(letter < 26);
    }
    return std::uint64_t{3} * length - std::uint64_t{2} * passing;
}

/// The same for all of `text`.
inline std::uint64_t kvxPercentEncodedSize(TbString const& text) {
    return kvxPercentEncodedSize(reinterpret_cast<unsigned char const*>(text.c_str()), text.length());
}

/// Percent-encodes `length` bytes of `text` from `from` on to the end of `out`, which may be the same string.
///
/// Below 0x80 all locales have the same letters and digits; the current one is asked about other bytes.
inline void kvxPercentEncode(TbString const& text, std::uint32_t from, std::uint32_t length, TbString& out) {
    if (length == 0) {
        return;
    }
    auto const source = [&] { return reinterpret_cast<unsigned char const*>(text.buffer()) + from; };
    TbStringWriter writer(out, kvxPercentEncodedSize(source(), length));
    unsigned char const* const bytes = source();
    char* to = writer.begin();
    for (std::uint32_t i = 0; i < length; ++i) {
        unsigned char const byte = bytes[i];
        if (byte >= 0x80 && std::isalnum(byte) != 0) {
            *to++ = static_cast<char>(byte);
        } else {
            std::memcpy(to, kKvxPercentTable.m_Texts[byte], 4);
            to += kKvxPercentTable.m_Lengths[byte];
        }
        writer.endPiece(to);
    }
    writer.finish(to);
}

#endif
