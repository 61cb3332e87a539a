#include "sandbox/text/utctime.h"

#include <cstddef>

namespace sandbox {

std::optional<std::time_t> parseExpiration(std::string const& text) {
    constexpr char kForm[] = "dddddddd dd:dd:dd";
    if (text.size() != sizeof(kForm) - 1) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const digit = text[i] >= '0' && text[i] <= '9';
        if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) {
            return std::nullopt;
        }
    }
    auto const number = [&text](std::size_t from, std::size_t count) { return std::stoi(text.substr(from, count)); };
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(4, 2) - 1;
    parts.tm_mday = number(6, 2);
    parts.tm_hour = number(9, 2);
    parts.tm_min = number(12, 2);
    parts.tm_sec = number(15, 2);
    std::tm normalised = parts;
    std::time_t const moment = timegm(&normalised);
    // timegm() turns the 31st of February into a day of March: what comes back changed was no date.
    bool const real = normalised.tm_year == parts.tm_year && normalised.tm_mon == parts.tm_mon &&
                      normalised.tm_mday == parts.tm_mday && normalised.tm_hour == parts.tm_hour &&
                      normalised.tm_min == parts.tm_min && normalised.tm_sec == parts.tm_sec;
    if (!real) {
        return std::nullopt;
    }
    return moment;
}

std::string utcText(std::time_t moment) {
    std::tm parts{};
    gmtime_r(&moment, &parts);
    char text[32] = "";
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string millisecondsText(std::int64_t microseconds) {
    return std::to_string(microseconds / 1000) + "." + std::to_string(microseconds % 1000 / 100) + " ms";
}

}  // namespace sandbox
