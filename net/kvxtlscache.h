/// TLS contexts and sessions that live on between exchanges. Internal: not installed.
#ifndef TALLOWIN_NET_KVXTLSCACHE_H
#define TALLOWIN_NET_KVXTLSCACHE_H

#include <openssl/ssl.h>

#include <memory>

#include "foundation/tbreleaser.h"
#include "net/kvxtransfer.h"

using KvxTlsContext = std::unique_ptr<SSL_CTX, TbReleaser<SSL_CTX_free>>;
using KvxTlsSession = std::unique_ptr<SSL_SESSION, TbReleaser<SSL_SESSION_free>>;

/// What a kept context was made for: digest of host, port, checks and trusted authorities.
struct KvxTlsKey {
    unsigned char m_Digest[32];
};

/// The key of a connection; `trust` is the text of its authorities. False when it cannot be computed.
[[nodiscard]] bool kvxTlsKeyOf(KVX_Transfer const& transfer, TbString const& trust, TbString const& host,
                               TbString const& port, KvxTlsKey& key);

/// A context and a session to resume; both may be null.
struct KvxKeptTls {
    KvxTlsContext m_Context;
    KvxTlsSession m_Session;
};

/// The cache is one for the process, for any thread, at most 16 contexts, none older than ten minutes. A child of
/// fork() begins with an empty one: it neither uses nor frees what another thread of its parent may have been inside.

/// The context under `key`, which stays, and its session, which goes: a session is resumed once.
[[nodiscard]] KvxKeptTls kvxTakeTls(KvxTlsKey const& key);

/// Keeps `context` under `key`; shared from now on, so no longer to be changed. The least recently used one goes.
void kvxKeepContext(KvxTlsKey const& key, SSL_CTX* context);

/// Keeps `session` with the context under `key`, in place of an earlier one. Without that context it is dropped.
void kvxKeepSession(KvxTlsKey const& key, KvxTlsSession session);

#endif
