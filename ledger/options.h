/// The options of a ledger handle.
#ifndef TALLOWIN_LEDGER_OPTIONS_H
#define TALLOWIN_LEDGER_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

namespace ledger {

/// Milliseconds since 1970 in UTC.
using Time = std::int64_t;

inline constexpr Time kSecond = 1000;

/// How far the clocks of workers on one store may be apart, and more than the time between a look at the clock and one
/// at the store. What is due later than any pause from now, plus this, was stored by a clock that was set back since.
inline constexpr Time kMaxClockSkew = 3600 * kSecond;

/// Names, defaults and meanings stand at Ledger_SetOption.
struct Options {
    bool m_Capture = true;
    bool m_Complete = false;
    bool m_CaptureIdempotent = false;
    bool m_Jitter = true;
    bool m_Acknowledge = false;
    std::string m_StatusType;
    std::string m_StatusAttribute = "STATE";
    std::string m_ResultAttribute = "RESULT";
    std::string m_Opened = "opened";
    std::string m_Authorised = "authorised";
    std::string m_Captured = "captured";
    std::string m_Completed = "completed";
    std::string m_Declined = "declined";
    std::string m_Cancelled = "cancelled";
    std::string m_Expired = "expired";
    std::string m_Lapsed = "lapsed";
    std::string m_KeySecret;
    std::int64_t m_GraceSeconds = 300;
    std::int64_t m_AcceptSeconds = 2592000;
    std::int64_t m_OldKeySeconds = 604800;
    std::int64_t m_LeaseSeconds = 300;
    std::int64_t m_SettleSeconds = 60;
    std::int64_t m_RetryBase = 10;
    std::int64_t m_RetryMax = 3600;
    std::int64_t m_MaxRefusals = 5;
    std::int64_t m_MaxAsks = 10;
    std::int64_t m_MaxData = 20000;
    std::int64_t m_KeptEach = 4;
    std::int64_t m_MaxKept = 10000;
    std::int64_t m_BusySeconds = 10;
    std::optional<Time> m_Now;

    /// Sets the option `name`. Throws Failure (KVX_E_INVALID_OPTION) when there is none or it does not take `value`.
    void set(std::string const& name, std::string const& value);

    /// The time: the system's, unless NOW is set. It may jump in both directions between two calls.
    [[nodiscard]] Time now() const;

    /// Whether the service can be asked for the state of a payment.
    [[nodiscard]] bool canAsk() const { return !m_StatusType.empty(); }
};

}  // namespace ledger

#endif
