// Encodings, identifiers and time stamps.
//
// Percent-encoding asks the current locale which bytes are letters and digits. Texts are sized before they are written;
// so no outgrown copy of a key stays in memory, and key text that is read is wiped. A new identifier prints the bytes
// of a UUID in the order of a little-endian structure, which others parse. Time stamps clamp to the years 0 to 9999.

#include "core/kvxctx_conversions.h"

#include <uuid/uuid.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/kvxctx.h"
#include "core/kvxpercent.h"
#include "foundation/tbexception.h"
#include "foundation/tbforkgate.h"
#include "foundation/tbstringwriter.h"
#include "foundation/tbsystem.h"

namespace {

using DigitPairs = std::array<char[2], 256>;

/// The two lower-case hexadecimal digits of each byte.
constexpr DigitPairs kDigitPairs = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    DigitPairs pairs{};
    for (std::size_t byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte][0] = kDigits[byte >> 4];
        pairs[byte][1] = kDigits[byte & 0x0F];
    }
    return pairs;
}();

/// The value of each hexadecimal digit; -1 for other bytes.
constexpr std::array<signed char, 256> kDigitValues = [] {
    std::array<signed char, 256> values{};
    for (std::size_t byte = 0; byte < values.size(); ++byte) {
        values[byte] = -1;
    }
    for (signed char digit = 0; digit < 16; ++digit) {
        values[static_cast<unsigned char>("0123456789abcdef"[digit])] = digit;
        values[static_cast<unsigned char>("0123456789ABCDEF"[digit])] = digit;
    }
    return values;
}();

int valueOfHexDigit(char digit) {
    return kDigitValues[static_cast<unsigned char>(digit)];
}

/// The index of the identifier's byte at each place of its text: the leading fields are read as little-endian numbers.
/// Other programs parse these identifiers. Do not change.
constexpr int kUuidOrder[] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

// The first second of year 0 and the last of year 9999, in UTC.
constexpr double kFirstTime = -62167219200.0;
constexpr double kLastTime = 253402300799.0;

constexpr std::int64_t kSecondsOfDay = 86400;

struct Date {
    int m_Year;
    int m_Month;  ///< From 1.
    int m_Day;    ///< From 1.
};

bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

/// The date that is `days` after 1 January of year 0. Not gmtime_r: its lock, which every thread of the host that
/// converts a time holds for a moment, is never free again in a child of a fork at that moment.
Date dateOf(std::int64_t days) {
    constexpr int kDaysOf400Years = 146097;
    constexpr int kDaysOfMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int year = 400 * static_cast<int>(days / kDaysOf400Years);
    auto left = static_cast<int>(days % kDaysOf400Years);
    for (int length = 366; left >= length; length = isLeapYear(year) ? 366 : 365) {
        left -= length;
        ++year;
    }
    int month = 0;
    for (int length = 31; left >= length; length = kDaysOfMonth[month] + (month == 1 && isLeapYear(year) ? 1 : 0)) {
        left -= length;
        ++month;
    }
    return {year, month + 1, left + 1};
}

}  // namespace

TbString KVX_Context::Encode(TbString const& text) {
    TbString encoded("");
    encoded.joinSecrecyOf(text);
    kvxPercentEncode(text, 0, text.length(), encoded);
    return encoded;
}

TbString KVX_Context::BufferToHex(unsigned char* buffer, unsigned long length) {
    TbString hex;
    kvxHexInto(hex, buffer, length);
    return hex;
}

void kvxHexInto(TbString& hex, unsigned char const* buffer, unsigned long length) {
    if (length > TbString::npos / 2) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    hex.append("");
    if (length != 0) {
        TbStringWriter writer(hex, 2 * std::uint64_t{length});
        char* to = writer.begin();
        for (unsigned long i = 0; i < length; ++i, to += 2) {
            std::memcpy(to, kDigitPairs[buffer[i]], 2);
        }
        writer.endPiece(to);
        writer.finish(to);
    }
}

std::int32_t kvxHexToBytes(char const* hex, std::uint32_t length, unsigned char* buffer, unsigned long* size) noexcept {
    bool const fits = (std::uint64_t{length} + 1) / 2 <= *size;
    auto const last = fits ? length : static_cast<std::uint32_t>(2 * *size);
    char const* const endOfPairs = hex + last / 2 * 2;
    for (; hex != endOfPairs; hex += 2) {
        int const value = valueOfHexDigit(hex[0]) * 16 | valueOfHexDigit(hex[1]);
        if (value < 0) {
            return KVX_E_COMMAND_FAILED;  // Deliberate (bad-digit-command-failed): the text fits badly
        }
        *buffer++ = static_cast<unsigned char>(value);
    }
    if (last % 2 != 0 && valueOfHexDigit(*hex) < 0) {
        return KVX_E_COMMAND_FAILED;
    }
    if (!fits) {
        return KVX_E_BUFFER_TOO_SMALL;
    }
    *size = length / 2;
    return KVX_OK;
}

std::int32_t KVX_Context::HexToBuffer(TbString hex, unsigned char* buffer, unsigned long* size) {
    hex.keepSecret();
    return kvxHexToBytes(hex.c_str(), hex.length(), buffer, size);
}

void KVX_Context::SlToBackSl(TbString& text) {
    for (std::uint32_t i = 0; i < text.length(); ++i) {
        if (text[i] == '/') {
            text[i] = '\\';
        }
    }
}

TbString KVX_Context::CreateUuid() {
    TbString text;
    kvxUuidInto(text);
    return text;
}

void kvxUuidInto(TbString& text) {
    uuid_t bytes;
    {
        TbForkGate const gate;  // libuuid seeds the C library's random numbers, which have a lock
        uuid_generate(bytes);
    }
    text.append("");  // the capacity of the text is that of one that grew from nothing
    for (int const index : kUuidOrder) {
        text.append(kDigitPairs[bytes[index]], 2);
    }
}

TbString GetTimeDate(double seconds) {
    TbString text;
    kvxTimeDateInto(seconds, text);
    return text;
}

void kvxTimeDateInto(double seconds, TbString& text) {
    // Truncated before it is added: -0.9 is no second less.
    double const offset = std::isfinite(seconds) ? std::trunc(seconds) : 0.0;
    double const moment = static_cast<double>(tbSystem().time(nullptr)) + offset;
    auto const sinceYear0 = static_cast<std::int64_t>(std::fmin(std::fmax(moment, kFirstTime), kLastTime) - kFirstTime);
    Date const date = dateOf(sinceYear0 / kSecondsOfDay);
    auto const second = static_cast<int>(sinceYear0 % kSecondsOfDay);
    char digits[80];
    std::snprintf(digits, sizeof digits, "%04d%02d%02d %02d:%02d:%02d", date.m_Year, date.m_Month, date.m_Day,
                  second / 3600, second / 60 % 60, second % 60);
    text.assign(digits);
}
