/// Confirmations from outside: the rows of tests/data/forgeries, and verifying them as a shop does.
#ifndef TALLOWIN_TESTS_CORE_FORGERYSUPPORT_H
#define TALLOWIN_TESTS_CORE_FORGERYSUPPORT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/directories.h"

namespace kvxtest {

/// One row of forgeries.txt.
struct Forgery {
    std::string m_Class;
    std::string m_What;
    std::int32_t m_Code = -1;
    std::map<std::string, std::string> m_Files;  ///< Name under keys/public, and content.
    std::string m_Text;
    std::string m_Signature;
};

/// All rows, in their order. Throws std::runtime_error for a line that it does not understand.
std::vector<Forgery> allForgeries();

/// The code of VerifyPayConfirm for a shop whose configuration directory is `directory`: that of the class, and the
/// test fails unless the flat function agrees wherever it can be given the same bytes.
std::int32_t verifiedPayConfirm(std::string const& directory, std::string const& text, std::string const& signature);

/// A key of 512 bits whose private half signs any block, apart from the code under test.
class BlockSigner {
public:
    /// The key "server" of a shop, tests/data/rsa/key512.
    static std::string publicHex();

    /// The signature, in hexadecimal, that opens to `block` of 64 bytes.
    static std::string sign(std::string const& block);

    /// The right block for `text`: 00 01, FF, 00, the digest of the text as verifying widens it.
    static std::string blockFor(std::string const& text);
};

}  // namespace kvxtest

#endif
