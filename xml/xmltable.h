/// The grammar in the form that the parser runs on. Internal: not installed.
#ifndef TALLOWIN_XML_XMLTABLE_H
#define TALLOWIN_XML_XMLTABLE_H

#include <array>
#include <cstdint>

#include "xml/xmlparser.h"

namespace xmltable {

enum State : std::uint32_t {
    kNoState = 0,
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

/// What one row does, in the form that is looked up.
struct Transition {
    std::uint8_t m_Next;  ///< kNoState: no row fits.
    std::uint8_t m_Action;
    bool m_IsAgain;  ///< The next state reads the same character again.
};

/// The classes as numbers, in the order of their bits.
constexpr std::size_t kClassCount = 9;

/// The number of each byte's class.
extern std::array<std::uint8_t, 256> const kClassOf;

/// The first row that fits, for each state and class.
using Transitions = std::array<std::array<Transition, kClassCount>, kStateCount>;

/// The rows up to one with state 0, expanded. Requires: states below kStateCount.
constexpr Transitions expanded(xmlTableRow const* rows) {
    Transitions transitions{};
    for (; rows->m_State != 0; ++rows) {
        for (std::size_t symbol = 0; symbol < kClassCount; ++symbol) {
            Transition& transition = transitions[rows->m_State][symbol];
            if ((rows->m_Symbols >> symbol & 1U) != 0 && transition.m_Next == kNoState) {
                transition.m_Next = static_cast<std::uint8_t>(rows->m_Next);
                transition.m_Action = static_cast<std::uint8_t>(rows->m_Action);
                transition.m_IsAgain = rows->m_Consume == 0;
            }
        }
    }
    return transitions;
}

extern Transitions const kTransitions;

/// For each state the classes, as bits, whose characters are collected without leaving the state.
extern std::array<std::uint32_t, kStateCount> const kCollected;

/// The same for characters that change nothing.
extern std::array<std::uint32_t, kStateCount> const kIdle;

/// For each state the one byte that it does not collect, or kNoEnd where there are more or none.
constexpr int kNoEnd = -1;
extern std::array<int, kStateCount> const kRunEnd;

/// The number of the class of the characters in names.
constexpr std::uint8_t kNameClass = 2;
static_assert(xmlSymbolName == 1U << kNameClass);

/// The number of the class of `character`.
inline std::uint8_t classOf(char character) noexcept {
    return kClassOf[static_cast<unsigned char>(character)];
}

/// The first row that fits. Requires: `state` < kStateCount.
inline Transition const& transitionOf(std::uint32_t state, char character) noexcept {
    return kTransitions[state][classOf(character)];
}

}  // namespace xmltable

#endif
