#include "net/kvxtlscache.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "foundation/tbfork.h"
#include "foundation/tbforkgate.h"
#include "net/kvxwait.h"

namespace {

constexpr std::size_t kMaxEntries = 16;

/// So long a change of the system's authorities or the end of a certificate may go unnoticed.
constexpr std::int64_t kMaxAgeMilliseconds = std::int64_t{10} * 60 * 1000;

/// A kept context; free without one. Plain pointers: the table is never destroyed, threads may outlive it.
struct Entry {
    KvxTlsKey m_Key;
    SSL_CTX* m_Context;
    SSL_SESSION* m_Session;  ///< To be resumed, or null.
    std::int64_t m_Made;     ///< Times of kvxNow().
    std::int64_t m_Used;
};

std::mutex g_Mutex;  ///< Guards the table; never held while anything waits.
Entry g_Entries[kMaxEntries];

void lockTable() {
    g_Mutex.lock();
}

void unlockTable() {
    g_Mutex.unlock();
}

/// What is inherited is left where it is: its locks may be held by threads that the child does not have.
void forgetTable() {
    std::memset(g_Entries, 0, sizeof g_Entries);
    g_Mutex.unlock();
}

using ForkHandlers = TbForkHandlers<lockTable, unlockTable, forgetTable>;

class TableLock {
public:
    TableLock() noexcept {
        ForkHandlers::ensure();
        g_Mutex.lock();
    }
    TableLock(TableLock const&) = delete;
    TableLock& operator=(TableLock const&) = delete;
    ~TableLock() { g_Mutex.unlock(); }
};

/// Both are wiped by the TLS library.
void drop(Entry& entry) {
    SSL_SESSION_free(entry.m_Session);
    SSL_CTX_free(entry.m_Context);
    entry = {};
}

/// The entry under `key`, too old ones dropped; null when there is none.
Entry* find(KvxTlsKey const& key) {
    for (Entry& entry : g_Entries) {
        if (entry.m_Context == nullptr || std::memcmp(&entry.m_Key, &key, sizeof key) != 0) {
            continue;
        }
        if (kvxNow() - entry.m_Made <= kMaxAgeMilliseconds) {
            return &entry;
        }
        drop(entry);
    }
    return nullptr;
}

/// An unused entry, or the one whose use is longest ago.
Entry& oldest() {
    Entry* chosen = &g_Entries[0];
    for (Entry& entry : g_Entries) {
        if (entry.m_Context == nullptr) {
            return entry;
        }
        if (entry.m_Used < chosen->m_Used) {
            chosen = &entry;
        }
    }
    return *chosen;
}

void put(TbString& material, char const* text) {
    material.append(text).append('\0');
}

}  // namespace

bool kvxTlsKeyOf(KVX_Transfer const& transfer, TbString const& trust, TbString const& host, TbString const& port,
                 KvxTlsKey& key) {
    TbString material;
    put(material, host.c_str());
    put(material, port.c_str());
    material.append(static_cast<char>('0' + static_cast<int>(transfer.minimumVersion)));
    material.append(transfer.verifyPeer ? 'v' : 'n');
    material.append(transfer.trustFile.isEmpty() ? 's' : 'f');
    // The system's authorities, as the TLS library finds them.
    put(material, std::getenv(X509_get_default_cert_file_env()));
    put(material, std::getenv(X509_get_default_cert_dir_env()));
    material.append(trust);
    TbForkGate const gate;
    return EVP_Digest(material.c_str(), material.length(), key.m_Digest, nullptr, EVP_sha256(), nullptr) == 1;
}

KvxKeptTls kvxTakeTls(KvxTlsKey const& key) {
    KvxKeptTls kept;
    TableLock const lock;
    if (Entry* const entry = find(key)) {
        SSL_CTX_up_ref(entry->m_Context);
        kept.m_Context.reset(entry->m_Context);
        kept.m_Session.reset(entry->m_Session);
        entry->m_Session = nullptr;
        entry->m_Used = kvxNow();
    }
    return kept;
}

void kvxKeepContext(KvxTlsKey const& key, SSL_CTX* context) {
    TableLock const lock;
    if (find(key) != nullptr) {
        return;
    }
    Entry& entry = oldest();
    drop(entry);
    SSL_CTX_up_ref(context);
    std::int64_t const now = kvxNow();
    entry = {key, context, nullptr, now, now};
}

void kvxKeepSession(KvxTlsKey const& key, KvxTlsSession session) {
    TableLock const lock;
    if (Entry* const entry = find(key)) {
        SSL_SESSION_free(entry->m_Session);
        entry->m_Session = session.release();
    }
}
