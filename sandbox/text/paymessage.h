#ifndef TALLOWIN_SANDBOX_TEXT_PAYMESSAGE_H
#define TALLOWIN_SANDBOX_TEXT_PAYMESSAGE_H

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

/// Names and values in their order.
using Attributes = std::vector<std::pair<std::string, std::string>>;

/// The first value under `name`, nothing when it is absent.
std::optional<std::string> valueIn(Attributes const& attributes, std::string const& name);

/// One message: an element KVX whose attributes are the fields. Values are bytes without an encoding and hold no NUL.
class Message {
public:
    /// A message with the one attribute MSGTYPE.
    explicit Message(std::string const& type);

    /// Reads a message from another side. Throws HttpError when `text` is anything but one well-formed element KVX (its
    /// content is allowed and ignored), uses an entity besides the five named ones, names an attribute twice or with
    /// characters other than letters, digits, ".", "-" and "_", has more than 256 of them, or has no MSGTYPE.
    static Message parse(std::string const& text);

    /// Appends an attribute; `name` must not be there yet. Returns this message, to be chained.
    Message& set(std::string const& name, std::string const& value);

    /// The value under `name`, nothing when it is absent.
    [[nodiscard]] std::optional<std::string> find(std::string const& name) const { return valueIn(m_Attributes, name); }

    /// The value under `name`. Throws HttpError when it is absent or empty.
    std::string require(std::string const& name) const;

    /// The value of MSGTYPE.
    [[nodiscard]] std::string type() const { return *find("MSGTYPE"); }

    [[nodiscard]] Attributes const& attributes() const { return m_Attributes; }

    /// The message as it travels: one empty element, the five special characters as entities, every other byte as it
    /// is. No declaration, because the readers of messages know none.
    [[nodiscard]] std::string text() const;

private:
    Message() = default;

    Attributes m_Attributes;
};

/// Whether one of the five named entities stands in `text` at `at`.
bool isEntity(std::string const& text, std::size_t at);

/// A value as messages write it: the five special characters as entities.
std::string escapedValue(std::string const& value);

/// The message that reports why a request was turned down.
std::string errorMessage(std::string const& reason);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_TEXT_PAYMESSAGE_H
