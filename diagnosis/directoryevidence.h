#ifndef TALLOWIN_DIAGNOSIS_DIRECTORYEVIDENCE_H
#define TALLOWIN_DIAGNOSIS_DIRECTORYEVIDENCE_H

#include <string>
#include <vector>

#include "diagnosis/diagnosis.h"

/// Evidence without the service: the public keys that a merchant has.
namespace diagnosis {

/// The Evidence of a configuration directory, and what of it could not be used.
struct DirectoryEvidence {
    Evidence m_Evidence;
    std::vector<std::string> m_Problems;  ///< "keys/public/X: the key blob is not ...".
};

/// The public keys in the configuration directory `path`; private keys are not read. A key is the merchant's own when
/// its private half lies beside it or its id begins as the merchant's do; every other is the server's, and the id in
/// `config.xml` is the current one. Searches `originals` and single changes, with `expected` first. A directory without
/// any file gives evidence without keys, and a problem.
DirectoryEvidence directoryEvidence(std::string const& path, std::vector<SeenMessage> originals, Attributes expected);

/// Evidence with one key of the server, in the form of `keys/public/ID`, for messages that name `keyId`.
/// Throws HttpError when the key cannot be read.
Evidence keyEvidence(std::string const& keyId, std::string const& blob, std::vector<SeenMessage> originals,
                     Attributes expected);

/// The Recall among `messages`.
Recall recallAmong(std::vector<SeenMessage> messages);

}  // namespace diagnosis

#endif  // TALLOWIN_DIAGNOSIS_DIRECTORYEVIDENCE_H
