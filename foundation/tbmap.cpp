// Pairs, map items, the insertion list, TbMap and TbStrMap.
//
// The tree stores TbMapItems, each around one owned item, usually a pair. All comparisons go through the key inside:
// tbKeyOf unwraps map items and pairs, so a bare key, a pair and a map item are found by each other. Two rules are
// odd: a string is compared with strings only, and a bare string that a caller put into a TbStrMap is replaced by a
// pair as soon as it is looked up.

#include "foundation/tbmap.h"

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

/// The value of a pair of strings; null for any other item. Requires: an item that was found by its key, so that a pair
/// has both halves.
TbString* stringValueOf(TbFindable& item) {
    if (!tbIs<TbKeyValue>(item, "TbKeyValue")) {
        return nullptr;
    }
    TbFindable& value = *static_cast<TbKeyValue&>(item).value();
    return tbIs<TbString>(value, "TbString") ? static_cast<TbString*>(&value) : nullptr;
}

}  // namespace

/// A map item with a pair of strings in one piece of memory: the item, its pair, key, value, and the key's text.
struct TbTextEntry {
    static TbFindable* make(TbString const& key) {
        if (!TbInPlaceText::suits(key)) {
            TbOwned<TbFindable> pair(new TbKeyValue(key, TbString("")));
            auto* const item = new TbMapItem(pair.get());
            pair.release();
            return item;
        }
        auto* const memory = static_cast<char*>(TbMapItem::operator new(kText + TbInPlaceText::bytesOf(key)));
        auto* const keyCopy = new (memory + kKey) TbInPlace<TbString>;
        TbInPlaceText::copy(*keyCopy, key, memory + kText);
        auto* const value = new (memory + kValue) TbInPlace<TbString>;
        TbInPlaceText::empty(*value);
        auto* const pair = new (memory + kPair) TbInPlace<TbKeyValue>;
        pair->m_Key = keyCopy;
        pair->m_Value = value;
        return new (memory) TbMapItem(pair);
    }

private:
    static constexpr std::size_t kPair = sizeof(TbMapItem);
    static constexpr std::size_t kKey = kPair + sizeof(TbKeyValue);
    static constexpr std::size_t kValue = kKey + sizeof(TbString);
    static constexpr std::size_t kText = kValue + sizeof(TbString);
    static_assert(alignof(TbMapItem) == alignof(TbKeyValue) && alignof(TbKeyValue) == alignof(TbString));
};

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
    delete m_Item;
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
        TbOwned<TbFindable> item(source.m_Item == nullptr ? nullptr : tbCopyOf(*source.m_Item));
        delete std::exchange(m_Item, item.release());
    }
    return *this;
}

bool TbMapItem::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbMapItem") || TbFindable::isInstanceOf(className);
}

bool TbMapItem::operator<(TbFindable const& other) const {
    TbFindable const* const counterpart = counterpartOf(m_Item, other);
    return counterpart != nullptr && *m_Item < *counterpart;
}

bool TbMapItem::operator==(TbFindable const& other) const {
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
            TbMap::put(*entry->item());
        }
    }
    return *this;
}

bool TbMap::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbMap") || TbRBTree::isInstanceOf(className);
}

TbMapItem* TbMap::putOwnedItem(TbFindable* item) {
    TbOwned<TbFindable> guard(item);
    TbOwned<TbMapItem> entry(new TbMapItem(item));
    guard.release();
    auto* const stored = static_cast<TbMapItem*>(putOwned(entry.release()));
    m_List.append(stored);
    return stored;
}

TbFindable* TbMap::put(TbFindable const& item) {
    return putOwnedItem(tbCopyOf(item).release());
}

bool TbMap::remove(TbFindable const& probe) {
    TbOwned<TbFindable> const entry(detach(probe));
    if (entry == nullptr) {
        return false;
    }
    m_List.unlink(static_cast<TbMapItem*>(entry.get()));
    return true;
}

void TbMap::clear(TbTreeNode* node) {
    destroyBelow(node, [](TbRBTree& tree, TbFindable& item) {
        static_cast<TbMap&>(tree).m_List.unlink(static_cast<TbMapItem*>(&item));
    });
}

TbFindable& TbMap::operator[](TbFindable const& key) {
    TbFindable* entry = find(key);
    if (entry == nullptr) {
        entry = put(key);
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
    TbString* const present = entry == nullptr ? nullptr : stringValueOf(*entry->item());
    if (present != nullptr) {
        return *present;
    }
    TbOwned<TbKeyValue> pair(new TbKeyValue(key, TbString("")));
    if (entry != nullptr) {
        // A bare string, stored through a TbMap&, is no pair: one takes its place.
        remove(key);
    }
    return *stringValueOf(*putOwnedItem(pair.release())->item());
}

/// The value under `key`, which is made when it is missing; null when the key has another value than a string, or when
/// the map holds other elements than pairs of strings.
TbString* TbStrMap::valueOfText(TbString const& key) {
    bool isNew = false;
    auto* const entry = static_cast<TbMapItem*>(findOrMake(key, &TbTextEntry::make, isNew));
    if (isNew) {
        appendToOrder(entry);
    }
    return entry == nullptr ? nullptr : stringValueOf(*entry->item());
}

void TbStrMap::allocate(TbObject** slot) {
    tbAllocateInto<TbStrMap>(slot);
}
