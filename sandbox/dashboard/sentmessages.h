#ifndef TALLOWIN_SANDBOX_DASHBOARD_SENTMESSAGES_H
#define TALLOWIN_SANDBOX_DASHBOARD_SENTMESSAGES_H

#include <optional>
#include <string>

#include "sandbox/store/exchange.h"

namespace sandbox {

/// The message that a response contains.
struct SentMessage {
    std::string m_Label;  ///< What it is, for people.
    std::string m_Data;
    std::string m_Signature;  ///< Empty when it is not signed.
};

/// The confirmation in the return link of `exchange`, or on the page without one; else the message that is the body of
/// the response. Nothing when there is neither, or not all of it was stored.
std::optional<SentMessage> sentMessage(Exchange const& exchange);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_SENTMESSAGES_H
