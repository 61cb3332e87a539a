// How the RSA functions fail: OpenSSL refuses a step, an algorithm is missing, an argument is null or out of range.
//
// Steps fail through definitions that replace those of OpenSSL (icctsupport.h). OpenSSL's error queue belongs to the
// caller: the functions add entries on failure and remove none.

#include "core/icct.h"

#include <openssl/err.h>

#include <climits>
#include <utility>

#include "tests/core/icctsupport.h"

using namespace kvxtest;

namespace {

constexpr int kMarkerReason = 42;

void startQueueWithMarker() {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, kMarkerReason);
}

bool queueStartsWithMarker() {
    unsigned long const oldest = ERR_peek_error();
    return ERR_GET_LIB(oldest) == ERR_LIB_USER && ERR_GET_REASON(oldest) == kMarkerReason;
}

TEST(GenerateKeys, FailsWithEachStepThatFails) {
    for (char const* const step : {"RSA_new_method", "RSA_new", "BN_new", "BN_set_word", "RSA_generate_key_ex"}) {
        SCOPED_TRACE(step);
        LibraryCallsGuard const guard;
        libraryCalls().m_Failing = step;
        KeyPair const pair = generate();
        EXPECT_EQ(pair.m_Result, -1);
        EXPECT_EQ(pair.m_PublicLength, 0);
        EXPECT_EQ(pair.m_PrivateLength, 0);
    }
}

TEST(GenerateKeys, StoresTheEncodersResultAlsoWhenItIsAFailure) {
    LibraryCallsGuard const guard;
    libraryCalls().m_Failing = "i2d_RSAPublicKey";
    KeyPair const first = generate();
    EXPECT_EQ(first.m_Result, -1);
    EXPECT_EQ(first.m_PublicLength, -1);
    EXPECT_EQ(first.m_PrivateLength, 0);

    libraryCalls().m_Failing = "i2d_RSAPrivateKey";
    KeyPair const second = generate();
    EXPECT_EQ(second.m_Result, -1);
    EXPECT_EQ(static_cast<std::size_t>(second.m_PublicLength), derLength(second.m_PublicBuffer));
    EXPECT_EQ(second.m_PrivateLength, -1);
    EXPECT_EQ(libraryCalls().m_Additions, 0);
}

TEST(GenerateKeys, FailsWithoutARandomGenerator) {
    WithoutAlgorithms const guard;
    EXPECT_EQ(generate().m_Result, -1);
    ERR_clear_error();
}

TEST(GenerateKeys, RefusesNullPointersAndNegativeSeedLengths) {
    LibraryCallsGuard const guard;
    KeyPair pair;
    unsigned char* const pub = pair.m_PublicBuffer.data();
    unsigned char* const priv = pair.m_PrivateBuffer.data();
    unsigned char seed = 1;
    EXPECT_EQ(ICCT_GenerateKeys(nullptr, &pair.m_PublicLength, priv, &pair.m_PrivateLength, nullptr, 0), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, nullptr, priv, &pair.m_PrivateLength, nullptr, 0), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, &pair.m_PublicLength, nullptr, &pair.m_PrivateLength, nullptr, 0), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, &pair.m_PublicLength, priv, nullptr, nullptr, 0), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, &pair.m_PublicLength, priv, &pair.m_PrivateLength, nullptr, 1), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, &pair.m_PublicLength, priv, &pair.m_PrivateLength, &seed, -1), -1);
    EXPECT_EQ(ICCT_GenerateKeys(pub, &pair.m_PublicLength, priv, &pair.m_PrivateLength, &seed, INT_MIN), -1);
    EXPECT_EQ(libraryCalls().m_Seedings, 0);
}

TEST(Signature, FailsWithoutADigest) {
    Bytes const key = rsaData("key512.private");
    LibraryCallsGuard const guard;
    libraryCalls().m_Failing = "SHA1";
    Outcome const outcome = sign(key, bytesIn("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.bufferIsUntouched());
}

TEST(Verify, FailsWithoutADigest) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    {
        LibraryCallsGuard const guard;
        libraryCalls().m_Failing = "SHA1";
        EXPECT_EQ(verify(key, bytesIn("abc"), signature), -1);
    }
    EXPECT_EQ(verify(key, bytesIn("abc"), signature), 0);
}

TEST(Verify, FailsWhereTheLibraryHasNoAlgorithms) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    {
        WithoutAlgorithms const guard;
        EXPECT_EQ(verify(key, bytesIn("abc"), signature), -1);
    }
    ERR_clear_error();
    EXPECT_EQ(verify(key, bytesIn("abc"), signature), 0);
}

TEST(Signature, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes const key = rsaData("key512.private");
    Bytes data = bytesIn("abc");
    Bytes out(64);
    unsigned long length = kUntouchedLength;
    int const keyLength = lengthOf(key);
    EXPECT_EQ(ICCT_Signature(nullptr, 0, data.data(), 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(nullptr, keyLength, data.data(), 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), 0, data.data(), 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), -1, data.data(), 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), INT_MIN, data.data(), 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), keyLength, nullptr, 3, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), keyLength, data.data(), kTooLong, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), keyLength, data.data(), ULONG_MAX, out.data(), &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), keyLength, data.data(), 3, nullptr, &length), -1);
    EXPECT_EQ(ICCT_Signature(key.data(), keyLength, data.data(), 3, out.data(), nullptr), -1);
    EXPECT_EQ(length, kUntouchedLength);
    EXPECT_EQ(out, Bytes(64));
}

TEST(Verify, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes const key = rsaData("key512.public");
    Bytes data = bytesIn("abc");
    Bytes signature = rsaData("key512-abc.signature");
    int const keyLength = lengthOf(key);
    EXPECT_EQ(ICCT_Verify(nullptr, 0, data.data(), 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(nullptr, keyLength, data.data(), 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), 0, data.data(), 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), -1, data.data(), 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), INT_MIN, data.data(), 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, nullptr, 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, data.data(), kTooLong, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, data.data(), 3, nullptr, 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, data.data(), 3, nullptr, 0), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, data.data(), 3, signature.data(), kTooLong), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, data.data(), 3, signature.data(), ULONG_MAX), -1);
    Bytes empty = rsaData("key512-empty.signature");
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, nullptr, 0, empty.data(), 64), 0);
}

#if ULONG_MAX > UINT_MAX
// A length cut to 32 bits would be 3 and 64 again, and verify.
TEST(Verify, DoesNotCutLengthsTo32Bits) {
    Bytes const key = rsaData("key512.public");
    Bytes data = bytesIn("abc");
    Bytes signature = rsaData("key512-abc.signature");
    constexpr unsigned long kWrap = 1UL << 32;
    EXPECT_EQ(ICCT_Verify(key.data(), lengthOf(key), data.data(), kWrap + 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), lengthOf(key), data.data(), 3, signature.data(), kWrap + 64), -1);
}
#endif

TEST(CryptDigest, FailsWithoutARandomGenerator) {
    Bytes const key = rsaData("key512.public");
    WithoutAlgorithms const guard;
    Outcome const outcome = encrypt(key, bytesIn("hello"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_TRUE(outcome.bufferIsUntouched());
    ERR_clear_error();
}

TEST(CryptDigest, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes key = rsaData("key512.public");
    Bytes plain = bytesIn("abc");
    Bytes out(64);
    unsigned long room = 64;
    int const keyLength = lengthOf(key);
    EXPECT_EQ(ICCT_CryptDigest(nullptr, 0, plain.data(), 3, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(nullptr, keyLength, plain.data(), 3, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), -1, plain.data(), 3, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, nullptr, 3, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, plain.data(), kTooLong, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, plain.data(), ULONG_MAX, out.data(), &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, plain.data(), 3, nullptr, &room), -1);
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, plain.data(), 3, out.data(), nullptr), -1);
    EXPECT_EQ(room, 64U);
    EXPECT_EQ(out, Bytes(64));
    EXPECT_EQ(ICCT_CryptDigest(key.data(), keyLength, nullptr, 0, out.data(), &room), 0);
}

TEST(DecryptDigest, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes key = rsaData("key512.private");
    Bytes encrypted = rsaData("key512-hello.encrypted");
    Bytes out(64);
    unsigned long length = kUntouchedLength;
    int const keyLength = lengthOf(key);
    EXPECT_EQ(ICCT_DecryptDigest(nullptr, 0, encrypted.data(), 64, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(nullptr, keyLength, encrypted.data(), 64, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), -1, encrypted.data(), 64, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), keyLength, nullptr, 64, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), keyLength, encrypted.data(), kTooLong, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), keyLength, encrypted.data(), ULONG_MAX, out.data(), &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), keyLength, encrypted.data(), 64, nullptr, &length), -1);
    EXPECT_EQ(ICCT_DecryptDigest(key.data(), keyLength, encrypted.data(), 64, out.data(), nullptr), -1);
    EXPECT_EQ(length, kUntouchedLength);
    EXPECT_EQ(out, Bytes(64));
}

TEST(ErrorQueue, KeepsTheEntriesOfFailures) {
    Bytes const truncated = firstBytes(rsaData("key512.public"), 40);
    Bytes const key = rsaData("key512.public");
    Bytes const standard = rsaData("key512-abc.signature");
    for (auto const& [publicKey, signature] : {std::pair(key, Bytes(64, 0x11)), std::pair(truncated, standard)}) {
        startQueueWithMarker();
        ASSERT_EQ(verify(publicKey, bytesIn("abc"), signature), -1);
        EXPECT_TRUE(queueStartsWithMarker());
        EXPECT_NE(ERR_GET_LIB(ERR_peek_last_error()), ERR_LIB_USER);
    }
    ERR_clear_error();
}

TEST(ErrorQueue, KeepsEarlierEntriesThroughSuccesses) {
    Bytes const publicKey = rsaData("key512.public");
    Bytes const privateKey = rsaData("key512.private");
    Bytes const encrypted = rsaData("key512-hello.encrypted");
    Bytes const signature = rsaData("key512-abc.signature");
    startQueueWithMarker();
    EXPECT_EQ(sign(privateKey, bytesIn("abc")).m_Result, 0);
    EXPECT_EQ(verify(publicKey, bytesIn("abc"), signature), 0);
    EXPECT_EQ(encrypt(publicKey, bytesIn("abc")).m_Result, 0);
    EXPECT_EQ(decrypt(privateKey, encrypted).m_Result, 0);
    EXPECT_TRUE(queueStartsWithMarker());
    EXPECT_EQ(ERR_peek_last_error(), ERR_peek_error());
    EXPECT_EQ(generate().m_Result, 0);
    EXPECT_TRUE(queueStartsWithMarker());
    ERR_clear_error();
}

}  // namespace
