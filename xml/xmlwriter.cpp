// Writing a tree.
//
// The way down is a list of open children, so the depth of the tree costs no stack. Each piece is counted first:
// count() follows the published capacity of the stream, which grows for a piece by the rule of TbString. Then it is
// gathered in the buffer. flush() lets the stream grow once, to the capacity that the pieces together lead to, and
// appends them.

#include "xml/xmlwriter.h"

#include "foundation/tbexception.h"
#include "xml/xmlchildren.h"

namespace {

/// What a capacity has beyond the length for which a string grows.
constexpr std::uint64_t kSlack = 65;

/// Levels for which there is room at first.
constexpr std::uint32_t kFirstLevels = 16;

}  // namespace

xmlWriter::xmlWriter(TbStringStream& out) : m_Out(out), m_Length(out.length()), m_Capacity(out.capacity()) {}

xmlWriter::~xmlWriter() {
    if (m_IsSecret) {
        ::explicit_bzero(m_Buffer, sizeof(m_Buffer));
    }
}

void xmlWriter::write(xmlElement const& element) {
    m_Out.put(nullptr, 0);             // what is written is readable, even if it is nothing
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
    flush();
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
        becomeSecret();
    }
    xmlSlice const text = attribute.text();
    if (m_Length + text.m_Length < m_Capacity) {
        m_Length += text.m_Length;
    } else {
        for (std::uint32_t const piece : {1U, attribute.m_NameLength, 2U, attribute.m_ValueLength, 1U}) {
            count(piece);
        }
    }
    gather(text);
}

void xmlWriter::put(xmlText const* text) {
    if (text == nullptr) {
        return;
    }
    if (text->m_IsSecret) {
        becomeSecret();
    }
    put(xmlText::sliceOf(text));
}

void xmlWriter::put(xmlSlice piece) {
    count(piece.m_Length);
    gather(piece);
}

/// Follows the published capacity through a piece of `bytes` bytes.
void xmlWriter::count(std::uint32_t bytes) {
    m_Length += bytes;
    if (bytes != 0 && m_Length >= m_Capacity) {
        m_Capacity = m_Length + kSlack;
        m_GrownTo = m_Length;
        if (m_Capacity > UINT32_MAX) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
    }
}

void xmlWriter::gather(xmlSlice bytes) {
    if (bytes.m_Length > kGathered - m_Gathered) {
        flush();
        if (bytes.m_Length > kGathered) {
            m_Out.put(bytes.m_Bytes, bytes.m_Length);
            return;
        }
    }
    std::memcpy(m_Buffer + m_Gathered, bytes.m_Bytes, bytes.m_Length);
    m_Gathered += bytes.m_Length;
}

void xmlWriter::flush() {
    if (m_GrownTo != 0) {
        m_Out.grow(static_cast<std::uint32_t>(m_GrownTo - m_Out.length()));
        m_GrownTo = 0;
    }
    if (m_Gathered != 0) {
        m_Out.put(m_Buffer, m_Gathered);
        m_Gathered = 0;
    }
}

void xmlWriter::becomeSecret() noexcept {
    m_Out.keepSecret();
    m_IsSecret = true;
}
