#ifndef TALLOWIN_SANDBOX_TEXT_UTCTIME_H
#define TALLOWIN_SANDBOX_TEXT_UTCTIME_H

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace sandbox {

/// The moment that an EXPIRATION like "20240131 23:59:07" (UTC) names; nothing when the text has another form or names
/// no real date.
std::optional<std::time_t> parseExpiration(std::string const& text);

/// A moment like "2024-01-31T23:59:07Z", for the history and the exchanges.
std::string utcText(std::time_t moment);

/// A span of time for people, "12.3 ms".
std::string millisecondsText(std::int64_t microseconds);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_UTCTIME_H
