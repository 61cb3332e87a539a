// Keys of a directory: generating, signing, verifying, damaged key files and signatures.
//
// Signatures are compared with those of other code (signedElsewhere). Odd: signing widens bytes without sign and
// verifying with sign, so bytes from 0x80 on verify only when the other side signed them.

#include <openssl/err.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "core/icct.h"
#include "foundation/tbstringwriter.h"
#include "net/kvxmemorywatch.h"
#include "tests/core/coresupport.h"
#include "tests/core/icctsupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/smallstack.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

std::string upperCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
    return text;
}

/// A random generator that delivers nothing, while it lives.
class NoRandomness {
public:
    NoRandomness() {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        m_Before = RAND_get_rand_method();
        m_Method.bytes = [](unsigned char*, int) { return 0; };
        m_Method.pseudorand = m_Method.bytes;
        m_Method.status = [] { return 0; };
        RAND_set_rand_method(&m_Method);
    }
    NoRandomness(NoRandomness const&) = delete;
    NoRandomness& operator=(NoRandomness const&) = delete;
    ~NoRandomness() {
        RAND_set_rand_method(m_Before);
    }
#pragma GCC diagnostic pop

private:
    RAND_METHOD m_Method = {};
    RAND_METHOD const* m_Before = nullptr;
};

void expectPlain(Thrown const& failure, std::int32_t code, std::string const& text) {
    EXPECT_EQ(failure.m_Code, code);
    EXPECT_EQ(failure.m_Text, text) << "without a detail";
    EXPECT_EQ(failure.m_File, "kvxctx");
}

class KeysTest : public AccountTest {
protected:
    std::string signedBy(std::string const& data, std::string const& keyId) {
        TbString signature;
        m_Context.SignData(stringOf(data), stringOf(keyId), signature);
        return bytesOf(signature);
    }

    /// The code that verifying ends in.
    std::int32_t verified(std::string const& data, std::string const& keyId, std::string const& signature) {
        return thrownCode([&] { m_Context.VerifyData(stringOf(data), stringOf(keyId), stringOf(signature)); });
    }

    std::int32_t signingCode(std::string const& data, std::string const& keyId) {
        TbString signature("untouched");
        std::int32_t const code = thrownCode([&] { m_Context.SignData(stringOf(data), stringOf(keyId), signature); });
        EXPECT_EQ(bytesOf(signature) == "untouched", code != KVX_OK);
        return code;
    }

    void makeKeyDirectories() {
        std::filesystem::create_directories(m_Dir.file("keys/public"));
        std::filesystem::create_directories(m_Dir.file("keys/private"));
    }
};

class GenKey : public KeysTest {};
class SignData : public KeysTest {};
class VerifyData : public KeysTest {};
class Signatures : public KeysTest {};

TEST_F(GenKey, StoresBothHalvesAsHexadecimalTextThePublicOneFirst) {
    makeKeyDirectories();
    TraceRecorder const recorder;
    TbString keyId("0-1-abc");
    m_Context.GenKey(keyId);
    EXPECT_EQ(bytesOf(keyId), "0-1-abc");
    EXPECT_EQ(linesOf(recorder.records()),
              (std::vector<std::string>{"kvxctx:217:0:UPDATE:" + m_Dir.file("keys/public/0-1-abc"),
                                        "kvxctx:217:0:UPDATE:" + m_Dir.file("keys/private/0-1-abc")}));
    std::string const publicHalf = read("keys/public/0-1-abc");
    std::string const privateHalf = read("keys/private/0-1-abc");
    EXPECT_EQ(publicHalf.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(privateHalf.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(publicHalf.size(), 148U) << "74 bytes";
    EXPECT_GT(privateHalf.size(), 600U);
    EXPECT_EQ(publicHalf.substr(0, 10), "3048024100");
    EXPECT_EQ(publicHalf.substr(138), "0203010001") << "exponent 65537";
}

TEST_F(GenKey, MakesAPairThatFits) {
    makeKeyDirectories();
    TbString keyId("a");
    TbString other("b");
    m_Context.GenKey(keyId);
    m_Context.GenKey(other);
    std::string const signature = signedBy("text", "a");
    EXPECT_EQ(signature.size(), 128U);
    EXPECT_EQ(verified("text", "a", signature), KVX_OK);
    EXPECT_EQ(verified("text", "b", signature), KVX_E_INVALID_SIGNATURE);
}

TEST_F(GenKey, ReplacesAKeyAtOnce) {
    writeOwnKey("a");
    TbString keyId("a");
    std::string const before = signedBy("text", "a");
    m_Context.GenKey(keyId);
    EXPECT_NE(signedBy("text", "a"), before);
    EXPECT_EQ(verified("text", "a", before), KVX_E_INVALID_SIGNATURE);
}

TEST_F(GenKey, FailsWithoutRandomnessAndWritesNothing) {
    makeKeyDirectories();
    Thrown failure;
    {
        NoRandomness const none;
        TbString keyId("a");
        failure = thrown([&] { m_Context.GenKey(keyId); });
    }
    expectPlain(failure, KVX_E_CRYPTO, "cryptographic error");
    EXPECT_TRUE(filesIn("keys/public").empty());
    EXPECT_TRUE(filesIn("keys/private").empty());
}

TEST_F(GenKey, LacksMemoryWithoutRandomnessInAProcessThatHasLackedSome) {
    makeKeyDirectories();
    EXPECT_EQ(inChildProcess([&] {
                  kvxNoteLackOfMemory();
                  NoRandomness const none;
                  TbString keyId("a");
                  return thrownCode([&] { m_Context.GenKey(keyId); }) == KVX_E_OUT_OF_MEMORY ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(filesIn("keys/public").empty());
}

TEST_F(GenKey, FailsWithoutDirectories) {
    TbString keyId("a");
    Thrown const failure = thrown([&] { m_Context.GenKey(keyId); });
    expectPlain(failure, KVX_E_FILE_NOT_FOUND, "file not found");
    EXPECT_EQ(failure.m_Line, 205);
    std::filesystem::create_directories(m_Dir.file("keys/public"));
    EXPECT_EQ(thrownCode([&] { m_Context.GenKey(keyId); }), KVX_E_FILE_NOT_FOUND);
    EXPECT_TRUE(exists("keys/public/a")) << "the first half stays when the second cannot be written";
}

TEST_F(SignData, GivesTheSignaturesOfAnotherProgram) {
    writeOwnKey("own");
    EXPECT_EQ(signedBy(dataText("signing/plain.txt"), "own"), dataHex("signing/plain.signature.hex"));
    EXPECT_EQ(signedBy(dataText("signing/confirm.txt"), "own"), dataHex("signing/confirm-zero.signature.hex"));
    EXPECT_EQ(signedBy("", "own"), dataHex("rsa/key512-empty.signature.hex"));
    write("keys/private/second", dataHex("sandbox/key-private.hex"));
    EXPECT_EQ(signedBy(dataText("sandbox/message.txt"), "second"), dataHex("sandbox/signature-zero.hex"));
}

TEST_F(SignData, DoesNotSignTheBareBytes) {
    writeOwnKey("own");
    EXPECT_NE(signedBy(dataText("signing/plain.txt"), "own"), dataHex("signing/plain-bytes.signature.hex"));
    EXPECT_EQ(verified(dataText("signing/plain.txt"), "own", dataHex("signing/plain-bytes.signature.hex")),
              KVX_E_INVALID_SIGNATURE);
}

TEST_F(SignData, SignsEveryByteOfTheText) {
    writeOwnKey("own");
    std::string const text("a\0b\0", 4);
    EXPECT_EQ(signedBy(text, "own"), signedElsewhere(text, Widening::kWithoutSign));
    EXPECT_NE(signedBy(text, "own"), signedBy(text.substr(0, 3), "own"));
    std::string all;
    for (int value = 0; value < 256; ++value) {
        all += static_cast<char>(value);
    }
    EXPECT_EQ(signedBy(all, "own"), signedElsewhere(all, Widening::kWithoutSign));
}

/// The text is widened block by block.
TEST_F(SignData, SignsTextsOfAnyLength) {
    writeOwnKey("own");
    std::string text;
    for (std::size_t const length : {255U, 256U, 257U, 511U, 512U, 513U, 5000U}) {
        while (text.size() < length) {
            text += static_cast<char>(text.size() * 3);
        }
        EXPECT_EQ(signedBy(text, "own"), signedElsewhere(text, Widening::kWithoutSign)) << length;
        EXPECT_EQ(verified(text, "own", signedElsewhere(text, Widening::kWithSign)), KVX_OK) << length;
    }
}

TEST_F(SignData, HasNoKeyForAnUnknownIdentifier) {
    writeServerKey("imported");
    makeKeyDirectories();
    for (char const* keyId : {"unknown", "imported", "", ".", "..", "a/b"}) {
        EXPECT_EQ(signingCode("text", keyId), KVX_E_NOT_FOUND) << keyId;
    }
    TbString signature;
    expectPlain(thrown([&] { m_Context.SignData("text", "unknown", signature); }), KVX_E_NOT_FOUND,
                "requested item was not found");
    EXPECT_EQ(verified("text", "imported", signedElsewhere("text", Widening::kWithSign)), KVX_OK)
        << "an imported key can verify";
}

TEST_F(SignData, RefusesUnusableKeyFiles) {
    std::string const key = dataHex("rsa/key512.private.hex");
    struct Case {
        std::string m_Content;
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"no key", KVX_E_INVALID_KEY},
        {key + "\n", KVX_E_INVALID_KEY},
        {" " + key, KVX_E_INVALID_KEY},
        {key + std::string(2 * 1024, '0'), KVX_E_INVALID_KEY},  // more than 1024 bytes
        {std::string(2 * 1024 + 1, '0'), KVX_E_INVALID_KEY},
        {std::string(2 * 1024, '0'), KVX_E_CRYPTO},
        {"", KVX_E_CRYPTO},
        {"0", KVX_E_CRYPTO},
        {"00", KVX_E_CRYPTO},
        {dataHex("rsa/key512.public.hex"), KVX_E_CRYPTO},
        {dataHex("rsa/key512.pkcs8.hex"), KVX_E_CRYPTO},
        {key, KVX_OK},
        {upperCase(key), KVX_OK},
        {key + "0", KVX_OK},     // an odd digit is dropped
        {key + "ffff", KVX_OK},  // bytes behind the key are ignored
    };
    for (Case const& row : cases) {
        write("keys/private/own", row.m_Content);
        EXPECT_EQ(signingCode("text", "own"), row.m_Code) << row.m_Content;
    }
}

TEST_F(SignData, RefusesAKeyCutAtAnyLength) {
    std::string const key = dataHex("rsa/key512.private.hex");
    for (std::size_t length = 0; length < key.size(); length += 2) {
        write("keys/private/own", key.substr(0, length));
        EXPECT_EQ(signingCode("text", "own"), KVX_E_CRYPTO) << length;
    }
}

TEST_F(SignData, PassesEveryOtherFailureOfTheReading) {
    KVX_Context context;
    TbString signature;
    Thrown const unopened = thrown([&] { context.SignData("text", "own", signature); });
    expectPlain(unopened, KVX_E_NO_CONTEXT, "no context present");
    EXPECT_EQ(unopened.m_Line, 71);

    writeOwnKey("own");
    SystemCalls calls;
    calls->read = [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(signingCode("text", "own"), KVX_E_FILE_IO);
    EXPECT_EQ(verified("text", "own", "00"), KVX_E_FILE_IO);
}

TEST_F(VerifyData, AcceptsTheSignaturesOfAnotherProgram) {
    writeServerKey("server");
    EXPECT_EQ(verified(dataText("signing/plain.txt"), "server", dataHex("signing/plain.signature.hex")), KVX_OK);
    EXPECT_EQ(verified(dataText("signing/confirm.txt"), "server", dataHex("signing/confirm.signature.hex")), KVX_OK);
    EXPECT_EQ(verified("", "server", dataHex("rsa/key512-empty.signature.hex")), KVX_OK);
    write("keys/public/second", dataHex("sandbox/key-public.hex"));
    std::string const message = dataText("sandbox/message.txt");
    EXPECT_EQ(verified(message, "second", dataHex("sandbox/signature-sign.hex")), KVX_OK);
    EXPECT_EQ(verified(message, "second", dataHex("sandbox/signature-digestinfo.hex")), KVX_E_INVALID_SIGNATURE);
}

TEST_F(VerifyData, LeavesTheErrorsOfOneAttemptOnTopOfTheCallersOwn) {
    writeServerKey("server");
    std::string const key = dataHex("rsa/key512.public.hex");
    auto const entriesOf = [](std::function<void()> const& call) {
        ERR_clear_error();
        ERR_raise(ERR_LIB_USER, 1);
        call();
        std::vector<unsigned long> entries;
        while (unsigned long const entry = ERR_get_error()) {
            entries.push_back(entry);
        }
        return entries;
    };
    std::vector<unsigned long> const once = entriesOf([&] {
        Bytes blob = bytesOfHex(key);
        Bytes signature(64, 1);
        EXPECT_EQ(ICCT_Verify(blob.data(), static_cast<int>(blob.size()), nullptr, 0, signature.data(), 64), -1);
    });
    ASSERT_GT(once.size(), 1U);
    EXPECT_EQ(entriesOf([&] {
                  std::string const wrong = hexOf(Bytes(64, 1));
                  EXPECT_EQ(verified("", "server", wrong), KVX_E_INVALID_SIGNATURE);
              }),
              once);
}

TEST_F(VerifyData, KeepsRefusingWhatSignDataMadeOfBytesAbove127) {
    writeOwnKey("own");
    EXPECT_EQ(verified(dataText("signing/confirm.txt"), "own", dataHex("signing/confirm-zero.signature.hex")),
              KVX_E_INVALID_SIGNATURE);
    for (int value = 0; value < 256; ++value) {
        std::string const text = "x" + std::string(1, static_cast<char>(value));
        EXPECT_EQ(verified(text, "own", signedBy(text, "own")), value < 128 ? KVX_OK : KVX_E_INVALID_SIGNATURE)
            << value;
        EXPECT_EQ(verified(text, "own", signedElsewhere(text, Widening::kWithSign)), KVX_OK) << value;
    }
}

TEST_F(VerifyData, RefusesATextOfAGigabyteAsSignDataDoes) {
    writeOwnKey("own");
    TbString const signature = stringOf(signedBy("text", "own"));
    constexpr std::uint32_t kGigabyte = std::uint32_t{1} << 30;
    TbString text("");
    TbStringWriter writer(text, kGigabyte);
    std::memset(writer.begin(), 'a', kGigabyte);
    writer.finish(writer.begin() + kGigabyte);
    TbString out;
    EXPECT_EQ(thrownCode([&] { m_Context.SignData(text, "own", out); }), KVX_E_CRYPTO);
    EXPECT_EQ(thrownCode([&] { m_Context.VerifyData(text, "own", signature); }), KVX_E_INVALID_SIGNATURE);
}

TEST_F(VerifyData, AcceptsAnEmptyText) {
    writeOwnKey("own");
    EXPECT_EQ(verified("", "own", signedBy("", "own")), KVX_OK);
    EXPECT_EQ(verified(" ", "own", signedBy("", "own")), KVX_E_INVALID_SIGNATURE);
}

TEST_F(VerifyData, RefusesEveryFlippedBit) {
    writeServerKey("server");
    std::string const text = dataText("signing/plain.txt");
    std::string const signature = dataHex("signing/plain.signature.hex");
    for (std::size_t digit = 0; digit < signature.size(); ++digit) {
        for (int bit = 1; bit < 16; bit *= 2) {
            int const value = std::stoi(signature.substr(digit, 1), nullptr, 16) ^ bit;
            std::string changed = signature;
            changed[digit] = "0123456789abcdef"[value];
            EXPECT_EQ(verified(text, "server", changed), KVX_E_INVALID_SIGNATURE) << digit << " " << bit;
        }
    }
    for (std::size_t index = 0; index < text.size(); ++index) {
        std::string changed = text;
        changed[index] = static_cast<char>(changed[index] ^ 1);
        EXPECT_EQ(verified(changed, "server", signature), KVX_E_INVALID_SIGNATURE) << index;
    }
}

TEST_F(VerifyData, RefusesASignatureOfAnyOtherLength) {
    writeServerKey("server");
    std::string const text = dataText("signing/plain.txt");
    std::string const signature = dataHex("signing/plain.signature.hex");
    for (std::size_t length = 0; length < signature.size(); ++length) {
        EXPECT_EQ(verified(text, "server", signature.substr(0, length)), KVX_E_INVALID_SIGNATURE) << length;
    }
    EXPECT_EQ(verified(text, "server", signature + "00"), KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(verified(text, "server", "00" + signature), KVX_E_INVALID_SIGNATURE);
}

TEST_F(VerifyData, KeepsAcceptingOtherSpellingsOfASignature) {
    writeServerKey("server");
    std::string const text = dataText("signing/plain.txt");
    std::string const signature = dataHex("signing/plain.signature.hex");
    EXPECT_EQ(verified(text, "server", upperCase(signature)), KVX_OK);
    for (char const digit : std::string("0f9A")) {
        EXPECT_EQ(verified(text, "server", signature + digit), KVX_OK) << digit;
    }
}

TEST_F(VerifyData, KeepsTheCodeOfABadKeyForASignatureThatIsNoHexadecimalText) {
    writeServerKey("server");
    std::string const signature = dataHex("signing/plain.signature.hex");
    for (std::string const& text : {std::string("no signature"), signature + "\n", " " + signature, signature + "0g",
                                    signature + "g", std::string("\0", 1), std::string(2 * 4096 + 1, '0')}) {
        EXPECT_EQ(verified(dataText("signing/plain.txt"), "server", text), KVX_E_INVALID_KEY);
    }
    EXPECT_EQ(verified("x", "server", std::string(2 * 4096, '0')), KVX_E_INVALID_SIGNATURE) << "room for 4096";
    Thrown const failure = thrown([&] { m_Context.VerifyData("x", "server", "g"); });
    expectPlain(failure, KVX_E_INVALID_KEY, "invalid key blob");
}

TEST_F(VerifyData, RefusesUnusableKeyFiles) {
    std::string const key = dataHex("rsa/key512.public.hex");
    std::string const text = dataText("signing/plain.txt");
    std::string const signature = dataHex("signing/plain.signature.hex");
    struct Case {
        std::string m_Content;
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"no key", KVX_E_INVALID_KEY},
        {key + "\n", KVX_E_INVALID_KEY},
        {std::string(2 * 1024 + 1, '0'), KVX_E_INVALID_KEY},
        {std::string(2 * 1024, '0'), KVX_E_INVALID_SIGNATURE},
        {"", KVX_E_INVALID_SIGNATURE},
        {dataHex("rsa/key512.spki.hex"), KVX_E_INVALID_SIGNATURE},
        {dataHex("rsa/key512.private.hex"), KVX_E_INVALID_SIGNATURE},
        {dataHex("rsa/key1024.public.hex"), KVX_E_INVALID_SIGNATURE},
        {dataHex("rsa/key2048.public.hex"), KVX_E_INVALID_SIGNATURE},
        {key, KVX_OK},
        {upperCase(key), KVX_OK},
        {key + "0", KVX_OK},
        {key + "ffff", KVX_OK},
    };
    for (Case const& row : cases) {
        write("keys/public/server", row.m_Content);
        EXPECT_EQ(verified(text, "server", signature), row.m_Code) << row.m_Content;
    }
}

TEST_F(VerifyData, ChecksTheKeyBeforeTheSignatureText) {
    EXPECT_EQ(verified("x", "server", "g"), KVX_E_NOT_FOUND);
    write("keys/public/server", "");
    EXPECT_EQ(verified("x", "server", "g"), KVX_E_INVALID_KEY);
    EXPECT_EQ(verified("x", "server", "00"), KVX_E_INVALID_SIGNATURE);
    Thrown const failure = thrown([&] { m_Context.VerifyData("x", "missing", "00"); });
    expectPlain(failure, KVX_E_NOT_FOUND, "requested item was not found");
    expectPlain(thrown([&] { m_Context.VerifyData("x", "server", "00"); }), KVX_E_INVALID_SIGNATURE,
                "invalid signature");
}

TEST_F(VerifyData, HasNoKeyForTheDirectoriesThemselves) {
    makeKeyDirectories();
    for (char const* keyId : {"", ".", "..", "missing", "a/b"}) {
        EXPECT_EQ(verified("x", keyId, "00"), KVX_E_NOT_FOUND) << keyId;
    }
    EXPECT_EQ(verified("x", std::string(300, 'x'), "00"), KVX_E_NOT_FOUND);
}

TEST_F(VerifyData, CannotOpenADirectoryInThePlaceOfAKey) {
    std::filesystem::create_directories(m_Dir.file("keys/public/folder"));
    EXPECT_EQ(verified("text", "folder", "00"), KVX_E_CANNOT_OPEN);
}

TEST_F(VerifyData, RefusesAnUnopenedContext) {
    KVX_Context context;
    Thrown const failure = thrown([&] { context.VerifyData("x", "server", "00"); });
    expectPlain(failure, KVX_E_NO_CONTEXT, "no context present");
    EXPECT_EQ(failure.m_Line, 71);
}

TEST_F(VerifyData, ReadsTheKeyAgainEachTime) {
    writeServerKey("server");
    std::string const text = dataText("signing/plain.txt");
    std::string const signature = dataHex("signing/plain.signature.hex");
    EXPECT_EQ(verified(text, "server", signature), KVX_OK);
    write("keys/public/server", dataHex("sandbox/key-public.hex"));
    EXPECT_EQ(verified(text, "server", signature), KVX_E_INVALID_SIGNATURE);
    std::filesystem::remove(m_Dir.file("keys/public/server"));
    EXPECT_EQ(verified(text, "server", signature), KVX_E_NOT_FOUND);
}

TEST_F(Signatures, OfLargeTextsNeedNoLargeStack) {
    writeOwnKey("own");
    std::string const text(8 << 20, 'x');
    onStackOf(std::size_t{256} << 10, [&] { EXPECT_EQ(verified(text, "own", signedBy(text, "own")), KVX_OK); });
}

}  // namespace
