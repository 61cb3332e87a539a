// Fills and searches maps and trees.
//
// Contestants: std::map, the sorted map a programmer takes; std::map with a std::list, which keeps the order of
// insertion as TbStrMap does; tsl::robin_map, a flat hash map, which keeps no order; for TbRBTree std::set. REFERENCE

#include <benchmark/benchmark.h>

#include <tsl/robin_map.h>
#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_support.h"
#include "foundation/tbmap.h"
#include "foundation/tbrbtree.h"

namespace {

using kvxbench::require;

/// Random keys, in the string types of both sides.
struct Keys {
    std::vector<std::string> m_Plain;
    std::vector<TbString> m_Ours;
};

std::shared_ptr<Keys const> makeKeys(std::size_t count) {
    auto keys = std::make_shared<Keys>();
    std::mt19937_64 random(count);
    for (std::size_t i = 0; i < count; ++i) {
        // The index makes each key unique.
        keys->m_Plain.push_back(std::to_string(random() % 1000000) + "-" + std::to_string(i));
    }
    for (std::string const& key : keys->m_Plain) {
        keys->m_Ours.emplace_back(key.c_str());
    }
    return keys;
}

using PlainMap = std::map<std::string, std::string>;
using FlatMap = tsl::robin_map<std::string, std::string>;

/// A map that keeps the order of insertion, with standard containers.
class OrderedMap {
public:
    void insert_or_assign(std::string const& key, std::string const& value) {
        auto const [entry, isNew] = m_Values.insert_or_assign(key, value);
        if (isNew) {
            m_Order.push_back(&entry->first);
        }
    }

private:
    PlainMap m_Values;
    std::list<std::string const*> m_Order;
};

std::unique_ptr<TbStrMap> filledMap(Keys const& keys) {
    auto map = std::make_unique<TbStrMap>();
    TbString const value("some value");
    for (TbString const& key : keys.m_Ours) {
        (*map)[key] = value;
    }
    return map;
}

template <class Map>
std::unique_ptr<Map> filled(Keys const& keys) {
    auto map = std::make_unique<Map>();
    std::string const value("some value");
    for (std::string const& key : keys.m_Plain) {
        map->insert_or_assign(key, value);
    }
    return map;
}

std::unique_ptr<TbRBTree> filledTree(Keys const& keys) {
    auto tree = std::make_unique<TbRBTree>();
    for (TbString const& key : keys.m_Ours) {
        tree->put(key);
    }
    return tree;
}

template <class Container>
std::size_t countFound(Container const& container, std::vector<TbString> const& texts) {
    return static_cast<std::size_t>(
        std::count_if(texts.begin(), texts.end(), [&](auto const& text) { return container.find(text) != nullptr; }));
}

template <class Container>
std::size_t countFound(Container const& container, std::vector<std::string> const& texts) {
    return static_cast<std::size_t>(std::count_if(
        texts.begin(), texts.end(), [&](auto const& text) { return container.find(text) != container.end(); }));
}

/// The goals of a size.
struct Goals {
    double m_Insert;
    double m_Find;
};

void addMaps(std::string const& size, std::shared_ptr<Keys const> const& keys, Goals const& goals) {
    kvxbench::addContest(
        "map insert " + size, [keys] { benchmark::DoNotOptimize(filledMap(*keys)); },
        {{"std::map", [keys] { benchmark::DoNotOptimize(filled<PlainMap>(*keys)); }, goals.m_Insert},
         {"std::map and std::list", [keys] { benchmark::DoNotOptimize(filled<OrderedMap>(*keys)); }, goals.m_Insert},
         {"flat hash map", [keys] { benchmark::DoNotOptimize(filled<FlatMap>(*keys)); }}});
    std::shared_ptr<TbStrMap const> const map = filledMap(*keys);
    std::shared_ptr<PlainMap const> const plain = filled<PlainMap>(*keys);
    std::shared_ptr<FlatMap const> const flat = filled<FlatMap>(*keys);
    std::size_t const count = keys->m_Ours.size();
    require(countFound(*map, keys->m_Ours) == count && countFound(*plain, keys->m_Plain) == count &&
                countFound(*flat, keys->m_Plain) == count,
            "a key is missing");
    kvxbench::addContest(
        "map find " + size, [keys, map] { benchmark::DoNotOptimize(countFound(*map, keys->m_Ours)); },
        {{"std::map", [keys, plain] { benchmark::DoNotOptimize(countFound(*plain, keys->m_Plain)); }, goals.m_Find},
         {"flat hash map", [keys, flat] { benchmark::DoNotOptimize(countFound(*flat, keys->m_Plain)); }}});
}

void addTrees(std::string const& size, std::shared_ptr<Keys const> const& keys) {
    using Set = std::set<std::string>;
    kvxbench::addContest(
        "tree insert " + size, [keys] { benchmark::DoNotOptimize(filledTree(*keys)); },
        {{"std::set", [keys] { benchmark::DoNotOptimize(Set(keys->m_Plain.begin(), keys->m_Plain.end())); }}});
    std::shared_ptr<TbRBTree const> const tree = filledTree(*keys);
    auto const set = std::make_shared<Set const>(keys->m_Plain.begin(), keys->m_Plain.end());
    std::size_t const count = keys->m_Ours.size();
    require(countFound(*tree, keys->m_Ours) == count && countFound(*set, keys->m_Plain) == count, "a key is missing");
    kvxbench::addContest("tree find " + size,
                         [keys, tree] { benchmark::DoNotOptimize(countFound(*tree, keys->m_Ours)); },
                         {{"std::set", [keys, set] { benchmark::DoNotOptimize(countFound(*set, keys->m_Plain)); }}});
}

void addRemoval(std::size_t count) {
    std::shared_ptr<Keys const> const keys = makeKeys(count);
    kvxbench::add("map insert and remove " + std::to_string(count), [keys] {
        auto const map = filledMap(*keys);
        for (TbString const& key : keys->m_Ours) {
            map->remove(key);
        }
        require(map->count() == 0, "the map is not empty");
    });
}

void setUp() {
    struct Size {
        std::size_t m_Count;
        Goals m_Goals;
    };
    for (Size const& size : {Size{10, {1.3, 3}}, Size{1000, {1.3, 2}}, Size{100000, {1.3, 1}}}) {
        std::shared_ptr<Keys const> const keys = makeKeys(size.m_Count);
        addMaps(std::to_string(size.m_Count), keys, size.m_Goals);
        addTrees(std::to_string(size.m_Count), keys);
    }
    struct Scaled {
        std::string m_What;
        std::string m_Side;
    };
    for (auto const& [what, side] :
         {Scaled{"map insert", "ours"}, Scaled{"map insert", "std::map"}, Scaled{"map find", "ours"},
          Scaled{"map find", "std::map"}, Scaled{"tree insert", "ours"}, Scaled{"tree insert", "std::set"},
          Scaled{"tree find", "ours"}, Scaled{"tree find", "std::set"}}) {
        kvxbench::compareScaling("" + what + ", 100000 of 1000, " + side, what + " 100000/" + side,
                                 what + " 1000/" + side, 100, kvxbench::kNoGoal);
    }
    addRemoval(1000);
    addRemoval(10000);
    kvxbench::compareScaling("map insert and remove, 10000 of 1000", "map insert and remove 10000",
                             "map insert and remove 1000", 10);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
