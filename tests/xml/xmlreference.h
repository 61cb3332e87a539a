/// A second opinion on the dialect: the same rules, written down again in another form and followed step by step.
#ifndef TALLOWIN_TESTS_XML_XMLREFERENCE_H
#define TALLOWIN_TESTS_XML_XMLREFERENCE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvxtest {

struct ReferenceRow {
    std::uint32_t m_State;
    std::uint32_t m_Mask;
    std::uint32_t m_Consume;
    std::uint32_t m_Next;
    std::uint32_t m_Action;
};

/// The transitions, in order of look-up.
std::vector<ReferenceRow> const& referenceRows();

/// The class of a byte, as its bit.
std::uint32_t referenceClass(char byte);

/// Index of the row for a byte in a state; the number of rows when there is none.
std::size_t referenceRowFor(std::uint32_t state, char byte);

struct ReferenceReading {
    std::string m_Written;  ///< The document written again, or "error N".
    std::size_t m_Bytes;    ///< How many bytes are read: up to the one that is refused, or all.
};

ReferenceReading referenceRead(std::string const& text);

/// The document of `text` written again, or "error N".
std::string referenceReparsed(std::string const& text);

std::string referenceEncoded(std::string const& text);
std::string referenceDecoded(std::string const& text);

}  // namespace kvxtest

#endif
