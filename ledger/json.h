/// JSON texts, written piece by piece.
#ifndef TALLOWIN_LEDGER_JSON_H
#define TALLOWIN_LEDGER_JSON_H

#include <cstdint>
#include <optional>
#include <string>

namespace ledger {

/// `text` in quotes. Bytes above 0x7E are written as \u007f to \u00ff, so the result is ASCII whatever the bytes are.
std::string jsonText(std::string const& text);

/// Members and elements in the order of the calls. The caller closes what it opens.
class JsonWriter {
public:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    JsonWriter& name(char const* name);
    JsonWriter& text(std::string const& value) { return raw(jsonText(value)); }
    JsonWriter& number(std::int64_t value) { return raw(std::to_string(value)); }
    JsonWriter& flag(bool value) { return raw(value ? "true" : "false"); }

    /// Adds a value that is JSON already.
    JsonWriter& raw(std::string const& json);

    JsonWriter& value(std::string const& value) { return text(value); }
    JsonWriter& value(std::int64_t value) { return number(value); }
    template <class Kind>
    JsonWriter& value(std::optional<Kind> const& optional) {
        return optional ? value(*optional) : raw("null");
    }

    /// The member `name` with a text, a number, or null.
    template <class Kind>
    JsonWriter& member(char const* memberName, Kind const& memberValue) {
        return name(memberName).value(memberValue);
    }

    [[nodiscard]] std::string const& json() const { return m_Json; }

private:
    void separate();

    std::string m_Json;
    bool m_NeedsComma = false;  ///< Something stands before the next name or element at this level.
};

}  // namespace ledger

#endif
