// A second parser, written from the rows of the transition table alone.
//
// It walks the rows one after the other for each byte and keeps its document in plain structures, so that a mistake in
// the table-driven parser shows as a difference.

#include "tests/xml/xmlreference.h"

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <utility>

namespace kvxtest {

namespace {

/// State, characters, read (+) or look again (-), next state, action.
/// Characters: S white space, N name characters, others themselves; after ! all but these.
char const* const kRows =
    "1 <  + 2 9    1 !<  + 1 2 "
    "2 S  + 2 0    2 N   + 3 2    2 / + 10 7 "
    "3 S  + 4 5    3 N   + 3 2    3 / - 18 5    3 > + 1 5 "
    "4 S  + 4 0    4 N   + 5 2    4 / + 10 7    4 > + 1 0 "
    "5 S  + 6 6    5 N   + 5 2    5 = + 7 6     5 / - 20 6    5 > - 25 6 "
    "6 S  + 6 0    6 N   - 19 8   6 = + 7 0     6 / - 18 8    6 > + 1 8 "
    "7 S  + 7 0    7 '   + 8 0    7 \" + 9 0    7 N + 30 2 "
    "8 '  + 4 8    8 !'  + 8 2 "
    "9 \" + 4 8    9 !\" + 9 2 "
    "10 S + 10 0   10 N  + 14 0   10 > + 1 0 "
    "14 S + 15 0   14 N  + 14 0   14 > + 1 0 "
    "15 S + 15 0   15 >  + 1 0 "
    "18 / + 10 7 "
    "19 N + 5 2 "
    "20 / - 18 8 "
    "25 > + 1 8 "
    "30 N + 30 2   30 !N - 4 8 ";

std::string const kNameCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";

std::uint32_t classNamed(char name) {
    static std::map<char, std::uint32_t> const classes{{'S', 1},   {'<', 2},  {'N', 4},  {'=', 8},
                                                       {'\'', 16}, {'"', 32}, {'/', 64}, {'>', 128}};
    return classes.at(name);
}

struct Node {
    std::string m_Tag;
    std::vector<std::pair<std::string, std::string>> m_Attributes;
    std::string m_Text;
    std::vector<std::unique_ptr<Node>> m_Children;
    Node* m_Parent = nullptr;
};

void setAttribute(Node& node, std::string const& name, std::string const& value) {
    for (auto& [present, old] : node.m_Attributes) {
        if (present == name) {
            old = value;
            return;
        }
    }
    node.m_Attributes.emplace_back(name, value);
}

std::string written(Node const& node) {
    std::string content = node.m_Text;
    for (auto const& child : node.m_Children) {
        content += written(*child);
    }
    if (node.m_Tag.empty()) {
        return content;
    }
    std::string head = "<" + node.m_Tag;
    for (auto const& [name, value] : node.m_Attributes) {
        head += " " + name + "=\"" + referenceEncoded(value) + "\"";
    }
    return node.m_Text.empty() && node.m_Children.empty() ? head + "/>"
                                                          : head + ">" + content + "</" + node.m_Tag + ">";
}

}  // namespace

std::vector<ReferenceRow> const& referenceRows() {
    static std::vector<ReferenceRow> const rows = [] {
        std::vector<ReferenceRow> result;
        std::istringstream in(kRows);
        std::string characters;
        char consume = 0;
        for (ReferenceRow row{}; in >> row.m_State >> characters >> consume >> row.m_Next >> row.m_Action;) {
            row.m_Mask = characters[0] == '!' ? 511 - classNamed(characters[1]) : classNamed(characters[0]);
            row.m_Consume = consume == '+' ? 1 : 0;
            result.push_back(row);
        }
        return result;
    }();
    return rows;
}

std::uint32_t referenceClass(char byte) {
    if (byte != '\0' && std::string("<='\"/>").find(byte) != std::string::npos) {
        return classNamed(byte);
    }
    if (byte == 9 || byte == 10 || byte == 13 || byte == 32) {
        return 1;
    }
    return kNameCharacters.find(byte) != std::string::npos ? 4 : 256;
}

std::size_t referenceRowFor(std::uint32_t state, char byte) {
    std::size_t index = 0;
    for (ReferenceRow const& row : referenceRows()) {
        if (row.m_State == state && (row.m_Mask & referenceClass(byte)) != 0) {
            break;
        }
        ++index;
    }
    return index;
}

ReferenceReading referenceRead(std::string const& text) {
    Node document;
    Node* current = &document;
    std::uint32_t state = 1;
    std::string token;
    std::string name;
    for (std::size_t position = 0; position < text.size();) {
        std::size_t const index = referenceRowFor(state, text[position]);
        if (index == referenceRows().size()) {
            return {"error 1", position + 1};
        }
        ReferenceRow const& row = referenceRows()[index];
        switch (row.m_Action) {
            case 2:
                token += text[position];
                break;
            case 5:
                current->m_Children.push_back(std::make_unique<Node>());
                current->m_Children.back()->m_Parent = current;
                current = current->m_Children.back().get();
                current->m_Tag = token;
                break;
            case 6:
                name = token;
                break;
            case 7:
                current = current->m_Parent;
                if (current == nullptr) {
                    return {"error 3", position + 1};
                }
                break;
            case 8:
                setAttribute(*current, name, referenceDecoded(token));
                break;
            case 9:
                current->m_Text = token.empty() ? current->m_Text : token;
                break;
            default:
                break;
        }
        if (row.m_Action != 2) {
            token.clear();
        }
        state = row.m_Next;
        position += row.m_Consume;
    }
    return {state == 1 && current == &document ? written(document) : "error 2", text.size()};
}

std::string referenceReparsed(std::string const& text) {
    return referenceRead(text).m_Written;
}

std::string referenceEncoded(std::string const& text) {
    std::string result;
    for (char const character : text) {
        switch (character) {
            case '"':
                result += "&quot;";
                break;
            case '&':
                result += "&amp;";
                break;
            case '\'':
                result += "&apos;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            default:
                result += character;
        }
    }
    return result;
}

std::string referenceDecoded(std::string const& text) {
    static std::map<std::string, char> const entities{
        {"&amp", '&'}, {"&lt", '<'}, {"&gt", '>'}, {"&quot", '"'}, {"&apos", '\''}};
    std::string result;
    for (std::size_t position = 0; position < text.size(); ++position) {
        if (text[position] != '&') {
            result += text[position];
            continue;
        }
        std::string const collected =
            text.substr(position, std::min<std::size_t>(5, text.find(';', position) - position));
        auto const known = entities.find(collected);
        if (known != entities.end()) {
            result += known->second;
        } else if (collected.size() == 5) {
            std::size_t const stop = text.find_first_not_of(kNameCharacters + "#", position + 1);
            if (stop != std::string::npos && text[stop] == ';') {
                position = stop;
                continue;
            }
        }
        position += collected.size();
    }
    return result;
}

}  // namespace kvxtest
