/// The floor: what no implementation can leave out, because files must be read and signatures computed at every call.
#ifndef TALLOWIN_BENCH_FLOOR_H
#define TALLOWIN_BENCH_FLOOR_H

#include <openssl/rsa.h>

#include <memory>
#include <string>

#include "bench/plain.h"

namespace kvxbench {

/// The system calls of an operation, and its RSA operation with a key that is already decoded and warmed up. No
/// document, no digest, no encoding. A file costs one open, one read and one close, relative to the open directory.
class Floor {
public:
    /// `signature` is one by `serverKey`, in hexadecimal digits.
    Floor(std::string const& directory, std::string const& ownKey, std::string const& serverKey,
          std::string const& signature);

    /// Reads the files of a payment, asks for the 16 random bytes of its token and signs. Returns a byte of the result.
    unsigned char payment();

    /// Reads the files of a confirmation and recovers its digest. Returns a byte of it.
    unsigned char confirmation();

private:
    struct FreeRsa {
        void operator()(RSA* key) const;
    };
    using RsaHolder = std::unique_ptr<RSA, FreeRsa>;

    void read(int directory, std::string const& name);

    std::string m_Directory;
    std::string m_PrivateKeyFile;
    std::string m_PublicKeyFile;
    RsaHolder m_PrivateKey;
    RsaHolder m_PublicKey;
    plain::Bytes m_Signature;
    plain::Bytes m_Result;
    char m_Content[8192];
};

}  // namespace kvxbench

#endif
