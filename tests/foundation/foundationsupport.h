/// Elements of a known order, and checks of the containers.
///
/// IntItem orders by its number and complains when it is compared with anything else. failEachAllocation() runs one
/// operation on fresh subjects, with one allocation more failing each time.
#ifndef TALLOWIN_TESTS_FOUNDATION_FOUNDATIONSUPPORT_H
#define TALLOWIN_TESTS_FOUNDATION_FOUNDATIONSUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/tbexception.h"
#include "foundation/tbmultimap.h"
#include "foundation/tbobject.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"

namespace kvxtest {

/// An element ordered by its number.
class IntItem : public TbFindable {
public:
    IntItem() = default;
    explicit IntItem(int number) : m_Number(number) {}
    IntItem(IntItem const&) = default;
    IntItem& operator=(IntItem const& other);
    using TbFindable::operator=;

    TbAllocator getAllocator() const override { return &IntItem::allocate; }
    IntItem& assign(TbObject const& other) override;
    bool isInstanceOf(char const* className) const override;
    bool operator<(TbFindable const& other) const override;
    bool operator==(TbFindable const& other) const override;

    [[nodiscard]] int number() const { return m_Number; }

    static void allocate(TbObject** slot) { tbAllocateInto<IntItem>(slot); }

private:
    int m_Number = 0;
};

/// The number of an element that is an IntItem.
int numberOf(TbFindable const* item);

/// A counted object that reports its death in a flag.
class Witness : public TbObject {
public:
    explicit Witness(bool* isGone) : m_IsGone(isGone) {}
    Witness(Witness const&) = delete;
    Witness& operator=(Witness const&) = delete;
    using TbObject::operator=;
    ~Witness() override { *m_IsGone = true; }

private:
    bool* m_IsGone;
};

/// Names the variants of a typed test by their classes.
struct NamedByClass {
    template <class Container>
    static std::string GetName(int) {
        Container container;
        for (char const* name : {"TbStack", "TbVector", "TbFindableVector", "TbStrMap", "TbMap", "TbStrPtrMultimap"}) {
            if (container.isInstanceOf(name)) {
                return name;
            }
        }
        return "TbMultimap";
    }
};

/// The order of string keys, written a second time: length first, then signed bytes.
struct LengthFirst {
    bool operator()(std::string const& left, std::string const& right) const;
};

/// A key of up to three bytes out of few, so that random keys meet again. Some bytes have their top bit set.
std::string randomKey(std::mt19937_64& random);

/// The elements of a tree in the order of its links.
std::vector<TbFindable const*> itemsInOrder(TbRBTree const& tree);

/// The values of an ordered vector of addresses, as IntItems.
std::vector<int> numbersInOrder(TbRBTree const& tree);

/// Black root; no red node below a red one; as many black nodes on every way down; a black sentinel without children;
/// strictly ascending elements; no way down longer than twice the black height. A tree without elements has no root.
testing::AssertionResult isSoundTree(TbRBTree const& tree);

/// Fails one allocation of `act` after the other, on a fresh subject each time, alone and with all later ones; `verify`
/// receives whether `act` failed. Every failure must be KVX_E_OUT_OF_MEMORY and leave no object behind once the subject
/// is gone. Returns how many allocations were failed; zero means that `act` allocates nothing.
template <class Subject>
long failEachAllocation(std::function<std::unique_ptr<Subject>()> const& make, std::function<void(Subject&)> const& act,
                        std::function<void(Subject&, bool)> const& verify) {
    long failures = 0;
    for (auto const mode : {FailingAllocation::Mode::kOnlyThat, FailingAllocation::Mode::kAllFromThere}) {
        bool isReached = true;
        for (long number = 0; isReached; ++number) {
            SCOPED_TRACE("allocation " + std::to_string(number));
            std::int32_t const living = TbRefCounter::m_nTotalRef;
            {
                std::unique_ptr<Subject> const subject = make();
                std::int32_t code = 0;
                {
                    FailingAllocation const failing(number, mode);
                    code = thrownCode([&] { act(*subject); });
                    isReached = FailingAllocation::requested() > number;
                }
                EXPECT_EQ(code, isReached ? KVX_E_OUT_OF_MEMORY : 0);
                verify(*subject, code != 0);
                failures += code != 0 ? 1 : 0;
            }
            EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << "objects left behind";
            if (testing::Test::HasFailure()) {
                return failures;
            }
        }
    }
    return failures;
}

}  // namespace kvxtest

#endif
