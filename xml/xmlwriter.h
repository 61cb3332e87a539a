/// Element trees to text. Internal: not installed.
#ifndef TALLOWIN_XML_XMLWRITER_H
#define TALLOWIN_XML_XMLWRITER_H

#include "tallowin/tbstringstream.h"
#include "xml/xmlaccess.h"

/// Writes one element with its subtree to a stream.
///
/// Pieces gather in a buffer on the stack, and the stream grows once for each full one. Its published capacity becomes
/// what it would be if each piece were appended by itself. The stream becomes secret with the first secret piece, and
/// the buffer is wiped then.
class xmlWriter {
public:
    explicit xmlWriter(TbStringStream& out);
    xmlWriter(xmlWriter const&) = delete;
    xmlWriter& operator=(xmlWriter const&) = delete;
    ~xmlWriter();

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
    void count(std::uint32_t bytes);
    void gather(xmlSlice bytes);
    void flush();
    void becomeSecret() noexcept;

    static constexpr std::uint32_t kGathered = 4096;

    TbStringStream& m_Out;
    std::uint64_t m_Length;        ///< Of the stream with all pieces.
    std::uint64_t m_Capacity;      ///< Of the stream then.
    std::uint64_t m_GrownTo = 0;   ///< The length at which it grew last; 0 when it did not.
    std::uint32_t m_Gathered = 0;  ///< Bytes in the buffer.
    bool m_IsSecret = false;       ///< The buffer has held secret bytes.
    char m_Buffer[kGathered];      // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
};

#endif
