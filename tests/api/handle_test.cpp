// Handles: which ones the flat functions accept, and that all others are refused without an effect.
//
// Refused are null, destroyed and wrong-kind handles, addresses inside objects, and memory that never held one. Each
// such handle is tried on every function of its table.

#include <array>
#include <atomic>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <thread>

#include "tests/api/apisupport.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

/// Calls every function of `kind` with `handle` and expects a refusal that touches nothing.
void expectRefused(Kind kind, KVX_HANDLE handle, std::string const& what) {
    for (FlatFunction const& function : flatFunctions()) {
        if (function.m_Kind == kind) {
            Outputs outputs;
            EXPECT_EQ(function.m_Call(handle, outputs), KVX_E_BAD_HANDLE) << function.m_Name << " with " << what;
            outputs.expectUntouched(std::string(function.m_Name) + " with " + what);
        }
    }
}

/// Whether a call without an effect accepts `handle` as a living object of `kind`.
bool isAccepted(Kind kind, KVX_HANDLE handle) {
    switch (kind) {
        case Kind::kSetup:
            return ConfigurationSetup_SetOption(handle, "nonsense", "") == KVX_E_INVALID_OPTION;
        case Kind::kFactory:
            return MessageFactory_CreateRequest(handle, "", nullptr) == KVX_E_NO_MESSAGE_TYPE;
        case Kind::kMessage:
            break;
    }
    return MessageObject_SetAttribute(handle, "", "") == KVX_E_UNEXPECTED;
}

char* bytesAt(KVX_HANDLE handle) {
    return static_cast<char*>(handle);
}

TEST(Handle, OfALivingObjectIsAccepted) {
    for (KindFunctions const& kind : allKinds()) {
        OwnedHandle const handle(kind.m_Create(), kind.m_Destroy);
        ASSERT_NE(handle.get(), nullptr);
        EXPECT_TRUE(isAccepted(kind.m_Kind, handle.get())) << kind.m_Name;
    }
}

TEST(Handle, TableHoldsAllFunctions) {
    std::ifstream file(KVX_FLAT_HEADER);
    std::string const header{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::regex const declaration(R"((ConfigurationSetup|MessageFactory|MessageObject)_\w+(?=\(KVX_HANDLE))");
    std::set<std::string> declared;
    for (std::sregex_iterator found(header.begin(), header.end(), declaration), end; found != end; ++found) {
        declared.insert(found->str());
    }
    std::set<std::string> listed;
    for (FlatFunction const& function : flatFunctions()) {
        listed.insert(function.m_Name);
    }
    EXPECT_EQ(listed, declared);
    EXPECT_EQ(flatFunctions().size(), 18U);
}

TEST(Handle, NullIsRefusedByEveryFunction) {
    for (KindFunctions const& kind : allKinds()) {
        expectRefused(kind.m_Kind, nullptr, "null");
    }
}

TEST(Handle, OfADestroyedObjectIsRefusedByEveryFunction) {
    for (KindFunctions const& kind : allKinds()) {
        KVX_HANDLE const handle = kind.m_Create();
        kind.m_Destroy(handle);
        expectRefused(kind.m_Kind, handle, "a destroyed handle");
    }
}

TEST(Handle, IsRefusedLongAfterItsObjectWasDestroyed) {
    for (KindFunctions const& kind : allKinds()) {
        KVX_HANDLE const handle = kind.m_Create();
        kind.m_Destroy(handle);
        addressesOf(kind, 1000);
        expectRefused(kind.m_Kind, handle, "a handle destroyed long ago");
    }
}

TEST(Handle, OfAnObjectThatItsOwnClassDestroyedIsRefused) {
    auto* const object = new KVXCIMPL_MessageObject;
    EXPECT_TRUE(isAccepted(Kind::kMessage, object));
    delete object;
    expectRefused(Kind::kMessage, object, "an object deleted in C++");
    auto* const factory = new KVXCIMPL_MessageFactory;
    delete factory;
    expectRefused(Kind::kFactory, factory, "a factory deleted in C++");
    auto* const setup = new KVXCIMPL_ConfigurationSetup;
    delete setup;
    expectRefused(Kind::kSetup, setup, "a setup deleted in C++");
}

TEST(Handle, OfEveryOtherKindIsRefusedByEveryFunction) {
    for (KindFunctions const& own : allKinds()) {
        for (KindFunctions const& other : allKinds()) {
            if (own.m_Kind != other.m_Kind) {
                OwnedHandle const handle(other.m_Create(), other.m_Destroy);
                expectRefused(own.m_Kind, handle.get(), std::string("the handle of a ") + other.m_Name);
                EXPECT_TRUE(isAccepted(other.m_Kind, handle.get())) << other.m_Name;
            }
        }
    }
}

TEST(Handle, ToMemoryWithoutTheSignatureWordIsRefused) {
    alignas(16) std::array<std::uint32_t, 128> words = {};
    for (std::uint32_t const word : {0U, 1U, 0xAFFEAFFFU, 0x2FFEAFFEU, 0xFEAFFEAFU, 0xFFFFFFFFU}) {
        words[0] = word;
        for (KindFunctions const& kind : allKinds()) {
            expectRefused(kind.m_Kind, words.data(), "the word " + std::to_string(word));
        }
    }
}

TEST(Handle, IntoTheMiddleOfAnObjectIsRefused) {
    for (KindFunctions const& kind : allKinds()) {
        OwnedHandle const handle(kind.m_Create(), kind.m_Destroy);
        for (int const offset : {1, 2, 3, 4, 8, 16, 63, 64, 128, 256, 511}) {
            expectRefused(kind.m_Kind, bytesAt(handle.get()) + offset,
                          "an address inside, at " + std::to_string(offset));
        }
    }
}

TEST(Handle, IntoTheMiddleIsRefusedEvenOfAnObjectThatHoldsTheSignatureWord) {
    // The word may come from outside, as text. A slot is entered at its beginning only.
    MessageHandle const handle;
    auto* const words = static_cast<std::uint32_t*>(handle.get());
    constexpr std::size_t kFree = 127;  // the last word of the slot, behind the object
    static_assert(sizeof(KVXCIMPL_MessageObject) <= kFree * sizeof(std::uint32_t));
    words[kFree] = 0xAFFEAFFEU;
    for (KindFunctions const& kind : allKinds()) {
        expectRefused(kind.m_Kind, words + kFree, "the word inside a slot");
    }
    words[kFree] = 0;
}

TEST(Handle, ToASlotThatNeverHeldAnObjectIsRefused) {
    for (KindFunctions const& kind : allKinds()) {
        OwnedHandle const handle(kind.m_Create(), kind.m_Destroy);
        for (int slots = 1; slots <= 4; ++slots) {
            KVX_HANDLE const other = bytesAt(handle.get()) + 512 * slots;
            if (!isAccepted(kind.m_Kind, other)) {
                expectRefused(kind.m_Kind, other, "a free slot");
            }
        }
    }
}

TEST(Handle, OfAnObjectBuiltByACxxCallerOutsideTheSlotsIsAccepted) {
    KVXCIMPL_ConfigurationSetup setup;
    KVXCIMPL_MessageFactory factory;
    KVXCIMPL_MessageObject message;
    EXPECT_TRUE(isAccepted(Kind::kSetup, &setup));
    EXPECT_TRUE(isAccepted(Kind::kFactory, &factory));
    EXPECT_TRUE(isAccepted(Kind::kMessage, &message));

    std::vector<KVXCIMPL_MessageObject> several(3);
    for (KVXCIMPL_MessageObject& object : several) {
        EXPECT_TRUE(isAccepted(Kind::kMessage, &object));
    }
    struct Shop {
        KVXCIMPL_MessageFactory m_Factory;
    };
    auto const shop = std::make_unique<Shop>();
    EXPECT_TRUE(isAccepted(Kind::kFactory, &shop->m_Factory));
}

/// Builds and destroys an object in memory of its caller.
template <class Object>
void expectRefusedOnceDestroyedInPlace(Kind kind) {
    alignas(Object) unsigned char place[sizeof(Object)];
    auto* const object = new (place) Object;
    EXPECT_TRUE(isAccepted(kind, object));
    object->~Object();
    expectRefused(kind, place, "destroyed in place");
}

TEST(Handle, OfAnObjectInACallersOwnMemoryIsRefusedOnceItIsDestroyed) {
    expectRefusedOnceDestroyedInPlace<KVXCIMPL_ConfigurationSetup>(Kind::kSetup);
    expectRefusedOnceDestroyedInPlace<KVXCIMPL_MessageFactory>(Kind::kFactory);
    expectRefusedOnceDestroyedInPlace<KVXCIMPL_MessageObject>(Kind::kMessage);
}

TEST(Handle, OfACxxObjectWorksThroughBothFaces) {
    AccountDirectory const account;
    KVXCIMPL_MessageFactory factory;
    EXPECT_EQ(MessageFactory_Open(&factory, account.path().c_str()), KVX_OK);
    OwnedMessage const message(factory.CreateRequest("Probe"));
    EXPECT_EQ(attribute(message.get(), "MSGTYPE"), "Probe");
    EXPECT_EQ(MessageObject_SetAttribute(message.get(), "A", "1"), KVX_OK);
    TbString value;
    message->GetAttribute("A", value);
    EXPECT_EQ(bytesOf(value), "1");
}

TEST(DestroyFunction, IgnoresNull) {
    for (KindFunctions const& kind : allKinds()) {
        kind.m_Destroy(nullptr);
    }
}

TEST(DestroyFunction, IgnoresASecondCall) {
    for (KindFunctions const& kind : allKinds()) {
        KVX_HANDLE const first = kind.m_Create();
        kind.m_Destroy(first);
        kind.m_Destroy(first);
        OwnedHandle const second(kind.m_Create(), kind.m_Destroy);
        OwnedHandle const third(kind.m_Create(), kind.m_Destroy);
        EXPECT_NE(second.get(), third.get()) << kind.m_Name;
        kind.m_Destroy(first);
        EXPECT_TRUE(isAccepted(kind.m_Kind, second.get())) << kind.m_Name;
        EXPECT_TRUE(isAccepted(kind.m_Kind, third.get())) << kind.m_Name;
    }
}

TEST(DestroyFunction, IgnoresAHandleOfAnotherKind) {
    for (KindFunctions const& own : allKinds()) {
        OwnedHandle const handle(own.m_Create(), own.m_Destroy);
        for (KindFunctions const& other : allKinds()) {
            if (own.m_Kind != other.m_Kind) {
                other.m_Destroy(handle.get());
                EXPECT_TRUE(isAccepted(own.m_Kind, handle.get()))
                    << own.m_Name << " after destroying a " << other.m_Name;
            }
        }
    }
}

TEST(DestroyFunction, IgnoresAnObjectThatItDidNotMake) {
    KVXCIMPL_ConfigurationSetup setup;
    KVXCIMPL_MessageFactory factory;
    KVXCIMPL_MessageObject message;
    DestroyConfigurationSetup(&setup);
    DestroyMessageFactory(&factory);
    DestroyMessageObject(&message);
    EXPECT_TRUE(isAccepted(Kind::kSetup, &setup));
    EXPECT_TRUE(isAccepted(Kind::kFactory, &factory));
    EXPECT_TRUE(isAccepted(Kind::kMessage, &message));
}

TEST(DestroyFunction, IgnoresAnAddressInsideAnObject) {
    for (KindFunctions const& kind : allKinds()) {
        OwnedHandle const handle(kind.m_Create(), kind.m_Destroy);
        for (int const offset : {1, 4, 8, 256}) {
            kind.m_Destroy(bytesAt(handle.get()) + offset);
        }
        EXPECT_TRUE(isAccepted(kind.m_Kind, handle.get())) << kind.m_Name;
    }
}

TEST(DestroyFunction, TakesAnObjectOfItsOwnKindThatACxxCallerMadeWithNew) {
    auto* const message = new KVXCIMPL_MessageObject;
    DestroyMessageObject(message);
    EXPECT_FALSE(isAccepted(Kind::kMessage, message));
}

TEST(DestroyFunction, DestroysOnceWhenTwoThreadsCallItAtOnce) {
    constexpr int kRounds = 20;
    constexpr int kHandles = 2000;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<KVX_HANDLE> handles;
        for (int i = 0; i < kHandles; ++i) {
            handles.push_back(CreateMessageObject());
        }
        std::atomic<int> ready{0};
        auto const destroyAll = [&] {
            ++ready;
            while (ready != 2) {
                std::this_thread::yield();
            }
            for (KVX_HANDLE const handle : handles) {
                DestroyMessageObject(handle);
            }
        };
        std::thread other(destroyAll);
        destroyAll();
        other.join();
    }
    // A slot freed twice would be used twice.
    std::set<void*> living;
    for (std::size_t i = wholeCycle(allKinds().back()).size() + 2000; i > 0; --i) {
        EXPECT_TRUE(living.insert(CreateMessageObject()).second);
    }
    for (void* const handle : living) {
        DestroyMessageObject(handle);
    }
}

}  // namespace
