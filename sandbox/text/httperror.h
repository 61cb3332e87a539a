#ifndef TALLOWIN_SANDBOX_TEXT_HTTPERROR_H
#define TALLOWIN_SANDBOX_TEXT_HTTPERROR_H

#include <stdexcept>
#include <string>

#include "sandbox/text/httpstatus.h"

namespace sandbox {

/// A request that the service turns down: an HTTP status and a text. The text is sent to the client as it is, so it
/// names what was wrong and never holds a secret.
class HttpError : public std::runtime_error {
public:
    explicit HttpError(std::string const& reason, int status = httpstatus::kBadRequest)
        : std::runtime_error(reason), m_Status(status) {}

    /// The status of the page that shows the error. Errors sent as a message have the status 200.
    [[nodiscard]] int status() const { return m_Status; }

private:
    int m_Status;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_HTTPERROR_H
