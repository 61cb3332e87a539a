// Sequences of operations on a string, against std::string and the published rule of capacities, and on a stream.

#include <climits>
#include <cstring>

#include "foundation/tbstring.h"
#include "foundation/tbstringstream.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"

namespace kvxfuzz {

namespace {

int signOf(std::int64_t number) {
    return number < 0 ? -1 : number > 0 ? 1 : 0;
}

/// Three-way, as signed bytes, up to a zero byte in both.
int compareUpToZero(std::string const& left, std::string const& right) {
    std::string const a = upToZero(left);
    std::string const b = upToZero(right);
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        int const difference = static_cast<signed char>(a[i]) - static_cast<signed char>(b[i]);
        if (difference != 0) {
            return signOf(difference);
        }
    }
    return signOf(static_cast<std::int64_t>(a.size()) - static_cast<std::int64_t>(b.size()));
}

/// A string and what it must be.
class Subject {
public:
    void step(Input& input) {
        std::string const text = input.take(input.below(90));
        char const* const c = text.c_str();
        auto const size = static_cast<std::uint32_t>(text.size());
        switch (input.below(14)) {
            case 0:
                m_String.assign(c);
                replace(upToZero(text));
                break;
            case 1: {
                m_String.assign(c, size);
                std::string padded = upToZero(text);
                padded.resize(text.size(), '\0');
                replace(padded);
                break;
            }
            case 2:
                m_String.append(c);
                add(upToZero(text));
                break;
            case 3:
                m_String.append(c, size);
                add(text);
                break;
            case 4: {
                char const byte = text.empty() ? 'x' : text.front();
                m_String.append(byte);
                add(std::string(1, byte));
                break;
            }
            case 5:
                appendItself();
                break;
            case 6:
                m_String.clear();
                m_Model.clear();
                m_Capacity = 0;
                break;
            case 7:
                m_String.grow(size);
                reserve(size);
                break;
            case 8:
                m_String.assign(static_cast<char const*>(nullptr));
                m_Model.clear();
                m_Capacity = 0;
                break;
            case 9:
                m_String = m_String + tbText(text);
                m_Model += text;
                m_Capacity = m_Capacity == 0 && text.empty() ? 0 : m_Model.size() + 65;
                break;
            case 10:
                assignPartOfItself(input);
                break;
            default:
                compare(text, input);
        }
        check();
    }

private:
    void reserve(std::size_t extra) {
        std::size_t const need = m_Model.size() + extra;
        if (need + 1 > m_Capacity) {
            m_Capacity = need + 65;
        }
    }

    void add(std::string const& text) {
        reserve(text.size());
        m_Model += text;
    }

    void replace(std::string const& text) {
        m_Model = text;
        m_Capacity = text.size() + 65;
    }

    void appendItself() {
        if (m_Model.size() > 4096) {
            return;
        }
        m_String.append(m_String);
        if (!m_Model.empty()) {
            add(std::string(m_Model));
        }
    }

    void assignPartOfItself(Input& input) {
        if (m_Model.empty()) {
            return;
        }
        std::size_t const from = input.below(256) % m_Model.size();
        m_String.assign(m_String.buffer() + from);
        replace(upToZero(m_Model.substr(from)));
    }

    void compare(std::string const& text, Input& input) {
        TbString const other = tbText(text);
        std::int64_t const lengths = static_cast<std::int64_t>(m_Model.size()) - static_cast<std::int64_t>(text.size());
        int const strings = lengths == 0 ? compareUpToZero(m_Model, text) : signOf(lengths);
        requireEqual(signOf(m_String.compare(other)), strings, "comparison of two strings");
        require((m_String < other) == (strings < 0) && (m_String == other) == (strings == 0),
                "operators compare alike");
        requireEqual(signOf(m_String.compare(text.c_str())), compareUpToZero(m_Model, text), "comparison with a text");

        std::uint32_t const from = static_cast<std::uint32_t>(input.below(100));
        std::string const visible = upToZero(text);
        std::size_t const found = from > m_Model.size() ? std::string::npos : m_Model.find(visible, from);
        requireEqual(m_String.find(text.c_str(), from),
                     found == std::string::npos ? TbString::npos : std::int64_t(found), "position");
        auto const count = static_cast<std::uint32_t>(input.below(100));
        requireEqual(textOf(m_String.substring(from, count)), from < m_Model.size() ? m_Model.substr(from, count) : "",
                     "part of a string");
    }

    void check() const {
        requireEqual(textOf(m_String), m_Model, "content of a string");
        requireEqual(m_String.capacity(), static_cast<std::int64_t>(m_Capacity), "capacity of a string");
        require(m_String.buffer() == nullptr || m_String.buffer()[m_String.length()] == '\0', "a terminator ends it");
        TbString const copy(m_String);
        requireEqual(textOf(copy), m_Model, "copy of a string");
    }

    TbString m_String;
    std::string m_Model;
    std::size_t m_Capacity = 0;
};

/// A stream, its text, the bytes read of it and whether its end has been seen.
class StreamSubject {
public:
    void step(Input& input) {
        switch (input.below(4)) {
            case 0: {
                std::string const text = input.take(input.below(8));
                m_Stream.put(text.data(), static_cast<std::uint32_t>(text.size()));
                m_Text += text;
                m_AtEnd = false;
                break;
            }
            case 1:
                m_Stream.unget();
                m_Read -= m_Read == 0 ? 0 : 1;
                m_AtEnd = false;
                break;
            default:
                read();
        }
        require(m_Stream.atEnd() == m_AtEnd, "end of a stream");
        requireEqual(textOf(m_Stream.str()), m_Text, "all text of a stream");
    }

private:
    void read() {
        char byte = '?';
        m_Stream.get(byte);
        if (!m_AtEnd && m_Read < m_Text.size()) {
            requireEqual(byte, m_Text[m_Read++], "byte of a stream");
            return;
        }
        requireEqual(byte, '?', "nothing is delivered at the end");
        m_AtEnd = true;
    }

    TbStringStream m_Stream;
    std::string m_Text;
    std::size_t m_Read = 0;
    bool m_AtEnd = true;
};

}  // namespace

void runTarget(Input input) {
    Subject string;
    StreamSubject stream;
    while (!input.isEmpty()) {
        if (input.flag()) {
            string.step(input);
        } else {
            stream.step(input);
        }
    }
}

}  // namespace kvxfuzz
