// Sequences of operations on vectors, a tree and maps, against standard containers. An operation may run with its n-th
// allocation failing: it then changes nothing.
//
// Model of the order of strings: by length, then by signed bytes up to a zero byte.

#include <algorithm>
#include <set>
#include <vector>

#include "foundation/tbexception.h"
#include "foundation/tbmap.h"
#include "foundation/tbmultimap.h"
#include "foundation/tbrbtree.h"
#include "foundation/tbvector.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/shortage.h"

namespace kvxfuzz {

namespace {

struct ByLength {
    bool operator()(std::string const& left, std::string const& right) const {
        if (left.size() != right.size()) {
            return left.size() < right.size();
        }
        std::string const a = upToZero(left);
        std::string const b = upToZero(right);
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return static_cast<signed char>(x) < static_cast<signed char>(y);
        });
    }
};

bool areSame(std::string const& left, std::string const& right) {
    return !ByLength()(left, right) && !ByLength()(right, left);
}

std::string keyFrom(Input& input) {
    return input.take(input.below(4));
}

/// How an operation may go: whether it has been done. Requires that it fails for lack of memory or for `expected` only.
bool succeeds(std::int32_t code, std::int32_t expected) {
    if (code == KVX_E_OUT_OF_MEMORY) {
        return false;
    }
    requireEqual(code, expected, "code of an operation");
    return code == KVX_OK;
}

template <class Vector, class Element>
class VectorSubject {
public:
    void step(Input& input) {
        std::uint32_t const number = static_cast<std::uint32_t>(input.below(40));
        std::size_t const count = m_Model.size();
        switch (input.below(8)) {
            case 0:
                if (count != 0) {
                    m_Vector.pop_back();
                    m_Model.pop_back();
                }
                break;
            case 1: {
                std::int32_t const code = codeOf([&] { m_Vector.remove(number); });
                requireEqual(code, number < count ? KVX_OK : KVX_E_OUT_OF_RANGE, "code of remove");
                if (number < count) {
                    m_Model.erase(m_Model.begin() + number);
                }
                break;
            }
            case 2:
                m_Vector.grow(number);
                grow(number);
                break;
            case 3: {
                Vector other(number);
                requireEqual(other.capacity(), number, "capacity as asked for");
                other.push_back(&m_Elements[0]);
                m_Vector.assign(static_cast<TbObject const&>(other));
                m_Capacity = std::max<std::size_t>(number, number == 0 ? 17 : 0);
                m_Model = {0};
                break;
            }
            default:
                m_Vector.push_back(&m_Elements[number % kElements]);
                grow(count + 1);
                m_Model.push_back(number % kElements);
        }
        check();
    }

private:
    static constexpr std::size_t kElements = 5;

    void grow(std::size_t slots) {
        if (slots > m_Capacity) {
            m_Capacity = slots + 16;
        }
    }

    void check() const {
        requireEqual(m_Vector.count(), static_cast<std::int64_t>(m_Model.size()), "count of a vector");
        requireEqual(m_Vector.capacity(), static_cast<std::int64_t>(m_Capacity), "capacity of a vector");
        for (std::uint32_t i = 0; i < m_Model.size(); ++i) {
            require(m_Vector.at(i) == &m_Elements[m_Model[i]], "element of a vector");
        }
        auto const count = static_cast<std::uint32_t>(m_Model.size());
        requireEqual(codeOf([&] { static_cast<void>(m_Vector.at(count)); }), KVX_E_OUT_OF_RANGE, "code beyond the end");
    }

    mutable TbString m_Elements[kElements];
    Vector m_Vector;
    std::vector<std::size_t> m_Model;  ///< Indexes of elements.
    std::size_t m_Capacity = 0;
};

class TreeSubject {
public:
    void step(Input& input) {
        std::string const key = keyFrom(input);
        TbString const item = tbText(key);
        bool const isThere = m_Model.count(key) != 0;
        std::size_t const shortage = shortageFrom(input);
        switch (input.below(6)) {
            case 0:
            case 1:
                remove(item, key, shortage);
                break;
            case 2:
                requireCopy();
                break;
            default: {
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    m_Tree.put(item);
                });
                if (succeeds(code, isThere ? KVX_E_DUPLICATE_KEY : KVX_OK)) {
                    m_Model.insert(key);
                }
            }
        }
        auto const* const found = static_cast<TbString const*>(m_Tree.find(item));
        require((found != nullptr) == (m_Model.count(key) != 0), "a key is found");
        check(m_Tree);
    }

private:
    void remove(TbString const& item, std::string const& key, std::size_t shortage) {
        bool isRemoved = false;
        std::int32_t const code = codeOf([&] {
            Shortage const armed(shortage);
            isRemoved = m_Tree.remove(item);
        });
        if (succeeds(code, KVX_OK)) {
            require(isRemoved == (m_Model.erase(key) != 0), "a key is removed");
        }
    }

    void requireCopy() {
        TbRBTree copy;
        copy = m_Tree;
        check(copy);
        copy.clear();
        requireEqual(copy.count(), 0, "count of a cleared tree");
    }

    void check(TbRBTree const& tree) const {
        std::vector<std::string> inOrder;
        require(tree.root() == nullptr || !tree.root()->isRed(), "the root is black");
        static_cast<void>(blackHeight(tree, tree.root(), inOrder));
        require(inOrder == std::vector<std::string>(m_Model.begin(), m_Model.end()), "elements in order");
        requireEqual(tree.count(), static_cast<std::int64_t>(m_Model.size()), "count of a tree");
    }

    /// Also collects the keys below `node`.
    static int blackHeight(TbRBTree const& tree, TbTreeNode const* node, std::vector<std::string>& keys) {
        if (node == nullptr || tree.isSentinel(node)) {
            return 1;
        }
        require(!node->isRed() || (!node->left()->isRed() && !node->right()->isRed()), "red nodes have black children");
        int const left = blackHeight(tree, node->left(), keys);
        keys.push_back(textOf(*static_cast<TbString const*>(node->item())));
        require(left == blackHeight(tree, node->right(), keys), "all paths have as many black nodes");
        return left + (node->isRed() ? 0 : 1);
    }

    TbRBTree m_Tree;
    std::set<std::string, ByLength> m_Model;
};

/// A key and a value, in order of insertion.
using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entriesFrom(TbMapItem const* item) {
    Entries entries;
    for (; item != nullptr; item = item->next()) {
        auto const* const pair = static_cast<TbKeyValue const*>(item->item());
        entries.emplace_back(textOf(*static_cast<TbString*>(pair->key())),
                             textOf(*static_cast<TbString*>(pair->value())));
    }
    return entries;
}

class MapSubject {
public:
    void step(Input& input) {
        std::string const key = keyFrom(input);
        TbString const name = tbText(key);
        std::string const value = input.take(input.below(3));
        auto const entry =
            std::find_if(m_Model.begin(), m_Model.end(), [&](auto const& pair) { return areSame(pair.first, key); });
        bool const isThere = entry != m_Model.end();
        std::size_t const shortage = shortageFrom(input);
        switch (input.below(5)) {
            case 0: {
                bool isRemoved = false;
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    isRemoved = m_Map.remove(name);
                });
                if (succeeds(code, KVX_OK)) {
                    require(isRemoved == isThere, "a key is removed from a map");
                    if (isThere) {
                        m_Model.erase(entry);
                    }
                }
                break;
            }
            case 1: {
                TbKeyValue const pair(name, tbText(value));
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    m_Map.put(pair);
                });
                if (succeeds(code, isThere ? KVX_E_DUPLICATE_KEY : KVX_OK)) {
                    m_Model.emplace_back(key, value);
                }
                break;
            }
            case 2: {
                TbStrMap copy;
                copy = m_Map;
                require(entriesFrom(copy.first()) == m_Model, "copy of a map");
                break;
            }
            default: {
                TbString* slot = nullptr;
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    slot = &m_Map[name];
                });
                if (succeeds(code, KVX_OK)) {
                    requireEqual(textOf(*slot), isThere ? entry->second : "", "value under a key");
                    *slot = tbText(value);
                    (isThere ? *entry : m_Model.emplace_back(key, "")).second = value;
                }
            }
        }
        require(entriesFrom(m_Map.first()) == m_Model, "entries in order of insertion");
        requireEqual(m_Map.count(), static_cast<std::int64_t>(m_Model.size()), "count of a map");
    }

private:
    TbStrMap m_Map;
    Entries m_Model;
};

class MultimapSubject {
public:
    void step(Input& input) {
        std::string const key = keyFrom(input);
        TbString const name = tbText(key);
        std::string const value = input.take(input.below(3));
        std::size_t const shortage = shortageFrom(input);
        long const index = static_cast<long>(input.below(8)) - 1;
        bool isRemoved = false;
        switch (input.below(6)) {
            case 0: {
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    isRemoved = m_Map.remove(name, index);
                });
                if (succeeds(code, KVX_OK)) {
                    require(isRemoved == erase(key, index), "an entry is removed");
                }
                break;
            }
            case 1: {
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    isRemoved = m_Map.remove(name);
                });
                if (succeeds(code, KVX_OK)) {
                    require(isRemoved == erase(key, 0), "a key is removed with all its entries");
                    while (erase(key, 0)) {
                    }
                }
                break;
            }
            case 2: {
                TbMultimap copy;
                copy = m_Map;
                require(entriesFrom(copy.first()) == m_Model, "copy of a multimap");
                break;
            }
            default: {
                TbKeyValue const pair(name, tbText(value));
                std::int32_t const code = codeOf([&] {
                    Shortage const armed(shortage);
                    m_Map.put(pair);
                });
                if (succeeds(code, KVX_OK)) {
                    m_Model.emplace_back(key, value);
                }
            }
        }
        check(key);
    }

private:
    bool erase(std::string const& key, long index) {
        for (auto entry = m_Model.begin(); entry != m_Model.end(); ++entry) {
            if (areSame(entry->first, key) && index-- == 0) {
                m_Model.erase(entry);
                return true;
            }
        }
        return false;
    }

    void check(std::string const& key) {
        require(entriesFrom(m_Map.first()) == m_Model, "entries of all keys in order of insertion");
        requireEqual(m_Map.count(), static_cast<std::int64_t>(m_Model.size()), "count of a multimap");
        auto const* const found = static_cast<TbFindableVector const*>(m_Map.find(tbText(key)));
        std::uint32_t position = 0;
        for (auto const& [name, value] : m_Model) {
            if (areSame(name, key)) {
                auto const* const pair =
                    static_cast<TbKeyValue const*>(static_cast<TbMapItem const*>(found->at(position++))->item());
                requireEqual(textOf(*static_cast<TbString*>(pair->value())), value, "entry of a key");
            }
        }
        requireEqual(found == nullptr ? 0 : found->count(), position, "number of a key's entries");
    }

    TbMultimap m_Map;
    Entries m_Model;
};

}  // namespace

void runTarget(Input input) {
    VectorSubject<TbVector, TbObject> vector;
    VectorSubject<TbFindableVector, TbFindable> findableVector;
    TreeSubject tree;
    MapSubject map;
    MultimapSubject multimap;
    constexpr int kMaxSteps = 200;  // each one looks at all elements
    for (int step = 0; step < kMaxSteps && !input.isEmpty(); ++step) {
        switch (input.below(5)) {
            case 0:
                vector.step(input);
                break;
            case 1:
                findableVector.step(input);
                break;
            case 2:
                tree.step(input);
                break;
            case 3:
                map.step(input);
                break;
            default:
                multimap.step(input);
        }
    }
}

}  // namespace kvxfuzz
