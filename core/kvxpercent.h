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
    struct Row {
        char m_Text[3];
        std::uint8_t m_Length;
    };
    static_assert(sizeof(Row) == 4 && TbStringWriter::kSpare >= sizeof(Row));

    constexpr KvxPercentTable() {
        constexpr char kDigits[] = "0123456789abcdef";
        for (unsigned byte = 0; byte < 256; ++byte) {
            bool const passes =
                (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
            Row& row = m_Rows[byte];
            row.m_Length = passes ? 1 : 3;
            row.m_Text[0] = passes ? static_cast<char>(byte) : '%';
            row.m_Text[1] = kDigits[byte >> 4];
            row.m_Text[2] = kDigits[byte & 0x0F];
        }
    }

    std::array<Row, 256> m_Rows{};
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
            continue;
        }
        KvxPercentTable::Row const& row = kKvxPercentTable.m_Rows[byte];
        std::memcpy(to, &row, sizeof row);  // the length too, over which the next byte goes
        to += row.m_Length;
    }
    // A byte that is encoded begins with "%", which stands nowhere else.
    writer.endPiecesBy(to, [](char const* at, char const* begin) {
        if (at[-1] == '%') {
            return at + 2;
        }
        return at - begin >= 2 && at[-2] == '%' ? at + 1 : at;
    });
    writer.finish(to);
}

#endif
