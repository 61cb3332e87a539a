// Signing, verifying and reading keys, against files that the openssl command made (tests/data/sandbox). Widening comes
// first, then known answers, then every flipped bit and other length, then malformed keys.
#include "sandbox/crypto/signature.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"
#include "tests/support/testdata.h"

namespace {

using namespace sandbox;
using ::testing::HasSubstr;

std::string vectorFile(std::string const& name) {
    return kvxtest::dataText("sandbox/" + name);
}

KeyHolder vectorKey() {
    return readPrivateKeyDer(fromHex(vectorFile("key-private.hex")).value());
}

std::string reasonFor(std::string const& blob) {
    try {
        readPublicKeyBlob(blob);
    } catch (HttpError const& error) {
        return error.what();
    }
    return "";
}

TEST(Widen, MakesLittleEndianUnitsOfEitherKind) {
    EXPECT_EQ(widen("a\xE9", Widening::kZero), std::string("a\0\xE9\0", 4));
    EXPECT_EQ(widen("a\xE9", Widening::kSign), std::string("a\0\xE9\xFF", 4));
    EXPECT_EQ(widen("\x7f\x80", Widening::kSign), std::string("\x7f\0\x80\xFF", 4));
    EXPECT_EQ(widen("", Widening::kSign), "");
}

TEST(SignText, GivesTheAnswersOfTheCommandLine) {
    KeyHolder const key = vectorKey();
    std::string const message = vectorFile("message.txt");
    EXPECT_EQ(signText(key.get(), message, Widening::kZero), vectorFile("signature-zero.hex"));
    EXPECT_EQ(signText(key.get(), message, Widening::kSign), vectorFile("signature-sign.hex"));
}

TEST(VerifyText, AcceptsTheAnswersOfTheCommandLineUnderTheRightWideningOnly) {
    KeyHolder const key = readPublicKeyBlob(vectorFile("key-public.hex"));
    std::string const message = vectorFile("message.txt");
    std::string const zero = fromHex(vectorFile("signature-zero.hex")).value();
    std::string const sign = fromHex(vectorFile("signature-sign.hex")).value();
    EXPECT_TRUE(verifyText(key.get(), message, Widening::kZero, zero));
    EXPECT_TRUE(verifyText(key.get(), message, Widening::kSign, sign));
    EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, sign));
    EXPECT_FALSE(verifyText(key.get(), message, Widening::kSign, zero));
}

TEST(VerifyText, RefusesADigestInfo) {
    KeyHolder const key = readPublicKeyBlob(vectorFile("key-public.hex"));
    std::string const signature = fromHex(vectorFile("signature-digestinfo.hex")).value();
    EXPECT_FALSE(verifyText(key.get(), vectorFile("message.txt"), Widening::kZero, signature));
}

TEST(VerifyText, RefusesEveryFlippedBitAndEveryOtherLength) {
    KeyHolder const key = readPublicKeyBlob(vectorFile("key-public.hex"));
    std::string const message = vectorFile("message.txt");
    std::string const good = fromHex(vectorFile("signature-zero.hex")).value();
    for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
        std::string bad = good;
        bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << (bit % 8)));
        EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, bad)) << bit;
    }
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, good.substr(0, length))) << length;
    }
    EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, good + '\0'));
    EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, '\0' + good));
}

TEST(VerifyText, RefusesASignatureWithoutItsLeadingZero) {
    KeyHolder const key = vectorKey();
    std::string message = "m";
    std::string signature;
    for (int tries = 0; tries < 10000 && signature.compare(0, 2, "00") != 0; ++tries) {
        message += 'm';
        signature = signText(key.get(), message, Widening::kZero);
    }
    std::string const bytes = fromHex(signature).value();
    ASSERT_EQ(bytes[0], '\0') << "no such signature found";
    EXPECT_TRUE(verifyText(key.get(), message, Widening::kZero, bytes));
    EXPECT_FALSE(verifyText(key.get(), message, Widening::kZero, bytes.substr(1)));
}

TEST(VerifyText, RefusesEveryChangedByteOfTheMessage) {
    KeyHolder const key = readPublicKeyBlob(vectorFile("key-public.hex"));
    std::string const message = vectorFile("message.txt");
    std::string const good = fromHex(vectorFile("signature-zero.hex")).value();
    for (std::size_t i = 0; i < message.size(); ++i) {
        std::string changed = message;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        EXPECT_FALSE(verifyText(key.get(), changed, Widening::kZero, good)) << i;
    }
    EXPECT_FALSE(verifyText(key.get(), message + " ", Widening::kZero, good));
}

TEST(PublicKeyBlob, IsTheOneOfTheCommandLine) {
    EXPECT_EQ(publicKeyBlob(vectorKey().get()), vectorFile("key-public.hex"));
}

TEST(PublicKeyBlob, IsRefusedWithAReason) {
    std::string const good = vectorFile("key-public.hex");
    EXPECT_EQ(reasonFor(good), "");
    EXPECT_THAT(reasonFor(""), HasSubstr("hexadecimal"));
    EXPECT_THAT(reasonFor("zz"), HasSubstr("hexadecimal"));
    EXPECT_THAT(reasonFor(good.substr(0, good.size() - 1)), HasSubstr("hexadecimal"));
    EXPECT_THAT(reasonFor(good.substr(0, good.size() - 2)), HasSubstr("not an RSAPublicKey"));
    EXPECT_THAT(reasonFor(good + "00"), HasSubstr("bytes after"));
    EXPECT_THAT(reasonFor(vectorFile("key-private.hex")), HasSubstr("not an RSAPublicKey"));
    // A length in the long form where the short one would do: readable, but not DER.
    EXPECT_THAT(reasonFor("308148" + good.substr(4)), HasSubstr("not in DER"));
    // The modulus 3 and the exponent 3.
    EXPECT_THAT(reasonFor("3006020103020103"), HasSubstr("2 bits"));
}

TEST(SigningKey, HasTheSizeAskedForAndSurvivesStorage) {
    KeyHolder const key = makeSigningKey(512);
    KeyHolder const read = readPrivateKeyDer(privateKeyDer(key.get()));
    EXPECT_EQ(EVP_PKEY_get_bits(read.get()), 512);
    EXPECT_EQ(publicKeyBlob(read.get()), publicKeyBlob(key.get()));
    EXPECT_EQ(publicKeyBlob(key.get()).substr(publicKeyBlob(key.get()).size() - 10), "0203010001");
}

}  // namespace
