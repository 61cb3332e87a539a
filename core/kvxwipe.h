/// Wiping of memory that may hold a private key. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXWIPE_H
#define TALLOWIN_CORE_KVXWIPE_H

#include <openssl/crypto.h>

#include <cstddef>

/// A buffer that is wiped at the end of its life.
template <std::size_t kBytes>
struct KvxWipedBuffer {
    KvxWipedBuffer() = default;
    KvxWipedBuffer(KvxWipedBuffer const&) = delete;
    KvxWipedBuffer& operator=(KvxWipedBuffer const&) = delete;
    ~KvxWipedBuffer() { OPENSSL_cleanse(m_Bytes, sizeof m_Bytes); }

    unsigned char m_Bytes[kBytes];
};

#endif
