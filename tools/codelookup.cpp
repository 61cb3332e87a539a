// Names come from the library and from the catalogue, numbers from the command line in each form in which programs
// print them: C prints a code as -2147220979, Python or a shell as 2147746317, logs as 0x8004020D.

#include "tools/codelookup.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <optional>

#include "tools/toolfailure.h"

namespace tool {

namespace {

constexpr std::uint32_t kNumberMask = (1U << errortable::kNumberBits) - 1;
// TLS: numbers from here on are those of X509_verify_cert_error_string, smaller ones are reasons of OpenSSL's errors.
constexpr std::uint32_t kFirstCertificateError = 0x800;
constexpr std::size_t kHexadecimalDigits = 8;

std::uint32_t numberInFamily(std::int32_t code) {
    return static_cast<std::uint32_t>(code) & kNumberMask;
}

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool isSameName(std::string const& left, std::string const& right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(),
                                                     [](char one, char other) { return lower(one) == lower(other); });
}

bool consistsOf(std::string const& text, char const* characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

std::optional<std::int32_t> codeIn(std::string const& digits, int base, bool isNegative) {
    errno = 0;
    long long const number = std::strtoll(digits.c_str(), nullptr, base) * (isNegative ? -1 : 1);
    bool const fits =
        number >= std::numeric_limits<std::int32_t>::min() && number <= std::numeric_limits<std::uint32_t>::max();
    return errno == 0 && fits ? std::optional(static_cast<std::int32_t>(static_cast<std::uint32_t>(number)))
                              : std::nullopt;
}

/// The number in `text`; nothing when it is no number or does not fit into 32 bits.
std::optional<std::int32_t> numberIn(std::string const& text) {
    constexpr char const* kDecimal = "0123456789";
    constexpr char const* kHexadecimal = "0123456789abcdefABCDEF";
    bool const isNegative = !text.empty() && text[0] == '-';
    std::string const digits = text.substr(isNegative ? 1 : 0);
    bool const hasPrefix = digits.size() > 2 && digits[0] == '0' && lower(digits[1]) == 'x';
    if (hasPrefix && consistsOf(digits.substr(2), kHexadecimal)) {
        return codeIn(digits.substr(2), 16, isNegative);
    }
    // Every code of the library begins with 8, so eight such digits without 0x are hexadecimal: no decimal number of
    // this size is a code.
    if (!isNegative && digits.size() == kHexadecimalDigits && digits[0] == '8' && consistsOf(digits, kHexadecimal)) {
        return codeIn(digits, 16, false);
    }
    return consistsOf(digits, kDecimal) ? codeIn(digits, 10, isNegative) : std::nullopt;
}

std::string tlsLabel(std::uint32_t number) {
    if (number >= kFirstCertificateError) {
        return X509_verify_cert_error_string(static_cast<long>(number - kFirstCertificateError));
    }
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
    char const* const reason = ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, number));
    return reason == nullptr ? "" : reason;
}

}  // namespace

bool isFamily(std::int32_t code) {
    return std::any_of(std::begin(errortable::kFamilies), std::end(errortable::kFamilies),
                       [code](errortable::Row const& row) { return row.m_Code == code; });
}

errortable::Row const* rowOf(std::int32_t code) {
    errortable::Row const* const row = errortable::find(code);
    bool const isUnusedErrno = code > 0 && codeName(code).empty();
    return isUnusedErrno ? nullptr : row;
}

std::string labelOf(std::int32_t code) {
    errortable::Row const* const row = rowOf(code);
    if (row == nullptr || isFamily(code)) {
        return "";
    }
    switch (row->m_Code) {
        case KVX_E_HTTP_FAMILY:
            return "HTTP status " + std::to_string(numberInFamily(code));
        case KVX_E_SOCKET_FAMILY:
            return "error number " + std::to_string(numberInFamily(code));
        case KVX_E_TLS_FAMILY:
            return tlsLabel(numberInFamily(code));
        default:
            return row->m_Label;
    }
}

std::vector<std::int32_t> codesNamed(std::string const& text) {
    if (std::optional<std::int32_t> const code = numberIn(text)) {
        return rowOf(*code) == nullptr ? std::vector<std::int32_t>{} : std::vector<std::int32_t>{*code};
    }
    std::vector<std::int32_t> codes;
    if (text.empty()) {
        return codes;
    }
    for (errortable::Row const& row : errortable::kCodes) {
        if (row.m_Code <= 0 && isSameName(text, *row.m_Label == '\0' ? row.m_Name : row.m_Label)) {
            codes.push_back(row.m_Code);
        }
    }
    for (errortable::Row const& row : errortable::kFamilies) {
        if (isSameName(text, row.m_Name)) {
            codes.push_back(row.m_Code);
        }
    }
    for (std::int32_t number = 1; number <= static_cast<std::int32_t>(kNumberMask); ++number) {
        if (isSameName(text, codeName(number))) {
            codes.push_back(number);
        }
    }
    return codes;
}

}  // namespace tool
