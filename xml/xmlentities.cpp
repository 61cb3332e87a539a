// Encoding and decoding of the five entities.
//
// Encoding replaces five characters. Decoding looks at a window of five bytes from each ampersand on: a known name in
// it becomes its character, any other vanishes, with the rules that the header states for XMLDecode. Both build the
// result in a string of their own, so input and output may be one string.

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

/// The entity to be written for `character`; null for a character that is written as it is.
Entity const* entityFor(char character) {
    for (Entity const& entity : kEntities) {
        if (entity.m_Character == character) {
            return &entity;
        }
    }
    return nullptr;
}

/// The row whose name is exactly the `length` bytes at `text`, or null.
Entity const* entityNamed(char const* text, std::uint32_t length) {
    for (Entity const& entity : kEntities) {
        if (TCSLEN(entity.m_Name) == length && std::memcmp(entity.m_Name, text, length) == 0) {
            return &entity;
        }
    }
    return nullptr;
}

/// The end of an unknown entity that fills the window from `ampersand` to `end`: the position of its semicolon, or
/// `end` when no name up to a semicolon follows the ampersand. Never reads beyond a second ampersand.
std::uint32_t endOfUnknown(TbString const& in, std::uint32_t ampersand, std::uint32_t end) {
    std::uint32_t position = ampersand + 1;
    while (position < in.length() && (isAlnum(in[position]) != 0 || in[position] == '#')) {
        ++position;
    }
    return position > end && position < in.length() && in[position] == ';' ? position : end;
}

/// Decodes the entity at `position` into `out`. Returns the position after it.
std::uint32_t decodeEntity(TbString const& in, std::uint32_t position, TbString& out) {
    std::uint32_t end = position + 1;
    while (end < in.length() && in[end] != ';' && end - position < kWindow) {
        ++end;
    }
    Entity const* const entity = entityNamed(in.c_str() + position, end - position);
    if (entity != nullptr) {
        out.append(entity->m_Character);
    } else if (end - position == kWindow) {
        end = endOfUnknown(in, position, end);
    }
    return end < in.length() ? end + 1 : end;
}

/// The first position at or after `from` at which `stops` holds, or the length.
template <class Predicate>
std::uint32_t skipUntil(TbString const& in, std::uint32_t from, Predicate stops) {
    while (from < in.length() && !stops(in[from])) {
        ++from;
    }
    return from;
}

void encodeInto(TbString const& in, TbString& out) {
    for (std::uint32_t position = 0; position < in.length(); ++position) {
        std::uint32_t const plain = position;
        position = skipUntil(in, position, [](char character) { return entityFor(character) != nullptr; });
        out.append(in.c_str() + plain, position - plain);
        if (position < in.length()) {
            out.append(entityFor(in[position])->m_Name);
            out.append(';');
        }
    }
}

void decodeInto(TbString const& in, TbString& out) {
    for (std::uint32_t position = 0; position < in.length();) {
        std::uint32_t const plain = position;
        position = skipUntil(in, position, [](char character) { return character == '&'; });
        out.append(in.c_str() + plain, position - plain);
        if (position < in.length()) {
            position = decodeEntity(in, position, out);
        }
    }
}

}  // namespace

void XMLEncode(TbString const& in, TbString& out) {
    TbString encoded;
    encoded.joinSecrecyOf(in);
    encodeInto(in, encoded);
    out = encoded;
}

void XMLDecode(TbString const& in, TbString& out) {
    TbString decoded;
    decoded.joinSecrecyOf(in);
    decodeInto(in, decoded);
    out = decoded;
}
