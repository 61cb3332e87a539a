#include "bench/floor.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/random.h>
#include <unistd.h>

#include "bench/require.h"

// Only OpenSSL's low-level functions sign a digest without DigestInfo.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kvxbench {

namespace {

RSA* decode(decltype(d2i_RSAPublicKey)* decoder, std::string const& file) {
    plain::Bytes const blob = plain::fromHex(plain::readFile(file));
    unsigned char const* at = blob.data();
    return decoder(nullptr, &at, static_cast<long>(blob.size()));
}

}  // namespace

void Floor::FreeRsa::operator()(RSA* key) const {
    RSA_free(key);
}

Floor::Floor(std::string const& directory, std::string const& ownKey, std::string const& serverKey,
             std::string const& signature)
    : m_Directory(directory),
      m_PrivateKeyFile("keys/private/" + ownKey),
      m_PublicKeyFile("keys/public/" + serverKey),
      m_PrivateKey(decode(d2i_RSAPrivateKey, directory + "/" + m_PrivateKeyFile)),
      m_PublicKey(decode(d2i_RSAPublicKey, directory + "/" + m_PublicKeyFile)),
      m_Signature(plain::fromHex(signature)),
      m_Result(m_Signature.size()) {
    require(m_PrivateKey != nullptr && m_PublicKey != nullptr, "no key");
    require(RSA_size(m_PrivateKey.get()) == static_cast<int>(m_Result.size()), "the keys differ in size");
    payment();
    confirmation();
}

void Floor::read(int directory, std::string const& name) {
    int const file = ::openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t const count = ::read(file, m_Content, sizeof m_Content);
    ::close(file);
    require(count > 0 && static_cast<std::size_t>(count) < sizeof m_Content, "cannot read a file");
}

unsigned char Floor::payment() {
    int const directory = ::open(m_Directory.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
    require(directory != -1, "cannot open the directory");
    read(directory, "keys/current");
    read(directory, "default.xml");
    require(::openat(directory, "settings.xml", O_RDONLY | O_CLOEXEC) == -1, "no settings are expected");
    read(directory, "config.xml");
    read(directory, m_PrivateKeyFile);
    ::close(directory);
    unsigned char digest[SHA_DIGEST_LENGTH] = {};
    require(::getrandom(digest, 16, 0) == 16, "no random bytes");
    require(RSA_private_encrypt(sizeof digest, digest, m_Result.data(), m_PrivateKey.get(), RSA_PKCS1_PADDING) > 0,
            "cannot sign");
    return m_Result[0];
}

unsigned char Floor::confirmation() {
    int const directory = ::open(m_Directory.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
    require(directory != -1, "cannot open the directory");
    require(::openat(directory, "settings.xml", O_RDONLY | O_CLOEXEC) == -1, "no settings are expected");
    read(directory, m_PublicKeyFile);
    ::close(directory);
    require(RSA_public_decrypt(static_cast<int>(m_Signature.size()), m_Signature.data(), m_Result.data(),
                               m_PublicKey.get(), RSA_PKCS1_PADDING) == SHA_DIGEST_LENGTH,
            "cannot recover the digest");
    return m_Result[0];
}

}  // namespace kvxbench

#pragma GCC diagnostic pop
