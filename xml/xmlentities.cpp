// Encoding and decoding of the five entities.
//
// Encoding replaces five characters. Decoding looks at a window of five bytes from each ampersand on: a known name in
// it becomes its character, any other vanishes, with the rules that the header states for XMLDecode. Both build the
// result in a string of their own, so input and output may be one string.

#include "xml/xmlentities.h"

#include <array>
#include <cstring>

#include "xml/xmlelement.h"
#include "xml/xmlparser.h"
#include "xml/xmlscan.h"

namespace {

struct Entity {
    char m_Character;
    xmlSlice m_Text;  ///< With ampersand and semicolon.

    /// With the ampersand, without the semicolon.
    [[nodiscard]] xmlSlice name() const { return {m_Text.m_Bytes, m_Text.m_Length - 1}; }
};

constexpr Entity kEntities[] = {
    {'&', {"&amp;", 5}}, {'<', {"&lt;", 4}}, {'>', {"&gt;", 4}}, {'"', {"&quot;", 6}}, {'\'', {"&apos;", 6}}};

constexpr bool kAreLengthsRight = [] {
    bool areRight = true;
    for (Entity const& entity : kEntities) {
        areRight = areRight && entity.m_Text.m_Bytes[entity.m_Text.m_Length - 1] == ';' &&
                   entity.m_Text.m_Bytes[entity.m_Text.m_Length] == '\0';
    }
    return areRight;
}();
static_assert(kAreLengthsRight);

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
        if (entity.name().m_Length == name.m_Length &&
            std::memcmp(entity.m_Text.m_Bytes, name.m_Bytes, name.m_Length) == 0) {
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

}  // namespace

bool xmlHasEntity(char character) noexcept {
    return entityFor(character) != nullptr;
}

std::uint32_t xmlEntityLength(xmlSlice text) noexcept {
    for (Entity const& entity : kEntities) {
        xmlSlice const whole = entity.m_Text;
        if (text.m_Length >= whole.m_Length && std::memcmp(text.m_Bytes, whole.m_Bytes, whole.m_Length) == 0) {
            return whole.m_Length;
        }
    }
    return 0;
}

std::uint64_t xmlEncodedLength(xmlSlice text) noexcept {
    std::uint64_t length = text.m_Length;
    for (std::uint32_t position = xmlPlainLength(text); position < text.m_Length;) {
        length += entityFor(text.m_Bytes[position])->m_Text.m_Length - 1;
        ++position;
        position += xmlPlainLength(xmlPartFrom(text, position));
    }
    return length;
}

char* xmlEncodeTo(xmlSlice text, char* target) noexcept {
    for (std::uint32_t position = 0; position < text.m_Length; ++position) {
        std::uint32_t const plain = xmlPlainLength(xmlPartFrom(text, position));
        std::memcpy(target, text.m_Bytes + position, plain);
        target += plain;
        position += plain;
        if (position < text.m_Length) {
            xmlSlice const entity = entityFor(text.m_Bytes[position])->m_Text;
            std::memcpy(target, entity.m_Bytes, entity.m_Length);
            target += entity.m_Length;
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
        std::uint32_t const plain = xmlPlainLength(xmlPartFrom(text, position));
        encoded.append(text.m_Bytes + position, plain);
        position += plain;
        if (position < text.m_Length) {
            xmlSlice const name = entityFor(text.m_Bytes[position])->name();
            encoded.append(name.m_Bytes, name.m_Length);
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
