/// Calls of the RSA functions with whole byte vectors, and control over the OpenSSL functions below them.
///
/// Buffers are filled with marks before a call, so that a test sees written bytes. Inputs lie in blocks of their
/// exact size.
#ifndef TALLOWIN_TESTS_CORE_ICCTSUPPORT_H
#define TALLOWIN_TESTS_CORE_ICCTSUPPORT_H

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <climits>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/encodings.h"

namespace kvxtest {

/// Which OpenSSL function fails for this thread, and the arguments of the functions. The support code defines these
/// functions again, in front of the shared library: each one passes its call on unless it is the failing one.
struct LibraryCalls {
    std::string m_Failing;  ///< Name of the function to fail; empty: none.
    int m_Seedings = 0;
    std::vector<unsigned char> m_Seed;
    int m_MethodObjects = 0;
    int m_GeneratedBits = 0;
    unsigned long m_GeneratedExponent = 0;
    int m_Additions = 0;
    unsigned char* m_AdditionTarget = nullptr;
    int m_AdditionResult = 0;   ///< The result of the library.
    int m_AdditionSurplus = 0;  ///< Added to that.
};
LibraryCalls& libraryCalls();

/// Clears the record of calls at its start and at its end.
class LibraryCallsGuard {
public:
    LibraryCallsGuard() { libraryCalls() = LibraryCalls(); }
    ~LibraryCallsGuard() { libraryCalls() = LibraryCalls(); }
    LibraryCallsGuard(LibraryCallsGuard const&) = delete;
    LibraryCallsGuard& operator=(LibraryCallsGuard const&) = delete;
};

inline constexpr unsigned char kUntouched = 0xA5;
inline constexpr unsigned long kUntouchedLength = 0xA5A5;
inline constexpr unsigned long kTooLong = static_cast<unsigned long>(INT_MAX) + 1;

/// The bytes of tests/data/rsa/`name`.hex.
Bytes rsaData(std::string const& name);

/// The bytes of `text`.
Bytes bytesIn(std::string const& text);

/// The first `length` bytes in a block of exactly that size, so that a memory checker notices reading on.
Bytes firstBytes(Bytes const& bytes, std::size_t length);

Bytes withFlippedBit(Bytes bytes, std::size_t bit);

/// The length as the functions take it.
int lengthOf(Bytes const& bytes);

/// The result of a call and its two outputs. `buffer` has 2048 bytes, `kUntouched` where nothing was
/// written.
struct Outcome {
    int m_Result = 0;
    Bytes m_Buffer = Bytes(2048, kUntouched);
    unsigned long m_Length = kUntouchedLength;

    Bytes output() const { return firstBytes(m_Buffer, m_Length); }
    bool bufferIsUntouched() const {
        return std::all_of(m_Buffer.begin(), m_Buffer.end(), [](unsigned char byte) { return byte == kUntouched; });
    }
};

Outcome sign(Bytes const& key, Bytes data);
int verify(Bytes const& key, Bytes data, Bytes signature);
Outcome encrypt(Bytes key, Bytes plain, unsigned long room = 2048);
Outcome decrypt(Bytes key, Bytes encrypted);

/// The outputs of generating a key pair.
struct KeyPair {
    int m_Result = 0;
    Bytes m_PublicBuffer = Bytes(4096, kUntouched);
    Bytes m_PrivateBuffer = Bytes(4096, kUntouched);
    int m_PublicLength = 0;
    int m_PrivateLength = 0;

    Bytes publicBlob() const { return firstBytes(m_PublicBuffer, static_cast<std::size_t>(m_PublicLength)); }
    Bytes privateBlob() const { return firstBytes(m_PrivateBuffer, static_cast<std::size_t>(m_PrivateLength)); }
};
KeyPair generate(Bytes seed = {});

/// Length of the DER structure at the start of `blob`, from its own header; 0 when there is none.
std::size_t derLength(Bytes const& blob);

using PkeyHolder = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using PkeyContextHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using BignumHolder = std::unique_ptr<BIGNUM, decltype(&BN_free)>;

/// Keys as OpenSSL reads them; null when it does not.
PkeyHolder publicPkey(Bytes const& blob);
PkeyHolder privatePkey(Bytes const& blob);

/// One number of a key.
BignumHolder number(EVP_PKEY* key, char const* name);

/// A key blob of these numbers, each given by its content bytes.
Bytes keyOf(std::vector<Bytes> const& numbers);

/// Hides all algorithms from the calling thread: no digest, no random generator.
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

/// A function that takes a key, with all other arguments right.
struct KeyedCall {
    char const* m_Name;
    bool m_WantsPrivateKey;
    int (*m_Call)(Bytes const& key);
};
std::vector<KeyedCall> keyedCalls();

/// The key that `function` takes.
Bytes rightKey(KeyedCall const& function);

}  // namespace kvxtest

#endif
