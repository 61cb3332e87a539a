/// Element trees to text. Internal: not installed.
#ifndef TALLOWIN_XML_XMLWRITER_H
#define TALLOWIN_XML_XMLWRITER_H

#include "tallowin/tbstringstream.h"
#include "xml/xmlaccess.h"

/// Writes one element with its subtree to a stream.
class xmlWriter {
public:
    explicit xmlWriter(TbStringStream& out) : m_Out(out) {}

    /// On failure the stream keeps a part of the text.
    void write(xmlElement const& element);

private:
    [[nodiscard]] static xmlChild const* firstChildOf(xmlElement const& element) noexcept;
    [[nodiscard]] static bool hasContent(xmlElement const& element) noexcept;
    void writeHead(xmlElement const& element);
    void writeTail(xmlElement const& element);
    void put(xmlAttribute const& attribute);
    void put(xmlText const* text);
    void put(xmlSlice piece);

    TbStringStream& m_Out;
};

#endif
