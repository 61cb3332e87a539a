// Private keys do not stay in memory that the library gives back.
//
// OPENSSL_cleanse is defined again here, in front of the shared library. It keeps what each call wipes, so a test sees
// whether every buffer that held the key, as bytes or as text, was among them.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

/// The contents of wiped blocks while a test collects them; null otherwise.
thread_local std::vector<std::string>* t_Wiped = nullptr;

/// What `call` wipes.
std::vector<std::string> wipedBy(std::function<void()> const& call) {
    std::vector<std::string> wiped;
    t_Wiped = &wiped;
    call();
    t_Wiped = nullptr;
    return wiped;
}

/// How many of the blocks begin with `secret`.
long countBeginning(std::vector<std::string> const& blocks, std::string const& secret) {
    return std::count_if(blocks.begin(), blocks.end(),
                         [&](std::string const& block) { return block.compare(0, secret.size(), secret) == 0; });
}

std::string bytesSpelledBy(std::string const& hex) {
    Bytes const bytes = bytesOfHex(hex);
    return {bytes.begin(), bytes.end()};
}

class WipedMemory : public AccountTest {};

TEST_F(WipedMemory, HeldThePrivateKeyThatSigned) {
    writeOwnKey("own");
    std::string const text = dataHex("rsa/key512.private.hex");
    TbString signature;
    std::vector<std::string> const wiped = wipedBy([&] { m_Context.SignData("text", "own", signature); });
    EXPECT_EQ(signature.length(), 128U);
    EXPECT_EQ(countBeginning(wiped, bytesSpelledBy(text)), 1) << "the buffer of the key";
    EXPECT_EQ(countBeginning(wiped, text), 3) << "the reader's buffer, the text, and the copy that is converted";
}

TEST_F(WipedMemory, HeldThePrivateKeyAlsoWhenSigningFails) {
    std::string const text = dataHex("rsa/key512.public.hex");
    write("keys/private/own", text);
    std::vector<std::string> const wiped = wipedBy([&] {
        TbString signature;
        EXPECT_THROW(m_Context.SignData("text", "own", signature), KVX_Exception);
    });
    EXPECT_EQ(countBeginning(wiped, bytesSpelledBy(text)), 1);
    EXPECT_EQ(countBeginning(wiped, text), 3);
}

TEST_F(WipedMemory, HeldTheNewPrivateKey) {
    std::filesystem::create_directories(m_Dir.file("keys/public"));
    std::filesystem::create_directories(m_Dir.file("keys/private"));
    TbString keyId("own");
    std::vector<std::string> const wiped = wipedBy([&] { m_Context.GenKey(keyId); });
    std::string const text = read("keys/private/own");
    EXPECT_EQ(countBeginning(wiped, bytesSpelledBy(text)), 1) << "the buffer of the key";
    EXPECT_EQ(countBeginning(wiped, text), 1) << "its text";
}

}  // namespace

// The declaration of OpenSSL keeps this name; the definition must not be hidden as the test program's others are.
extern "C" __attribute__((visibility("default"))) void OPENSSL_cleanse(void* ptr, size_t len) {
    if (t_Wiped != nullptr) {
        t_Wiped->emplace_back(static_cast<char const*>(ptr), len);
    }
    using Function = void(void*, size_t);
    static auto* const original = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "OPENSSL_cleanse"));
    if (original == nullptr) {
        std::abort();
    }
    original(ptr, len);
}
