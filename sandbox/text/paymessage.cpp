// Messages: reading one from another side, and writing one.
// Reading refuses zero bytes and entities beyond the five named ones before pugixml sees the text, because pugixml is
// more lenient than the protocol. Then come the parse, the root element and each attribute in turn; content of the
// element is ignored.
// Writing escapes the same five entities and nothing else. Values have no encoding and pass through byte by byte.
#include "sandbox/text/paymessage.h"

#include <algorithm>
#include <iterator>
#include <pugixml.hpp>

#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

// Everything is kept as a node, so that what does not belong into a message shows; values are not normalised.
constexpr unsigned kParseOptions = pugi::parse_pi | pugi::parse_comments | pugi::parse_cdata | pugi::parse_declaration |
                                   pugi::parse_doctype | pugi::parse_escapes | pugi::parse_fragment;

constexpr std::size_t kMaxAttributes = 256;

struct EntityRow {
    char m_Character;
    char const* m_Entity;
};

constexpr EntityRow kEntities[] = {
    {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"},
};

constexpr char kNameCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";

void checkEntities(std::string const& text) {
    for (std::size_t at = text.find('&'); at != std::string::npos; at = text.find('&', at + 1)) {
        if (!isEntity(text, at)) {
            throw HttpError("the message holds an unknown entity at byte " + std::to_string(at));
        }
    }
}

}  // namespace

std::optional<std::string> valueIn(Attributes const& attributes, std::string const& name) {
    for (auto const& [present, value] : attributes) {
        if (present == name) {
            return value;
        }
    }
    return std::nullopt;
}

bool isEntity(std::string const& text, std::size_t at) {
    return std::any_of(std::begin(kEntities), std::end(kEntities), [&text, at](EntityRow const& row) {
        return text.compare(at, std::char_traits<char>::length(row.m_Entity), row.m_Entity) == 0;
    });
}

std::string escapedValue(std::string const& value) {
    std::string out;
    for (char const c : value) {
        auto const* const row = std::find_if(std::begin(kEntities), std::end(kEntities),
                                             [c](EntityRow const& each) { return each.m_Character == c; });
        if (row == std::end(kEntities)) {
            out += c;
        } else {
            out += row->m_Entity;
        }
    }
    return out;
}

Message::Message(std::string const& type) {
    set("MSGTYPE", type);
}

Message Message::parse(std::string const& text) {
    if (text.find('\0') != std::string::npos) {
        throw HttpError("the message holds a zero byte");
    }
    checkEntities(text);
    pugi::xml_document document;
    pugi::xml_parse_result const result =
        document.load_buffer(text.data(), text.size(), kParseOptions, pugi::encoding_utf8);
    if (!result) {
        throw HttpError("the message is not well-formed XML: " + std::string(result.description()) + " at byte " +
                        std::to_string(result.offset));
    }
    pugi::xml_node const root = document.first_child();
    if (root.type() != pugi::node_element || root.next_sibling() || std::string(root.name()) != "KVX") {
        throw HttpError("the message is not exactly one element KVX");
    }
    Message message;
    for (pugi::xml_attribute const& attribute : root.attributes()) {
        std::string const name = attribute.name();
        if (name.find_first_not_of(kNameCharacters) != std::string::npos) {
            throw HttpError("the message has an attribute with an unusable name: '" + name + "'");
        }
        if (message.m_Attributes.size() == kMaxAttributes) {
            throw HttpError("the message has more than " + std::to_string(kMaxAttributes) + " attributes");
        }
        if (message.find(name)) {
            throw HttpError("the message has the attribute " + name + " twice");
        }
        message.set(name, attribute.value());
    }
    if (!message.find("MSGTYPE")) {
        throw HttpError("the message has no MSGTYPE");
    }
    return message;
}

Message& Message::set(std::string const& name, std::string const& value) {
    m_Attributes.emplace_back(name, value);
    return *this;
}

std::string Message::require(std::string const& name) const {
    std::optional<std::string> const value = find(name);
    if (!value || value->empty()) {
        throw HttpError(type() + " needs the attribute " + name);
    }
    return *value;
}

std::string Message::text() const {
    std::string out = "<KVX";
    for (auto const& [name, value] : m_Attributes) {
        out += ' ';
        out += name;
        out += "=\"";
        out += escapedValue(value);
        out += '"';
    }
    return out + "/>";
}

std::string errorMessage(std::string const& reason) {
    return Message("Error").set("MESSAGE", reason).text();
}

}  // namespace sandbox
