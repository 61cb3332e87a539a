// OpenSSL runs out of memory at each of its allocations, once and from then on, in a working process and in a fresh
// one.
//
// A good confirmation must never look forged then, and a good key never bad: each call succeeds or reports that memory
// is lacking. A program of its own, because OpenSSL takes other memory functions only before its first allocation.

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/icct.h"
#include "core/icct_keyusers.h"
#include "net/kvxmemorywatch.h"
#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

long g_Failing = -1;  ///< The allocation that fails, from 0; none.
bool g_Always = false;
long g_Count = 0;

bool fails() {
    long const number = g_Count++;
    bool const isFailing = g_Failing >= 0 && (g_Always ? number >= g_Failing : number == g_Failing);
    if (isFailing) {
        errno = ENOMEM;  // as the C library's allocator does
    }
    return isFailing;
}

/// Set before main(), ahead of every use of OpenSSL.
bool const g_Installed =
    CRYPTO_set_mem_functions([](std::size_t bytes, char const*, int) { return fails() ? nullptr : std::malloc(bytes); },
                             [](void* memory, std::size_t bytes, char const*, int) {
                                 return fails() ? nullptr : std::realloc(memory, bytes);
                             },
                             [](void* memory, char const*, int) { std::free(memory); }) == 1;

struct Operation {
    char const* m_Name;
    void (*m_Run)(KVX_Context& context, TbString const& signature);
};

constexpr Operation kOperations[] = {
    {"VerifyData",
     [](KVX_Context& context, TbString const& signature) { context.VerifyData("text", "own", signature); }},
    {"SignData",
     [](KVX_Context& context, TbString const&) {
         TbString made;
         context.SignData("text", "own", made);
     }},
    {"GenKey",
     [](KVX_Context& context, TbString const&) {
         TbString keyId("new");
         context.GenKey(keyId);
     }},
};

/// The code of an operation whose allocation number `failing` fails. `reached` becomes false behind the last one.
std::int32_t codeWhenFailing(Operation const& operation, Account& account, TbString const& signature, long failing,
                             bool always, bool& reached) {
    g_Count = 0;
    g_Always = always;
    g_Failing = failing;
    std::int32_t const code = thrownCode([&] { operation.m_Run(account.m_Context, signature); });
    g_Failing = -1;
    reached = g_Count > failing;
    return code;
}

TEST(OpensslMemory, LackingIsNeverABadSignatureNorABadKey) {
    ASSERT_TRUE(g_Installed);
    Merchant account;
    WithoutSync const quick;
    TbString const signature(signedElsewhere("text", Widening::kWithSign).c_str());
    for (Operation const& operation : kOperations) {
        operation.m_Run(account.m_Context, signature);
        for (bool const always : {false, true}) {
            long failing = 0;
            bool reached = true;
            for (; reached; ++failing) {
                ASSERT_LT(failing, 5000);
                std::int32_t const code = codeWhenFailing(operation, account, signature, failing, always, reached);
                // Some allocations are for entries of the error queue alone, so a call may succeed without them.
                EXPECT_TRUE(code == KVX_OK || (always && code == KVX_E_OUT_OF_MEMORY))
                    << operation.m_Name << (always ? ", from " : ", at ") << failing << ": " << code;
            }
            EXPECT_GT(failing, 20) << operation.m_Name;
        }
    }
    ERR_clear_error();
}

// A failure in the middle of an operation disorders the blinding of its key, which must not serve a later call.
TEST(OpensslMemory, LackingLeavesNoKeyBehindThatSignsWrongly) {
    Bytes const key = dataBytes("rsa/key512.private.hex");
    Bytes const other = dataBytes("rsa/key512.public.hex");
    std::uint32_t number = 0;
    Bytes data(sizeof number);
    unsigned char signature[1024];
    unsigned long length = 0;
    auto const signs = [&] {
        ++number;  // other bytes each time: a key remembers its last signatures
        std::memcpy(data.data(), &number, sizeof number);
        return ICCT_Signature(key.data(), static_cast<int>(key.size()), data.data(), data.size(), signature, &length) ==
               0;
    };
    auto const isRight = [&] {
        return ICCT_Verify(other.data(), static_cast<int>(other.size()), data.data(), data.size(), signature, length) ==
               0;
    };
    kvxAddKeyUser();
    int refusals = 0;
    bool reached = true;
    for (long failing = 0; reached; ++failing) {
        ASSERT_TRUE(signs() && isRight());
        std::uint32_t const kept = kvxCountKeptKeys();
        ASSERT_EQ(kept, 2U) << "both halves";
        g_Count = 0;
        g_Always = false;
        g_Failing = failing;
        bool const succeeded = signs();
        g_Failing = -1;
        reached = g_Count > failing;
        refusals += succeeded ? 0 : 1;
        EXPECT_EQ(kvxCountKeptKeys(), succeeded ? kept : kept - 1) << failing;
        EXPECT_TRUE(!succeeded || isRight()) << failing;
        for (int i = 0; i < 40; ++i) {  // more than the uses of one blinding
            EXPECT_TRUE(signs() && isRight()) << failing << ", then " << i;
        }
    }
    kvxRemoveKeyUser();
    EXPECT_GT(refusals, 3);
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
    ERR_clear_error();
}

TEST(OpensslMemory, LackingInAFreshProcessIsNeverABadSignature) {
    Merchant account;
    // Made by another process: this one must not have used OpenSSL before it is copied, in a run of this test alone.
    int const made = inChildProcess([&] {
        account.write("signature", signedElsewhere("text", Widening::kWithSign));
        return 0;
    });
    ASSERT_EQ(made, 0);
    TbString const signature(account.read("signature").c_str());
    for (bool const always : {false, true}) {
        for (long failing = 0; failing < 120; ++failing) {
            int const status = inChildProcess([&] {
                bool reached = true;
                std::int32_t const code = codeWhenFailing(kOperations[0], account, signature, failing, always, reached);
                return code == KVX_OK || code == KVX_E_OUT_OF_MEMORY ? 0 : 1;
            });
            EXPECT_EQ(status, 0) << (always ? "from " : "at ") << failing;
        }
    }
}

TEST(OpensslMemory, InPlentyLeavesForgeriesForgeries) {
    Merchant account;
    TbString const signature(signedElsewhere("text", Widening::kWithSign).c_str());
    ERR_clear_error();
    EXPECT_EQ(thrownCode([&] { account.m_Context.VerifyData("other text", "own", signature); }),
              KVX_E_INVALID_SIGNATURE);
    account.write("keys/public/own", "3048");
    EXPECT_EQ(thrownCode([&] { account.m_Context.VerifyData("text", "own", signature); }), KVX_E_INVALID_SIGNATURE);
    account.write("keys/private/own", "3048");
    TbString made;
    EXPECT_EQ(thrownCode([&] { account.m_Context.SignData("text", "own", made); }), KVX_E_CRYPTO);
    kvxNoteLackOfMemory();
    EXPECT_EQ(thrownCode([&] { account.m_Context.SignData("text", "own", made); }), KVX_E_CRYPTO) << "after a shortage";
    ERR_clear_error();
}

}  // namespace
