#ifndef TALLOWIN_EXAMPLES_SHOP_REQUESTERROR_H
#define TALLOWIN_EXAMPLES_SHOP_REQUESTERROR_H

#include <exception>
#include <string>
#include <utility>

#include "calllog.h"

namespace storefront {

/// The shop refuses a request. The error page shows title, message and library calls.
class RequestError : public std::exception {
public:
    /// The HTTP status of the error page.
    enum Status { kBadRequest = 400, kNotFound = 404, kServerError = 500, kUnavailable = 503 };

    RequestError(std::string title, std::string message, CallLog calls = {}, Status status = kBadRequest)
        : m_Title(std::move(title)), m_Message(std::move(message)), m_Calls(std::move(calls)), m_Status(status) {}

    [[nodiscard]] char const* what() const noexcept override { return m_Message.c_str(); }

    [[nodiscard]] std::string const& title() const { return m_Title; }

    /// Whole sentences for the visitor. May contain zero bytes when it quotes the request.
    [[nodiscard]] std::string const& message() const { return m_Message; }

    [[nodiscard]] CallLog const& calls() const { return m_Calls; }
    [[nodiscard]] Status status() const { return m_Status; }

private:
    std::string m_Title;
    std::string m_Message;
    CallLog m_Calls;  ///< The library calls of the request; may be empty.
    Status m_Status;
};

}  // namespace storefront

#endif
