// Every native method with good and bad handles and arguments.
//
// All tests walk the table of native methods. Handles: 0, random numbers, destroyed objects, objects of another kind,
// addresses inside an object, addresses above 2 GiB. Arguments: null and empty. Results: the core's failure on a new
// object with its code and text, and success with an account and a server.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <limits>
#include <random>
#include <utility>

#include "foundation/tbobject.h"
#include "jni/kvxhandlelock.h"
#include "tests/jni/shop.h"
#include "tests/support/processes.h"
#include "tests/support/random.h"

using namespace kvxtest;

namespace {

constexpr char kNoField[] = "member m_Handle not found";
constexpr char kInvalidHandle[] = "Invalid Handle";
constexpr char kHandleNotZero[] = "m_Handle != 0";

/// Numbers that are not the handle of a living object, 0 among them.
std::vector<jint> foreignNumbers() {
    using Limits = std::numeric_limits<jint>;
    std::vector<jint> numbers = {0, 1, 2, 4, 511, 512, 4096, -1, -2, -4, -512, Limits::max(), Limits::min()};
    std::mt19937_64 random(testSeed());
    for (int i = 0; i < 200; ++i) {
        numbers.push_back(static_cast<jint>(static_cast<std::uint32_t>(random())));
    }
    return numbers;
}

/// Calls a method of an object with this handle and expects that it refuses the handle.
void expectHandleRefused(NativeRow const& row, jint handle) {
    SCOPED_TRACE(row.name() + " with " + std::to_string(handle) + ", seed " + std::to_string(testSeed()));
    FakeJvm jvm;
    jobject const self = jvm.newObject(handle);
    Returned const returned = row.callBare(jvm, self);
    if (row.constructs()) {
        expectRaised(jvm, returned, KVX_E_UNEXPECTED, std::string(row.m_HandlePrefix) + kHandleNotZero);
    } else if (row.destructs()) {
        expectFine(jvm);
    } else {
        expectRaised(jvm, returned, KVX_E_UNEXPECTED, std::string(row.m_HandlePrefix) + kInvalidHandle);
    }
    EXPECT_EQ(jvm.handleOf(self), handle);
}

/// Calls a method so that it fails: a constructor because the handle is not 0, a destructor because the object is
/// locked, any other because the object is destroyed.
void makeFail(NativeRow const& row, FakeJvm& jvm) {
    JavaObject const object(row);
    if (row.destructs()) {
        KvxHandleLock const lock(row.m_Kind, object.handle());
        row.callBare(jvm, jvm.newObject(object.handle()));
        return;
    }
    row.m_Destroy(objectOf(object.handle()));
    row.callBare(jvm, jvm.newObject(object.handle()));
}

/// The complete result of a call.
struct CallResult {
    std::string m_Class;
    std::int32_t m_Code = 0;
    std::string m_ExceptionText;
    std::string m_Text;

    bool operator==(CallResult const& other) const {
        return m_Class == other.m_Class && m_Code == other.m_Code && m_ExceptionText == other.m_ExceptionText &&
               m_Text == other.m_Text;
    }
};

/// Calls a method with these arguments on an object of `shop` or, without one, on a new object.
CallResult resultOf(NativeRow const& row, Shop const* shop, std::function<jstring(FakeJvm&)> const& argument) {
    FakeJvm jvm;
    JavaObject const object(row, shop == nullptr ? row.m_Create() : shop->create(row));
    jobject const self = jvm.newObject(object.handle());
    Returned const returned = row.m_Call(jvm.env(), self, {argument(jvm), argument(jvm), argument(jvm)});
    if (row.m_MakesObject && returned.m_Number != 0) {
        DestroyMessageObject(objectOf(returned.m_Number));
    }
    return {jvm.pendingClass(), jvm.pendingCode(), jvm.pendingText(),
            returned.m_Text == nullptr ? "" : jvm.textOf(returned.m_Text)};
}

}  // namespace

TEST(Natives, HaveTheTextsThatJavaReliesOn) {
    ASSERT_EQ(nativeRows().size(), 24U);
    EXPECT_EQ(kKvxNativeCount, 24U);
    for (std::size_t i = 0; i < nativeRows().size(); ++i) {
        NativeRow const& row = nativeRows()[i];
        EXPECT_EQ(static_cast<std::size_t>(row.m_Native), i) << row.name();
        KvxNativeTexts const& texts = kvxTextsOf(row.m_Native);
        EXPECT_STREQ(texts.m_Class, row.m_Class) << row.name();
        EXPECT_STREQ(texts.m_Method, row.m_Method) << row.name();
        EXPECT_STREQ(texts.m_HandlePrefix, row.m_HandlePrefix) << row.name();
        EXPECT_STREQ(texts.m_FailurePrefix, row.m_FailurePrefix) << row.name();
    }
}

TEST(Natives, RefuseAnObjectWithoutTheField) {
    for (NativeRow const& row : nativeRows()) {
        SCOPED_TRACE(row.name());
        JavaObject const object(row);
        FakeJvm jvm;
        jvm.removeHandleField();
        jobject const self = jvm.newObject(row.constructs() ? 0 : object.handle());
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        Returned const returned = row.callBare(jvm, self);
        if (row.destructs()) {
            expectFine(jvm);
        } else {
            expectRaised(jvm, returned, KVX_E_UNEXPECTED, std::string(row.m_HandlePrefix) + kNoField);
        }
        EXPECT_TRUE(object.isLiving());
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living);
    }
}

TEST(Natives, RefuseEveryNumberThatIsNotAHandle) {
    for (NativeRow const& row : nativeRows()) {
        for (jint const handle : foreignNumbers()) {
            if (!row.constructs() || handle != 0) {
                expectHandleRefused(row, handle);
            }
        }
    }
}

TEST(Natives, RefuseTheHandleOfADestroyedObject) {
    for (NativeRow const& row : nativeRows()) {
        JavaObject const object(row);
        row.m_Destroy(objectOf(object.handle()));
        expectHandleRefused(row, object.handle());
    }
}

TEST(Natives, RefuseTheHandleOfAnotherKind) {
    for (NativeRow const& row : nativeRows()) {
        for (KvxNative const maker :
             {KvxNative::kSetupConstruct, KvxNative::kFactoryConstruct, KvxNative::kMessageConstruct}) {
            JavaObject const other(rowOf(maker));
            if (rowOf(maker).m_Kind != row.m_Kind) {
                expectHandleRefused(row, other.handle());
                EXPECT_TRUE(other.isLiving()) << row.name();
            }
        }
    }
}

TEST(Natives, RefuseAnAddressInsideAnObject) {
    for (NativeRow const& row : nativeRows()) {
        JavaObject const object(row);
        for (int const offset : {1, 4, 8, 256, -1, -4}) {
            expectHandleRefused(row, object.handle() + offset);
        }
        EXPECT_TRUE(object.isLiving()) << row.name();
    }
}

TEST(Natives, RefuseToConstructOverALivingObject) {
    for (NativeRow const& row : nativeRows()) {
        if (row.constructs()) {
            JavaObject const object(row);
            std::int32_t const living = TbRefCounter::m_nTotalRef;
            expectHandleRefused(row, object.handle());
            EXPECT_TRUE(object.isLiving()) << row.name();
            EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << row.name();
        }
    }
}

TEST(Natives, RefuseToDestructALockedObject) {
    for (NativeRow const& row : nativeRows()) {
        if (row.destructs()) {
            SCOPED_TRACE(row.name());
            JavaObject const object(row);
            FakeJvm jvm;
            jobject const self = jvm.newObject(object.handle());
            {
                KvxHandleLock const lock(row.m_Kind, object.handle());
                Returned const returned = row.callBare(jvm, self);
                expectRaised(jvm, returned, KVX_E_UNEXPECTED,
                             std::string(row.m_HandlePrefix) + "object is in use by another thread");
            }
            EXPECT_TRUE(object.isLiving());
            FakeJvm later;
            row.callBare(later, later.newObject(object.handle()));
            expectFine(later);
            EXPECT_FALSE(object.isLiving());
        }
    }
}

TEST(Natives, RefuseNullArgumentsInThreeMethods) {
    std::vector<std::string> names;
    for (NativeRow const& row : nativeRows()) {
        if (row.m_NullRefusal != nullptr) {
            names.push_back(row.name());
        }
    }
    EXPECT_EQ(names, (std::vector<std::string>{"ConfigurationSetup.SetOption", "ConfigurationSetup.SetAttribute",
                                               "MessageObject.SetAttribute"}));
}

TEST(Natives, CheckForNullArgumentsBeforeTheHandle) {
    for (NativeRow const& row : nativeRows()) {
        if (row.m_NullRefusal == nullptr) {
            continue;
        }
        JavaObject const object(row);
        // Every combination with at least one null argument.
        for (unsigned present = 0; present + 1 < 1U << row.m_ArgumentCount; ++present) {
            for (jint const handle : {object.handle(), 0, -1}) {
                for (bool const hasField : {true, false}) {
                    SCOPED_TRACE(row.name() + ", arguments " + std::to_string(present) + ", handle " +
                                 std::to_string(handle));
                    FakeJvm jvm;
                    if (!hasField) {
                        jvm.removeHandleField();
                    }
                    Arguments arguments = {};
                    for (std::size_t i = 0; i < arguments.size(); ++i) {
                        arguments[i] = (present >> i & 1U) != 0 ? jvm.newString("v") : nullptr;
                    }
                    Returned const returned = row.m_Call(jvm.env(), jvm.newObject(handle), arguments);
                    expectRaised(jvm, returned, KVX_E_UNEXPECTED, std::string(row.m_HandlePrefix) + row.m_NullRefusal);
                }
            }
        }
    }
}

TEST(Natives, CountOtherNullArgumentsAsEmpty) {
    Shop const shop;
    WorkingDirectory const here(shop.path());
    auto const null = [](FakeJvm&) -> jstring { return nullptr; };
    auto const empty = [](FakeJvm& jvm) { return jvm.newString(""); };
    for (NativeRow const& row : nativeRows()) {
        if (row.m_NullRefusal == nullptr && row.m_ArgumentCount != 0) {
            EXPECT_TRUE(resultOf(row, nullptr, null) == resultOf(row, nullptr, empty)) << row.name();
            EXPECT_TRUE(resultOf(row, &shop, null) == resultOf(row, &shop, empty)) << row.name();
        }
    }
    // A set-up without address and credentials uses the configured address and succeeds.
    CallResult const result = resultOf(rowOf(KvxNative::kSetupReconfigure), &shop, null);
    EXPECT_EQ(result.m_Class, "") << result.m_ExceptionText;
}

TEST(Natives, EndTheVirtualMachineWithoutTheExceptionClass) {
    for (NativeRow const& row : nativeRows()) {
        FakeJvm jvm;
        jvm.removeExceptionClass();
        makeFail(row, jvm);
        EXPECT_EQ(jvm.fatalErrors(), std::vector<std::string>{"Class kelvane/tallowin/KVXException not found"})
            << row.name();
        EXPECT_EQ(jvm.pendingClass(), "") << row.name();
    }
}

TEST(Natives, EndTheVirtualMachineWhenTheExceptionLacksAMethod) {
    for (NativeRow const& row : nativeRows()) {
        for (char const* const method : {"<init>", "putHR", "putErrorMessage"}) {
            FakeJvm jvm;
            jvm.removeExceptionMethod(method);
            makeFail(row, jvm);
            EXPECT_EQ(jvm.fatalErrors(), std::vector<std::string>{"Incompatible class kelvane/tallowin/KVXException"})
                << row.name() << " without " << method;
            EXPECT_EQ(jvm.pendingClass(), "") << row.name();
        }
    }
}

TEST(Natives, RaiseTheCoresCodeAndText) {
    TemporaryDirectory const nowhere;
    WorkingDirectory const here(nowhere.path());
    for (NativeRow const& row : nativeRows()) {
        if (row.constructs() || row.destructs()) {
            continue;
        }
        SCOPED_TRACE(row.name());
        JavaObject const object(row);
        FakeJvm jvm;
        jobject const self = jvm.newObject(object.handle());
        Returned const returned = row.callBare(jvm, self);
        if (row.m_BareCode == KVX_OK) {
            expectFine(jvm);
        } else {
            expectRaised(jvm, returned, row.m_BareCode, std::string(row.m_FailurePrefix) + row.m_BareText);
        }
        EXPECT_TRUE(object.isLiving());
        EXPECT_EQ(jvm.handleOf(self), object.handle());
    }
}

TEST(Natives, AllSucceed) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        SCOPED_TRACE(row.name());
        FakeJvm jvm;
        ShopCall call(shop, row, jvm);
        call.run();
        call.expectSuccess();
    }
}

TEST(Natives, PassTheirArgumentsInOrder) {
    Shop const shop;
    FakeJvm jvm;
    auto const run = [&](KvxNative native, jint handle, std::array<std::string, 3> const& texts) {
        Returned const returned = rowOf(native).call(jvm, jvm.newObject(handle), texts);
        expectFine(jvm);
        return returned;
    };
    auto const text = [&](KvxNative native, jint handle, std::array<std::string, 3> const& texts) {
        jstring const found = run(native, handle, texts).m_Text;
        return found == nullptr ? "null" : jvm.textOf(found);
    };

    JavaObject const setup(rowOf(KvxNative::kSetupConstruct));
    run(KvxNative::kSetupSetConfiguration, setup.handle(), {shop.path()});
    run(KvxNative::kSetupSetAttribute, setup.handle(), {"config.xml", "NEW", "\xc3\xa9"});
    EXPECT_EQ(text(KvxNative::kSetupGetAttribute, setup.handle(), {"config.xml", "NEW"}), "\xc3\xa9");

    JavaObject const factory(rowOf(KvxNative::kFactoryConstruct));
    run(KvxNative::kFactoryOpen, factory.handle(), {shop.path()});
    NativeRow const& messages = rowOf(KvxNative::kMessageConstruct);
    JavaObject const completion(
        messages,
        objectOf(run(KvxNative::kFactoryCreatePayComplete, factory.handle(), {"the id", "the token"}).m_Number));
    EXPECT_EQ(text(KvxNative::kMessageGetAttribute, completion.handle(), {"ID"}), "the id");
    EXPECT_EQ(text(KvxNative::kMessageGetAttribute, completion.handle(), {"TOKEN"}), "the token");
    run(KvxNative::kMessageSetAttribute, completion.handle(), {"NAME", "value"});
    EXPECT_EQ(text(KvxNative::kMessageGetAttribute, completion.handle(), {"NAME"}), "value");
    run(KvxNative::kMessageFromString, completion.handle(), {R"(<KVX B="2"/>)"});
    EXPECT_EQ(text(KvxNative::kMessageToString, completion.handle(), {}), R"(<KVX B="2" KEYID="own"/>)");

    JavaObject const opened(messages);
    run(KvxNative::kMessageOpen, opened.handle(), {shop.path()});
    EXPECT_EQ(text(KvxNative::kMessageToString, opened.handle(), {}), R"(<KVX MSGTYPE="ERROR" KEYID="own"/>)");
}

TEST(Natives, ReturnTextThatIsNotUtf8AsLatin1) {
    JavaObject const message(rowOf(KvxNative::kMessageConstruct));
    ASSERT_EQ(MessageObject_FromString(objectOf(message.handle()), "<KVX A=\"caf\xe9 \xf0\x9f\x98\x80\"/>"), KVX_OK);
    FakeJvm jvm;
    Returned const returned = rowOf(KvxNative::kMessageGetAttribute).call(jvm, jvm.newObject(message.handle()), {"A"});
    expectFine(jvm);
    ASSERT_NE(returned.m_Text, nullptr);
    EXPECT_EQ(jvm.textOf(returned.m_Text), "caf\xc3\xa9 \xed\xa0\xbd\xed\xb8\x80");
}

TEST(Natives, LeakNoSlotWhenCreatingObjectsSucceedsOrFails) {
    Shop const shop;
    for (NativeRow const& row : nativeRows()) {
        if (!row.m_MakesObject) {
            continue;
        }
        SCOPED_TRACE(row.name());
        (void)wholeCycle(allKinds().back());  // afterwards a new slot is needed only when one more is in use at once
        expectNoSlotIsLost(5, [&] {
            {
                FakeJvm jvm;
                ShopCall call(shop, row, jvm);
                call.run();
                call.expectSuccess();
            }
            FakeJvm jvm;
            JavaObject const bare(row);
            row.callBare(jvm, jvm.newObject(bare.handle()));
            EXPECT_FALSE(jvm.isFine());
        });
    }
}

TEST(Natives, UseNegativeNumbersForObjectsAboveTwoGiB) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer reserves these addresses";
#endif
    enum Status { kWorks, kNothingHigh, kBadHandle, kFailed, kNotDestroyed };
    int const status = inChildProcess([] {
        // Occupies all addresses below 2 GiB, so that new slots lie above.
        constexpr std::uintptr_t kSmallest = 65536;
        std::function<void(std::uintptr_t, std::uintptr_t)> const occupy = [&](std::uintptr_t begin,
                                                                               std::uintptr_t bytes) {
            void* const got = ::mmap(reinterpret_cast<void*>(begin), bytes, PROT_NONE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
            if (got == MAP_FAILED && bytes > kSmallest) {
                occupy(begin, bytes / 2);
                occupy(begin + bytes / 2, bytes / 2);
            }
        };
        for (std::uintptr_t begin = kSmallest; begin < std::uintptr_t{1} << 31; begin *= 2) {
            occupy(begin, begin);
        }
        NativeRow const& construct = rowOf(KvxNative::kMessageConstruct);
        for (int i = 0; i < 100000; ++i) {
            FakeJvm jvm;
            jobject const self = jvm.newObject(0);
            construct.callBare(jvm, self);
            jint const handle = jvm.handleOf(self);
            if (handle >= 0) {
                continue;
            }
            if (!kvxIsLivingInSlot(construct.m_Kind, objectOf(handle))) {
                return kBadHandle;
            }
            rowOf(KvxNative::kMessageFromString).call(jvm, self, {R"(<KVX A="1"/>)"});
            Returned const returned = rowOf(KvxNative::kMessageGetAttribute).call(jvm, self, {"A"});
            if (!jvm.isFine() || returned.m_Text == nullptr || jvm.textOf(returned.m_Text) != "1") {
                return kFailed;
            }
            rowOf(KvxNative::kMessageDestruct).callBare(jvm, self);
            return kvxIsLivingInSlot(construct.m_Kind, objectOf(handle)) ? kNotDestroyed : kWorks;
        }
        return kNothingHigh;
    });
    EXPECT_EQ(status, kWorks);
}
