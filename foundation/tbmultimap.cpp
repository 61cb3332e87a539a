// TbMultimap and TbStrPtrMultimap.
//
// The tree holds one vector per distinct key, and a vector is found by its first entry. Most entries are map items in
// the insertion list; entries that operator[] makes are bare pairs outside the list, so copying and destroying treat
// both kinds. An entry's vector leaves the tree before its entries are destroyed, because the tree compares by them.
// The count is kept by hand: the tree counts vectors, the multimap counts entries.

#include "foundation/tbmultimap.h"

#include "foundation/tbexception.h"
#include "foundation/tbowned.h"

namespace {

/// Slots of a new key's vector.
constexpr std::uint32_t kEntriesOfNewKey = 5;

bool isMapItem(TbFindable const& entry) {
    return tbIs<TbMapItem>(entry, "TbMapItem");
}

}  // namespace

TbMultimap::TbMultimap(TbMultimap const& other) : TbRBTree() {
    try {
        TbMultimap::assign(other);
    } catch (...) {
        TbMultimap::clear(rootNode());
        throw;
    }
}

TbMultimap::~TbMultimap() {
    TbMultimap::clear(rootNode());
}

TbMultimap& TbMultimap::operator=(TbMultimap const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbMultimap::getAllocator() const {
    return &TbMultimap::allocate;
}

TbMultimap& TbMultimap::assign(TbObject const& other) {
    auto const& source = static_cast<TbMultimap const&>(other);
    if (&source != this) {
        clear();
        copyUnlisted(source, source.root());
        for (TbMapItem const* entry = source.first(); entry != nullptr; entry = entry->next()) {
            TbMultimap::put(*entry->item());
        }
    }
    return *this;
}

bool TbMultimap::isInstanceOf(char const* className) {
    return tbIsName(className, "TbMultimap") || TbRBTree::isInstanceOf(className);
}

TbMapItem* TbMultimap::putOwnedItem(TbFindable* item) {
    TbOwned<TbFindable> guard(item);
    TbOwned<TbMapItem> entry(new TbMapItem(item));
    guard.release();
    addEntry(*entry);
    m_List.append(entry.get());
    return entry.release();
}

void TbMultimap::addEntry(TbFindable& entry) {
    auto* const present = static_cast<TbFindableVector*>(find(entry));
    if (present != nullptr) {
        present->push_back(&entry);
        ++m_Count;
        return;
    }
    TbOwned<TbFindableVector> fresh(new TbFindableVector(kEntriesOfNewKey));
    fresh->push_back(&entry);
    std::uint32_t const before = m_Count;
    putOwned(fresh.release());
    m_Count = before + 1;
}

void TbMultimap::copyUnlisted(TbMultimap const& source, TbTreeNode const* node) {
    if (node == nullptr || source.isSentinel(node)) {
        return;
    }
    copyUnlisted(source, node->left());
    auto const& entries = static_cast<TbFindableVector const&>(*node->item());
    for (std::uint32_t i = 0; i < entries.count(); ++i) {
        if (!isMapItem(*entries.at(i))) {
            TbOwned<TbFindable> entry = tbCopyOf(*entries.at(i));
            addEntry(*entry);
            entry.release();
        }
    }
    copyUnlisted(source, node->right());
}

TbFindable* TbMultimap::putVector(TbFindableVector const& vector) {
    if (vector.count() == 0) {
        throw TBFC_Exception(KVX_E_OUT_OF_RANGE);
    }
    if (find(*vector.at(0)) != nullptr) {
        throw TBFC_Exception(KVX_E_DUPLICATE_KEY);
    }
    std::uint32_t const before = m_Count;
    TbFindable* const stored = TbRBTree::put(vector);
    m_Count = before + vector.count();
    for (std::uint32_t i = 0; i < vector.count(); ++i) {
        if (isMapItem(*vector.at(i))) {
            m_List.append(static_cast<TbMapItem*>(vector.at(i)));
        }
    }
    return stored;
}

TbFindable* TbMultimap::put(TbFindable const& item) {
    if (tbIs<TbFindableVector>(item, "TbFindableVector")) {
        return putVector(static_cast<TbFindableVector const&>(item));
    }
    return putOwnedItem(tbCopyOf(item).release());
}

void TbMultimap::destroyEntry(TbFindable* entry) {
    // Entries that operator[] made are bare pairs outside the list.
    if (isMapItem(*entry)) {
        m_List.unlink(static_cast<TbMapItem*>(entry));
    }
    delete entry;
}

void TbMultimap::destroyEntries(TbFindableVector& entries) {
    for (std::uint32_t i = entries.count(); i > 0; --i) {
        destroyEntry(entries.at(i - 1));
    }
    entries.clear();
}

bool TbMultimap::remove(TbFindable const& probe) {
    auto* const entries = static_cast<TbFindableVector*>(find(probe));
    if (entries == nullptr) {
        return false;
    }
    // The tree must still find the vector by its first entry, so it leaves the tree before its entries go.
    std::uint32_t const left = m_Count - entries->count();
    TbOwned<TbTreeNode> const detached(detach(probe));
    m_Count = left;
    destroyEntries(*entries);
    return true;
}

bool TbMultimap::remove(TbFindable const& probe, long index) {
    auto* const entries = static_cast<TbFindableVector*>(find(probe));
    if (entries == nullptr || index < 0 || static_cast<unsigned long>(index) >= entries->count()) {
        return false;
    }
    if (entries->count() == 1) {
        return TbMultimap::remove(probe);
    }
    auto const position = static_cast<std::uint32_t>(index);
    TbFindable* const entry = entries->at(position);
    entries->remove(position);
    --m_Count;
    destroyEntry(entry);
    return true;
}

void TbMultimap::clear(TbTreeNode* node) {
    destroyBelow(node, [](TbRBTree& tree, TbFindable& item) {
        static_cast<TbMultimap&>(tree).destroyEntries(static_cast<TbFindableVector&>(item));
    });
}

TbFindableVector& TbMultimap::operator[](TbFindable const& key) {
    TbFindable* entries = find(key);
    if (entries == nullptr) {
        TbOwned<TbKeyValue> pair(new TbKeyValue(key, TbString("")));
        TbFindableVector fresh(kEntriesOfNewKey);
        fresh.push_back(pair.get());
        entries = putVector(fresh);
        pair.release();
    }
    return *static_cast<TbFindableVector*>(entries);
}

void TbMultimap::insert(TbFindable const& item) {
    put(item);
}

TbMapItem* TbMultimap::begin() {
    return m_List.m_First;
}

TbMapItem* TbMultimap::end() {
    return nullptr;
}

void TbMultimap::allocate(TbObject** slot) {
    tbAllocateInto<TbMultimap>(slot);
}

TbStrPtrMultimap& TbStrPtrMultimap::operator=(TbStrPtrMultimap const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbStrPtrMultimap::getAllocator() const {
    return &TbStrPtrMultimap::allocate;
}

bool TbStrPtrMultimap::isInstanceOf(char const* className) {
    return tbIsName(className, "TbStrPtrMultimap") || TbMultimap::isInstanceOf(className);
}

TbFindable* TbStrPtrMultimap::put(TbString const& key, TbPtr const& value) {
    return putOwnedItem(new TbStrPtr(key, value));
}

void TbStrPtrMultimap::insert(TbStrPtr const& pair) {
    putOwnedItem(new TbStrPtr(pair));
}

void TbStrPtrMultimap::allocate(TbObject** slot) {
    tbAllocateInto<TbStrPtrMultimap>(slot);
}
