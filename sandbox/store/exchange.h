#ifndef TALLOWIN_SANDBOX_STORE_EXCHANGE_H
#define TALLOWIN_SANDBOX_STORE_EXCHANGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/faults/exchangekind.h"

namespace sandbox {

/// One step of looking at a request: what was looked at, what was found, and whether that is as it should be.
struct CheckStep {
    std::string m_What;
    std::string m_Found;
    bool m_Good = true;
    bool m_Warning = false;  ///< The request is odd and was accepted all the same.
};

/// One request to the protocol's addresses, or to the proxy, and the verdict of the service. The texts are bytes
/// without an encoding.
struct Exchange {
    std::int64_t m_Number = 0;  ///< Counts up from 1.
    std::string m_Time;         ///< UTC, "2024-01-31T23:59:07Z".
    ExchangeKind m_Kind = ExchangeKind::kOther;
    std::string m_Account;            ///< Account of the merchant it is about, when that is known.
    std::string m_Order;              ///< ORDERID of the payment it is about, when that is known.
    std::string m_Token;              ///< TOKEN of the message, or of the payment that a form decides on.
    std::string m_Payment;            ///< Identifier of the payment it is about, when that is known.
    std::string m_Path;               ///< Without the query.
    std::string m_Data;               ///< DATA, decoded; empty when it was missing or could not be decoded.
    std::string m_Signature;          ///< SIGNATURE as it came.
    std::string m_Verdict;            ///< "ok", or the reason of the error.
    std::vector<CheckStep> m_Steps;   ///< How the verdict came about.
    std::string m_Request;            ///< As it came, head and body, the password covered; cut when it is very long.
    std::string m_Response;           ///< As it was made, before any fault; cut when it is very long.
    std::string m_Fault;              ///< The fault that happened to it, as faultText() writes it; empty without.
    std::string m_Delivery;           ///< What was sent of the response when a fault applied; empty without.
    std::int64_t m_Microseconds = 0;  ///< From the complete request to the complete response.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_STORE_EXCHANGE_H
