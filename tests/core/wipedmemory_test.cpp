// Private keys do not stay in memory that the library gives back.
//
// OPENSSL_cleanse and explicit_bzero are defined again here, in front of the shared libraries. They keep what each call
// wipes, so a test sees whether every buffer on the stack that held the key, as bytes or as text, was among them. Heap
// blocks are looked at when they are released.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "core/icct_keptkey.h"
#include "core/icct_keyusers.h"
#include "foundation/tbmemory.h"
#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

/// The contents of wiped blocks while a test collects them; null otherwise.
thread_local std::vector<std::string>* t_Wiped = nullptr;

/// The contents of blocks that the library releases, while a test collects them; null otherwise.
thread_local std::vector<std::string>* t_Released = nullptr;

/// What a call leaves.
struct Traces {
    std::vector<std::string> m_Wiped;     ///< What it has wiped.
    std::vector<std::string> m_Released;  ///< The heap blocks that it has released or moved.
};

Traces tracesOf(std::function<void()> const& call) {
    Traces traces;
    t_Wiped = &traces.m_Wiped;
    t_Released = &traces.m_Released;
    tbSetReleaseObserver([](void const* memory, std::size_t bytes) {
        t_Released->emplace_back(static_cast<char const*>(memory), bytes);
    });
    call();
    tbSetReleaseObserver(nullptr);
    t_Wiped = nullptr;
    t_Released = nullptr;
    return traces;
}

/// How many of the blocks hold the end of `text`. In a private key that is a secret number.
long countHoldingEnd(std::vector<std::string> const& blocks, std::string const& text) {
    std::string const end = text.substr(text.size() - 32);
    return std::count_if(blocks.begin(), blocks.end(),
                         [&](std::string const& block) { return block.find(end) != std::string::npos; });
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
    Traces const traces = tracesOf([&] { m_Context.SignData("text", "own", signature); });
    EXPECT_EQ(signature.length(), 128U);
    EXPECT_EQ(countBeginning(traces.m_Wiped, bytesSpelledBy(text)), 1) << "the buffer of the key";
    EXPECT_EQ(countBeginning(traces.m_Wiped, text), 2) << "the reader's buffer, and the text";
    std::string const widened("t\0e\0x\0t\0", 8);
    EXPECT_EQ(std::count(traces.m_Wiped.begin(), traces.m_Wiped.end(), widened), 1) << "the signed form of the text";
    EXPECT_GT(traces.m_Released.size(), 0U);
    EXPECT_EQ(countHoldingEnd(traces.m_Released, text), 0);
}

/// A long text passes through a buffer of 256 units, whose end still holds the block before the last.
TEST_F(WipedMemory, HeldTheSignedFormOfALongText) {
    writeOwnKey("own");
    std::string const text = std::string(256, 'a') + "b";
    TbString signature;
    Traces const traces = tracesOf([&] { m_Context.SignData(stringOf(text), "own", signature); });
    std::string units("b\0", 2);
    while (units.size() < 512) {
        units += std::string("a\0", 2);
    }
    EXPECT_EQ(std::count(traces.m_Wiped.begin(), traces.m_Wiped.end(), units), 1);
}

TEST_F(WipedMemory, HeldThePrivateKeyAlsoWhenSigningFails) {
    std::string const text = dataHex("rsa/key512.public.hex");
    write("keys/private/own", text);
    Traces const traces = tracesOf([&] {
        TbString signature;
        EXPECT_THROW(m_Context.SignData("text", "own", signature), KVX_Exception);
    });
    EXPECT_EQ(countBeginning(traces.m_Wiped, bytesSpelledBy(text)), 1);
    EXPECT_EQ(countBeginning(traces.m_Wiped, text), 2);
    EXPECT_EQ(countHoldingEnd(traces.m_Released, text), 0);
}

/// Of a long file every byte of the buffer is wiped, and of one that cannot be read to its end what came before.
TEST_F(WipedMemory, HeldThePartsOfAFileThatWereRead) {
    std::string const start(8192, 's');
    write("keys/private/own", start + "rest");
    TbString text;
    Traces traces = tracesOf([&] { m_Context.QueryValue("keys/private/own", "", text); });
    EXPECT_EQ(countBeginning(traces.m_Wiped, "rest" + start.substr(4)), 1);

    write("keys/private/own", "start");
    SystemCalls calls;
    calls->read = [](int file, void* buffer, std::size_t bytes) -> ssize_t {
        ssize_t const count = ::read(file, buffer, bytes);
        errno = EIO;
        return count == 0 ? -1 : count;
    };
    traces = tracesOf(
        [&] { EXPECT_EQ(thrownCode([&] { m_Context.QueryValue("keys/private/own", "", text); }), KVX_E_FILE_IO); });
    EXPECT_EQ(std::count(traces.m_Wiped.begin(), traces.m_Wiped.end(), "start"), 1);
}

TEST_F(WipedMemory, HeldTheNewPrivateKey) {
    std::filesystem::create_directories(m_Dir.file("keys/public"));
    std::filesystem::create_directories(m_Dir.file("keys/private"));
    TbString keyId("own");
    Traces const traces = tracesOf([&] { m_Context.GenKey(keyId); });
    std::string const text = read("keys/private/own");
    EXPECT_EQ(countBeginning(traces.m_Wiped, bytesSpelledBy(text)), 1) << "the buffer of the key";
    EXPECT_EQ(countHoldingEnd(traces.m_Released, text), 0) << "its text";
    EXPECT_GT(countHoldingEnd(traces.m_Released, read("keys/public/own")), 0) << "blocks are looked at";
}

/// Keys that live on between calls are wiped when they go, with the last public object or for another key.
TEST_F(WipedMemory, HeldTheKeyThatWasKept) {
    writeOwnKey("own");
    std::string const key = bytesSpelledBy(dataHex("rsa/key512.private.hex"));
    TbString signature;
    kvxAddKeyUser();
    m_Context.SignData("text", "own", signature);
    EXPECT_EQ(countBeginning(tracesOf(&kvxRemoveKeyUser).m_Wiped, key), 1) << "with the last object";

    kvxAddKeyUser();
    m_Context.SignData("text", "own", signature);
    for (int i = 0; i < KvxKeptKey::kMaxKeys; ++i) {
        TbString keyId("other");
        m_Context.GenKey(keyId);
        Traces const traces = tracesOf([&] { m_Context.SignData("text", keyId, signature); });
        EXPECT_EQ(countBeginning(traces.m_Wiped, key), i == KvxKeptKey::kMaxKeys - 1 ? 1 : 0) << i;
    }
    kvxRemoveKeyUser();
}

}  // namespace

namespace {

void noteWiped(void const* memory, std::size_t bytes) {
    if (t_Wiped != nullptr) {
        t_Wiped->emplace_back(static_cast<char const*>(memory), bytes);
    }
}

/// The function `name` that a definition of this program hides.
template <class Function>
Function* hiddenBy(char const* name) {
    auto* const original = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (original == nullptr) {
        std::abort();
    }
    return original;
}

}  // namespace

// The declarations keep these names; the definitions must not be hidden as the test program's others are.
extern "C" __attribute__((visibility("default"))) void OPENSSL_cleanse(void* ptr, size_t len) {
    noteWiped(ptr, len);
    static auto* const original = hiddenBy<void(void*, size_t)>("OPENSSL_cleanse");
    original(ptr, len);
}

// What the library's calls of explicit_bzero become with checks of the C library.
extern "C" __attribute__((visibility("default"))) void __explicit_bzero_chk(void* ptr, size_t len, size_t room) {
    noteWiped(ptr, len);
    static auto* const original = hiddenBy<void(void*, size_t, size_t)>("__explicit_bzero_chk");
    original(ptr, len, room);
}

// And without.
#undef explicit_bzero
extern "C" __attribute__((visibility("default"))) void explicit_bzero(void* ptr, size_t len) noexcept {
    noteWiped(ptr, len);
    static auto* const original = hiddenBy<void(void*, size_t)>("explicit_bzero");
    original(ptr, len);
}
