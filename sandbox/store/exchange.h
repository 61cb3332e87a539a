#ifndef TALLOWIN_SANDBOX_STORE_EXCHANGE_H
#define TALLOWIN_SANDBOX_STORE_EXCHANGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/faults/exchangekind.h"

namespace sandbox {

/// One step of looking at a request: what was looked at, what was found, and whether that is as it should be.
struct CheckStep {
    std::string what;
    std::string found;
    bool good = true;
};

/// One request to the protocol's addresses, or to the proxy, and what the service thought of it. The texts are bytes
/// without an encoding.
struct Exchange {
    std::int64_t number = 0;  ///< Counts up from 1.
    std::string time;         ///< UTC, "2024-01-31T23:59:07Z".
    ExchangeKind kind = ExchangeKind::Other;
    std::string order;              ///< ORDERID of the payment it is about, as far as that could be told.
    std::string path;               ///< Without the query.
    std::string data;               ///< DATA, decoded; empty when it was missing or could not be decoded.
    std::string signature;          ///< SIGNATURE as it came.
    std::string verdict;            ///< "ok", or the reason of the refusal.
    std::vector<CheckStep> steps;   ///< How the verdict came about.
    std::string request;            ///< As it came, head and body, the password covered; cut when it is very long.
    std::string answer;             ///< As it was made, before any fault; cut when it is very long.
    std::string fault;              ///< The fault that happened to it, as faultText() writes it; empty without.
    std::string delivery;           ///< What the other side got of the answer when a fault happened; empty without.
    std::int64_t microseconds = 0;  ///< From the complete request to the complete answer.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_EXCHANGE_H
