/// Maps with several entries under one key.
#ifndef TALLOWIN_FOUNDATION_TBMULTIMAP_H
#define TALLOWIN_FOUNDATION_TBMULTIMAP_H

#include "tallowin/tbmap.h"
#include "tallowin/tbptr.h"
#include "tallowin/tbstrptr.h"

// Deliberate (hidden-overloads): containers hide inherited overloads; which one a call finds is part of their
// behaviour.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// Entries under keys, several per key, iterated in insertion order across all keys.
///
/// The tree stores one TbFindableVector per distinct key; `find` and `operator[]` return it, borrowed. Its entries are
/// TbMapItems. A key disappears with its last entry. `count()` counts entries, not keys.
class KVX_EXPORT TbMultimap : public TbRBTree {
public:
    TbMultimap() = default;
    TbMultimap(TbMultimap const& other);
    ~TbMultimap() override;

    TbMultimap& operator=(TbMultimap const& other);
    using TbRBTree::operator=;

    TbAllocator getAllocator() const override;

    /// A deep copy in insertion order, the entries that `operator[]` made first. Itself: no change.
    TbMultimap& assign(TbObject const& other) override;

    using TbRBTree::clear;

    /// Stores a copy of `item` as the last entry of its key and of the order; returns its TbMapItem, borrowed.
    /// A TbFindableVector with entries becomes the vector of a new key, its entries owned by the map from then on; the
    /// stored vector is returned. Raises KVX_E_DUPLICATE_KEY when the key is there, KVX_E_OUT_OF_RANGE for an empty
    /// vector; its entries stay with the caller then.
    TbFindable* put(TbFindable const& item) override;

    /// Removes all entries of the key; false when there is none.
    bool remove(TbFindable const& probe) override;

    void clear(TbTreeNode* node) override;

    /// Deliberate (multimap-name-not-const): not const, so it does not override the inherited operation, which still
    /// reports a TbRBTree.
    virtual bool isInstanceOf(char const* className);

    /// The entries of `key`; a vector with one TbKeyValue of copies of `key` and "" is stored when there are none.
    virtual TbFindableVector& operator[](TbFindable const& key);

    /// Destroys entry `index` (from 0) of the key, and the key with its last entry. False when there is no such entry.
    virtual bool remove(TbFindable const& probe, long index);

    /// `put`, without the result.
    virtual void insert(TbFindable const& item);

    /// The entry inserted first, null in an empty map; iterate with `next()` until `end()`.
    virtual TbMapItem* begin();

    /// Null, the end of the iteration.
    virtual TbMapItem* end();

    /// The same for a constant map.
    [[nodiscard]] TbMapItem const* first() const noexcept { return m_List.m_First; }

    static void allocate(TbObject** slot);

protected:
    /// `put` for an item, not a vector, that is taken over; destroyed on failure.
    TbMapItem* putOwnedItem(TbFindable* item);

private:
    TbFindable* putVector(TbFindableVector const& vector);
    void addEntry(TbFindable& entry);
    void copyUnlisted(TbMultimap const& source, TbTreeNode const* node);
    void destroyEntry(TbFindable* entry);
    void destroyEntries(TbFindableVector& entries);

    TbInsertionList m_List;
};

/// Strings to counted objects, several per string.
class KVX_EXPORT TbStrPtrMultimap : public TbMultimap {
public:
    TbStrPtrMultimap() = default;
    TbStrPtrMultimap(TbStrPtrMultimap const&) = default;
    TbStrPtrMultimap& operator=(TbStrPtrMultimap const& other);
    using TbMultimap::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) override;
    using TbMultimap::insert;
    using TbMultimap::put;

    /// Stores a pair of a copy of `key` and one more reference to the target of `value`; returns its TbMapItem.
    virtual TbFindable* put(TbString const& key, TbPtr const& value);

    /// Stores a copy of a ready pair.
    virtual void insert(TbStrPtr const& pair);

    static void allocate(TbObject** slot);
};

#pragma GCC diagnostic pop

#endif
