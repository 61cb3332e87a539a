/// Text to element trees: a table-driven state machine for a narrow dialect of XML.
///
/// Its free functions are in the static archive only; libtallowin.so exports classes.
#ifndef TALLOWIN_XML_XMLPARSER_H
#define TALLOWIN_XML_XMLPARSER_H

#include <cstdint>

#include "tallowin/export.h"
#include "tallowin/tbobject.h"
#include "tallowin/tbstring.h"
#include "tallowin/tbstringstream.h"
#include "tallowin/xmlelement.h"

/// The classes of characters, one bit each. Every byte has exactly one.
enum xmlSymbol : std::uint32_t {
    // NOLINTBEGIN(readability-identifier-naming): published names
    xmlSymbolSpace = 1,         ///< TAB, LF, CR, space
    xmlSymbolLess = 2,          ///< <
    xmlSymbolName = 4,          ///< A-Z a-z 0-9 . - _
    xmlSymbolEquals = 8,        ///< =
    xmlSymbolSingleQuote = 16,  ///< '
    xmlSymbolDoubleQuote = 32,  ///< "
    xmlSymbolSlash = 64,        ///< /
    xmlSymbolGreater = 128,     ///< >
    xmlSymbolOther = 256,       ///< all others: & : ; ? ! NUL, control characters, bytes of 128 and above
    // NOLINTEND(readability-identifier-naming)
};

/// One transition.
struct xmlTableRow {
    std::uint32_t m_State;    ///< In which state; 0 ends the table.
    std::uint32_t m_Symbols;  ///< For which classes of characters, or-ed.
    std::uint32_t m_Consume;  ///< 1: continue with the next character. 0: the next state reads the same one again.
    std::uint32_t m_Next;     ///< The next state.
    std::uint32_t m_Action;   ///< What is done with the character; the numbers are defined beside the table.
};

/// The whole grammar, ended by a row with state 0. Rows of one state are adjacent; the first that fits is taken.
extern xmlTableRow const xmlTable[];

/// 1 for TAB, LF, CR and space, else 0.
int isSpace(char character) noexcept;

/// 1 for ASCII letters and digits, full stop, hyphen and underscore, else 0. Independent of the locale.
int isAlnum(char character) noexcept;

/// The class of `character`.
std::uint32_t getSymbol(char character) noexcept;

/// The first row from `table` on that has this state and the class of `character`, borrowed; null when there is none.
xmlTableRow const* getTabEntry(xmlTableRow const* table, std::uint32_t state, char character) noexcept;

/// Parses documents. Has no state of its own: one parser may serve any number of documents, also in several threads.
///
/// The dialect knows elements, attributes and text, nothing else: no declaration, comment, CDATA section, DOCTYPE, and
/// no colon in a name.
/// - Deliberate (end-tag-closes-anything): an end tag closes the open element, whatever its own name.
/// - Deliberate (slash-closes-at-once): a "/" in a start tag closes the element, and a name up to ">" is ignored.
/// - Deliberate (loose-attributes): attributes may lack their value or the quotes around it.
/// - Deliberate (text-not-decoded): text is stored as read, only attribute values are decoded.
/// - Deliberate (last-run-of-text): an element keeps the last run of text before a "<", so white space after a child
///   replaces the text before it.
/// - Deliberate (several-top-elements): several top-level elements are accepted; text after the last tag is dropped.
class KVX_EXPORT xmlParser : public TbRefCounter {
public:
    xmlParser() = default;
    ~xmlParser() override;

    /// Creates an element whose tag is `tag`; one reference for the caller in `*out`.
    void createElement(TbString const& tag, xmlElement** out);

    /// Parses `in` from its read position to its end. `*out` becomes an element with an empty tag whose children are
    /// the top-level elements, one reference for the caller.
    ///
    /// Returns 0; 1 for a character that fits nowhere; 2 when the text ends inside a tag or with open elements; 3 for
    /// an end tag without an open element. On failure, also out of memory (TBFC_Exception), `*out` is untouched. All
    /// texts of a document are secret when `in` is.
    int parseText(TbStringStream& in, xmlElement** out);
};

#endif
