#ifndef TALLOWIN_SANDBOX_CRYPTO_OPENSSLHOLDERS_H
#define TALLOWIN_SANDBOX_CRYPTO_OPENSSLHOLDERS_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

#include "sandbox/crypto/releaser.h"

namespace sandbox {

using KeyHolder = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using KeyContextHolder = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;
using CertificateHolder = std::unique_ptr<X509, Releaser<X509_free>>;
using ExtensionHolder = std::unique_ptr<X509_EXTENSION, Releaser<X509_EXTENSION_free>>;
using BioHolder = std::unique_ptr<BIO, Releaser<BIO_free_all>>;
using TlsContextHolder = std::unique_ptr<SSL_CTX, Releaser<SSL_CTX_free>>;
using TlsHolder = std::unique_ptr<SSL, Releaser<SSL_free>>;

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_CRYPTO_OPENSSLHOLDERS_H
