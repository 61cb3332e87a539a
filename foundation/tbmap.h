/// Maps with unique keys that remember the order of insertion.
#ifndef TALLOWIN_FOUNDATION_TBMAP_H
#define TALLOWIN_FOUNDATION_TBMAP_H

#include "tallowin/tbrbtree.h"
#include "tallowin/tbstring.h"

// Deliberate (hidden-overloads): containers hide inherited overloads; which one a call finds is part of their
// behaviour.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// A key and a value, both owned, ordered by the key. A bare key serves as a probe.
class KVX_EXPORT TbKeyValue : public TbFindable {
public:
    TbKeyValue() = default;

    /// Copies both.
    TbKeyValue(TbFindable const& key, TbFindable const& value);

    TbKeyValue(TbKeyValue const& other);
    ~TbKeyValue() override;

    TbKeyValue& operator=(TbKeyValue const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override;

    /// A deep copy.
    TbKeyValue& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    /// Borrowed; null in an empty pair.
    [[nodiscard]] TbFindable* key() const noexcept { return m_Key; }
    [[nodiscard]] TbFindable* value() const noexcept { return m_Value; }

    static void allocate(TbObject** slot);

protected:
    explicit TbKeyValue(TbCountedByMaker how) noexcept : TbFindable(how) {}

private:
    friend struct TbMapEntry;

    TbFindable* m_Key = nullptr;    ///< Owned.
    TbFindable* m_Value = nullptr;  ///< Owned.
};

/// An element of a map: the owned item, and its neighbours in the order of insertion. Ordered by the item; anything
/// that is no map item is compared with the item directly.
class KVX_EXPORT TbMapItem : public TbFindable {
public:
    TbMapItem() = default;

    /// Takes `item` over. Requires: a heap object or null.
    explicit TbMapItem(TbFindable* item) noexcept : m_Item(item) {}

    TbMapItem(TbMapItem const& other);
    ~TbMapItem() override;

    TbMapItem& operator=(TbMapItem const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override;

    /// Copies the item; stays where it is in its own list.
    TbMapItem& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    /// The neighbours in insertion order, borrowed; null at the ends.
    [[nodiscard]] TbMapItem* previous() const noexcept { return m_Previous; }
    [[nodiscard]] TbMapItem* next() const noexcept { return m_Next; }

    /// Borrowed; null in an empty map item. A map makes a pair of strings when it is asked for: the first call may
    /// raise KVX_E_OUT_OF_MEMORY (TBFC_Exception), changing nothing.
    [[nodiscard]] TbFindable* item() const { return m_IsCompact ? makePair() : m_Item; }

    static void allocate(TbObject** slot);

protected:
    explicit TbMapItem(TbCountedByMaker how) noexcept : TbFindable(how) {}

private:
    friend struct TbInsertionList;
    friend struct TbMapEntry;
    friend TbTreeNode const* tbCompactNodeOf(TbFindable const& element) noexcept;

    TbFindable* makePair() const;
    KVX_INTERNAL void setItem(TbFindable* item) noexcept;

    mutable bool m_IsCompact = false;  ///< The key lies behind the node, the value behind this, and there is no item.
    std::uint8_t m_Offset = 0;         ///< Bytes from the node in whose memory this lies; 0 for memory of its own.
    TbMapItem* m_Previous = nullptr;
    TbMapItem* m_Next = nullptr;
    mutable TbFindable* m_Item = nullptr;  ///< Owned.
};

/// The doubly linked list through the items of a map, in insertion order. Owns nothing.
struct KVX_EXPORT TbInsertionList {
    /// Adds `item` at the end.
    void append(TbMapItem* item) noexcept;

    /// Removes `item`. Requires: it is in this list.
    void unlink(TbMapItem* item) noexcept;

    TbMapItem* m_First = nullptr;
    TbMapItem* m_Last = nullptr;
};

/// Elements with unique keys, found by key, iterated in insertion order.
///
/// Deliberate (insertion-order): iteration never follows the keys, so that documents keep the order in which their
/// fields were set. The tree stores TbMapItems; `find` and `put` return them, `operator[]` returns the item inside.
class KVX_EXPORT TbMap : public TbRBTree {
public:
    TbMap() = default;
    TbMap(TbMap const& other);
    ~TbMap() override;

    TbMap& operator=(TbMap const& other);
    using TbRBTree::operator=;

    TbAllocator getAllocator() const override;

    /// A deep copy in insertion order. Itself: no change.
    TbMap& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;
    using TbRBTree::clear;

    /// Stores a copy of `item` at the end of the order; returns its TbMapItem, borrowed. Raises KVX_E_DUPLICATE_KEY.
    TbFindable* put(TbFindable const& item) override;

    bool remove(TbFindable const& probe) override;
    void clear(TbTreeNode* node) override;

    /// The element equal to `key`; a copy of `key` itself is stored first when there is none. Borrowed.
    virtual TbFindable& operator[](TbFindable const& key);

    /// `put`, without the result.
    virtual void insert(TbFindable const& item);

    /// The element inserted first, null in an empty map; iterate with `next()` until `end()`.
    virtual TbMapItem* begin();

    /// Null, the end of the iteration.
    virtual TbMapItem* end();

    /// The same for a constant map.
    [[nodiscard]] TbMapItem const* first() const noexcept { return m_List.m_First; }

    static void allocate(TbObject** slot);

protected:
    /// `put` for an item that is taken over; destroyed on failure.
    TbMapItem* putOwnedItem(TbFindable* item);

    /// Makes a stored item the last one of the order.
    void appendToOrder(TbMapItem* item) noexcept { m_List.append(item); }

private:
    KVX_INTERNAL TbMapItem* putEntry(TbTreeNode* node);

    TbInsertionList m_List;
};

/// Strings to strings. `operator[]` creates a missing entry; `find` does not.
class KVX_EXPORT TbStrMap : public TbMap {
public:
    TbStrMap() = default;
    TbStrMap(TbStrMap const&) = default;
    TbStrMap& operator=(TbStrMap const& other);
    using TbMap::operator=;

    TbAllocator getAllocator() const override;
    bool isInstanceOf(char const* className) const override;

    /// The value under `key`, to be read or assigned; a new empty one when there was none. Borrowed.
    virtual TbString& operator[](TbString const& key);

    static void allocate(TbObject** slot);

private:
    KVX_INTERNAL TbString* valueOfText(TbString const& key);
};

#pragma GCC diagnostic pop

#endif
