// Attributes: one block for each, a list of them in their order, and a tree over the places in the list.
//
// The tree holds numbers and looks the names up in the list, so a value is replaced without touching the tree. A name
// that is searched for stands in the tree's place by itself (ByName compares both). The tree is made with the ninth
// attribute.

#include "xml/xmlattributes.h"

#include <memory>
#include <set>
#include <utility>

#include "xml/xmlentities.h"

namespace {

/// Attributes that are searched one after the other.
constexpr std::uint32_t kFew = 8;

/// Attributes for which an element has room at first.
constexpr std::uint32_t kFirst = 4;

/// What is written around name and value.
constexpr char kSpace = ' ';
constexpr char kBeforeValue[] = {'=', '"'};
constexpr char kAfterValue = '"';
constexpr std::size_t kAround = sizeof(kSpace) + sizeof(kBeforeValue) + sizeof(kAfterValue);

/// The longest value, that of a string with its slack.
constexpr std::uint64_t kMaxValue = UINT32_MAX - 65;

struct Releaser {
    void operator()(xmlAttribute* attribute) const noexcept { xmlAttribute::release(attribute); }
};

char* written(xmlSlice text, char* target) {
    std::memcpy(target, text.m_Bytes, text.m_Length);
    return target + text.m_Length;
}

/// Orders positions by the names that stand there.
struct ByName {
    using is_transparent = void;

    [[nodiscard]] xmlSlice nameOf(std::uint32_t position) const noexcept { return (*m_Items)[position]->name(); }
    [[nodiscard]] static xmlSlice nameOf(xmlSlice name) noexcept { return name; }

    template <class Left, class Right>
    bool operator()(Left left, Right right) const noexcept {
        return xmlCompare(nameOf(left), nameOf(right)) < 0;
    }

    xmlPointers<xmlAttribute> const* m_Items;
};

}  // namespace

struct xmlAttributes::Index {
    explicit Index(xmlPointers<xmlAttribute> const& items) : m_Positions(ByName{&items}) {}

    static void* operator new(std::size_t bytes) { return xmlAllocate(bytes); }
    static void operator delete(void* memory) noexcept { tbRelease(memory); }

    std::set<std::uint32_t, ByName, xmlAllocator<std::uint32_t>> m_Positions;
};

xmlAttribute* xmlAttribute::create(xmlPart name, xmlPart value, bool isEncoded) {
    std::uint64_t const length = isEncoded ? value.m_Text.m_Length : xmlEncodedLength(value.m_Text);
    std::uint64_t const bytes = sizeof(xmlAttribute) + kAround + name.m_Text.m_Length + length;
    if (length > kMaxValue || bytes > UINT32_MAX) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    auto* const created = static_cast<xmlAttribute*>(xmlAllocate(static_cast<std::size_t>(bytes)));
    *created = {name.m_Text.m_Length, static_cast<std::uint32_t>(length), name.m_IsSecret, value.m_IsSecret};
    char* end = reinterpret_cast<char*>(created + 1);
    *end++ = kSpace;
    end = written({kBeforeValue, sizeof(kBeforeValue)}, written(name.m_Text, end));
    end = isEncoded ? written(value.m_Text, end) : xmlEncodeTo(value.m_Text, end);
    *end = kAfterValue;
    return created;
}

void xmlAttribute::release(xmlAttribute* attribute) noexcept {
    std::size_t const bytes =
        sizeof(xmlAttribute) + kAround + attribute->m_NameLength + std::size_t{attribute->m_ValueLength};
    xmlRelease(attribute, bytes, attribute->m_IsNameSecret || attribute->m_IsValueSecret);
}

xmlAttributes::~xmlAttributes() {
    for (std::uint32_t i = 0; i < m_Items.count(); ++i) {
        xmlAttribute::release(m_Items[i]);
    }
    delete m_Index;
}

std::uint32_t xmlAttributes::positionOf(xmlSlice name) const noexcept {
    if (m_Index != nullptr) {
        auto const found = m_Index->m_Positions.find(name);
        return found == m_Index->m_Positions.end() ? kNone : *found;
    }
    for (std::uint32_t i = 0; i < m_Items.count(); ++i) {
        if (xmlCompare(m_Items[i]->name(), name) == 0) {
            return i;
        }
    }
    return kNone;
}

xmlAttribute const* xmlAttributes::find(xmlSlice name) const noexcept {
    std::uint32_t const position = positionOf(name);
    return position == kNone ? nullptr : m_Items[position];
}

void xmlAttributes::put(xmlAttribute* attribute) {
    std::uint32_t const position = positionOf(attribute->name());
    if (position == kNone) {
        append(attribute);
    } else {
        // Names that are equal may differ behind a zero byte; the last one counts.
        xmlAttribute::release(std::exchange(m_Items[position], attribute));
    }
}

void xmlAttributes::append(xmlAttribute* attribute) {
    std::unique_ptr<xmlAttribute, Releaser> holder(attribute);
    m_Items.makeRoom(kFirst);
    m_Items.push(attribute);  // the index looks names up where they stand
    try {
        if (m_Index != nullptr) {
            m_Index->m_Positions.insert(m_Items.count() - 1);
        } else if (m_Items.count() > kFew) {
            auto index = std::make_unique<Index>(m_Items);
            for (std::uint32_t i = 0; i < m_Items.count(); ++i) {
                index->m_Positions.insert(i);
            }
            m_Index = index.release();
        }
    } catch (...) {
        m_Items.pop();
        throw;
    }
    holder.release();
}
