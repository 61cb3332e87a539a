// Handles that are no handles: any number, and C++ callers' objects of another kind.
//
// Every flat function must refuse them without reading the memory they point to. The random test draws numbers of
// several sorts, near to valid ones too; KVX_HANDLE_ROUNDS sets how many (100,000 otherwise). Objects outside the slots
// stand in a registry, whose table is made to grow, to shrink, and to fail for lack of memory.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include "foundation/tbexception.h"
#include "foundation/tbobject.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/random.h"

using namespace kvxtest;

namespace {

/// Expects that every function refuses `handle` and touches nothing. Destroy functions must ignore it.
void expectWild(KVX_HANDLE handle) {
    Outputs outputs;
    for (FlatFunction const& function : flatFunctions()) {
        ASSERT_EQ(function.m_Call(handle, outputs), KVX_E_BAD_HANDLE) << function.m_Name << addressText(handle);
    }
    outputs.expectUntouched("a wild handle");
    for (KindFunctions const& kind : allKinds()) {
        kind.m_Destroy(handle);
    }
}

/// Expects that the functions of all other kinds refuse `handle`, an object of `kind`, and leave it alone.
void expectRefusedByOtherKinds(Kind kind, KVX_HANDLE handle) {
    for (FlatFunction const& function : flatFunctions()) {
        if (function.m_Kind != kind) {
            Outputs outputs;
            ASSERT_EQ(function.m_Call(handle, outputs), KVX_E_BAD_HANDLE) << function.m_Name;
            outputs.expectUntouched(function.m_Name);
        }
    }
}

bool isLivingMessage(KVXCIMPL_MessageObject const& message) {
    return kvxIsLiving(KvxKind::kMessageObject, &message);
}

KVX_HANDLE handleOf(std::uintptr_t number) {
    return reinterpret_cast<KVX_HANDLE>(number);
}

std::size_t roundsFromEnvironment() {
    char const* const text = std::getenv("KVX_HANDLE_ROUNDS");
    return text == nullptr ? 100000 : std::strtoul(text, nullptr, 10);
}

/// Forgets the objects that are not destroyed in its scope; the test program counts living ones.
class AbandonedObjects {
public:
    AbandonedObjects() : m_Before(TbRefCounter::m_nTotalRef) {}
    AbandonedObjects(AbandonedObjects const&) = delete;
    AbandonedObjects& operator=(AbandonedObjects const&) = delete;
    ~AbandonedObjects() { TbRefCounter::m_nTotalRef = m_Before; }

private:
    std::int32_t m_Before;
};

/// A page that must not be read.
class ForbiddenPage {
public:
    ForbiddenPage() : m_Address(::mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
    ForbiddenPage(ForbiddenPage const&) = delete;
    ForbiddenPage& operator=(ForbiddenPage const&) = delete;
    ~ForbiddenPage() { ::munmap(m_Address, kBytes); }

    [[nodiscard]] std::uintptr_t address() const { return reinterpret_cast<std::uintptr_t>(m_Address); }

    static constexpr std::size_t kBytes = 4096;

private:
    void* m_Address;
};

/// Draws numbers that are no handle of a living object but often near to one.
class WildNumbers {
public:
    WildNumbers() {
        for (KindFunctions const& kind : allKinds()) {
            for (int i = 0; i < 8; ++i) {
                m_Living.emplace_back(kind.m_Create(), kind.m_Destroy);
                m_Addresses.insert(reinterpret_cast<std::uintptr_t>(m_Living.back().get()));
            }
            KVX_HANDLE const dead = kind.m_Create();
            kind.m_Destroy(dead);
            m_Bases.push_back(reinterpret_cast<std::uintptr_t>(dead));
        }
        m_Bases.insert(m_Bases.end(), m_Addresses.begin(), m_Addresses.end());
        m_Bases.push_back(reinterpret_cast<std::uintptr_t>(&m_Setup));
        m_Addresses.insert(m_Bases.back());
        m_Bases.push_back(reinterpret_cast<std::uintptr_t>(m_Heap.data()));
        m_Bases.push_back(m_Forbidden.address());
        ForbiddenPage const unmapped;
        m_Bases.push_back(unmapped.address());
    }

    KVX_HANDLE next() {
        for (;;) {
            std::uintptr_t const number = draw();
            if (m_Addresses.count(number) == 0) {
                return handleOf(number);
            }
        }
    }

private:
    std::uintptr_t draw() {
        std::uintptr_t const base = m_Bases[m_Random.below(m_Bases.size())];
        std::uintptr_t const offset = m_Random.below(2048);
        switch (m_Random.below(8)) {
            case 0:
                return m_Random.below(UINTPTR_MAX);
            case 1:
                return m_Random.below(1 << 20);
            case 2:
                return base + offset;
            case 3:
                return base - offset;
            case 4:
                return base + 512 * offset;  // a slot's beginning, or behind the slots
            case 5:
                return base & (UINTPTR_MAX >> (8 * m_Random.below(sizeof base)));
            case 6:
                return base | (std::uintptr_t{1} << m_Random.below(8 * sizeof base));
            default:
                return reinterpret_cast<std::uintptr_t>(&base) + 4 * offset - 4096;  // the stack
        }
    }

    Random m_Random;
    std::vector<OwnedHandle> m_Living;
    KVXCIMPL_ConfigurationSetup m_Setup;
    std::vector<std::uint32_t> m_Heap = std::vector<std::uint32_t>(4096, 0xAFFEAFFEU);
    ForbiddenPage m_Forbidden;
    std::vector<std::uintptr_t> m_Bases;   ///< Addresses to start from.
    std::set<std::uintptr_t> m_Addresses;  ///< Living objects.
};

TEST(WildHandle, IsRefusedByEveryFunction) {
    ForbiddenPage const forbidden;
    for (std::uintptr_t const number :
         {std::uintptr_t{1}, std::uintptr_t{7}, std::uintptr_t{8}, std::uintptr_t{0x1000}, std::uintptr_t{0x12345678},
          ~std::uintptr_t{7}, ~std::uintptr_t{0}, UINTPTR_MAX / 2 - 7, forbidden.address()}) {
        expectWild(handleOf(number));
    }
}

TEST(WildHandle, IsRefusedEvenWhereTheSignatureWordStands) {
    std::vector<std::uint32_t> words(256, 0xAFFEAFFEU);
    std::vector<std::uint32_t> const before = words;
    expectWild(words.data());
    expectWild(words.data() + 1);
    EXPECT_EQ(words, before);
}

TEST(WildHandle, IsRefusedForRandomNumbers) {
    WildNumbers numbers;
    for (std::size_t i = roundsFromEnvironment(); i > 0 && !HasFatalFailure(); --i) {
        expectWild(numbers.next());
    }
}

TEST(CxxObject, IsRefusedByFunctionsOfOtherKinds) {
    KVXCIMPL_ConfigurationSetup setup;
    KVXCIMPL_MessageFactory factory;
    KVXCIMPL_MessageObject message;
    expectRefusedByOtherKinds(Kind::kSetup, &setup);
    expectRefusedByOtherKinds(Kind::kFactory, &factory);
    expectRefusedByOtherKinds(Kind::kMessage, &message);

    struct Shop {
        KVXCIMPL_MessageFactory m_Factory;
        KVXCIMPL_MessageObject m_Message;
    };
    auto const shop = std::make_unique<Shop>();
    expectRefusedByOtherKinds(Kind::kFactory, &shop->m_Factory);
    expectRefusedByOtherKinds(Kind::kMessage, &shop->m_Message);
    EXPECT_TRUE(isLivingMessage(shop->m_Message));
}

TEST(CxxObject, BuiltInMemoryOfOneThatWasNeverDestroyedTakesItsPlace) {
    AbandonedObjects const abandoned;
    alignas(KVXCIMPL_MessageObject) unsigned char place[sizeof(KVXCIMPL_MessageObject)];
    auto* const first = new (place) KVXCIMPL_MessageFactory;
    EXPECT_EQ(MessageFactory_CreateRequest(first, "", nullptr), KVX_E_NO_MESSAGE_TYPE);
    auto* const second = new (place) KVXCIMPL_MessageObject;
    expectRefusedByOtherKinds(Kind::kMessage, second);
    EXPECT_EQ(MessageObject_SetAttribute(second, "A", "1"), KVX_E_UNEXPECTED);
    second->~KVXCIMPL_MessageObject();
    expectWild(place);
}

TEST(CxxObject, OverwrittenInsteadOfDestroyedIsRefused) {
    AbandonedObjects const abandoned;
    alignas(KVXCIMPL_MessageFactory) unsigned char place[sizeof(KVXCIMPL_MessageFactory)];
    new (place) KVXCIMPL_MessageFactory;
    std::fill(std::begin(place), std::end(place), static_cast<unsigned char>(0));
    expectWild(place);
    (new (place) KVXCIMPL_MessageFactory)->~KVXCIMPL_MessageFactory();
}

TEST(CxxObject, InsideASlotIsAcceptedUntilItIsDestroyed) {
    struct Derived : KVXCIMPL_MessageFactory {
        std::unique_ptr<int> m_Other;
        KVXCIMPL_MessageFactory m_Member;
    };
    auto* const object = new Derived;
    KVXCIMPL_MessageFactory* const member = &object->m_Member;
    EXPECT_EQ(MessageFactory_CreateRequest(object, "", nullptr), KVX_E_NO_MESSAGE_TYPE);
    EXPECT_EQ(MessageFactory_CreateRequest(member, "", nullptr), KVX_E_NO_MESSAGE_TYPE);
    expectRefusedByOtherKinds(Kind::kFactory, member);
    DestroyMessageFactory(member);
    EXPECT_EQ(MessageFactory_CreateRequest(member, "", nullptr), KVX_E_NO_MESSAGE_TYPE);
    delete object;
    expectWild(member);
    expectWild(object);
}

TEST(CxxObject, OnASlotOfAnotherKindHasNoHandle) {
    void* const slot = kvxTakeSlot(KvxKind::kMessageObject, sizeof(KVXCIMPL_MessageObject));
    auto* const factory = new (slot) KVXCIMPL_MessageFactory;
    expectWild(slot);
    factory->~KVXCIMPL_MessageFactory();
    expectWild(slot);
    kvxGiveSlot(KvxKind::kMessageObject, slot);
}

TEST(CxxObject, OfAConstructorThatFailsIsRefused) {
    struct Failing : KVXCIMPL_MessageObject {
        Failing() { throw 1; }
    };
    alignas(Failing) unsigned char place[sizeof(Failing)];
    EXPECT_THROW(new (place) Failing, int);
    expectWild(place);
}

TEST(CxxObject, IsFoundAmongThousands) {
    constexpr int kObjects = 20000;
    std::vector<std::unique_ptr<std::vector<KVXCIMPL_MessageObject>>> living;
    Random random;
    std::vector<void*> dead;
    for (int i = 0; i < kObjects; ++i) {
        living.push_back(std::make_unique<std::vector<KVXCIMPL_MessageObject>>(1));
        if (i % 3 == 0) {
            std::swap(living.back(), living[random.below(living.size())]);
            dead.push_back(living.back()->data());
            living.pop_back();
        }
    }
    std::set<void*> addresses;
    for (auto const& one : living) {
        addresses.insert(one->data());
        ASSERT_TRUE(isLivingMessage(one->front()));
        ASSERT_FALSE(kvxIsLiving(KvxKind::kMessageFactory, one->data()));
    }
    for (void* const address : dead) {
        ASSERT_EQ(kvxIsLiving(KvxKind::kMessageObject, address), addresses.count(address) == 1);
    }
    living.clear();
    for (void* const address : addresses) {
        ASSERT_FALSE(kvxIsLiving(KvxKind::kMessageObject, address));
    }
}

TEST(CxxObject, ConstructorRaisesOutOfMemoryWhenTheRegistryCannotGrow) {
    using OneFactory = std::vector<KVXCIMPL_MessageFactory>;
    constexpr int kMost = 1000000;
    std::vector<OneFactory> objects;
    std::int32_t failure = KVX_OK;
    for (int i = 0; i < kMost && failure == KVX_OK; ++i) {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        failure = thrownCode([&] { objects.push_back(OneFactory(1)); });
    }
    EXPECT_EQ(failure, KVX_E_OUT_OF_MEMORY);
    for (OneFactory const& object : objects) {
        ASSERT_TRUE(kvxIsLiving(KvxKind::kMessageFactory, object.data()));
    }
    KVXCIMPL_MessageFactory const again;
    EXPECT_TRUE(kvxIsLiving(KvxKind::kMessageFactory, &again));
}

TEST(CxxObject, IsBuiltAndDestroyedByManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < 3000; ++round) {
                KVXCIMPL_MessageFactory factory;
                std::vector<KVXCIMPL_MessageObject> messages(static_cast<std::size_t>(round % 40));
                ASSERT_EQ(MessageFactory_CreateRequest(&factory, "", nullptr), KVX_E_NO_MESSAGE_TYPE);
                for (KVXCIMPL_MessageObject const& message : messages) {
                    ASSERT_TRUE(isLivingMessage(message));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
