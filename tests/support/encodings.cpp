#include "tests/support/encodings.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <stdexcept>

namespace kvxtest {

std::string hexOf(Bytes const& bytes) {
    std::string digits;
    for (unsigned char const byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(byte));
        digits += two;
    }
    return digits;
}

Bytes bytesOfHex(std::string const& digits) {
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw std::invalid_argument("not hexadecimal: " + digits);
    }
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string percentEncoded(std::string const& text) {
    std::string encoded;
    for (char const c : text) {
        bool const plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        encoded += plain ? std::string(1, c) : "%" + hexOf({static_cast<unsigned char>(c)});
    }
    return encoded;
}

std::string percentDecoded(std::string const& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        std::string const digits = text.substr(i + 1, 2);
        bool const isEscape = digits.size() == 2 && digits.find_first_not_of("0123456789abcdef") == std::string::npos;
        EXPECT_TRUE(isEscape) << "%" << digits;
        if (isEscape) {
            decoded += static_cast<char>(bytesOfHex(digits).front());
        }
        i += 2;
    }
    return decoded;
}

std::string queryValue(std::string const& text, std::string const& name) {
    for (std::string const& lead : {"?" + name + "=", "&" + name + "="}) {
        std::size_t const at = text.find(lead);
        if (at != std::string::npos) {
            std::size_t const begin = at + lead.size();
            return text.substr(begin, text.find_first_of("&# \r\n", begin) - begin);
        }
    }
    return "";
}

}  // namespace kvxtest
