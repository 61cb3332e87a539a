// The names of outcomes and reasons.
#include "tallowin/ledger.h"

namespace {

struct NameRow {
    int32_t m_Value;
    char const* m_Name;
};

// clang-format off
constexpr NameRow kOutcomes[] = {
    {KVX_LEDGER_REFUSED,       "REFUSED"},
    {KVX_LEDGER_PAID_NOW,      "PAID_NOW"},
    {KVX_LEDGER_KNOWN_ALREADY, "KNOWN_ALREADY"},
    {KVX_LEDGER_NOT_PAID,      "NOT_PAID"},
    {KVX_LEDGER_SURPLUS,       "SURPLUS"},
    {KVX_LEDGER_KEPT,          "KEPT"},
};

constexpr NameRow kReasons[] = {
    {KVX_LEDGER_REASON_NONE,            "NONE"},
    {KVX_LEDGER_REASON_TOO_LARGE,       "TOO_LARGE"},
    {KVX_LEDGER_REASON_FORMAT,          "FORMAT"},
    {KVX_LEDGER_REASON_NO_SIGNATURE,    "NO_SIGNATURE"},
    {KVX_LEDGER_REASON_NO_KEY_ID,       "NO_KEY_ID"},
    {KVX_LEDGER_REASON_BAD_SIGNATURE,   "BAD_SIGNATURE"},
    {KVX_LEDGER_REASON_OWN_KEY,         "OWN_KEY"},
    {KVX_LEDGER_REASON_NOT_SERVICE_KEY, "NOT_SERVICE_KEY"},
    {KVX_LEDGER_REASON_WRONG_TYPE,      "WRONG_TYPE"},
    {KVX_LEDGER_REASON_UNKNOWN_TOKEN,   "UNKNOWN_TOKEN"},
    {KVX_LEDGER_REASON_WRONG_ORDER,     "WRONG_ORDER"},
    {KVX_LEDGER_REASON_WRONG_AMOUNT,    "WRONG_AMOUNT"},
    {KVX_LEDGER_REASON_WRONG_CURRENCY,  "WRONG_CURRENCY"},
    {KVX_LEDGER_REASON_WRONG_RESULT,    "WRONG_RESULT"},
    {KVX_LEDGER_REASON_TOO_LATE,        "TOO_LATE"},
    {KVX_LEDGER_REASON_OTHER_PAYMENT,   "OTHER_PAYMENT"},
    {KVX_LEDGER_REASON_CONTRADICTS,     "CONTRADICTS"},
    {KVX_LEDGER_REASON_UNKNOWN_KEY,     "UNKNOWN_KEY"},
    {KVX_LEDGER_REASON_KEPT_FULL,       "KEPT_FULL"},
};
// clang-format on

template <class Rows>
char const* nameIn(Rows const& rows, int32_t value) {
    for (NameRow const& row : rows) {
        if (row.m_Value == value) {
            return row.m_Name;
        }
    }
    return "";
}

}  // namespace

char const* Ledger_GetOutcomeName(int32_t outcome) {
    return nameIn(kOutcomes, outcome);
}

char const* Ledger_GetReasonName(int32_t reason) {
    return nameIn(kReasons, reason);
}
