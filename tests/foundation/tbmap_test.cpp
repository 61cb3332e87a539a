// Maps: order of insertion, look-ups that add, string keys, pairs, map items and their list.
//
// Every change is followed by a check of the tree and of the list in both directions. Random operations run beside
// std::map. Odd: looking a missing key up stores an empty value; string keys sort by length first.

#include "foundation/tbmap.h"

#include <gtest/gtest.h>

#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/foundation/foundationsupport.h"
#include "tests/support/freedmemory.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

TbKeyValue pairOf(std::string const& key, std::string const& value) {
    return {stringOf(key), stringOf(value)};
}

std::string keyOf(TbMapItem const& entry) {
    return bytesOf(*static_cast<TbString*>(static_cast<TbKeyValue*>(entry.item())->key()));
}

std::string valueOf(TbMapItem const& entry) {
    return bytesOf(*static_cast<TbString*>(static_cast<TbKeyValue*>(entry.item())->value()));
}

/// "key=value" of all entries in insertion order; fails the test when the list differs walked backwards.
std::vector<std::string> entriesOf(TbMap& map) {
    std::vector<std::string> entries;
    TbMapItem const* last = nullptr;
    for (TbMapItem const* entry = map.begin(); entry != map.end(); entry = entry->next()) {
        EXPECT_EQ(entry->previous(), last);
        entries.push_back(keyOf(*entry) + "=" + valueOf(*entry));
        last = entry;
    }
    EXPECT_EQ(entries.size(), map.count());
    EXPECT_EQ(map.first(), map.begin());
    return entries;
}

using Entries = std::vector<std::string>;

/// An element that is no string, less than everything.
class LeastItem : public TbFindable {
public:
    LeastItem() = default;
    LeastItem(LeastItem const&) = default;
    using TbFindable::operator=;
    LeastItem& operator=(LeastItem const&) = delete;
    TbAllocator getAllocator() const override { return &allocate; }
    bool operator<(TbFindable const&) const override { return true; }
    static void allocate(TbObject** slot) { tbAllocateInto<LeastItem>(slot); }
};

std::unique_ptr<TbStrMap> strMapOf(Entries const& keys) {
    auto map = std::make_unique<TbStrMap>();
    for (std::string const& key : keys) {
        (*map)[stringOf(key)] = stringOf("v" + key);
    }
    return map;
}

TEST(TbMap, KeepsTheOrderOfInsertion) {
    TbMap map;
    for (char const* key : {"c", "a", "b"}) {
        map.put(pairOf(key, "1"));
    }
    EXPECT_EQ(entriesOf(map), (Entries{"c=1", "a=1", "b=1"}));
    for (char const* key : {"a", "b", "c"}) {
        auto const* const found = static_cast<TbMapItem const*>(map.find(TbString(key)));
        ASSERT_NE(found, nullptr);
        EXPECT_TRUE(found->isInstanceOf("TbMapItem"));
        EXPECT_EQ(keyOf(*found), key);
    }
    EXPECT_EQ(map.find(TbString("d")), nullptr);
    EXPECT_EQ(map.end(), nullptr);
}

TEST(TbMap, IsEmptyAtFirst) {
    TbMap map;
    EXPECT_EQ(map.begin(), map.end());
    EXPECT_EQ(map.count(), 0U);
    EXPECT_FALSE(map.remove(TbString("a")));
}

TEST(TbMap, ReturnsTheMapItemFromPutAndTheItemFromLookUp) {
    TbMap map;
    auto* const stored = static_cast<TbMapItem*>(map.put(IntItem(4)));
    ASSERT_TRUE(stored->isInstanceOf("TbMapItem"));
    EXPECT_EQ(numberOf(stored->item()), 4);
    EXPECT_EQ(map.find(IntItem(4)), stored);
    EXPECT_EQ(&map[IntItem(4)], stored->item());
    EXPECT_EQ(map.count(), 1U);
}

TEST(TbMap, StoresWhatALookUpMisses) {
    TbMap map;
    TbFindable& created = map[IntItem(9)];
    EXPECT_EQ(numberOf(&created), 9);
    EXPECT_EQ(map.count(), 1U);
    EXPECT_EQ(&map[IntItem(9)], &created);
    EXPECT_EQ(map.begin()->item(), &created);
    map.insert(IntItem(3));
    EXPECT_EQ(numberOf(map.begin()->next()->item()), 3);
}

TEST(TbMap, RefusesASecondEntryOfTheSameKey) {
    TbMap map;
    map.put(pairOf("a", "1"));
    map.put(pairOf("b", "2"));
    std::int32_t const living = TbRefCounter::m_nTotalRef;
    EXPECT_EQ(thrownCode([&] { map.put(pairOf("a", "3")); }), KVX_E_DUPLICATE_KEY);
    EXPECT_EQ(thrownCode([&] { map.insert(pairOf("b", "3")); }), KVX_E_DUPLICATE_KEY);
    EXPECT_EQ(thrownCode([&] { map.put(*map.begin()->item()); }), KVX_E_DUPLICATE_KEY);
    EXPECT_EQ(entriesOf(map), (Entries{"a=1", "b=2"}));
    EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    EXPECT_TRUE(isSoundTree(map));
}

TEST(TbMap, UnlinksWhatItRemoves) {
    for (std::string const removed : {"a", "b", "c"}) {
        TbMap map;
        Entries expected;
        for (std::string const key : {"a", "b", "c"}) {
            map.put(pairOf(key, "1"));
            if (key != removed) {
                expected.push_back(key + "=1");
            }
        }
        EXPECT_TRUE(map.remove(stringOf(removed)));
        EXPECT_EQ(entriesOf(map), expected);
        EXPECT_FALSE(map.remove(stringOf(removed)));
        map.put(pairOf(removed, "2"));
        expected.push_back(removed + "=2");
        EXPECT_EQ(entriesOf(map), expected) << "put again, it comes last";
    }
}

TEST(TbMap, RemovesByAProbeThatItOwns) {
    TbMap map;
    for (int number = 0; number < 20; ++number) {
        map.put(IntItem(number));
    }
    while (map.begin() != map.end()) {
        ASSERT_TRUE(map.remove(*map.begin()));
        ASSERT_TRUE(isSoundTree(map));
    }
    EXPECT_EQ(map.count(), 0U);
}

TEST(TbMap, IsEmptiedThroughEveryClear) {
    for (int way = 0; way < 3; ++way) {
        std::unique_ptr<TbStrMap> const map = strMapOf({"a", "b", "c"});
        if (way == 0) {
            map->clear();
        } else if (way == 1) {
            static_cast<TbContainer&>(*map).clear();
        } else {
            static_cast<TbRBTree&>(*map).clear();
        }
        EXPECT_EQ(map->begin(), nullptr);
        EXPECT_EQ(map->count(), 0U);
        EXPECT_EQ(map->find(TbString("a")), nullptr);
        (*map)[TbString("z")] = TbString("1");
        EXPECT_EQ(entriesOf(*map), (Entries{"z=1"}));
    }
}

TEST(TbMap, IsCopiedDeeplyInTheOrderOfInsertion) {
    std::unique_ptr<TbStrMap> const source = strMapOf({"c", "a", "b"});
    TbStrMap copy(*source);
    TbStrMap assigned;
    assigned[TbString("old")] = TbString("x");
    assigned = *source;
    TbMap plain;
    static_cast<TbObject&>(plain) = *source;
    (*source)[TbString("a")] = TbString("changed");
    source->remove(TbString("b"));
    for (TbMap* map : {static_cast<TbMap*>(&copy), static_cast<TbMap*>(&assigned), &plain}) {
        EXPECT_EQ(entriesOf(*map), (Entries{"c=vc", "a=va", "b=vb"}));
        EXPECT_TRUE(isSoundTree(*map));
    }
    EXPECT_TRUE(copy.isInstanceOf("TbStrMap"));
    TbStrMap const& same = copy;
    copy = same;
    EXPECT_EQ(copy.count(), 3U) << "itself: no change";
}

TEST(TbMap, WorksThroughAReferenceToTheTree) {
    TbMap map;
    TbRBTree& tree = map;
    TbFindable* const stored = tree.put(IntItem(1));
    EXPECT_TRUE(stored->isInstanceOf("TbMapItem"));
    tree.put(IntItem(2));
    EXPECT_EQ(map.begin(), stored);
    EXPECT_TRUE(tree.remove(IntItem(1)));
    EXPECT_EQ(numberOf(map.begin()->item()), 2);
    EXPECT_EQ(map.begin()->previous(), nullptr);
}

TEST(TbStrMap, GivesAnEmptyValueForAMissingKeyAndAddsIt) {
    TbStrMap map;
    TbString& value = map[TbString("k")];
    EXPECT_EQ(value.length(), 0U);
    EXPECT_NE(value.buffer(), nullptr);
    EXPECT_EQ(map.count(), 1U);
    EXPECT_EQ(&map[TbString("k")], &value);
    value = TbString("set");
    EXPECT_TRUE(map[TbString("k")] == "set");
    EXPECT_EQ(map.count(), 1U);
}

TEST(TbStrMap, DoesNotCreateByFind) {
    TbStrMap map;
    EXPECT_EQ(map.find(TbString("k")), nullptr);
    EXPECT_EQ(map.count(), 0U);
}

TEST(TbStrMap, TakesEmptyKeysAndKeysWithoutABufferForTheSame) {
    TbStrMap map;
    map[TbString("")] = TbString("v");
    EXPECT_TRUE(map[TbString()] == "v");
    EXPECT_EQ(map.count(), 1U);
}

TEST(TbStrMap, SortsLengthFirstButIteratesInTheOrderOfInsertion) {
    std::unique_ptr<TbStrMap> const map = strMapOf({"ccc", "b", "aa"});
    Entries sorted;
    for (TbFindable const* item : itemsInOrder(*map)) {
        sorted.push_back(keyOf(*static_cast<TbMapItem const*>(item)));
    }
    EXPECT_EQ(sorted, (Entries{"b", "aa", "ccc"}));
    EXPECT_EQ(entriesOf(*map), (Entries{"ccc=vccc", "b=vb", "aa=vaa"}));
}

TEST(TbStrMap, KeepsItsReferencesGoodWhileItGrowsAndShrinks) {
    TbStrMap map;
    TbString& value = map[TbString("stays")];
    value = TbString("here");
    for (int i = 0; i < 200; ++i) {
        map[stringOf(std::to_string(i))] = map[TbString("stays")];
    }
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(map.remove(stringOf(std::to_string(i))));
        ASSERT_EQ(&map[TbString("stays")], &value);
    }
    EXPECT_TRUE(value == "here");
}

TEST(TbStrMap, KeepsStoringABareStringThroughAReferenceToTbMap) {
    // Through the base the other operator is found, which stores the key as an element of its own. What then asks for
    // a value gets a pair in its place.
    TbStrMap map;
    map[TbString("x")] = TbString("1");
    TbMap& base = map;
    TbFindable& element = base[TbString("k")];
    EXPECT_TRUE(element.isInstanceOf("TbString"));
    EXPECT_EQ(map.count(), 2U);
    map[TbString("y")] = TbString("2");
    EXPECT_TRUE(isSoundTree(map));
    TbString& value = map[TbString("k")];
    EXPECT_EQ(value.length(), 0U);
    EXPECT_EQ(entriesOf(map), (Entries{"x=1", "y=2", "k="}));
    EXPECT_TRUE(isSoundTree(map));
}

TEST(TbStrMap, GivesAnEmptyValueInPlaceOfOneThatIsNoString) {
    TbStrMap map;
    map.put(TbKeyValue(TbString("k"), IntItem(1)));
    EXPECT_EQ(map[TbString("k")].length(), 0U);
    EXPECT_EQ(entriesOf(map), (Entries{"k="}));
}

/// A pair of a class that a user of the library might derive.
class NamedPair : public TbKeyValue {
public:
    using TbKeyValue::TbKeyValue;
    using TbKeyValue::operator=;
    NamedPair() = default;

    TbAllocator getAllocator() const override { return &NamedPair::allocate; }
    bool isInstanceOf(char const* className) const override {
        return tbIsName(className, "NamedPair") || TbKeyValue::isInstanceOf(className);
    }

    static void allocate(TbObject** slot) { tbAllocateInto<NamedPair>(slot); }
};

/// A string of another class.
class Label : public TbString {
public:
    Label() = default;
    explicit Label(char const* text) : TbString(text) {}
    using TbString::operator=;
    TbAllocator getAllocator() const override { return &allocate; }
    static void allocate(TbObject** slot) { tbAllocateInto<Label>(slot); }
};

TEST(TbStrMap, TakesAStringOfADerivedClassForAKey) {
    TbStrMap map;
    map["a"] = "1";
    EXPECT_EQ(bytesOf(map[Label("a")]), "1");
    map[Label("b")] = "2";
    EXPECT_EQ(bytesOf(map["b"]), "2");
    EXPECT_EQ(map.count(), 2U);
}

TEST(TbStrMap, TakesAPairOfADerivedClassForAPair) {
    TbStrMap map;
    map.put(NamedPair(TbString("k"), TbString("v")));
    map[TbString("other")] = TbString("1");
    EXPECT_TRUE(map[TbString("k")] == "v");
    EXPECT_TRUE(map.begin()->item()->isInstanceOf("NamedPair")) << "and keeps it";
    EXPECT_EQ(entriesOf(map), (Entries{"k=v", "other=1"}));
    EXPECT_EQ(thrownCode([&] { map.put(pairOf("k", "2")); }), KVX_E_DUPLICATE_KEY);
    EXPECT_TRUE(map.remove(TbString("k")));
    EXPECT_TRUE(isSoundTree(map));
}

TEST(TbStrMap, LetsValuesAndKeysBeReplacedAndAppendedTo) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        TbStrMap map;
        map["key"].append("a").append("b");
        EXPECT_EQ(bytesOf(map["key"]), "ab");
        EXPECT_EQ(map["key"].capacity(), 65U);
        map["key"] = stringOf(std::string(500, 'x'));
        map["other"] = map["key"];
        auto* const entry = static_cast<TbMapItem*>(map.find(TbString("key")));
        auto& pair = static_cast<TbKeyValue&>(*entry->item());
        auto& key = static_cast<TbString&>(*pair.key());
        EXPECT_EQ(key.capacity(), 3U + 65U);
        key.append("");
        key[0] = 'k';
        key.assign(key.buffer());
        key.append(key.buffer() + 3);
        EXPECT_EQ(bytesOf(key), "key");
        EXPECT_EQ(bytesOf(TbString(key).append(key)), "keykey");
        pair.assign(TbKeyValue(TbString("key"), TbString("new")));
        EXPECT_EQ(entriesOf(map), (Entries{"key=new", "other=" + std::string(500, 'x')}));
        EXPECT_TRUE(map.remove(TbString("key")));
        EXPECT_EQ(map.find(TbString("key")), nullptr);
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbStrMap, CountsAPairFromTheBeginningAndMakesItOnce) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        TbStrMap map;
        TbString const key("key");
        map[key] = "value";
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        EXPECT_EQ(living, start + 2 + 2 + 5) << "map and key, sentinel, node with map item, pair, key and value";
        TbString& value = map[key];
        TbMapItem& entry = *map.begin();
        auto const& pair = static_cast<TbKeyValue&>(*entry.item());
        EXPECT_EQ(entry.item(), &pair);
        EXPECT_TRUE(pair.isInstanceOf("TbKeyValue"));
        EXPECT_EQ(bytesOf(static_cast<TbString&>(*pair.key())), "key");
        EXPECT_EQ(pair.value(), &value) << "the same as before";
        EXPECT_EQ(&map[key], &value);
        EXPECT_EQ(map.find(key), &entry);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
        map["other"];
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living + 5);
        map.remove(key);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
        ASSERT_NE(map.begin()->item(), nullptr);
        *map.begin() = TbMapItem(new IntItem(1));
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living - 2) << "no pair, key and value, but a number";
        map.clear();
        map[key];
        *map.begin() = TbMapItem(new IntItem(1));
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living - 2) << "the same without a look at the pair";
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbStrMap, ReportsMissingMemoryForAPairAndStaysAsItIs) {
    long const failures = failEachAllocation<TbStrMap>(
        [] {
            return strMapOf({"c", "a", "b"});
        },
        [](TbStrMap& map) { EXPECT_EQ(keyOf(*map.begin()->next()), "a"); },
        [](TbStrMap& map, bool) {
            EXPECT_EQ(entriesOf(map), (Entries{"c=vc", "a=va", "b=vb"}));
            EXPECT_TRUE(isSoundTree(map));
        });
    EXPECT_EQ(failures, 2);
}

TEST(TbStrMap, HoldsValuesOfEveryLength) {
    // Short ones lie in the entry, longer ones in memory of their own.
    TbStrMap map;
    TbString const key("key");
    map["key"];
    for (std::size_t length = 0; length < 100; ++length) {
        for (std::size_t const next : {length, 99 - length}) {
            std::string const text(next, static_cast<char>('a' + length % 26));
            map[key] = stringOf(text);
            EXPECT_EQ(bytesOf(map[key]), text);
            EXPECT_EQ(map[key].capacity(), next + 65);
            EXPECT_EQ(bytesOf(map[key].append("xy")), text + "xy");
            EXPECT_EQ(map[key].capacity(), next + 65);
            EXPECT_EQ(bytesOf(TbStrMap(map)[key]), text + "xy");
            map[key] = stringOf(text);
            map[key].assign(map[key].c_str() + next / 2);
            EXPECT_EQ(bytesOf(map[key]), text.substr(next / 2));
        }
    }
    EXPECT_EQ(bytesOf(static_cast<TbString&>(*static_cast<TbKeyValue&>(*map.begin()->item()).key())), "key");
}

TEST(TbStrMap, HoldsKeysOfEveryLength) {
    // The order has a number for the length and the first bytes of keys up to 65534 bytes.
    std::vector<std::size_t> lengths = {65533, 65534, 65535, 65536, 70000, 131072};
    for (std::size_t length = 0; length < 70; ++length) {
        lengths.push_back(length);
    }
    TbStrMap map;
    std::set<std::string, LengthFirst> model;
    for (std::size_t const length : lengths) {
        for (char const* const change : {"", "\x7F", "\xFF", "b"}) {
            for (std::size_t const at : {std::size_t{0}, std::size_t{5}, std::size_t{6}, std::size_t{7}, length - 1}) {
                std::string key(length, '\x7F');
                if (at < length && *change != '\0') {
                    key[at] = *change;
                }
                map[stringOf(key)] = "v";
                model.insert(key);
            }
        }
    }
    ASSERT_EQ(map.count(), model.size());
    EXPECT_TRUE(isSoundTree(TbStrMap(map)));
    Entries sorted;
    for (TbFindable const* item : itemsInOrder(map)) {
        sorted.push_back(keyOf(*static_cast<TbMapItem const*>(item)));
    }
    EXPECT_TRUE(std::equal(sorted.begin(), sorted.end(), model.begin(), model.end()));
    for (std::string const& key : model) {
        ASSERT_NE(map.find(stringOf(key)), nullptr) << key.size();
        ASSERT_TRUE(map.remove(stringOf(key))) << key.size();
    }
    EXPECT_EQ(map.count(), 0U);
}

TEST(TbStrMap, ComparesEntriesBeforeTheirPairsAreMade) {
    std::unique_ptr<TbStrMap> const map = strMapOf({"b", "aa"});
    TbMapItem const& entry = *map->begin();
    for (int made = 0; made < 2; ++made) {
        EXPECT_TRUE(entry == TbString("b"));
        EXPECT_FALSE(entry == TbString("c"));
        EXPECT_TRUE(entry < TbString("c"));
        EXPECT_FALSE(entry < TbString("a"));
        EXPECT_TRUE(entry == pairOf("b", "1"));
        EXPECT_TRUE(entry == TbMapItem(entry));
        EXPECT_TRUE(entry < TbMapItem(*entry.next()));
        for (bool const answer : {entry == IntItem(1), entry < IntItem(1), entry == TbMapItem(), entry < TbMapItem()}) {
            EXPECT_FALSE(answer);
        }
        EXPECT_EQ(keyOf(entry), "b");
    }
}

TEST(TbStrMap, IsCopiedBeforeAndAfterItsPairsAreMade) {
    std::unique_ptr<TbStrMap> const map = strMapOf({"c", "a"});
    std::string const longKey(70, 'k');
    (*map)[stringOf(longKey)] = "long";
    Entries const expected = {"c=vc", "a=va", longKey + "=long"};
    TbStrMap early(*map);
    TbMapItem const entry(*map->begin());
    EXPECT_EQ(keyOf(entry) + "=" + valueOf(entry), "c=vc");
    TbTreeNode node;
    node = *map->root();
    EXPECT_EQ(keyOf(*static_cast<TbMapItem const*>(node.item())), "c");
    EXPECT_EQ(entriesOf(*map), expected);
    EXPECT_EQ(entriesOf(early), expected);
    EXPECT_EQ(entriesOf(*std::make_unique<TbStrMap>(*map)), expected);
}

TEST(TbMap, HoldsPairsOfOtherThings) {
    TbMap map;
    map.put(TbKeyValue());
    map.put(TbKeyValue(TbString("number"), IntItem(1)));
    map.put(TbKeyValue(TbString(), TbString()));
    TbMapItem const* entry = map.begin();
    EXPECT_EQ(static_cast<TbKeyValue*>(entry->item())->key(), nullptr);
    entry = entry->next();
    EXPECT_EQ(numberOf(static_cast<TbKeyValue*>(entry->item())->value()), 1);
    entry = entry->next();
    EXPECT_EQ(static_cast<TbString*>(static_cast<TbKeyValue*>(entry->item())->key())->buffer(), nullptr);
    EXPECT_EQ(map.count(), 3U);
    TbMap numbers;
    numbers.put(TbKeyValue(IntItem(2), TbString("text")));
    EXPECT_EQ(numberOf(static_cast<TbKeyValue*>(numbers.begin()->item())->key()), 2);
}

TEST(TbMap, DestroysASubtreeWithItsPlacesInTheOrder) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        std::unique_ptr<TbStrMap> const map = strMapOf({"b", "a", "c"});
        std::unique_ptr<TbStack> const path(map->pathTo(TbString("c")));
        map->clear(static_cast<TbTreeNode*>(path->peek()));
        EXPECT_EQ(map->first()->next()->next(), nullptr);
        EXPECT_EQ(keyOf(*map->first()->next()), "a");
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(TbStrMap, FindsNoEntryWhoseKeyACallerHasReplaced) {
    for (char const* const name : {"key", "a longer key"}) {
        TbStrMap map;
        TbString const key(name);
        map[key] = "1";
        *static_cast<TbKeyValue*>(map.begin()->item()) = TbKeyValue();
        EXPECT_EQ(map.find(key), nullptr) << name;
        map[key] = "2";
        EXPECT_EQ(bytesOf(map[key]), "2");
        EXPECT_EQ(map.count(), 2U);
        *map.begin() = TbMapItem();
        EXPECT_EQ(bytesOf(map[key]), "2");
        TbRBTree tree;
        static_cast<TbString*>(tree.put(key))->assign("another key!");
        EXPECT_EQ(tree.find(key), nullptr) << name;
        EXPECT_FALSE(tree.remove(key)) << name;
    }
}

TEST(TbStrMap, AppendsToAKeyOrACopyOfOneAsToAnyString) {
    // The text of a short copy lies in memory that is not its own.
    for (std::size_t const length : {0U, 1U, 30U, 64U, 65U, 300U}) {
        std::string const text(length, 'k');
        TbRBTree tree;
        auto& stored = static_cast<TbString&>(*tree.put(stringOf(text)));
        EXPECT_EQ(stored.capacity(), length + 65);
        EXPECT_EQ(bytesOf(stored), text);
        stored.append('x');
        EXPECT_EQ(bytesOf(stored), text + "x");
        EXPECT_EQ(stored.capacity(), length + 65);
        stored.append(stored);
        EXPECT_EQ(bytesOf(stored), text + "x" + text + "x");
        stored.clear();
        EXPECT_EQ(stored.capacity(), 0U);
    }
}

TEST(TbStrMap, LeavesNoSecretsBehind) {
    TbString const password(kCanaryPassword);
    TbString const both = stringOf(std::string(kCanaryPassword) + kCanaryUser);
    FreedMemory const freed;
    {
        TbString secret;
        secret.keepSecret();
        secret.assign(kCanaryPassword);
        TbStrMap map;
        map[secret] = secret;
        auto& pair = static_cast<TbKeyValue&>(*map.first()->item());
        EXPECT_TRUE(static_cast<TbString*>(pair.key())->isSecret());
        TbStrMap const copy(map);
        map["short"] = secret.substring(0, 8);
        map["short"] = secret.substring(0, 9);
        ASSERT_NE(map.begin()->next()->item(), nullptr);
        map["unmade"] = secret.substring(0, 8);
        TbRBTree tree;
        auto& plain = static_cast<TbString&>(*tree.put(password));
        plain.keepSecret();
        auto& grown = static_cast<TbString&>(*tree.put(both));
        grown.keepSecret();
        grown.append("x");
    }
    EXPECT_GT(FreedMemory::searched(), 10);
    EXPECT_EQ(FreedMemory::leaks(), 0);
}

TEST(TbStrMap, FindsStringsAmongElementsOfAllKinds) {
    TbStrMap map;
    TbMap& bare = map;
    bare.put(LeastItem());
    map["first"] = "1";
    bare.put(TbString("bare"));
    bare.put(TbStrPtr(TbString("counted"), TbPtr()));
    map["second"] = "2";
    for (char const* key : {"first", "bare", "counted", "second"}) {
        EXPECT_NE(map.find(TbString(key)), nullptr) << key;
        EXPECT_EQ(thrownCode([&] { bare.put(TbString(key)); }), KVX_E_DUPLICATE_KEY) << key;
    }
    EXPECT_EQ(map.find(TbString("third")), nullptr);
    EXPECT_EQ(bytesOf(map["first"]), "1");
    EXPECT_EQ(bytesOf(map["counted"]), "");
    EXPECT_EQ(map.count(), 5U);
}

TEST(TbKeyValue, OwnsCopiesOfBoth) {
    TbString key("k");
    IntItem value(1);
    TbKeyValue const pair(key, value);
    key = TbString("x");
    value = IntItem(2);
    EXPECT_TRUE(*static_cast<TbString*>(pair.key()) == "k");
    EXPECT_EQ(numberOf(pair.value()), 1);
    TbKeyValue const copy(pair);
    EXPECT_NE(copy.key(), pair.key());
    TbKeyValue assigned(TbString("a"), TbString("b"));
    assigned = copy;
    EXPECT_EQ(numberOf(assigned.value()), 1);
    TbKeyValue const& same = assigned;
    assigned = same;
    EXPECT_EQ(numberOf(assigned.value()), 1);
    assigned = TbKeyValue();
    EXPECT_EQ(assigned.key(), nullptr);
    EXPECT_EQ(assigned.value(), nullptr);
}

TEST(TbKeyValue, TakesAPairThatItOwnsItself) {
    TbKeyValue nested(TbString("outer"), pairOf("inner", "value"));
    nested = static_cast<TbKeyValue const&>(*nested.value());
    EXPECT_TRUE(*static_cast<TbString*>(nested.key()) == "inner");
}

TEST(TbKeyValue, OrdersByKeyAndTakesABareKeyAsAProbe) {
    TbKeyValue const pair = pairOf("b", "1");
    EXPECT_TRUE(pair == pairOf("b", "2"));
    EXPECT_TRUE(pair < pairOf("aa", "1"));
    EXPECT_FALSE(pair < pairOf("a", "1"));
    EXPECT_TRUE(pair == TbString("b"));
    EXPECT_TRUE(pair < TbString("c"));
    EXPECT_TRUE(pair == TbMapItem(new TbKeyValue(pair)));
    EXPECT_FALSE(pair == IntItem(1)) << "not comparable";
    EXPECT_FALSE(pair < IntItem(1));
    EXPECT_FALSE(TbKeyValue() == pair);
    EXPECT_FALSE(TbKeyValue() < pair);
    EXPECT_FALSE(pair == TbKeyValue());
}

TEST(TbMapItem, OrdersByItsItem) {
    TbMapItem const one(new IntItem(1));
    TbMapItem const two(new IntItem(2));
    TbMapItem const empty;
    EXPECT_TRUE(one < two);
    EXPECT_FALSE(two < one);
    EXPECT_TRUE(one == TbMapItem(new IntItem(1)));
    EXPECT_TRUE(one == IntItem(1)) << "with no map item, the item is compared directly";
    EXPECT_TRUE(one < IntItem(2));
    for (bool const answer : {one < empty, empty < one, empty == empty, one == empty, empty == IntItem(1)}) {
        EXPECT_FALSE(answer);
    }
}

TEST(TbMapItem, NeverTakesAnythingElseForAString) {
    TbMapItem const text(new TbString("a"));
    EXPECT_TRUE(text == TbString("a"));
    EXPECT_TRUE(text == pairOf("a", "1"));
    EXPECT_TRUE(text < pairOf("b", "1"));
    EXPECT_TRUE(text == TbMapItem(new TbKeyValue(pairOf("a", "1"))));
    EXPECT_FALSE(text == IntItem(1));
    EXPECT_FALSE(text < IntItem(1));
    EXPECT_FALSE(text == TbMapItem(new IntItem(1)));
}

TEST(TbMapItem, CopiesItsItemAndStaysInItsList) {
    TbMap map;
    map.put(IntItem(1));
    map.put(IntItem(2));
    TbMapItem copy(*map.begin());
    EXPECT_EQ(copy.next(), nullptr);
    EXPECT_EQ(numberOf(copy.item()), 1);
    *map.begin() = TbMapItem(new IntItem(0));
    EXPECT_EQ(numberOf(map.begin()->item()), 0);
    EXPECT_EQ(numberOf(map.begin()->next()->item()), 2);
    TbMapItem const& same = copy;
    copy = same;
    EXPECT_EQ(numberOf(copy.item()), 1);
    copy = TbMapItem();
    EXPECT_EQ(copy.item(), nullptr);
}

TEST(TbMap, PutLeavesNoTraceWhenAnAllocationFails) {
    Entries const before = {"c=vc", "a=va", "b=vb"};
    struct {
        char const* m_Name;
        std::function<void(TbStrMap&)> m_Act;
        long m_Failures;
    } const rows[] = {
        {"put", [](TbStrMap& map) { map.put(pairOf("new", "")); }, 8},
        {"insert", [](TbStrMap& map) { map.insert(pairOf("new", "")); }, 8},
        {"operator[]", [](TbStrMap& map) { map[TbString("new")]; }, 4},  // key, entry
        {"operator[] of the base", [](TbStrMap& map) { static_cast<TbMap&>(map)[pairOf("new", "")]; }, 8},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.m_Name);
        long const failures = failEachAllocation<TbStrMap>(
            [] {
                return strMapOf({"c", "a", "b"});
            },
            row.m_Act,
            [&](TbStrMap& map, bool hasFailed) {
                EXPECT_TRUE(isSoundTree(map));
                Entries expected = before;
                if (!hasFailed) {
                    expected.emplace_back("new=");
                }
                EXPECT_EQ(entriesOf(map), expected);
                map[TbString("z")] = TbString("1");
                EXPECT_TRUE(isSoundTree(map));
            });
        EXPECT_GE(failures, row.m_Failures);
    }
}

TEST(TbMap, RemoveLeavesNoTraceWhenAnAllocationFails) {
    long const failures = failEachAllocation<TbStrMap>(
        [] {
            return strMapOf({"c", "a", "b"});
        },
        [](TbStrMap& map) { map.remove(TbString("a")); },  // the probe alone needs memory
        [](TbStrMap& map, bool hasFailed) {
            EXPECT_TRUE(isSoundTree(map));
            EXPECT_EQ(entriesOf(map), hasFailed ? (Entries{"c=vc", "a=va", "b=vb"}) : (Entries{"c=vc", "b=vb"}));
        });
    EXPECT_EQ(failures, 2);
}

TEST(TbMap, AssignLeavesABeginningWhenAnAllocationFails) {
    std::unique_ptr<TbStrMap> const source = strMapOf({"c", "a", "b"});
    Entries const all = entriesOf(*source);
    failEachAllocation<TbStrMap>([] { return strMapOf({"old"}); }, [&](TbStrMap& map) { map = *source; },
                                 [&](TbStrMap& map, bool hasFailed) {
                                     EXPECT_TRUE(isSoundTree(map));
                                     Entries const got = entriesOf(map);
                                     EXPECT_EQ(got.size() == 3, !hasFailed);
                                     EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin()));
                                     map[TbString("z")] = TbString("1");
                                     EXPECT_TRUE(isSoundTree(map));
                                 });
}

TEST(TbMap, LosesNothingWhenAnyAllocationFails) {
    EXPECT_GT(survivesEveryFailingAllocation([] {
                  TbStrMap map;
                  map[TbString("a")] = TbString("1");
                  map[TbString("b")] = map[TbString("a")];
                  static_cast<TbMap&>(map)[TbString("bare")];
                  map[TbString("bare")] = TbString("2");
                  TbStrMap copy(map);
                  copy.remove(TbString("a"));
                  copy = map;
                  TbKeyValue const pair(*map.begin()->item(), TbString("x"));
                  TbMapItem const entry(*map.begin());
              }),
              30);
}

/// A map of strings beside a std::map for its keys and a std::list for its order.
template <class Map>
class MapBesideModel {
public:
    explicit MapBesideModel(std::uint64_t seed) : m_Random(seed) {}

    void step() {
        std::string const key = randomKey(m_Random);
        std::string const value = std::to_string(m_Random() % 1000);
        bool const isFilling = (m_Steps++ / 300) % 2 == 0;
        unsigned const choice = static_cast<unsigned>(m_Random() % 100);
        if (choice < (isFilling ? 30U : 10U)) {
            put(key, value);
        } else if (choice < (isFilling ? 55U : 25U)) {
            lookUp(key, value);
        } else if (choice < 90) {
            remove(key);
        } else if (choice < 98) {
            EXPECT_EQ(m_Map->find(stringOf(key)), m_Model.count(key) != 0 ? m_Model[key].m_Entry : nullptr);
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
        auto inTree = itemsInOrder(*m_Map);
        std::size_t place = 0;
        for (auto const& [key, element] : m_Model) {
            ASSERT_EQ(inTree[place++], element.m_Entry) << "stored elements stay where they are";
        }
        TbMapItem const* last = nullptr;
        auto expected = m_Order.begin();
        for (TbMapItem const* entry = m_Map->begin(); entry != m_Map->end(); entry = entry->next(), ++expected) {
            ASSERT_NE(expected, m_Order.end());
            ASSERT_EQ(keyOf(*entry), *expected);
            ASSERT_EQ(valueOf(*entry), m_Model[*expected].m_Value);
            ASSERT_EQ(entry->previous(), last);
            last = entry;
        }
        ASSERT_EQ(expected, m_Order.end());
        for (auto backwards = m_Order.rbegin(); backwards != m_Order.rend(); ++backwards) {
            ASSERT_EQ(keyOf(*last), *backwards);
            last = last->previous();
        }
        ASSERT_EQ(last, nullptr);
    }

private:
    struct Element {
        TbFindable const* m_Entry = nullptr;
        std::string m_Value;
    };

    void put(std::string const& key, std::string const& value) {
        if (m_Model.count(key) != 0) {
            EXPECT_EQ(thrownCode([&] { m_Map->put(pairOf(key, value)); }), KVX_E_DUPLICATE_KEY);
            return;
        }
        m_Model[key] = {m_Map->put(pairOf(key, value)), value};
        m_Order.push_back(key);
    }

    void lookUp(std::string const& key, std::string const& value);

    void remove(std::string const& key) {
        EXPECT_EQ(m_Map->remove(stringOf(key)), m_Model.erase(key) == 1);
        m_Order.remove(key);
    }

    void copyOver() {
        std::unique_ptr<Map> copy;
        if (m_Random() % 2 == 0) {
            copy = std::make_unique<Map>(*m_Map);
        } else {
            copy = std::make_unique<Map>();
            copy->put(pairOf("old", "x"));
            *copy = *m_Map;
        }
        m_Map = std::move(copy);
        for (auto& [key, element] : m_Model) {
            TbFindable const* const moved = m_Map->find(stringOf(key));
            EXPECT_NE(moved, element.m_Entry);
            element.m_Entry = moved;
        }
    }

    std::mt19937_64 m_Random;
    unsigned m_Steps = 0;
    std::unique_ptr<Map> m_Map = std::make_unique<Map>();
    std::map<std::string, Element, LengthFirst> m_Model;
    std::list<std::string> m_Order;
};

template <>
void MapBesideModel<TbMap>::lookUp(std::string const& key, std::string const& value) {
    TbFindable const& found = (*m_Map)[pairOf(key, value)];
    if (m_Model.count(key) == 0) {
        m_Model[key] = {m_Map->find(stringOf(key)), value};
        m_Order.push_back(key);
    }
    EXPECT_EQ(&found, static_cast<TbMapItem const*>(m_Model[key].m_Entry)->item());
}

template <>
void MapBesideModel<TbStrMap>::lookUp(std::string const& key, std::string const& value) {
    TbString& found = (*m_Map)[stringOf(key)];
    if (m_Model.count(key) == 0) {
        EXPECT_EQ(found.length(), 0U);
        m_Model[key].m_Entry = m_Map->find(stringOf(key));
        m_Order.push_back(key);
    }
    EXPECT_EQ(bytesOf(found), m_Model[key].m_Value);
    found = stringOf(value);
    m_Model[key].m_Value = value;
}

template <class Map>
class MapsInRandomUse : public testing::Test {};

using MapClasses = testing::Types<TbMap, TbStrMap>;
TYPED_TEST_SUITE(MapsInRandomUse, MapClasses, NamedByClass);

TYPED_TEST(MapsInRandomUse, BehaveLikeAMapThatRemembersItsOrder) {
    for (std::uint64_t round = 0; round < 2; ++round) {
        MapBesideModel<TypeParam> both(testSeed() + round);
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
