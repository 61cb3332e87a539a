// The red-black tree: balance, duplicates, paths, rebalancing steps, deep copies.
//
// Every order of a few elements is tried, then random operations beside std::set; isSoundTree() checks all invariants
// after each step. Odd: the sentinel is known by its address, and looking a key up needs no exception.

#include "foundation/tbrbtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "foundation/tbmap.h"
#include "foundation/tbstring.h"
#include "tests/foundation/foundationsupport.h"
#include "tests/support/random.h"
#include "tests/support/smallstack.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::vector<int> upTo(int last) {
    std::vector<int> numbers;
    for (int number = 1; number <= last; ++number) {
        numbers.push_back(number);
    }
    return numbers;
}

std::unique_ptr<TbRBTree> treeOf(std::vector<int> const& numbers) {
    auto tree = std::make_unique<TbRBTree>();
    for (int const number : numbers) {
        tree->put(IntItem(number));
    }
    return tree;
}

TEST(TbRBTree, StaysBalancedWhileItIsFilledInOrder) {
    TbRBTree ascending;
    TbRBTree descending;
    for (int number = 1; number <= 1000; ++number) {
        ascending.put(IntItem(number));
        descending.put(IntItem(1001 - number));
        ASSERT_TRUE(isSoundTree(ascending)) << number;
        ASSERT_TRUE(isSoundTree(descending)) << number;
    }
    EXPECT_EQ(ascending.count(), 1000U);
    EXPECT_EQ(numbersInOrder(ascending), upTo(1000));
    EXPECT_EQ(numbersInOrder(descending), upTo(1000));
}

TEST(TbRBTree, StaysSoundThroughEveryOrderOfFewElements) {
    std::vector<int> inserted = upTo(6);
    do {
        std::vector<int> reversed(inserted.rbegin(), inserted.rend());
        std::vector<int> descending(upTo(6).size());
        std::iota(descending.rbegin(), descending.rend(), 1);
        for (std::vector<int> const& removed : {inserted, reversed, upTo(6), descending, {3, 4, 2, 5, 1, 6}}) {
            std::unique_ptr<TbRBTree> const tree = treeOf(inserted);
            ASSERT_TRUE(isSoundTree(*tree));
            std::vector<int> left = upTo(6);
            for (int const number : removed) {
                ASSERT_TRUE(tree->remove(IntItem(number)));
                left.erase(std::find(left.begin(), left.end(), number));
                ASSERT_TRUE(isSoundTree(*tree)) << testing::PrintToString(inserted) << testing::PrintToString(removed);
                ASSERT_EQ(numbersInOrder(*tree), left);
            }
        }
    } while (std::next_permutation(inserted.begin(), inserted.end()));
}

TEST(TbRBTree, RefusesASecondElementOfTheSameKey) {
    std::unique_ptr<TbRBTree> const tree = treeOf({2, 1, 3});
    auto const before = itemsInOrder(*tree);
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    for (int const number : {1, 2, 3}) {
        EXPECT_EQ(thrownCode([&] { tree->put(IntItem(number)); }), KVX_E_DUPLICATE_KEY);
    }
    EXPECT_EQ(tree->count(), 3U);
    EXPECT_EQ(itemsInOrder(*tree), before);
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    EXPECT_TRUE(isSoundTree(*tree));
}

TEST(TbRBTree, IsEmptyAfterItsOnlyElementLeft) {
    TbRBTree tree;
    for (int round = 0; round < 3; ++round) {
        tree.put(IntItem(round));
        EXPECT_TRUE(tree.remove(IntItem(round)));
        EXPECT_EQ(tree.count(), 0U);
        EXPECT_EQ(tree.root(), nullptr);
        EXPECT_EQ(tree.find(IntItem(round)), nullptr);
        EXPECT_FALSE(tree.remove(IntItem(round)));
    }
}

TEST(TbRBTree, ReportsAbsentElementsWithoutAnException) {
    TbRBTree tree;
    EXPECT_FALSE(tree.remove(IntItem(1)));
    EXPECT_EQ(tree.find(IntItem(1)), nullptr);
    tree.put(IntItem(1));
    EXPECT_FALSE(tree.remove(IntItem(2)));
    EXPECT_EQ(tree.find(IntItem(2)), nullptr);
    EXPECT_EQ(tree.count(), 1U);
}

TEST(TbRBTree, StoresACopyAndReturnsIt) {
    TbRBTree tree;
    IntItem item(7);
    TbFindable* const stored = tree.put(item);
    EXPECT_NE(stored, &item);
    EXPECT_EQ(tree.find(item), stored);
    item = IntItem(8);
    EXPECT_EQ(numberOf(stored), 7);
}

TEST(TbRBTree, SearchesWithTheStoredElementsOperators) {
    // A number knows nothing of pairs: if the operator of the probe were called, it would complain.
    TbRBTree tree;
    for (int number = 0; number < 50; ++number) {
        tree.put(TbKeyValue(IntItem(number * 2), TbString("value")));
    }
    for (int number = 0; number < 50; ++number) {
        TbFindable const* const found = tree.find(IntItem(number * 2));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(numberOf(static_cast<TbKeyValue const*>(found)->key()), number * 2);
        EXPECT_EQ(tree.find(IntItem(number * 2 + 1)), nullptr);
    }
    for (int number = 0; number < 50; number += 3) {
        EXPECT_TRUE(tree.remove(IntItem(number * 2)));
        EXPECT_TRUE(isSoundTree(tree));
    }
}

TEST(TbRBTree, KeepsStringsInTheirLengthFirstOrder) {
    TbRBTree tree;
    for (char const* key : {"ccc", "b", "aa", "\xE9", ""}) {
        tree.put(TbString(key));
    }
    std::vector<std::string> keys;
    for (TbFindable const* item : itemsInOrder(tree)) {
        keys.push_back(static_cast<TbString const*>(item)->c_str());
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"", "\xE9", "b", "aa", "ccc"}));
}

TEST(TbRBTree, FindsABareStringByAPairOfThatKey) {
    TbRBTree tree;
    tree.put(TbString("b"));
    EXPECT_NE(tree.find(TbKeyValue(TbString("b"), IntItem(1))), nullptr);
    EXPECT_EQ(tree.find(TbKeyValue(TbString("c"), IntItem(1))), nullptr);
}

/// The order of string keys with any bytes: length first, then signed bytes up to the first zero.
struct LengthFirstUpToZero {
    bool operator()(std::string const& left, std::string const& right) const {
        return left.size() != right.size() ? left.size() < right.size()
                                           : TCSNCMP(left.c_str(), right.c_str(), TbString::npos) < 0;
    }
};

/// Keys that agree in their first bytes, or differ at the ends of the order, around eight bytes and at a zero byte.
std::string similarKey(Random& random) {
    static constexpr char kBytes[] = {'a', 'b', '\0', '\x01', '\x7F', '\x80', '\xFF'};
    std::string key(random.below(13), 'a');
    for (std::size_t changes = random.below(3); changes > 0 && !key.empty(); --changes) {
        key[random.below(key.size())] = kBytes[random.below(sizeof kBytes)];
    }
    return key;
}

TEST(TbRBTree, OrdersStringsWhateverTheirBytes) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    TbRBTree tree;
    std::set<std::string, LengthFirstUpToZero> model;
    for (int i = 0; i < 20000; ++i) {
        std::string const key = similarKey(random);
        TbString const probe = stringOf(key);
        bool const isThere = model.count(key) != 0;
        TbFindable const* const found = tree.find(probe);
        ASSERT_EQ(found != nullptr, isThere) << testing::PrintToString(key);
        if (isThere) {
            ASSERT_EQ(static_cast<TbString const*>(found)->compare(probe), 0);
            // The path is found through the operators of the stored strings.
            std::unique_ptr<TbStack> const path(tree.pathTo(probe));
            ASSERT_EQ(static_cast<TbTreeNode*>(path->peek())->item(), found);
        }
        if (random.below(2) == 0) {
            ASSERT_EQ(thrownCode([&] { tree.put(probe); }), isThere ? KVX_E_DUPLICATE_KEY : 0);
            model.insert(key);
        } else {
            ASSERT_EQ(tree.remove(probe), isThere);
            model.erase(key);
        }
        if (i % 50 == 0) {
            ASSERT_TRUE(isSoundTree(tree));
            auto expected = model.begin();
            for (TbFindable const* item : itemsInOrder(tree)) {
                ASSERT_EQ(static_cast<TbString const*>(item)->compare(stringOf(*expected++)), 0);
            }
            ASSERT_EQ(expected, model.end());
        }
    }
}

TEST(TbRBTree, KnowsItsSentinelByAddressNotByItsText) {
    TbRBTree tree;
    for (char const* key : {"__dummy", "a", "zzzzzzzzz", "b", "c"}) {
        tree.put(TbString(key));
        ASSERT_TRUE(isSoundTree(tree));
    }
    EXPECT_NE(tree.find(TbString("__dummy")), nullptr);
    EXPECT_TRUE(tree.remove(TbString("__dummy")));
    EXPECT_TRUE(isSoundTree(tree));
    EXPECT_EQ(tree.count(), 4U);
}

TEST(TbRBTree, MakesItsSentinelWithItsFirstElement) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        TbRBTree tree;
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 1);
        tree.put(IntItem(1));
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 1 + 2 + 2) << "node and item, sentinel and its text";
        EXPECT_TRUE(tree.isSentinel(tree.root()->left()));
        EXPECT_EQ(tree.root()->left(), tree.root()->right());
        auto const* const text = static_cast<TbString const*>(tree.root()->left()->item());
        ASSERT_TRUE(text->isInstanceOf("TbString"));
        EXPECT_TRUE(*text == "__dummy");
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbRBTree, ShowsThePathToAnElement) {
    std::unique_ptr<TbRBTree> const tree = treeOf(upTo(100));
    for (int number = 1; number <= 100; ++number) {
        std::unique_ptr<TbStack> const path(tree->pathTo(IntItem(number)));
        ASSERT_NE(path, nullptr);
        ASSERT_EQ(path->at(0), tree->root());
        for (std::uint32_t i = 1; i < path->count(); ++i) {
            auto const* const above = static_cast<TbTreeNode const*>(path->at(i - 1));
            ASSERT_TRUE(path->at(i) == above->left() || path->at(i) == above->right());
        }
        EXPECT_EQ(numberOf(static_cast<TbTreeNode const*>(path->peek())->item()), number);
    }
    std::unique_ptr<TbStack> const absent(tree->pathTo(IntItem(101)));
    EXPECT_EQ(absent, nullptr);
    std::unique_ptr<TbStack> const ofEmpty(TbRBTree().pathTo(IntItem(1)));
    EXPECT_EQ(ofEmpty, nullptr);
}

TEST(TbRBTree, SizesPathsByTheLogarithmOfItsCount) {
    for (int const size : {1, 2, 3, 4, 1024}) {
        std::unique_ptr<TbRBTree> const tree = treeOf(upTo(size));
        std::unique_ptr<TbStack> const path(tree->pathTo(*tree->root()->item()));
        EXPECT_EQ(path->capacity(), static_cast<std::uint32_t>(TbRBTree::ROUND_LOG(size)) + 1) << size;
    }
}

TEST(TbRBTree, ExtendsAPathToTheSuccessor) {
    std::unique_ptr<TbRBTree> const tree = treeOf(upTo(100));
    int inner = 0;
    for (int number = 1; number <= 100; ++number) {
        std::unique_ptr<TbStack> const path(tree->pathTo(IntItem(number)));
        if (tree->isSentinel(static_cast<TbTreeNode const*>(path->peek())->right())) {
            continue;
        }
        ++inner;
        EXPECT_EQ(&tree->successorOf(*path), path.get());
        EXPECT_EQ(numberOf(static_cast<TbTreeNode const*>(path->peek())->item()), number + 1);
    }
    EXPECT_GT(inner, 20);
}

TEST(TbRBTree, CountsHalvings) {
    long const bits = static_cast<long>(sizeof(long)) * CHAR_BIT;
    struct {
        long m_Number;
        long m_Expected;
    } const rows[] = {
        {0, 0},
        {1, 0},
        {2, 1},
        {3, 1},
        {4, 2},
        {7, 2},
        {8, 3},
        {1023, 9},
        {1024, 10},
        {1025, 10},
        {INT_MAX, 30},
        {LONG_MAX, bits - 2},
        {-1, 0},
        {-2, 1},
        {-3, 1},
        {-4, 2},
        {-1024, 10},  // towards zero
        {LONG_MIN, bits - 1},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(TbRBTree::ROUND_LOG(row.m_Number), row.m_Expected) << row.m_Number;
    }
}

TEST(TbRBTree, IsClearedAndUsedAgain) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    std::unique_ptr<TbRBTree> const tree = treeOf(upTo(50));
    tree->clear(nullptr);
    EXPECT_EQ(tree->count(), 50U) << "no node, nothing below it";
    EXPECT_TRUE(isSoundTree(*tree));
    tree->clear();
    EXPECT_EQ(tree->count(), 0U);
    EXPECT_EQ(tree->root(), nullptr);
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 3) << "the tree and its sentinel";
    tree->clear();
    tree->clear(nullptr);
    tree->put(IntItem(1));
    EXPECT_TRUE(isSoundTree(*tree));
    static_cast<TbContainer&>(*tree).clear();
    EXPECT_EQ(tree->root(), nullptr);
}

TEST(TbRBTree, IsCopiedDeeply) {
    std::unique_ptr<TbRBTree> const source = treeOf({5, 3, 9, 1, 7});
    TbRBTree copy(*source);
    EXPECT_TRUE(isSoundTree(copy));
    EXPECT_EQ(numbersInOrder(copy), (std::vector<int>{1, 3, 5, 7, 9}));
    EXPECT_NE(itemsInOrder(copy), itemsInOrder(*source));
    source->remove(IntItem(3));
    EXPECT_EQ(copy.count(), 5U);

    copy = *source;
    EXPECT_EQ(numbersInOrder(copy), (std::vector<int>{1, 5, 7, 9}));
    TbRBTree const& same = copy;
    auto const before = itemsInOrder(copy);
    copy = same;
    EXPECT_EQ(itemsInOrder(copy), before) << "itself: no change";
    static_cast<TbObject&>(copy) = TbRBTree();
    EXPECT_EQ(copy.count(), 0U);
    TbRBTree const ofEmpty(copy);
    EXPECT_EQ(ofEmpty.root(), nullptr);
}

TEST(TbRBTree, KeepsTakingABareCountThroughItsBase) {
    // The base copies numbers only; whatever they say, nothing is followed that is not there, and nothing is lost.
    std::unique_ptr<TbRBTree> const full = treeOf(upTo(5));
    std::unique_ptr<TbRBTree> const one = treeOf({1});
    TbRBTree tree;
    tree.put(IntItem(1));
    tree.remove(IntItem(1));
    static_cast<TbContainer&>(tree).assign(static_cast<TbContainer&>(*full));
    EXPECT_EQ(tree.count(), 5U);
    EXPECT_EQ(tree.find(IntItem(1)), nullptr);
    EXPECT_FALSE(tree.remove(IntItem(1)));
    std::unique_ptr<TbStack> const path(tree.pathTo(IntItem(1)));
    EXPECT_EQ(path, nullptr);
    tree.put(IntItem(1));
    EXPECT_TRUE(isSoundTree(tree));

    static_cast<TbContainer&>(*full).assign(static_cast<TbContainer&>(*one));
    EXPECT_TRUE(full->remove(IntItem(3)));
    EXPECT_EQ(numbersInOrder(*full), (std::vector<int>{1, 2, 4, 5}));
}

TEST(TbRBTree, TellsVectorsApartByTheirFirstElements) {
    // Two vectors of unequal lengths compare as unordered, which a tree cannot live with.
    TbRBTree tree;
    std::vector<IntItem> items(20);
    for (std::size_t i = 0; i < items.size(); ++i) {
        items[i] = IntItem(static_cast<int>(i * 7 % items.size()));
        TbFindableVector vector;
        vector.push_back(&items[i]);
        for (std::size_t more = 0; more < i % 4; ++more) {
            vector.push_back(&items[0]);
        }
        tree.put(vector);
        ASSERT_TRUE(isSoundTree(tree));
        vector.push_back(&items[0]);
        EXPECT_EQ(thrownCode([&] { tree.put(vector); }), KVX_E_DUPLICATE_KEY);
    }
    for (IntItem const& item : items) {
        ASSERT_TRUE(tree.remove(item));
        ASSERT_TRUE(isSoundTree(tree));
    }
}

// An empty vector has no first element to go by. It equals no bare element and no other empty vector, and lies before
// every element.
TEST(TbRBTree, HoldsEveryEmptyVector) {
    TbRBTree tree;
    IntItem item(1);
    TbFindableVector filled;
    filled.push_back(&item);
    tree.put(TbFindableVector());
    tree.put(filled);
    tree.put(TbFindableVector());
    EXPECT_EQ(tree.count(), 3U);
    EXPECT_EQ(thrownCode([&] { tree.put(filled); }), KVX_E_DUPLICATE_KEY);
    auto const* const found = static_cast<TbFindableVector*>(tree.find(item));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->count(), 1U);
    std::vector<std::uint32_t> counts;
    for (TbFindable const* element : itemsInOrder(tree)) {
        counts.push_back(static_cast<TbFindableVector const*>(element)->count());
    }
    EXPECT_EQ(counts, (std::vector<std::uint32_t>{0, 0, 1}));
}

TEST(TbRBTree, HoldsElementsWithoutAnOrder) {
    TbRBTree tree;
    for (int i = 0; i < 100; ++i) {
        tree.put(TbFindable());
    }
    EXPECT_EQ(tree.count(), 100U);
    EXPECT_EQ(tree.find(TbFindable()), nullptr);
    EXPECT_FALSE(tree.remove(TbFindable()));
}

TEST(TbRBTree, DestroysManyElementsOnASmallStack) {
    onStackOf(std::size_t{128} * 1024, [] {
        std::unique_ptr<TbRBTree> const tree = treeOf(upTo(100000));
        EXPECT_EQ(TbRBTree(*tree).count(), 100000U);
    });
}

TEST(TbTreeNode, ComparesItemsAndIsFalseWithoutOne) {
    TbTreeNode const one(IntItem(1), nullptr, nullptr);
    TbTreeNode const two(IntItem(2), nullptr, nullptr);
    TbTreeNode const empty;
    EXPECT_TRUE(one.isRed());
    EXPECT_FALSE(empty.isRed());
    EXPECT_TRUE(one < two);
    EXPECT_FALSE(two < one);
    EXPECT_TRUE(one == TbTreeNode(IntItem(1), nullptr, nullptr));
    EXPECT_FALSE(one == two);
    for (bool const answer : {one < empty, empty < one, empty < empty, one == empty, empty == one, empty == empty}) {
        EXPECT_FALSE(answer);
    }
}

TEST(TbTreeNode, CopiesColourAndItemButNotItsPlace) {
    TbTreeNode child;
    TbTreeNode const source(IntItem(1), &child, &child);
    TbTreeNode target;
    target = source;
    EXPECT_TRUE(target.isRed());
    EXPECT_EQ(numberOf(target.item()), 1);
    EXPECT_NE(target.item(), source.item());
    EXPECT_EQ(target.left(), nullptr);
    TbTreeNode const& same = target;
    target = same;
    EXPECT_EQ(numberOf(target.item()), 1);
    target = TbTreeNode();
    EXPECT_EQ(target.item(), nullptr);
}

/// Shows the steps of the rebalancing.
class OpenTree : public TbRBTree {
public:
    using TbRBTree::operator=;
    using TbRBTree::changeColor;
    using TbRBTree::fixup;
    using TbRBTree::makeBalance;
    using TbRBTree::restoreBalance;
    using TbRBTree::rootNode;
    using TbRBTree::rotateLeft;
    using TbRBTree::rotateRight;
};

/// Three red nodes, 1 to 3, linked by the test.
struct ThreeNodes {
    TbTreeNode m_A{IntItem(1), nullptr, nullptr};
    TbTreeNode m_B{IntItem(2), nullptr, nullptr};
    TbTreeNode m_C{IntItem(3), nullptr, nullptr};
};

TEST(Rotation, TurnsASubtreeOnceOrTwiceAndRecoloursOnDemand) {
    TbTreeNode end;
    for (bool const recolour : {false, true}) {
        for (bool const isLeft : {true, false}) {
            for (bool const twice : {true, false}) {
                SCOPED_TRACE(testing::Message() << recolour << isLeft << twice);
                auto const node = [&](int number, TbTreeNode* left, TbTreeNode* right) {
                    return std::make_unique<TbTreeNode>(IntItem(number), left, right);
                };
                // A chain of 1, 2, 3, straight or with a knee, that rotates into 2 above 1 and 3.
                int const lowest = twice ? 2 : (isLeft ? 3 : 1);
                int const middle = twice ? (isLeft ? 3 : 1) : 2;
                int const highest = isLeft ? 1 : 3;
                auto const low = node(lowest, &end, &end);
                bool const isLowLeft = lowest < middle;
                auto const mid = node(middle, isLowLeft ? low.get() : &end, isLowLeft ? &end : low.get());
                auto const high = node(highest, isLeft ? &end : mid.get(), isLeft ? mid.get() : &end);
                TbTreeNode const* const top = isLeft ? OpenTree::rotateLeft(high.get(), twice, recolour)
                                                     : OpenTree::rotateRight(high.get(), twice, recolour);
                EXPECT_EQ(numberOf(top->item()), 2);
                EXPECT_EQ(numberOf(top->left()->item()), 1);
                EXPECT_EQ(numberOf(top->right()->item()), 3);
                for (TbTreeNode const* leaf : {top->left(), top->right()}) {
                    EXPECT_EQ(leaf->left(), &end);
                    EXPECT_EQ(leaf->right(), &end);
                }
                EXPECT_EQ(top->isRed(), !recolour);
                EXPECT_TRUE(high->isRed());
            }
        }
    }
}

/// The shape of a subtree: its numbers in the order of its links, each with its colour.
std::string shapeOf(TbRBTree const& tree, TbTreeNode const* node) {
    if (tree.isSentinel(node)) {
        return ".";
    }
    std::string const number = std::to_string(numberOf(node->item())) + (node->isRed() ? "r" : "b");
    return "(" + shapeOf(tree, node->left()) + number + shapeOf(tree, node->right()) + ")";
}

TEST(RestoreBalance, EmptiesThePathAndLeavesASoundTreeAsItIs) {
    OpenTree tree;
    for (int const number : upTo(20)) {
        tree.put(IntItem(number));
    }
    std::string const before = shapeOf(tree, tree.root());
    for (int const number : upTo(20)) {
        std::unique_ptr<TbStack> const path(tree.pathTo(IntItem(number)));
        tree.restoreBalance(*path);
        EXPECT_EQ(path->count(), 0U);
        EXPECT_EQ(shapeOf(tree, tree.root()), before) << number;
    }
}

TEST(RestoreBalance, DoesNothingWithoutAPath) {
    OpenTree tree;
    tree.put(IntItem(1));
    TbStack path;
    tree.restoreBalance(path);
    EXPECT_EQ(shapeOf(tree, tree.root()), "(.1b.)");
}

TEST(MakeBalance, TurnsANodeWhereItHangsAndBack) {
    OpenTree tree;
    for (int const number : upTo(20)) {
        tree.put(IntItem(number));
    }
    std::string const before = shapeOf(tree, tree.root());
    for (TbTreeNode const* const place : {tree.root(), tree.root()->right(), tree.root()->left()}) {
        std::unique_ptr<TbStack> const path(tree.pathTo(*place->item()));
        auto* const node = static_cast<TbTreeNode*>(path->peek());
        auto* const right = const_cast<TbTreeNode*>(node->right());
        tree.makeBalance(node, 0);
        EXPECT_EQ(right->left(), node);
        EXPECT_EQ(numbersInOrder(tree), upTo(20));
        EXPECT_NE(shapeOf(tree, tree.root()), before);
        tree.makeBalance(right, 1);
        EXPECT_EQ(shapeOf(tree, tree.root()), before);
    }
}

TEST(Fixup, MakesARedReplacementBlackAndTakesTwoNodesOffThePath) {
    OpenTree tree;
    for (int const number : upTo(20)) {
        tree.put(IntItem(number));
    }
    std::unique_ptr<TbStack> const path(tree.pathTo(IntItem(20)));
    std::uint32_t const count = path->count();
    auto const* const last = static_cast<TbTreeNode*>(path->peek());
    ASSERT_TRUE(last->isRed());
    tree.fixup(*path);
    EXPECT_FALSE(last->isRed());
    EXPECT_EQ(path->count(), count - 2);
    TbStack one;
    one.push_back(tree.rootNode());
    tree.fixup(one);
    EXPECT_EQ(one.count(), 1U) << "fewer than two nodes: nothing to do";
}

TEST(ChangeColor, SplitsABlackNodeWithTwoRedChildrenOnly) {
    TbTreeNode end;
    ThreeNodes nodes;
    auto top = std::make_unique<TbTreeNode>();
    EXPECT_FALSE(OpenTree::changeColor(top.get())) << "no children at all";
    TbTreeNode oneSided(IntItem(9), nullptr, nullptr);
    TbTreeNode below(IntItem(8), nullptr, &oneSided);
    ASSERT_EQ(OpenTree::rotateLeft(&below, false, true), &oneSided);
    ASSERT_EQ(oneSided.left(), &below);
    EXPECT_FALSE(OpenTree::changeColor(&oneSided)) << "black, with a red left child and no right one";
    EXPECT_TRUE(below.isRed());
    TbTreeNode red(IntItem(9), &nodes.m_A, &nodes.m_B);
    EXPECT_FALSE(OpenTree::changeColor(&red)) << "red itself";
    EXPECT_TRUE(nodes.m_A.isRed());

    // A black node with two red children comes from a tree of three.
    std::unique_ptr<TbRBTree> const tree = treeOf({2, 1, 3});
    std::unique_ptr<TbStack> const path(tree->pathTo(IntItem(2)));
    auto* const root = static_cast<TbTreeNode*>(path->peek());
    ASSERT_FALSE(root->isRed());
    EXPECT_TRUE(OpenTree::changeColor(root));
    EXPECT_TRUE(root->isRed());
    EXPECT_FALSE(root->left()->isRed());
    EXPECT_FALSE(root->right()->isRed());
    EXPECT_FALSE(OpenTree::changeColor(root));
}

TEST(TbRBTree, PutLeavesNoTraceWhenAnAllocationFails) {
    long const failures =
        failEachAllocation<TbRBTree>([] { return treeOf(upTo(20)); }, [](TbRBTree& tree) { tree.put(IntItem(100)); },
                                     [](TbRBTree& tree, bool hasFailed) {
                                         EXPECT_TRUE(isSoundTree(tree));
                                         EXPECT_EQ(tree.count(), hasFailed ? 20U : 21U);
                                         EXPECT_EQ(tree.find(IntItem(100)) == nullptr, hasFailed);
                                         tree.remove(IntItem(100));
                                         EXPECT_EQ(numbersInOrder(tree), upTo(20));
                                         tree.put(IntItem(21));
                                         EXPECT_EQ(numbersInOrder(tree), upTo(21));
                                     });
    EXPECT_GE(failures, 4) << "element and node";
}

TEST(TbRBTree, TheFirstPutLeavesNoTraceWhenAnAllocationFails) {
    failEachAllocation<TbRBTree>([] { return std::make_unique<TbRBTree>(); },
                                 [](TbRBTree& tree) { tree.put(IntItem(1)); },
                                 [](TbRBTree& tree, bool hasFailed) {
                                     EXPECT_TRUE(isSoundTree(tree));
                                     EXPECT_EQ(tree.count(), hasFailed ? 0U : 1U);
                                     tree.put(IntItem(2));
                                     EXPECT_NE(tree.find(IntItem(2)), nullptr);
                                 });
}

TEST(TbRBTree, RemoveNeedsNoMemory) {
    for (int number = 1; number <= 30; ++number) {
        long const failures = failEachAllocation<TbRBTree>(
            [] { return treeOf(upTo(30)); }, [&](TbRBTree& tree) { tree.remove(IntItem(number)); },
            [&](TbRBTree& tree, bool hasFailed) {
                EXPECT_TRUE(isSoundTree(tree));
                EXPECT_EQ(tree.count(), hasFailed ? 30U : 29U);
                EXPECT_EQ(tree.find(IntItem(number)) == nullptr, !hasFailed);
            });
        EXPECT_EQ(failures, 0);
    }
}

TEST(TbRBTree, AssignLeavesASoundTreeWhenAnAllocationFails) {
    std::unique_ptr<TbRBTree> const source = treeOf(upTo(10));
    failEachAllocation<TbRBTree>(
        [] {
            return treeOf({50, 60});
        },
        [&](TbRBTree& tree) { tree = *source; },
        [&](TbRBTree& tree, bool hasFailed) {
            EXPECT_TRUE(isSoundTree(tree));
            std::vector<int> const numbers = numbersInOrder(tree);
            EXPECT_EQ(numbers, upTo(static_cast<int>(numbers.size())));
            EXPECT_EQ(numbers.size() == 10, !hasFailed);
            tree.put(IntItem(99));
            EXPECT_EQ(numbersInOrder(*source), upTo(10));
        });
}

TEST(TbRBTree, LosesNothingWhenAnyAllocationFails) {
    EXPECT_GT(survivesEveryFailingAllocation([] {
                  std::unique_ptr<TbRBTree> const tree = treeOf({4, 2, 6, 1, 3, 5, 7});
                  TbRBTree copy(*tree);
                  copy.remove(IntItem(4));
                  copy = *tree;
                  std::unique_ptr<TbStack> const path(copy.pathTo(IntItem(5)));
              }),
              40);
}

/// A tree beside a std::map from each number to the address of its element.
class TreeBesideModel {
public:
    explicit TreeBesideModel(std::uint64_t seed, int numbers) : m_Random(seed), m_Numbers(numbers) {}

    void step() {
        int const number = static_cast<int>(m_Random() % static_cast<unsigned>(m_Numbers));
        // Fills and empties by turns, so that every size is met.
        bool const isFilling = (m_Steps++ / 400) % 2 == 0;
        unsigned const choice = static_cast<unsigned>(m_Random() % 100);
        if (choice < (isFilling ? 60U : 30U)) {
            put(number);
        } else if (choice < 90) {
            EXPECT_EQ(m_Tree->remove(IntItem(number)), m_Model.erase(number) == 1);
        } else if (choice < 98) {
            auto const expected = m_Model.find(number);
            EXPECT_EQ(m_Tree->find(IntItem(number)), expected == m_Model.end() ? nullptr : expected->second);
        } else if (choice == 98) {
            copyOver();
        } else if (m_Random() % 8 == 0) {
            m_Tree->clear();
            m_Model.clear();
        }
    }

    void check() const {
        ASSERT_TRUE(isSoundTree(*m_Tree));
        ASSERT_EQ(m_Tree->count(), m_Model.size());
        std::vector<TbFindable const*> const items = itemsInOrder(*m_Tree);
        ASSERT_EQ(items.size(), m_Model.size());
        std::size_t place = 0;
        for (auto const& [number, address] : m_Model) {
            ASSERT_EQ(items[place], address) << "stored elements stay where they are";
            ASSERT_EQ(numberOf(items[place++]), number);
        }
    }

private:
    void put(int number) {
        if (m_Model.count(number) != 0) {
            EXPECT_EQ(thrownCode([&] { m_Tree->put(IntItem(number)); }), KVX_E_DUPLICATE_KEY);
        } else {
            m_Model[number] = m_Tree->put(IntItem(number));
        }
    }

    void copyOver() {
        auto copy = std::make_unique<TbRBTree>();
        copy->put(IntItem(-1));
        *copy = *m_Tree;
        m_Tree = std::move(copy);
        for (auto& [number, address] : m_Model) {
            TbFindable const* const moved = m_Tree->find(IntItem(number));
            EXPECT_NE(moved, address);
            address = moved;
        }
    }

    std::mt19937_64 m_Random;
    int m_Numbers;
    unsigned m_Steps = 0;
    std::unique_ptr<TbRBTree> m_Tree = std::make_unique<TbRBTree>();
    std::map<int, TbFindable const*> m_Model;
};

TEST(TbRBTree, BehavesLikeAnOrderedSetInRandomUse) {
    for (int const numbers : {4, 20, 150}) {
        std::uint64_t const seed = testSeed() + static_cast<std::uint64_t>(numbers);
        TreeBesideModel both(seed, numbers);
        for (int step = 0; step < 5000; ++step) {
            SCOPED_TRACE(testing::Message() << "seed " << testSeed() << ", numbers " << numbers << ", step " << step);
            both.step();
            both.check();
            if (HasFailure()) {
                return;
            }
        }
    }
}

}  // namespace
