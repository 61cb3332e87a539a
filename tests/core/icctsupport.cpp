// Calls of the RSA functions, and the OpenSSL functions below them defined again.
//
// A test program links libcrypto as a shared library, so the definitions at the end replace the library's own for all
// callers in the program. Each one records its arguments and passes the call on, unless a test wants it to fail.

#include "tests/core/icctsupport.h"

#include <dlfcn.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cstdlib>

#include "core/icct.h"
#include "tests/support/testdata.h"

namespace kvxtest {

namespace {

bool fails(char const* function) {
    return libraryCalls().m_Failing == function;
}

template <typename Function>
Function* libraryFunction(char const* name) {
    void* const address = dlsym(RTLD_NEXT, name);
    if (address == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(address);
}

/// One DER INTEGER, or with `kSequenceTag` a SEQUENCE. Contents up to 65535 bytes.
constexpr unsigned char kIntegerTag = 0x02;
constexpr unsigned char kSequenceTag = 0x30;
Bytes derOf(unsigned char tag, Bytes const& content) {
    Bytes der{tag, 0x82, static_cast<unsigned char>(content.size() / 256),
              static_cast<unsigned char>(content.size() % 256)};
    if (content.size() < 128) {
        der = {tag, static_cast<unsigned char>(content.size())};
    }
    der.insert(der.end(), content.begin(), content.end());
    return der;
}

}  // namespace

LibraryCalls& libraryCalls() {
    static thread_local LibraryCalls calls;
    return calls;
}

Bytes rsaData(std::string const& name) {
    return dataBytes("rsa/" + name + ".hex");
}

Bytes bytesIn(std::string const& text) {
    return Bytes(text.begin(), text.end());
}

Bytes firstBytes(Bytes const& bytes, std::size_t length) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
}

Bytes withFlippedBit(Bytes bytes, std::size_t bit) {
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1U << (bit % 8)));
    return bytes;
}

int lengthOf(Bytes const& bytes) {
    return static_cast<int>(bytes.size());
}

Outcome sign(Bytes const& key, Bytes data) {
    Outcome outcome;
    outcome.m_Result =
        ICCT_Signature(key.data(), lengthOf(key), data.data(), data.size(), outcome.m_Buffer.data(), &outcome.m_Length);
    return outcome;
}

int verify(Bytes const& key, Bytes data, Bytes signature) {
    return ICCT_Verify(key.data(), lengthOf(key), data.data(), data.size(), signature.data(), signature.size());
}

Outcome encrypt(Bytes key, Bytes plain, unsigned long room) {
    Outcome outcome;
    outcome.m_Length = room;
    outcome.m_Result = ICCT_CryptDigest(key.data(), lengthOf(key), plain.data(), plain.size(), outcome.m_Buffer.data(),
                                        &outcome.m_Length);
    return outcome;
}

Outcome decrypt(Bytes key, Bytes encrypted) {
    Outcome outcome;
    outcome.m_Result = ICCT_DecryptDigest(key.data(), lengthOf(key), encrypted.data(), encrypted.size(),
                                          outcome.m_Buffer.data(), &outcome.m_Length);
    return outcome;
}

KeyPair generate(Bytes seed) {
    KeyPair pair;
    pair.m_Result = ICCT_GenerateKeys(pair.m_PublicBuffer.data(), &pair.m_PublicLength, pair.m_PrivateBuffer.data(),
                                      &pair.m_PrivateLength, seed.empty() ? nullptr : seed.data(), lengthOf(seed));
    return pair;
}

std::size_t derLength(Bytes const& blob) {
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

PkeyHolder publicPkey(Bytes const& blob) {
    unsigned char const* cursor = blob.data();
    return PkeyHolder(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(blob.size())), EVP_PKEY_free);
}

PkeyHolder privatePkey(Bytes const& blob) {
    unsigned char const* cursor = blob.data();
    return PkeyHolder(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(blob.size())), EVP_PKEY_free);
}

BignumHolder number(EVP_PKEY* key, char const* name) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    return BignumHolder(number, BN_free);
}

Bytes keyOf(std::vector<Bytes> const& numbers) {
    Bytes content;
    for (Bytes const& number : numbers) {
        Bytes const der = derOf(kIntegerTag, number);
        content.insert(content.end(), der.begin(), der.end());
    }
    return derOf(kSequenceTag, content);
}

std::vector<KeyedCall> keyedCalls() {
    return {
        {"ICCT_Signature", true, [](Bytes const& key) { return sign(key, bytesIn("abc")).m_Result; }},
        {"ICCT_Verify", false,
         [](Bytes const& key) {
             static Bytes const signature = rsaData("key512-abc.signature");
             return verify(key, bytesIn("abc"), signature);
         }},
        {"ICCT_CryptDigest", false, [](Bytes const& key) { return encrypt(key, bytesIn("abc")).m_Result; }},
        {"ICCT_DecryptDigest", true,
         [](Bytes const& key) {
             static Bytes const encrypted = rsaData("key512-hello.encrypted");
             return decrypt(key, encrypted).m_Result;
         }},
    };
}

Bytes rightKey(KeyedCall const& function) {
    return rsaData(function.m_WantsPrivateKey ? "key512.private" : "key512.public");
}

}  // namespace kvxtest

using kvxtest::fails;
using kvxtest::libraryCalls;
using kvxtest::libraryFunction;

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED void RAND_seed(void const* buf, int num) {
    auto const* const bytes = static_cast<unsigned char const*>(buf);
    ++libraryCalls().m_Seedings;
    libraryCalls().m_Seed.assign(bytes, bytes + num);
    libraryFunction<void(void const*, int)>("RAND_seed")(buf, num);
}

INTERPOSED RSA* RSA_new_method(ENGINE* engine) {
    ++libraryCalls().m_MethodObjects;
    return fails("RSA_new_method") ? nullptr : libraryFunction<RSA*(ENGINE*)>("RSA_new_method")(engine);
}

INTERPOSED RSA* RSA_new() {
    return fails("RSA_new") ? nullptr : libraryFunction<RSA*()>("RSA_new")();
}

INTERPOSED BIGNUM* BN_new() {
    return fails("BN_new") ? nullptr : libraryFunction<BIGNUM*()>("BN_new")();
}

INTERPOSED int BN_set_word(BIGNUM* a, BN_ULONG w) {
    return fails("BN_set_word") ? 0 : libraryFunction<int(BIGNUM*, BN_ULONG)>("BN_set_word")(a, w);
}

INTERPOSED int RSA_generate_key_ex(RSA* rsa, int bits, BIGNUM* e, BN_GENCB* cb) {
    libraryCalls().m_GeneratedBits = bits;
    libraryCalls().m_GeneratedExponent = BN_get_word(e);
    return fails("RSA_generate_key_ex")
               ? 0
               : libraryFunction<int(RSA*, int, BIGNUM*, BN_GENCB*)>("RSA_generate_key_ex")(rsa, bits, e, cb);
}

INTERPOSED int i2d_RSAPublicKey(RSA const* a, unsigned char** out) {
    return fails("i2d_RSAPublicKey") ? -1
                                     : libraryFunction<int(RSA const*, unsigned char**)>("i2d_RSAPublicKey")(a, out);
}

INTERPOSED int i2d_RSAPrivateKey(RSA const* a, unsigned char** out) {
    return fails("i2d_RSAPrivateKey") ? -1
                                      : libraryFunction<int(RSA const*, unsigned char**)>("i2d_RSAPrivateKey")(a, out);
}

INTERPOSED int RSA_padding_add_none(unsigned char* to, int tlen, unsigned char const* f, int fl) {
    ++libraryCalls().m_Additions;
    libraryCalls().m_AdditionTarget = to;
    libraryCalls().m_AdditionResult =
        libraryFunction<int(unsigned char*, int, unsigned char const*, int)>("RSA_padding_add_none")(to, tlen, f, fl);
    return libraryCalls().m_AdditionResult + libraryCalls().m_AdditionSurplus;
}

INTERPOSED int RSA_private_encrypt(int flen, unsigned char const* from, unsigned char* to, RSA* rsa, int padding) {
    using Function = int(int, unsigned char const*, unsigned char*, RSA*, int);
    return fails("RSA_private_encrypt")
               ? -1
               : libraryFunction<Function>("RSA_private_encrypt")(flen, from, to, rsa, padding);
}

// Fails after writing the digest, so that only the result shows the failure.
INTERPOSED unsigned char* SHA1(unsigned char const* d, size_t n, unsigned char* md) {
    using Function = unsigned char*(unsigned char const*, size_t, unsigned char*);
    unsigned char* const digest = libraryFunction<Function>("SHA1")(d, n, md);
    return fails("SHA1") ? nullptr : digest;
}
