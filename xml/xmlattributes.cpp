// Attributes: a piece of memory for each, a list of them in their order, and a tree over the places in the list. The
// pieces of the first ones may lie in one block with the list: those that the parser knows of, and those that have
// space in what was asked for as spare. What lies there stays until the list is destroyed.
//
// The tree holds numbers and looks the names up in the list, so a value is replaced without touching the tree. A name
// that is searched for stands in the tree's place by itself (ByName compares both). The tree is made with the first
// attribute beyond kFew.

#include "xml/xmlattributes.h"

#include <memory>
#include <set>
#include <utility>

#include "xml/xmlentities.h"

namespace {

/// Attributes for which a list of its own has room at first.
constexpr std::uint32_t kFirst = 4;

/// The longest value, that of a string with its slack.
constexpr std::uint64_t kMaxValue = UINT32_MAX - 65;

struct Releaser {
    void operator()(xmlAttribute* attribute) const noexcept { xmlAttribute::release(attribute); }
};

/// Orders positions by the names that stand there.
struct ByName {
    using is_transparent = void;

    [[nodiscard]] xmlSlice nameOf(std::uint32_t position) const noexcept { return (*m_Items)[position]->name(); }
    [[nodiscard]] static xmlSlice nameOf(xmlSlice name) noexcept { return name; }

    template <class Left, class Right>
    bool operator()(Left left, Right right) const noexcept {
        return xmlCompare(nameOf(left), nameOf(right)) < 0;
    }

    xmlAttribute* const* const* m_Items;
};

}  // namespace

struct xmlAttributes::Index {
    explicit Index(xmlAttribute* const* const& items) : m_Positions(ByName{&items}) {}

    static void* operator new(std::size_t bytes) { return xmlAllocate(bytes); }
    static void operator delete(void* memory) noexcept { tbRelease(memory); }

    std::set<std::uint32_t, ByName, xmlAllocator<std::uint32_t>> m_Positions;
};

std::uint64_t xmlAttribute::storedLength(xmlPart value, bool isEncoded) noexcept {
    return isEncoded ? value.m_Text.m_Length : xmlEncodedLength(value.m_Text);
}

xmlAttribute* xmlAttribute::create(xmlPart name, xmlPart value, bool isEncoded, std::uint64_t length) {
    std::uint64_t const bytes = sizeFor(name.m_Text.m_Length, length);
    if (length > kMaxValue || bytes > UINT32_MAX) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    xmlAttribute* const created =
        createAt(xmlAllocate(static_cast<std::size_t>(bytes)), name, value, isEncoded, length);
    created->m_IsEmbedded = false;
    return created;
}

xmlAttribute* xmlAttribute::createAt(void* place, xmlPart name, xmlPart value, bool isEncoded,
                                     std::uint64_t length) noexcept {
    auto* const created = static_cast<xmlAttribute*>(place);
    *created = {name.m_Text.m_Length, static_cast<std::uint32_t>(length), name.m_IsSecret, value.m_IsSecret, true};
    char* const end = writeHead(name.m_Text, reinterpret_cast<char*>(created + 1));
    *(isEncoded ? copyTo(end, value.m_Text) : xmlEncodeTo(value.m_Text, end)) = kAfterValue;
    return created;
}

void xmlAttribute::release(xmlAttribute* attribute) noexcept {
    auto const bytes = static_cast<std::size_t>(sizeFor(attribute->m_NameLength, attribute->m_ValueLength));
    bool const isSecret = attribute->m_IsNameSecret || attribute->m_IsValueSecret;
    xmlRelease(attribute, bytes, isSecret, attribute->m_IsEmbedded);
}

xmlAttributes* xmlAttributes::create() {
    return new (xmlAllocate(sizeFor(kFirst))) xmlAttributes(kFirst, false);
}

void xmlAttributes::release(xmlAttributes* attributes) noexcept {
    if (attributes != nullptr) {
        bool const isEmbedded = attributes->m_IsEmbedded;
        attributes->~xmlAttributes();
        if (!isEmbedded) {
            tbRelease(attributes);
        }
    }
}

xmlAttributes::~xmlAttributes() {
    for (std::uint32_t i = 0; m_IsReleaseDue && i < m_Count; ++i) {
        xmlAttribute::release(m_Items[i]);
    }
    if (m_Items != firstPlaces()) {
        tbReleaseBlock(m_Items);
    }
    delete m_Index;
}

std::uint32_t xmlAttributes::positionOf(xmlSlice name) const noexcept {
    if (m_Index != nullptr) {
        auto const found = m_Index->m_Positions.find(name);
        return found == m_Index->m_Positions.end() ? kNone : *found;
    }
    for (std::uint32_t i = 0; i < m_Count; ++i) {
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

void xmlAttributes::set(xmlPart name, xmlPart value, bool isEncoded) {
    put(make(name, value, isEncoded));
}

/// A new attribute, in the spare bytes where it has space there.
xmlAttribute* xmlAttributes::make(xmlPart name, xmlPart value, bool isEncoded) {
    constexpr std::uint64_t kStep = alignof(xmlAttribute);
    std::uint64_t const length = xmlAttribute::storedLength(value, isEncoded);
    std::uint64_t const bytes = (xmlAttribute::sizeFor(name.m_Text.m_Length, length) + kStep - 1) / kStep * kStep;
    if (bytes > m_Spare) {
        return xmlAttribute::create(name, value, isEncoded, length);
    }
    void* const place = reinterpret_cast<char*>(this) + m_SpareAt;
    m_SpareAt += static_cast<std::uint32_t>(bytes);
    m_Spare = static_cast<std::uint16_t>(m_Spare - bytes);
    return xmlAttribute::createAt(place, name, value, isEncoded, length);
}

/// Takes `attribute` over, at the place of the one with its name or at the end. On failure it is released.
void xmlAttributes::put(xmlAttribute* attribute) {
    std::uint32_t const position = positionOf(attribute->name());
    if (position == kNone) {
        append(attribute);
    } else {
        // Names that are equal may differ behind a zero byte; the last one counts.
        xmlAttribute::release(std::exchange(m_Items[position], attribute));
    }
    m_IsReleaseDue = true;
}

void xmlAttributes::append(xmlAttribute* attribute) {
    std::unique_ptr<xmlAttribute, Releaser> holder(attribute);
    makeRoom();
    m_Items[m_Count++] = attribute;  // the index looks names up where they stand
    try {
        if (m_Index != nullptr) {
            m_Index->m_Positions.insert(m_Count - 1);
        } else if (m_Count > kFew) {
            auto index = std::make_unique<Index>(m_Items);
            for (std::uint32_t i = 0; i < m_Count; ++i) {
                index->m_Positions.insert(i);
            }
            m_Index = index.release();
        }
    } catch (...) {
        --m_Count;
        throw;
    }
    holder.release();
}

/// Makes room for one more.
void xmlAttributes::makeRoom() {
    if (m_Count < m_Room) {
        return;
    }
    bool const isFirst = m_Items == firstPlaces();
    std::uint64_t const wanted = isFirst ? tbRoomFor(m_Room, m_Room + 1) : std::uint64_t{m_Count} + 1;
    void* const block = xmlResizePointers(isFirst ? nullptr : m_Items, wanted);
    if (isFirst) {
        std::memcpy(block, m_Items, m_Count * sizeof(xmlAttribute*));
    }
    m_Items = static_cast<xmlAttribute**>(block);
    m_Room = static_cast<std::uint32_t>(tbBlockSize(block) / sizeof(xmlAttribute*));
}
