// The table of kept keys.
//
// An entry is reserved for one KvxKeptKey while that lives: the object takes the entry whose bytes are the same, or
// parses the key and takes an unused entry or the least recently used one. The object gives it back with the key
// inside, or empty and wiped. When all entries are reserved, or nobody counts as a user, a key is parsed and freed as
// if there were no table. Keys are freed while the table is unlocked, save with the last user.

#include "core/icct_keptkey.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <mutex>
#include <utility>

#include "core/icct_keyusers.h"
#include "foundation/tbfork.h"
#include "foundation/tbforkgate.h"

// See the head of icct.cpp.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

/// Bytes of the largest signature that is remembered: that of 1024 bits.
constexpr int kMaxSignature = 128;

/// A signature that a key has made; free while its length is 0.
struct Made {
    KvxDigest m_Digest;
    int m_Length;
    unsigned char m_Bytes[kMaxSignature];
};

}  // namespace

/// Plain members: the table is never destroyed, objects may die in exit handlers.
struct KvxKeptKey::Entry {
    RSA* m_Key;            ///< Null: unused.
    std::uint64_t m_Used;  ///< By g_Uses.
    int m_Length;          ///< Bytes at m_Blob.
    Kind m_Kind;
    bool m_IsReserved;  ///< A KvxKeptKey has it; nobody else reads or changes it.
    unsigned char m_Blob[kMaxBlob];
    Made m_Made[kMaxSignatures];
    int m_NextMade;  ///< The place of the next one.
};

namespace {

using Entry = KvxKeptKey::Entry;

std::mutex g_Mutex;  ///< Guards the table. Locked inside a fork gate only, so no child inherits it locked.
Entry g_Entries[KvxKeptKey::kMaxKeys];
std::uint64_t g_Uses;
bool g_IsInherited;  ///< The table is still that of the parent process.

/// Public objects. Falls to 0 with the table locked only.
std::atomic<std::uint32_t> g_Users{0};

void markInherited() {
    g_IsInherited = true;
}

using ForkHandlers = TbForkHandlers<nullptr, nullptr, markInherited>;

/// Takes the key out of an entry and wipes the bytes that it was parsed from.
RSA* emptied(Entry& entry) noexcept {
    OPENSSL_cleanse(entry.m_Blob, static_cast<std::size_t>(entry.m_Length));
    entry.m_Length = 0;
    for (Made& made : entry.m_Made) {
        made.m_Length = 0;
    }
    return std::exchange(entry.m_Key, nullptr);
}

/// Frees all keys that no call is using.
void freeKeys() noexcept {
    for (Entry& entry : g_Entries) {
        if (!entry.m_IsReserved) {
            RSA_free(emptied(entry));
        }
    }
}

class TableLock {
public:
    TableLock() noexcept {
        ForkHandlers::ensure();
        g_Mutex.lock();
        if (g_IsInherited) {
            freeKeys();
            g_IsInherited = false;
        }
    }
    TableLock(TableLock const&) = delete;
    TableLock& operator=(TableLock const&) = delete;
    ~TableLock() { g_Mutex.unlock(); }
};

bool isKeptAs(Entry const& entry, KvxKeptKey::Kind kind, unsigned char const* blob, int length) noexcept {
    return !entry.m_IsReserved && entry.m_Key != nullptr && entry.m_Kind == kind && entry.m_Length == length &&
           CRYPTO_memcmp(entry.m_Blob, blob, static_cast<std::size_t>(length)) == 0;
}

/// Reserves the entry of a kept key; null when there is none.
Entry* reserveKept(KvxKeptKey::Kind kind, unsigned char const* blob, int length) noexcept {
    TableLock const lock;
    auto* const entry = std::find_if(std::begin(g_Entries), std::end(g_Entries),
                                     [&](Entry const& each) { return isKeptAs(each, kind, blob, length); });
    if (entry == std::end(g_Entries)) {
        return nullptr;
    }
    entry->m_IsReserved = true;
    return entry;
}

/// Reserves an entry for a key that is not kept yet, unused or the least recently used one, whose key becomes
/// `displaced`. Null when all are reserved.
Entry* reserveAny(RSA*& displaced) noexcept {
    TableLock const lock;
    constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
    auto const rank = [](Entry const& entry) {
        return entry.m_IsReserved ? kNever : entry.m_Key == nullptr ? 0 : entry.m_Used;
    };
    auto* const entry =
        std::min_element(std::begin(g_Entries), std::end(g_Entries),
                         [&](Entry const& left, Entry const& right) { return rank(left) < rank(right); });
    if (entry->m_IsReserved) {
        return nullptr;
    }
    entry->m_IsReserved = true;
    displaced = emptied(*entry);
    return entry;
}

/// Ends the reservation. Without users the entry is emptied; returns the key that has to be freed.
RSA* release(Entry& entry, bool isKept) noexcept {
    TableLock const lock;
    entry.m_IsReserved = false;
    entry.m_Used = ++g_Uses;
    return isKept && g_Users != 0 ? nullptr : emptied(entry);
}

RSA* decoded(KvxKeptKey::Kind kind, unsigned char const* blob, int length) noexcept {
    auto* const decode = kind == KvxKeptKey::Kind::kPrivate ? d2i_RSAPrivateKey : d2i_RSAPublicKey;
    return decode(nullptr, &blob, length);
}

}  // namespace

KvxKeptKey::KvxKeptKey(Kind kind, unsigned char const* blob, int length) noexcept {
    if (blob == nullptr || length <= 0) {
        return;
    }
    bool const mayBeKept = length <= kMaxBlob && g_Users != 0;
    m_Entry = mayBeKept ? reserveKept(kind, blob, length) : nullptr;
    if (m_Entry != nullptr) {
        m_Key = m_Entry->m_Key;
        return;
    }
    m_Key = decoded(kind, blob, length);
    if (m_Key == nullptr || !mayBeKept) {
        return;
    }
    RSA* displaced = nullptr;
    m_Entry = reserveAny(displaced);
    RSA_free(displaced);
    if (m_Entry != nullptr) {
        // Now, because the operation may write its result where the caller's bytes stand.
        m_Entry->m_Key = m_Key;
        m_Entry->m_Kind = kind;
        m_Entry->m_Length = length;
        std::memcpy(m_Entry->m_Blob, blob, static_cast<std::size_t>(length));
    }
}

KvxKeptKey::~KvxKeptKey() {
    RSA_free(m_Entry == nullptr ? m_Key : release(*m_Entry, m_IsKept));
}

int KvxKeptKey::copySignature(KvxDigest const& digest, unsigned char* out) const noexcept {
    if (m_Entry == nullptr) {
        return 0;
    }
    for (Made const& made : m_Entry->m_Made) {
        if (made.m_Length != 0 && made.m_Digest == digest) {
            std::memcpy(out, made.m_Bytes, static_cast<std::size_t>(made.m_Length));
            return made.m_Length;
        }
    }
    return 0;
}

void KvxKeptKey::rememberSignature(KvxDigest const& digest, unsigned char const* signature, int length) noexcept {
    if (m_Entry == nullptr || length > kMaxSignature) {
        return;
    }
    Made& made = m_Entry->m_Made[m_Entry->m_NextMade];
    m_Entry->m_NextMade = (m_Entry->m_NextMade + 1) % kMaxSignatures;
    made.m_Digest = digest;
    made.m_Length = length;
    std::memcpy(made.m_Bytes, signature, static_cast<std::size_t>(length));
}

void kvxAddKeyUser() noexcept {
    ++g_Users;
}

void kvxRemoveKeyUser() noexcept {
    std::uint32_t users = g_Users;
    while (users > 1) {
        if (g_Users.compare_exchange_weak(users, users - 1)) {
            return;
        }
    }
    TbForkGate const gate;
    TableLock const lock;
    if (--g_Users == 0) {
        freeKeys();
    }
}

#ifdef KVX_TEST_SEAMS
std::uint32_t kvxCountKeptKeys() noexcept {
    TbForkGate const gate;
    TableLock const lock;
    return static_cast<std::uint32_t>(std::count_if(std::begin(g_Entries), std::end(g_Entries), [](Entry const& entry) {
        return !entry.m_IsReserved && entry.m_Key != nullptr;
    }));
}
#endif

#pragma GCC diagnostic pop
