// Multimaps: several entries per key in their order, removal by key and by index, deep copies.
//
// Each key of the tree holds a vector of map items; tests check tree, vectors and the list of all entries. Random
// operations run beside std::multimap. Odd: looking a missing key up stores a pair for it.

#include "foundation/tbmultimap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/foundation/foundationsupport.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

using Entries = std::vector<std::string>;

TbKeyValue pairOf(std::string const& key, int number) {
    return {stringOf(key), IntItem(number)};
}

/// "key=number" of an entry: a map item around either kind of pair, or the bare pair that a look-up made.
std::string describe(TbFindable const& entry) {
    TbFindable const& item = entry.isInstanceOf("TbMapItem") ? *static_cast<TbMapItem const&>(entry).item() : entry;
    if (item.isInstanceOf("TbStrPtr")) {
        auto const& pair = static_cast<TbStrPtr const&>(item);
        return bytesOf(pair.key()) + "=" + std::to_string(numberOf(static_cast<IntItem*>(pair.value().target())));
    }
    auto const& pair = static_cast<TbKeyValue const&>(item);
    std::string const key = bytesOf(*static_cast<TbString*>(pair.key()));
    return key + "=" + (pair.value()->isInstanceOf("IntItem") ? std::to_string(numberOf(pair.value())) : "");
}

/// All entries in insertion order; fails the test when the list differs walked backwards.
Entries entriesOf(TbMultimap& map) {
    Entries entries;
    TbMapItem const* last = nullptr;
    for (TbMapItem const* entry = map.begin(); entry != map.end(); entry = entry->next()) {
        EXPECT_EQ(entry->previous(), last);
        entries.push_back(describe(*entry));
        last = entry;
    }
    EXPECT_EQ(map.first(), map.begin());
    return entries;
}

/// The entries of one key in their order.
Entries entriesUnder(TbMultimap const& map, std::string const& key) {
    Entries entries;
    if (auto const* const vector = static_cast<TbFindableVector const*>(map.find(stringOf(key)))) {
        for (std::uint32_t i = 0; i < vector->count(); ++i) {
            entries.push_back(describe(*vector->at(i)));
        }
    }
    return entries;
}

std::unique_ptr<TbMultimap> multimapOf(std::vector<std::pair<std::string, int>> const& entries) {
    auto map = std::make_unique<TbMultimap>();
    for (auto const& [key, number] : entries) {
        map->put(pairOf(key, number));
    }
    return map;
}

TEST(TbMultimap, KeepsSeveralEntriesPerKeyInTheOrderOfInsertion) {
    std::unique_ptr<TbMultimap> const map = multimapOf({{"b", 1}, {"a", 2}, {"b", 3}, {"b", 4}});
    EXPECT_EQ(map->count(), 4U) << "entries, not keys";
    EXPECT_EQ(entriesOf(*map), (Entries{"b=1", "a=2", "b=3", "b=4"}));
    EXPECT_EQ(entriesUnder(*map, "b"), (Entries{"b=1", "b=3", "b=4"}));
    EXPECT_EQ(entriesUnder(*map, "a"), (Entries{"a=2"}));
    EXPECT_EQ(map->find(TbString("c")), nullptr);
    EXPECT_TRUE(isSoundTree(*map));
    EXPECT_EQ(map->end(), nullptr);
}

TEST(TbMultimap, FindsBareStringsByTheirTextAndByPairs) {
    TbMultimap map;
    for (char const* const key : {"b", "a", "c"}) {
        TbFindableVector entries;
        entries.push_back(new TbString(key));
        map.put(entries);
    }
    for (char const* const key : {"a", "b", "c"}) {
        EXPECT_NE(map.find(TbString(key)), nullptr) << key;
        EXPECT_NE(map.find(pairOf(key, 1)), nullptr) << key;
    }
    EXPECT_EQ(map.find(TbString("d")), nullptr);
    EXPECT_EQ(map.find(pairOf("bb", 1)), nullptr);
}

TEST(TbMultimap, FindsNothingInAVectorThatACallerHasEmptied) {
    TbMultimap map;
    TbFindableVector entries;
    entries.push_back(new TbString("key"));
    map.put(entries);
    auto* const stored = static_cast<TbFindableVector*>(map.find(TbString("key")));
    std::unique_ptr<TbFindable> const entry(stored->at(0));
    stored->clear();
    EXPECT_EQ(map.find(TbString("key")), nullptr);
    EXPECT_EQ(map.find(pairOf("key", 1)), nullptr);
}

TEST(TbMultimap, ReturnsTheMapItemFromPut) {
    TbMultimap map;
    TbFindable* const stored = map.put(pairOf("a", 1));
    ASSERT_TRUE(stored->isInstanceOf("TbMapItem"));
    EXPECT_EQ(map.begin(), stored);
    auto const* const vector = static_cast<TbFindableVector const*>(map.find(TbString("a")));
    ASSERT_TRUE(vector->isInstanceOf("TbFindableVector"));
    EXPECT_EQ(vector->at(0), stored);
    EXPECT_EQ(vector->capacity(), 5U);
}

TEST(TbMultimap, GrowsTheVectorOfAKeyBeyondItsFirstFive) {
    TbMultimap map;
    for (int number = 0; number < 6; ++number) {
        map.insert(pairOf("a", number));
    }
    auto const* const vector = static_cast<TbFindableVector const*>(map.find(TbString("a")));
    EXPECT_EQ(vector->count(), 6U);
    EXPECT_EQ(vector->capacity(), 22U);
    EXPECT_EQ(map.count(), 6U);
}

TEST(TbMultimap, RemovesOneEntryByItsIndex) {
    struct {
        long m_Index;
        bool m_IsRemoved;
        Entries m_Left;
    } const rows[] = {
        {0, true, {"b=2", "b=3"}},
        {1, true, {"b=1", "b=3"}},
        {2, true, {"b=1", "b=2"}},
        {3, false, {"b=1", "b=2", "b=3"}},
        {-1, false, {"b=1", "b=2", "b=3"}},
        {LONG_MAX, false, {"b=1", "b=2", "b=3"}},
        {LONG_MIN, false, {"b=1", "b=2", "b=3"}},
#if LONG_MAX > 0xFFFFFFFF
        {4294967296L, false, {"b=1", "b=2", "b=3"}},  // 0 in 32 bits
        {-4294967295L, false, {"b=1", "b=2", "b=3"}},
#endif
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.m_Index);
        std::unique_ptr<TbMultimap> const map = multimapOf({{"b", 1}, {"b", 2}, {"b", 3}});
        EXPECT_EQ(map->remove(TbString("b"), row.m_Index), row.m_IsRemoved);
        EXPECT_EQ(entriesUnder(*map, "b"), row.m_Left);
        EXPECT_EQ(entriesOf(*map), row.m_Left);
        EXPECT_EQ(map->count(), row.m_Left.size());
        EXPECT_FALSE(map->remove(TbString("absent"), 0));
    }
}

TEST(TbMultimap, DropsAKeyWithItsLastEntry) {
    std::unique_ptr<TbMultimap> const map = multimapOf({{"a", 1}, {"b", 2}, {"c", 3}});
    EXPECT_TRUE(map->remove(TbString("b"), 0));
    EXPECT_EQ(map->find(TbString("b")), nullptr);
    EXPECT_FALSE(map->remove(TbString("b"), 0));
    EXPECT_FALSE(map->remove(TbString("b")));
    EXPECT_EQ(entriesOf(*map), (Entries{"a=1", "c=3"}));
    EXPECT_TRUE(isSoundTree(*map));
    map->put(pairOf("b", 4));
    EXPECT_EQ(entriesUnder(*map, "b"), (Entries{"b=4"}));
    for (char const* key : {"a", "b", "c"}) {
        EXPECT_TRUE(map->remove(TbString(key), 0));
    }
    EXPECT_EQ(map->count(), 0U);
    EXPECT_EQ(map->root(), nullptr);
    EXPECT_EQ(map->begin(), nullptr);
}

TEST(TbMultimap, RemovesAllEntriesOfAKey) {
    std::unique_ptr<TbMultimap> const map = multimapOf({{"b", 1}, {"a", 2}, {"b", 3}, {"c", 4}});
    EXPECT_TRUE(map->remove(TbString("b")));
    EXPECT_EQ(map->count(), 2U);
    EXPECT_EQ(entriesOf(*map), (Entries{"a=2", "c=4"}));
    EXPECT_FALSE(map->remove(TbString("b")));
    TbRBTree& tree = *map;
    EXPECT_TRUE(tree.remove(TbString("a"))) << "also through the tree";
    EXPECT_EQ(entriesOf(*map), (Entries{"c=4"}));
    EXPECT_EQ(map->count(), 1U);
}

TEST(TbMultimap, RemovesByAProbeThatItOwns) {
    std::unique_ptr<TbMultimap> const map = multimapOf({{"b", 1}, {"a", 2}, {"b", 3}, {"c", 4}, {"c", 5}});
    EXPECT_TRUE(map->remove(*map->begin()));
    EXPECT_TRUE(map->remove(*map->begin()->item(), 0));
    EXPECT_EQ(entriesOf(*map), (Entries{"c=4", "c=5"}));
    EXPECT_TRUE(map->remove(*map->begin(), 1));
    EXPECT_TRUE(map->remove(*map->begin(), 0));
    EXPECT_EQ(map->count(), 0U);
}

TEST(TbMultimap, FillsManyKeysWithUnequalCounts) {
    // Keys whose vectors differ in length must not disturb the balance.
    TbMultimap map;
    for (int number = 0; number < 300; ++number) {
        map.put(pairOf(std::string(1, static_cast<char>('a' + number % (1 + number / 20))), number));
        ASSERT_TRUE(isSoundTree(map)) << number;
    }
    EXPECT_EQ(map.count(), 300U);
    for (char key = 'a'; map.count() != 0; ++key) {
        map.remove(stringOf(std::string(1, key)));
        ASSERT_TRUE(isSoundTree(map)) << key;
        ASSERT_LE(key, 'z');
    }
}

TEST(TbMultimap, StoresAPairForAKeyThatALookUpMisses) {
    TbMultimap map;
    TbFindableVector& entries = map[TbString("k")];
    ASSERT_EQ(entries.count(), 1U);
    EXPECT_EQ(entries.capacity(), 5U);
    ASSERT_TRUE(entries.at(0)->isInstanceOf("TbKeyValue"));
    auto const* const pair = static_cast<TbKeyValue const*>(entries.at(0));
    EXPECT_TRUE(*static_cast<TbString*>(pair->key()) == "k");
    EXPECT_TRUE(*static_cast<TbString*>(pair->value()) == "");
    EXPECT_EQ(map.count(), 1U);
    EXPECT_EQ(&map[TbString("k")], &entries);
    EXPECT_EQ(map.find(TbString("k")), &entries);
    EXPECT_EQ(map.begin(), nullptr) << "what a look-up made stands outside the order";

    map.put(pairOf("k", 2));
    EXPECT_EQ(entriesUnder(map, "k"), (Entries{"k=", "k=2"}));
    EXPECT_EQ(entriesOf(map), (Entries{"k=2"}));
    EXPECT_TRUE(map.remove(TbString("k"), 0));
    EXPECT_EQ(entriesUnder(map, "k"), (Entries{"k=2"}));
    EXPECT_EQ(map.count(), 1U);
    map[TbString("other")];
    EXPECT_TRUE(map.remove(TbString("other")));
    map[TbString("left")];
}

TEST(TbMultimap, ComparesPlainElementsWithThePairsThatLookUpsMake) {
    TbMultimap strings;
    TbMultimap numbers;
    for (int number = 0; number < 40; ++number) {
        int const place = (number * 17) % 40;
        std::string const key = std::to_string(place);
        if (number % 3 == 0) {
            strings[stringOf(key)];
            numbers[IntItem(place)];
        } else {
            strings.put(stringOf(key));
            numbers.put(IntItem(place));
        }
        ASSERT_TRUE(isSoundTree(strings));
        ASSERT_TRUE(isSoundTree(numbers));
    }
    for (int place = 0; place < 40; ++place) {
        ASSERT_TRUE(strings.remove(stringOf(std::to_string(place))));
        ASSERT_TRUE(numbers.remove(IntItem(place)));
        ASSERT_TRUE(isSoundTree(strings));
        ASSERT_TRUE(isSoundTree(numbers));
    }
}

/// A vector of new map items, owned by this until `release`.
struct ReadyVector {
    explicit ReadyVector(std::vector<std::pair<std::string, int>> const& entries) {
        for (auto const& [key, number] : entries) {
            m_Items.push_back(std::make_unique<TbMapItem>(new TbKeyValue(pairOf(key, number))));
            m_Vector.push_back(m_Items.back().get());
        }
    }
    void release() {
        for (auto& item : m_Items) {
            static_cast<void>(item.release());
        }
    }
    std::vector<std::unique_ptr<TbMapItem>> m_Items;
    TbFindableVector m_Vector;
};

TEST(TbMultimap, TakesAReadyVectorForANewKey) {
    std::unique_ptr<TbMultimap> const map = multimapOf({{"a", 1}});
    ReadyVector ready({{"b", 2}, {"b", 3}});
    TbFindable* const stored = map->put(ready.m_Vector);
    EXPECT_NE(stored, &ready.m_Vector);
    EXPECT_EQ(map->find(TbString("b")), stored);
    EXPECT_EQ(static_cast<TbFindableVector*>(stored)->at(0), ready.m_Items[0].get()) << "the entries are the map's now";
    ready.release();
    EXPECT_EQ(map->count(), 3U);
    EXPECT_EQ(entriesOf(*map), (Entries{"a=1", "b=2", "b=3"}));
    map->put(pairOf("b", 4));
    EXPECT_EQ(entriesUnder(*map, "b"), (Entries{"b=2", "b=3", "b=4"}));
    EXPECT_TRUE(map->remove(TbString("b"), 1));
    EXPECT_EQ(entriesOf(*map), (Entries{"a=1", "b=2", "b=4"}));
    EXPECT_TRUE(isSoundTree(*map));
}

TEST(TbMultimap, RefusesAReadyVectorForAKeyThatIsThere) {
    // Also when the counts differ, which alone would make the two vectors unequal.
    for (std::vector<std::pair<std::string, int>> const& entries :
         {std::vector<std::pair<std::string, int>>{{"a", 5}}, {{"a", 5}, {"a", 6}}, {{"a", 5}, {"a", 6}, {"a", 7}}}) {
        std::unique_ptr<TbMultimap> const map = multimapOf({{"a", 1}, {"a", 2}, {"b", 3}});
        ReadyVector const ready(entries);
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        EXPECT_EQ(thrownCode([&] { map->put(ready.m_Vector); }), KVX_E_DUPLICATE_KEY);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << "its entries stay with the caller";
        EXPECT_EQ(map->count(), 3U);
        EXPECT_EQ(entriesOf(*map), (Entries{"a=1", "a=2", "b=3"}));
        EXPECT_EQ(ready.m_Vector.count(), entries.size());
    }
}

TEST(TbMultimap, RefusesAReadyVectorWithoutEntries) {
    TbMultimap map;
    EXPECT_EQ(thrownCode([&] { map.put(TbFindableVector()); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(thrownCode([&] { map.insert(TbFindableVector(5)); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(map.count(), 0U);
    EXPECT_EQ(map.root(), nullptr);
}

TEST(TbMultimap, IsEmptiedThroughEveryClear) {
    for (int way = 0; way < 3; ++way) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        std::unique_ptr<TbMultimap> map = multimapOf({{"a", 1}, {"a", 2}, {"b", 3}});
        (*map)[TbString("outside")];
        if (way == 0) {
            map->clear();
        } else if (way == 1) {
            static_cast<TbContainer&>(*map).clear();
        } else {
            static_cast<TbRBTree&>(*map).clear();
        }
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living + 3) << "the map and its sentinel";
        EXPECT_EQ(map->count(), 0U);
        EXPECT_EQ(map->begin(), nullptr);
        map->put(pairOf("z", 9));
        EXPECT_EQ(entriesOf(*map), (Entries{"z=9"}));
        map.reset();
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    }
}

TEST(TbMultimap, DestroysTheEntriesOfAKeyFromTheLastToTheFirst) {
    static std::vector<int> order;
    struct Recorder : public IntItem {
        Recorder() = default;
        explicit Recorder(int number) : IntItem(number) {}
        Recorder(Recorder const&) = default;
        Recorder& operator=(Recorder const&) = delete;
        using IntItem::operator=;
        ~Recorder() override { order.push_back(number()); }
    };
    TbStrPtrMultimap map;
    for (int const number : {1, 2, 3}) {
        map.put(TbString("k"), TbPtr(new Recorder(number)));
    }
    map.clear();
    EXPECT_EQ(order, (std::vector<int>{3, 2, 1}));
}

TEST(TbMultimap, IsCopiedDeeplyInTheOrderOfInsertion) {
    std::unique_ptr<TbMultimap> const source = multimapOf({{"c", 1}, {"a", 2}, {"c", 3}, {"b", 4}});
    TbMultimap copy(*source);
    TbMultimap assigned;
    assigned.put(pairOf("old", 0));
    assigned = *source;
    TbMultimap throughRoot;
    static_cast<TbObject&>(throughRoot) = *source;
    source->remove(TbString("c"));
    for (TbMultimap* map : {&copy, &assigned, &throughRoot}) {
        EXPECT_EQ(entriesOf(*map), (Entries{"c=1", "a=2", "c=3", "b=4"}));
        EXPECT_EQ(entriesUnder(*map, "c"), (Entries{"c=1", "c=3"}));
        EXPECT_EQ(map->count(), 4U);
        EXPECT_TRUE(isSoundTree(*map));
    }
    TbMultimap const& same = copy;
    copy = same;
    EXPECT_EQ(copy.count(), 4U) << "itself: no change";
    copy = TbMultimap();
    EXPECT_EQ(copy.count(), 0U);
}

TEST(TbMultimap, CopiesWhatLookUpsMadeToo) {
    TbMultimap source;
    source.put(pairOf("a", 1));
    source[TbString("k")];
    source.put(pairOf("k", 2));
    source[TbString("alone")];
    TbMultimap const copy(source);
    EXPECT_EQ(copy.count(), source.count());
    EXPECT_EQ(entriesUnder(copy, "k"), (Entries{"k=", "k=2"}));
    EXPECT_EQ(entriesUnder(copy, "alone"), (Entries{"alone="}));
    EXPECT_EQ(entriesUnder(copy, "a"), (Entries{"a=1"}));
    EXPECT_TRUE(isSoundTree(copy));
}

TEST(TbStrPtrMultimap, ReportsAllEntriesAndKeepsThoseOfAKeyInOrder) {
    TbStrPtrMultimap map;
    map.put(TbString("k"), TbPtr(new IntItem(1)));
    map.put(TbString("other"), TbPtr(new IntItem(2)));
    map.put(TbString("k"), TbPtr(new IntItem(3)));
    TbFindable const* const stored = map.put(TbString("k"), TbPtr(new IntItem(4)));
    EXPECT_TRUE(stored->isInstanceOf("TbMapItem"));
    EXPECT_EQ(map.count(), 4U);
    EXPECT_EQ(entriesUnder(map, "k"), (Entries{"k=1", "k=3", "k=4"}));
    EXPECT_EQ(entriesOf(map), (Entries{"k=1", "other=2", "k=3", "k=4"}));
}

TEST(TbStrPtrMultimap, TakesPairsThroughEveryPutAndInsert) {
    TbStrPtrMultimap map;
    map.insert(TbStrPtr(TbString("a"), TbPtr(new IntItem(1))));
    TbFindable const& asFindable = TbStrPtr(TbString("a"), TbPtr(new IntItem(2)));
    map.put(asFindable);
    map.insert(asFindable);
    static_cast<TbMultimap&>(map).insert(TbStrPtr(TbString("b"), TbPtr(new IntItem(3))));
    static_cast<TbRBTree&>(map).put(TbStrPtr(TbString("b"), TbPtr(new IntItem(4))));
    EXPECT_EQ(entriesOf(map), (Entries{"a=1", "a=2", "a=2", "b=3", "b=4"}));
}

TEST(TbStrPtrMultimap, HoldsOneReferencePerEntry) {
    bool isGone = false;
    auto* const target = new Witness(&isGone);
    {
        TbStrPtrMultimap map;
        {
            TbPtr const pointer(target);
            map.put(TbString("a"), pointer);
            map.put(TbString("a"), pointer);
            map.put(TbString("b"), pointer);
        }
        EXPECT_EQ(target->refCount(), 3);
        EXPECT_TRUE(map.remove(TbString("a"), 0));
        EXPECT_EQ(target->refCount(), 2);
        TbStrPtrMultimap const copy(map);
        EXPECT_EQ(target->refCount(), 4) << "a copy shares the targets";
        EXPECT_TRUE(map.remove(TbString("b")));
        EXPECT_EQ(target->refCount(), 3);
        map.clear();
        EXPECT_EQ(target->refCount(), 2);
        EXPECT_FALSE(isGone);
    }
    EXPECT_TRUE(isGone);
}

TEST(TbStrPtrMultimap, FindsWhatALookUpMadeAmongItsOwnPairs) {
    TbStrPtrMultimap map;
    for (char const* key : {"d", "b", "f"}) {
        map.put(TbString(key), TbPtr(new IntItem(1)));
    }
    for (char const* key : {"a", "c", "e", "g", "b"}) {
        map[TbString(key)];
        ASSERT_TRUE(isSoundTree(map)) << key;
    }
    EXPECT_EQ(map.count(), 7U);
    for (char const* key : {"d", "a", "g", "b", "c", "f", "e"}) {
        ASSERT_TRUE(map.remove(TbString(key))) << key;
        ASSERT_TRUE(isSoundTree(map)) << key;
    }
}

std::unique_ptr<TbStrPtrMultimap> pointersOf(std::vector<std::pair<std::string, int>> const& entries) {
    auto map = std::make_unique<TbStrPtrMultimap>();
    for (auto const& [key, number] : entries) {
        map->put(stringOf(key), TbPtr(new IntItem(number)));
    }
    return map;
}

TEST(TbStrPtrMultimap, PutLeavesNoTraceWhenAnAllocationFails) {
    Entries const before = {"a=1", "b=2", "a=3", "a=4", "a=5", "a=6"};
    TbString const fresh("new");
    TbString const full("a");  // its vector of five is full and must grow
    for (TbString const* key : {&fresh, &full}) {
        TbPtr const value(new IntItem(7));
        for (int way = 0; way < 3; ++way) {
            SCOPED_TRACE(testing::Message() << key->c_str() << " way " << way);
            TbStrPtr const pair(*key, value);
            std::int32_t const references = value.target()->refCount();
            long const failures = failEachAllocation<TbStrPtrMultimap>(
                [] {
                    return pointersOf({{"a", 1}, {"b", 2}, {"a", 3}, {"a", 4}, {"a", 5}, {"a", 6}});
                },
                [&](TbStrPtrMultimap& map) {
                    if (way == 0) {
                        map.put(*key, value);
                    } else if (way == 1) {
                        map.insert(pair);
                    } else {
                        map.put(static_cast<TbFindable const&>(pair));
                    }
                },
                [&](TbStrPtrMultimap& map, bool hasFailed) {
                    EXPECT_TRUE(isSoundTree(map));
                    Entries expected = before;
                    if (!hasFailed) {
                        expected.push_back(bytesOf(*key) + "=7");
                    }
                    EXPECT_EQ(entriesOf(map), expected);
                    EXPECT_EQ(map.count(), expected.size());
                    EXPECT_EQ(value.target()->refCount(), references + (hasFailed ? 0 : 1));
                    map.put(*key, value);
                    EXPECT_TRUE(isSoundTree(map));
                });
            EXPECT_GE(failures, 6);
        }
    }
}

TEST(TbMultimap, RemoveLeavesNoTraceWhenAnAllocationFails) {
    Entries const before = {"a=1", "b=2", "a=3", "c=4"};
    struct {
        char const* m_Name;
        std::function<void(TbMultimap&)> m_Act;
        Entries m_After;
    } const rows[] = {
        {"key", [](TbMultimap& map) { map.remove(TbString("a")); }, {"b=2", "c=4"}},
        {"last entry", [](TbMultimap& map) { map.remove(TbString("b"), 0); }, {"a=1", "a=3", "c=4"}},
        {"one of several", [](TbMultimap& map) { map.remove(TbString("a"), 1); }, {"a=1", "b=2", "c=4"}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.m_Name);
        failEachAllocation<TbMultimap>(
            [] {
                return multimapOf({{"a", 1}, {"b", 2}, {"a", 3}, {"c", 4}});
            },
            row.m_Act,
            [&](TbMultimap& map, bool hasFailed) {
                EXPECT_TRUE(isSoundTree(map));
                EXPECT_EQ(entriesOf(map), hasFailed ? before : row.m_After);
                EXPECT_EQ(map.count(), hasFailed ? before.size() : row.m_After.size());
            });
    }
}

TEST(TbMultimap, LookUpAndReadyVectorLeaveNoTraceWhenAnAllocationFails) {
    auto const make = [] { return multimapOf({{"a", 1}, {"b", 2}}); };
    failEachAllocation<TbMultimap>(
        make, [](TbMultimap& map) { map[TbString("k")]; },
        [](TbMultimap& map, bool hasFailed) {
            EXPECT_TRUE(isSoundTree(map));
            EXPECT_EQ(map.count(), hasFailed ? 2U : 3U);
            EXPECT_EQ(map[TbString("k")].count(), 1U);
        });
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    for (long number = 0;; ++number) {
        ReadyVector ready({{"k", 3}, {"k", 4}});
        std::unique_ptr<TbMultimap> const map = make();
        bool isReached = false;
        {
            FailingAllocation const failing(number, FailingAllocation::Mode::kOnlyThat);
            std::int32_t const code = thrownCode([&] { map->put(ready.m_Vector); });
            isReached = FailingAllocation::requested() > number;
            EXPECT_EQ(code, isReached ? KVX_E_OUT_OF_MEMORY : 0);
        }
        EXPECT_TRUE(isSoundTree(*map));
        EXPECT_EQ(map->count(), isReached ? 2U : 4U);
        if (!isReached) {
            EXPECT_GE(number, 3);
            ready.release();
            break;
        }
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
}

TEST(TbMultimap, AssignLeavesABeginningWhenAnAllocationFails) {
    std::unique_ptr<TbMultimap> const source = multimapOf({{"c", 1}, {"a", 2}, {"c", 3}});
    (*source)[TbString("outside")];
    Entries const all = entriesOf(*source);
    failEachAllocation<TbMultimap>(
        [] {
            return multimapOf({{"old", 0}});
        },
        [&](TbMultimap& map) { map = *source; },
        [&](TbMultimap& map, bool hasFailed) {
            EXPECT_TRUE(isSoundTree(map));
            Entries const got = entriesOf(map);
            EXPECT_EQ(got.size() == 3, !hasFailed);
            EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin()));
            map.put(pairOf("z", 9));
            EXPECT_TRUE(isSoundTree(map));
        });
}

TEST(TbMultimap, LosesNothingWhenAnyAllocationFails) {
    EXPECT_GT(survivesEveryFailingAllocation([] {
                  TbStrPtrMultimap map;
                  map.put(TbString("a"), TbPtr(new TbString("1")));
                  map.put(TbString("a"), TbPtr(new TbString("2")));
                  map.insert(TbStrPtr(TbString("b"), TbPtr(new TbString("3"))));
                  map[TbString("outside")];
                  TbStrPtrMultimap copy(map);
                  copy.remove(TbString("a"), 0);
                  copy.remove(TbString("b"));
                  copy = map;
              }),
              60);
}

/// How the two classes are given an entry of a key and a number.
void putInto(TbMultimap& map, std::string const& key, int number) {
    map.put(pairOf(key, number));
}
void putInto(TbStrPtrMultimap& map, std::string const& key, int number) {
    map.put(stringOf(key), TbPtr(new IntItem(number)));
}

/// A multimap beside a std::multimap for its keys and a std::list for its order.
template <class Map>
class MultimapBesideModel {
public:
    explicit MultimapBesideModel(std::uint64_t seed) : m_Random(seed) {}

    void step() {
        std::string const key = randomKey(m_Random);
        bool const isFilling = (m_Steps++ / 100) % 2 == 0;
        unsigned const choice = static_cast<unsigned>(m_Random() % 100);
        if (choice < (isFilling ? 55U : 20U)) {
            putInto(*m_Map, key, ++m_Numbers);
            remember(key, m_Numbers, true);
        } else if (choice < (isFilling ? 60U : 30U)) {
            lookUp(key);
        } else if (choice < 65) {
            putVector(key);
        } else if (choice < 85) {
            removeAt(key, static_cast<long>(m_Random() % 5) - 1);
        } else if (choice < 93) {
            removeAll(key);
        } else if (choice < 98) {
            EXPECT_EQ(m_Map->find(stringOf(key)) != nullptr, m_Model.count(key) != 0);
        } else if (choice == 98) {
            copyOver();
        } else if (m_Random() % 8 == 0) {
            m_Map->clear();
            m_Model.clear();
            m_Order.clear();
        }
    }

    void check() {
        ASSERT_TRUE(isSoundTree(*m_Map));
        ASSERT_EQ(m_Map->count(), m_Model.size());
        std::size_t keys = 0;
        for (auto key = m_Model.begin(); key != m_Model.end(); key = m_Model.upper_bound(key->first), ++keys) {
            auto const* const entries = static_cast<TbFindableVector const*>(m_Map->find(stringOf(key->first)));
            ASSERT_NE(entries, nullptr);
            ASSERT_EQ(entries->count(), m_Model.count(key->first));
            auto element = key;
            for (std::uint32_t i = 0; i < entries->count(); ++i, ++element) {
                if (element->second.m_Address == nullptr) {
                    element->second.m_Address = entries->at(i);
                }
                ASSERT_EQ(entries->at(i), element->second.m_Address) << "stored entries stay where they are";
                ASSERT_EQ(describe(*entries->at(i)), describe(*element));
            }
        }
        ASSERT_EQ(itemsInOrder(*m_Map).size(), keys) << "no key without entries";
        Entries forwards = entriesOf(*m_Map);
        ASSERT_TRUE(std::equal(forwards.begin(), forwards.end(), m_Order.begin(), m_Order.end()));
    }

private:
    struct Element {
        int m_Number;  ///< 0 for the pair that a look-up made.
        TbFindable const* m_Address;
    };
    using Model = std::multimap<std::string, Element, LengthFirst>;

    using TextOf = std::string;
    static TextOf describe(TbFindable const& entry) { return ::describe(entry); }
    static TextOf describe(typename Model::value_type const& element) {
        return element.first + "=" + (element.second.m_Number == 0 ? "" : std::to_string(element.second.m_Number));
    }

    void remember(std::string const& key, int number, bool isListed) {
        auto const element = m_Model.insert({key, {number, nullptr}});
        if (isListed) {
            m_Order.push_back(describe(*element));
        }
    }

    void forget(typename Model::iterator element) {
        m_Order.remove(describe(*element));
        m_Model.erase(element);
    }

    void lookUp(std::string const& key) {
        EXPECT_EQ((*m_Map)[stringOf(key)].count(), std::max<std::size_t>(1, m_Model.count(key)));
        if (m_Model.count(key) == 0) {
            remember(key, 0, false);
        }
    }

    void putVector(std::string const& key) {
        std::vector<std::pair<std::string, int>> entries;
        for (std::uint64_t left = m_Random() % 3 + 1; left > 0; --left) {
            entries.emplace_back(key, ++m_Numbers);
        }
        ReadyVector ready(entries);
        if (m_Model.count(key) != 0) {
            EXPECT_EQ(thrownCode([&] { m_Map->put(ready.m_Vector); }), KVX_E_DUPLICATE_KEY);
            return;
        }
        m_Map->put(ready.m_Vector);
        ready.release();
        for (auto const& entry : entries) {
            remember(key, entry.second, true);
        }
    }

    void removeAt(std::string const& key, long index) {
        bool const isThere = index >= 0 && static_cast<std::size_t>(index) < m_Model.count(key);
        EXPECT_EQ(m_Map->remove(stringOf(key), index), isThere);
        if (isThere) {
            forget(std::next(m_Model.lower_bound(key), index));
        }
    }

    void removeAll(std::string const& key) {
        EXPECT_EQ(m_Map->remove(stringOf(key)), m_Model.count(key) != 0);
        while (m_Model.count(key) != 0) {
            forget(m_Model.lower_bound(key));
        }
    }

    void copyOver() {
        std::unique_ptr<Map> copy;
        if (m_Random() % 2 == 0) {
            copy = std::make_unique<Map>(*m_Map);
        } else {
            copy = std::make_unique<Map>();
            putInto(*copy, "old", -1);
            *copy = *m_Map;
        }
        m_Map = std::move(copy);
        for (auto& element : m_Model) {
            element.second.m_Address = nullptr;
        }
    }

    std::mt19937_64 m_Random;
    unsigned m_Steps = 0;
    int m_Numbers = 0;
    std::unique_ptr<Map> m_Map = std::make_unique<Map>();
    Model m_Model;
    std::list<std::string> m_Order;
};

template <class Map>
class MultimapsInRandomUse : public testing::Test {};

using MultimapClasses = testing::Types<TbMultimap, TbStrPtrMultimap>;
TYPED_TEST_SUITE(MultimapsInRandomUse, MultimapClasses, NamedByClass);

TYPED_TEST(MultimapsInRandomUse, BehaveLikeAMultimapThatRemembersItsOrder) {
    for (std::uint64_t round = 0; round < 2; ++round) {
        MultimapBesideModel<TypeParam> both(testSeed() + round);
        for (int step = 0; step < 4000; ++step) {
            SCOPED_TRACE(testing::Message() << "seed " << testSeed() << ", round " << round << ", step " << step);
            both.step();
            both.check();
            if (this->HasFailure()) {
                return;
            }
        }
    }
}

}  // namespace
