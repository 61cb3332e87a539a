// Encrypting and decrypting digests: every length that fits, the limits of the room, one known answer.
//
// Odd: the room is compared unsigned and never narrowed, unlike all lengths of inputs; a failed decryption stores its
// -1 in the unsigned length.

#include "core/icct.h"

#include <climits>

#include "tests/core/icctsupport.h"

using namespace kvxtest;

namespace {

TEST(CryptDigest, RoundTripsEveryLengthThatFits) {
    KeyPair const pair = generate();
    ASSERT_EQ(pair.m_Result, 0);
    for (std::size_t length = 0; length <= 64 - 11; ++length) {
        SCOPED_TRACE(length);
        Bytes plain(length);
        for (std::size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<unsigned char>(i);
        }
        Outcome const encrypted = encrypt(pair.publicBlob(), plain);
        ASSERT_EQ(encrypted.m_Result, 0);
        ASSERT_EQ(encrypted.m_Length, 64U);
        Outcome const decrypted = decrypt(pair.privateBlob(), encrypted.output());
        ASSERT_EQ(decrypted.m_Result, 0);
        ASSERT_EQ(decrypted.output(), plain);
    }
}

TEST(CryptDigest, RefusesMoreThanTheKeyHolds) {
    Outcome const outcome = encrypt(rsaData("key512.public"), Bytes(64 - 10));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, 2048U);
    EXPECT_TRUE(outcome.bufferIsUntouched());
}

TEST(CryptDigest, LeavesTheOutputsAloneWhenTheRoomIsTooSmall) {
    Bytes const key = rsaData("key512.public");
    for (unsigned long const room : {0UL, 1UL, 63UL}) {
        Outcome const outcome = encrypt(key, bytesIn("hello"), room);
        EXPECT_EQ(outcome.m_Result, -1);
        EXPECT_EQ(outcome.m_Length, room);
        EXPECT_TRUE(outcome.bufferIsUntouched());
    }
}

TEST(CryptDigest, NeedsRoomForTheModulusOnly) {
    EXPECT_EQ(encrypt(rsaData("key512.public"), bytesIn("hello"), 64).m_Result, 0);
}

// Room is compared unsigned and never narrowed, unlike the lengths of inputs.
TEST(CryptDigest, KeepsAcceptingAnyLargeRoom) {
    for (unsigned long const room : {kTooLong, ULONG_MAX}) {
        Outcome const outcome = encrypt(rsaData("key512.public"), bytesIn("hello"), room);
        EXPECT_EQ(outcome.m_Result, 0);
        EXPECT_EQ(outcome.m_Length, 64U);
    }
}

TEST(CryptDigest, AcceptsKeysUpTo8192BitsOnly) {
    Outcome const largest = encrypt(rsaData("key8192.public"), bytesIn("hello"));
    EXPECT_EQ(largest.m_Result, 0);
    EXPECT_EQ(largest.m_Length, 1024U);
    Outcome const tooLarge = encrypt(rsaData("key8200.public"), bytesIn("hello"));
    EXPECT_EQ(tooLarge.m_Result, -1);
    EXPECT_EQ(tooLarge.m_Length, 2048U);
    EXPECT_TRUE(tooLarge.bufferIsUntouched());
}

TEST(DecryptDigest, ReadsWhatTheCommandLineToolEncrypted) {
    Outcome const outcome = decrypt(rsaData("key512.private"), rsaData("key512-hello.encrypted"));
    EXPECT_EQ(outcome.m_Result, 0);
    EXPECT_EQ(outcome.output(), bytesIn("hello"));
}

// The RSA operation's -1 is stored in the unsigned length as it is.
TEST(DecryptDigest, KeepsStoringTheFailedResultAsLength) {
    Bytes const key = rsaData("key512.private");
    Bytes tooLong = rsaData("key512-hello.encrypted");
    tooLong.push_back(0);
    for (Bytes const& encrypted : {tooLong, Bytes(64, 0xFF), Bytes(4096, 0xFF)}) {
        Outcome const outcome = decrypt(key, encrypted);
        EXPECT_EQ(outcome.m_Result, -1);
        EXPECT_EQ(outcome.m_Length, ULONG_MAX);
    }
}

TEST(DecryptDigest, LeavesTheOutputsAloneWhenTheKeyIsRefused) {
    Outcome const outcome = decrypt(rsaData("key512.public"), rsaData("key512-hello.encrypted"));
    EXPECT_EQ(outcome.m_Result, -1);
    EXPECT_EQ(outcome.m_Length, kUntouchedLength);
    EXPECT_TRUE(outcome.bufferIsUntouched());
}

}  // namespace
