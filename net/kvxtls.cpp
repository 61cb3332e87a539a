#include "net/kvxtls.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <initializer_list>
#include <memory>

#include "core/kvxfile.h"
#include "foundation/tbreleaser.h"
#include "net/kvxhttp.h"
#include "net/kvxmemorywatch.h"

namespace {

using BioHolder = std::unique_ptr<BIO, TbReleaser<BIO_free_all>>;
using CertificateHolder = std::unique_ptr<X509, TbReleaser<X509_free>>;

/// The TLS library's numbers of the versions, in the order of KVX_TlsVersion.
constexpr int kNumbers[static_cast<std::size_t>(KVX_TlsVersion::Tls13) + 1] = {0, TLS1_VERSION, TLS1_1_VERSION,
                                                                               TLS1_2_VERSION, TLS1_3_VERSION};

/// Raises the lowest version; the configuration of the TLS library may demand a higher one already.
bool raiseVersion(SSL_CTX* context, KVX_TlsVersion version) {
    int const number = kNumbers[static_cast<std::size_t>(version)];
    return SSL_CTX_get_min_proto_version(context) >= number || SSL_CTX_set_min_proto_version(context, number) == 1;
}

/// No certificate needs a pass phrase, and nobody is asked for one.
int noPassPhrase(char*, int, int, void*) {
    return 0;
}

/// Trusts every certificate of a PEM text. False unless there are some and all are whole.
bool trustAll(SSL_CTX* context, TbString const& text) {
    BioHolder const pem(BIO_new_mem_buf(text.c_str(), static_cast<int>(text.length())));
    if (pem == nullptr) {
        return false;
    }
    int count = 0;
    for (;; ++count) {
        CertificateHolder const certificate(PEM_read_bio_X509_AUX(pem.get(), nullptr, &noPassPhrase, nullptr));
        if (certificate == nullptr) {
            break;
        }
        if (X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificate.get()) != 1) {
            return false;
        }
    }
    return count > 0 && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

/// Trusts the system's authorities. The TLS library passes over those that it cannot read, also for lack of memory, so
/// `watch` looks after each step.
bool trustSystem(SSL_CTX* context, KvxMemoryWatch& watch) {
    for (auto* const step :
         {&SSL_CTX_set_default_verify_file, &SSL_CTX_set_default_verify_dir, &SSL_CTX_set_default_verify_store}) {
        if (step(context) != 1) {
            return false;
        }
        watch.sample();
    }
    return true;
}

}  // namespace

bool kvxReadTrust(KVX_Transfer const& transfer, TbStringStream& trust) {
    return !transfer.verifyPeer || transfer.trustFile.isEmpty() ||
           kvxReadFile(transfer.trustFile.c_str(), trust) == KvxReadResult::kDone;
}

std::int32_t kvxProtect(SSL_CTX* context, KVX_Transfer const& transfer, TbString const& trust) {
    KvxMemoryWatch watch;
    bool isReady = raiseVersion(context, transfer.minimumVersion);
    if (isReady && transfer.verifyPeer) {
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
        isReady = transfer.trustFile.isEmpty() ? trustSystem(context, watch) : trustAll(context, trust);
    }
    if (watch.hasFailure()) {
        return KVX_E_OUT_OF_MEMORY;
    }
    return isReady ? KVX_OK : KVX_E_TLS_FAMILY | kKvxTlsTrust;
}
