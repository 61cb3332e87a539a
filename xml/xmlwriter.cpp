#include "xml/xmlwriter.h"

#include "xml/xmlchildren.h"

namespace {

/// Levels for which there is room at first.
constexpr std::uint32_t kFirstLevels = 16;

}  // namespace

void xmlWriter::write(xmlElement const& element) {
    m_Out.put(TbString());             // what is written is readable, even if it is nothing
    xmlPointers<xmlChild const> open;  // the way from this element down to the one being written
    writeHead(element);
    xmlChild const* child = firstChildOf(element);
    while (child != nullptr || open.count() != 0) {
        if (child != nullptr) {
            open.makeRoom(kFirstLevels);
            open.push(child);
            writeHead(*child->m_Element);
            child = firstChildOf(*child->m_Element);
        } else {
            child = open[open.count() - 1];
            open.pop();
            writeTail(*child->m_Element);
            child = child->m_Next;
        }
    }
    writeTail(element);
}

xmlChild const* xmlWriter::firstChildOf(xmlElement const& element) noexcept {
    return element.m_Children == nullptr ? nullptr : element.m_Children->first();
}

/// Whether there is text or a child between start tag and end tag.
bool xmlWriter::hasContent(xmlElement const& element) noexcept {
    return xmlText::sliceOf(element.m_Text).m_Length != 0 || firstChildOf(element) != nullptr;
}

/// Writes everything before the children.
void xmlWriter::writeHead(xmlElement const& element) {
    if (xmlAccess::tagOf(element).m_Length != 0) {
        put({"<", 1});
        put(element.m_Tag);
        for (std::uint32_t i = 0; element.m_Attributes != nullptr && i < element.m_Attributes->count(); ++i) {
            put(element.m_Attributes->at(i));
        }
        put(hasContent(element) ? xmlSlice{">", 1} : xmlSlice{"/>", 2});
    }
    put(element.m_Text);
}

/// Writes the end tag.
void xmlWriter::writeTail(xmlElement const& element) {
    if (xmlAccess::tagOf(element).m_Length != 0 && hasContent(element)) {
        put({"</", 2});
        put(element.m_Tag);
        put({">", 1});
    }
}

void xmlWriter::put(xmlAttribute const& attribute) {
    if (attribute.m_IsNameSecret || attribute.m_IsValueSecret) {
        m_Out.keepSecret();
    }
    put({" ", 1});
    put(attribute.name());
    put({"=\"", 2});
    put(attribute.value());
    put({"\"", 1});
}

void xmlWriter::put(xmlText const* text) {
    if (text == nullptr) {
        return;
    }
    if (text->m_IsSecret) {
        m_Out.keepSecret();
    }
    put(xmlText::sliceOf(text));
}

void xmlWriter::put(xmlSlice piece) {
    if (piece.m_Length != 0) {
        m_Out.put(piece.m_Bytes, piece.m_Length);
    }
}
