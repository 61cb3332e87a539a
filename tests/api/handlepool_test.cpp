// The pools of public objects: low addresses, late reuse, bounded memory, many threads, exhaustion.
//
// Addresses are collected by creating and destroying objects. Exhaustion is tried in a child process, since slots are
// never given back to the system.

#include <algorithm>
#include <limits>
#include <thread>

#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

/// Freed slots that stay unused.
constexpr int kQuarantine = 1024;

class Living {
public:
    explicit Living(KindFunctions const& kind) : m_Kind(kind) {}
    Living(Living const&) = delete;
    Living& operator=(Living const&) = delete;
    ~Living() {
        for (KVX_HANDLE const handle : m_Handles) {
            m_Kind.m_Destroy(handle);
        }
    }

    /// One more; null when there is no memory.
    KVX_HANDLE create() {
        KVX_HANDLE const handle = m_Kind.m_Create();
        if (handle != nullptr) {
            m_Handles.push_back(handle);
        }
        return handle;
    }

    [[nodiscard]] std::vector<KVX_HANDLE> const& handles() const { return m_Handles; }

private:
    KindFunctions m_Kind;
    std::vector<KVX_HANDLE> m_Handles;
};

TEST(HandlePool, GivesAddressesThatArePositiveIn32Bits) {
    for (KindFunctions const& kind : allKinds()) {
        Living living(kind);
        for (int i = 0; i < 5000; ++i) {
            auto const address = reinterpret_cast<std::uintptr_t>(living.create());
            ASSERT_NE(address, 0U);
            ASSERT_LE(address, static_cast<std::uintptr_t>(std::numeric_limits<std::int32_t>::max())) << kind.m_Name;
        }
    }
}

TEST(HandlePool, GivesLivingObjectsDifferentAddressesAcrossKinds) {
    std::set<void*> addresses;
    std::vector<std::unique_ptr<Living>> kinds;
    for (KindFunctions const& kind : allKinds()) {
        kinds.push_back(std::make_unique<Living>(kind));
        for (int i = 0; i < 3000; ++i) {
            EXPECT_TRUE(addresses.insert(kinds.back()->create()).second) << kind.m_Name;
        }
    }
}

TEST(HandlePool, DoesNotReuseAnAddressDuringTheNext1024Creations) {
    for (KindFunctions const& kind : allKinds()) {
        // With all that earlier tests have freed in use again, no more slots are free than must be.
        Living others(kind);
        for (std::size_t i = wholeCycle(kind).size(); i > 0; --i) {
            others.create();
        }
        KVX_HANDLE const old = kind.m_Create();
        kind.m_Destroy(old);
        EXPECT_EQ(addressesOf(kind, kQuarantine).count(old), 0U) << kind.m_Name;
        EXPECT_EQ(addressesOf(kind, 1).count(old), 1U) << kind.m_Name << ", but then it is";
    }
}

TEST(HandlePool, ReusesTheAddressThatHasBeenFreeLongest) {
    KindFunctions const& kind = allKinds().back();
    auto const others = static_cast<int>(wholeCycle(kind).size()) - 1;
    EXPECT_GE(others, kQuarantine);
    KVX_HANDLE const old = kind.m_Create();
    kind.m_Destroy(old);
    EXPECT_EQ(addressesOf(kind, others).count(old), 0U);
    OwnedHandle const next(kind.m_Create(), kind.m_Destroy);
    EXPECT_EQ(next.get(), old);
}

TEST(HandlePool, DoesNotGrowOverAMillionCreations) {
    for (KindFunctions const& kind : allKinds()) {
        std::set<void*> const before = wholeCycle(kind);
        for (int i = 0; i < 1000000; ++i) {
            kind.m_Destroy(kind.m_Create());
        }
        EXPECT_EQ(wholeCycle(kind), before) << kind.m_Name;
    }
}

TEST(HandlePool, ServesManyThreadsAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    constexpr std::size_t kAtOnce = 16;
    std::vector<std::vector<KVX_HANDLE>> last(kThreads);
    std::vector<std::thread> threads;
    for (auto& mine : last) {
        threads.emplace_back([&mine] {
            for (int round = 0; round < kRounds; ++round) {
                KindFunctions const& kind = allKinds()[static_cast<std::size_t>(round) % 3];
                KVX_HANDLE const passing = kind.m_Create();
                ASSERT_NE(passing, nullptr);
                mine.push_back(CreateMessageObject());
                ASSERT_EQ(MessageObject_FromString(mine.back(), "<KVX A=\"1\"/>"), KVX_OK);
                kind.m_Destroy(passing);
                if (mine.size() > kAtOnce) {
                    KVX_HANDLE const oldest = mine.front();
                    mine.erase(mine.begin());
                    ASSERT_EQ(attribute(oldest, "A"), "1");
                    DestroyMessageObject(oldest);
                    ASSERT_EQ(MessageObject_Capture(oldest), KVX_E_BAD_HANDLE);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<void*> living;
    for (auto const& mine : last) {
        for (KVX_HANDLE const handle : mine) {
            EXPECT_TRUE(living.insert(handle).second);
            EXPECT_EQ(attribute(handle, "A"), "1");
            DestroyMessageObject(handle);
        }
    }
    EXPECT_EQ(living.size(), kThreads * kAtOnce);
}

TEST(HandlePool, ExhaustedMakesTheCreateFunctionsReturnNull) {
    for (KindFunctions const& kind : allKinds()) {
        Living living(kind);
        ASSERT_NE(living.create(), nullptr) << "the first one maps memory";
        {
            FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
            while (living.create() != nullptr) {
            }
            EXPECT_EQ(kind.m_Create(), nullptr) << kind.m_Name;
        }
        EXPECT_GE(living.handles().size(), 256U) << "what was mapped is used up first";
        EXPECT_NE(living.create(), nullptr) << kind.m_Name << " once there is memory again";
    }
}

TEST(HandlePool, IsExhaustedWhereNoLowAddressIsLeft) {
    static std::uintptr_t s_Highest;
    s_Highest = 0;
    SystemCalls system;
    system->mmap = [](void* where, std::size_t bytes, int, int, int, off_t) {
        s_Highest = std::max(s_Highest, reinterpret_cast<std::uintptr_t>(where) + bytes - 1);
        errno = EEXIST;
        return MAP_FAILED;
    };
    Living living(allKinds().back());
    while (living.create() != nullptr) {
    }
    EXPECT_LE(s_Highest, std::uintptr_t{0xFFFFFFFFU});
    EXPECT_GT(s_Highest, std::uintptr_t{0xF0000000U}) << "up to 4 GiB";
}

// Some kernels take the wanted address as a hint only.
TEST(HandlePool, GivesMemoryBackThatLiesElsewhereThanItAskedFor) {
    static constexpr std::size_t kElsewhere = 3;
    using Mappings = std::vector<std::pair<void*, std::size_t>>;
    static Mappings s_Mapped;
    static Mappings s_Unmapped;
    s_Mapped.clear();
    s_Unmapped.clear();
    SystemCalls system;
    system->mmap = [](void* where, std::size_t bytes, int access, int flags, int file, off_t offset) {
        if (where == nullptr) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
        if (s_Mapped.size() == kElsewhere) {
            return ::mmap(where, bytes, access, flags, file, offset);
        }
        void* const memory = ::mmap(nullptr, bytes, access, flags & ~MAP_FIXED_NOREPLACE, file, offset);
        s_Mapped.emplace_back(memory, bytes);
        return memory;
    };
    system->munmap = [](void* memory, std::size_t bytes) {
        s_Unmapped.emplace_back(memory, bytes);
        return ::munmap(memory, bytes);
    };
    Living living(allKinds().back());
    while (s_Mapped.empty()) {
        ASSERT_NE(living.create(), nullptr);
    }
    EXPECT_EQ(s_Mapped.size(), kElsewhere);
    EXPECT_EQ(s_Unmapped, s_Mapped);
    EXPECT_LE(reinterpret_cast<std::uintptr_t>(living.handles().back()), std::uintptr_t{0xFFFFFFFFU});
    EXPECT_EQ(MessageObject_FromString(living.handles().back(), "<KVX A=\"1\"/>"), KVX_OK);
}

TEST(HandlePool, ExhaustedRaisesOutOfMemoryFromEveryCallThatMakesAnObject) {
    AccountDirectory const account;
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(account.path()));
    std::unique_ptr<KVXCIMPL_MessageObject> const sender(factory.CreateRequest("T"));
    TbString const type("T");
    Living living(allKinds().back());
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    while (living.create() != nullptr) {
    }
    EXPECT_EQ(thrownCode([&] { (void)factory.CreateRequest(type); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([&] { (void)factory.CreatePayComplete(type, type); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([&] { (void)factory.VerifyPayConfirm(type, type); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(thrownCode([&] { (void)sender->Execute(); }), KVX_E_OUT_OF_MEMORY);
    KVX_HANDLE out = nullptr;
    EXPECT_EQ(MessageObject_Execute(sender.get(), &out), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(out, nullptr);
}

TEST(HandlePool, RefusesAnObjectThatIsLargerThanASlot) {
    EXPECT_EQ(thrownCode([] { kvxTakeSlot(KvxKind::kMessageObject, 513); }), KVX_E_OUT_OF_MEMORY);
    void* const slot = kvxTakeSlot(KvxKind::kMessageObject, 512);
    kvxGiveSlot(KvxKind::kMessageObject, slot);
    kvxGiveSlot(KvxKind::kMessageObject, nullptr);
}

}  // namespace
