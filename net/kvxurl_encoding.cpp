#include <endian.h>

#include <array>
#include <cstring>

#include "core/kvxpercent.h"
#include "net/kvxurl.h"

// On the wire. Do not change.
char const base64_table[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

namespace {

/// How many of the bytes come before the first that is zero or has its top bit set.
std::uint32_t sevenBitLength(char const* bytes, std::uint32_t length) {
    std::uint32_t at = 0;
    for (; length - at >= sizeof(std::uint64_t); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + at, sizeof word);
        if ((((word - 0x0101010101010101U) | word) & 0x8080808080808080U) != 0) {
            break;  // one of these
        }
    }
    while (at<length&& static_cast<signed char>(bytes[at])> 0) {
        ++at;
    }
    return at;
}

/// The two characters of each twelve bits.
constexpr auto kCharacterPairs = [] {
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::array<char[2], 4096> pairs{};
    for (std::size_t bits = 0; bits < pairs.size(); ++bits) {
        pairs[bits][0] = kAlphabet[bits >> 6];
        pairs[bits][1] = kAlphabet[bits & 0x3F];
    }
    return pairs;
}();

/// The four characters of three bytes.
void encodeGroup(char* to, char const* bytes) {
    auto const byte = [bytes](int index) { return unsigned{static_cast<unsigned char>(bytes[index])}; };
    unsigned const group = byte(0) << 16 | byte(1) << 8 | byte(2);
    std::memcpy(to, kCharacterPairs[group >> 12], 2);
    std::memcpy(to + 2, kCharacterPairs[group & 0xFFFU], 2);
}

/// The eight characters of six bytes. Two bytes more are read.
void encodeTwoGroups(char* to, char const* bytes) {
    constexpr std::uint64_t kPair = 0xFFF;
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    word = be64toh(word);
    std::memcpy(to, kCharacterPairs[word >> 52U], 2);
    std::memcpy(to + 2, kCharacterPairs[word >> 40U & kPair], 2);
    std::memcpy(to + 4, kCharacterPairs[word >> 28U & kPair], 2);
    std::memcpy(to + 6, kCharacterPairs[word >> 16U & kPair], 2);
}

}  // namespace

void UrlEncode(TbStringStream* in, TbStringStream* out) {
    out->joinSecrecyOf(*in);
    auto const length = static_cast<std::uint32_t>(::strnlen(in->unread(), in->unreadLength()));
    if (length != 0) {
        kvxPercentEncode(*in, static_cast<std::uint32_t>(in->unread() - in->buffer()), length, *out);
        in->skip(length);
        out->put("");  // there is something to read
    }
    char end = '\0';
    in->get(end);  // the zero byte, or the flag
}

void Base64Encode(TbStringStream* in, TbStringStream* out) {
    out->joinSecrecyOf(*in);
    std::uint32_t const length = sevenBitLength(in->unread(), in->unreadLength());
    // Deliberate (base64-without-padding): the end is checked after a whole group only, so there is always a group that
    // holds it.
    std::uint32_t const fullGroups = length / 3;
    TbStringWriter writer(*out, 4 * (std::uint64_t{fullGroups} + 1));
    char* to = writer.begin();
    char const* from = in->unread();
    std::uint32_t left = fullGroups;
    for (; left > 2; left -= 2, from += 6, to += 8) {
        encodeTwoGroups(to, from);
    }
    for (; left > 0; --left, from += 3, to += 4) {
        encodeGroup(to, from);
    }
    char rest[3] = {};
    std::memcpy(rest, from, length % 3);
    encodeGroup(to, rest);
    writer.endPieces(to + 4, 4);
    writer.finish(to + 4);
    out->put("");  // there is something to read
    in->skip(length);
    char end = '\0';
    in->get(end);  // what ended the text, or the flag
}
