// Encoding and decoding of the five entities.
//
// Encoding replaces five characters. Decoding looks at a window of five bytes from each ampersand on: a known name in
// it becomes its character, any other vanishes, with the rules that the header states for XMLDecode. Both build the
// result in a string of their own, so input and output may be one string.

#include "xml/xmlentities.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <array>
#include <cstring>

#include "xml/xmlelement.h"
#include "xml/xmlparser.h"

namespace {

struct Entity {
    char m_Character;
    char const* m_Name;  ///< With the ampersand, without the semicolon.
};

constexpr Entity kEntities[] = {{'&', "&amp"}, {'<', "&lt"}, {'>', "&gt"}, {'"', "&quot"}, {'\'', "&apos"}};

/// Bytes that decoding examines from an ampersand on.
constexpr std::uint32_t kWindow = 5;

/// For each byte one more than the index of its entity, 0 for a byte that is written as it is.
constexpr std::array<std::uint8_t, 256> kEntityOf = [] {
    std::array<std::uint8_t, 256> entities{};
    std::uint8_t number = 0;
    for (Entity const& entity : kEntities) {
        entities[static_cast<unsigned char>(entity.m_Character)] = ++number;
    }
    return entities;
}();

/// The entity to be written for `character`; null for a character that is written as it is.
Entity const* entityFor(char character) {
    std::uint8_t const number = kEntityOf[static_cast<unsigned char>(character)];
    return number == 0 ? nullptr : &kEntities[number - 1];
}

/// The row whose name is exactly `name`, or null.
Entity const* entityNamed(xmlSlice name) {
    for (Entity const& entity : kEntities) {
        if (TCSLEN(entity.m_Name) == name.m_Length && std::memcmp(entity.m_Name, name.m_Bytes, name.m_Length) == 0) {
            return &entity;
        }
    }
    return nullptr;
}

/// The end of an unknown entity that fills the window from `ampersand` to `end`: the position of its semicolon, or
/// `end` when no name up to a semicolon follows the ampersand. Never reads beyond a second ampersand.
std::uint32_t endOfUnknown(xmlSlice in, std::uint32_t ampersand, std::uint32_t end) {
    std::uint32_t position = ampersand + 1;
    while (position < in.m_Length && (isAlnum(in.m_Bytes[position]) != 0 || in.m_Bytes[position] == '#')) {
        ++position;
    }
    return position > end && position < in.m_Length && in.m_Bytes[position] == ';' ? position : end;
}

/// The end of the name that begins at `ampersand`: its semicolon, or the end of the window or of the text.
std::uint32_t endOfName(xmlSlice in, std::uint32_t ampersand) {
    std::uint32_t end = ampersand + 1;
    while (end < in.m_Length && in.m_Bytes[end] != ';' && end - ampersand < kWindow) {
        ++end;
    }
    return end;
}

/// Decodes the entity at `position` into `out`. Returns the position after it.
std::uint32_t decodeEntity(xmlSlice in, std::uint32_t position, TbString& out) {
    std::uint32_t end = endOfName(in, position);
    Entity const* const entity = entityNamed({in.m_Bytes + position, end - position});
    if (entity != nullptr) {
        out.append(entity->m_Character);
    } else if (end - position == kWindow) {
        end = endOfUnknown(in, position, end);
    }
    return end < in.m_Length ? end + 1 : end;
}

/// The part of `text` from `position` on.
xmlSlice partFrom(xmlSlice text, std::uint32_t position) {
    return {text.m_Bytes + position, text.m_Length - position};
}

#ifdef __SSE2__
/// Bits of the bytes among the 16 at `bytes` that have an entity.
int entitiesAmong16(char const* bytes) {
    __m128i const block = _mm_loadu_si128(reinterpret_cast<__m128i const*>(bytes));
    __m128i found = _mm_setzero_si128();
    for (Entity const& entity : kEntities) {
        found = _mm_or_si128(found, _mm_cmpeq_epi8(block, _mm_set1_epi8(entity.m_Character)));
    }
    return _mm_movemask_epi8(found);
}
#endif

}  // namespace

std::uint32_t xmlPlainLength(xmlSlice text) noexcept {
    std::uint32_t position = 0;
#ifdef __SSE2__
    for (; text.m_Length - position >= 16; position += 16) {
        int const found = entitiesAmong16(text.m_Bytes + position);
        if (found != 0) {
            return position + static_cast<std::uint32_t>(__builtin_ctz(static_cast<unsigned>(found)));
        }
    }
#endif
    while (position < text.m_Length && entityFor(text.m_Bytes[position]) == nullptr) {
        ++position;
    }
    return position;
}

bool xmlIsEncoded(xmlSlice text) noexcept {
    std::uint32_t position = xmlPlainLength(text);
    while (position < text.m_Length) {
        // Of the five, an encoded text has ampersands only, and each begins one of the names.
        std::uint32_t const end = endOfName(text, position);
        if (end == text.m_Length || text.m_Bytes[end] != ';' ||
            entityNamed({text.m_Bytes + position, end - position}) == nullptr) {
            return false;
        }
        position = end + 1;
        position += xmlPlainLength(partFrom(text, position));
    }
    return true;
}

std::uint64_t xmlEncodedLength(xmlSlice text) noexcept {
    std::uint64_t length = text.m_Length;
    for (std::uint32_t position = xmlPlainLength(text); position < text.m_Length;) {
        length += TCSLEN(entityFor(text.m_Bytes[position])->m_Name);  // the semicolon is the character's own byte
        ++position;
        position += xmlPlainLength(partFrom(text, position));
    }
    return length;
}

char* xmlEncodeTo(xmlSlice text, char* target) noexcept {
    for (std::uint32_t position = 0; position < text.m_Length; ++position) {
        std::uint32_t const plain = xmlPlainLength(partFrom(text, position));
        std::memcpy(target, text.m_Bytes + position, plain);
        target += plain;
        position += plain;
        if (position < text.m_Length) {
            char const* const name = entityFor(text.m_Bytes[position])->m_Name;
            std::memcpy(target, name, TCSLEN(name));
            target += TCSLEN(name);
            *target++ = ';';
        }
    }
    return target;
}

void xmlDecodeInto(xmlPart part, TbString& out) {
    if (part.m_IsSecret) {
        out.keepSecret();
    }
    xmlSlice const text = part.m_Text;
    for (std::uint32_t position = 0; position < text.m_Length;) {
        std::uint32_t const plain = position;
        void const* const hit = std::memchr(text.m_Bytes + position, '&', text.m_Length - position);
        position =
            hit == nullptr ? text.m_Length : static_cast<std::uint32_t>(static_cast<char const*>(hit) - text.m_Bytes);
        out.append(text.m_Bytes + plain, position - plain);
        if (position < text.m_Length) {
            position = decodeEntity(text, position, out);
        }
    }
}

void XMLEncode(TbString const& in, TbString& out) {
    TbString encoded;
    encoded.joinSecrecyOf(in);
    xmlSlice const text = xmlSliceOf(in);
    for (std::uint32_t position = 0; position < text.m_Length; ++position) {
        std::uint32_t const plain = xmlPlainLength(partFrom(text, position));
        encoded.append(text.m_Bytes + position, plain);
        position += plain;
        if (position < text.m_Length) {
            encoded.append(entityFor(text.m_Bytes[position])->m_Name);
            encoded.append(';');
        }
    }
    out = encoded;
}

void XMLDecode(TbString const& in, TbString& out) {
    TbString decoded;
    xmlDecodeInto(xmlPartOf(in), decoded);
    out = decoded;
}
