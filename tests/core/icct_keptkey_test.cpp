// Parsed keys that live on between calls: how many, for how long, and that no result depends on them.
//
// A KeyUser stands for a public object. How many keys are kept is asked through a seam, because nothing else shows it.

#include "core/icct_keptkey.h"

#include <openssl/err.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/icct.h"
#include "core/icct_keyusers.h"
#include "core/icct_modulus.h"
#include "foundation/tbforkgate.h"
#include "tests/core/coresupport.h"
#include "tests/core/icctsupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

/// Keys may be kept while one exists.
struct KeyUser {
    KeyUser() { kvxAddKeyUser(); }
    KeyUser(KeyUser const&) = delete;
    KeyUser& operator=(KeyUser const&) = delete;
    ~KeyUser() { kvxRemoveKeyUser(); }
};

struct Pair {
    Bytes m_Public;
    Bytes m_Private;
};

Pair generatedPair() {
    KeyPair const made = generate();
    return {made.publicBlob(), made.privateBlob()};
}

/// A signature of a text of its own, checked with the other half.
bool signsAndVerifies(Pair const& pair) {
    static std::atomic<int> s_Number{0};
    Bytes const text = bytesIn(std::to_string(s_Number++));
    Outcome const outcome = sign(pair.m_Private, text);
    return outcome.m_Result == 0 && verify(pair.m_Public, text, outcome.output()) == 0;
}

/// A new private key of `bits` bits.
Bytes privateBlobOf(unsigned bits) {
    PkeyHolder const key(EVP_RSA_gen(bits), &EVP_PKEY_free);
    Bytes blob(static_cast<std::size_t>(i2d_PrivateKey(key.get(), nullptr)));
    unsigned char* end = blob.data();
    EXPECT_EQ(i2d_PrivateKey(key.get(), &end), lengthOf(blob));
    return blob;
}

Pair testPair() {
    return {rsaData("key512.public"), rsaData("key512.private")};
}

TEST(KeptKeys, AreOneForEachKeyAndKind) {
    KeyUser const user;
    Pair const pair = testPair();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sign(pair.m_Private, bytesIn("abc")).output(), rsaData("key512-abc.signature"));
        EXPECT_EQ(verify(pair.m_Public, bytesIn("abc"), rsaData("key512-abc.signature")), 0);
        EXPECT_EQ(ICCT_UsableModulusBits(pair.m_Public.data(), pair.m_Public.size()), 512U);
        EXPECT_EQ(kvxCountKeptKeys(), 2U);
    }
}

TEST(KeptKeys, AreNoneWithoutAUser) {
    Pair const pair = testPair();
    EXPECT_TRUE(signsAndVerifies(pair));
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
}

TEST(KeptKeys, GoWithTheLastUser) {
    {
        KeyUser const first;
        {
            KeyUser const second;
            EXPECT_TRUE(signsAndVerifies(testPair()));
        }
        EXPECT_EQ(kvxCountKeptKeys(), 2U);
    }
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
    KeyUser const next;
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
}

TEST(KeptKeys, AreEightAtMostTheLatestOnes) {
    KeyUser const user;
    std::vector<Pair> pairs;
    for (int i = 0; i < 3 * KvxKeptKey::kMaxKeys; ++i) {
        pairs.push_back(generatedPair());
    }
    for (int round = 0; round < 2; ++round) {
        for (Pair const& pair : pairs) {
            EXPECT_TRUE(signsAndVerifies(pair));
            EXPECT_TRUE(signsAndVerifies(testPair())) << "a key in constant use";
        }
        EXPECT_EQ(kvxCountKeptKeys(), std::uint32_t{KvxKeptKey::kMaxKeys});
    }
}

// The private and the public half of other keys of the same lengths do not pass for one another.
TEST(KeptKeys, AreFoundByAllTheirBytes) {
    KeyUser const user;
    Pair const first = generatedPair();
    Pair second = generatedPair();
    while (second.m_Private.size() != first.m_Private.size()) {
        second = generatedPair();
    }
    Bytes const signature = sign(first.m_Private, bytesIn("abc")).output();
    EXPECT_EQ(verify(first.m_Public, bytesIn("abc"), signature), 0);
    EXPECT_EQ(verify(second.m_Public, bytesIn("abc"), signature), -1);
    EXPECT_NE(sign(second.m_Private, bytesIn("abc")).output(), signature);
    EXPECT_EQ(sign(first.m_Private, bytesIn("abc")).output(), signature);
}

TEST(KeptKeys, AreFoundByTheirLastByte) {
    KeyUser const user;
    Pair const pair = testPair();
    Bytes const signature = rsaData("key512-abc.signature");
    ASSERT_EQ(verify(pair.m_Public, bytesIn("abc"), signature), 0);
    Bytes otherExponent = pair.m_Public;
    otherExponent.back() = 3;
    EXPECT_EQ(verify(otherExponent, bytesIn("abc"), signature), -1);
    EXPECT_EQ(verify(firstBytes(pair.m_Public, pair.m_Public.size() - 1), bytesIn("abc"), signature), -1);
    Bytes surplus = pair.m_Public;
    surplus.push_back(0);
    EXPECT_EQ(verify(surplus, bytesIn("abc"), signature), 0);
    EXPECT_EQ(kvxCountKeptKeys(), 3U);
    ERR_clear_error();
}

TEST(KeptKeys, DoNotPassForTheOtherKind) {
    KeyUser const user;
    Pair const pair = testPair();
    ASSERT_TRUE(signsAndVerifies(pair));
    EXPECT_EQ(sign(pair.m_Public, bytesIn("abc")).m_Result, -1);
    EXPECT_EQ(verify(pair.m_Private, bytesIn("abc"), rsaData("key512-abc.signature")), -1);
    ERR_clear_error();
}

TEST(KeptKeys, AreNotThoseThatAreRefused) {
    KeyUser const user;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(verify(rsaData("key1032.public"), bytesIn("abc"), rsaData("key1032-abc.signature")), -1);
        EXPECT_EQ(sign(rsaData("key8200.private"), bytesIn("abc")).m_Result, -1);
        EXPECT_EQ(sign(bytesIn("no key"), bytesIn("abc")).m_Result, -1);
        EXPECT_EQ(kvxCountKeptKeys(), 0U);
    }
    ERR_clear_error();
}

TEST(KeptKeys, AreNotThoseTooLongForTheTable) {
    KeyUser const user;
    Bytes const key = rsaData("key8192.private");
    ASSERT_GT(key.size(), std::size_t{KvxKeptKey::kMaxBlob});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(sign(key, bytesIn("abc")).output(), rsaData("key8192-abc.signature"));
        EXPECT_EQ(kvxCountKeptKeys(), 0U);
    }
}

TEST(KeptKeys, DoNotOutliveAFailedCall) {
    KeyUser const user;
    Pair const pair = testPair();
    ASSERT_EQ(sign(pair.m_Private, bytesIn("abc")).m_Result, 0);
    ASSERT_EQ(kvxCountKeptKeys(), 1U);
    {
        LibraryCallsGuard const guard;
        libraryCalls().m_Failing = "SHA1";
        EXPECT_EQ(sign(pair.m_Private, bytesIn("abc")).m_Result, -1);
    }
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
    EXPECT_EQ(sign(pair.m_Private, bytesIn("abc")).output(), rsaData("key512-abc.signature"));
}

TEST(KeptKeys, StayThroughForgeries) {
    KeyUser const user;
    Pair const pair = testPair();
    Bytes const signature = rsaData("key512-abc.signature");
    ASSERT_EQ(verify(pair.m_Public, bytesIn("abc"), signature), 0);
    for (Bytes const& forged : {Bytes(64, 0x11), Bytes(64, 0xFF), Bytes(63, 1), Bytes()}) {
        EXPECT_EQ(verify(pair.m_Public, bytesIn("abc"), forged), -1);
        EXPECT_EQ(kvxCountKeptKeys(), 1U);
        EXPECT_EQ(verify(pair.m_Public, bytesIn("abc"), signature), 0);
    }
    ERR_clear_error();
}

TEST(KeptKeys, DoNotOutliveAFailedOperation) {
    KeyUser const user;
    Pair const pair = testPair();
    ASSERT_TRUE(signsAndVerifies(pair));
    {
        LibraryCallsGuard const guard;
        libraryCalls().m_Failing = "RSA_private_encrypt";
        Outcome const outcome = sign(pair.m_Private, bytesIn("abc"));
        EXPECT_EQ(outcome.m_Result, -1);
        EXPECT_EQ(outcome.m_Length, ULONG_MAX);
    }
    EXPECT_EQ(kvxCountKeptKeys(), 1U) << "the public half";
    EXPECT_TRUE(signsAndVerifies(pair));
}

TEST(KeptKeys, RememberTheirLastSignatures) {
    Pair const pairs[] = {testPair(), generatedPair()};
    char const* const texts[] = {"", "a", "b", "abc", "abd"};
    std::vector<Bytes> wanted;
    for (Pair const& pair : pairs) {
        for (char const* const text : texts) {
            wanted.push_back(sign(pair.m_Private, bytesIn(text)).output());
        }
    }
    KeyUser const user;
    for (int round = 0; round < 3; ++round) {
        std::size_t number = 0;
        for (Pair const& pair : pairs) {
            for (char const* const text : texts) {
                EXPECT_EQ(sign(pair.m_Private, bytesIn(text)).output(), wanted[number]) << text;
                LibraryCallsGuard const guard;
                libraryCalls().m_Failing = "RSA_private_encrypt";
                EXPECT_EQ(sign(pair.m_Private, bytesIn(text)).output(), wanted[number++]) << text << " again";
            }
        }
    }
}

TEST(KeptKeys, RememberFourSignaturesAndNoneOfOtherTexts) {
    KeyUser const user;
    Bytes const key = rsaData("key512.private");
    auto const isRemembered = [&](char const* text) {
        LibraryCallsGuard const guard;
        libraryCalls().m_Failing = "RSA_private_encrypt";
        return sign(key, bytesIn(text)).m_Result == 0;
    };
    for (char const* const text : {"1", "2", "3", "4"}) {
        ASSERT_EQ(sign(key, bytesIn(text)).m_Result, 0);
    }
    for (char const* const text : {"1", "2", "3", "4"}) {
        EXPECT_TRUE(isRemembered(text)) << text;
    }
    ASSERT_EQ(sign(key, bytesIn("5")).m_Result, 0);
    EXPECT_TRUE(isRemembered("5"));
    EXPECT_TRUE(isRemembered("2"));
    EXPECT_FALSE(isRemembered("1"));
    EXPECT_FALSE(isRemembered("5")) << "the failure has freed the key";
}

TEST(KeptKeys, RememberNothingForTheNextKeyInTheirPlace) {
    KeyUser const user;
    Bytes const first = rsaData("key512.private");
    ASSERT_EQ(sign(first, bytesIn("abc")).m_Result, 0);
    for (int i = 0; i < KvxKeptKey::kMaxKeys; ++i) {
        Pair const pair = generatedPair();
        Bytes const signature = sign(pair.m_Private, bytesIn("abc")).output();
        EXPECT_EQ(verify(pair.m_Public, bytesIn("abc"), signature), 0) << i;
    }
    EXPECT_EQ(sign(first, bytesIn("abc")).output(), rsaData("key512-abc.signature"));
}

// The result may be written over the key.
TEST(KeptKeys, SurviveAResultInTheirPlace) {
    KeyUser const user;
    Bytes const key = rsaData("key512.private");
    Bytes data = bytesIn("abc");
    for (int i = 0; i < 3; ++i) {
        Bytes buffer = key;
        unsigned long length = 0;
        ASSERT_EQ(ICCT_Signature(buffer.data(), lengthOf(buffer), data.data(), data.size(), buffer.data(), &length), 0);
        EXPECT_EQ(firstBytes(buffer, length), rsaData("key512-abc.signature"));
        EXPECT_EQ(kvxCountKeptKeys(), 1U);
    }
}

/// Threads that sign and verify with the same and with different keys; the number of wrong results.
int errorsOfThreads(int threads, int rounds, std::vector<Pair> const& pairs) {
    std::atomic<int> errors{0};
    std::vector<std::thread> running;
    for (int thread = 0; thread < threads; ++thread) {
        running.emplace_back([&, thread] {
            for (int round = 0; round < rounds; ++round) {
                Pair const& pair = pairs[static_cast<std::size_t>(thread + round) % pairs.size()];
                errors += signsAndVerifies(pair) ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    return errors;
}

TEST(KeptKeys, ServeManyThreads) {
    KeyUser const user;
    EXPECT_EQ(errorsOfThreads(2, 200, {testPair()}), 0);
    EXPECT_EQ(errorsOfThreads(12, 50, {testPair()}), 0) << "more threads than keys are kept";
    std::vector<Pair> pairs;
    for (int i = 0; i < 6; ++i) {
        pairs.push_back(generatedPair());
    }
    EXPECT_EQ(errorsOfThreads(4, 100, pairs), 0);
    EXPECT_LE(kvxCountKeptKeys(), std::uint32_t{KvxKeptKey::kMaxKeys});
}

TEST(KeptKeys, ServeThreadsWhoseUsersComeAndGo) {
    std::atomic<bool> isOver{false};
    std::thread users([&] {
        while (!isOver) {
            KeyUser const user;
        }
    });
    EXPECT_EQ(errorsOfThreads(3, 200, {testPair()}), 0);
    isOver = true;
    users.join();
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
}

TEST(KeptKeys, GoWithTheCallThatUsesThemWhenTheLastUserIsGone) {
    Bytes const key = rsaData("key512.private");
    TbForkGate const gate;
    auto user = std::make_unique<KeyUser>();
    {
        KvxKeptKey kept(KvxKeptKey::Kind::kPrivate, key.data(), lengthOf(key));
        KvxKeptKey other(KvxKeptKey::Kind::kPublic, rsaData("key512.public").data(),
                         lengthOf(rsaData("key512.public")));
        kept.keep();
        other.keep();
        EXPECT_EQ(kvxCountKeptKeys(), 0U) << "both are in use";
        user.reset();
        EXPECT_NE(kept.get(), nullptr);
        user = std::make_unique<KeyUser>();
        user.reset();
    }
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
    user = std::make_unique<KeyUser>();
    EXPECT_EQ(kvxCountKeptKeys(), 0U);
}

TEST(KeptKeys, AreParsedForTheCallWhenAllEntriesAreInUse) {
    KeyUser const user;
    Bytes const key = rsaData("key512.private");
    {
        TbForkGate const gate;
        std::vector<std::unique_ptr<KvxKeptKey>> inUse;
        for (int i = 0; i < KvxKeptKey::kMaxKeys; ++i) {
            inUse.push_back(std::make_unique<KvxKeptKey>(KvxKeptKey::Kind::kPrivate, key.data(), lengthOf(key)));
            inUse.back()->keep();
        }
        EXPECT_EQ(sign(key, bytesIn("abc")).output(), rsaData("key512-abc.signature"));
        EXPECT_EQ(kvxCountKeptKeys(), 0U);
    }
    EXPECT_EQ(kvxCountKeptKeys(), std::uint32_t{KvxKeptKey::kMaxKeys});
}

TEST(KeptKeys, DoNotRememberSignaturesLongerThanThoseOf1024Bits) {
    KeyUser const user;
    Bytes const key = privateBlobOf(1536);
    ASSERT_LE(key.size(), std::size_t{KvxKeptKey::kMaxBlob});
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(sign(key, bytesIn("abc")).m_Result, 0);
    }
    EXPECT_EQ(kvxCountKeptKeys(), 1U);
    LibraryCallsGuard const guard;
    libraryCalls().m_Failing = "RSA_private_encrypt";
    EXPECT_EQ(sign(key, bytesIn("abc")).m_Result, -1);
}

// One blinding in two processes would hide neither key.
TEST(KeptKeys, AreNotInheritedByAChild) {
    KeyUser const user;
    ASSERT_TRUE(signsAndVerifies(testPair()));
    std::atomic<bool> isOver{false};
    std::thread busy([&] {
        while (!isOver) {
            EXPECT_TRUE(signsAndVerifies(testPair()));
        }
    });
    for (int i = 0; i < 20; ++i) {
        int const status = inChildProcess(
            [] {
                if (kvxCountKeptKeys() != 0) {
                    return 1;
                }
                for (int round = 0; round < 3; ++round) {
                    if (!signsAndVerifies(testPair()) || kvxCountKeptKeys() != 2) {
                        return 2;
                    }
                }
                return 0;
            },
            std::chrono::seconds(20));
        EXPECT_EQ(status, 0);
    }
    isOver = true;
    busy.join();
    EXPECT_EQ(kvxCountKeptKeys(), 2U) << "the parent's stay";
}

TEST(KeptKeys, MayGoWhenOpensslIsGone) {
    int const status = inChildProcess([] {
        {
            KeyUser const user;
            if (!signsAndVerifies(testPair()) || kvxCountKeptKeys() != 2) {
                return 1;
            }
            OPENSSL_cleanup();
        }
        return kvxCountKeptKeys() == 0 ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
}

/// The key files of an account while keys are kept.
class ReplacedKeyFiles : public AccountTest {
protected:
    /// Writes `hex` to `file`, and gives it the time that the file had.
    void replace(std::string const& file, std::string const& hex) {
        auto const time = std::filesystem::last_write_time(m_Dir.file(file));
        auto const size = std::filesystem::file_size(m_Dir.file(file));
        write(file, hex);
        std::filesystem::last_write_time(m_Dir.file(file), time);
        ASSERT_EQ(std::filesystem::file_size(m_Dir.file(file)), size);
        ASSERT_EQ(std::filesystem::last_write_time(m_Dir.file(file)), time);
    }

    void writePair(std::string const& keyId, Pair const& pair) {
        write("keys/private/" + keyId, hexOf(pair.m_Private));
        write("keys/public/" + keyId, hexOf(pair.m_Public));
    }

    TbString signedNow() {
        TbString signature;
        m_Context.SignData("text", "own", signature);
        return signature;
    }

    KeyUser m_User;
};

TEST_F(ReplacedKeyFiles, CountAtOnceAlsoWithSizeAndTimeOfTheOldOnes) {
    Pair const old = generatedPair();
    Pair fresh = generatedPair();
    while (fresh.m_Private.size() != old.m_Private.size()) {
        fresh = generatedPair();
    }
    writePair("own", old);
    TbString const oldSignature = signedNow();
    m_Context.VerifyData("text", "own", oldSignature);
    ASSERT_EQ(kvxCountKeptKeys(), 2U);

    replace("keys/private/own", hexOf(fresh.m_Private));
    TbString const freshSignature = signedNow();
    EXPECT_FALSE(freshSignature == oldSignature);
    EXPECT_EQ(thrownCode([&] { m_Context.VerifyData("text", "own", freshSignature); }), KVX_E_INVALID_SIGNATURE);

    replace("keys/public/own", hexOf(fresh.m_Public));
    m_Context.VerifyData("text", "own", freshSignature);
    EXPECT_EQ(thrownCode([&] { m_Context.VerifyData("text", "own", oldSignature); }), KVX_E_INVALID_SIGNATURE);

    replace("keys/private/own", hexOf(old.m_Private));
    EXPECT_TRUE(signedNow() == oldSignature);
}

TEST_F(ReplacedKeyFiles, CountAtOnceWhenTheyAreDamagedOrGone) {
    writePair("own", testPair());
    TbString const signature = signedNow();
    m_Context.VerifyData("text", "own", signature);
    write("keys/private/own", "zz");
    write("keys/public/own", hexOf(firstBytes(rsaData("key512.public"), 40)));
    EXPECT_EQ(thrownCode([&] { signedNow(); }), KVX_E_INVALID_KEY);
    EXPECT_EQ(thrownCode([&] { m_Context.VerifyData("text", "own", signature); }), KVX_E_INVALID_SIGNATURE);
    std::filesystem::remove(m_Dir.file("keys/private/own"));
    std::filesystem::remove(m_Dir.file("keys/public/own"));
    EXPECT_EQ(thrownCode([&] { signedNow(); }), KVX_E_NOT_FOUND);
    EXPECT_EQ(thrownCode([&] { m_Context.VerifyData("text", "own", signature); }), KVX_E_NOT_FOUND);
    ERR_clear_error();
}

}  // namespace
