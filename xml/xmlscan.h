/// Searching texts 16 bytes at a time. Internal: not installed.
#ifndef TALLOWIN_XML_XMLSCAN_H
#define TALLOWIN_XML_XMLSCAN_H

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <cstdint>

#include "xml/xmlentities.h"
#include "xml/xmltable.h"

#ifdef __SSE2__
/// For each of the 16 bytes at `bytes` a bit: whether it may stand in a name.
inline std::uint32_t xmlNameBits(char const* bytes) noexcept {
    __m128i const block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes));
    // A range of characters is moved to the least values of a signed byte, so that one comparison is enough.
    auto const isWithin = [](__m128i characters, char first, char last) {
        __m128i const moved = _mm_add_epi8(characters, _mm_set1_epi8(static_cast<char>(INT8_MIN - first)));
        return _mm_cmplt_epi8(moved, _mm_set1_epi8(static_cast<char>(INT8_MIN + (last - first) + 1)));
    };
    __m128i const letters = isWithin(_mm_or_si128(block, _mm_set1_epi8('a' ^ 'A')), 'a', 'z');
    __m128i const slashes = _mm_cmpeq_epi8(block, _mm_set1_epi8('/'));
    __m128i const others = _mm_andnot_si128(slashes, isWithin(block, '-', '9'));  // - . / 0 to 9
    __m128i const underscores = _mm_cmpeq_epi8(block, _mm_set1_epi8('_'));
    return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(letters, others), underscores)));
}

/// The same: whether it is one of the five characters that have an entity.
inline std::uint32_t xmlEntityBits(char const* bytes) noexcept {
    __m128i const block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes));
    __m128i found = _mm_setzero_si128();
    for (char const character : {'&', '<', '>', '"', '\''}) {
        found = _mm_or_si128(found, _mm_cmpeq_epi8(block, _mm_set1_epi8(character)));
    }
    return static_cast<std::uint32_t>(_mm_movemask_epi8(found));
}
#endif

/// How many bytes at the beginning of `text` may stand in a name.
inline std::uint32_t xmlNameLength(xmlSlice text) noexcept {
    std::uint32_t position = 0;
#ifdef __SSE2__
    for (; text.m_Length - position >= 16; position += 16) {
        std::uint32_t const others = xmlNameBits(text.m_Bytes + position) ^ 0xFFFFU;
        if (others != 0) {
            return position + static_cast<std::uint32_t>(__builtin_ctz(others));
        }
    }
#endif
    while (position < text.m_Length && xmltable::classOf(text.m_Bytes[position]) == xmltable::kNameClass) {
        ++position;
    }
    return position;
}

/// How many bytes stand before the first of " & ' < >; all when there is none.
inline std::uint32_t xmlPlainLength(xmlSlice text) noexcept {
    std::uint32_t position = 0;
#ifdef __SSE2__
    for (; text.m_Length - position >= 16; position += 16) {
        std::uint32_t const found = xmlEntityBits(text.m_Bytes + position);
        if (found != 0) {
            return position + static_cast<std::uint32_t>(__builtin_ctz(found));
        }
    }
#endif
    while (position < text.m_Length && !xmlHasEntity(text.m_Bytes[position])) {
        ++position;
    }
    return position;
}

/// How many bytes at the beginning of `text` are an encoded text: all before the first of " ' < > and before the first
/// ampersand that does not begin one of the five entities.
inline std::uint32_t xmlEncodedPrefix(xmlSlice text) noexcept {
    std::uint32_t position = xmlPlainLength(text);
    while (position < text.m_Length) {
        std::uint32_t const entity = xmlEntityLength(xmlPartFrom(text, position));
        if (entity == 0) {
            break;
        }
        position += entity;
        position += xmlPlainLength(xmlPartFrom(text, position));
    }
    return position;
}

/// Whether decoding and then encoding `text` gives `text` again, so that it may be kept as it stands.
inline bool xmlIsEncoded(xmlSlice text) noexcept {
    return xmlEncodedPrefix(text) == text.m_Length;
}

#endif
