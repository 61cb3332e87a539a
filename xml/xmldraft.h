/// An element that is about to be made. Internal: not installed.
#ifndef TALLOWIN_XML_XMLDRAFT_H
#define TALLOWIN_XML_XMLDRAFT_H

#include "xml/xmlattributes.h"
#include "xml/xmlslice.h"

/// All that is known of an element before it exists. All texts are borrowed.
class xmlDraft {
public:
    /// Attributes that a draft holds. They are all found without a tree.
    static constexpr std::uint32_t kMaxAttributes = xmlAttributes::kFew;

    struct Attribute {
        char const* m_NameBytes;
        char const* m_ValueBytes;  ///< Encoded.
        std::uint32_t m_NameLength;
        std::uint32_t m_ValueLength;

        [[nodiscard]] xmlSlice name() const noexcept { return {m_NameBytes, m_NameLength}; }
        [[nodiscard]] xmlSlice value() const noexcept { return {m_ValueBytes, m_ValueLength}; }
    };

    /// An element without attributes and text; secret texts when `isSecret`.
    explicit xmlDraft(bool isSecret) noexcept : m_IsSecret(isSecret) {}

    /// Begins another element of the same secrecy.
    void begin(xmlSlice tag) noexcept {
        m_Tag = tag;
        m_Text = {};
        m_Count = 0;
        m_Marks = 0;
    }

    /// As setAttribute for `value`, which is encoded. False, and nothing changed, when there is no room for one more.
    /// Requires: `name` is not empty and has no zero byte.
    [[nodiscard]] bool setAttribute(xmlSlice name, xmlSlice value) noexcept {
        std::uint64_t const mark = markOf(name);
        Attribute* const present = (m_Marks & mark) == 0 ? nullptr : find(name);
        if (present == nullptr && m_Count == kMaxAttributes) {
            return false;
        }
        m_Marks |= mark;
        (present == nullptr ? m_Attributes[m_Count++] : *present) = {name.m_Bytes, value.m_Bytes, name.m_Length,
                                                                     value.m_Length};
        return true;
    }

    /// Requires: `text` is not empty.
    void setText(xmlSlice text) noexcept { m_Text = text; }

    [[nodiscard]] bool isSecret() const noexcept { return m_IsSecret; }
    [[nodiscard]] xmlSlice tag() const noexcept { return m_Tag; }
    [[nodiscard]] xmlSlice text() const noexcept { return m_Text; }
    [[nodiscard]] std::uint32_t attributeCount() const noexcept { return m_Count; }
    [[nodiscard]] Attribute const& attribute(std::uint32_t index) const noexcept { return m_Attributes[index]; }

private:
    /// One bit of 64, the same for equal names. Requires: `name` is not empty.
    [[nodiscard]] static std::uint64_t markOf(xmlSlice name) noexcept {
        auto const first = static_cast<unsigned char>(name.m_Bytes[0]);
        auto const last = static_cast<unsigned char>(name.m_Bytes[name.m_Length - 1]);
        return std::uint64_t{1} << ((first * 7U + last * 3U + name.m_Length) & 63U);
    }

    [[nodiscard]] Attribute* find(xmlSlice name) noexcept {
        for (std::uint32_t i = 0; i < m_Count; ++i) {
            Attribute& present = m_Attributes[i];
            if (present.m_NameLength == name.m_Length &&
                std::memcmp(present.m_NameBytes, name.m_Bytes, name.m_Length) == 0) {
                return &present;
            }
        }
        return nullptr;
    }

    bool m_IsSecret;
    xmlSlice m_Tag;
    xmlSlice m_Text;  ///< Empty: none.
    std::uint32_t m_Count = 0;
    std::uint64_t m_Marks = 0;               ///< Of all names: a name whose mark is not among them is new.
    Attribute m_Attributes[kMaxAttributes];  // NOLINT(cppcoreguidelines-pro-type-member-init): m_Count are in use
};

#endif
