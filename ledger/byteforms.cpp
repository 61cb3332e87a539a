#include "ledger/byteforms.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstddef>
#include <new>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned valueAt(std::string const& bytes, std::size_t index) {
    return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0;
}

/// The value of a hexadecimal digit; 16 for any other character.
unsigned digitValue(char digit) {
    char const lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit - 'A' + 'a') : digit;
    std::size_t const at = std::string(kHexDigits).find(lower);
    return at == std::string::npos ? 16 : static_cast<unsigned>(at);
}

std::string digestOf(std::string const& bytes, EVP_MD const* kind) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, kind, nullptr) != 1) {
        throw std::bad_alloc();
    }
    return std::string(digest, digest + length);
}

/// One DER element: tag, length, content.
std::string element(unsigned char tag, std::string const& content) {
    constexpr std::size_t kShortForm = 0x80;
    std::string length;
    if (content.size() < kShortForm) {
        length += static_cast<char>(content.size());
    } else {
        for (std::size_t rest = content.size(); rest != 0; rest >>= 8U) {
            length.insert(length.begin(), static_cast<char>(rest & 0xFFU));
        }
        length.insert(length.begin(), static_cast<char>(kShortForm | length.size()));
    }
    return static_cast<char>(tag) + length + content;
}

}  // namespace

std::string hexOf(std::string const& bytes) {
    std::string hex;
    for (char const byte : bytes) {
        auto const value = static_cast<unsigned char>(byte);
        hex += kHexDigits[value >> 4U];
        hex += kHexDigits[value & 15U];
    }
    return hex;
}

std::string bytesOf(std::string const& hex) {
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        unsigned const high = digitValue(hex[at]);
        unsigned const low = digitValue(hex[at + 1]);
        if (high > 15 || low > 15) {
            break;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

std::string base64Of(std::string const& bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        unsigned const group = valueAt(bytes, at) << 16U | valueAt(bytes, at + 1) << 8U | valueAt(bytes, at + 2);
        std::size_t const count = std::min<std::size_t>(bytes.size() - at, 3);
        for (std::size_t digit = 0; digit < 4; ++digit) {
            text += digit <= count ? kBase64Digits[group >> (18U - 6U * digit) & 63U] : '=';
        }
    }
    return text;
}

std::string sha1Of(std::string const& bytes) {
    return digestOf(bytes, EVP_sha1());
}

std::string sha256Of(std::string const& bytes) {
    return digestOf(bytes, EVP_sha256());
}

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
        throw Failure(KVX_E_CRYPTO, "there are no random numbers");
    }
    return bytes;
}

std::string widened(std::string const& text) {
    std::string units;
    units.reserve(text.size() * 2);
    for (char const byte : text) {
        units += byte;
        units += static_cast<unsigned char>(byte) >= 0x80 ? '\xff' : '\0';
    }
    return units;
}

std::string publicKeyPem(std::string const& der) {
    constexpr unsigned char kSequence = 0x30;
    constexpr unsigned char kBitString = 0x03;
    static std::string const kRsaEncryption("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01\x05\x00", 13);
    std::string const info =
        element(kSequence, element(kSequence, kRsaEncryption) + element(kBitString, std::string(1, '\0') + der));
    constexpr std::size_t kLine = 64;
    std::string const text = base64Of(info);
    std::string pem = "-----BEGIN PUBLIC KEY-----\n";
    for (std::size_t at = 0; at < text.size(); at += kLine) {
        pem += text.substr(at, kLine) + "\n";
    }
    return pem + "-----END PUBLIC KEY-----\n";
}

std::string printable(std::string const& text) {
    constexpr std::size_t kMaxBytes = 100;
    std::string shown = text.substr(0, kMaxBytes);
    std::replace_if(
        shown.begin(), shown.end(), [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    return text.size() > kMaxBytes ? shown + "..." : shown;
}

}  // namespace ledger
