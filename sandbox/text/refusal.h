#ifndef TALLOWIN_SANDBOX_TEXT_REFUSAL_H
#define TALLOWIN_SANDBOX_TEXT_REFUSAL_H

#include <stdexcept>
#include <string>

namespace sandbox {

/// A request that the service turns down. The text goes to the other side as it stands, so it names what was wrong and
/// never holds a secret.
class Refusal : public std::runtime_error {
public:
    explicit Refusal(std::string const& reason, int httpStatus = 400)
        : std::runtime_error(reason), m_Status(httpStatus) {}

    /// The HTTP status of the page that shows the refusal. Answers that are messages are sent with status 200.
    [[nodiscard]] int status() const { return m_Status; }

private:
    int m_Status;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_REFUSAL_H
