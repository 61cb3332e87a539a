// Keys of any bytes in the five functions over DER keys, and key files of any text. A verification that succeeds must
// succeed by plain arithmetic too; every result stays within its bounds.
//
// Input: which function, a text with the data, then the key.

#include <openssl/err.h>

#include <climits>
#include <vector>

#include "core/icct.h"
#include "core/kvxctx.h"
#include "fuzz/fuzzcheck.h"
#include "fuzz/fuzzdirectory.h"
#include "fuzz/fuzzinput.h"
#include "fuzz/signmodel.h"

namespace kvxfuzz {

namespace {

constexpr std::size_t kMaxModulus = 1024;

/// Bytes on the heap, so that one byte too far is noticed.
using Bytes = std::vector<unsigned char>;

Bytes bytesOf(std::string const& text) {
    return {text.begin(), text.end()};
}

void verify(std::string const& der, std::string const& data, std::string const& signature) {
    Bytes const key = bytesOf(der);
    Bytes text = bytesOf(data);
    Bytes signatureBytes = bytesOf(signature);
    int const result = ICCT_Verify(key.data(), static_cast<int>(key.size()), text.data(), text.size(),
                                   signatureBytes.data(), signatureBytes.size());
    if (result != 0) {
        requireEqual(result, -1, "result of a failed verification");
        return;
    }
    ModelKey const model = ModelKey::fromPublic(der);
    require(model.isValid() && model.bits() <= 1024, "a signature verifies under a key of at most 1024 bits");
    require(model.opened(signature) == modelSha1(data), "a signature verifies by plain arithmetic");
}

/// Signs, and verifies with the public half: by plain arithmetic when the key's halves fit together.
void sign(std::string const& der, std::string const& data) {
    Bytes const key = bytesOf(der);
    Bytes text = bytesOf(data);
    Bytes signature(kMaxModulus);
    unsigned long size = 7;
    int const result =
        ICCT_Signature(key.data(), static_cast<int>(key.size()), text.data(), text.size(), signature.data(), &size);
    if (result != 0) {
        requireEqual(result, -1, "result of a failed signature");
        require(size == 7 || size == ULONG_MAX, "length after a failed signature");
        return;
    }
    require(size <= kMaxModulus, "a signature is not longer than the largest modulus");
    ModelKey const model = ModelKey::fromPrivate(der);
    require(model.isValid(), "only a private key signs");
    requireEqual(static_cast<std::int64_t>(size), (model.bits() + 7) / 8, "length of a signature");
}

void encrypt(std::string const& der, std::string const& data, std::size_t room) {
    Bytes key = bytesOf(der);
    Bytes text = bytesOf(data);
    Bytes out(room);
    unsigned long size = room;
    int const result =
        ICCT_CryptDigest(key.data(), static_cast<int>(key.size()), text.data(), text.size(), out.data(), &size);
    require(result == 0 || result == -1, "result of encrypting");
    require(result == 0 ? size <= room : size == room, "length of what was encrypted");
}

void decrypt(std::string const& der, std::string const& data) {
    ModelKey const model = ModelKey::fromPrivate(der);
    Bytes key = bytesOf(der);
    Bytes text = bytesOf(data);
    Bytes out(model.isValid() ? static_cast<std::size_t>(model.bits() + 7) / 8 : 0);
    unsigned long size = 7;
    int const result =
        ICCT_DecryptDigest(key.data(), static_cast<int>(key.size()), text.data(), text.size(), out.data(), &size);
    require(result == 0 || result == -1, "result of decrypting");
    require(result == 0 ? size <= out.size() : size == 7 || size == ULONG_MAX, "length of what was decrypted");
}

/// A key file of any text, for signing and for verifying.
void useFile(std::string const& content, std::string const& data) {
    static FuzzDirectory s_Directory;
    s_Directory.write("keys/private/k", content);
    s_Directory.write("keys/public/k", content);
    KVX_Context context;
    context.Open(s_Directory.path().c_str());
    std::string const digits = content.substr(0, content.find_last_not_of('\0') + 1);  // zero bytes behind are padding
    bool const isKey = bytesOfHexText(digits) && digits.size() <= 2 * kMaxModulus;

    TbString signature("old");
    std::int32_t const signing = codeOf([&] { context.SignData(tbText(data), "k", signature); });
    require(signing == (isKey ? KVX_E_CRYPTO : KVX_E_INVALID_KEY) || (isKey && signing == KVX_OK), "code of signing");
    require((signing == KVX_OK) == (signature != "old"), "a signature comes with success only");

    std::string const text = textOf(signature);
    std::int32_t const verifying = codeOf([&] { context.VerifyData(tbText(data), "k", "00ff"); });
    requireEqual(verifying, isKey ? KVX_E_INVALID_SIGNATURE : KVX_E_INVALID_KEY, "code of verifying");
}

}  // namespace

void runTarget(Input input) {
    std::uint8_t const choice = input.byte();
    std::string const data = input.text();
    switch (choice % 6) {
        case 0: {
            std::string const signature = input.text();
            verify(input.rest(), data, signature);
            break;
        }
        case 1: {
            // A signature that fits the test key of 512 bits, and a key that may be near it.
            static ModelKey const s_Key = ModelKey::fromPrivate(testKey("rsa/key512.private.hex"));
            verify(input.rest(), data, s_Key.sealed(modelSha1(data)));
            break;
        }
        case 2:
            sign(input.rest(), data);
            break;
        case 3:
            encrypt(input.rest(), data, choice);
            break;
        case 4:
            decrypt(input.rest(), data);
            break;
        default:
            useFile(input.rest(), data);
    }
    ERR_clear_error();
}

}  // namespace kvxfuzz
