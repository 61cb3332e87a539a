// A tree of any content, written and parsed again. What the dialect can hold comes back; what it cannot, such as a tag
// with a space, must still be written as the model writes it and parsed as the model parses it.

#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/xmlmodel.h"
#include "xml/xmlholder.h"
#include "xml/xmlparser.h"

namespace kvxfuzz {

namespace {

bool isName(std::string const& text) {
    for (char const character : text) {
        if (isAlnum(character) == 0) {
            return false;
        }
    }
    return !text.empty();
}

/// The library's tree and the model's, filled alike.
class Trees {
public:
    Trees() : m_Root("KVX"), m_Current(&m_Root), m_Index(m_Model.add(0, "KVX")) { m_Root.addRef(); }

    void open(std::string const& tag) {
        auto* const child = new xmlElement(tbText(tag));
        m_Current->insertChild(child);
        m_Current = child;
        m_Index = m_Model.add(m_Index, tag);
        m_IsDialect = m_IsDialect && isName(tag);
    }

    void close() {
        if (m_Current->parent() != nullptr) {
            m_Current = m_Current->parent();
            m_Index = m_Model.at(m_Index).m_Parent;
        }
    }

    void set(std::string const& name, std::string const& value) {
        require(m_Current->setAttribute(tbText(name), tbText(value)), "setAttribute succeeds");
        m_Model.at(m_Index).set(name, value);
        m_IsDialect = m_IsDialect && isName(name);
    }

    void write(std::string const& text) {
        m_Current->setText(tbText(text));
        m_Model.at(m_Index).m_Text = text;
        m_IsDialect = m_IsDialect && text.find('<') == std::string::npos;
    }

    void check() {
        requireSameTree(&m_Root, m_Model, 1);
        std::string const written = libraryText(&m_Root);
        requireEqual(written, m_Model.written(), "tree as text");
        TbStringStream in(tbText(written));
        xmlElement* parsed = nullptr;
        int const result = xmlParser().parseText(in, &parsed);
        xmlElementPtr const document = xmlAdopt(parsed);
        ModelDocument reparsed;
        requireEqual(result, reparsed.parse(written), "result of parsing what was written");
        if (m_IsDialect) {
            requireEqual(result, 0, "what the dialect can hold is parsed");
            requireSameTree(document.get(), m_Model, 0);
        }
    }

private:
    xmlElement m_Root;
    ModelDocument m_Model;
    xmlElement* m_Current;
    std::size_t m_Index;
    bool m_IsDialect = true;
};

}  // namespace

void runTarget(Input input) {
    Trees trees;
    while (!input.isEmpty()) {
        switch (input.below(4)) {
            case 0:
                trees.open(input.line());
                break;
            case 1: {
                std::string const name = upToZero(input.line());
                trees.set(name, input.line());
                break;
            }
            case 2:
                trees.write(input.line());
                break;
            default:
                trees.close();
        }
    }
    trees.check();
}

}  // namespace kvxfuzz
