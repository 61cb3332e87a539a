// Exceptions of other kinds inside the flat functions when memory runs out.
//
// Each allocation fails in turn, in every function. The tests hold the outputs to their marks and count living objects.

#include "foundation/tbexception.h"
#include "foundation/tbobject.h"
#include "tests/api/apisupport.h"
#include "tests/support/allocations.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;

namespace {

/// Runs `call` with its first, second, third ... allocation failing until it succeeds, as often as it takes.
/// Every failure must be a TBFC_Exception and leave the outputs alone. Returns how many there were.
long expectMemoryExhaustionPasses(char const* what, std::function<std::int32_t(Outputs&)> const& call) {
    for (long number = 0; number < 100000; ++number) {
        std::int32_t const living = TbRefCounter::m_nTotalRef;
        Outputs outputs;
        std::int32_t result = KVX_OK;
        bool passed = false;
        bool reached = false;
        {
            FailingAllocation const failing(number, FailingAllocation::Mode::kAllFromThere);
            try {
                result = call(outputs);
            } catch (TBFC_Exception const& failure) {
                EXPECT_EQ(failure.code(), KVX_E_OUT_OF_MEMORY) << what;
                passed = true;
            }
            reached = FailingAllocation::requested() > number;
        }
        if (!reached) {
            EXPECT_EQ(result, KVX_OK) << what;
            return number;
        }
        if (passed) {
            outputs.expectUntouched(what);
            EXPECT_EQ(TbRefCounter::m_nTotalRef, living) << what << ", allocation " << number;
        } else {
            EXPECT_EQ(result, KVX_E_OUT_OF_MEMORY) << what << ", allocation " << number;
        }
    }
    ADD_FAILURE() << what << " never succeeded";
    return 0;
}

TEST(ForeignException, PassesThroughTheFlatFunctions) {
    RawServer const server(httpResponse(R"(<KVX MSGTYPE="TResponse"/>)"));
    AccountDirectory const account;
    account.setAddress("http://127.0.0.1:" + server.portText());
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
        {"SetConfiguration",
         [&](Outputs&) { return ConfigurationSetup_SetConfiguration(setup.get(), account.path().c_str()); }},
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
        {"SetAttribute", [&](Outputs&) { return MessageObject_SetAttribute(message.get(), "MSGTYPE", "T"); }},
    };
    for (Row const& row : rows) {
        EXPECT_GT(expectMemoryExhaustionPasses(row.m_Name, row.m_Call), 0) << row.m_Name;
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
        try {
            FailingAllocation const failing(number, FailingAllocation::Mode::kAllFromThere);
            MadeMessage answer;
            (void)MessageObject_Execute(request.get(), answer.out());
            reached = FailingAllocation::requested() > number;
        } catch (TBFC_Exception const& failure) {
            EXPECT_EQ(failure.code(), KVX_E_OUT_OF_MEMORY);
            reached = true;
            ++failures;
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

}  // namespace
