/// Decimal numbers in responses and settings. Internal: not installed.
#ifndef TALLOWIN_NET_KVXDECIMAL_H
#define TALLOWIN_NET_KVXDECIMAL_H

#include <cstdint>
#include <limits>

/// Reads a number as `atoi` does (white space, one sign, digits; 0 without digits), but a number that does not fit
/// becomes INT32_MAX or INT32_MIN.
[[nodiscard]] inline std::int32_t DecimalNumber(char const* text) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    while (*text == ' ' || (*text >= '\t' && *text <= '\r')) {
        ++text;
    }
    bool const negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    std::int64_t number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        number = number * 10 + (*text - '0');
        if (number > Limits::max()) {
            return negative ? Limits::min() : Limits::max();
        }
    }
    return static_cast<std::int32_t>(negative ? -number : number);
}

#endif
