// Texts for a virtual machine: any bytes become valid modified UTF-8, as the model has it, which decodes characters to
// numbers first and then writes the numbers.

#include <vector>

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "jni/kvxmodifiedutf8.h"

namespace kvxfuzz {

namespace {

using Codes = std::vector<std::uint32_t>;

/// The character of `length` bytes at `at`; false when the bytes do not have its shape.
bool decode(std::string const& text, std::size_t at, std::size_t length, std::uint32_t& code) {
    static std::uint32_t const s_LeadBits[] = {0, 0, 0xC0, 0xE0, 0xF0};
    static std::uint32_t const s_Masks[] = {0, 0, 0x1F, 0x0F, 0x07};
    if (at + length > text.size()) {
        return false;
    }
    auto const lead = static_cast<unsigned char>(text[at]);
    if ((lead & ~s_Masks[length] & 0xFFU) != s_LeadBits[length]) {
        return false;
    }
    code = lead & s_Masks[length];
    for (std::size_t i = 1; i < length; ++i) {
        auto const byte = static_cast<unsigned char>(text[at + i]);
        if (byte / 64 != 2) {
            return false;
        }
        code = code * 64 + byte % 64;
    }
    return true;
}

/// Whether a character may be written in that many bytes: the shortest form, and two bytes for U+0000.
bool isItsForm(std::uint32_t code, std::size_t length) {
    switch (length) {
        case 2:
            return code == 0 || code >= 0x80;
        case 3:
            return code >= 0x800;
        default:
            return code >= 0x10000 && code <= 0x10FFFF;
    }
}

Codes decoded(std::string const& text) {
    Codes codes;
    for (std::size_t at = 0; at < text.size();) {
        std::uint32_t code = static_cast<unsigned char>(text[at]);
        std::size_t length = 1;
        for (std::size_t longer = 2; longer <= 4; ++longer) {
            std::uint32_t candidate = 0;
            if (decode(text, at, longer, candidate) && isItsForm(candidate, longer)) {
                code = candidate;
                length = longer;
            }
        }
        codes.push_back(code);
        at += length;
    }
    return codes;
}

std::string encoded(Codes const& codes) {
    std::string result;
    auto const put = [&result](std::uint32_t byte) { result += static_cast<char>(byte); };
    auto const putUnit = [&put](std::uint32_t unit) {
        if (unit != 0 && unit < 0x80) {
            put(unit);
        } else if (unit < 0x800) {
            put(0xC0 + unit / 64);
            put(0x80 + unit % 64);
        } else {
            put(0xE0 + unit / 4096);
            put(0x80 + unit / 64 % 64);
            put(0x80 + unit % 64);
        }
    };
    for (std::uint32_t const code : codes) {
        if (code < 0x10000) {
            putUnit(code);
        } else {
            putUnit(0xD800 + (code - 0x10000) / 1024);
            putUnit(0xDC00 + (code - 0x10000) % 1024);
        }
    }
    return result;
}

}  // namespace

void runTarget(Input input) {
    std::string const text = upToZero(input.rest());
    TbString result("before");
    kvxToModifiedUtf8(text.c_str(), result);
    std::string const converted = textOf(result).substr(6);
    requireEqual(converted, encoded(decoded(text)), "text for a virtual machine");
    TbString again;
    kvxToModifiedUtf8(converted.c_str(), again);
    requireEqual(textOf(again), converted, "valid text stays");
}

}  // namespace kvxfuzz
