/// An ordered set of orderable objects.
#ifndef TALLOWIN_FOUNDATION_TBRBTREE_H
#define TALLOWIN_FOUNDATION_TBRBTREE_H

#include "tallowin/tbvector.h"

class TbString;

// Deliberate (hidden-overloads): containers hide inherited overloads; which one a call finds is part of their
// behaviour.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Woverloaded-virtual"

/// One node: a colour, two children, an owned item. There is no link to the parent. An item stays in its node.
class KVX_EXPORT TbTreeNode : public TbFindable {
public:
    /// A black node without item and children.
    TbTreeNode() = default;

    /// A red node that holds its own copy of `item`.
    TbTreeNode(TbFindable const& item, TbTreeNode* left, TbTreeNode* right);

    /// A red node that takes `item` over; `item` is destroyed even on failure. Requires: a heap object, not null.
    TbTreeNode(TbFindable* item, TbTreeNode* left, TbTreeNode* right) noexcept;

    TbTreeNode(TbTreeNode const&) = delete;
    ~TbTreeNode() override;

    TbTreeNode& operator=(TbTreeNode const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override;

    /// Takes the colour and a copy of the item of another node; the children stay.
    TbTreeNode& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;

    /// Compare the items of two nodes; false when one has none.
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    [[nodiscard]] bool isRed() const noexcept { return m_Red; }
    [[nodiscard]] TbTreeNode const* left() const noexcept { return m_Left; }
    [[nodiscard]] TbTreeNode const* right() const noexcept { return m_Right; }
    [[nodiscard]] TbFindable const* item() const noexcept { return m_Item; }

    static void allocate(TbObject** slot);

protected:
    explicit TbTreeNode(TbCountedByMaker how) noexcept : TbFindable(how) {}

private:
    friend class TbRBTree;
    friend struct TbMapEntry;

    /// What the key of the item is.
    enum class Key : std::uint8_t {
        kOther,    ///< Compared through the operators of the item.
        kText,     ///< The item is a TbString.
        kPair,     ///< The item has a TbString as its key.
        kCompact,  ///< The key is the text right behind the node; the pair in the item is not made yet.
        kEntries,  ///< The item is a vector, whose first entry is the key.
    };

    /// How many of a text's first bytes its rank holds, below the text's length.
    static constexpr std::uint32_t kRankedBytes = 6;

    /// The largest length that a rank can hold. A longer text has no rank.
    static constexpr std::uint32_t kMaxRankedLength = UINT16_MAX - 1;

    /// A number in the order of the texts, by their lengths and first bytes; the largest for a text without a rank.
    [[nodiscard]] KVX_INTERNAL static std::uint64_t rankOf(char const* text, std::uint32_t length) noexcept;

    /// The length of the text whose rank this node has.
    [[nodiscard]] std::uint32_t textLength() const noexcept {
        return static_cast<std::uint32_t>(m_Rank >> (8 * kRankedBytes));
    }

    KVX_INTERNAL void describeKey();

    bool m_Red = false;
    Key m_Key = Key::kOther;
    std::uint64_t m_Rank = 0;       ///< Of a text: its length and first bytes.
    TbTreeNode* m_Left = nullptr;   ///< Inside a tree never null: an absent child is the tree's sentinel.
    TbTreeNode* m_Right = nullptr;  ///< As m_Left.
    TbFindable* m_Item = nullptr;   ///< Owned.
};

/// Elements in the order of their own operators, each key once, in a red-black tree without parent links: operations
/// that climb record the way down on a stack of nodes.
///
/// Elements are copied in. Element comparisons go through the stored element's operators when searching, so a probe may
/// be a bare key that the elements can compare with. The sentinel is created with the first element and holds the
/// reserved text "__dummy": do not store it. Keys stay as they are while they are stored. Allocation failures are
/// TBFC_Exception and leave the tree as it was. One thread at a time.
class KVX_EXPORT TbRBTree : public TbContainer {
public:
    TbRBTree() = default;
    TbRBTree(TbRBTree const& other);
    ~TbRBTree() override;

    TbRBTree& operator=(TbRBTree const& other);
    using TbContainer::operator=;

    TbAllocator getAllocator() const override;

    /// A deep copy, element by element in order. Itself: no change.
    TbRBTree& assign(TbObject const& other) override;

    bool isInstanceOf(char const* className) const override;

    /// Destroys all elements.
    void clear() override;

    /// Stores a copy of `item` and returns the stored copy, borrowed. Raises KVX_E_DUPLICATE_KEY, changing nothing.
    virtual TbFindable* put(TbFindable const& item);

    /// Removes and destroys the element equal to `probe`; false when there is none.
    virtual bool remove(TbFindable const& probe);

    /// Destroys the subtree under `node` with its items.
    virtual void clear(TbTreeNode* node);

    /// The stored element equal to `probe`, borrowed, or null.
    virtual TbFindable* find(TbFindable const& probe) const;

    /// A new stack of the nodes from the root to the node equal to `probe`, which is on top; owned by the caller.
    /// Null when no node is equal.
    [[nodiscard]] TbStack* pathTo(TbFindable const& probe) const;

    /// Pushes the way from the node on top of `path` to its in-order successor. Returns `path`.
    /// Requires: the node on top has a right child.
    TbStack& successorOf(TbStack& path) const;

    /// The root node; null when the tree is empty.
    [[nodiscard]] TbTreeNode const* root() const noexcept { return m_Root; }

    /// Whether `node` represents an absent child.
    [[nodiscard]] bool isSentinel(TbTreeNode const* node) const noexcept { return node == m_Sentinel; }

    /// How often `number` can be halved before it is 0, minus one: floor(log2) from 1 up; 0 for 0 and -1.
    static long ROUND_LOG(long number) noexcept;

    static void allocate(TbObject** slot);

protected:
    /// `put` for an item that is taken over; destroyed on failure.
    TbFindable* putOwned(TbFindable* item);

    /// Unlinks the node with the element equal to `probe` and hands it to the caller, its item in it; null when there
    /// is none.
    [[nodiscard]] KVX_INTERNAL TbTreeNode* detach(TbFindable const& probe);

    [[nodiscard]] static TbFindable* itemOf(TbTreeNode& node) noexcept { return node.m_Item; }

    /// Forgets all nodes, which the caller has destroyed or will destroy.
    KVX_INTERNAL void forgetNodes() noexcept;

    /// Called for every item of a subtree just before it is destroyed.
    using ItemDisposer = void (*)(TbRBTree& tree, TbFindable& item);

    /// `clear(node)`, calling `dispose` (may be null) for every item. Empties the tree when `node` is the root.
    void destroyBelow(TbTreeNode* node, ItemDisposer dispose);

    [[nodiscard]] TbTreeNode* rootNode() noexcept { return m_Root; }

    // Rebalancing. A rotation returns the new top of the subtree, which the caller links.

    /// Rotates at `top`, twice when the grandchild lies inside; `recolour` makes the new top black and `top` red.
    static TbTreeNode* rotateLeft(TbTreeNode* top, bool twice, bool recolour);
    static TbTreeNode* rotateRight(TbTreeNode* top, bool twice, bool recolour);

    /// Splits a black node with two red children: swaps their colours. False, and no change, for any other node.
    static bool changeColor(TbTreeNode* node);

    /// Repairs the path upwards after an insertion; `path` holds the nodes from the root to the new one.
    void restoreBalance(TbStack& path);

    /// A single rotation at `node`, left for 0, right for 1, without colours, linked into the tree.
    void makeBalance(TbTreeNode* node, int direction);

    /// Repairs the path upwards after a black node was unlinked; the node that replaced it is on top of `path`.
    void fixup(TbStack& path);

    /// The element equal to `key`, a plain TbString. When there is none, the node that `make` returns for it is linked
    /// and its item returned; null, and no change, when that needs `put`, because other elements are no pairs of
    /// strings.
    [[nodiscard]] KVX_INTERNAL TbFindable* findOrMake(TbString const& key,
                                                      TbTreeNode* (*make)(TbString const& key, std::uint64_t rank),
                                                      bool& isNew);

    /// Links a node that is taken over; destroyed on failure. Raises KVX_E_DUPLICATE_KEY.
    KVX_INTERNAL void putNode(TbTreeNode* node);

private:
    class KVX_INTERNAL Probe;
    class KVX_INTERNAL Descent;

    [[nodiscard]] TbTreeNode* parentOf(TbTreeNode const* node) const;
    void replaceChild(TbTreeNode* parent, TbTreeNode const* old, TbTreeNode* fresh);
    void ensureSentinel();
    void destroySubtree(TbTreeNode* node, ItemDisposer dispose);
    void putAllOf(TbTreeNode const* node, TbTreeNode const* sentinel);
    KVX_INTERNAL void link(TbTreeNode* fresh, Descent& path, bool isLeft);
    KVX_INTERNAL void balanceInsertion(Descent& path);
    KVX_INTERNAL void balanceRemoval(TbTreeNode* node, Descent& path);

    TbTreeNode* m_Root = nullptr;      ///< Null when the tree is empty.
    TbTreeNode* m_Sentinel = nullptr;  ///< Owned; every absent child points to it. Null before the first element.
};

#pragma GCC diagnostic pop

#endif
