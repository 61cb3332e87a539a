// What strings and containers cost: bytes asked of the allocator, comparisons of keys.
//
// A string that is built piece by piece copies at most four times its length. A search among n keys is a walk down a
// balanced tree, so n operations take at most 4 n log2 n comparisons, whatever the order of the keys.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "foundation/tbmap.h"
#include "foundation/tbstringstream.h"
#include "tests/support/costs.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::uint64_t g_Comparisons = 0;

/// A key that counts the comparisons with it.
class CountedKey : public TbFindable {
public:
    CountedKey() = default;
    explicit CountedKey(int number) : m_Number(number) {}
    CountedKey(CountedKey const& other) : TbFindable(), m_Number(other.m_Number) {}
    using TbFindable::operator=;
    CountedKey& operator=(CountedKey const& other) {
        m_Number = other.m_Number;
        return *this;
    }

    TbAllocator getAllocator() const override { return &CountedKey::allocate; }
    CountedKey& assign(TbObject const& other) override {
        m_Number = static_cast<CountedKey const&>(other).m_Number;
        return *this;
    }
    bool isInstanceOf(char const* className) const override {
        return std::string(className) == "CountedKey" || TbFindable::isInstanceOf(className);
    }
    bool operator<(TbFindable const& other) const override {
        ++g_Comparisons;
        return m_Number < static_cast<CountedKey const&>(other).m_Number;
    }
    bool operator==(TbFindable const& other) const override {
        ++g_Comparisons;
        return m_Number == static_cast<CountedKey const&>(other).m_Number;
    }

    static void allocate(TbObject** slot) { *slot = new CountedKey; }

private:
    int m_Number = 0;
};

/// The orders in which n keys come.
struct Order {
    char const* m_Name;
    std::vector<int> (*m_Make)(int count);
};

std::vector<int> rising(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

Order const kOrders[] = {
    {"rising", &rising},
    {"falling",
     [](int count) {
         std::vector<int> numbers = rising(count);
         std::reverse(numbers.begin(), numbers.end());
         return numbers;
     }},
    {"from both ends",
     [](int count) {
         std::vector<int> numbers;
         for (int i = 0; i < count; ++i) {
             numbers.push_back(i % 2 == 0 ? i / 2 : count - 1 - i / 2);
         }
         return numbers;
     }},
    {"random",
     [](int count) {
         std::vector<int> numbers = rising(count);
         Random random;
         for (std::size_t i = numbers.size(); i > 1; --i) {
             std::swap(numbers[i - 1], numbers[random.below(i)]);
         }
         return numbers;
     }},
};

void expectFewComparisons(char const* container, Order const& order, char const* what, int count) {
    double const bound = 4.0 * count * std::log2(count);
    EXPECT_LE(static_cast<double>(g_Comparisons), bound) << container << ", " << order.m_Name << ", " << what;
    testing::Test::RecordProperty(std::string(container) + " " + order.m_Name + " " + what,
                                  std::to_string(static_cast<double>(g_Comparisons) / count / std::log2(count)));
}

/// Fills, searches and empties a container with `count` keys in every order.
template <class Container>
void expectFewComparisonsOf(char const* name, int count) {
    for (Order const& order : kOrders) {
        std::vector<int> const numbers = order.m_Make(count);
        Container container;
        g_Comparisons = 0;
        for (int const number : numbers) {
            container.put(CountedKey(number));
        }
        expectFewComparisons(name, order, "putting", count);
        g_Comparisons = 0;
        for (int const number : numbers) {
            ASSERT_NE(container.find(CountedKey(number)), nullptr);
        }
        expectFewComparisons(name, order, "finding", count);
        g_Comparisons = 0;
        for (int const number : numbers) {
            ASSERT_EQ(container.find(CountedKey(count + number)), nullptr);
        }
        expectFewComparisons(name, order, "missing", count);
        g_Comparisons = 0;
        for (int const number : numbers) {
            ASSERT_TRUE(container.remove(CountedKey(number)));
        }
        expectFewComparisons(name, order, "removing", count);
    }
}

constexpr int kKeys = 4096;

TEST(Comparisons, OfATreeAreFew) {
    expectFewComparisonsOf<TbRBTree>("TbRBTree", kKeys);
}

TEST(Comparisons, OfAMapAreFew) {
    expectFewComparisonsOf<TbMap>("TbMap", kKeys);
}

constexpr std::size_t kUnits = 64 * 1024;

/// A buffer grows by half of itself: all its sizes together are three times the last, which is up to half too large.
constexpr std::uint64_t kAskedFor = 5;

/// All but the last are copied into the next.
constexpr std::uint64_t kCopied = 4;

/// The bytes that building asks for and copies, for each byte of the result.
void expectLinearBuilding(std::string const& what, std::size_t bytesOfUnit,
                          std::function<void(std::size_t)> const& build) {
    expectLinearCost(what + ", bytes", kUnits, kAskedFor * bytesOfUnit,
                     [&](std::size_t size) { return costOf([&] { build(size); }).m_Bytes; });
    expectLinearCost(what + ", copied", kUnits, kCopied * bytesOfUnit,
                     [&](std::size_t size) { return costOf([&] { build(size); }).m_Copied; });
}

TEST(StringCosts, OfAppendingSingleCharactersAreLinear) {
    expectLinearBuilding("append", 1, [](std::size_t size) {
        TbString text;
        for (std::size_t i = 0; i < size; ++i) {
            text.append('x');
        }
    });
}

TEST(StringCosts, OfAppendingPiecesOfAnyLengthAreLinear) {
    for (std::size_t const piece : {2U, 7U, 64U, 65U, 66U, 1000U, 4096U}) {
        std::string const bytes(piece, 'x');
        expectLinearBuilding("append " + std::to_string(piece), 1, [&](std::size_t size) {
            TbString text;
            for (std::size_t length = 0; length + piece <= size; length += piece) {
                text.append(bytes.data(), static_cast<std::uint32_t>(piece));
            }
        });
    }
}

TEST(StringCosts, OfAStreamAreLinear) {
    expectLinearBuilding("put", 1, [](std::size_t size) {
        TbStringStream out;
        for (std::size_t i = 0; i < size; ++i) {
            out.put('x');
        }
        char character = '\0';
        for (std::size_t i = 0; i < size; ++i) {
            out.get(character);
        }
    });
}

TEST(StringCosts, OfCopiesAreOneLengthEach) {
    TbString const text = stringOf(std::string(kUnits, 'x'));
    Cost const copied = costOf([&] {
        TbString const copy(text);
        TbString assigned("before");
        assigned = text;
        TbString const part = text.substring(1, static_cast<std::uint32_t>(kUnits - 2));
    });
    EXPECT_LE(copied.m_Bytes, 3 * (kUnits + 100) + 1000);
    EXPECT_LE(costOf([&] { TbString const sum = text + text; }).m_Bytes, 3 * kUnits + 1000);
}

TEST(ContainerCosts, OfVectorsAreLinear) {
    expectLinearBuilding("push_back", sizeof(void*), [](std::size_t size) {
        TbVector vector;
        TbString element;
        for (std::size_t i = 0; i < size; ++i) {
            vector.push_back(&element);
        }
    });
}

/// A node, the text of the key, a map item, and a value with room for a short text, in one piece of memory.
constexpr std::uint64_t kBytesForEachPair = 153;  // 152, and a part of the sentinel
constexpr std::uint64_t kCallsForEachPair = 1;

TEST(ContainerCosts, OfMapsAreLinear) {
    std::vector<TbString> keys;
    for (std::size_t i = 0; i < kUnits; ++i) {
        keys.emplace_back(std::to_string(i).c_str());
    }
    TbString const value("v");
    expectLinearCost("TbStrMap", kUnits / 16, kBytesForEachPair, [&](std::size_t size) {
        return costOf([&] {
                   TbStrMap map;
                   for (std::size_t i = 0; i < size; ++i) {
                       map[keys[i]] = value;
                   }
               })
            .m_Bytes;
    });
    Cost const cost = costOf([&] {
        TbStrMap map;
        for (TbString const& key : keys) {
            map[key] = value;
        }
    });
    EXPECT_LE(cost.m_Calls, kCallsForEachPair * keys.size() + 1) << "and the sentinel";
}

TEST(ContainerCosts, OfAPairAreDueWhenItIsAskedFor) {
    TbStrMap map;
    map["key"] = "a value";
    auto* const entry = static_cast<TbMapItem*>(map.find(TbString("key")));
    Cost const first = costOf([&] { EXPECT_NE(entry->item(), nullptr); });
    EXPECT_EQ(first.m_Calls, 1U);
    EXPECT_LE(first.m_Bytes, sizeof(TbKeyValue) + sizeof(TbString));
    EXPECT_EQ(costOf([&] { EXPECT_NE(entry->item(), nullptr); }).m_Calls, 0U);
}

TEST(ContainerCosts, OfCopyingAMapAreThoseOfItsEntries) {
    TbStrMap map;
    for (int i = 0; i < 100; ++i) {
        map[std::to_string(i).c_str()] = "a value";
    }
    EXPECT_EQ(costOf([&] { TbStrMap const copy(map); }).m_Calls, map.count() + 1U);
    TbKeyValue const pair(TbString("key"), TbString("a value"));
    EXPECT_EQ(costOf([&] { map.put(pair); }).m_Calls, 1U);
}

TEST(ContainerCosts, OfComparingEntriesAreNothing) {
    TbStrMap map;
    map["a"];
    map["b"];
    TbMapItem const& entry = *map.begin();
    TbString const probe("b");
    EXPECT_EQ(costOf([&] {
                  EXPECT_TRUE(entry < probe);
                  EXPECT_FALSE(entry == probe);
                  EXPECT_TRUE(map.remove(*map.begin()->next())) << "its own entry as the probe";
              }).m_Calls,
              0U);
}

TEST(ContainerCosts, OfAMissingSentinelAreNothing) {
    EXPECT_EQ(costOf([] {
                  TbStrMap map;
                  TbStrMap const copy(map);
                  EXPECT_EQ(map.find(TbString("")), nullptr);
                  EXPECT_FALSE(map.remove(TbString("")));
              }).m_Calls,
              0U);
    EXPECT_LE(sizeof(TbStrMap), 64U);
}

TEST(ContainerCosts, OfSearchingAreNothing) {
    TbStrMap map;
    for (int i = 0; i < 1000; ++i) {
        map[std::to_string(i).c_str()];
    }
    TbString const key("500");
    EXPECT_EQ(costOf([&] {
                  EXPECT_NE(map.find(key), nullptr);
                  EXPECT_TRUE(map[key].isEmpty());
                  EXPECT_TRUE(map.remove(key));
              }).m_Calls,
              0U);
}

}  // namespace
