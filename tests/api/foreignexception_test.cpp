// Exceptions inside the flat functions: each becomes a code.
//
// Each allocation fails in turn, in every function. The tests hold the outputs to their marks and count living objects.
// Exceptions that the library does not throw by itself are thrown inside the boundary's helper. The last tests run out
// of memory for real, in a process with little address space.

#include <pthread.h>
#include <semaphore.h>
#include <sys/resource.h>

#include <fstream>
#include <new>
#include <stdexcept>

#include "api/kvxboundary.h"
#include "foundation/tbexception.h"
#include "foundation/tbobject.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/processes.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;

namespace {

/// Longer than what a message has room for from the beginning.
std::string const kLongValue(2000, 'x');

/// Runs `call` with its first, second, third ... allocation failing until it succeeds, as often as it takes.
/// Every failure must be a result and leave the outputs alone. Returns how many there were.
long expectMemoryExhaustionIsReturned(char const* what, std::function<std::int32_t(Outputs&)> const& call) {
    for (long number = 0; number < 100000; ++number) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        Outputs outputs;
        std::int32_t result = KVX_OK;
        bool reached = false;
        {
            FailingAllocation const failing(number, FailingAllocation::Mode::kAllFromThere);
            EXPECT_NO_THROW(result = call(outputs)) << what << ", allocation " << number;
            reached = FailingAllocation::requested() > number;
        }
        if (!reached) {
            EXPECT_EQ(result, KVX_OK) << what;
            return number;
        }
        EXPECT_EQ(result, KVX_E_OUT_OF_MEMORY) << what << ", allocation " << number;
        outputs.expectUntouched(what);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << what << ", allocation " << number;
    }
    ADD_FAILURE() << what << " never succeeded";
    return 0;
}

/// The result of a flat function inside which `raise` throws.
std::int32_t resultOfThrowing(void (*raise)()) {
    MessageHandle const message;
    return kvxRun<KVXCIMPL_MessageObject>(message.get(), [&](auto&) { raise(); });
}

/// Lets this process have `bytes` more of address space than it has now.
bool limitAddressSpace(std::size_t bytes) {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlim_t const limit = pages * 4096 + bytes;
    rlimit const both = {limit, limit};
    return ::setrlimit(RLIMIT_AS, &both) == 0;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCanLimitMemory = false;  // a sanitizer's own allocator ends the process
#else
constexpr bool kCanLimitMemory = true;
#endif

TEST(ForeignException, OfMissingMemoryBecomesACodeInEveryFunction) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse"/>)"));
    AccountDirectory const account;
    account.setAddress("http://127.0.0.1:" + server.portText());
    std::string const path = account.path() + std::string(64, '/');  // longer than an object has room for
    std::string const signature = account.sign(kConfirmation);
    SetupHandle const setup;
    ASSERT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), account.path().c_str()), KVX_OK);
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", message.out()), KVX_OK);

    auto const made = [](std::int32_t result, Outputs const& outputs) {
        if (result == KVX_OK) {
            DestroyMessageObject(outputs.m_Out);
        }
        return result;
    };
    struct Row {
        char const* m_Name;
        std::function<std::int32_t(Outputs&)> m_Call;
    };
    std::vector<Row> const rows = {
        {"SetConfiguration", [&](Outputs&) { return ConfigurationSetup_SetConfiguration(setup.get(), path.c_str()); }},
        {"SetOption", [&](Outputs&) { return ConfigurationSetup_SetOption(setup.get(), "UserName", "u"); }},
        {"SetAttribute",
         [&](Outputs&) { return ConfigurationSetup_SetAttribute(setup.get(), "config.xml", "NEW", "1"); }},
        {"Open", [&](Outputs&) { return MessageFactory_Open(factory.get(), account.path().c_str()); }},
        {"CreatePayInit", [&](Outputs& o) { return made(MessageFactory_CreatePayInit(factory.get(), &o.m_Out), o); }},
        {"VerifyPayConfirm",
         [&](Outputs& o) {
             return made(MessageFactory_VerifyPayConfirm(factory.get(), kConfirmation, signature.c_str(), &o.m_Out), o);
         }},
        {"CreatePayComplete",
         [&](Outputs& o) { return made(MessageFactory_CreatePayComplete(factory.get(), "i", "t", &o.m_Out), o); }},
        {"CreateRequest",
         [&](Outputs& o) { return made(MessageFactory_CreateRequest(factory.get(), "T", &o.m_Out), o); }},
        {"SetAttribute", [&](Outputs&) { return MessageObject_SetAttribute(message.get(), "A", kLongValue.c_str()); }},
        {"Open",
         [&](Outputs&) {
             MessageHandle const opened;
             return opened.get() == nullptr ? KVX_E_OUT_OF_MEMORY
                                            : MessageObject_Open(opened.get(), account.path().c_str());
         }},
        {"FromString",
         [&](Outputs&) {
             MessageHandle const filled;
             return filled.get() == nullptr ? KVX_E_OUT_OF_MEMORY
                                            : MessageObject_FromString(filled.get(), kConfirmation);
         }},
    };
    for (Row const& row : rows) {
        EXPECT_GT(expectMemoryExhaustionIsReturned(row.m_Name, row.m_Call), 0) << row.m_Name;
    }
}

TEST(ForeignException, LeavesTheObjectsUsable) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse"/>)"));
    AccountDirectory const account;
    account.setAddress("http://127.0.0.1:" + server.portText());
    FactoryHandle const factory(account.path());
    long failures = 0;
    for (long number = 0;; ++number) {
        ASSERT_LT(number, 100000);
        MadeMessage request;
        ASSERT_EQ(MessageFactory_CreateRequest(factory.get(), "T", request.out()), KVX_OK);
        bool reached = false;
        {
            FailingAllocation const failing(number, FailingAllocation::Mode::kAllFromThere);
            MadeMessage answer;
            std::int32_t const result = MessageObject_Execute(request.get(), answer.out());
            reached = FailingAllocation::requested() > number;
            EXPECT_EQ(result, reached ? KVX_E_OUT_OF_MEMORY : KVX_OK);
            failures += reached ? 1 : 0;
        }
        ASSERT_EQ(MessageObject_SetAttribute(request.get(), "MSGTYPE", "T"), KVX_OK);
        if (!reached) {
            break;
        }
        if (number % 16 == 0) {
            MadeMessage answer;
            EXPECT_EQ(MessageObject_Execute(request.get(), answer.out()), KVX_OK) << "after failure " << number;
        }
    }
    EXPECT_GT(failures, 20);
}

TEST(ForeignException, BecomesACode) {
    EXPECT_EQ(resultOfThrowing([] { throw TBFC_Exception(KVX_E_OUT_OF_MEMORY); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(resultOfThrowing([] { throw TBFC_Exception(KVX_E_OUT_OF_RANGE); }), KVX_E_OUT_OF_RANGE);
    EXPECT_EQ(resultOfThrowing([] { throw TBFC_Exception(KVX_E_DUPLICATE_KEY); }), KVX_E_DUPLICATE_KEY);
    EXPECT_EQ(resultOfThrowing([] { throw std::bad_alloc(); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(resultOfThrowing([] { throw std::bad_array_new_length(); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(resultOfThrowing([] { throw std::runtime_error("other"); }), KVX_E_UNEXPECTED);
    EXPECT_EQ(resultOfThrowing([] { throw 1; }), KVX_E_UNEXPECTED);
}

TEST(ForeignException, InAConstructorMakesCreatingReturnNull) {
    struct Failing {
        Failing() { throw std::runtime_error("other"); }
    };
    EXPECT_EQ(kvxCreate<Failing>(), nullptr);
}

TEST(ForeignException, OfMissingMemoryPassesThroughTheClasses) {
    KVXCIMPL_MessageObject message;
    TbString const text(kConfirmation);
    FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
    EXPECT_THROW(message.FromString(text), TBFC_Exception);
}

TEST(ForeignException, OfMissingMemoryGivesNoErrorText) {
    Outputs outputs;
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        int result = 1;
        EXPECT_NO_THROW(result =
                            KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &outputs.m_Size, outputs.m_Buffer));
        EXPECT_EQ(result, 0);
    }
    outputs.expectUntouched("no memory for the text");
}

TEST(ForeignException, LetsAThreadBeCancelled) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a cancellation is an exception without an address, which counts as a reference to null";
#endif
    static sem_t never;
    ASSERT_EQ(::sem_init(&never, 0, 0), 0);
    pthread_t thread = {};
    ASSERT_EQ(::pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      resultOfThrowing([] { ::sem_wait(&never); });
                      return nullptr;
                  },
                  nullptr),
              0);
    EXPECT_EQ(::pthread_cancel(thread), 0);
    void* result = nullptr;
    EXPECT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(ExhaustedAddressSpace, IsTheResultOfACaptureWithAnEndlessResponse) {
    if (!kCanLimitMemory) {
        GTEST_SKIP() << "no address space to limit";
    }
    RawServer const server([](Peer& peer) {
        peer.receiveRequest();
        peer.send("HTTP/1.0 200 OK\r\n\r\n<KVX A=\"");
        std::string const much(1 << 16, 'a');
        while (peer.send(much)) {
        }
    });
    AccountDirectory const account;
    account.setAddress("http://127.0.0.1:" + server.portText());
    FactoryHandle const factory(account.path());
    MadeMessage message;
    ASSERT_EQ(MessageFactory_CreatePayComplete(factory.get(), "id", "token", message.out()), KVX_OK);
    EXPECT_EQ(inChildProcess([&] {
                  if (!limitAddressSpace(std::size_t{64} << 20)) {
                      return 1;
                  }
                  return MessageObject_Capture(message.get()) == KVX_E_OUT_OF_MEMORY ? 0 : 2;
              }),
              0);
}

}  // namespace
