// An element with a known order, and a walk that checks a red-black tree.
//
// The walk visits the nodes by their links, computes the black height of both sides and records the first fault that it
// finds. A vector as an element counts by its first entry.

#include "tests/foundation/foundationsupport.h"

#include <algorithm>

namespace kvxtest {

namespace {

/// What an element is ordered by inside a tree: a vector by its first entry.
TbFindable const& orderingItem(TbFindable const& item) {
    return item.isInstanceOf("TbFindableVector") ? *static_cast<TbFindableVector const&>(item).at(0) : item;
}

struct Walk {
    TbRBTree const& m_Tree;
    std::vector<TbFindable const*> m_Items;
    std::string m_Fault;
    int m_Longest = 0;

    /// The black height of `node`, the sentinel counted as one.
    int visit(TbTreeNode const* node, bool isAboveRed, int depth) {
        if (node == nullptr) {
            m_Fault = "an absent child is null instead of the sentinel";
            return 0;
        }
        if (m_Tree.isSentinel(node)) {
            if (node->isRed() || node->left() != nullptr || node->right() != nullptr) {
                m_Fault = "the sentinel is red or has children";
            }
            m_Longest = std::max(m_Longest, depth);
            return 1;
        }
        if (isAboveRed && node->isRed()) {
            m_Fault = "a red node below a red one";
        }
        int const left = visit(node->left(), node->isRed(), depth + 1);
        m_Items.push_back(node->item());
        int const right = visit(node->right(), node->isRed(), depth + 1);
        if (left != right) {
            m_Fault = "black heights " + std::to_string(left) + " and " + std::to_string(right);
        }
        return left + (node->isRed() ? 0 : 1);
    }
};

}  // namespace

IntItem& IntItem::operator=(IntItem const& other) {
    assign(other);
    return *this;
}

IntItem& IntItem::assign(TbObject const& other) {
    m_Number = static_cast<IntItem const&>(other).m_Number;
    return *this;
}

bool IntItem::isInstanceOf(char const* className) const {
    return tbIsName(className, "IntItem") || TbFindable::isInstanceOf(className);
}

bool IntItem::operator<(TbFindable const& other) const {
    EXPECT_TRUE(other.isInstanceOf("IntItem")) << "compared with something else";
    return m_Number < static_cast<IntItem const&>(other).m_Number;
}

bool IntItem::operator==(TbFindable const& other) const {
    EXPECT_TRUE(other.isInstanceOf("IntItem")) << "compared with something else";
    return m_Number == static_cast<IntItem const&>(other).m_Number;
}

int numberOf(TbFindable const* item) {
    return static_cast<IntItem const*>(item)->number();
}

bool LengthFirst::operator()(std::string const& left, std::string const& right) const {
    if (left.size() != right.size()) {
        return left.size() < right.size();
    }
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(), [](char x, char y) {
        return static_cast<signed char>(x) < static_cast<signed char>(y);
    });
}

std::string randomKey(std::mt19937_64& random) {
    static constexpr char kBytes[] = {'a', 'b', 'z', '\xE9', '\x80'};
    std::string key(random() % 4, '\0');
    for (char& byte : key) {
        byte = kBytes[random() % sizeof(kBytes)];
    }
    return key;
}

std::vector<TbFindable const*> itemsInOrder(TbRBTree const& tree) {
    Walk walk{tree, {}, {}};
    if (tree.root() != nullptr) {
        walk.visit(tree.root(), false, 0);
    }
    return walk.m_Items;
}

std::vector<int> numbersInOrder(TbRBTree const& tree) {
    std::vector<int> numbers;
    for (TbFindable const* item : itemsInOrder(tree)) {
        numbers.push_back(numberOf(item));
    }
    return numbers;
}

testing::AssertionResult isSoundTree(TbRBTree const& tree) {
    if (tree.root() == nullptr) {
        return tree.count() == 0 ? testing::AssertionSuccess()
                                 : testing::AssertionFailure() << "no root, but count " << tree.count();
    }
    Walk walk{tree, {}, {}};
    int const blackHeight = walk.visit(tree.root(), false, 0);
    if (tree.isSentinel(tree.root())) {
        return testing::AssertionFailure() << "the sentinel is the root";
    }
    if (tree.root()->isRed()) {
        return testing::AssertionFailure() << "red root";
    }
    if (!walk.m_Fault.empty()) {
        return testing::AssertionFailure() << walk.m_Fault;
    }
    if (walk.m_Longest > 2 * blackHeight) {
        return testing::AssertionFailure() << "a way of " << walk.m_Longest << " nodes at black height " << blackHeight;
    }
    for (std::size_t i = 1; i < walk.m_Items.size(); ++i) {
        TbFindable const& before = orderingItem(*walk.m_Items[i - 1]);
        TbFindable const& after = orderingItem(*walk.m_Items[i]);
        if (!(before < after) || after < before || before == after) {
            return testing::AssertionFailure() << "elements " << i - 1 << " and " << i << " do not ascend";
        }
    }
    return testing::AssertionSuccess();
}

}  // namespace kvxtest
