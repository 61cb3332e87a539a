// The second reader of the dialect. Each function reads one piece of the grammar and leaves the cursor behind it:
// document, tag, attributes, value, what follows a slash. A piece that does not fit throws the parser's result.

#include "fuzz/xmlmodel.h"

#include "fuzz/fuzzcheck.h"
#include "xml/xmlholder.h"

namespace kvxfuzz {

namespace {

constexpr char kNameCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";
constexpr char kSpaces[] = "\t\n\r ";

struct ModelEntity {
    char m_Plain;
    std::string m_Name;
};

std::vector<ModelEntity> const& entities() {
    static std::vector<ModelEntity> const s_All = {
        {'"', "&quot"}, {'&', "&amp"}, {'\'', "&apos"}, {'<', "&lt"}, {'>', "&gt"}};
    return s_All;
}

enum ModelResult : int { kGood = 0, kBadCharacter = 1, kCutOff = 2, kNothingOpen = 3 };

class Reader {
public:
    Reader(std::string const& text, ModelDocument& document) : m_Text(text), m_Document(document) {}

    ModelResult document() {
        for (;;) {
            std::size_t const tag = m_Text.find('<', m_At);
            if (tag == std::string::npos) {
                return m_Current == 0 ? kGood : kCutOff;
            }
            if (tag != m_At) {
                m_Document.at(m_Current).m_Text = m_Text.substr(m_At, tag - m_At);
            }
            m_At = tag + 1;
            skipSpaces();
            if (peek() == '/') {
                close();
            } else {
                startTag();
            }
        }
    }

private:
    /// The character at the cursor. There must be one: tags do not end with the text.
    [[nodiscard]] char peek() const {
        if (m_At == m_Text.size()) {
            throw ModelResult(kCutOff);
        }
        return m_Text[m_At];
    }

    void skip(char const* characters) {
        std::size_t const end = m_Text.find_first_not_of(characters, m_At);
        m_At = end == std::string::npos ? m_Text.size() : end;
    }

    void skipSpaces() { skip(kSpaces); }

    /// One name character or more. A name at the end of the text is cut off.
    std::string name() {
        std::size_t const begin = m_At;
        skip(kNameCharacters);
        static_cast<void>(peek());
        if (m_At == begin) {
            throw ModelResult(kBadCharacter);
        }
        return m_Text.substr(begin, m_At - begin);
    }

    /// Whether a tag ends here; the cursor is behind it then.
    bool endsTag() {
        if (peek() == '>') {
            ++m_At;
            return true;
        }
        if (peek() == '/') {
            close();
            return true;
        }
        return false;
    }

    void startTag() {
        std::string const tag = name();
        bool const fits = std::string(kSpaces).find(peek()) != std::string::npos || peek() == '/' || peek() == '>';
        if (!fits) {
            throw ModelResult(kBadCharacter);
        }
        m_Current = m_Document.add(m_Current, tag);
        skipSpaces();
        while (!endsTag()) {
            attribute();
            skipSpaces();
        }
    }

    void attribute() {
        std::size_t const element = m_Current;
        std::string const attributeName = name();
        bool const isSpaced = std::string(kSpaces).find(peek()) != std::string::npos;
        skipSpaces();
        char const next = peek();
        if (next == '=') {
            ++m_At;
            m_Document.at(element).set(attributeName, modelDecoded(value()));
            return;
        }
        bool const isName = std::string(kNameCharacters).find(next) != std::string::npos;
        if (next != '/' && next != '>' && !(isSpaced && isName)) {
            throw ModelResult(kBadCharacter);
        }
        m_Document.at(element).set(attributeName, "");
    }

    std::string value() {
        skipSpaces();
        char const quote = peek();
        if (quote != '\'' && quote != '"') {
            return name();
        }
        std::size_t const begin = m_At + 1;
        m_At = m_Text.find(quote, begin);
        if (m_At == std::string::npos) {
            throw ModelResult(kCutOff);
        }
        return m_Text.substr(begin, m_At++ - begin);
    }

    /// From a slash to the end of the tag: one name may stand there, its letters do not matter.
    void close() {
        if (m_Current == 0) {
            throw ModelResult(kNothingOpen);
        }
        m_Current = m_Document.at(m_Current).m_Parent;
        ++m_At;
        skipSpaces();
        if (peek() != '>') {
            name();
            skipSpaces();
        }
        if (peek() != '>') {
            throw ModelResult(kBadCharacter);
        }
        ++m_At;
    }

    std::string const& m_Text;
    ModelDocument& m_Document;
    std::size_t m_At = 0;
    std::size_t m_Current = 0;  ///< The innermost open element.
};

}  // namespace

std::string modelEncoded(std::string const& text) {
    std::string result;
    for (char const character : text) {
        std::string piece(1, character);
        for (ModelEntity const& entity : entities()) {
            if (entity.m_Plain == character) {
                piece = entity.m_Name + ";";
            }
        }
        result += piece;
    }
    return result;
}

std::string modelDecoded(std::string const& text) {
    constexpr std::size_t kWindow = 5;
    std::string result;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] != '&') {
            result += text[at++];
            continue;
        }
        std::string window = text.substr(at, kWindow);
        window = window.substr(0, window.find(';'));
        bool isKnown = false;
        for (ModelEntity const& entity : entities()) {
            if (entity.m_Name == window) {
                result += entity.m_Plain;
                isKnown = true;
            }
        }
        // A longer name is unknown, and goes as a whole when it is a name up to its semicolon.
        std::size_t const end = text.find_first_not_of(std::string(kNameCharacters) + "#", at + 1);
        bool const isLongName =
            !isKnown && window.size() == kWindow && end != std::string::npos && text[end] == ';' && end > at + kWindow;
        at = isLongName ? end + 1 : at + window.size() + 1;
    }
    return result;
}

void ModelElement::set(std::string const& name, std::string const& value) {
    for (auto& attribute : m_Attributes) {
        if (attribute.first == name) {
            attribute.second = value;
            return;
        }
    }
    m_Attributes.emplace_back(name, value);
}

std::string const* ModelElement::valueOf(std::string const& name) const {
    for (auto const& attribute : m_Attributes) {
        if (attribute.first == name) {
            return &attribute.second;
        }
    }
    return nullptr;
}

int ModelDocument::parse(std::string const& text) {
    try {
        return Reader(text, *this).document();
    } catch (ModelResult result) {
        return result;
    }
}

std::size_t ModelDocument::add(std::size_t parent, std::string const& tag) {
    std::size_t const index = m_Elements.size();
    m_Elements.emplace_back();
    m_Elements.back().m_Tag = tag;
    m_Elements.back().m_Parent = parent;
    m_Elements[parent].m_Children.push_back(index);
    return index;
}

std::size_t ModelDocument::top(std::string const& tag) const {
    for (std::size_t const child : m_Elements[0].m_Children) {
        if (m_Elements[child].m_Tag == tag) {
            return child;
        }
    }
    return 0;
}

std::string ModelDocument::written(std::size_t index) const {
    ModelElement const& element = m_Elements[index];
    std::string inside = element.m_Text;
    for (std::size_t const child : element.m_Children) {
        inside += written(child);
    }
    if (element.m_Tag.empty()) {
        return inside;
    }
    std::string start = "<" + element.m_Tag;
    for (auto const& [name, value] : element.m_Attributes) {
        start += " " + name + "=\"" + modelEncoded(value) + "\"";
    }
    bool const isBare = element.m_Text.empty() && element.m_Children.empty();
    return isBare ? start + "/>" : start + ">" + inside + "</" + element.m_Tag + ">";
}

void requireSameTree(xmlElement* element, ModelDocument const& model, std::size_t index) {
    ModelElement const& expected = model.at(index);
    TbString text;
    element->getTag(text);
    requireEqual(textOf(text), expected.m_Tag, "tag");
    element->getText(text);
    requireEqual(textOf(text), expected.m_Text, "text of an element");
    for (auto const& [name, value] : expected.m_Attributes) {
        require(element->getAttribute(tbText(name), text), "an attribute of the model is there");
        requireEqual(textOf(text), value, "value of an attribute");
    }
    xmlElementEnum* created = nullptr;
    element->enumChildren("", &created);
    xmlEnumPtr children;
    children.adopt(created);
    for (std::size_t const child : expected.m_Children) {
        xmlElement* found = nullptr;
        require(children->getNext(&found), "a child of the model is there");
        xmlElementPtr const holder = xmlAdopt(found);
        require(found->parent() == element, "a child knows its parent");
        requireSameTree(found, model, child);
    }
    require(children->isEmpty(), "no child beyond the model's");
}

std::string libraryText(xmlElement const* element) {
    TbStringStream out;
    require(element->toStream(out), "toStream succeeds");
    return textOf(out.str());
}

}  // namespace kvxfuzz
