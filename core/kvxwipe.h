/// Wiping of memory that may hold a private key. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXWIPE_H
#define TALLOWIN_CORE_KVXWIPE_H

#include <openssl/crypto.h>

#include <cstddef>

#include "foundation/tbstring.h"

/// A buffer that is wiped at the end of its life.
template <std::size_t kBytes>
struct KvxWipedBuffer {
    KvxWipedBuffer() = default;
    KvxWipedBuffer(KvxWipedBuffer const&) = delete;
    KvxWipedBuffer& operator=(KvxWipedBuffer const&) = delete;
    ~KvxWipedBuffer() { OPENSSL_cleanse(m_Bytes, sizeof m_Bytes); }

    unsigned char m_Bytes[kBytes];
};

/// Wipes a text at the end of the scope, before its owner frees it.
class KvxTextWiper {
public:
    explicit KvxTextWiper(TbString& text) : m_Text(text) {}
    KvxTextWiper(KvxTextWiper const&) = delete;
    KvxTextWiper& operator=(KvxTextWiper const&) = delete;
    ~KvxTextWiper() {
        if (!m_Text.isEmpty()) {
            OPENSSL_cleanse(&m_Text[0], m_Text.length());
        }
    }

private:
    TbString& m_Text;
};

#endif
