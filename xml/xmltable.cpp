// The grammar of the parser, once as rows to read and once expanded to be looked up.
//
// xmlTable is the whole grammar: for a state and a class of characters the first row that names both is taken. A
// missing row is an error. The numbers of states and actions are part of the table's contract and have gaps. The
// compiler makes everything else of the rows: a transition for every state and class, and for every state the
// characters that it collects, so that runs of them are found without looking at each row again.

#include "xml/xmltable.h"

#include <iterator>

namespace {

using namespace xmltable;

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

constexpr bool isSpaceByte(char character) {
    return character == '\t' || character == '\n' || character == '\r' || character == ' ';
}

constexpr bool isNameByte(char character) {
    bool const isLetter = (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
    bool const isDigit = character >= '0' && character <= '9';
    return isLetter || isDigit || character == '.' || character == '-' || character == '_';
}

constexpr std::uint32_t symbolOf(char character) {
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
    if (isSpaceByte(character)) {
        return xmlSymbolSpace;
    }
    return isNameByte(character) ? xmlSymbolName : xmlSymbolOther;
}

constexpr char byteOf(std::size_t number) {
    return static_cast<char>(static_cast<unsigned char>(number));
}

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

constexpr std::array<std::uint8_t, 256> xmltable::kClassOf = [] {
    std::array<std::uint8_t, 256> classes{};
    for (std::size_t byte = 0; byte < classes.size(); ++byte) {
        while ((symbolOf(byteOf(byte)) >> classes[byte]) != 1) {
            ++classes[byte];
        }
    }
    return classes;
}();

constexpr Transitions xmltable::kTransitions = expanded(xmlTable);

namespace {

/// For each state the classes, as bits, for which `action` is all that happens.
constexpr std::array<std::uint32_t, kStateCount> repeated(Action action) {
    std::array<std::uint32_t, kStateCount> classes{};
    for (std::size_t state = 0; state < kStateCount; ++state) {
        for (std::size_t symbol = 0; symbol < kClassCount; ++symbol) {
            Transition const transition = kTransitions[state][symbol];
            if (transition.m_Next == state && transition.m_Action == action && !transition.m_IsAgain) {
                classes[state] |= std::uint32_t{1} << symbol;
            }
        }
    }
    return classes;
}

/// Whether the row for `byte` is read and leads from `state` to `next` with `action`.
constexpr bool leads(State state, char byte, State next, Action action) {
    Transition const transition = kTransitions[state][kClassOf[static_cast<unsigned char>(byte)]];
    return transition.m_Next == next && transition.m_Action == action && !transition.m_IsAgain;
}

// What the parser's one step over a tag of the common forms takes for granted.
static_assert(leads(kText, '<', kTagOpen, kSetText));
static_assert(leads(kTagOpen, 'a', kTagName, kCollect) && leads(kTagName, 'a', kTagName, kCollect));
static_assert(leads(kTagName, '>', kText, kOpenElement) && leads(kTagName, ' ', kInTag, kOpenElement));
static_assert(kTransitions[kTagName][kClassOf['/']].m_Next == kBeforeSlash &&
              kTransitions[kTagName][kClassOf['/']].m_Action == kOpenElement &&
              kTransitions[kTagName][kClassOf['/']].m_IsAgain);
static_assert(leads(kBeforeSlash, '/', kClosing, kCloseElement) && leads(kInTag, '/', kClosing, kCloseElement));
static_assert(leads(kInTag, '>', kText, kNothing) && leads(kClosing, '>', kText, kNothing));
static_assert(leads(kTagOpen, '/', kClosing, kCloseElement) && leads(kClosing, 'a', kEndName, kNothing));
static_assert(leads(kEndName, 'a', kEndName, kNothing) && leads(kEndName, '>', kText, kNothing));

// What its one step over name="value" takes for granted.
static_assert(leads(kInTag, ' ', kInTag, kNothing));
static_assert(leads(kInTag, 'a', kAttrName, kCollect) && leads(kAttrName, 'a', kAttrName, kCollect));
static_assert(leads(kAttrName, '=', kAfterEquals, kNameAttr));
static_assert(leads(kAfterEquals, '"', kDoubleQuoted, kNothing) && leads(kDoubleQuoted, '"', kInTag, kSetAttr));
static_assert(leads(kAfterEquals, '\'', kSingleQuoted, kNothing) && leads(kSingleQuoted, '\'', kInTag, kSetAttr));

}  // namespace

constexpr std::array<std::uint32_t, kStateCount> xmltable::kCollected = repeated(kCollect);
constexpr std::array<std::uint32_t, kStateCount> xmltable::kIdle = [] {
    std::array<std::uint32_t, kStateCount> classes = repeated(kNothing);
    classes[kNoState] = 0;  // where no row fits
    return classes;
}();

constexpr std::array<int, kStateCount> xmltable::kRunEnd = [] {
    std::array<int, kStateCount> ends{};
    for (std::size_t state = 0; state < kStateCount; ++state) {
        ends[state] = kNoEnd;
        std::size_t others = 0;
        for (std::size_t byte = 0; byte < kClassOf.size(); ++byte) {
            if ((kCollected[state] >> kClassOf[byte] & 1U) == 0) {
                ends[state] = ++others == 1 ? static_cast<int>(byte) : kNoEnd;
            }
        }
    }
    return ends;
}();

int isSpace(char character) noexcept {
    return isSpaceByte(character) ? 1 : 0;
}

int isAlnum(char character) noexcept {
    return isNameByte(character) ? 1 : 0;
}

std::uint32_t getSymbol(char character) noexcept {
    return symbolOf(character);
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
