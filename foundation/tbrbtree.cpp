// The red-black tree: nodes, search, insertion, removal, rebalancing.
//
// Nodes have no parent link. Insertion and removal record the way down on a stack and rebalance along it; removal
// searches a parent from the root, because rotations make its stack stale. Everything that can fail happens before the
// first link changes. Odd: elements compare through their own operators, which for vectors give no strict order; so the
// stored element decides where a vector goes, and rotations find sides by address instead of comparing.

#include "foundation/tbrbtree.h"

#include <utility>

#include "foundation/tbexception.h"
#include "foundation/tbowned.h"
#include "foundation/tbstring.h"

namespace {

TbTreeNode* asNode(TbObject* object) {
    return static_cast<TbTreeNode*>(object);
}

TbTreeNode* popNode(TbStack& path) {
    TbTreeNode* const node = asNode(path.peek());
    path.pop_back();
    return node;
}

/// The element to search with: for a vector of entries its first one, because two vectors compare by their counts too.
TbFindable const& probeOf(TbFindable const& element) {
    if (!tbIs<TbFindableVector>(element, "TbFindableVector")) {
        return element;
    }
    auto const& vector = static_cast<TbFindableVector const&>(element);
    return vector.count() == 0 ? element : *vector.at(0);
}

/// Whether `fresh`, which is not equal to `present`, belongs left of it. The operator of `fresh` decides; a vector has
/// no usable one, so there the operator of `present` decides.
bool belongsLeft(TbFindable const& fresh, TbFindable const& present) {
    TbFindable const& probe = probeOf(fresh);
    return &probe == &fresh ? fresh < present : !(present < probe);
}

std::uint32_t pathCapacity(std::uint32_t count) {
    return static_cast<std::uint32_t>(TbRBTree::ROUND_LOG(static_cast<long>(count))) + 1;
}

}  // namespace

TbTreeNode::TbTreeNode(TbFindable const& item, TbTreeNode* left, TbTreeNode* right)
    : m_Red(true), m_Left(left), m_Right(right), m_Item(tbCopyOf(item).release()) {}

TbTreeNode::TbTreeNode(TbFindable* item, TbTreeNode* left, TbTreeNode* right) noexcept
    : m_Red(true), m_Left(left), m_Right(right), m_Item(item) {}

TbTreeNode::~TbTreeNode() {
    delete m_Item;
}

TbTreeNode& TbTreeNode::operator=(TbTreeNode const& other) {
    assign(other);
    return *this;
}

TbAllocator TbTreeNode::getAllocator() const {
    return &TbTreeNode::allocate;
}

TbTreeNode& TbTreeNode::assign(TbObject const& other) {
    auto const& source = static_cast<TbTreeNode const&>(other);
    if (&source != this) {
        TbOwned<TbFindable> item(source.m_Item == nullptr ? nullptr : tbCopyOf(*source.m_Item));
        m_Red = source.m_Red;
        delete m_Item;
        m_Item = item.release();
    }
    return *this;
}

bool TbTreeNode::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbTreeNode") || TbFindable::isInstanceOf(className);
}

bool TbTreeNode::operator<(TbFindable const& other) const {
    auto const& node = static_cast<TbTreeNode const&>(other);
    return m_Item != nullptr && node.m_Item != nullptr && *m_Item < *node.m_Item;
}

bool TbTreeNode::operator==(TbFindable const& other) const {
    auto const& node = static_cast<TbTreeNode const&>(other);
    return m_Item != nullptr && node.m_Item != nullptr && *m_Item == *node.m_Item;
}

void TbTreeNode::allocate(TbObject** slot) {
    tbAllocateInto<TbTreeNode>(slot);
}

TbRBTree::TbRBTree(TbRBTree const& other) : TbContainer() {
    try {
        TbRBTree::assign(other);
    } catch (...) {
        TbRBTree::clear();
        delete m_Sentinel;
        throw;
    }
}

TbRBTree::~TbRBTree() {
    TbRBTree::clear(m_Root);
    delete m_Sentinel;
}

TbRBTree& TbRBTree::operator=(TbRBTree const& other) {
    assign(static_cast<TbObject const&>(other));
    return *this;
}

TbAllocator TbRBTree::getAllocator() const {
    return &TbRBTree::allocate;
}

TbRBTree& TbRBTree::assign(TbObject const& other) {
    auto const& source = static_cast<TbRBTree const&>(other);
    if (&source != this) {
        clear();
        putAllOf(source.m_Root, source.m_Sentinel);
    }
    return *this;
}

bool TbRBTree::isInstanceOf(char const* className) const {
    return tbIsName(className, "TbRBTree") || TbContainer::isInstanceOf(className);
}

void TbRBTree::clear() {
    clear(m_Root);
    TbContainer::clear();
}

void TbRBTree::clear(TbTreeNode* node) {
    destroyBelow(node, nullptr);
}

void TbRBTree::destroyBelow(TbTreeNode* node, ItemDisposer dispose) {
    if (node == m_Root) {
        m_Root = nullptr;
        m_Count = 0;
    }
    destroySubtree(node, dispose);
}

void TbRBTree::destroySubtree(TbTreeNode* node, ItemDisposer dispose) {
    if (node == nullptr || node == m_Sentinel) {
        return;
    }
    // As deep as the tree is high: at most twice the logarithm of the count.
    destroySubtree(node->m_Left, dispose);
    destroySubtree(node->m_Right, dispose);
    if (dispose != nullptr) {
        dispose(*this, *node->m_Item);
    }
    delete node;
}

void TbRBTree::putAllOf(TbTreeNode const* node, TbTreeNode const* sentinel) {
    if (node == nullptr || node == sentinel) {
        return;
    }
    putAllOf(node->m_Left, sentinel);
    TbRBTree::put(*node->m_Item);
    putAllOf(node->m_Right, sentinel);
}

void TbRBTree::ensureSentinel() {
    if (m_Sentinel != nullptr) {
        return;
    }
    TbOwned<TbFindable> item(new TbString("__dummy"));
    auto* const sentinel = new TbTreeNode;
    sentinel->m_Item = item.release();
    m_Sentinel = sentinel;
}

TbFindable* TbRBTree::find(TbFindable const& probe) const {
    if (m_Count == 0 || m_Root == nullptr) {
        return nullptr;
    }
    TbTreeNode const* node = m_Root;
    while (node != m_Sentinel) {
        if (*node->m_Item == probe) {
            return node->m_Item;
        }
        node = *node->m_Item < probe ? node->m_Right : node->m_Left;
    }
    return nullptr;
}

TbFindable* TbRBTree::put(TbFindable const& item) {
    return putOwned(tbCopyOf(item).release());
}

TbFindable* TbRBTree::putOwned(TbFindable* item) {
    TbOwned<TbFindable> guard(item);
    ensureSentinel();
    TbOwned<TbTreeNode> fresh(new TbTreeNode(item, m_Sentinel, m_Sentinel));
    guard.release();

    if (m_Root == nullptr) {
        fresh->m_Red = false;
        m_Root = fresh.release();
        m_Count = 1;
        return item;
    }
    TbStack path(pathCapacity(m_Count));
    bool isLeft = false;
    for (TbTreeNode* node = m_Root; node != m_Sentinel;) {
        if (*node->m_Item == probeOf(*item)) {
            throw TBFC_Exception(KVX_E_DUPLICATE_KEY);
        }
        path.push_back(node);
        isLeft = belongsLeft(*item, *node->m_Item);
        node = isLeft ? node->m_Left : node->m_Right;
    }
    TbTreeNode* const parent = asNode(path.peek());
    path.push_back(fresh.get());
    // Nothing below fails.
    TbTreeNode* const node = fresh.release();
    (isLeft ? parent->m_Left : parent->m_Right) = node;
    m_Last = node;
    restoreBalance(path);
    ++m_Count;
    return item;
}

bool TbRBTree::changeColor(TbTreeNode* node) {
    if (node->m_Left == nullptr || node->m_Right == nullptr || node->m_Red || !node->m_Left->m_Red ||
        !node->m_Right->m_Red) {
        return false;
    }
    node->m_Red = true;
    node->m_Left->m_Red = false;
    node->m_Right->m_Red = false;
    return true;
}

TbTreeNode* TbRBTree::rotateLeft(TbTreeNode* top, bool twice, bool recolour) {
    TbTreeNode* const child = top->m_Right;
    TbTreeNode* newTop = child;
    if (twice) {
        newTop = child->m_Left;
        child->m_Left = newTop->m_Right;
        newTop->m_Right = child;
    }
    top->m_Right = newTop->m_Left;
    newTop->m_Left = top;
    if (recolour) {
        newTop->m_Red = false;
        top->m_Red = true;
    }
    return newTop;
}

TbTreeNode* TbRBTree::rotateRight(TbTreeNode* top, bool twice, bool recolour) {
    TbTreeNode* const child = top->m_Left;
    TbTreeNode* newTop = child;
    if (twice) {
        newTop = child->m_Right;
        child->m_Right = newTop->m_Left;
        newTop->m_Left = child;
    }
    top->m_Left = newTop->m_Right;
    newTop->m_Right = top;
    if (recolour) {
        newTop->m_Red = false;
        top->m_Red = true;
    }
    return newTop;
}

void TbRBTree::replaceChild(TbTreeNode* parent, TbTreeNode const* old, TbTreeNode* fresh) {
    if (parent == nullptr) {
        m_Root = fresh;
    } else if (parent->m_Left == old) {
        parent->m_Left = fresh;
    } else {
        parent->m_Right = fresh;
    }
}

void TbRBTree::restoreBalance(TbStack& path) {
    int reds = 0;
    while (path.count() != 0) {
        TbTreeNode* const node = popNode(path);
        if (!node->m_Red) {
            reds = 0;
        } else if (++reds == 1) {
            m_Last = node;
        } else {
            TbTreeNode* const top = popNode(path);  // the root is black, so a red node's parent exists
            if (changeColor(top)) {
                // The flipped node counts as the first red of the next pair.
                reds = 1;
                m_Last = top;
            } else {
                // Sides are found by identity, not by comparing elements: comparing vectors depends on their counts.
                reds = 0;
                bool const isRight = top->m_Right == node;
                bool const twice = (isRight ? node->m_Left : node->m_Right) == m_Last;
                TbTreeNode* const newTop = isRight ? rotateLeft(top, twice, true) : rotateRight(top, twice, true);
                // The walk continues to the root, although nothing is left to repair.
                replaceChild(path.count() == 0 ? nullptr : asNode(path.peek()), top, newTop);
            }
        }
        m_Root->m_Red = false;
    }
}

TbStack* TbRBTree::pathTo(TbFindable const& probe) const {
    if (m_Count == 0 || m_Root == nullptr) {
        return nullptr;
    }
    TbOwned<TbStack> path(new TbStack(pathCapacity(m_Count)));
    for (TbTreeNode* node = m_Root; node != m_Sentinel;) {
        path->push_back(node);
        if (*node->m_Item == probe) {
            return path.release();
        }
        node = *node->m_Item < probe ? node->m_Right : node->m_Left;
    }
    return nullptr;
}

TbStack& TbRBTree::successorOf(TbStack& path) const {
    for (TbTreeNode* node = asNode(path.peek())->m_Right; node != m_Sentinel; node = node->m_Left) {
        path.push_back(node);
    }
    return path;
}

bool TbRBTree::remove(TbFindable const& probe) {
    TbOwned<TbFindable> const removed(detach(probe));
    return removed != nullptr;
}

TbFindable* TbRBTree::detach(TbFindable const& probe) {
    TbOwned<TbStack> const path(pathTo(probe));
    if (path == nullptr) {
        return nullptr;
    }
    TbTreeNode* const target = asNode(path->peek());
    if (target->m_Left != m_Sentinel && target->m_Right != m_Sentinel) {
        successorOf(*path);
    }
    // Nothing below fails: the path only shrinks, or takes back as many nodes as it gave.
    TbOwned<TbTreeNode> const victim(popNode(*path));
    TbTreeNode* const parent = path->count() == 0 ? nullptr : asNode(path->peek());
    TbTreeNode* const child = victim->m_Left == m_Sentinel ? victim->m_Right : victim->m_Left;

    // The items are swapped instead of copied, so that addresses handed out earlier stay valid.
    std::swap(target->m_Item, victim->m_Item);
    replaceChild(parent, victim.get(), child);
    path->push_back(child);
    if (!victim->m_Red) {
        fixup(*path);
    }
    --m_Count;
    if (m_Root == m_Sentinel) {
        m_Root = nullptr;
    } else {
        m_Root->m_Red = false;
    }
    return std::exchange(victim->m_Item, nullptr);
}

TbTreeNode* TbRBTree::parentOf(TbTreeNode const* node) const {
    TbFindable const& probe = probeOf(*node->m_Item);
    TbTreeNode* parent = nullptr;
    for (TbTreeNode* above = m_Root; above != node; above = *above->m_Item < probe ? above->m_Right : above->m_Left) {
        parent = above;
    }
    return parent;
}

void TbRBTree::makeBalance(TbTreeNode* node, int direction) {
    TbTreeNode* const parent = parentOf(node);
    replaceChild(parent, node, direction == 0 ? rotateLeft(node, false, false) : rotateRight(node, false, false));
}

void TbRBTree::fixup(TbStack& path) {
    if (path.count() < 2) {
        return;
    }
    TbTreeNode* node = popNode(path);
    TbTreeNode* parent = popNode(path);
    while (node != m_Root && !node->m_Red) {
        bool const isLeft = parent->m_Left == node;
        int const towards = isLeft ? 0 : 1;
        auto const sibling = [&] { return isLeft ? parent->m_Right : parent->m_Left; };
        auto const outer = [&](TbTreeNode* of) { return isLeft ? of->m_Right : of->m_Left; };
        auto const inner = [&](TbTreeNode* of) { return isLeft ? of->m_Left : of->m_Right; };

        TbTreeNode* other = sibling();
        if (other->m_Red) {
            other->m_Red = false;
            parent->m_Red = true;
            makeBalance(parent, towards);
            other = sibling();
        }
        if (!other->m_Left->m_Red && !other->m_Right->m_Red) {
            other->m_Red = true;
            node = parent;
            parent = node == m_Root ? nullptr : parentOf(node);
            continue;
        }
        if (!outer(other)->m_Red) {
            inner(other)->m_Red = false;
            other->m_Red = true;
            makeBalance(other, 1 - towards);
            other = sibling();
        }
        other->m_Red = parent->m_Red;
        parent->m_Red = false;
        outer(other)->m_Red = false;
        makeBalance(parent, towards);
        node = m_Root;
    }
    node->m_Red = false;
}

long TbRBTree::ROUND_LOG(long number) noexcept {
    long halvings = -1;
    for (; number != 0; number /= 2) {
        ++halvings;
    }
    return halvings < 0 ? 0 : halvings;
}

void TbRBTree::allocate(TbObject** slot) {
    tbAllocateInto<TbRBTree>(slot);
}
