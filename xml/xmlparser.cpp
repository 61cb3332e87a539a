// The parser: the document under construction, and the loop over the text.
//
// The grammar is the table of xml/xmltable.h. For each character the loop takes the transition of the current state,
// performs its action on the document (open, name, set, close) and goes to the next state; some transitions look at the
// same character again, and a missing one is an error. Characters that are collected always stand side by side, so a
// token is a part of the input: nothing is copied before its value is known. Runs of them are skipped at once.

#include "xml/xmlparser.h"

#include <cstring>

#include "xml/xmlholder.h"
#include "xml/xmllimits.h"
#include "xml/xmltable.h"

namespace {

using namespace xmltable;

/// Results of `parseText`.
enum Result : int {
    kParsed = 0,
    kUnexpectedCharacter = 1,
    kUnexpectedEnd = 2,
    kNothingToClose = 3,
    kBeyondLimit = 4,  // only with limits
};

/// A part of the input, borrowed.
struct Slice {
    char const* m_Bytes = nullptr;
    std::uint32_t m_Length = 0;
};

/// The unread text of a stream. Whatever ends the parsing, the stream's read position is moved behind the last
/// character that was taken.
class Input {
public:
    explicit Input(TbStringStream& in) : m_In(in), m_Rest(in.unread()), m_Length(in.unreadLength()) {}
    Input(Input const&) = delete;
    Input& operator=(Input const&) = delete;
    ~Input() { m_In.skip(m_Taken); }

    [[nodiscard]] bool isAtEnd() const noexcept { return m_Taken == m_Length; }

    /// The next character. Requires: not at the end.
    char take() noexcept { return m_Rest[m_Taken++]; }

    /// Gives the last character back.
    void giveBack() noexcept { --m_Taken; }

    /// The last character that was taken, and all after it that `state` collects without a change of state; they are
    /// taken too.
    Slice takeRun(std::uint32_t state) noexcept {
        std::uint32_t const begin = m_Taken - 1;
        m_Taken = endOfRun(state);
        return {m_Rest + begin, m_Taken - begin};
    }

private:
    [[nodiscard]] std::uint32_t endOfRun(std::uint32_t state) const noexcept {
        if (kRunEnd[state] != kNoEnd) {
            void const* const end =
                isAtEnd() ? nullptr : std::memchr(m_Rest + m_Taken, kRunEnd[state], m_Length - m_Taken);
            return end == nullptr ? m_Length : static_cast<std::uint32_t>(static_cast<char const*>(end) - m_Rest);
        }
        std::uint32_t end = m_Taken;
        while (end < m_Length && (kCollected[state] >> classOf(m_Rest[end]) & 1U) != 0) {
            ++end;
        }
        return end;
    }

    TbStringStream& m_In;
    char const* m_Rest;      ///< Borrowed from the stream.
    std::uint32_t m_Length;  ///< Bytes at m_Rest.
    std::uint32_t m_Taken = 0;
};

/// One document under construction.
class Document {
public:
    /// `levels` is the greatest depth; 0 is no limit. `source` is where the characters come from.
    Document(xmlParser& parser, std::uint32_t levels, TbString const& source) : m_Parser(parser), m_MaxLevels(levels) {
        m_Text.joinSecrecyOf(source);
        m_Name.joinSecrecyOf(source);
        xmlElement* top = nullptr;
        m_Parser.createElement("", &top);
        m_Top = xmlAdopt(top);
        m_Current = top;
    }

    /// Takes what comes next from `in`, which is not at its end; returns kParsed to continue.
    Result step(Input& in) {
        Transition const transition = transitionOf(m_State, in.take());
        if (transition.m_Next == kNoState) {
            return kUnexpectedCharacter;
        }
        m_State = transition.m_Next;
        if (transition.m_Action == kCollect) {
            // Whatever was collected before, in another state, ends right before this.
            Slice const run = in.takeRun(m_State);
            m_Token = {m_Token.m_Length == 0 ? run.m_Bytes : m_Token.m_Bytes, m_Token.m_Length + run.m_Length};
            return kParsed;
        }
        if (transition.m_Action == kCloseElement && m_Current->parent() == nullptr) {
            return kNothingToClose;
        }
        if (transition.m_Action == kOpenElement && m_MaxLevels != 0 && m_Level == m_MaxLevels) {
            return kBeyondLimit;
        }
        act(transition.m_Action);
        m_Token = {};
        if (transition.m_IsAgain) {
            in.giveBack();
        }
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
                setAttribute();
                break;
            case kSetText:
                if (m_Token.m_Length != 0) {
                    m_Current->setText(textOf(m_Token));
                }
                break;
            default:
                break;
        }
    }

    void openElement() {
        xmlElement* created = nullptr;
        m_Parser.createElement(textOf(m_Token), &created);
        xmlElementPtr const child = xmlAdopt(created);
        m_Current->insertChild(created);
        m_Current = created;
        ++m_Level;
    }

    void setAttribute() {
        m_Name.clear();
        m_Name.append(m_AttrName.m_Bytes, m_AttrName.m_Length);
        XMLDecode(textOf(m_Token), m_Text);
        m_Current->setAttribute(m_Name, m_Text);
    }

    /// A copy of `slice`, good until the next one.
    TbString const& textOf(Slice slice) {
        m_Text.clear();
        return m_Text.append(slice.m_Bytes, slice.m_Length);
    }

    xmlParser& m_Parser;
    xmlElementPtr m_Top;              ///< Holds the whole tree; released with this object.
    xmlElement* m_Current = nullptr;  ///< Borrowed from the tree.
    std::uint32_t m_Level = 0;        ///< Of the current element.
    std::uint32_t m_MaxLevels;        ///< 0: no limit.
    std::uint32_t m_State = kText;
    Slice m_Token;  ///< Collected since the last other action.
    Slice m_AttrName;
    TbString m_Text;  ///< A slice as a string; secret when the input is.
    TbString m_Name;  ///< The same, for a name beside a text.
};

Result parse(xmlParser& parser, std::uint32_t maxLevels, TbStringStream& in, xmlElement** out) {
    Document document(parser, maxLevels, in);
    {
        Input input(in);
        while (!input.isAtEnd()) {
            Result const result = document.step(input);
            if (result != kParsed) {
                return result;
            }
        }
    }
    char none = 0;
    in.get(none);  // sets the stream's flag
    return document.finish(out);
}

}  // namespace

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
