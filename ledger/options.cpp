#include "ledger/options.h"

#include <chrono>
#include <cstddef>
#include <limits>

#include "ledger/failure.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

struct SwitchRow {
    char const* m_Name;
    bool Options::*m_Member;
};

struct WordRow {
    char const* m_Name;
    std::string Options::*m_Member;
    bool m_MayBeEmpty;
};

struct NumberRow {
    char const* m_Name;
    std::int64_t Options::*m_Member;
};

// clang-format off
constexpr SwitchRow kSwitches[] = {
    {"CAPTURE",           &Options::m_Capture},
    {"COMPLETE",          &Options::m_Complete},
    {"CAPTUREIDEMPOTENT", &Options::m_CaptureIdempotent},
    {"JITTER",            &Options::m_Jitter},
    {"ACKNOWLEDGE",       &Options::m_Acknowledge},
};

constexpr WordRow kWords[] = {
    {"STATUSTYPE",      &Options::m_StatusType,      true},
    {"STATUSATTRIBUTE", &Options::m_StatusAttribute, false},
    {"RESULTATTRIBUTE", &Options::m_ResultAttribute, false},
    {"OPENED",          &Options::m_Opened,          false},
    {"AUTHORISED",      &Options::m_Authorised,      false},
    {"CAPTURED",        &Options::m_Captured,        false},
    {"COMPLETED",       &Options::m_Completed,       false},
    {"DECLINED",        &Options::m_Declined,        false},
    {"CANCELLED",       &Options::m_Cancelled,       false},
    {"EXPIRED",         &Options::m_Expired,         false},
    {"LAPSED",          &Options::m_Lapsed,          false},
};

constexpr NumberRow kNumbers[] = {
    {"GRACESECONDS",  &Options::m_GraceSeconds},
    {"ACCEPTSECONDS", &Options::m_AcceptSeconds},
    {"OLDKEYSECONDS", &Options::m_OldKeySeconds},
    {"LEASESECONDS",  &Options::m_LeaseSeconds},
    {"SETTLESECONDS", &Options::m_SettleSeconds},
    {"RETRYBASE",     &Options::m_RetryBase},
    {"RETRYMAX",      &Options::m_RetryMax},
    {"MAXREFUSALS",   &Options::m_MaxRefusals},
    {"MAXASKS",       &Options::m_MaxAsks},
    {"MAXDATA",       &Options::m_MaxData},
    {"KEPTEACH",      &Options::m_KeptEach},
    {"MAXKEPT",       &Options::m_MaxKept},
    {"BUSYSECONDS",   &Options::m_BusySeconds},
};
// clang-format on

constexpr std::int64_t kMaxNumber = std::numeric_limits<std::int32_t>::max();
constexpr std::size_t kMinSecret = 16;
constexpr std::int64_t kMaxTime = 9007199254740991;  // what JSON readers keep exactly

/// The whole number in `value`, from 0 to `max`; nothing when it is none.
std::optional<std::int64_t> numberIn(std::string const& value, std::int64_t max) {
    std::int64_t number = 0;
    for (char const digit : value) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        number = number * 10 + (digit - '0');
        if (number > max) {
            return std::nullopt;
        }
    }
    return value.empty() ? std::nullopt : std::optional<std::int64_t>(number);
}

[[noreturn]] void refuse(std::string const& name, std::string const& value) {
    throw Failure(KVX_E_INVALID_OPTION, "the option " + name + " does not take \"" + value + "\"");
}

}  // namespace

void Options::set(std::string const& name, std::string const& value) {
    for (SwitchRow const& row : kSwitches) {
        if (name == row.m_Name) {
            if (value != "0" && value != "1") {
                refuse(name, value);
            }
            this->*row.m_Member = value == "1";
            return;
        }
    }
    for (WordRow const& row : kWords) {
        if (name == row.m_Name) {
            if (value.empty() && !row.m_MayBeEmpty) {
                refuse(name, value);
            }
            this->*row.m_Member = value;
            return;
        }
    }
    for (NumberRow const& row : kNumbers) {
        if (name == row.m_Name) {
            std::optional<std::int64_t> const number = numberIn(value, kMaxNumber);
            if (!number) {
                refuse(name, value);
            }
            this->*row.m_Member = *number;
            return;
        }
    }
    if (name == "KEYSECRET") {
        if (!value.empty() && value.size() < kMinSecret) {
            throw Failure(KVX_E_INVALID_OPTION, "KEYSECRET has fewer than " + std::to_string(kMinSecret) + " bytes");
        }
        m_KeySecret = value;
        return;
    }
    if (name == "NOW") {
        std::optional<Time> const time = numberIn(value, kMaxTime);
        if (!time && !value.empty()) {
            refuse(name, value);
        }
        m_Now = time;
        return;
    }
    throw Failure(KVX_E_INVALID_OPTION, "there is no option \"" + name + "\"");
}

Time Options::now() const {
    if (m_Now) {
        return *m_Now;
    }
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
}

}  // namespace ledger
