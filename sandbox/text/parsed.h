#ifndef TALLOWIN_SANDBOX_TEXT_PARSED_H
#define TALLOWIN_SANDBOX_TEXT_PARSED_H

#include <optional>
#include <utility>

#include "sandbox/text/httperror.h"

namespace sandbox {

/// The result of parsing once: a value, or the HttpError that says why there is none. The error is thrown
/// where the value is needed, so that a request is parsed early and refused in the order of its checks.
template <class Value>
class Parsed {
public:
    /// Keeps what `parse` returns, or the HttpError that it throws. Other exceptions pass.
    template <class Parse>
    static Parsed of(Parse parse) {
        Parsed parsed;
        try {
            parsed.m_Value = parse();
        } catch (HttpError const& error) {
            parsed.m_Error = error;
        }
        return parsed;
    }

    /// Throws the HttpError when there is no value.
    [[nodiscard]] Value const& get() const {
        if (m_Error) {
            throw HttpError(*m_Error);
        }
        return m_Value.value();
    }

    /// Null when there is no value.
    [[nodiscard]] Value const* find() const { return m_Value ? &*m_Value : nullptr; }

private:
    Parsed() = default;

    std::optional<Value> m_Value;
    std::optional<HttpError> m_Error;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_PARSED_H
