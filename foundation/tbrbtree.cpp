// The red-black tree: nodes, search, insertion, removal, rebalancing.
//
// Nodes have no parent link. Insertion and removal record the way down and rebalance along it. Everything that can fail
// happens before the first link changes. Most keys are texts: a node has length and first bytes of such a key as one
// number, whose comparison decides at most nodes. The nodes of maps of strings have the whole text right behind them
// as long as nobody has asked for the item. Odd: other elements compare through their own operators, which for vectors
// give no strict order; so the stored element decides where a vector goes, and rotations find sides by address.

#include "foundation/tbrbtree.h"

#include <endian.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/tbcompare.h"
#include "foundation/tbexception.h"
#include "foundation/tbowned.h"
#include "foundation/tbstring.h"

namespace {

TbTreeNode* asNode(TbObject* object) {
    return static_cast<TbTreeNode*>(object);
}

/// The element to search with: for a vector of entries its first one, because two vectors compare by their counts too.
TbFindable const& probeOf(TbFindable const& element) {
    if (!tbIs<TbFindableVector>(element, "TbFindableVector")) {
        return element;
    }
    auto const& vector = static_cast<TbFindableVector const&>(element);
    return vector.count() == 0 ? element : *vector.at(0);
}

/// Whether `element` is a vector, and of no class that a user derived.
bool isEntries(TbFindable const& element) {
    return element.getAllocator() == &TbFindableVector::allocate;
}

/// The first eight bytes of `text`, zero bytes behind its end, as a number whose highest byte is the first.
std::uint64_t firstBytes(char const* text, std::uint32_t length) {
    if (length >= 8) {
        return be64toh(tbEightBytes(text));
    }
    std::uint64_t bytes = 0;  // not by memcpy(), a call that would cost each search of a text its registers
    for (std::uint32_t at = 0; at < length; ++at) {
        bytes |= std::uint64_t{static_cast<unsigned char>(text[at])} << (56 - 8 * at);
    }
    return bytes;
}

/// The first eight bytes of `text`, up to its first zero byte, as a number: the order of the numbers is that of signed
/// bytes, of which zero is the least.
std::uint64_t prefixOf(char const* text, std::uint32_t length) {
    constexpr std::uint64_t kLow = 0x7F7F7F7F7F7F7F7FU;
    std::uint64_t const bytes = firstBytes(text, length);
    // 0x80 at each zero byte; the first of those and all bytes behind it become 0.
    std::uint64_t const zeros = ~(((bytes & kLow) + kLow) | bytes | kLow);
    std::uint64_t const kept = zeros == 0 ? ~std::uint64_t{0} : ~(~std::uint64_t{0} >> __builtin_clzll(zeros));
    // 0x80 to 0xFF become 1 to 0x80, and 1 to 0x7F become 0x81 to 0xFF.
    std::uint64_t const ranks = (bytes ^ ~kLow) + ((bytes >> 7) & 0x0101010101010101U);
    return ranks & kept;
}

/// The text of a node of the kind kCompact.
char const* textBehind(TbTreeNode const& node) {
    return reinterpret_cast<char const*>(&node + 1);
}

std::uint32_t pathCapacity(std::uint32_t count) {
    return static_cast<std::uint32_t>(TbRBTree::ROUND_LOG(static_cast<long>(count))) + 1;
}

}  // namespace

/// What an element is searched with, or put with: compared with nodes, by numbers where both keys are texts.
class TbRBTree::Probe {
public:
    /// For a plain string.
    explicit Probe(TbString const& text) : m_Probe(text) { setText(text); }

    /// For a search: the stored elements compare themselves with `probe`.
    explicit Probe(TbFindable const& probe) : m_Probe(probe) {
        if (tbIs<TbString>(probe, "TbString")) {
            setText(static_cast<TbString const&>(probe));
            return;
        }
        if (TbTreeNode const* const node = tbCompactNodeOf(probe)) {
            m_Text = textBehind(*node);
            m_Length = node->textLength();
            m_Rank = node->m_Rank;
            return;
        }
        TbFindable const& key = tbKeyOf(probe);
        if (tbIs<TbString>(key, "TbString")) {
            setText(static_cast<TbString const&>(key));
        }
    }

    /// Leaves all comparisons to the operators.
    void forgetText() { m_Text = nullptr; }

    /// Whether `compare` decides by the texts.
    [[nodiscard]] bool isComparedByText(TbTreeNode const& node) const { return m_Text != nullptr && hasText(node); }

    [[nodiscard]] std::uint64_t rank() const { return m_Rank; }

    /// Negative, 0 or positive as the element of `node` is less than, equal to or greater than the probe.
    [[nodiscard]] int compare(TbTreeNode const& node) const {
        return isComparedByText(node) ? compareText(node) : compareItem(node);
    }

    /// The same. Requires: isComparedByText(node).
    [[nodiscard]] int compareText(TbTreeNode const& node) const {
        if (node.m_Rank != m_Rank) {
            return node.m_Rank < m_Rank ? -1 : 1;
        }
        if (node.m_Key == TbTreeNode::Key::kCompact) {
            return isRestEqual(m_Length, textBehind(node), m_Text) ? 0
                                                                   : tbCompareTexts(m_Length, textBehind(node), m_Text);
        }
        TbString const* const text = tbTextKeyOf(*node.m_Item);  // null where a caller has replaced the key
        return text == nullptr ? compareItem(node) : compareString(*text);
    }

    /// The item of `tree` equal to `text`, a plain string; null when there is none.
    ///
    /// Most often ranks decide on the way, and the bytes behind a node in the end: that is done here, without a call
    /// and without an object. From a node that needs more the search goes on like any other. Neither this
    /// nor that is inlined: registers hold all that is needed here.
    [[gnu::noinline]] static TbFindable* findText(TbRBTree const& tree, TbString const& text) {
        char const* const bytes = text.c_str();
        std::uint64_t const rank = TbTreeNode::rankOf(bytes, text.length());
        TbTreeNode const* node = tree.m_Root;
        while (node != tree.m_Sentinel && hasText(*node)) {
            if (node->m_Rank < rank) {
                node = node->m_Right;
            } else if (node->m_Rank > rank) {
                node = node->m_Left;
            } else if (node->m_Key == TbTreeNode::Key::kCompact &&
                       isRestEqual(text.length(), textBehind(*node), bytes)) {
                return node->m_Item;
            } else {
                break;
            }
        }
        return node == tree.m_Sentinel ? nullptr : findTextBelow(tree, node, text, rank);
    }

    /// The item of `tree` equal to the probe, at `node` or below; null when there is none.
    [[nodiscard]] TbFindable* findBelow(TbRBTree const& tree, TbTreeNode const* node) const {
        while (node != tree.m_Sentinel) {
            int const order = compare(*node);
            if (order == 0) {
                return node->m_Item;
            }
            node = order < 0 ? node->m_Right : node->m_Left;
        }
        return nullptr;
    }

private:
    Probe(TbString const& text, std::uint64_t rank)
        : m_Probe(text), m_Text(text.c_str()), m_Length(text.length()), m_Rank(rank) {}

    [[gnu::noinline]] static TbFindable* findTextBelow(TbRBTree const& tree, TbTreeNode const* node,
                                                       TbString const& text, std::uint64_t rank) {
        return Probe(text, rank).findBelow(tree, node);
    }

    /// Whether a text orders the element of `node`.
    static bool hasText(TbTreeNode const& node) {
        return node.m_Key == TbTreeNode::Key::kCompact || node.m_Key == TbTreeNode::Key::kPair ||
               node.m_Key == TbTreeNode::Key::kText;
    }

    void setText(TbString const& text) {
        m_Text = text.c_str();
        m_Length = text.length();
        m_Rank = TbTreeNode::rankOf(m_Text, m_Length);
    }

    /// Whether two texts of the same rank are surely equal; false leaves it open.
    static bool isRestEqual(std::uint32_t length, char const* left, char const* right) {
        constexpr std::uint32_t kNumber = sizeof(std::uint64_t);
        if (length <= TbTreeNode::kRankedBytes) {
            return true;
        }
        // The last eight bytes, of seven the zero byte behind them too, and those that the rank has.
        std::uint32_t const at = length < kNumber ? 0 : length - kNumber;
        return at <= TbTreeNode::kRankedBytes && tbEightBytes(left + at) == tbEightBytes(right + at);
    }

    [[nodiscard]] int compareString(TbString const& text) const {
        return text.length() == m_Length ? tbCompareTexts(m_Length, text.c_str(), m_Text)
                                         : static_cast<std::int32_t>(text.length() - m_Length);
    }

    [[nodiscard]] int compareItem(TbTreeNode const& node) const {
        if (TbString const* const first = m_Text == nullptr ? nullptr : firstText(node)) {
            return compareString(*first);
        }
        if (*node.m_Item == m_Probe) {
            return 0;
        }
        return *node.m_Item < m_Probe ? -1 : 1;
    }

    /// The text that orders a vector of entries; null where there is none.
    [[nodiscard]] TbString const* firstText(TbTreeNode const& node) const {
        if (node.m_Key != TbTreeNode::Key::kEntries) {
            return nullptr;
        }
        auto const& entries = static_cast<TbFindableVector const&>(*node.m_Item);
        if (entries.count() == 0) {
            return nullptr;  // a caller has emptied it
        }
        return tbTextKeyOf(*entries.at(0));
    }

    TbFindable const& m_Probe;
    char const* m_Text = nullptr;  ///< The key; null when it is no text.
    std::uint32_t m_Length = 0;
    std::uint64_t m_Rank = 0;
};

/// The nodes from the root down to one of them.
class TbRBTree::Descent {
public:
    Descent() = default;

    /// The nodes of a stack, a path in a tree.
    explicit Descent(TbStack const& path) {
        for (std::uint32_t i = 0; i < path.count(); ++i) {
            push(asNode(path.at(i)));
        }
    }

    void push(TbTreeNode* node) { m_Nodes[m_Count++] = node; }

    /// Puts `node` in the place of `old` and returns the node above; null when there is none.
    TbTreeNode* replace(TbTreeNode const* old, TbTreeNode* node) {
        TbTreeNode** const place = std::find(m_Nodes, m_Nodes + m_Count, old);
        *place = node;
        return place == m_Nodes ? nullptr : *(place - 1);
    }

    TbTreeNode* pop() { return m_Count == 0 ? nullptr : m_Nodes[--m_Count]; }

    /// The last node; null when there is none.
    [[nodiscard]] TbTreeNode* top() const { return m_Count == 0 ? nullptr : m_Nodes[m_Count - 1]; }

private:
    /// Twice the logarithm of the largest count, and one more while a removal is repaired.
    static constexpr std::size_t kMost = 2 * 32 + 2;

    TbTreeNode* m_Nodes[kMost];
    std::size_t m_Count = 0;
};

std::uint64_t TbTreeNode::rankOf(char const* text, std::uint32_t length) noexcept {
    constexpr unsigned kBits = 8 * kRankedBytes;
    if (length > kMaxRankedLength) {
        return UINT64_MAX;
    }
    return std::uint64_t{length} << kBits | prefixOf(text, length) >> (64 - kBits);
}

void TbTreeNode::describeKey() {
    if (isEntries(*m_Item)) {
        m_Key = Key::kEntries;
        return;
    }
    TbString const* const text = tbTextKeyOf(*m_Item);
    if (text != nullptr && text->length() <= kMaxRankedLength) {
        m_Key = text == m_Item ? Key::kText : Key::kPair;
        m_Rank = rankOf(text->c_str(), text->length());
    }
}

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
        delete m_Item;
        m_Item = item.release();
        m_Red = source.m_Red;
        m_Key = source.m_Key == Key::kCompact ? Key::kPair : source.m_Key;
        m_Rank = source.m_Rank;
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

void TbRBTree::forgetNodes() noexcept {
    m_Root = nullptr;
    m_Count = 0;
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
    // One piece of memory: the node, its item, the text.
    static char constexpr kText[] = "__dummy";
    auto* const memory =
        static_cast<char*>(TbTreeNode::operator new(sizeof(TbTreeNode) + sizeof(TbString) + sizeof kText));
    auto* const item = new (memory + sizeof(TbTreeNode)) TbInPlace<TbString>;
    char* const text = memory + sizeof(TbTreeNode) + sizeof(TbString);
    std::memcpy(text, kText, sizeof kText);
    TbInPlaceText::lend(*item, text, sizeof kText - 1);
    m_Sentinel = new (memory) TbTreeNode;
    m_Sentinel->m_Item = item;
}

TbFindable* TbRBTree::find(TbFindable const& probe) const {
    if (m_Count == 0 || m_Root == nullptr) {
        return nullptr;
    }
    return probe.getAllocator() == &TbString::allocate ? Probe::findText(*this, static_cast<TbString const&>(probe))
                                                       : Probe(probe).findBelow(*this, m_Root);
}

TbFindable* TbRBTree::put(TbFindable const& item) {
    return putOwned(tbCopyOf(item).release());
}

TbFindable* TbRBTree::putOwned(TbFindable* item) {
    TbOwned<TbFindable> guard(item);
    auto* const node = new TbTreeNode(item, nullptr, nullptr);
    guard.release();
    node->describeKey();
    putNode(node);
    return item;
}

void TbRBTree::putNode(TbTreeNode* node) {
    TbOwned<TbTreeNode> fresh(node);
    TbFindable* const item = fresh->m_Item;
    ensureSentinel();
    Descent path;
    bool isLeft = false;
    // The operator of the item decides where it goes; a vector has no usable one, so there that of the stored decides.
    TbFindable const& key = probeOf(*item);
    Probe probe(key);
    if (fresh->m_Key == TbTreeNode::Key::kOther) {
        probe.forgetText();
    }
    for (TbTreeNode* place = m_Root; place != nullptr && place != m_Sentinel;) {
        TbFindable const& stored = *place->m_Item;
        bool const isDecided = &key != item || probe.isComparedByText(*place);
        int const order = isDecided ? probe.compare(*place) : stored == key ? 0 : *item < stored ? 1 : -1;
        if (order == 0) {
            throw TBFC_Exception(KVX_E_DUPLICATE_KEY);
        }
        path.push(place);
        isLeft = order > 0;
        place = isLeft ? place->m_Left : place->m_Right;
    }
    // Nothing below fails.
    link(fresh.release(), path, isLeft);
}

TbFindable* TbRBTree::findOrMake(TbString const& key, TbTreeNode* (*make)(TbString const& key, std::uint64_t rank),
                                 bool& isNew) {
    isNew = false;
    Descent path;
    bool isLeft = false;
    Probe const probe(key);
    for (TbTreeNode* node = m_Root; node != nullptr && node != m_Sentinel;) {
        if (!probe.isComparedByText(*node)) {
            return nullptr;
        }
        int const order = probe.compareText(*node);
        if (order == 0) {
            return node->m_Item;
        }
        path.push(node);
        isLeft = order > 0;
        node = isLeft ? node->m_Left : node->m_Right;
    }
    ensureSentinel();
    TbTreeNode* const fresh = make(key, probe.rank());
    link(fresh, path, isLeft);
    isNew = true;
    return fresh->m_Item;
}

void TbRBTree::link(TbTreeNode* fresh, Descent& path, bool isLeft) {
    ++m_Count;
    fresh->m_Left = m_Sentinel;
    fresh->m_Right = m_Sentinel;
    TbTreeNode* const parent = path.top();
    if (parent == nullptr) {
        fresh->m_Red = false;
        m_Root = fresh;
        return;
    }
    (isLeft ? parent->m_Left : parent->m_Right) = fresh;
    path.push(fresh);
    balanceInsertion(path);
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
    Descent nodes(path);
    while (path.count() != 0) {
        path.pop_back();
    }
    balanceInsertion(nodes);
}

void TbRBTree::balanceInsertion(Descent& path) {
    TbTreeNode* last = path.pop();
    while (last != nullptr && last->m_Red) {
        TbTreeNode* const node = path.pop();
        if (node == nullptr || !node->m_Red) {
            break;
        }
        TbTreeNode* const top = path.pop();  // the root is black, so a red node's parent exists
        if (changeColor(top)) {
            last = top;
            continue;
        }
        // Sides are found by identity, not by comparing elements: comparing vectors depends on their counts.
        bool const isRight = top->m_Right == node;
        bool const twice = (isRight ? node->m_Left : node->m_Right) == last;
        TbTreeNode* const newTop = isRight ? rotateLeft(top, twice, true) : rotateRight(top, twice, true);
        replaceChild(path.top(), top, newTop);
        break;
    }
    m_Root->m_Red = false;
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
    TbOwned<TbTreeNode> const removed(detach(probe));
    return removed != nullptr;
}

TbTreeNode* TbRBTree::detach(TbFindable const& probe) {
    if (m_Count == 0 || m_Root == nullptr) {
        return nullptr;
    }
    Probe const wanted(probe);
    Descent path;
    TbTreeNode* target = m_Root;
    for (int order = 1; target != m_Sentinel; target = order < 0 ? target->m_Right : target->m_Left) {
        order = wanted.compare(*target);
        path.push(target);
        if (order == 0) {
            break;
        }
    }
    if (target == m_Sentinel) {
        return nullptr;
    }
    // Nothing below fails.
    if (target->m_Left != m_Sentinel && target->m_Right != m_Sentinel) {
        for (TbTreeNode* node = target->m_Right; node != m_Sentinel; node = node->m_Left) {
            path.push(node);
        }
    }
    TbTreeNode* const last = path.pop();
    TbTreeNode* const child = last->m_Left == m_Sentinel ? last->m_Right : last->m_Left;
    bool const isBlackGone = !last->m_Red;
    replaceChild(path.top(), last, child);
    // The successor takes the place of the target with its item, so that addresses handed out earlier stay valid.
    if (target != last) {
        last->m_Red = target->m_Red;
        last->m_Left = target->m_Left;
        last->m_Right = target->m_Right;
        replaceChild(path.replace(target, last), target, last);
    }
    if (isBlackGone) {
        balanceRemoval(child, path);
    }
    --m_Count;
    if (m_Root == m_Sentinel) {
        m_Root = nullptr;
    } else {
        m_Root->m_Red = false;
    }
    return target;
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
    Descent nodes(path);
    path.pop_back();
    path.pop_back();
    TbTreeNode* const node = nodes.pop();
    balanceRemoval(node, nodes);
}

/// Repairs the path upwards after a black node was unlinked; `node` replaced it, and `path` ends at its parent.
void TbRBTree::balanceRemoval(TbTreeNode* node, Descent& path) {
    while (node != m_Root && !node->m_Red) {
        TbTreeNode* const parent = path.pop();
        bool const isLeft = parent->m_Left == node;
        auto const sibling = [&] { return isLeft ? parent->m_Right : parent->m_Left; };
        auto const outer = [&](TbTreeNode* of) { return isLeft ? of->m_Right : of->m_Left; };
        auto const inner = [&](TbTreeNode* of) { return isLeft ? of->m_Left : of->m_Right; };
        auto const rotate = [&](TbTreeNode* above, TbTreeNode* top, bool toTheLeft) {
            replaceChild(above, top, toTheLeft ? rotateLeft(top, false, false) : rotateRight(top, false, false));
        };

        TbTreeNode* other = sibling();
        if (other->m_Red) {
            other->m_Red = false;
            parent->m_Red = true;
            rotate(path.top(), parent, isLeft);
            path.push(other);
            other = sibling();
        }
        if (!other->m_Left->m_Red && !other->m_Right->m_Red) {
            other->m_Red = true;
            node = parent;
            continue;
        }
        if (!outer(other)->m_Red) {
            inner(other)->m_Red = false;
            other->m_Red = true;
            rotate(parent, other, !isLeft);
            other = sibling();
        }
        other->m_Red = parent->m_Red;
        parent->m_Red = false;
        outer(other)->m_Red = false;
        rotate(path.top(), parent, isLeft);
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
