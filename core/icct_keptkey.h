/// Parsed RSA keys that live on between calls. Internal: not installed.
#ifndef TALLOWIN_CORE_ICCT_KEPTKEY_H
#define TALLOWIN_CORE_ICCT_KEPTKEY_H

#include <openssl/rsa.h>

#include "core/icct_digest.h"

/// A key parsed from its DER bytes, or one that an earlier call has parsed from the same bytes.
///
/// Decoding a private key and setting up its blinding cost more than the operation itself. No caller sees a difference:
/// a key is found by its exact bytes, which the caller has just read, so a replaced file takes effect at once. A key
/// belongs to one call at a time, and is kept only when that call says so: a failure in the middle of an operation
/// leaves the blinding in disorder. Bytes that do not decode are decoded by each call, with the same failure.
///
/// A private key remembers the last signatures made with it: the padding is deterministic, so the same digest has the
/// same signature. A program that asks for the size of a URL and then for the URL signs once.
///
/// At most kMaxKeys keys are kept for the process; the least recently used one goes. They are freed and wiped with the
/// last public object (icct_keyusers.h), and without one nothing is kept. A child of fork() begins without kept keys:
/// parent and child must not use one blinding. Blinding stays on.
///
/// Requires: the calling thread is inside a TbForkGate while the object lives. Any thread; one thread an object.
/// Nothing throws.
class KvxKeptKey {
public:
    enum class Kind : unsigned char { kPublic, kPrivate };

    /// `length` bytes at `blob`, borrowed; any values.
    KvxKeptKey(Kind kind, unsigned char const* blob, int length) noexcept;
    KvxKeptKey(KvxKeptKey const&) = delete;
    KvxKeptKey& operator=(KvxKeptKey const&) = delete;

    /// Frees the key unless keep() was called.
    ~KvxKeptKey();

    /// The key; null when the bytes are none.
    [[nodiscard]] RSA* get() const noexcept { return m_Key; }

    /// Leaves the key to later calls when this object goes. Requires: nothing has failed that may have changed it.
    void keep() noexcept { m_IsKept = true; }

    /// Copies the remembered signature of `digest` to `out` and returns its length; 0 when there is none. Requires:
    /// room for the modulus.
    [[nodiscard]] int copySignature(KvxDigest const& digest, unsigned char* out) const noexcept;

    /// Remembers the `length` bytes at `signature`, unless the key is not kept or has a larger modulus. The oldest
    /// signature goes.
    void rememberSignature(KvxDigest const& digest, unsigned char const* signature, int length) noexcept;

    static constexpr int kMaxKeys = 8;

    /// Signatures that one key remembers: several threads may be between the size and the URL.
    static constexpr int kMaxSignatures = 4;

    /// Longer blobs are parsed each time. A private key of 1024 bits takes 610 bytes.
    static constexpr int kMaxBlob = 1024;

    struct Entry;

private:
    RSA* m_Key = nullptr;
    Entry* m_Entry = nullptr;  ///< Reserved for this key; null: the key is freed.
    bool m_IsKept = false;
};

#endif
