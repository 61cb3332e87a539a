#include "core/icct.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Each test program links libcrypto as a shared library, so the definitions below take the place of the library's own
// for all callers in the program. Each one passes the call on, unless a test wants it to fail, and notes what it was
// given.

namespace {

struct LibraryCalls {
    std::string m_Failing;  ///< Name of the function to fail; empty: none.
    int m_Seedings = 0;
    std::vector<unsigned char> m_Seed;
    int m_MethodObjects = 0;
    int m_GeneratedBits = 0;
    unsigned long m_GeneratedExponent = 0;
    int m_Additions = 0;
    unsigned char* m_AdditionTarget = nullptr;
    int m_AdditionResult = 0;   ///< What the library answered.
    int m_AdditionSurplus = 0;  ///< Added to that.
};

LibraryCalls& Calls() {
    static thread_local LibraryCalls calls;
    return calls;
}

bool Fails(char const* function) {
    return Calls().m_Failing == function;
}

template <typename Function>
Function* LibraryFunction(char const* name) {
    void* const address = dlsym(RTLD_NEXT, name);
    if (address == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(address);
}

/// Starts a test with nothing noted and leaves nothing failing behind.
class LibraryCallsGuard {
public:
    LibraryCallsGuard() { Calls() = LibraryCalls(); }
    ~LibraryCallsGuard() { Calls() = LibraryCalls(); }
    LibraryCallsGuard(LibraryCallsGuard const&) = delete;
    LibraryCallsGuard& operator=(LibraryCallsGuard const&) = delete;
};

}  // namespace

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED void RAND_seed(void const* buf, int num) {
    auto const* const bytes = static_cast<unsigned char const*>(buf);
    ++Calls().m_Seedings;
    Calls().m_Seed.assign(bytes, bytes + num);
    LibraryFunction<void(void const*, int)>("RAND_seed")(buf, num);
}

INTERPOSED RSA* RSA_new_method(ENGINE* engine) {
    ++Calls().m_MethodObjects;
    return Fails("RSA_new_method") ? nullptr : LibraryFunction<RSA*(ENGINE*)>("RSA_new_method")(engine);
}

INTERPOSED RSA* RSA_new() {
    return Fails("RSA_new") ? nullptr : LibraryFunction<RSA*()>("RSA_new")();
}

INTERPOSED BIGNUM* BN_new() {
    return Fails("BN_new") ? nullptr : LibraryFunction<BIGNUM*()>("BN_new")();
}

INTERPOSED int BN_set_word(BIGNUM* a, BN_ULONG w) {
    return Fails("BN_set_word") ? 0 : LibraryFunction<int(BIGNUM*, BN_ULONG)>("BN_set_word")(a, w);
}

INTERPOSED int RSA_generate_key_ex(RSA* rsa, int bits, BIGNUM* e, BN_GENCB* cb) {
    Calls().m_GeneratedBits = bits;
    Calls().m_GeneratedExponent = BN_get_word(e);
    return Fails("RSA_generate_key_ex")
               ? 0
               : LibraryFunction<int(RSA*, int, BIGNUM*, BN_GENCB*)>("RSA_generate_key_ex")(rsa, bits, e, cb);
}

INTERPOSED int i2d_RSAPublicKey(RSA const* a, unsigned char** out) {
    return Fails("i2d_RSAPublicKey") ? -1
                                     : LibraryFunction<int(RSA const*, unsigned char**)>("i2d_RSAPublicKey")(a, out);
}

INTERPOSED int i2d_RSAPrivateKey(RSA const* a, unsigned char** out) {
    return Fails("i2d_RSAPrivateKey") ? -1
                                      : LibraryFunction<int(RSA const*, unsigned char**)>("i2d_RSAPrivateKey")(a, out);
}

INTERPOSED int RSA_padding_add_none(unsigned char* to, int tlen, unsigned char const* f, int fl) {
    ++Calls().m_Additions;
    Calls().m_AdditionTarget = to;
    Calls().m_AdditionResult =
        LibraryFunction<int(unsigned char*, int, unsigned char const*, int)>("RSA_padding_add_none")(to, tlen, f, fl);
    return Calls().m_AdditionResult + Calls().m_AdditionSurplus;
}

// Fails after writing the digest, so that only the result tells.
INTERPOSED unsigned char* SHA1(unsigned char const* d, size_t n, unsigned char* md) {
    using Function = unsigned char*(unsigned char const*, size_t, unsigned char*);
    unsigned char* const digest = LibraryFunction<Function>("SHA1")(d, n, md);
    return Fails("SHA1") ? nullptr : digest;
}

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kUntouched = 0xA5;
constexpr unsigned long kUntouchedLength = 0xA5A5;
constexpr unsigned long kTooLong = static_cast<unsigned long>(INT_MAX) + 1;

/// Reads tests/data/rsa/`name`.hex.
Bytes Vector(std::string const& name) {
    std::string const path = std::string(KVX_TEST_DATA_DIR) + "/rsa/" + name + ".hex";
    std::ifstream file(path);
    std::string digits;
    for (std::string line; std::getline(file, line);) {
        digits += line;
    }
    if (digits.empty() || digits.size() % 2 != 0) {
        throw std::runtime_error("no test vector at " + path);
    }
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

Bytes Text(std::string const& text) {
    return Bytes(text.begin(), text.end());
}

/// The first `length` bytes in a block of exactly that size, so that reading on is noticed by a memory checker.
Bytes Cut(Bytes const& bytes, std::size_t length) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
}

Bytes WithFlippedBit(Bytes bytes, std::size_t bit) {
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1U << (bit % 8)));
    return bytes;
}

int Length(Bytes const& bytes) {
    return static_cast<int>(bytes.size());
}

/// What a call left behind: its result and the two outputs. `buffer` has 2048 bytes, `kUntouched` where nothing was
/// written.
struct Outcome {
    int m_Result = 0;
    Bytes m_Buffer = Bytes(2048, kUntouched);
    unsigned long m_Length = kUntouchedLength;

    Bytes Output() const { return Cut(m_Buffer, m_Length); }
    bool BufferIsUntouched() const {
        return std::all_of(m_Buffer.begin(), m_Buffer.end(), [](unsigned char byte) { return byte == kUntouched; });
    }
};

Outcome Sign(Bytes const& key, Bytes data) {
    Outcome outcome;
    outcome.m_Result =
        ICCT_Signature(key.data(), Length(key), data.data(), data.size(), outcome.m_Buffer.data(), &outcome.m_Length);
    return outcome;
}

int Verify(Bytes const& key, Bytes data, Bytes signature) {
    return ICCT_Verify(key.data(), Length(key), data.data(), data.size(), signature.data(), signature.size());
}

Outcome Encrypt(Bytes key, Bytes plain, unsigned long room = 2048) {
    Outcome outcome;
    outcome.m_Length = room;
    outcome.m_Result = ICCT_CryptDigest(key.data(), Length(key), plain.data(), plain.size(), outcome.m_Buffer.data(),
                                        &outcome.m_Length);
    return outcome;
}

Outcome Decrypt(Bytes key, Bytes encrypted) {
    Outcome outcome;
    outcome.m_Result = ICCT_DecryptDigest(key.data(), Length(key), encrypted.data(), encrypted.size(),
                                          outcome.m_Buffer.data(), &outcome.m_Length);
    return outcome;
}

struct KeyPair {
    int m_Result = 0;
    Bytes m_PublicBuffer = Bytes(4096, kUntouched);
    Bytes m_PrivateBuffer = Bytes(4096, kUntouched);
    int m_PublicLength = 0;
    int m_PrivateLength = 0;

    Bytes Public() const { return Cut(m_PublicBuffer, static_cast<std::size_t>(m_PublicLength)); }
    Bytes Private() const { return Cut(m_PrivateBuffer, static_cast<std::size_t>(m_PrivateLength)); }
};

KeyPair Generate(Bytes seed = {}) {
    KeyPair pair;
    pair.m_Result = ICCT_GenerateKeys(pair.m_PublicBuffer.data(), &pair.m_PublicLength, pair.m_PrivateBuffer.data(),
                                      &pair.m_PrivateLength, seed.empty() ? nullptr : seed.data(), Length(seed));
    return pair;
}

/// Length of the DER structure at the start of `blob`, from its own header; 0 when there is none.
std::size_t DerLength(Bytes const& blob) {
    constexpr unsigned char kSequence = 0x30;
    if (blob.size() < 4 || blob[0] != kSequence) {
        return 0;
    }
    if (blob[1] < 0x80) {
        return 2U + blob[1];
    }
    if (blob[1] == 0x81) {
        return 3U + blob[2];
    }
    return blob[1] == 0x82 ? 4U + 256U * blob[2] + blob[3] : 0;
}

using PkeyHolder = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using PkeyContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using BignumHolder = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

PkeyHolder PublicPkey(Bytes const& blob) {
    unsigned char const* cursor = blob.data();
    return PkeyHolder(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(blob.size())), EVP_PKEY_free);
}

PkeyHolder PrivatePkey(Bytes const& blob) {
    unsigned char const* cursor = blob.data();
    return PkeyHolder(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(blob.size())), EVP_PKEY_free);
}

BignumHolder Number(EVP_PKEY* key, char const* name) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    return BignumHolder(number, BN_free);
}

/// One DER INTEGER, or with `kSequenceTag` a SEQUENCE. Contents up to 65535 bytes.
constexpr unsigned char kIntegerTag = 0x02;
constexpr unsigned char kSequenceTag = 0x30;
Bytes Der(unsigned char tag, Bytes const& content) {
    Bytes der{tag, 0x82, static_cast<unsigned char>(content.size() / 256),
              static_cast<unsigned char>(content.size() % 256)};
    if (content.size() < 128) {
        der = {tag, static_cast<unsigned char>(content.size())};
    }
    der.insert(der.end(), content.begin(), content.end());
    return der;
}

/// A key blob of these numbers, each given by its content bytes.
Bytes KeyOf(std::vector<Bytes> const& numbers) {
    Bytes content;
    for (Bytes const& number : numbers) {
        Bytes const der = Der(kIntegerTag, number);
        content.insert(content.end(), der.begin(), der.end());
    }
    return Der(kSequenceTag, content);
}

/// Lets no algorithm be found for the calling thread: no digest, no random generator.
class WithoutAlgorithms {
public:
    WithoutAlgorithms()
        : m_Context(OSSL_LIB_CTX_new()),
          m_Provider(OSSL_PROVIDER_load(m_Context, "null")),
          m_Previous(OSSL_LIB_CTX_set0_default(m_Context)) {}
    ~WithoutAlgorithms() {
        OSSL_LIB_CTX_set0_default(m_Previous);
        OSSL_PROVIDER_unload(m_Provider);
        OSSL_LIB_CTX_free(m_Context);
    }
    WithoutAlgorithms(WithoutAlgorithms const&) = delete;
    WithoutAlgorithms& operator=(WithoutAlgorithms const&) = delete;

private:
    OSSL_LIB_CTX* m_Context;
    OSSL_PROVIDER* m_Provider;
    OSSL_LIB_CTX* m_Previous;
};

/// One of the five functions with everything but the key fixed and right.
struct KeyedCall {
    char const* m_Name;
    bool m_WantsPrivateKey;
    int (*m_Call)(Bytes const& key);
};

std::vector<KeyedCall> KeyedCalls() {
    return {
        {"ICCT_Signature", true, [](Bytes const& key) { return Sign(key, Text("abc")).m_Result; }},
        {"ICCT_Verify", false,
         [](Bytes const& key) {
             static Bytes const signature = Vector("key512-abc.signature");
             return Verify(key, Text("abc"), signature);
         }},
        {"ICCT_CryptDigest", false, [](Bytes const& key) { return Encrypt(key, Text("abc")).m_Result; }},
        {"ICCT_DecryptDigest", true,
         [](Bytes const& key) {
             static Bytes const encrypted = Vector("key512-hello.encrypted");
             return Decrypt(key, encrypted).m_Result;
         }},
    };
}

Bytes RightKey(KeyedCall const& function) {
    return Vector(function.m_WantsPrivateKey ? "key512.private" : "key512.public");
}

// ---- Interface

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

// ---- Key generation

TEST(GenerateKeys, MakesDerPairsOf512BitsWithExponent65537) {
    Bytes previous;
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        KeyPair const pair = Generate();
        ASSERT_EQ(pair.m_Result, 0);
        EXPECT_EQ(DerLength(pair.m_PublicBuffer), static_cast<std::size_t>(pair.m_PublicLength));
        EXPECT_EQ(DerLength(pair.m_PrivateBuffer), static_cast<std::size_t>(pair.m_PrivateLength));
        EXPECT_LT(pair.m_PublicLength, 100);
        EXPECT_LT(pair.m_PrivateLength, 400);

        PkeyHolder const publicKey = PublicPkey(pair.Public());
        PkeyHolder const privateKey = PrivatePkey(pair.Private());
        ASSERT_NE(publicKey, nullptr);
        ASSERT_NE(privateKey, nullptr);
        EXPECT_EQ(BN_num_bits(Number(publicKey.get(), OSSL_PKEY_PARAM_RSA_N).get()), 512);
        EXPECT_EQ(BN_is_word(Number(publicKey.get(), OSSL_PKEY_PARAM_RSA_E).get(), 65537), 1);
        EXPECT_EQ(EVP_PKEY_eq(publicKey.get(), privateKey.get()), 1);
        PkeyContextHolder const check(EVP_PKEY_CTX_new(privateKey.get(), nullptr), EVP_PKEY_CTX_free);
        EXPECT_EQ(EVP_PKEY_private_check(check.get()), 1);

        EXPECT_NE(pair.Public(), previous);
        previous = pair.Public();
    }
}

TEST(GenerateKeys, MakesKeysThatSignAndVerify) {
    KeyPair const pair = Generate();
    KeyPair const other = Generate();
    ASSERT_EQ(pair.m_Result, 0);
    Outcome const signature = Sign(pair.Private(), Text("an order"));
    ASSERT_EQ(signature.m_Result, 0);
    EXPECT_EQ(signature.m_Length, 64U);
    EXPECT_EQ(Verify(pair.Public(), Text("an order"), signature.Output()), 0);
    EXPECT_EQ(Verify(other.Public(), Text("an order"), signature.Output()), -1);
}

TEST(GenerateKeys, WritesNothingBehindTheBlobs) {
    KeyPair const pair = Generate();
    ASSERT_EQ(pair.m_Result, 0);
    auto const isUntouched = [](unsigned char byte) { return byte == kUntouched; };
    EXPECT_TRUE(std::all_of(pair.m_PublicBuffer.begin() + pair.m_PublicLength, pair.m_PublicBuffer.end(), isUntouched));
    EXPECT_TRUE(
        std::all_of(pair.m_PrivateBuffer.begin() + pair.m_PrivateLength, pair.m_PrivateBuffer.end(), isUntouched));
}

TEST(GenerateKeys, DoesNotCallTheSeedingRoutineWithSeedLengthZero) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(Generate().m_Result, 0);
    EXPECT_EQ(Calls().m_Seedings, 0);
    KeyPair pair;
    unsigned char seed = 1;
    EXPECT_EQ(ICCT_GenerateKeys(pair.m_PublicBuffer.data(), &pair.m_PublicLength, pair.m_PrivateBuffer.data(),
                                &pair.m_PrivateLength, &seed, 0),
              0);
    EXPECT_EQ(Calls().m_Seedings, 0);
}

TEST(GenerateKeys, HandsASeedToTheSeedingRoutineOnce) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(Generate(Text("seed")).m_Result, 0);
    EXPECT_EQ(Calls().m_Seedings, 1);
    EXPECT_EQ(Calls().m_Seed, Text("seed"));
}

TEST(GenerateKeys, DoesNotRepeatAKeyForTheSameSeed) {
    EXPECT_NE(Generate(Text("seed")).Public(), Generate(Text("seed")).Public());
}

TEST(GenerateKeys, AsksTheLibraryFor512BitsAnd65537) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(Generate().m_Result, 0);
    EXPECT_EQ(Calls().m_GeneratedBits, 512);
    EXPECT_EQ(Calls().m_GeneratedExponent, 65537U);
}

// Nothing uses the object; the call is part of the fixed sequence. A leak of it shows under the memory checkers.
TEST(GenerateKeys, KeepsMakingOneUnusedObject) {
    LibraryCallsGuard const guard;
    EXPECT_EQ(Generate().m_Result, 0);
    EXPECT_EQ(Calls().m_MethodObjects, 1);
}

// The library refuses an input shorter than its target, so the call adds 0 and leaves an error in the queue.
TEST(GenerateKeys, KeepsAddingThePaddingResultToThePrivateLength) {
    LibraryCallsGuard const guard;
    ERR_clear_error();
    KeyPair const pair = Generate();
    ASSERT_EQ(pair.m_Result, 0);
    EXPECT_EQ(Calls().m_Additions, 1);
    EXPECT_EQ(Calls().m_AdditionTarget, pair.m_PrivateBuffer.data() + pair.m_PrivateLength);
    EXPECT_EQ(Calls().m_AdditionResult, 0);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), RSA_R_DATA_TOO_SMALL_FOR_KEY_SIZE);
    ERR_clear_error();

    Calls().m_AdditionSurplus = 1;
    KeyPair const longer = Generate();
    EXPECT_EQ(longer.m_Result, 0);
    EXPECT_EQ(static_cast<std::size_t>(longer.m_PrivateLength), DerLength(longer.m_PrivateBuffer) + 1);
}

TEST(GenerateKeys, FailsWithEachStepThatFails) {
    for (char const* const step : {"RSA_new_method", "RSA_new", "BN_new", "BN_set_word", "RSA_generate_key_ex"}) {
        SCOPED_TRACE(step);
        LibraryCallsGuard const guard;
        Calls().m_Failing = step;
        KeyPair const pair = Generate();
        EXPECT_EQ(pair.m_Result, -1);
        EXPECT_EQ(pair.m_PublicLength, 0);
        EXPECT_EQ(pair.m_PrivateLength, 0);
    }
}

TEST(GenerateKeys, StoresTheEncodersResultAlsoWhenItIsAFailure) {
    LibraryCallsGuard const guard;
    Calls().m_Failing = "i2d_RSAPublicKey";
    KeyPair const first = Generate();
    EXPECT_EQ(first.m_Result, -1);
    EXPECT_EQ(first.m_PublicLength, -1);
    EXPECT_EQ(first.m_PrivateLength, 0);

    Calls().m_Failing = "i2d_RSAPrivateKey";
    KeyPair const second = Generate();
    EXPECT_EQ(second.m_Result, -1);
    EXPECT_EQ(static_cast<std::size_t>(second.m_PublicLength), DerLength(second.m_PublicBuffer));
    EXPECT_EQ(second.m_PrivateLength, -1);
    EXPECT_EQ(Calls().m_Additions, 0);
}

TEST(GenerateKeys, FailsWithoutARandomGenerator) {
    WithoutAlgorithms const guard;
    EXPECT_EQ(Generate().m_Result, -1);
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
    EXPECT_EQ(Calls().m_Seedings, 0);
}

// ---- Known answers

struct KnownSignature {
    char const* m_Key;
    Bytes m_Data;
    char const* m_Signature;
};

std::vector<KnownSignature> KnownSignatures() {
    return {
        {"key512", Text("abc"), "key512-abc.signature"},
        {"key512", {}, "key512-empty.signature"},
        {"key512", {'a', 0x00, 'b', 0x80, 0xFF, '\n'}, "key512-binary.signature"},
        {"key8192", Text("abc"), "key8192-abc.signature"},  // the largest key that signs
    };
}

TEST(Signature, IsByteForByteThatOfTheCommandLineTool) {
    for (KnownSignature const& known : KnownSignatures()) {
        SCOPED_TRACE(known.m_Signature);
        Outcome const signature = Sign(Vector(std::string(known.m_Key) + ".private"), known.m_Data);
        EXPECT_EQ(signature.m_Result, 0);
        EXPECT_EQ(signature.Output(), Vector(known.m_Signature));
    }
}

TEST(Signature, StaysWithinTheModulus) {
    Outcome const signature = Sign(Vector("key512.private"), Text("abc"));
    ASSERT_EQ(signature.m_Result, 0);
    ASSERT_EQ(signature.m_Length, 64U);
    EXPECT_TRUE(std::all_of(signature.m_Buffer.begin() + 64, signature.m_Buffer.end(),
                            [](unsigned char byte) { return byte == kUntouched; }));
}

TEST(Verify, AcceptsSignaturesOfTheCommandLineTool) {
    Bytes const key = Vector("key512.public");
    EXPECT_EQ(Verify(key, Text("abc"), Vector("key512-abc.signature")), 0);
    EXPECT_EQ(Verify(key, {}, Vector("key512-empty.signature")), 0);
    EXPECT_EQ(Verify(key, {'a', 0x00, 'b', 0x80, 0xFF, '\n'}, Vector("key512-binary.signature")), 0);
}

TEST(Verify, AcceptsKeysUpTo1024BitsOnly) {
    EXPECT_EQ(Verify(Vector("key1024.public"), Text("abc"), Vector("key1024-abc.signature")), 0);
    EXPECT_EQ(Verify(Vector("key1032.public"), Text("abc"), Vector("key1032-abc.signature")), -1);
}

// 245 recovered bytes would run over the buffer for what a signature holds.
TEST(Verify, RefusesAPayloadLargerThanItsBuffer) {
    EXPECT_EQ(Verify(Vector("key2048.public"), Text("abc"), Vector("key2048-abc-245.signature")), -1);
}

// Signatures here are over the bare digest, without the DigestInfo of a standard SHA-1 with RSA signature.
TEST(Verify, KeepsRefusingStandardSignatures) {
    EXPECT_EQ(Verify(Vector("key512.public"), Text("abc"), Vector("key512-abc-digestinfo.signature")), -1);
}

TEST(Verify, RefusesAnyPayloadOtherThanTwentyBytes) {
    Bytes const key = Vector("key512.public");
    EXPECT_EQ(Verify(key, Text("abc"), Vector("key512-abc-21.signature")), -1);
    EXPECT_EQ(Verify(key, Text("abc"), Vector("key512-abc-19.signature")), -1);
}

TEST(Verify, ComparesTheDigestToItsEnds) {
    Bytes const key = Vector("key512.public");
    EXPECT_EQ(Verify(key, Text("abc"), Vector("key512-abc-first.signature")), -1);
    EXPECT_EQ(Verify(key, Text("abc"), Vector("key512-abc-last.signature")), -1);
}

TEST(Verify, FailsForEveryFlippedBitOfTheSignature) {
    Bytes const key = Vector("key512.public");
    Bytes const signature = Vector("key512-abc.signature");
    for (std::size_t bit = 0; bit < signature.size() * 8; ++bit) {
        ASSERT_EQ(Verify(key, Text("abc"), WithFlippedBit(signature, bit)), -1) << "bit " << bit;
    }
}

TEST(Verify, FailsForEveryFlippedBitOfTheData) {
    Bytes const key = Vector("key512.public");
    Bytes const signature = Vector("key512-abc.signature");
    Bytes const data = Text("abc");
    for (std::size_t bit = 0; bit < data.size() * 8; ++bit) {
        ASSERT_EQ(Verify(key, WithFlippedBit(data, bit), signature), -1) << "bit " << bit;
    }
    EXPECT_EQ(Verify(key, Text("abcd"), signature), -1);
    EXPECT_EQ(Verify(key, Text("ab"), signature), -1);
    EXPECT_EQ(Verify(key, {}, signature), -1);
}

TEST(Verify, FailsForEveryOtherLengthOfTheSignature) {
    Bytes const key = Vector("key512.public");
    Bytes signature = Vector("key512-abc.signature");
    for (std::size_t length = 0; length < signature.size(); ++length) {
        ASSERT_EQ(Verify(key, Text("abc"), Cut(signature, length)), -1) << "length " << length;
    }
    signature.push_back(0);
    EXPECT_EQ(Verify(key, Text("abc"), signature), -1);
    signature.resize(4096);
    EXPECT_EQ(Verify(key, Text("abc"), signature), -1);
}

TEST(Verify, FailsForASignatureNotBelowTheModulus) {
    EXPECT_EQ(Verify(Vector("key512.public"), Text("abc"), Bytes(64, 0xFF)), -1);
    EXPECT_EQ(Verify(Vector("key512.public"), Text("abc"), Bytes(64, 0x00)), -1);
}

TEST(SignAndVerify, AgreeOverDataOfAnyLength) {
    Bytes const privateKey = Vector("key512.private");
    Bytes const publicKey = Vector("key512.public");
    for (std::size_t const length : {0U, 1U, 19U, 20U, 21U, 63U, 64U, 65U, 1000U, 100000U}) {
        SCOPED_TRACE(length);
        Bytes data(length);
        for (std::size_t i = 0; i < length; ++i) {
            data[i] = static_cast<unsigned char>(i * 7 + i / 256);
        }
        Outcome const signature = Sign(privateKey, data);
        ASSERT_EQ(signature.m_Result, 0);
        EXPECT_EQ(Verify(publicKey, data, signature.Output()), 0);
    }
}

// ---- Key blobs

TEST(KeyBlob, IsAcceptedByEveryFunctionWhenWhole) {
    for (KeyedCall const& function : KeyedCalls()) {
        EXPECT_EQ(function.m_Call(RightKey(function)), 0) << function.m_Name;
    }
}

TEST(KeyBlob, IsRefusedByEveryFunctionWhenCutAtAnyLength) {
    for (KeyedCall const& function : KeyedCalls()) {
        Bytes const key = RightKey(function);
        for (std::size_t length = 0; length < key.size(); ++length) {
            ASSERT_EQ(function.m_Call(Cut(key, length)), -1) << function.m_Name << ", length " << length;
        }
    }
}

TEST(KeyBlob, IsRefusedByEveryFunctionInAnyOtherForm) {
    struct {
        char const* m_What;
        Bytes m_Blob;
    } const rows[] = {
        {"PKCS#8", Vector("key512.pkcs8")},
        {"SubjectPublicKeyInfo", Vector("key512.spki")},
        {"text", Text("-----BEGIN RSA PUBLIC KEY-----")},
        {"zeros", Bytes(100, 0)},
        {"an empty sequence", KeyOf({})},
        {"one number", KeyOf({{0x01}})},
    };
    for (KeyedCall const& function : KeyedCalls()) {
        for (auto const& row : rows) {
            EXPECT_EQ(function.m_Call(row.m_Blob), -1) << function.m_Name << ", " << row.m_What;
        }
        Bytes const wrongHalf = Vector(function.m_WantsPrivateKey ? "key512.public" : "key512.private");
        EXPECT_EQ(function.m_Call(wrongHalf), -1) << function.m_Name << ", the other half";
    }
}

TEST(KeyBlob, KeepsBeingAcceptedWithBytesBehindIt) {
    for (KeyedCall const& function : KeyedCalls()) {
        for (std::size_t const extra : {1U, 100U}) {
            Bytes key = RightKey(function);
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
    for (KeyedCall const& function : KeyedCalls()) {
        SCOPED_TRACE(function.m_Name);
        for (Bytes const& modulus : {zero, one, negative, even, large}) {
            for (Bytes const& exponent : {zero, one, negative, large}) {
                std::vector<Bytes> const numbers =
                    function.m_WantsPrivateKey ? std::vector<Bytes>{zero,    modulus,  exponent, exponent, modulus,
                                                                    modulus, exponent, exponent, exponent}
                                               : std::vector<Bytes>{modulus, exponent};
                int const result = function.m_Call(KeyOf(numbers));
                EXPECT_TRUE(result == 0 || result == -1);
            }
        }
    }
}

TEST(KeyBlob, NeverVerifiesWithAnyFlippedBit) {
    Bytes const key = Vector("key512.public");
    Bytes const signature = Vector("key512-abc.signature");
    for (std::size_t bit = 0; bit < key.size() * 8; ++bit) {
        ASSERT_EQ(Verify(WithFlippedBit(key, bit), Text("abc"), signature), -1) << "bit " << bit;
    }
}

TEST(KeyBlob, IsReadSafelyWithAnyDamagedByte) {
    Bytes const key = Vector("key512.private");
    Bytes const encrypted = Vector("key512-hello.encrypted");
    for (std::size_t i = 0; i < key.size(); ++i) {
        Bytes damaged = key;
        damaged[i] = static_cast<unsigned char>(damaged[i] ^ 0xFF);
        Outcome const signature = Sign(damaged, Text("abc"));
        ASSERT_TRUE(signature.m_Result == 0 || signature.m_Result == -1) << "byte " << i;
        Outcome const plain = Decrypt(damaged, encrypted);
        ASSERT_TRUE(plain.m_Result == 0 || plain.m_Result == -1) << "byte " << i;
    }
}

// ---- Signing: refusals

TEST(Signature, RefusesKeysAbove8192Bits) {
    Outcome const outcome = Sign(Vector("key8200.private"), Text("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.BufferIsUntouched());
}

// The RSA operation's -1 is stored in the unsigned length as it is.
TEST(Signature, KeepsStoringTheFailedResultAsLength) {
    Bytes const modulus(30, 0x7F);  // too small for a padded digest
    Bytes const one{0x01};
    Outcome const outcome = Sign(KeyOf({{0x00}, modulus, one, one, one, one, one, one, one}), Text("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, ULONG_MAX);
}

TEST(Signature, LeavesTheOutputsAloneWhenTheKeyIsRefused) {
    Outcome const outcome = Sign(Vector("key512.public"), Text("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.BufferIsUntouched());
}

TEST(Signature, FailsWithoutADigest) {
    Bytes const key = Vector("key512.private");
    LibraryCallsGuard const guard;
    Calls().m_Failing = "SHA1";
    Outcome const outcome = Sign(key, Text("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.BufferIsUntouched());
}

TEST(Verify, FailsWithoutADigest) {
    Bytes const key = Vector("key512.public");
    Bytes const signature = Vector("key512-abc.signature");
    {
        LibraryCallsGuard const guard;
        Calls().m_Failing = "SHA1";
        EXPECT_EQ(Verify(key, Text("abc"), signature), -1);
    }
    EXPECT_EQ(Verify(key, Text("abc"), signature), 0);
}

TEST(Verify, FailsWhereTheLibraryHasNoAlgorithms) {
    Bytes const key = Vector("key512.public");
    Bytes const signature = Vector("key512-abc.signature");
    {
        WithoutAlgorithms const guard;
        EXPECT_EQ(Verify(key, Text("abc"), signature), -1);
    }
    ERR_clear_error();
    EXPECT_EQ(Verify(key, Text("abc"), signature), 0);
}

TEST(Signature, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes const key = Vector("key512.private");
    Bytes data = Text("abc");
    Bytes out(64);
    unsigned long length = kUntouchedLength;
    int const keyLength = Length(key);
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

TEST(Signature, TakesNullForNoData) {
    Bytes const key = Vector("key512.private");
    Bytes out(64);
    unsigned long length = 0;
    EXPECT_EQ(ICCT_Signature(key.data(), Length(key), nullptr, 0, out.data(), &length), 0);
    EXPECT_EQ(out, Vector("key512-empty.signature"));
}

TEST(Verify, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes const key = Vector("key512.public");
    Bytes data = Text("abc");
    Bytes signature = Vector("key512-abc.signature");
    int const keyLength = Length(key);
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
    Bytes empty = Vector("key512-empty.signature");
    EXPECT_EQ(ICCT_Verify(key.data(), keyLength, nullptr, 0, empty.data(), 64), 0);
}

#if ULONG_MAX > UINT_MAX
// A length cut to 32 bits would be 3 and 64 again, and verify.
TEST(Verify, DoesNotCutLengthsTo32Bits) {
    Bytes const key = Vector("key512.public");
    Bytes data = Text("abc");
    Bytes signature = Vector("key512-abc.signature");
    constexpr unsigned long kWrap = 1UL << 32;
    EXPECT_EQ(ICCT_Verify(key.data(), Length(key), data.data(), kWrap + 3, signature.data(), 64), -1);
    EXPECT_EQ(ICCT_Verify(key.data(), Length(key), data.data(), 3, signature.data(), kWrap + 64), -1);
}
#endif

// ---- Encrypting and decrypting

TEST(CryptDigest, RoundTripsEveryLengthThatFits) {
    KeyPair const pair = Generate();
    ASSERT_EQ(pair.m_Result, 0);
    for (std::size_t length = 0; length <= 64 - 11; ++length) {
        SCOPED_TRACE(length);
        Bytes plain(length);
        for (std::size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<unsigned char>(i);
        }
        Outcome const encrypted = Encrypt(pair.Public(), plain);
        ASSERT_EQ(encrypted.m_Result, 0);
        ASSERT_EQ(encrypted.m_Length, 64U);
        Outcome const decrypted = Decrypt(pair.Private(), encrypted.Output());
        ASSERT_EQ(decrypted.m_Result, 0);
        ASSERT_EQ(decrypted.Output(), plain);
    }
}

TEST(CryptDigest, RefusesMoreThanTheKeyHolds) {
    Outcome const outcome = Encrypt(Vector("key512.public"), Bytes(64 - 10));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, 2048U);
    EXPECT_TRUE(outcome.BufferIsUntouched());
}

TEST(CryptDigest, LeavesTheOutputsAloneWhenTheRoomIsTooSmall) {
    Bytes const key = Vector("key512.public");
    for (unsigned long const room : {0UL, 1UL, 63UL}) {
        Outcome const outcome = Encrypt(key, Text("hello"), room);
        EXPECT_EQ(outcome.m_Result, -1);
        EXPECT_EQ(outcome.m_Length, room);
        EXPECT_TRUE(outcome.BufferIsUntouched());
    }
}

TEST(CryptDigest, NeedsRoomForTheModulusOnly) {
    EXPECT_EQ(Encrypt(Vector("key512.public"), Text("hello"), 64).m_Result, 0);
}

// Room is compared unsigned and never narrowed, unlike the lengths of what is read.
TEST(CryptDigest, KeepsAcceptingAnyLargeRoom) {
    for (unsigned long const room : {kTooLong, ULONG_MAX}) {
        Outcome const outcome = Encrypt(Vector("key512.public"), Text("hello"), room);
        EXPECT_EQ(outcome.m_Result, 0);
        EXPECT_EQ(outcome.m_Length, 64U);
    }
}

TEST(CryptDigest, AcceptsKeysUpTo8192BitsOnly) {
    Outcome const largest = Encrypt(Vector("key8192.public"), Text("hello"));
    EXPECT_EQ(largest.m_Result, 0);
    EXPECT_EQ(largest.m_Length, 1024U);
    Outcome const tooLarge = Encrypt(Vector("key8200.public"), Text("hello"));
    EXPECT_EQ(tooLarge.m_Result, -1);
    EXPECT_EQ(tooLarge.m_Length, 2048U);
    EXPECT_TRUE(tooLarge.BufferIsUntouched());
}

TEST(CryptDigest, FailsWithoutARandomGenerator) {
    Bytes const key = Vector("key512.public");
    WithoutAlgorithms const guard;
    Outcome const outcome = Encrypt(key, Text("hello"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_TRUE(outcome.BufferIsUntouched());
    ERR_clear_error();
}

TEST(CryptDigest, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes key = Vector("key512.public");
    Bytes plain = Text("abc");
    Bytes out(64);
    unsigned long room = 64;
    int const keyLength = Length(key);
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

TEST(DecryptDigest, ReadsWhatTheCommandLineToolEncrypted) {
    Outcome const outcome = Decrypt(Vector("key512.private"), Vector("key512-hello.encrypted"));
    EXPECT_EQ(outcome.m_Result, 0);
    EXPECT_EQ(outcome.Output(), Text("hello"));
}

// The RSA operation's -1 is stored in the unsigned length as it is.
TEST(DecryptDigest, KeepsStoringTheFailedResultAsLength) {
    Bytes const key = Vector("key512.private");
    Bytes tooLong = Vector("key512-hello.encrypted");
    tooLong.push_back(0);
    for (Bytes const& encrypted : {tooLong, Bytes(64, 0xFF), Bytes(4096, 0xFF)}) {
        Outcome const outcome = Decrypt(key, encrypted);
        EXPECT_EQ(outcome.m_Result, -1);
        EXPECT_EQ(outcome.m_Length, ULONG_MAX);
    }
}

TEST(DecryptDigest, LeavesTheOutputsAloneWhenTheKeyIsRefused) {
    Outcome const outcome = Decrypt(Vector("key512.public"), Vector("key512-hello.encrypted"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.BufferIsUntouched());
}

TEST(DecryptDigest, RefusesNullPointersAndLengthsOutOfRange) {
    Bytes key = Vector("key512.private");
    Bytes encrypted = Vector("key512-hello.encrypted");
    Bytes out(64);
    unsigned long length = kUntouchedLength;
    int const keyLength = Length(key);
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

// ---- The error queue belongs to the caller

constexpr int kMarkerReason = 42;

void StartQueueWithMarker() {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, kMarkerReason);
}

bool QueueStartsWithMarker() {
    unsigned long const oldest = ERR_peek_error();
    return ERR_GET_LIB(oldest) == ERR_LIB_USER && ERR_GET_REASON(oldest) == kMarkerReason;
}

TEST(ErrorQueue, KeepsTheEntriesOfFailures) {
    Bytes const truncated = Cut(Vector("key512.public"), 40);
    Bytes const key = Vector("key512.public");
    Bytes const standard = Vector("key512-abc.signature");
    for (auto const& [publicKey, signature] : {std::pair(key, Bytes(64, 0x11)), std::pair(truncated, standard)}) {
        StartQueueWithMarker();
        ASSERT_EQ(Verify(publicKey, Text("abc"), signature), -1);
        EXPECT_TRUE(QueueStartsWithMarker());
        EXPECT_NE(ERR_GET_LIB(ERR_peek_last_error()), ERR_LIB_USER);
    }
    ERR_clear_error();
}

TEST(ErrorQueue, KeepsEarlierEntriesThroughSuccesses) {
    Bytes const publicKey = Vector("key512.public");
    Bytes const privateKey = Vector("key512.private");
    Bytes const encrypted = Vector("key512-hello.encrypted");
    Bytes const signature = Vector("key512-abc.signature");
    StartQueueWithMarker();
    EXPECT_EQ(Sign(privateKey, Text("abc")).m_Result, 0);
    EXPECT_EQ(Verify(publicKey, Text("abc"), signature), 0);
    EXPECT_EQ(Encrypt(publicKey, Text("abc")).m_Result, 0);
    EXPECT_EQ(Decrypt(privateKey, encrypted).m_Result, 0);
    EXPECT_TRUE(QueueStartsWithMarker());
    EXPECT_EQ(ERR_peek_last_error(), ERR_peek_error());
    EXPECT_EQ(Generate().m_Result, 0);
    EXPECT_TRUE(QueueStartsWithMarker());
    ERR_clear_error();
}

}  // namespace
