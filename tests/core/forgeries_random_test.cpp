// Random forgeries: none is accepted.
//
// Each round draws a confirmation and one way to forge its signature: any bytes, a genuine signature with something
// changed, a block with one byte wrong under the right key. The seed is KVX_TEST_SEED, the number of rounds
// KVX_FORGERIES (20,000 unless set; the full form is 1,000,000).

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tallowin/codes.h"
#include "tests/core/forgerysupport.h"
#include "tests/support/encodings.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;
using namespace std::string_literals;

namespace {

constexpr std::size_t kBlock = 64;
constexpr std::size_t kDigest = 20;
constexpr std::size_t kSigned = 256;  ///< Confirmations that are drawn from.
constexpr char kHex[] = "0123456789abcdef";

std::size_t rounds() {
    char const* const given = std::getenv("KVX_FORGERIES");
    return given == nullptr ? 20000 : std::strtoul(given, nullptr, 10);
}

std::string bytesFrom(Random& random, std::size_t count) {
    std::string bytes;
    while (bytes.size() < count) {
        bytes += random.byte();
    }
    return bytes;
}

std::string hexOfText(std::string const& bytes) {
    return hexOf(Bytes(bytes.begin(), bytes.end()));
}

struct Genuine {
    std::string m_Text;
    std::string m_Block;
    std::string m_Signature;
};

std::vector<Genuine> drawnConfirmations(Random& random) {
    std::vector<Genuine> drawn;
    while (drawn.size() < kSigned) {
        Genuine next;
        next.m_Text = R"(<KVX MSGTYPE="PayConfirm" KEYID="server" TOKEN=")" + hexOfText(bytesFrom(random, 16)) +
                      R"(" AMOUNT=")" + std::to_string(random.below(100000)) + "\"/>";
        next.m_Block = BlockSigner::blockFor(next.m_Text);
        next.m_Signature = BlockSigner::sign(next.m_Block);
        // A leading zero byte may be left out; without one, every other length is another number.
        if (next.m_Signature.substr(0, 2) != "00") {
            drawn.push_back(next);
        }
    }
    return drawn;
}

/// `text` with one place changed by `change`.
template <class Change>
std::string changedAt(std::string text, std::size_t at, Change change) {
    text[at] = change(text[at]);
    return text;
}

constexpr std::size_t kWays = 10;

/// A signature of `genuine` that is forged in way number `way`: another number than the genuine one.
std::string forged(Random& random, Genuine const& genuine, std::size_t way) {
    std::string const& good = genuine.m_Signature;
    switch (way) {
        case 0:
            return hexOfText(bytesFrom(random, kBlock));
        case 1:  // below every modulus of this size
            return "00" + hexOfText(bytesFrom(random, kBlock - 1));
        case 2: {  // one digit
            std::size_t const at = random.below(good.size());
            return changedAt(good, at, [&](char digit) {
                char other = random.of(kHex);
                while (other == digit) {
                    other = random.of(kHex);
                }
                return other;
            });
        }
        case 3: {  // one bit
            std::size_t const bit = random.below(kBlock * 8);
            Bytes bytes = bytesOfHex(good);
            bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1U << (bit % 8)));
            return hexOf(bytes);
        }
        case 4:
            return good.substr(0, 2 * (1 + random.below(kBlock - 1)));
        case 5:
            return good + hexOfText(bytesFrom(random, 1 + random.below(kBlock)));
        case 6: {  // two digits in each other's place
            std::size_t const first = random.below(good.size());
            std::size_t second = first;
            while (good[second] == good[first]) {
                second = random.below(good.size());
            }
            std::string text = good;
            std::swap(text[first], text[second]);
            return text;
        }
        case 7: {  // a block with one byte wrong, signed with the right key
            std::size_t const at = 1 + random.below(kBlock - 1);
            return BlockSigner::sign(changedAt(genuine.m_Block, at, [&](char byte) {
                return static_cast<char>(byte ^ static_cast<char>(1 + random.below(255)));
            }));
        }
        case 8: {  // right padding and the digest, with random bytes before or behind it
            std::string const digest = genuine.m_Block.substr(kBlock - kDigest);
            std::string const more = bytesFrom(random, 1 + random.below(kBlock - 11 - kDigest));
            std::string const payload = random.below(2) == 0 ? digest + more : more + digest;
            return BlockSigner::sign("\0\1"s + std::string(kBlock - 3 - payload.size(), '\xff') + '\0' + payload);
        }
        default: {  // the digest anywhere in a block of random bytes
            std::string block = "\0\1"s + bytesFrom(random, kBlock - 2);
            std::size_t const at = 2 + random.below(kBlock - 2 - kDigest + 1);
            return BlockSigner::sign(block.replace(at, kDigest, genuine.m_Block.substr(kBlock - kDigest)));
        }
    }
}

TEST(RandomForgeries, AreNeverAccepted) {
    Random random;
    TemporaryDirectory directory;
    directory.write("keys/public/server", BlockSigner::publicHex());
    std::vector<Genuine> const confirmations = drawnConfirmations(random);
    for (Genuine const& genuine : confirmations) {
        ASSERT_EQ(verifiedPayConfirm(directory.path(), genuine.m_Text, genuine.m_Signature), KVX_OK);
    }
    std::size_t const count = rounds();
    ASSERT_GE(count, kWays);
    for (std::size_t round = 0; round < count; ++round) {
        Genuine const& genuine = confirmations[random.below(kSigned)];
        std::string const signature = forged(random, genuine, round % kWays);
        std::int32_t const code = verifiedPayConfirm(directory.path(), genuine.m_Text, signature);
        ASSERT_EQ(code, KVX_E_INVALID_SIGNATURE)
            << "seed " << testSeed() << ", round " << round << ": " << genuine.m_Text << " " << signature;
    }
    RecordProperty("forgeries", std::to_string(count));
}

}  // namespace
