// Signing and verifying: known responses of another program, then every bit flipped and every length cut.
//
// tests/data/README.md describes how the vectors were made. Odd: a signature covers the bare digest, so standard
// signatures are refused; a failed operation stores its -1 in the unsigned length.

#include "core/icct.h"

#include <algorithm>
#include <climits>

#include "core/icct_digest.h"
#include "tests/core/icctsupport.h"
#include "tests/support/encodings.h"

using namespace kvxtest;

namespace {

struct KnownSignature {
    char const* m_Key;
    Bytes m_Data;
    char const* m_Signature;
};

std::vector<KnownSignature> knownSignatures() {
    return {
        {"key512", bytesIn("abc"), "key512-abc.signature"},
        {"key512", {}, "key512-empty.signature"},
        {"key512", {'a', 0x00, 'b', 0x80, 0xFF, '\n'}, "key512-binary.signature"},
        {"key8192", bytesIn("abc"), "key8192-abc.signature"},  // the largest key that signs
    };
}

TEST(Signature, IsByteForByteThatOfTheCommandLineTool) {
    for (KnownSignature const& known : knownSignatures()) {
        SCOPED_TRACE(known.m_Signature);
        Outcome const signature = sign(rsaData(std::string(known.m_Key) + ".private"), known.m_Data);
        EXPECT_EQ(signature.m_Result, 0);
        EXPECT_EQ(signature.output(), rsaData(known.m_Signature));
    }
}

TEST(Signature, StaysWithinTheModulus) {
    Outcome const signature = sign(rsaData("key512.private"), bytesIn("abc"));
    ASSERT_EQ(signature.m_Result, 0);
    ASSERT_EQ(signature.m_Length, 64U);
    EXPECT_TRUE(std::all_of(signature.m_Buffer.begin() + 64, signature.m_Buffer.end(),
                            [](unsigned char byte) { return byte == kUntouched; }));
}

TEST(Verify, AcceptsSignaturesOfTheCommandLineTool) {
    Bytes const key = rsaData("key512.public");
    EXPECT_EQ(verify(key, bytesIn("abc"), rsaData("key512-abc.signature")), 0);
    EXPECT_EQ(verify(key, {}, rsaData("key512-empty.signature")), 0);
    EXPECT_EQ(verify(key, {'a', 0x00, 'b', 0x80, 0xFF, '\n'}, rsaData("key512-binary.signature")), 0);
}

TEST(Verify, AcceptsKeysUpTo1024BitsOnly) {
    EXPECT_EQ(verify(rsaData("key1024.public"), bytesIn("abc"), rsaData("key1024-abc.signature")), 0);
    EXPECT_EQ(verify(rsaData("key1032.public"), bytesIn("abc"), rsaData("key1032-abc.signature")), -1);
}

// 245 recovered bytes would overrun the buffer for the recovered digest.
TEST(Verify, RefusesAPayloadLargerThanItsBuffer) {
    EXPECT_EQ(verify(rsaData("key2048.public"), bytesIn("abc"), rsaData("key2048-abc-245.signature")), -1);
}

// Signatures here are over the bare digest, without the DigestInfo of a standard SHA-1 with RSA signature.
TEST(Verify, KeepsRefusingStandardSignatures) {
    EXPECT_EQ(verify(rsaData("key512.public"), bytesIn("abc"), rsaData("key512-abc-digestinfo.signature")), -1);
}

TEST(Verify, RefusesAnyPayloadOtherThanTwentyBytes) {
    Bytes const key = rsaData("key512.public");
    EXPECT_EQ(verify(key, bytesIn("abc"), rsaData("key512-abc-21.signature")), -1);
    EXPECT_EQ(verify(key, bytesIn("abc"), rsaData("key512-abc-19.signature")), -1);
}

TEST(Verify, ComparesTheDigestToItsEnds) {
    Bytes const key = rsaData("key512.public");
    EXPECT_EQ(verify(key, bytesIn("abc"), rsaData("key512-abc-first.signature")), -1);
    EXPECT_EQ(verify(key, bytesIn("abc"), rsaData("key512-abc-last.signature")), -1);
}

TEST(Verify, FailsForEveryFlippedBitOfTheSignature) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    for (std::size_t bit = 0; bit < signature.size() * 8; ++bit) {
        ASSERT_EQ(verify(key, bytesIn("abc"), withFlippedBit(signature, bit)), -1) << "bit " << bit;
    }
}

TEST(Verify, FailsForEveryFlippedBitOfTheData) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    Bytes const data = bytesIn("abc");
    for (std::size_t bit = 0; bit < data.size() * 8; ++bit) {
        ASSERT_EQ(verify(key, withFlippedBit(data, bit), signature), -1) << "bit " << bit;
    }
    EXPECT_EQ(verify(key, bytesIn("abcd"), signature), -1);
    EXPECT_EQ(verify(key, bytesIn("ab"), signature), -1);
    EXPECT_EQ(verify(key, {}, signature), -1);
}

TEST(Verify, FailsForEveryOtherLengthOfTheSignature) {
    Bytes const key = rsaData("key512.public");
    Bytes signature = rsaData("key512-abc.signature");
    for (std::size_t length = 0; length < signature.size(); ++length) {
        ASSERT_EQ(verify(key, bytesIn("abc"), firstBytes(signature, length)), -1) << "length " << length;
    }
    signature.push_back(0);
    EXPECT_EQ(verify(key, bytesIn("abc"), signature), -1);
    signature.resize(4096);
    EXPECT_EQ(verify(key, bytesIn("abc"), signature), -1);
}

TEST(Verify, FailsForASignatureNotBelowTheModulus) {
    EXPECT_EQ(verify(rsaData("key512.public"), bytesIn("abc"), Bytes(64, 0xFF)), -1);
    EXPECT_EQ(verify(rsaData("key512.public"), bytesIn("abc"), Bytes(64, 0x00)), -1);
}

TEST(SignAndVerify, AgreeOverDataOfAnyLength) {
    Bytes const privateKey = rsaData("key512.private");
    Bytes const publicKey = rsaData("key512.public");
    for (std::size_t const length : {0U, 1U, 19U, 20U, 21U, 63U, 64U, 65U, 1000U, 100000U}) {
        SCOPED_TRACE(length);
        Bytes data(length);
        for (std::size_t i = 0; i < length; ++i) {
            data[i] = static_cast<unsigned char>(i * 7 + i / 256);
        }
        Outcome const signature = sign(privateKey, data);
        ASSERT_EQ(signature.m_Result, 0);
        EXPECT_EQ(verify(publicKey, data, signature.output()), 0);
    }
}

TEST(Signature, RefusesKeysAbove8192Bits) {
    Outcome const outcome = sign(rsaData("key8200.private"), bytesIn("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.bufferIsUntouched());
}

// The RSA operation's -1 is stored in the unsigned length as it is.
TEST(Signature, KeepsStoringTheFailedResultAsLength) {
    Bytes const modulus(30, 0x7F);  // too small for a padded digest
    Bytes const one{0x01};
    Outcome const outcome = sign(keyOf({{0x00}, modulus, one, one, one, one, one, one, one}), bytesIn("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, ULONG_MAX);
}

TEST(Signature, LeavesTheOutputsAloneWhenTheKeyIsRefused) {
    Outcome const outcome = sign(rsaData("key512.public"), bytesIn("abc"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.bufferIsUntouched());
}

TEST(Signature, TakesNullForNoData) {
    Bytes const key = rsaData("key512.private");
    Bytes out(64);
    unsigned long length = 0;
    EXPECT_EQ(ICCT_Signature(key.data(), lengthOf(key), nullptr, 0, out.data(), &length), 0);
    EXPECT_EQ(out, rsaData("key512-empty.signature"));
}

/// The digest of `data`, given in pieces of `piece` bytes.
KvxDigest digestOf(Bytes const& data, std::size_t piece) {
    KvxSha1 digest;
    for (std::size_t begin = 0; begin < data.size(); begin += piece) {
        digest.add(data.data() + begin, std::min(piece, data.size() - begin));
    }
    return digest.digest();
}

TEST(Sha1, IsTheSameInPieces) {
    Bytes data(1000);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(i * 7);
    }
    KvxDigest whole;
    ASSERT_NE(SHA1(data.data(), data.size(), whole.data()), nullptr);
    for (std::size_t const piece : {1U, 2U, 63U, 64U, 65U, 512U, 1000U}) {
        EXPECT_EQ(digestOf(data, piece), whole) << piece;
    }
    KvxDigest const ofNothing = KvxSha1().digest();
    EXPECT_EQ(hexOf(Bytes(ofNothing.begin(), ofNothing.end())), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(SignatureOfADigest, IsThatOfItsData) {
    for (KnownSignature const& known : knownSignatures()) {
        SCOPED_TRACE(known.m_Signature);
        Bytes const key = rsaData(std::string(known.m_Key) + ".private");
        Outcome made;
        made.m_Result =
            ICCT_SignDigest(key.data(), lengthOf(key), digestOf(known.m_Data, 1), made.m_Buffer.data(), &made.m_Length);
        EXPECT_EQ(made.m_Result, 0);
        EXPECT_EQ(made.output(), rsaData(known.m_Signature));
    }
    unsigned char out = 0;
    unsigned long length = kUntouchedLength;
    EXPECT_EQ(ICCT_SignDigest(nullptr, 0, digestOf({}, 1), &out, &length), -1);
    EXPECT_EQ(length, kUntouchedLength);
}

TEST(SignatureOfADigest, IsVerifiedAsThatOfItsData) {
    Bytes const key = rsaData("key512.public");
    Bytes const signature = rsaData("key512-abc.signature");
    KvxDigest const digest = digestOf(bytesIn("abc"), 1);
    auto const verified = [&](Bytes const& with, unsigned char const* sig, unsigned long length) {
        return ICCT_VerifyDigest(with.data(), lengthOf(with), digest, sig, length);
    };
    EXPECT_EQ(verified(key, signature.data(), signature.size()), 0);
    EXPECT_EQ(verified(key, signature.data(), signature.size() - 1), -1);
    EXPECT_EQ(verified(key, signature.data(), kTooLong), -1);
    EXPECT_EQ(verified(key, nullptr, 1), -1);
    EXPECT_EQ(verified(rsaData("key1032.public"), signature.data(), signature.size()), -1);
    EXPECT_EQ(ICCT_VerifyDigest(nullptr, 0, digest, signature.data(), signature.size()), -1);
    EXPECT_EQ(ICCT_VerifyDigest(key.data(), lengthOf(key), digestOf(bytesIn("abd"), 1), signature.data(), 64), -1);
}

}  // namespace
