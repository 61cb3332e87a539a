#include "tools/fingerprint.h"

#include <openssl/evp.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <vector>

namespace tool {

namespace {

constexpr std::size_t kMaxBytes = 65536;
constexpr char const* kDigits = "0123456789abcdef";

/// The value of a hexadecimal digit; 16 for any other character.
unsigned valueOf(char digit) {
    char const lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + ('a' - 'A')) : digit;
    std::size_t const at = std::string(kDigits).find(lower);
    return at == std::string::npos ? 16 : static_cast<unsigned>(at);
}

/// False when a character of `text` is no digit or one digit is left over.
bool fromHex(std::string const& text, std::vector<unsigned char>& bytes) {
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        unsigned const high = valueOf(text[at]);
        unsigned const low = valueOf(text[at + 1]);
        if (high > 15 || low > 15) {
            return false;
        }
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return !text.empty() && text.size() % 2 == 0;
}

}  // namespace

std::string fingerprintOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxBytes, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    text.resize(text.find_last_not_of('\0') + 1);  // A file that was written in place may end in zero bytes.
    std::vector<unsigned char> key;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (!fromHex(text, key) || EVP_Digest(key.data(), key.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return "";
    }
    std::string out;
    for (unsigned index = 0; index < length; ++index) {
        out += kDigits[digest[index] >> 4U];
        out += kDigits[digest[index] & 15U];
    }
    return out;
}

}  // namespace tool
