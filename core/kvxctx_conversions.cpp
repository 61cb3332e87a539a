// Encodings, identifiers and time stamps.
//
// Percent-encoding asks the current locale which bytes are letters and digits. Key text is converted in buffers that
// are sized at once or wiped, so that no outgrown copy of a key stays in memory. A new identifier prints the bytes of a
// UUID in the order of a little-endian structure, which others parse. Time stamps clamp to the years 0 to 9999.

#include <uuid/uuid.h>

#include <cmath>
#include <cstdio>

#include "core/kvxctx.h"
#include "core/kvxpercent.h"
#include "foundation/tbexception.h"
#include "foundation/tbforkgate.h"
#include "foundation/tbsystem.h"

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void appendHex(TbString& text, unsigned char byte) {
    text.append(kHexDigits[byte >> 4]);
    text.append(kHexDigits[byte & 0x0F]);
}

/// 0 to 15, or -1.
int valueOfHexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
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
    for (std::uint32_t i = 0; i < text.length(); ++i) {
        KvxPercentEncoded const piece(static_cast<unsigned char>(text[i]));
        encoded.append(piece.m_Text, piece.m_Length);
    }
    return encoded;
}

TbString KVX_Context::BufferToHex(unsigned char* buffer, unsigned long length) {
    if (length > TbString::npos / 2) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    TbString hex("");
    // Grown at once, so that no outgrown copy of a key stays in memory.
    hex.grow(2 * static_cast<std::uint32_t>(length));
    for (unsigned long i = 0; i < length; ++i) {
        appendHex(hex, buffer[i]);
    }
    return hex;
}

std::int32_t KVX_Context::HexToBuffer(TbString hex, unsigned char* buffer, unsigned long* size) {
    hex.keepSecret();
    int high = 0;
    for (std::uint32_t i = 0; i < hex.length(); ++i) {
        if (i / 2 >= *size) {
            return KVX_E_BUFFER_TOO_SMALL;
        }
        int const value = valueOfHexDigit(hex[i]);
        if (value < 0) {
            return KVX_E_COMMAND_FAILED;  // Deliberate (bad-digit-command-failed): the text fits badly
        }
        if (i % 2 == 0) {
            high = value;
        } else {
            buffer[i / 2] = static_cast<unsigned char>(high * 16 + value);
        }
    }
    *size = hex.length() / 2;
    return KVX_OK;
}

void KVX_Context::SlToBackSl(TbString& text) {
    for (std::uint32_t i = 0; i < text.length(); ++i) {
        if (text[i] == '/') {
            text[i] = '\\';
        }
    }
}

TbString KVX_Context::CreateUuid() {
    uuid_t bytes;
    {
        TbForkGate const gate;  // libuuid seeds the C library's random numbers, which have a lock
        uuid_generate(bytes);
    }
    TbString text("");
    for (int const index : kUuidOrder) {
        appendHex(text, bytes[index]);
    }
    return text;
}

TbString GetTimeDate(double seconds) {
    // Truncated before it is added: -0.9 is no second less.
    double const offset = std::isfinite(seconds) ? std::trunc(seconds) : 0.0;
    double const moment = static_cast<double>(tbSystem().time(nullptr)) + offset;
    auto const sinceYear0 = static_cast<std::int64_t>(std::fmin(std::fmax(moment, kFirstTime), kLastTime) - kFirstTime);
    Date const date = dateOf(sinceYear0 / kSecondsOfDay);
    auto const second = static_cast<int>(sinceYear0 % kSecondsOfDay);
    char text[80];
    std::snprintf(text, sizeof text, "%04d%02d%02d %02d:%02d:%02d", date.m_Year, date.m_Month, date.m_Day,
                  second / 3600, second / 60 % 60, second % 60);
    return text;
}
