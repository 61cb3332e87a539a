// The parser: its table, the document under construction, the loop over the text.
//
// xmlTable is the whole grammar. For each character the loop takes the first row of the current state that names the
// character's class, performs the row's action on the document (collect, open, name, set, close) and goes to the next
// state; some rows look at the same character again. A missing row is an error. The numbers of states and actions are
// part of the table's contract and have gaps.

#include "xml/xmlparser.h"

#include <array>
#include <iterator>

#include "xml/xmlholder.h"
#include "xml/xmllimits.h"

namespace {

/// Results of `parseText`.
enum Result : int {
    kParsed = 0,
    kUnexpectedCharacter = 1,
    kUnexpectedEnd = 2,
    kNothingToClose = 3,
    kBeyondLimit = 4,  // only with limits
};

enum State : std::uint32_t {
    kText = 1,
    kTagOpen = 2,         // after "<"
    kTagName = 3,         // in the name of a start tag
    kInTag = 4,           // inside a start tag, between attributes
    kAttrName = 5,        // in the name of an attribute
    kAfterAttrName = 6,   // after it and white space
    kAfterEquals = 7,     // after "="
    kSingleQuoted = 8,    // in a value between single quotes
    kDoubleQuoted = 9,    // in a value between double quotes
    kClosing = 10,        // after "</", and after the "/" of an empty-element tag
    kEndName = 14,        // in the name of an end tag
    kAfterEndName = 15,   // after it
    kBeforeSlash = 18,    // before the "/" of an empty-element tag
    kNextAttr = 19,       // before the name of an attribute that follows a value-less one
    kBareThenSlash = 20,  // after a value-less attribute, before "/"
    kBareThenEnd = 25,    // after a value-less attribute, before ">"
    kUnquoted = 30,       // in a value without quotes
    kStateCount = 31,
};

enum Action : std::uint32_t {
    kNothing = 0,
    kCollect = 2,       // append the character to the token; all other actions empty the token
    kOpenElement = 5,   // the token is the tag of a new child, which becomes the current element
    kNameAttr = 6,      // the token is the attribute's name
    kCloseElement = 7,  // the parent becomes the current element
    kSetAttr = 8,       // the token, decoded, is the attribute's value
    kSetText = 9,       // the token, unless empty, is the current element's text
};

constexpr std::uint32_t kRead = 1;
constexpr std::uint32_t kAgain = 0;

constexpr std::uint32_t kSpace = xmlSymbolSpace;
constexpr std::uint32_t kLess = xmlSymbolLess;
constexpr std::uint32_t kName = xmlSymbolName;
constexpr std::uint32_t kEquals = xmlSymbolEquals;
constexpr std::uint32_t kSingle = xmlSymbolSingleQuote;
constexpr std::uint32_t kDouble = xmlSymbolDoubleQuote;
constexpr std::uint32_t kSlash = xmlSymbolSlash;
constexpr std::uint32_t kGreater = xmlSymbolGreater;

constexpr std::size_t kRowCount = 45;

}  // namespace

// clang-format off
constexpr xmlTableRow xmlTable[] = {
    {kText,          kLess,    kRead,  kTagOpen,       kSetText},       // text ends
    {kText,          ~kLess,   kRead,  kText,          kCollect},       // text
    {kTagOpen,       kSpace,   kRead,  kTagOpen,       kNothing},       // white space before a name
    {kTagOpen,       kName,    kRead,  kTagName,       kCollect},       // a start tag
    {kTagOpen,       kSlash,   kRead,  kClosing,       kCloseElement},  // an end tag: closes at once
    {kTagName,       kSpace,   kRead,  kInTag,         kOpenElement},   // tag name complete
    {kTagName,       kName,    kRead,  kTagName,       kCollect},       // tag name
    {kTagName,       kSlash,   kAgain, kBeforeSlash,   kOpenElement},   // <a/
    {kTagName,       kGreater, kRead,  kText,          kOpenElement},   // <a>
    {kInTag,         kSpace,   kRead,  kInTag,         kNothing},       // white space between attributes
    {kInTag,         kName,    kRead,  kAttrName,      kCollect},       // an attribute
    {kInTag,         kSlash,   kRead,  kClosing,       kCloseElement},  // <a /
    {kInTag,         kGreater, kRead,  kText,          kNothing},       // start tag complete
    {kAttrName,      kSpace,   kRead,  kAfterAttrName, kNameAttr},      // attribute name complete
    {kAttrName,      kName,    kRead,  kAttrName,      kCollect},       // attribute name
    {kAttrName,      kEquals,  kRead,  kAfterEquals,   kNameAttr},      // name=
    {kAttrName,      kSlash,   kAgain, kBareThenSlash, kNameAttr},      // name/ : no value
    {kAttrName,      kGreater, kAgain, kBareThenEnd,   kNameAttr},      // name> : no value
    {kAfterAttrName, kSpace,   kRead,  kAfterAttrName, kNothing},       // white space before "="
    {kAfterAttrName, kName,    kAgain, kNextAttr,      kSetAttr},       // another name: the first had no value
    {kAfterAttrName, kEquals,  kRead,  kAfterEquals,   kNothing},       // name =
    {kAfterAttrName, kSlash,   kAgain, kBeforeSlash,   kSetAttr},       // name / : no value
    {kAfterAttrName, kGreater, kRead,  kText,          kSetAttr},       // name > : no value
    {kAfterEquals,   kSpace,   kRead,  kAfterEquals,   kNothing},       // white space before the value
    {kAfterEquals,   kSingle,  kRead,  kSingleQuoted,  kNothing},       // '
    {kAfterEquals,   kDouble,  kRead,  kDoubleQuoted,  kNothing},       // "
    {kAfterEquals,   kName,    kRead,  kUnquoted,      kCollect},       // a value without quotes
    {kSingleQuoted,  kSingle,  kRead,  kInTag,         kSetAttr},       // value complete
    {kSingleQuoted,  ~kSingle, kRead,  kSingleQuoted,  kCollect},       // value
    {kDoubleQuoted,  kDouble,  kRead,  kInTag,         kSetAttr},       // value complete
    {kDoubleQuoted,  ~kDouble, kRead,  kDoubleQuoted,  kCollect},       // value
    {kClosing,       kSpace,   kRead,  kClosing,       kNothing},       // white space after "/"
    {kClosing,       kName,    kRead,  kEndName,       kNothing},       // a name, which is not compared
    {kClosing,       kGreater, kRead,  kText,          kNothing},       // closed
    {kEndName,       kSpace,   kRead,  kAfterEndName,  kNothing},       // name complete
    {kEndName,       kName,    kRead,  kEndName,       kNothing},       // name, thrown away
    {kEndName,       kGreater, kRead,  kText,          kNothing},       // closed
    {kAfterEndName,  kSpace,   kRead,  kAfterEndName,  kNothing},       // white space after the name
    {kAfterEndName,  kGreater, kRead,  kText,          kNothing},       // closed
    {kBeforeSlash,   kSlash,   kRead,  kClosing,       kCloseElement},  // closes the empty element
    {kNextAttr,      kName,    kRead,  kAttrName,      kCollect},       // first character of the next name
    {kBareThenSlash, kSlash,   kAgain, kBeforeSlash,   kSetAttr},       // sets the value-less attribute
    {kBareThenEnd,   kGreater, kRead,  kText,          kSetAttr},       // sets it, and completes the start tag
    {kUnquoted,      kName,    kRead,  kUnquoted,      kCollect},       // value
    {kUnquoted,      ~kName,   kAgain, kInTag,         kSetAttr},       // value complete
    {0,              0,        0,      0,              0},
};
// clang-format on
static_assert(std::size(xmlTable) == kRowCount + 1, "the dialect has 45 rows, and one ends the table");
static_assert(sizeof(xmlTableRow) == 5 * sizeof(std::uint32_t), "five fields of 32 bits");

namespace {

/// The index of the first row of every state, where the search begins; of the end row for unused numbers.
constexpr std::array<std::size_t, kStateCount> kFirstRow = [] {
    std::array<std::size_t, kStateCount> rows{};
    for (std::size_t state = 0; state < rows.size(); ++state) {
        while (rows[state] < kRowCount && xmlTable[rows[state]].m_State != state) {
            ++rows[state];
        }
    }
    return rows;
}();

/// One document under construction.
class Document {
public:
    /// `levels` is the greatest depth; 0 is no limit. `source` is where the characters come from.
    Document(xmlParser& parser, std::uint32_t levels, TbString const& source) : m_Parser(parser), m_MaxLevels(levels) {
        m_Token.joinSecrecyOf(source);
        xmlElement* top = nullptr;
        m_Parser.createElement("", &top);
        m_Top = xmlAdopt(top);
        m_Current = top;
    }

    /// Feeds one character; returns kParsed to continue. Sets `again` when the character must be fed once more.
    Result feed(char character, bool& again) {
        xmlTableRow const* const row = getTabEntry(xmlTable + kFirstRow[m_State], m_State, character);
        if (row == nullptr) {
            return kUnexpectedCharacter;
        }
        if (row->m_Action == kCollect) {
            m_Token.append(character);
        } else if (row->m_Action == kCloseElement && m_Current->parent() == nullptr) {
            return kNothingToClose;
        } else if (row->m_Action == kOpenElement && m_MaxLevels != 0 && m_Level == m_MaxLevels) {
            return kBeyondLimit;
        } else {
            act(row->m_Action);
            m_Token.clear();
        }
        m_State = row->m_Next;
        again = row->m_Consume == kAgain;
        return kParsed;
    }

    /// Hands the finished document over.
    Result finish(xmlElement** out) const {
        if (m_State != kText || m_Current != m_Top.get()) {
            return kUnexpectedEnd;
        }
        xmlHandOut(m_Top, out);
        return kParsed;
    }

private:
    void act(std::uint32_t action) {
        switch (action) {
            case kOpenElement:
                openElement();
                break;
            case kNameAttr:
                m_AttrName = m_Token;
                break;
            case kCloseElement:
                m_Current = m_Current->parent();
                --m_Level;
                break;
            case kSetAttr:
                XMLDecode(m_Token, m_Token);
                m_Current->setAttribute(m_AttrName, m_Token);
                break;
            case kSetText:
                if (!m_Token.isEmpty()) {
                    m_Current->setText(m_Token);
                }
                break;
            default:
                break;
        }
    }

    void openElement() {
        xmlElement* created = nullptr;
        m_Parser.createElement(m_Token, &created);
        xmlElementPtr const child = xmlAdopt(created);
        m_Current->insertChild(created);
        m_Current = created;
        ++m_Level;
    }

    xmlParser& m_Parser;
    xmlElementPtr m_Top;              ///< Holds the whole tree; released with this object.
    xmlElement* m_Current = nullptr;  ///< Borrowed from the tree.
    std::uint32_t m_Level = 0;        ///< Of the current element.
    std::uint32_t m_MaxLevels;        ///< 0: no limit.
    std::uint32_t m_State = kText;
    TbString m_Token;
    TbString m_AttrName;
};

Result parse(xmlParser& parser, std::uint32_t maxLevels, TbStringStream& in, xmlElement** out) {
    Document document(parser, maxLevels, in);
    for (;;) {
        char character = 0;
        in.get(character);
        if (in.atEnd()) {
            return document.finish(out);
        }
        bool again = false;
        Result const result = document.feed(character, again);
        if (result != kParsed) {
            return result;
        }
        if (again) {
            in.unget();
        }
    }
}

}  // namespace

int isSpace(char character) noexcept {
    return character == '\t' || character == '\n' || character == '\r' || character == ' ' ? 1 : 0;
}

int isAlnum(char character) noexcept {
    bool const isLetter = (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
    bool const isDigit = character >= '0' && character <= '9';
    return isLetter || isDigit || character == '.' || character == '-' || character == '_' ? 1 : 0;
}

std::uint32_t getSymbol(char character) noexcept {
    switch (character) {
        case '<':
            return xmlSymbolLess;
        case '=':
            return xmlSymbolEquals;
        case '/':
            return xmlSymbolSlash;
        case '>':
            return xmlSymbolGreater;
        case '"':
            return xmlSymbolDoubleQuote;
        case '\'':
            return xmlSymbolSingleQuote;
        default:
            break;
    }
    if (isSpace(character) != 0) {
        return xmlSymbolSpace;
    }
    return isAlnum(character) != 0 ? xmlSymbolName : xmlSymbolOther;
}

xmlTableRow const* getTabEntry(xmlTableRow const* table, std::uint32_t state, char character) noexcept {
    std::uint32_t const symbol = getSymbol(character);
    for (xmlTableRow const* row = table; row->m_State != 0; ++row) {
        if (row->m_State == state && (row->m_Symbols & symbol) != 0) {
            return row;
        }
    }
    return nullptr;
}

xmlParser::~xmlParser() = default;

void xmlParser::createElement(TbString const& tag, xmlElement** out) {
    auto* const element = new xmlElement(tag);
    element->addRef();
    *out = element;
}

int xmlParser::parseText(TbStringStream& in, xmlElement** out) {
    return parse(*this, 0, in, out);
}

int xmlParseWithin(xmlLimits const& limits, TbStringStream& in, xmlElement** out) {
    if (limits.m_Bytes != 0 && in.length() > limits.m_Bytes) {
        return kBeyondLimit;
    }
    xmlParser parser;
    return parse(parser, limits.m_Levels, in, out);
}
