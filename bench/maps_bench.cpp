// Fills and searches maps and trees; compared with std::map plus a std::list for the order of insertion, and std::set.
//
// Reference numbers (medians of one interleaved run on a shared machine with two processors; they vary by a tenth,
// those of 100000 entries by a quarter):
//                               entries    10   1000   100000   growth 100000 / 1000   other side's growth
//   TbStrMap put / std::map               7.3     13      5.8                    2.9                      6.6
//   TbStrMap find / std::map              5.5    7.5      4.1                    6.1                       11
//   TbRBTree put / std::set               4.6    6.1      2.7                    3.0                      6.6
//   TbRBTree find / std::set              1.7    2.2      2.0                    7.8                      8.6
//   growth of put and remove, 10000 / 1000: 1.7
//   memory of an entry of TbStrMap: 465 bytes, std::map and std::list 144
// Growth is per entry: 1 is linear, 1.7 follows from the height of the tree, the rest are cache misses.

#include <benchmark/benchmark.h>

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

/// A map that keeps the order of insertion, with standard containers.
class PlainMap {
public:
    void put(std::string const& key, std::string const& value) {
        auto const [entry, isNew] = m_Values.insert_or_assign(key, value);
        if (isNew) {
            m_Order.push_back(&entry->first);
        }
    }

    [[nodiscard]] std::string const* find(std::string const& key) const {
        auto const found = m_Values.find(key);
        return found == m_Values.end() ? nullptr : &found->second;
    }

private:
    std::map<std::string, std::string> m_Values;
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

std::unique_ptr<PlainMap> filledPlainMap(Keys const& keys) {
    auto map = std::make_unique<PlainMap>();
    std::string const value("some value");
    for (std::string const& key : keys.m_Plain) {
        map->put(key, value);
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

template <class Container, class Texts>
std::size_t countFound(Container const& container, Texts const& texts) {
    return static_cast<std::size_t>(
        std::count_if(texts.begin(), texts.end(), [&](auto const& text) { return container.find(text) != nullptr; }));
}

std::size_t countFound(std::set<std::string> const& set, std::vector<std::string> const& texts) {
    return static_cast<std::size_t>(
        std::count_if(texts.begin(), texts.end(), [&](auto const& text) { return set.find(text) != set.end(); }));
}

void addSize(std::size_t count) {
    std::shared_ptr<Keys const> const keys = makeKeys(count);
    std::string const size = std::to_string(count);
    kvxbench::addPair(
        "TbStrMap put " + size, [keys] { benchmark::DoNotOptimize(filledMap(*keys)); }, "std::map",
        [keys] { benchmark::DoNotOptimize(filledPlainMap(*keys)); });
    std::shared_ptr<TbStrMap const> const map = filledMap(*keys);
    std::shared_ptr<PlainMap const> const plain = filledPlainMap(*keys);
    require(countFound(*map, keys->m_Ours) == count && countFound(*plain, keys->m_Plain) == count, "a key is missing");
    kvxbench::addPair(
        "TbStrMap find " + size, [keys, map] { benchmark::DoNotOptimize(countFound(*map, keys->m_Ours)); }, "std::map",
        [keys, plain] { benchmark::DoNotOptimize(countFound(*plain, keys->m_Plain)); });

    kvxbench::addPair(
        "TbRBTree put " + size, [keys] { benchmark::DoNotOptimize(filledTree(*keys)); }, "std::set",
        [keys] { benchmark::DoNotOptimize(std::set<std::string>(keys->m_Plain.begin(), keys->m_Plain.end())); });
    std::shared_ptr<TbRBTree const> const tree = filledTree(*keys);
    auto const set = std::make_shared<std::set<std::string> const>(keys->m_Plain.begin(), keys->m_Plain.end());
    require(countFound(*tree, keys->m_Ours) == count && countFound(*set, keys->m_Plain) == count, "a key is missing");
    kvxbench::addPair(
        "TbRBTree find " + size, [keys, tree] { benchmark::DoNotOptimize(countFound(*tree, keys->m_Ours)); },
        "std::set", [keys, set] { benchmark::DoNotOptimize(countFound(*set, keys->m_Plain)); });
}

void addRemoval(std::size_t count) {
    std::shared_ptr<Keys const> const keys = makeKeys(count);
    kvxbench::add("TbStrMap put and remove " + std::to_string(count), [keys] {
        auto const map = filledMap(*keys);
        for (TbString const& key : keys->m_Ours) {
            map->remove(key);
        }
        require(map->count() == 0, "the map is not empty");
    });
}

void addMemory() {
    constexpr std::size_t kEntries = 10000;
    auto const keys = makeKeys(kEntries);
    std::size_t const before = kvxbench::heapInUse();
    auto const map = filledMap(*keys);
    std::size_t const between = kvxbench::heapInUse();
    auto const plain = filledPlainMap(*keys);
    std::size_t const after = kvxbench::heapInUse();
    kvxbench::addBytes("memory of an entry of TbStrMap", static_cast<double>(between - before) / kEntries, "std::map",
                       static_cast<double>(after - between) / kEntries);
}

void setUp() {
    addMemory();
    for (std::size_t const count : {std::size_t{10}, std::size_t{1000}, std::size_t{100000}}) {
        addSize(count);
    }
    struct Grown {
        std::string m_What;
        std::string m_Side;
    };
    for (auto const& [what, side] :
         {Grown{"TbStrMap put", "ours"}, Grown{"TbStrMap put", "std::map"}, Grown{"TbStrMap find", "ours"},
          Grown{"TbStrMap find", "std::map"}, Grown{"TbRBTree put", "ours"}, Grown{"TbRBTree put", "std::set"},
          Grown{"TbRBTree find", "ours"}, Grown{"TbRBTree find", "std::set"}}) {
        kvxbench::compareGrowth("growth: " + what + ", 100000 / 1000, " + side, what + " 100000/" + side,
                                what + " 1000/" + side, 100);
    }
    addRemoval(1000);
    addRemoval(10000);
    kvxbench::compareGrowth("growth: TbStrMap put and remove, 10000 / 1000", "TbStrMap put and remove 10000",
                            "TbStrMap put and remove 1000", 10);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
