// Forged confirmations, each refused with the code that names why.
//
// The rows come from another program (tests/data/forgeries): every known way to cheat a careless verifier of PKCS#1
// signatures, odd numbers, odd keys, other spellings, messages changed on their way. Some rows are genuine, and some
// are accepted on purpose; the list of those stands here. After the rows, every bit of one confirmation is flipped.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "tallowin/codes.h"
#include "tests/core/forgerysupport.h"
#include "tests/support/encodings.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

/// A shop with the keys of one row, and nothing else.
struct Shop {
    explicit Shop(Forgery const& row) {
        for (auto const& [name, content] : row.m_Files) {
            m_Directory.write("keys/public/" + name, content);
        }
    }

    [[nodiscard]] std::int32_t verify(std::string const& text, std::string const& signature) const {
        return verifiedPayConfirm(m_Directory.path(), text, signature);
    }

    TemporaryDirectory m_Directory;
};

std::string nameOf(Forgery const& row) {
    return row.m_Class + ": " + row.m_What;
}

TEST(Forgeries, AreRefusedWithTheirCode) {
    for (Forgery const& row : allForgeries()) {
        EXPECT_EQ(Shop(row).verify(row.m_Text, row.m_Signature), row.m_Code) << nameOf(row);
    }
}

TEST(Forgeries, CoverAllClasses) {
    std::set<std::string> refused;
    std::set<std::string> names;
    for (Forgery const& row : allForgeries()) {
        EXPECT_TRUE(names.insert(nameOf(row)).second) << "twice: " << nameOf(row);
        EXPECT_FALSE(row.m_Files.empty()) << nameOf(row);
        if (row.m_Code != KVX_OK) {
            refused.insert(row.m_Class);
        }
    }
    EXPECT_GE(refused.size(), 55U);
    EXPECT_GE(names.size(), 260U);
}

/// What both modes accept beside the genuine rows: a matter of which keys and documents a shop has. Each line is a
/// decision: a new one must not come by accident.
std::set<std::string> acceptedByBothModes() {
    return {
        "key of the directory: another key signed and is named: any key of the directory counts",
        "huge modulus: 1024 bits, the most that works",
        "negative numbers: a modulus with its sign bit set counts as positive",
        "bytes behind the key: zeros",
        "bytes behind the key: another key",
        "bytes in the key: an indefinite length",
        "two elements: signed whole by the first's key: the first counts",
        "key id twice: signed: the last counts",
    };
}

/// The rows that a shop with this "settings.xml", empty for none, accepts beside the genuine ones, which it must
/// accept.
std::set<std::string> acceptedWith(std::string const& settings) {
    std::set<std::string> accepted;
    for (Forgery const& row : allForgeries()) {
        Shop const shop(row);
        if (!settings.empty()) {
            shop.m_Directory.write("settings.xml", settings);
        }
        std::int32_t const code = shop.verify(row.m_Text, row.m_Signature);
        if (row.m_Class == "genuine") {
            EXPECT_EQ(code, KVX_OK) << nameOf(row);
        } else if (code == KVX_OK) {
            accepted.insert(nameOf(row));
        }
    }
    return accepted;
}

TEST(Forgeries, AcceptedOnPurposeAreTheseAlone) {
    std::set<std::string> onPurpose = acceptedByBothModes();
    onPurpose.insert({
        "leading zero stripped: the same number in one byte less",
        "other spelling: upper case",
        "other spelling: an odd digit at the end, 0",
        "other spelling: an odd digit at the end, f",
        "other spelling: an odd digit at the end, A",
        "exponent 1: the block is its own signature",
        "tiny modulus: 248 bits, the least that works",
    });
    EXPECT_EQ(acceptedWith(""), onPurpose);
}

// The strict profile refuses other spellings, small keys and keys that no signature protects.
TEST(Forgeries, AcceptedByTheStrictProfileAreFewer) {
    EXPECT_EQ(acceptedWith("<KVX PROFILE=\"strict\"/>"), acceptedByBothModes());
}

// The vectors of this file's own signer and of the other program are the same, so the random ones below bite too.
TEST(Forgeries, AreSignedAsTheOtherProgramSigns) {
    Forgery const genuine = allForgeries().front();
    EXPECT_EQ(genuine.m_Class, "genuine");
    EXPECT_EQ(BlockSigner::sign(BlockSigner::blockFor(genuine.m_Text)), genuine.m_Signature);
}

TEST(Forgeries, OfEveryFlippedBitAreRefused) {
    Forgery const genuine = allForgeries().front();
    Shop const shop(genuine);
    ASSERT_EQ(shop.verify(genuine.m_Text, genuine.m_Signature), KVX_OK);
    std::set<std::int32_t> codes;
    for (std::size_t bit = 0; bit < genuine.m_Text.size() * 8; ++bit) {
        std::string text = genuine.m_Text;
        text[bit / 8] = static_cast<char>(text[bit / 8] ^ (1 << (bit % 8)));
        codes.insert(shop.verify(text, genuine.m_Signature));
    }
    EXPECT_EQ(codes, (std::set<std::int32_t>{KVX_E_INVALID_FORMAT, KVX_E_INVALID_SIGNATURE, KVX_E_NOT_FOUND,
                                             KVX_E_NO_KEY_ID}));
    Bytes const signature = bytesOfHex(genuine.m_Signature);
    for (std::size_t bit = 0; bit < signature.size() * 8; ++bit) {
        Bytes changed = signature;
        changed[bit / 8] = static_cast<unsigned char>(changed[bit / 8] ^ (1U << (bit % 8)));
        EXPECT_EQ(shop.verify(genuine.m_Text, hexOf(changed)), KVX_E_INVALID_SIGNATURE) << "bit " << bit;
    }
}

}  // namespace
