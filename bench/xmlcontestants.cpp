// pugixml, tinyxml2, expat with a tree of standard containers, libxml2, rapidxml: each as its manual shows it, without
// indentation, keeping white space.
#include "bench/xmlcontestants.h"

#include <expat.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <tinyxml2.h>

#include <cstring>
#include <iterator>
#include <pugixml.hpp>
#include <rapidxml/rapidxml.hpp>
#include <utility>

#include "bench/bench_support.h"

// The header of rapidxml's writer calls functions of its own before it declares them.
namespace rapidxml::internal {
template <class OutIt, class Ch>
OutIt print_children(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_attributes(OutIt out, xml_node<Ch> const* node, int flags);
template <class OutIt, class Ch>
OutIt print_data_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_cdata_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_element_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_declaration_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_comment_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_doctype_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
template <class OutIt, class Ch>
OutIt print_pi_node(OutIt out, xml_node<Ch> const* node, int flags, int indent);
}  // namespace rapidxml::internal

#include <rapidxml/rapidxml_print.hpp>

namespace kvxbench {

namespace {

template <class Document>
std::unique_ptr<XmlDocument> parse(std::string const& text) {
    return std::make_unique<Document>(text);
}

class PugiDocument : public XmlDocument {
public:
    explicit PugiDocument(std::string const& text) {
        require(static_cast<bool>(m_Document.load_buffer(text.data(), text.size())), "pugixml refuses the document");
    }

    [[nodiscard]] std::string write() const override {
        struct Writer : pugi::xml_writer {
            void write(void const* data, std::size_t size) override {
                m_Text.append(static_cast<char const*>(data), size);
            }
            std::string m_Text;
        } writer;
        m_Document.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
        return std::move(writer.m_Text);
    }

private:
    pugi::xml_document m_Document;
};

class TinyDocument : public XmlDocument {
public:
    explicit TinyDocument(std::string const& text) {
        require(m_Document.Parse(text.data(), text.size()) == tinyxml2::XML_SUCCESS, "tinyxml2 refuses the document");
    }

    [[nodiscard]] std::string write() const override {
        tinyxml2::XMLPrinter printer(nullptr, true);
        m_Document.Print(&printer);
        return {printer.CStr(), static_cast<std::size_t>(printer.CStrSize() - 1)};
    }

private:
    tinyxml2::XMLDocument m_Document;
};

class ExpatDocument : public XmlDocument {
public:
    explicit ExpatDocument(std::string const& text) {
        std::unique_ptr<XML_ParserStruct, FreeParser> const parser(XML_ParserCreate(nullptr));
        m_Open.push_back(&m_Root);
        XML_SetUserData(parser.get(), this);
        XML_SetElementHandler(parser.get(), &begin, &end);
        XML_SetCharacterDataHandler(parser.get(), &addText);
        require(XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK,
                "expat refuses the document");
    }

    [[nodiscard]] std::string write() const override {
        std::string text;
        append(m_Root.m_Children.front(), text);
        return text;
    }

private:
    struct FreeParser {
        void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
    };

    struct Node {
        std::string m_Name;  ///< Empty for a text.
        std::string m_Text;
        std::vector<std::pair<std::string, std::string>> m_Attributes;
        std::vector<Node> m_Children;
    };

    static void XMLCALL begin(void* self, XML_Char const* name, XML_Char const** attributes) {
        auto& open = static_cast<ExpatDocument*>(self)->m_Open;
        Node& node = open.back()->m_Children.emplace_back();
        node.m_Name = name;
        for (; *attributes != nullptr; attributes += 2) {
            node.m_Attributes.emplace_back(attributes[0], attributes[1]);
        }
        open.push_back(&node);  // stays in place: its parent gets no other child while it is open
    }

    static void XMLCALL end(void* self, XML_Char const*) { static_cast<ExpatDocument*>(self)->m_Open.pop_back(); }

    static void XMLCALL addText(void* self, XML_Char const* text, int length) {
        Node& parent = *static_cast<ExpatDocument*>(self)->m_Open.back();
        if (parent.m_Children.empty() || !parent.m_Children.back().m_Name.empty()) {
            parent.m_Children.emplace_back();
        }
        parent.m_Children.back().m_Text.append(text, static_cast<std::size_t>(length));
    }

    static void escape(std::string const& raw, std::string& text) {
        for (char const character : raw) {
            switch (character) {
                case '&':
                    text += "&amp;";
                    break;
                case '<':
                    text += "&lt;";
                    break;
                case '"':
                    text += "&quot;";
                    break;
                default:
                    text += character;
            }
        }
    }

    static void append(Node const& node, std::string& text) {
        if (node.m_Name.empty()) {
            escape(node.m_Text, text);
            return;
        }
        text += "<" + node.m_Name;
        for (auto const& [name, value] : node.m_Attributes) {
            text += " " + name + "=\"";
            escape(value, text);
            text += '"';
        }
        if (node.m_Children.empty()) {
            text += "/>";
            return;
        }
        text += '>';
        for (Node const& child : node.m_Children) {
            append(child, text);
        }
        text += "</" + node.m_Name + ">";
    }

    Node m_Root;
    std::vector<Node*> m_Open;  ///< The elements without an end so far.
};

class GnomeDocument : public XmlDocument {
public:
    explicit GnomeDocument(std::string const& text)
        : m_Document(::xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                     XML_PARSE_HUGE | XML_PARSE_NONET)) {
        require(m_Document != nullptr, "libxml2 refuses the document");
    }

    [[nodiscard]] std::string write() const override {
        std::unique_ptr<xmlBuffer, FreeBuffer> const buffer(::xmlBufferCreate());
        ::xmlNodeDump(buffer.get(), m_Document.get(), ::xmlDocGetRootElement(m_Document.get()), 0, 0);
        return {reinterpret_cast<char const*>(::xmlBufferContent(buffer.get())),
                static_cast<std::size_t>(::xmlBufferLength(buffer.get()))};
    }

private:
    struct FreeDocument {
        void operator()(xmlDoc* document) const { ::xmlFreeDoc(document); }
    };
    struct FreeBuffer {
        void operator()(xmlBuffer* buffer) const { ::xmlBufferFree(buffer); }
    };

    std::unique_ptr<xmlDoc, FreeDocument> m_Document;
};

class RapidDocument : public XmlDocument {
public:
    explicit RapidDocument(std::string const& text) : m_Text(text.c_str(), text.c_str() + text.size() + 1) {
        m_Document.parse<0>(m_Text.data());
    }

    [[nodiscard]] std::string write() const override {
        std::string text;
        rapidxml::print(std::back_inserter(text), m_Document, rapidxml::print_no_indenting);
        return text;
    }

private:
    std::vector<char> m_Text;  ///< Parsed in place; the tree refers to it.
    rapidxml::xml_document<> m_Document;
};

}  // namespace

std::vector<XmlLibrary> const& xmlLibraries() {
    // clang-format off
    static std::vector<XmlLibrary> const s_Libraries = {
        // name             parse                  writes  parse goals    write goals
        {"pugixml",         &parse<PugiDocument>,  true,   0.2,     0.5,     kNoGoal, 1.3},
        {"tinyxml2",        &parse<TinyDocument>,  true,   1,       1,       1.2,     1.2},
        {"expat and tree",  &parse<ExpatDocument>, false,  1,       1,       kNoGoal, kNoGoal},
        {"libxml2",         &parse<GnomeDocument>, true,   1,       1,       kNoGoal, kNoGoal},
        {"rapidxml",        &parse<RapidDocument>, true,   kNoGoal, kNoGoal, kNoGoal, kNoGoal},
    };
    // clang-format on
    return s_Libraries;
}

}  // namespace kvxbench
