// The parser: the document under construction, and the loop over the text.
//
// The grammar is the table of xml/xmltable.h. For each character the loop takes the transition of the current state,
// performs its action on the document (open, name, set, close) and goes to the next state; some transitions look at the
// same character again, and a missing one is an error. Characters that are collected always stand side by side, so a
// token is a part of the input: nothing is copied before its value is known. Runs of them are skipped at once.

#include "xml/xmlparser.h"

#include <cstring>
#include <utility>

#include "xml/xmlaccess.h"
#include "xml/xmlentities.h"
#include "xml/xmlholder.h"
#include "xml/xmllimits.h"
#include "xml/xmlscan.h"
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

/// How a tag ends that is taken at once.
enum class Tag {
    kNone,   // it is not taken
    kEnd,    // an end tag
    kOpen,   // a start tag with ">"
    kHead,   // the name of a start tag and a space
    kEmpty,  // an empty-element tag without attributes
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
    xmlSlice takeRun(std::uint32_t state) noexcept {
        std::uint32_t const begin = m_Taken - 1;
        m_Taken = endOfRun(state);
        return {m_Rest + begin, m_Taken - begin};
    }

    /// Takes all characters that `state` passes over without a change of state.
    void takeIdle(std::uint32_t state) noexcept { m_Taken = endOf(kIdle[state], m_Taken); }

    /// One tag of the common forms, when it comes next; then it is taken. Requires: not at the end.
    Tag takeTag(xmlSlice& name) noexcept {
        std::uint32_t const begin = m_Taken + 1;
        if (m_Rest[m_Taken] != '<' || begin == m_Length) {
            return Tag::kNone;
        }
        if (m_Rest[begin] == '/') {
            std::uint32_t const end = endOfName(begin + 1);
            return takeTo(end, 1, end != m_Length && m_Rest[end] == '>' ? Tag::kEnd : Tag::kNone);
        }
        std::uint32_t const end = endOfName(begin);
        if (end == begin || end == m_Length) {
            return Tag::kNone;
        }
        name = {m_Rest + begin, end - begin};
        if (isEmptyEnd(end)) {
            return takeTo(end, 2, Tag::kEmpty);
        }
        return takeTo(end, 1, m_Rest[end] == '>' ? Tag::kOpen : m_Rest[end] == ' ' ? Tag::kHead : Tag::kNone);
    }

    /// The end of a start tag, when it comes next; then it is taken. Requires: not at the end.
    Tag takeTagEnd() noexcept {
        if (isEmptyEnd(m_Taken)) {
            return takeTo(m_Taken, 2, Tag::kEmpty);
        }
        return takeTo(m_Taken, 1, m_Rest[m_Taken] == '>' ? Tag::kOpen : Tag::kNone);
    }

    /// One attribute of the common form, name="value" or name='value', with a space before it or none, when it comes
    /// next; then it is taken. Requires: not at the end.
    bool takeAttribute(xmlSlice& name, xmlSlice& value, bool& isEncoded) noexcept {
        std::uint32_t const begin = m_Rest[m_Taken] == ' ' ? m_Taken + 1 : m_Taken;
        std::uint32_t const equals = endOfName(begin);
        if (equals == begin || m_Length - equals < 3 || m_Rest[equals] != '=') {
            return false;
        }
        char const quote = m_Rest[equals + 1];
        if (quote != '"' && quote != '\'') {
            return false;
        }
        xmlSlice const rest{m_Rest + equals + 2, m_Length - equals - 2};
        std::uint32_t const encoded = xmlEncodedPrefix(rest);
        if (encoded == rest.m_Length) {
            return false;
        }
        isEncoded = rest.m_Bytes[encoded] == quote;
        std::uint32_t const end = isEncoded ? encoded : positionOf(rest, encoded, quote);
        if (end == rest.m_Length) {
            return false;
        }
        name = {m_Rest + begin, equals - begin};
        value = {rest.m_Bytes, end};
        m_Taken = equals + 2 + end + 1;
        return true;
    }

private:
    [[nodiscard]] std::uint32_t endOfRun(std::uint32_t state) const noexcept {
        if (kRunEnd[state] != kNoEnd) {
            return isAtEnd() ? m_Taken : positionOf({m_Rest, m_Length}, m_Taken, static_cast<char>(kRunEnd[state]));
        }
        return endOf(kCollected[state], m_Taken);
    }

    /// The first position from `begin` on where no character of a name stands.
    [[nodiscard]] std::uint32_t endOfName(std::uint32_t begin) const noexcept {
        return begin + xmlNameLength({m_Rest + begin, m_Length - begin});
    }

    /// Whether "/>" stands at `position`. Requires: that is not the end.
    [[nodiscard]] bool isEmptyEnd(std::uint32_t position) const noexcept {
        return m_Rest[position] == '/' && m_Length - position > 1 && m_Rest[position + 1] == '>';
    }

    /// Takes everything up to `position` and `more` characters there, unless `tag` is none; returns `tag`.
    Tag takeTo(std::uint32_t position, std::uint32_t more, Tag tag) noexcept {
        m_Taken = tag == Tag::kNone ? m_Taken : position + more;
        return tag;
    }

    /// The first position from `begin` on whose class is not among `classes`.
    [[nodiscard]] std::uint32_t endOf(std::uint32_t classes, std::uint32_t begin) const noexcept {
        while (begin < m_Length && (classes >> classOf(m_Rest[begin]) & 1U) != 0) {
            ++begin;
        }
        return begin;
    }

    /// The first `wanted` of `text` from `begin` on, or its end.
    static std::uint32_t positionOf(xmlSlice text, std::uint32_t begin, char wanted) noexcept {
        void const* const end = std::memchr(text.m_Bytes + begin, wanted, text.m_Length - begin);
        return end == nullptr ? text.m_Length
                              : static_cast<std::uint32_t>(static_cast<char const*>(end) - text.m_Bytes);
    }

    TbStringStream& m_In;
    char const* m_Rest;      ///< Borrowed from the stream.
    std::uint32_t m_Length;  ///< Bytes at m_Rest.
    std::uint32_t m_Taken = 0;
};

/// One document under construction.
class Document {
public:
    /// `levels` is the greatest depth; 0 is no limit. `source` is where the characters come from. The elements become
    /// children of `top`, borrowed.
    Document(std::uint32_t levels, TbString const& source, xmlElement& top)
        : m_Current(&top), m_MaxLevels(levels), m_Draft(source.isSecret()) {}

    /// Takes what comes next from `in`, which is not at its end; returns kParsed to continue.
    Result step(Input& in) {
        if ((m_State == kInTag && (stepOverAttribute(in) || stepOverTagEnd(in))) ||
            (m_State == kText && stepOverTag(in))) {
            return kParsed;
        }
        Transition const transition = transitionOf(m_State, in.take());
        if (transition.m_Next == kNoState) {
            return kUnexpectedCharacter;
        }
        m_State = transition.m_Next;
        if (transition.m_Action == kCollect) {
            m_Token = in.takeRun(m_State);  // no state collects after another: nothing was collected before
            return kParsed;
        }
        if (transition.m_Action == kCloseElement && m_Level == 0) {
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
        if (transition.m_Action == kNothing) {
            in.takeIdle(m_State);
        }
        return kParsed;
    }

    /// Whether the document is finished.
    [[nodiscard]] Result finish() const { return m_State == kText && m_Level == 0 ? kParsed : kUnexpectedEnd; }

private:
    /// One step in place of about six, for attributes of the form that nearly all have. All others go by the table.
    bool stepOverAttribute(Input& in) {
        bool isEncoded = false;
        if (!in.takeAttribute(m_AttrName, m_Token, isEncoded)) {
            return false;
        }
        setAttribute(isEncoded);
        m_Token = {};
        return true;
    }

    /// One step in place of about five, for tags of the forms that nearly all have, on levels where every tag is good.
    bool stepOverTag(Input& in) {
        if (m_Level == 0 || m_Level == m_MaxLevels) {
            return false;
        }
        xmlSlice name;
        Tag const tag = in.takeTag(name);
        if (tag == Tag::kNone) {
            return false;
        }
        act(kSetText);
        m_Token = name;
        if (tag == Tag::kEnd) {
            closeElement();
        } else {
            openElement();
            endStartTag(tag);
        }
        m_Token = {};
        return true;
    }

    bool stepOverTagEnd(Input& in) {
        Tag const tag = in.takeTagEnd();
        endStartTag(tag);
        return tag != Tag::kNone;
    }

    /// Goes on behind what was taken of a start tag.
    void endStartTag(Tag tag) {
        m_State = tag == Tag::kOpen || tag == Tag::kEmpty ? kText : kInTag;
        if (tag == Tag::kEmpty) {
            closeElement();
        }
    }

    void act(std::uint32_t action) {
        switch (action) {
            case kOpenElement:
                openElement();
                break;
            case kNameAttr:
                m_AttrName = m_Token;
                break;
            case kCloseElement:
                closeElement();
                break;
            case kSetAttr:
                setAttribute(xmlIsEncoded(m_Token));
                break;
            case kSetText:
                if (m_Token.m_Length != 0) {
                    setText();
                }
                break;
            default:
                break;
        }
    }

    void openElement() {
        if (m_IsDrafted) {
            m_Current = xmlAccess::insertNew(*m_Current, m_Draft, true);
        }
        m_Draft.begin(m_Token);
        m_IsDrafted = true;
        ++m_Level;
    }

    void closeElement() {
        if (m_IsDrafted) {
            xmlAccess::insertNew(*m_Current, m_Draft, false);
            m_IsDrafted = false;
        } else {
            m_Current = m_Current->parent();
        }
        --m_Level;
    }

    void setText() {
        if (m_IsDrafted) {
            m_Draft.setText(m_Token);
        } else {
            xmlAccess::setText(*m_Current, partOf(m_Token));
        }
    }

    /// `isEncoded` when the token may be kept as it stands.
    void setAttribute(bool isEncoded) {
        if (m_IsDrafted) {
            if (isEncoded && m_Draft.setAttribute(m_AttrName, m_Token)) {
                return;
            }
            m_Current = xmlAccess::insertNew(*m_Current, m_Draft, false);
            m_IsDrafted = false;
        }
        if (isEncoded) {
            xmlAccess::setAttribute(*m_Current, partOf(m_AttrName), partOf(m_Token), true);
            return;
        }
        TbString value;
        xmlDecodeInto(partOf(m_Token), value);
        xmlAccess::setAttribute(*m_Current, partOf(m_AttrName), xmlPartOf(value), false);
    }

    [[nodiscard]] xmlPart partOf(xmlSlice text) const noexcept { return {text, m_Draft.isSecret()}; }

    xmlElement* m_Current;      ///< The innermost open element but the drafted one. Borrowed from the tree.
    std::uint32_t m_Level = 0;  ///< Of the innermost open element.
    std::uint32_t m_MaxLevels;  ///< 0: no limit.
    std::uint32_t m_State = kText;
    bool m_IsDrafted = false;  ///< The innermost open element is m_Draft; it is made when all of its head is known.
    xmlDraft m_Draft;          ///< Secret when the input is; so is every part of the document.
    xmlSlice m_Token;          ///< Collected since the last other action.
    xmlSlice m_AttrName;
};

Result parse(std::uint32_t maxLevels, TbStringStream& in, xmlElement& top) {
    Document document(maxLevels, in, top);
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
    return document.finish();
}

}  // namespace

xmlParser::~xmlParser() = default;

void xmlParser::createElement(TbString const& tag, xmlElement** out) {
    auto* const element = new xmlElement(tag);
    element->addRef();
    *out = element;
}

int xmlParser::parseText(TbStringStream& in, xmlElement** out) {
    return xmlParseWithin({}, in, out);
}

int xmlParseWithin(xmlLimits const& limits, TbStringStream& in, xmlElement& top) {
    if (limits.m_Bytes != 0 && in.length() > limits.m_Bytes) {
        return kBeyondLimit;
    }
    return parse(limits.m_Levels, in, top);
}

int xmlParseWithin(xmlLimits const& limits, TbStringStream& in, xmlElement** out) {
    xmlHolder top = xmlHold(xmlAccess::create(xmlDraft(false), true));
    int const result = xmlParseWithin(limits, in, *top);
    if (result == kParsed) {
        xmlHandOut(std::move(top), out);
    }
    return result;
}
