// Several threads of Java's on one object.

#include "jni/kvxuse.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>

#include "api/cMessageObject.h"
#include "api/kvxboundary.h"
#include "tests/jni/shop.h"
#include "tests/jni/worker.h"

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

/// Stands in for destroying: notes the object and brings it back to life.
void noteDestroyed(KVX_HANDLE object) {
    g_Destroyed.push_back(object);
    static_cast<KvxSignature*>(object)->set();
}

/// Whether the object is in use; told by an attempt to destroy it that does nothing.
bool isInUse(JavaObject const& object) {
    g_Destroyed.clear();
    bool const isDone = kvxDestroyUnlessInUse(kKind, object.handle(), &noteDestroyed);
    std::vector<KVX_HANDLE> expected;
    if (isDone) {
        expected.push_back(objectOf(object.handle()));
    }
    EXPECT_EQ(g_Destroyed, expected);
    return !isDone;
}

/// Waits for something that another thread does. False when patience is over.
bool comes(std::future<void> const& event) {
    return event.wait_for(std::chrono::seconds(kPatienceSeconds)) == std::future_status::ready;
}

}  // namespace

TEST(Use, FindsTheObjectOfALivingHandle) {
    Message const message;
    KvxUse const use(kKind, message.handle());
    EXPECT_EQ(use.object(), objectOf(message.handle()));
}

TEST(Use, FindsNoneForAnyOtherNumber) {
    Message const message;
    for (jint const handle : {0, 1, -1, -512, INT32_MIN, INT32_MAX, message.handle() + 4, message.handle() - 1}) {
        EXPECT_EQ(KvxUse(kKind, handle).object(), nullptr) << handle;
    }
    EXPECT_EQ(KvxUse(KvxKind::kMessageFactory, message.handle()).object(), nullptr);
    DestroyMessageObject(objectOf(message.handle()));
    EXPECT_EQ(KvxUse(kKind, message.handle()).object(), nullptr);
}

TEST(Use, MakesOtherThreadsWaitForTheirTurn) {
    Message const message;
    std::atomic<bool> isFirstDone{false};
    bool waitedForFirst = false;
    std::optional<KvxUse> first;
    first.emplace(kKind, message.handle());
    {
        Worker second([&] {
            KvxUse const use(kKind, message.handle());
            waitedForFirst = isFirstDone;
            EXPECT_EQ(use.object(), objectOf(message.handle()));
        });
        EXPECT_TRUE(second.waits());
        isFirstDone = true;
        first.reset();
    }
    EXPECT_TRUE(waitedForFirst);
    EXPECT_FALSE(isInUse(message));
}

TEST(Use, OfOneObjectDoesNotHoldUpAnother) {
    Message const one;
    Message const other;
    KvxUse const use(kKind, one.handle());
    bool found = false;
    Worker worker([&] { found = KvxUse(kKind, other.handle()).object() == objectOf(other.handle()); });
    EXPECT_TRUE(worker.finishes());
    EXPECT_TRUE(found);
    EXPECT_FALSE(isInUse(other));
    EXPECT_TRUE(isInUse(one));
}

TEST(Use, ThatFoundNoObjectHoldsUpNothing) {
    Message const message;
    KvxUse const none(kKind, 0);
    KvxUse const alsoNone(kKind, message.handle() + 1);
    EXPECT_FALSE(isInUse(message));
    KvxUse const use(kKind, message.handle());
    EXPECT_NE(use.object(), nullptr);
}

TEST(Use, IsTakenInTurnByManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    Message const message;
    int count = 0;  // not atomic: the uses keep the threads apart
    std::atomic<int> inside{0};
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < kThreads; ++i) {
            workers.push_back(std::make_unique<Worker>([&] {
                for (int round = 0; round < kRounds; ++round) {
                    KvxUse const use(kKind, message.handle());
                    EXPECT_EQ(inside++, 0);
                    count += use.object() == nullptr ? 0 : 1;
                    --inside;
                }
            }));
        }
    }
    EXPECT_EQ(count, kThreads * kRounds);
}

TEST(Use, WakesEveryWaiterWhateverItWaitsFor) {
    Message const one;
    Message const other;
    std::optional<KvxUse> first;
    std::optional<KvxUse> second;
    first.emplace(kKind, one.handle());
    second.emplace(kKind, other.handle());
    Worker forOne([&] { KvxUse const use(kKind, one.handle()); });
    Worker alsoForOne([&] { KvxUse const use(kKind, one.handle()); });
    Worker forOther([&] { KvxUse const use(kKind, other.handle()); });
    EXPECT_TRUE(forOne.waits());
    EXPECT_TRUE(alsoForOne.waits());
    EXPECT_TRUE(forOther.waits());
    second.reset();
    EXPECT_TRUE(forOther.finishes());
    EXPECT_TRUE(forOne.waits());
    EXPECT_TRUE(alsoForOne.waits());
    first.reset();
    EXPECT_TRUE(forOne.finishes());
    EXPECT_TRUE(alsoForOne.finishes());
}

TEST(Use, EndsInAnyOrder) {
    constexpr std::size_t kCount = 4;
    std::array<Message, kCount> objects;
    std::array<std::size_t, kCount> order = {0, 1, 2, 3};
    do {
        std::array<std::optional<KvxUse>, kCount> uses;
        for (std::size_t i = 0; i < kCount; ++i) {
            uses[i].emplace(kKind, objects[i].handle());
        }
        for (std::size_t const ending : order) {
            uses[ending].reset();
            for (std::size_t i = 0; i < kCount; ++i) {
                ASSERT_EQ(isInUse(objects[i]), uses[i].has_value());
            }
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Use, CanBeginAgainWhileOthersLast) {
    Message const one;
    Message const other;
    KvxUse const lasting(kKind, one.handle());
    for (int i = 0; i < 3; ++i) {
        KvxUse const passing(kKind, other.handle());
        EXPECT_NE(passing.object(), nullptr);
        EXPECT_TRUE(isInUse(other));
    }
    EXPECT_FALSE(isInUse(other));
    EXPECT_TRUE(isInUse(one));
}

TEST(Use, OfAnObjectThatIsDestroyedMeanwhileFindsNone) {
    Message const message;
    KVX_HANDLE found = objectOf(message.handle());
    std::optional<KvxUse> first;
    first.emplace(kKind, message.handle());
    {
        Worker second([&] { found = KvxUse(kKind, message.handle()).object(); });
        EXPECT_TRUE(second.waits());
        DestroyMessageObject(objectOf(message.handle()));  // as a caller from C may
        first.reset();
    }
    EXPECT_EQ(found, nullptr);
}

TEST(DestroyUnlessInUse, WaitsForNoUseButRefuses) {
    Message const message;
    {
        KvxUse const use(kKind, message.handle());
        EXPECT_FALSE(kvxDestroyUnlessInUse(kKind, message.handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
        EXPECT_TRUE(message.isLiving());
    }
    EXPECT_TRUE(kvxDestroyUnlessInUse(kKind, message.handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
    EXPECT_FALSE(message.isLiving());
}

TEST(DestroyUnlessInUse, IgnoresEveryOtherNumber) {
    Message const message;
    KvxUse const use(kKind, message.handle());
    g_Destroyed.clear();
    for (jint const handle : {0, 1, -1, -512, INT32_MIN, INT32_MAX, message.handle() + 4}) {
        EXPECT_TRUE(kvxDestroyUnlessInUse(kKind, handle, &noteDestroyed)) << handle;
    }
    EXPECT_TRUE(kvxDestroyUnlessInUse(KvxKind::kMessageFactory, message.handle(), &noteDestroyed));
    EXPECT_TRUE(g_Destroyed.empty());
}

TEST(DestroyUnlessInUse, DestroysOnceWhenTwoThreadsTry) {
    constexpr int kObjects = 500;
    std::vector<std::unique_ptr<Message>> objects;
    for (int i = 0; i < kObjects; ++i) {
        objects.push_back(std::make_unique<Message>());
    }
    auto const destroyAll = [&] {
        for (auto const& object : objects) {
            EXPECT_TRUE(kvxDestroyUnlessInUse(kKind, object->handle(), &kvxDeleteClaimed<KVXCIMPL_MessageObject>));
        }
    };
    {
        Worker const first(destroyAll);
        Worker const second(destroyAll);
    }
    EXPECT_TRUE(std::none_of(objects.begin(), objects.end(), [](auto const& object) { return object->isLiving(); }));
}

TEST(Natives, WaitForACallOnTheSameObjectAndAreNotPulledFromUnderIt) {
    std::promise<void> arrived;
    std::promise<void> mayAnswer;
    std::future<void> const arrival = arrived.get_future();
    std::future<void> const permission = mayAnswer.get_future();
    RawServer const server([&](Peer& peer) {
        peer.receiveRequest();
        arrived.set_value();
        EXPECT_TRUE(comes(permission));
        peer.send(httpAnswer(R"(<KVX MSGTYPE="PayConfirm"/>)"));
    });
    AccountDir const account;
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
        EXPECT_TRUE(comes(arrival));
        Worker changing([&] {
            FakeJvm jvm;
            rowOf(KvxNative::kMessageSetAttribute).call(jvm, jvm.newObject(message.handle()), {"A", "1"});
            expectFine(jvm);
            waitedForCapture = isAnswered;
        });
        EXPECT_TRUE(changing.waits());
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
