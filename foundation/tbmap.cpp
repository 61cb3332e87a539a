// Pairs, map items, the insertion list, TbMap and TbStrMap.
//
// The tree stores TbMapItems, each around one owned item, usually a pair. Node and map item share one piece of memory;
// a pair of strings is not made before a caller asks for it (TbMapEntry). All comparisons go through the key inside:
// tbKeyOf unwraps map items and pairs, so a bare key, a pair and a map item are found by each other. Two rules are
// odd: a string is compared with strings only, and a bare string that a caller put into a TbStrMap is replaced by a
// pair as soon as it is looked up.

#include "foundation/tbmap.h"

#include <cstring>
#include <utility>

#include "foundation/tbowned.h"
#include "foundation/tbstrptr.h"

namespace {

/// Whether the two may be compared: strings compare with strings only.
bool areComparable(TbFindable const& left, TbFindable const& right) {
    return !tbIs<TbString>(left, "TbString") || tbIs<TbString>(right, "TbString");
}

/// The object to compare the item of a map item with, for a comparison with `other`; null when they cannot be compared.
/// Pairs unwrap each other themselves; any other item is compared with the key of a pair, so that both may be in one
/// tree.
TbFindable const* counterpartOf(TbFindable const* item, TbFindable const& other) {
    TbFindable const* const probe =
        tbIs<TbMapItem>(other, "TbMapItem") ? static_cast<TbMapItem const&>(other).item() : &other;
    if (item == nullptr || probe == nullptr) {
        return nullptr;
    }
    if (tbIs<TbKeyValue>(*item, "TbKeyValue") || tbIs<TbStrPtr>(*item, "TbStrPtr")) {
        return probe;
    }
    TbFindable const& key = tbKeyOf(*probe);
    return areComparable(*item, key) ? &key : nullptr;
}

}  // namespace

/// An element of a map in one piece of memory: the node, the map item, and what a pair of strings consists of.
///
/// Such an entry is compact at first: it holds the text of the key right behind the node, and the value right behind
/// the map item. Pair and key are made when a caller asks for the item. They count as living from the beginning, in one
/// step with the others, so that asking changes no count.
struct TbMapEntry {
    /// A compact entry of copies of `key` and `value`, a loose one where the key does not suit.
    static TbTreeNode* make(TbString const& key, TbString const& value) {
        if (!TbInPlaceText::suits(key)) {
            return makeLoose(new TbKeyValue(key, value));
        }
        TbOwned<TbTreeNode> node(makeCompact(key, TbTreeNode::rankOf(key.buffer(), key.length())));
        valueOf(*node).assign(static_cast<TbObject const&>(value));
        return node.release();
    }

    /// The same with an empty value that has a buffer; `rank` is that of the key.
    static TbTreeNode* makeEmpty(TbString const& key, std::uint64_t rank) {
        if (!TbInPlaceText::suits(key)) {
            return makeLoose(new TbKeyValue(key, TbString("")));
        }
        TbTreeNode* const node = makeCompact(key, rank);
        TbInPlaceText::empty(valueOf(*node));
        return node;
    }

    /// An entry around `item`, which is taken over; destroyed on failure.
    static TbTreeNode* makeLoose(TbFindable* item) {
        TbOwned<TbFindable> guard(item);
        auto* const memory = static_cast<char*>(TbTreeNode::operator new(sizeof(TbTreeNode) + sizeof(TbMapItem)));
        auto* const node = new (memory) TbTreeNode;
        auto* const entry = new (memory + sizeof(TbTreeNode)) TbInPlace<TbMapItem>;
        entry->m_Item = guard.release();
        entry->m_Offset = sizeof(TbTreeNode);
        node->m_Red = true;
        node->m_Item = entry;
        node->describeKey();
        return node;
    }

    /// An entry around a copy of `item`.
    static TbTreeNode* copyOf(TbFindable const& item) {
        if (item.getAllocator() == &TbKeyValue::allocate) {
            auto const& pair = static_cast<TbKeyValue const&>(item);
            if (isPlainString(pair.key()) && isPlainString(pair.value())) {
                return make(static_cast<TbString const&>(*pair.key()), static_cast<TbString const&>(*pair.value()));
            }
        }
        return makeLoose(tbCopyOf(item).release());
    }

    static TbTreeNode* copyOfEntry(TbMapItem const& entry) {
        return entry.m_IsCompact ? make(Key(entry), valueOf(entry)) : copyOf(*entry.m_Item);
    }

    /// A copy of the item of `entry`; null when it is empty.
    static TbOwned<TbFindable> copyOfItem(TbMapItem const& entry) {
        if (entry.m_IsCompact) {
            return TbOwned<TbFindable>(new TbKeyValue(Key(entry), valueOf(entry)));
        }
        return entry.m_Item == nullptr ? nullptr : tbCopyOf(*entry.m_Item);
    }

    /// Destroys the node, and all that lies with it.
    static void destroy(TbTreeNode* node) {
        if (node->m_Key != TbTreeNode::Key::kCompact) {
            delete node;
            return;
        }
        // Only the text of the value may need more than the release of the memory.
        valueOf(*node).clear();
        TbRefCounter::countLiving(-kObjects);
        TbTreeNode::operator delete(node);
    }

    /// Makes the pair of a compact entry.
    static TbFindable* makePair(TbMapItem const& entry) {
        auto* const memory = static_cast<char*>(TbKeyValue::operator new(sizeof(TbKeyValue) + sizeof(TbString)));
        auto* const pair = new (memory) TbKeyValue(TbCountedByMaker{});
        auto* const key = new (memory + sizeof(TbKeyValue)) TbInPlace<TbString>(TbCountedByMaker{});
        TbTreeNode& node = *nodeOf(entry);
        TbInPlaceText::lend(*key, textOf(node), node.textLength());
        pair->m_Key = key;
        pair->m_Value = &valueOf(entry);
        entry.m_Item = pair;
        entry.m_IsCompact = false;
        node.m_Key = TbTreeNode::Key::kPair;
        return pair;
    }

    /// Destroys the pair of a compact entry.
    static void dropPair(TbMapItem& entry) {
        valueOf(entry).~TbString();
        TbRefCounter::countLiving(-kObjectsOfPair);
        entry.m_IsCompact = false;
        nodeOf(entry)->m_Key = TbTreeNode::Key::kPair;
    }

    /// The node in whose memory `entry`, an item of a map, lies.
    static TbTreeNode* nodeOf(TbMapItem const& entry) {
        auto* const place = reinterpret_cast<char*>(const_cast<TbMapItem*>(&entry));
        return reinterpret_cast<TbTreeNode*>(place - entry.m_Offset);
    }

    /// The value of a compact entry.
    static TbString& valueOf(TbMapItem const& entry) {
        return *reinterpret_cast<TbString*>(const_cast<TbMapItem*>(&entry) + 1);
    }

    static TbString* stringValueOf(TbMapItem const& entry);

    /// The key of a compact entry, as long as that exists.
    class Key : public TbString {
    public:
        explicit Key(TbMapItem const& entry) {
            TbTreeNode& node = *nodeOf(entry);
            TbInPlaceText::lend(*this, textOf(node), node.textLength());
        }
        Key(Key const&) = delete;
        Key& operator=(Key const&) = delete;
        using TbString::operator=;
    };

private:
    /// The node, the map item, the pair, its key and value; the last three make the pair, of which the value is made
    /// with the entry.
    static constexpr std::int32_t kObjects = 5;
    static constexpr std::int32_t kObjectsOfPair = 2;

    /// The least room for the text of a value, zero byte included.
    static constexpr std::size_t kLeastRoom = 12;

    static bool isPlainString(TbFindable const* object) {
        return object != nullptr && object->getAllocator() == &TbString::allocate;
    }

    static char* textOf(TbTreeNode& node) { return reinterpret_cast<char*>(&node + 1); }

    static TbString& valueOf(TbTreeNode const& node) { return valueOf(static_cast<TbMapItem const&>(*node.m_Item)); }

    /// As many bytes as the allocator has for `bytes`.
    static constexpr std::size_t wholeBlock(std::size_t bytes) {
        constexpr std::size_t kStep = 2 * sizeof(void*);
        return (bytes - 1 + sizeof(void*)) / kStep * kStep + sizeof(void*);
    }

    /// A compact entry, the value without a buffer.
    static TbTreeNode* makeCompact(TbString const& key, std::uint64_t rank) {
        constexpr std::size_t kAligned = alignof(TbMapItem);
        std::size_t const keyBytes = (TbInPlaceText::bytesOf(key) + kAligned - 1) / kAligned * kAligned;
        std::size_t const itemAt = sizeof(TbTreeNode) + keyBytes;
        std::size_t const valueAt = itemAt + sizeof(TbMapItem);
        std::size_t const bytes = wholeBlock(valueAt + TbInPlaceText::sizeWithRoom(kLeastRoom));
        auto* const memory = static_cast<char*>(TbTreeNode::operator new(bytes));
        auto* const node = new (memory) TbTreeNode(TbCountedByMaker{});
        auto* const entry = new (memory + itemAt) TbInPlace<TbMapItem>(TbCountedByMaker{});
        auto* const value = new (memory + valueAt) TbInPlace<TbString>(TbCountedByMaker{});
        TbRefCounter::countLiving(kObjects);
        TbInPlaceText::giveRoom(*value, static_cast<std::uint16_t>(bytes - valueAt - TbInPlaceText::sizeWithRoom(0)));
        entry->m_Offset = static_cast<std::uint8_t>(itemAt);
        entry->m_IsCompact = true;
        char* const text = textOf(*node);
        std::memcpy(text, key.buffer(), TbInPlaceText::bytesOf(key));
        node->m_Red = true;
        node->m_Item = entry;
        node->m_Key = TbTreeNode::Key::kCompact;
        node->m_Rank = rank;
        return node;
    }

    static_assert(sizeof(TbTreeNode) % alignof(TbMapItem) == 0 && sizeof(TbMapItem) % alignof(TbString) == 0 &&
                  sizeof(TbKeyValue) % alignof(TbString) == 0);
    static_assert(sizeof(TbTreeNode) + TbInPlaceText::kMost + 1 + alignof(TbMapItem) <= UINT8_MAX);
};

TbTreeNode const* tbCompactNodeOf(TbFindable const& element) noexcept {
    if (element.getAllocator() != &TbMapItem::allocate) {
        return nullptr;
    }
    auto const& entry = static_cast<TbMapItem const&>(element);
    return entry.m_IsCompact ? TbMapEntry::nodeOf(entry) : nullptr;
}

TbString const* tbTextKeyOf(TbFindable const& element) {
    TbFindable const* key = &element;
    TbAllocator allocator = key->getAllocator();
    if (allocator == &TbMapItem::allocate) {
        key = static_cast<TbMapItem const*>(key)->item();
        allocator = key == nullptr ? nullptr : key->getAllocator();
    }
    if (allocator == &TbStrPtr::allocate) {
        return &static_cast<TbStrPtr const*>(key)->key();
    }
    if (allocator == &TbKeyValue::allocate) {
        key = static_cast<TbKeyValue const*>(key)->key();
        allocator = key == nullptr ? nullptr : key->getAllocator();
    }
    return allocator == &TbString::allocate ? static_cast<TbString const*>(key) : nullptr;
}

bool tbIsContainerPart(TbAllocator allocator) noexcept {
    return allocator == &TbString::allocate || allocator == &TbMapItem::allocate ||
           allocator == &TbKeyValue::allocate || allocator == &TbStrPtr::allocate ||
           allocator == &TbFindableVector::allocate;
}

TbFindable const& tbKeyOf(TbFindable const& element) {
    TbFindable const* key = &element;
    if (tbIs<TbMapItem>(*key, "TbMapItem") && static_cast<TbMapItem const*>(key)->item() != nullptr) {
        key = static_cast<TbMapItem const*>(key)->item();
    }
    if (tbIs<TbKeyValue>(*key, "TbKeyValue") && static_cast<TbKeyValue const*>(key)->key() != nullptr) {
        return *static_cast<TbKeyValue const*>(key)->key();
    }
    return tbIs<TbStrPtr>(*key, "TbStrPtr") ? static_cast<TbStrPtr const*>(key)->key() : *key;
}

/// The value of a pair of strings; null for any other item. Requires: an entry that was found by its key, so that a
/// pair has both halves.
TbString* TbMapEntry::stringValueOf(TbMapItem const& entry) {
    if (entry.m_IsCompact) {
        return &valueOf(entry);
    }
    if (!tbIs<TbKeyValue>(*entry.m_Item, "TbKeyValue")) {
        return nullptr;
    }
    TbFindable& value = *static_cast<TbKeyValue&>(*entry.m_Item).value();
    return tbIs<TbString>(value, "TbString") ? static_cast<TbString*>(&value) : nullptr;
}

TbKeyValue::TbKeyValue(TbFindable const& key, TbFindable const& value) {
    TbOwned<TbFindable> keyCopy = tbCopyOf(key);
    m_Value = tbCopyOf(value).release();
    m_Key = keyCopy.release();
}

TbKeyValue::TbKeyValue(TbKeyValue const& other) : TbFindable() {
    TbKeyValue::assign(other);
}

TbKeyValue::~TbKeyValue() {
    delete m_Value;
    delete m_Key;
}

TbKeyValue& TbKeyValue::operator=(TbKeyValue const& other) {
    assign(other);
    return *this;
}

TbAllocator TbKeyValue::getAllocator() const {
    return &TbKeyValue::allocate;
}

TbKeyValue& TbKeyValue::assign(TbObject const& other) {
    auto const& source = static_cast<TbKeyValue const&>(other);
    if (&source != this) {
        TbOwned<TbFindable> key(source.m_Key == nullptr ? nullptr : tbCopyOf(*source.m_Key));
        TbOwned<TbFindable> value(source.m_Value == nullptr ? nullptr : tbCopyOf(*source.m_Value));
        delete std::exchange(m_Key, key.release());
        delete std::exchange(m_Value, value.release());
    }
    return *this;
}

bool TbKeyValue::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbKeyValue") || TbFindable::isInstanceOf(className);
}

bool TbKeyValue::operator<(TbFindable const& other) const {
    TbFindable const& key = tbKeyOf(other);
    return m_Key != nullptr && areComparable(*m_Key, key) && *m_Key < key;
}

bool TbKeyValue::operator==(TbFindable const& other) const {
    TbFindable const& key = tbKeyOf(other);
    return m_Key != nullptr && areComparable(*m_Key, key) && *m_Key == key;
}

void TbKeyValue::allocate(TbObject** slot) {
    tbAllocateInto<TbKeyValue>(slot);
}

TbMapItem::TbMapItem(TbMapItem const& other) : TbFindable() {
    TbMapItem::assign(other);
}

TbMapItem::~TbMapItem() {
    setItem(nullptr);
}

TbFindable* TbMapItem::makePair() const {
    return TbMapEntry::makePair(*this);
}

void TbMapItem::setItem(TbFindable* item) noexcept {
    if (m_IsCompact) {
        TbMapEntry::dropPair(*this);
    }
    delete std::exchange(m_Item, item);
}

TbMapItem& TbMapItem::operator=(TbMapItem const& other) {
    assign(other);
    return *this;
}

TbAllocator TbMapItem::getAllocator() const {
    return &TbMapItem::allocate;
}

TbMapItem& TbMapItem::assign(TbObject const& other) {
    auto const& source = static_cast<TbMapItem const&>(other);
    if (&source != this) {
        setItem(TbMapEntry::copyOfItem(source).release());
    }
    return *this;
}

bool TbMapItem::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbMapItem") || TbFindable::isInstanceOf(className);
}

bool TbMapItem::operator<(TbFindable const& other) const {
    if (m_IsCompact) {
        TbFindable const& key = tbKeyOf(other);
        return tbIs<TbString>(key, "TbString") && TbMapEntry::Key(*this) < key;
    }
    TbFindable const* const counterpart = counterpartOf(m_Item, other);
    return counterpart != nullptr && *m_Item < *counterpart;
}

bool TbMapItem::operator==(TbFindable const& other) const {
    if (m_IsCompact) {
        TbFindable const& key = tbKeyOf(other);
        return tbIs<TbString>(key, "TbString") && TbMapEntry::Key(*this) == key;
    }
    TbFindable const* const counterpart = counterpartOf(m_Item, other);
    return counterpart != nullptr && *m_Item == *counterpart;
}

void TbMapItem::allocate(TbObject** slot) {
    tbAllocateInto<TbMapItem>(slot);
}

void TbInsertionList::append(TbMapItem* item) noexcept {
    item->m_Previous = m_Last;
    item->m_Next = nullptr;
    (m_Last == nullptr ? m_First : m_Last->m_Next) = item;
    m_Last = item;
}

void TbInsertionList::unlink(TbMapItem* item) noexcept {
    (item->m_Previous == nullptr ? m_First : item->m_Previous->m_Next) = item->m_Next;
    (item->m_Next == nullptr ? m_Last : item->m_Next->m_Previous) = item->m_Previous;
    item->m_Previous = nullptr;
    item->m_Next = nullptr;
}

TbMap::TbMap(TbMap const& other) : TbRBTree() {
    TbMap::assign(other);
}

TbMap::~TbMap() {
    TbMap::clear(rootNode());
}

TbMap& TbMap::operator=(TbMap const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbMap::getAllocator() const {
    return &TbMap::allocate;
}

TbMap& TbMap::assign(TbObject const& other) {
    auto const& source = static_cast<TbMap const&>(other);
    if (&source != this) {
        clear();
        for (TbMapItem const* entry = source.first(); entry != nullptr; entry = entry->next()) {
            putEntry(TbMapEntry::copyOfEntry(*entry));
        }
    }
    return *this;
}

bool TbMap::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbMap") || TbRBTree::isInstanceOf(className);
}

/// Links a node that TbMapEntry made; destroyed on failure.
TbMapItem* TbMap::putEntry(TbTreeNode* node) {
    auto* const entry = static_cast<TbMapItem*>(itemOf(*node));
    putNode(node);
    m_List.append(entry);
    return entry;
}

TbMapItem* TbMap::putOwnedItem(TbFindable* item) {
    return putEntry(TbMapEntry::makeLoose(item));
}

TbFindable* TbMap::put(TbFindable const& item) {
    return putEntry(TbMapEntry::copyOf(item));
}

bool TbMap::remove(TbFindable const& probe) {
    TbTreeNode* const node = detach(probe);
    if (node == nullptr) {
        return false;
    }
    m_List.unlink(static_cast<TbMapItem*>(itemOf(*node)));
    TbMapEntry::destroy(node);
    return true;
}

void TbMap::clear(TbTreeNode* node) {
    if (node == rootNode()) {
        // In the order of insertion, which is most often that of the memory.
        forgetNodes();
        TbMapItem* entry = std::exchange(m_List, {}).m_First;
        while (entry != nullptr) {
            TbMapItem* const next = entry->next();
            TbMapEntry::destroy(TbMapEntry::nodeOf(*entry));
            entry = next;
        }
        return;
    }
    destroyBelow(node, [](TbRBTree& tree, TbFindable& item) {
        static_cast<TbMap&>(tree).m_List.unlink(static_cast<TbMapItem*>(&item));
    });
}

TbFindable& TbMap::operator[](TbFindable const& key) {
    TbFindable* entry = find(key);
    if (entry == nullptr) {
        entry = putOwnedItem(tbCopyOf(key).release());  // not `put`: the item is asked for at once, and must be there
    }
    return *static_cast<TbMapItem*>(entry)->item();
}

void TbMap::insert(TbFindable const& item) {
    put(item);
}

TbMapItem* TbMap::begin() {
    return m_List.m_First;
}

TbMapItem* TbMap::end() {
    return nullptr;
}

void TbMap::allocate(TbObject** slot) {
    tbAllocateInto<TbMap>(slot);
}

TbStrMap& TbStrMap::operator=(TbStrMap const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbStrMap::getAllocator() const {
    return &TbStrMap::allocate;
}

bool TbStrMap::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbStrMap") || TbMap::isInstanceOf(className);
}

TbString& TbStrMap::operator[](TbString const& key) {
    if (key.getAllocator() == &TbString::allocate) {
        if (TbString* const value = valueOfText(key)) {
            return *value;
        }
    }
    auto* const entry = static_cast<TbMapItem*>(find(key));
    TbString* const present = entry == nullptr ? nullptr : TbMapEntry::stringValueOf(*entry);
    if (present != nullptr) {
        return *present;
    }
    TbOwned<TbKeyValue> pair(new TbKeyValue(key, TbString("")));
    if (entry != nullptr) {
        // A bare string, stored through a TbMap&, is no pair: one takes its place.
        remove(key);
    }
    return *TbMapEntry::stringValueOf(*putOwnedItem(pair.release()));
}

/// The value under `key`, which is made when it is missing; null when the key has another value than a string, or when
/// the map holds other elements than pairs of strings.
TbString* TbStrMap::valueOfText(TbString const& key) {
    bool isNew = false;
    auto* const entry = static_cast<TbMapItem*>(findOrMake(key, &TbMapEntry::makeEmpty, isNew));
    if (isNew) {
        appendToOrder(entry);
    }
    return entry == nullptr ? nullptr : TbMapEntry::stringValueOf(*entry);
}

void TbStrMap::allocate(TbObject** slot) {
    tbAllocateInto<TbStrMap>(slot);
}
