// The keys of the RSA functions: generating pairs, and reading key blobs, whole and damaged.
//
// Generated keys are checked with OpenSSL's own decoders. The calls that generation makes into OpenSSL are recorded
// (icctsupport.h). Key blobs go through all four functions that take one. Odd: generation makes one object that nothing
// uses and adds the result of a padding call to a length; both are fixed behaviour.

#include "core/icct.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <type_traits>

#include "core/icct_modulus.h"
#include "tests/core/icctsupport.h"

using namespace kvxtest;

namespace {

TEST(IcctInterface, HasFixedSignaturesThatDoNotThrow) {
    using Uchar = unsigned char;
    using Ulong = unsigned long;
    EXPECT_TRUE(
        (std::is_same_v<decltype(&ICCT_GenerateKeys), int (*)(Uchar*, int*, Uchar*, int*, Uchar*, int) noexcept>));
    EXPECT_TRUE((
        std::is_same_v<decltype(&ICCT_Signature), int (*)(Uchar const*, int, Uchar*, Ulong, Uchar*, Ulong*) noexcept>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(&ICCT_Verify), int (*)(Uchar const*, int, Uchar*, Ulong, Uchar*, Ulong) noexcept>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(&ICCT_CryptDigest), int (*)(Uchar*, int, Uchar*, Ulong, Uchar*, Ulong*) noexcept>));
    EXPECT_TRUE(
        (std::is_same_v<decltype(&ICCT_DecryptDigest), int (*)(Uchar*, int, Uchar*, Ulong, Uchar*, Ulong*) noexcept>));
}

TEST(GenerateKeys, MakesDerPairsOf512BitsWithExponent65537) {
    Bytes previous;
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        KeyPair const pair = generate();
        ASSERT_EQ(pair.m_Result, 0);
        EXPECT_EQ(derLength(pair.m_PublicBuffer), static_cast<std::size_t>(pair.m_PublicLength));
        EXPECT_EQ(derLength(pair.m_PrivateBuffer), static_cast<std::size_t>(pair.m_PrivateLength));
        EXPECT_LT(pair.m_PublicLength, 100);
        EXPECT_LT(pair.m_PrivateLength, 400);

        PkeyHolder const publicKey = publicPkey(pair.publicBlob());
        PkeyHolder const privateKey = privatePkey(pair.privateBlob());
        ASSERT_NE(publicKey, nullptr);
        ASSERT_NE(privateKey, nullptr);
        EXPECT_EQ(BN_num_bits(number(publicKey.get(), OSSL_PKEY_PARAM_RSA_N).get()), 512);
        EXPECT_EQ(BN_is_word(number(publicKey.get(), OSSL_PKEY_PARAM_RSA_E).get(), 65537), 1);
        EXPECT_EQ(EVP_PKEY_eq(publicKey.get(), privateKey.get()), 1);
        PkeyContextHolder const check(EVP_PKEY_CTX_new(privateKey.get(), nullptr), EVP_PKEY_CTX_free);
        EXPECT_EQ(EVP_PKEY_private_check(check.get()), 1);

        EXPECT_NE(pair.publicBlob(), previous);
        previous = pair.publicBlob();
    }
}

TEST(GenerateKeys, MakesKeysThatSignAndVerify) {
    KeyPair const pair = generate();
    KeyPair const other = generate();
    ASSERT_EQ(pair.m_Result, 0);
    Outcome const signature = sign(pair.privateBlob(), bytesIn("an order"));
    ASSERT_EQ(signature.m_Result, 0);
    EXPECT_EQ(signature.m_Length, 64U);
    EXPECT_EQ(verify(pair.publicBlob(), bytesIn("an order"), signature.output()), 0);
    EXPECT_EQ(verify(other.publicBlob(), bytesIn("an order"), signature.output()), -1);
}

TEST(GenerateKeys, WritesNothingBehindTheBlobs) {
    KeyPair const pair = generate();
    ASSERT_EQ(pair.m_Result, 0);
    auto const isUntouched = [](unsigned char byte) { return byte == kUntouched; };
    EXPECT_TRUE(std::all_of(pair.m_PublicBuffer.begin() + pair.m_PublicLength, pair.m_PublicBuffer.end(), isUntouched));
    EXPECT_TRUE(
        std::all_of(pair.m_PrivateBuffer.begin() + pair.m_PrivateLength, pair.m_PrivateBuffer.end(), isUntouched));
}

TEST(GenerateKeys, DoesNotCallTheSeedingRoutineWithSeedLengthZero) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(generate().m_Result, 0);
    EXPECT_EQ(libraryCalls().m_Seedings, 0);
    KeyPair pair;
    unsigned char seed = 1;
    EXPECT_EQ(ICCT_GenerateKeys(pair.m_PublicBuffer.data(), &pair.m_PublicLength, pair.m_PrivateBuffer.data(),
                                &pair.m_PrivateLength, &seed, 0),
              0);
    EXPECT_EQ(libraryCalls().m_Seedings, 0);
}

TEST(GenerateKeys, HandsASeedToTheSeedingRoutineOnce) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(generate(bytesIn("seed")).m_Result, 0);
    EXPECT_EQ(libraryCalls().m_Seedings, 1);
    EXPECT_EQ(libraryCalls().m_Seed, bytesIn("seed"));
}

TEST(GenerateKeys, DoesNotRepeatAKeyForTheSameSeed) {
    EXPECT_NE(generate(bytesIn("seed")).publicBlob(), generate(bytesIn("seed")).publicBlob());
}

TEST(GenerateKeys, AsksTheLibraryFor512BitsAnd65537) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(generate().m_Result, 0);
    EXPECT_EQ(libraryCalls().m_GeneratedBits, 512);
    EXPECT_EQ(libraryCalls().m_GeneratedExponent, 65537U);
}

// Nothing uses the object; the call is part of the fixed sequence. A leak of it shows under the memory checkers.
TEST(GenerateKeys, KeepsMakingOneUnusedObject) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(generate().m_Result, 0);
    EXPECT_EQ(libraryCalls().m_MethodObjects, 1);
}

// The library refuses an input shorter than its target, so the call adds 0 and leaves an error in the queue.
TEST(GenerateKeys, KeepsAddingThePaddingResultToThePrivateLength) {
    LibraryCallsGuard const guard;
    ERR_clear_error();
    KeyPair const pair = generate();
    ASSERT_EQ(pair.m_Result, 0);
    EXPECT_EQ(libraryCalls().m_Additions, 1);
    EXPECT_EQ(libraryCalls().m_AdditionTarget, pair.m_PrivateBuffer.data() + pair.m_PrivateLength);
    EXPECT_EQ(libraryCalls().m_AdditionResult, 0);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), RSA_R_DATA_TOO_SMALL_FOR_KEY_SIZE);
    ERR_clear_error();

    libraryCalls().m_AdditionSurplus = 1;
    KeyPair const longer = generate();
    EXPECT_EQ(longer.m_Result, 0);
    EXPECT_EQ(static_cast<std::size_t>(longer.m_PrivateLength), derLength(longer.m_PrivateBuffer) + 1);
}

TEST(KeyBlob, IsAcceptedByEveryFunctionWhenWhole) {
    for (KeyedCall const& function : keyedCalls()) {
        EXPECT_EQ(function.m_Call(rightKey(function)), 0) << function.m_Name;
    }
}

TEST(KeyBlob, IsRefusedByEveryFunctionWhenCutAtAnyLength) {
    for (KeyedCall const& function : keyedCalls()) {
        Bytes const key = rightKey(function);
        for (std::size_t length = 0; length < key.size(); ++length) {
            ASSERT_EQ(function.m_Call(firstBytes(key, length)), -1) << function.m_Name << ", length " << length;
        }
    }
}

TEST(KeyBlob, IsRefusedByEveryFunctionInAnyOtherForm) {
    struct {
        char const* m_What;
        Bytes m_Blob;
    } const rows[] = {
        {"PKCS#8", rsaData("key512.pkcs8")},
        {"SubjectPublicKeyInfo", rsaData("key512.spki")},
        {"text", bytesIn("-----BEGIN RSA PUBLIC KEY-----")},
        {"zeros", Bytes(100, 0)},
        {"an empty sequence", keyOf({})},
        {"one number", keyOf({{0x01}})},
    };
    for (KeyedCall const& function : keyedCalls()) {
        for (auto const& row : rows) {
            EXPECT_EQ(function.m_Call(row.m_Blob), -1) << function.m_Name << ", " << row.m_What;
        }
        Bytes const wrongHalf = rsaData(function.m_WantsPrivateKey ? "key512.public" : "key512.private");
        EXPECT_EQ(function.m_Call(wrongHalf), -1) << function.m_Name << ", the other half";
    }
}

TEST(KeyBlob, KeepsBeingAcceptedWithBytesBehindIt) {
    for (KeyedCall const& function : keyedCalls()) {
        for (std::size_t const extra : {1U, 100U}) {
            Bytes key = rightKey(function);
            key.insert(key.end(), extra, 0x30);
            EXPECT_EQ(function.m_Call(key), 0) << function.m_Name << ", " << extra;
        }
    }
}

TEST(KeyBlob, MayHoldAbsurdNumbers) {
    Bytes const one{0x01};
    Bytes const zero{0x00};
    Bytes const negative{0xFF};
    Bytes const even(64, 0x7E);
    Bytes const large(200, 0x7F);
    for (KeyedCall const& function : keyedCalls()) {
        SCOPED_TRACE(function.m_Name);
        for (Bytes const& modulus : {zero, one, negative, even, large}) {
            for (Bytes const& exponent : {zero, one, negative, large}) {
                std::vector<Bytes> const numbers =
                    function.m_WantsPrivateKey ? std::vector<Bytes>{zero,    modulus,  exponent, exponent, modulus,
                                                                    modulus, exponent, exponent, exponent}
                                               : std::vector<Bytes>{modulus, exponent};
                int const result = function.m_Call(keyOf(numbers));
                EXPECT_TRUE(result == 0 || result == -1);
            }
        }
    }
}

TEST(UsableModulusBits, AreThoseOfANumberWithoutItsSign) {
    Bytes const modulus(64, 0xF1);  // its sign bit is set
    Bytes const exponent{0x01, 0x00, 0x01};
    struct Row {
        char const* m_What;
        Bytes m_Key;
        std::uint32_t m_Bits;
    };
    Bytes padded = modulus;
    padded.insert(padded.begin(), 0x00);
    Bytes below = padded;
    below.back() -= 2;
    Row const rows[] = {
        {"positive", keyOf({padded, exponent}), 512},
        {"a modulus with its sign bit set", keyOf({modulus, exponent}), 512},
        {"an exponent with its sign bit set", keyOf({padded, {0xFF}}), 512},
        {"an even modulus with its sign bit set", keyOf({Bytes(64, 0xF0), exponent}), 0},
        {"an even exponent with its sign bit set", keyOf({padded, {0xFE}}), 0},
        {"an exponent of one", keyOf({padded, {0x01}}), 0},
        {"an exponent below the modulus", keyOf({padded, below}), 512},
        {"an exponent that is the modulus", keyOf({padded, padded}), 0},
        {"an exponent above the modulus", keyOf({below, padded}), 0},
    };
    for (Row const& row : rows) {
        EXPECT_EQ(ICCT_UsableModulusBits(row.m_Key.data(), row.m_Key.size()), row.m_Bits) << row.m_What;
    }
}

TEST(UsableModulusBits, AreNoneForAKeyOfALengthThatNoDecoderTakes) {
    Bytes const key = rsaData("key512.public");
    EXPECT_EQ(ICCT_UsableModulusBits(key.data(), key.size()), 512U);
    EXPECT_EQ(ICCT_UsableModulusBits(key.data(), kTooLong), 0U);
#if ULONG_MAX > UINT_MAX
    EXPECT_EQ(ICCT_UsableModulusBits(key.data(), UINT_MAX + 1UL + key.size()), 0U) << "the lower half is a good length";
#endif
}

TEST(KeyBlob, NeverVerifiesWithAnyFlippedBit) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    for (std::size_t bit = 0; bit < key.size() * 8; ++bit) {
        ASSERT_EQ(verify(withFlippedBit(key, bit), bytesIn("abc"), signature), -1) << "bit " << bit;
    }
}

TEST(KeyBlob, IsReadSafelyWithAnyDamagedByte) {
    Bytes const key = rsaData("key512.private");
    Bytes const encrypted = rsaData("key512-hello.encrypted");
    for (std::size_t i = 0; i < key.size(); ++i) {
        Bytes damaged = key;
        damaged[i] = static_cast<unsigned char>(damaged[i] ^ 0xFF);
        Outcome const signature = sign(damaged, bytesIn("abc"));
        ASSERT_TRUE(signature.m_Result == 0 || signature.m_Result == -1) << "byte " << i;
        Outcome const plain = decrypt(damaged, encrypted);
        ASSERT_TRUE(plain.m_Result == 0 || plain.m_Result == -1) << "byte " << i;
    }
}

}  // namespace
