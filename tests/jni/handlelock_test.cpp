// Several Java threads calling on one object.
//
// A lock is held by a scope of the test or by a `Worker` thread; `Worker::blocks` observes that a thread is blocked, so
// no test sleeps. Whether an object is locked is found out with `kvxDestroyUnlessLocked` and a destroy function that
// only records its call. The last test does the same with native methods, a capture held up by its server.

#include "jni/kvxhandlelock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>

#include "api/cMessageObject.h"
#include "api/kvxboundary.h"
#include "tests/jni/shop.h"
#include "tests/support/processes.h"
#include "tests/support/waiting.h"
#include "tests/support/worker.h"

using namespace kvxtest;

namespace {

constexpr KvxKind kKind = KvxKind::kMessageObject;

NativeRow const& messages() {
    return rowOf(KvxNative::kMessageConstruct);
}

class Message : public JavaObject {
public:
    Message() : JavaObject(messages()) {}
};

std::vector<KVX_HANDLE> g_Destroyed;

/// A destroy function that records the object and revives it.
void recordDestroyed(KVX_HANDLE object) {
    g_Destroyed.push_back(object);
    static_cast<KvxSignature*>(object)->set(kKind);
}

/// Whether the object is locked, found out by trying to destroy it.
bool isLocked(JavaObject const& object) {
    g_Destroyed.clear();
    bool const isDone = kvxDestroyUnlessLocked(kKind, object.handle(), &recordDestroyed);
    std::vector<KVX_HANDLE> expected;
    if (isDone) {
        expected.push_back(objectOf(object.handle()));
    }
    EXPECT_EQ(g_Destroyed, expected);
    return !isDone;
}

/// Waits for an event in another thread. False on timeout.
bool happens(std::future<void> const& event) {
    return event.wait_for(kTimeout) == std::future_status::ready;
}

}  // namespace

TEST(HandleLock, FindsTheObjectOfALivingHandle) {
    Message const message;
    KvxHandleLock const lock(kKind, message.handle());
    EXPECT_EQ(lock.object(), objectOf(message.handle()));
}

TEST(HandleLock, FindsNoneForAnyOtherNumber) {
    Message const message;
    for (jint const handle : {0, 1, -1, -512, INT32_MIN, INT32_MAX, message.handle() + 4, message.handle() - 1}) {
        EXPECT_EQ(KvxHandleLock(kKind, handle).object(), nullptr) << handle;
    }
    EXPECT_EQ(KvxHandleLock(KvxKind::kMessageFactory, message.handle()).object(), nullptr);
    DestroyMessageObject(objectOf(message.handle()));
    EXPECT_EQ(KvxHandleLock(kKind, message.handle()).object(), nullptr);
}

TEST(HandleLock, MakesOtherThreadsWait) {
    Message const message;
    std::atomic<bool> isFirstDone{false};
    bool waitedForFirst = false;
    std::optional<KvxHandleLock> first;
    first.emplace(kKind, message.handle());
    {
        Worker second([&] {
            KvxHandleLock const lock(kKind, message.handle());
            waitedForFirst = isFirstDone;
            EXPECT_EQ(lock.object(), objectOf(message.handle()));
        });
        EXPECT_TRUE(second.blocks());
        isFirstDone = true;
        first.reset();
    }
    EXPECT_TRUE(waitedForFirst);
    EXPECT_FALSE(isLocked(message));
}

TEST(HandleLock, OnOneObjectDoesNotBlockAnother) {
    Message const one;
    Message const other;
    KvxHandleLock const lock(kKind, one.handle());
    bool found = false;
    Worker worker([&] { found = KvxHandleLock(kKind, other.handle()).object() == objectOf(other.handle()); });
    EXPECT_TRUE(worker.finishes());
    EXPECT_TRUE(found);
    EXPECT_FALSE(isLocked(other));
    EXPECT_TRUE(isLocked(one));
}

TEST(HandleLock, ThatFoundNoObjectBlocksNothing) {
    Message const message;
    KvxHandleLock const none(kKind, 0);
    KvxHandleLock const alsoNone(kKind, message.handle() + 1);
    EXPECT_FALSE(isLocked(message));
    KvxHandleLock const lock(kKind, message.handle());
    EXPECT_NE(lock.object(), nullptr);
}

TEST(HandleLock, IsHeldByOneOfManyThreadsAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    Message const message;
    int count = 0;  // not atomic: the lock orders the accesses
    std::atomic<int> inside{0};
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < kThreads; ++i) {
            workers.push_back(std::make_unique<Worker>([&] {
                for (int round = 0; round < kRounds; ++round) {
                    KvxHandleLock const lock(kKind, message.handle());
                    EXPECT_EQ(inside++, 0);
                    count += lock.object() == nullptr ? 0 : 1;
                    --inside;
                }
            }));
        }
    }
    EXPECT_EQ(count, kThreads * kRounds);
}

TEST(HandleLock, WakesEveryWaiterWhateverItWaitsFor) {
    Message const one;
    Message const other;
    std::optional<KvxHandleLock> first;
    std::optional<KvxHandleLock> second;
    first.emplace(kKind, one.handle());
    second.emplace(kKind, other.handle());
    Worker forOne([&] { KvxHandleLock const lock(kKind, one.handle()); });
    Worker alsoForOne([&] { KvxHandleLock const lock(kKind, one.handle()); });
    Worker forOther([&] { KvxHandleLock const lock(kKind, other.handle()); });
    EXPECT_TRUE(forOne.blocks());
    EXPECT_TRUE(alsoForOne.blocks());
    EXPECT_TRUE(forOther.blocks());
    second.reset();
    EXPECT_TRUE(forOther.finishes());
    EXPECT_TRUE(forOne.blocks());
    EXPECT_TRUE(alsoForOne.blocks());
    first.reset();
    EXPECT_TRUE(forOne.finishes());
    EXPECT_TRUE(alsoForOne.finishes());
}

TEST(HandleLock, IsReleasedInAnyOrder) {
    constexpr std::size_t kCount = 4;
    std::array<Message, kCount> objects;
    std::array<std::size_t, kCount> order = {0, 1, 2, 3};
    do {
        std::array<std::optional<KvxHandleLock>, kCount> locks;
        for (std::size_t i = 0; i < kCount; ++i) {
            locks[i].emplace(kKind, objects[i].handle());
        }
        for (std::size_t const released : order) {
            locks[released].reset();
            for (std::size_t i = 0; i < kCount; ++i) {
                ASSERT_EQ(isLocked(objects[i]), locks[i].has_value());
            }
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(HandleLock, CanBeTakenAgainWhileOthersAreHeld) {
    Message const one;
    Message const other;
    KvxHandleLock const held(kKind, one.handle());
    for (int i = 0; i < 3; ++i) {
        KvxHandleLock const brief(kKind, other.handle());
        EXPECT_NE(brief.object(), nullptr);
        EXPECT_TRUE(isLocked(other));
    }
    EXPECT_FALSE(isLocked(other));
    EXPECT_TRUE(isLocked(one));
}

TEST(HandleLock, FindsNoObjectWhenItIsDestroyedMeanwhile) {
    Message const message;
    KVX_HANDLE found = objectOf(message.handle());
    std::optional<KvxHandleLock> first;
    first.emplace(kKind, message.handle());
    {
        Worker second([&] { found = KvxHandleLock(kKind, message.handle()).object(); });
        EXPECT_TRUE(second.blocks());
        DestroyMessageObject(objectOf(message.handle()));  // as a C caller may
        first.reset();
    }
    EXPECT_EQ(found, nullptr);
}

TEST(HandleLock, OfAnotherThreadDoesNotExistInAForkedChild) {
    Message const message;
    Message const other;
    std::optional<KvxHandleLock> held;
    held.emplace(kKind, message.handle());
    std::promise<void> locked;
    std::promise<void> mayEnd;
    std::future<void> const ending = mayEnd.get_future();
    Worker const holder([&] {
        KvxHandleLock const lock(kKind, other.handle());
        locked.set_value();
        EXPECT_TRUE(happens(ending));
    });
    ASSERT_TRUE(happens(locked.get_future()));
    Worker waiting([&] { KvxHandleLock const lock(kKind, message.handle()); });
    EXPECT_TRUE(waiting.blocks());
    EXPECT_EQ(inChildProcess(
                  [&] {
                      held.reset();  // a lock taken before the fork ends without harm
                      for (Message const* object : {&message, &other}) {
                          KvxHandleLock const lock(kKind, object->handle());
                          if (lock.object() == nullptr || !isLocked(*object)) {
                              return 1;
                          }
                      }
                      return isLocked(message) || isLocked(other) ? 2 : 0;
                  },
                  std::chrono::seconds{2}),
              0);
    EXPECT_TRUE(isLocked(other));
    mayEnd.set_value();
    held.reset();
    EXPECT_TRUE(waiting.finishes());
}

TEST(HandleLock, IsTakenInEveryChildForkedBesideThreadsThatTakeIt) {
    constexpr int kForks = 100;
    Message const message;
    std::atomic<bool> isOver{false};
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 4; ++i) {
        workers.push_back(std::make_unique<Worker>([&] {
            while (!isOver) {
                KvxHandleLock const lock(kKind, message.handle());
            }
        }));
    }
    int failures = 0;
    for (int i = 0; i < kForks; ++i) {
        auto const takesLock = [&] { return KvxHandleLock(kKind, message.handle()).object() == nullptr ? 1 : 0; };
        failures += inChildProcess(takesLock, std::chrono::seconds{2}) == 0 ? 0 : 1;
    }
    isOver = true;
    EXPECT_EQ(failures, 0) << "of " << kForks;
}

TEST(DestroyUnlessLocked, RefusesInsteadOfWaiting) {
    Message const message;
    {
        KvxHandleLock const lock(kKind, message.handle());
        EXPECT_FALSE(kvxDestroyUnlessLocked(kKind, message.handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
        EXPECT_TRUE(message.isLiving());
    }
    EXPECT_TRUE(kvxDestroyUnlessLocked(kKind, message.handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
    EXPECT_FALSE(message.isLiving());
}

TEST(DestroyUnlessLocked, IgnoresEveryOtherNumber) {
    Message const message;
    KvxHandleLock const lock(kKind, message.handle());
    g_Destroyed.clear();
    for (jint const handle : {0, 1, -1, -512, INT32_MIN, INT32_MAX, message.handle() + 4}) {
        EXPECT_TRUE(kvxDestroyUnlessLocked(kKind, handle, &recordDestroyed)) << handle;
    }
    EXPECT_TRUE(kvxDestroyUnlessLocked(KvxKind::kMessageFactory, message.handle(), &recordDestroyed));
    EXPECT_TRUE(g_Destroyed.empty());
}

TEST(DestroyUnlessLocked, DestroysOnceWhenTwoThreadsTry) {
    constexpr int kObjects = 500;
    std::vector<std::unique_ptr<Message>> objects;
    for (int i = 0; i < kObjects; ++i) {
        objects.push_back(std::make_unique<Message>());
    }
    auto const destroyAll = [&] {
        for (auto const& object : objects) {
            EXPECT_TRUE(kvxDestroyUnlessLocked(kKind, object->handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
        }
    };
    {
        Worker const first(destroyAll);
        Worker const second(destroyAll);
    }
    EXPECT_TRUE(std::none_of(objects.begin(), objects.end(), [](auto const& object) { return object->isLiving(); }));
}

TEST(Natives, WaitForACallOnTheSameObjectAndCannotDestroyItMeanwhile) {
    std::promise<void> arrived;
    std::promise<void> mayAnswer;
    std::future<void> const arrival = arrived.get_future();
    std::future<void> const permission = mayAnswer.get_future();
    RawServer const server([&](Peer& peer) {
        peer.receiveRequest();
        arrived.set_value();
        EXPECT_TRUE(happens(permission));
        peer.send(httpResponse(R"(<KVX MSGTYPE="PayConfirm"/>)"));
    });
    AccountDirectory const account;
    account.setAddress("http://127.0.0.1:" + server.portText());
    FactoryHandle const factory(account.path());
    KVX_HANDLE made = nullptr;
    ASSERT_EQ(MessageFactory_CreatePayComplete(factory.get(), "id", "token", &made), KVX_OK);
    JavaObject const message(messages(), made);

    std::atomic<bool> isAnswered{false};
    bool waitedForCapture = false;
    {
        Worker const capturing([&] {
            FakeJvm jvm;
            rowOf(KvxNative::kMessageCapture).call(jvm, jvm.newObject(message.handle()), {});
            expectFine(jvm);
        });
        EXPECT_TRUE(happens(arrival));
        Worker changing([&] {
            FakeJvm jvm;
            rowOf(KvxNative::kMessageSetAttribute).call(jvm, jvm.newObject(message.handle()), {"A", "1"});
            expectFine(jvm);
            waitedForCapture = isAnswered;
        });
        EXPECT_TRUE(changing.blocks());
        FakeJvm jvm;
        NativeRow const& destruct = rowOf(KvxNative::kMessageDestruct);
        Returned const returned = destruct.call(jvm, jvm.newObject(message.handle()), {});
        expectRaised(jvm, returned, KVX_E_UNEXPECTED, "MessageObject::Destruct(): object is in use by another thread");
        isAnswered = true;
        mayAnswer.set_value();
    }
    EXPECT_TRUE(waitedForCapture);
    EXPECT_EQ(attribute(objectOf(message.handle()), "A"), "1");
    FakeJvm jvm;
    rowOf(KvxNative::kMessageDestruct).call(jvm, jvm.newObject(message.handle()), {});
    expectFine(jvm);
    EXPECT_FALSE(message.isLiving());
}
