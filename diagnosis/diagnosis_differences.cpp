#include <utility>

#include "diagnosis/diagnosis.h"

/// What differs between two messages.
namespace diagnosis {

namespace {

std::optional<std::string> valueOf(Attributes const& attributes, std::string const& name) {
    for (auto const& [present, value] : attributes) {
        if (present == name) {
            return value;
        }
    }
    return std::nullopt;
}

/// `text` without white space between its attributes. White space in values stays.
std::string withoutBlanksBetween(std::string const& text) {
    std::string out;
    char quote = '\0';
    for (char const c : text) {
        bool const isBlank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (quote != '\0' || !isBlank) {
            out += c;
        }
        if (quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == quote) {
            quote = '\0';
        }
    }
    return out;
}

}  // namespace

std::vector<Difference> differences(Attributes const& inSigned, Attributes const& inData) {
    std::vector<Difference> found;
    for (auto const& [name, value] : inSigned) {
        std::optional<std::string> other = valueOf(inData, name);
        if (other != value) {
            found.push_back({name, value, std::move(other)});
        }
    }
    for (auto const& [name, value] : inData) {
        if (!valueOf(inSigned, name)) {
            found.push_back({name, std::nullopt, value});
        }
    }
    return found;
}

std::string differenceInWriting(std::string const& inSigned, std::string const& inData) {
    if (Message::parse(inSigned).attributes() != Message::parse(inData).attributes()) {
        return "the attributes are in a different order";
    }
    if (withoutBlanksBetween(inSigned) == withoutBlanksBetween(inData)) {
        return "only white space between the attributes differs";
    }
    return "only the notation differs, such as escapes, quotation marks or the end tag";
}

}  // namespace diagnosis
