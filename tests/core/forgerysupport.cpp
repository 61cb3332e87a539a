#include "tests/core/forgerysupport.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "api/cMessageFactory.h"
#include "api/cMessageObject.h"
#include "tallowin/tallowin.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

namespace kvxtest {

namespace {

std::int32_t codeNamed(std::string const& name) {
    static std::map<std::string, std::int32_t> const codes = {
        {"KVX_OK", KVX_OK},
        {"KVX_E_INVALID_FORMAT", KVX_E_INVALID_FORMAT},
        {"KVX_E_INVALID_KEY", KVX_E_INVALID_KEY},
        {"KVX_E_INVALID_SIGNATURE", KVX_E_INVALID_SIGNATURE},
        {"KVX_E_MISSING_SIGNATURE", KVX_E_MISSING_SIGNATURE},
        {"KVX_E_NOT_FOUND", KVX_E_NOT_FOUND},
        {"KVX_E_NO_KEY_ID", KVX_E_NO_KEY_ID},
    };
    auto const found = codes.find(name);
    if (found == codes.end()) {
        throw std::runtime_error("forgeries.txt: no code " + name);
    }
    return found->second;
}

/// The rest of `text` behind the first `separator`; cuts `text` there.
std::string cutAt(std::string& text, std::string const& separator) {
    std::size_t const at = text.find(separator);
    std::string const rest = at == std::string::npos ? "" : text.substr(at + separator.size());
    text.resize(std::min(at, text.size()));
    return rest;
}

constexpr char kText[] = "forgeries/forgeries.txt";
constexpr std::size_t kBlock = 64;

using PkeyHolder = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using OperationHolder = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

PkeyHolder privateKey() {
    Bytes const blob = dataBytes("rsa/key512.private.hex");
    unsigned char const* position = blob.data();
    return {d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &position, static_cast<long>(blob.size())), &EVP_PKEY_free};
}

}  // namespace

std::vector<Forgery> allForgeries() {
    std::map<std::string, std::string> keys;
    std::vector<Forgery> rows;
    std::istringstream in(dataText(kText));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::string rest = cutAt(line, " ");
        if (line == "row") {
            rows.emplace_back();
            rows.back().m_What = cutAt(rest, ": ");
            rows.back().m_Class = rest;
        } else if (line == "key") {
            std::string const hex = cutAt(rest, " ");
            keys[rest] = hex;
        } else if (line == "file") {
            std::string const key = cutAt(rest, " ");
            rows.back().m_Files[rest] = keys.at(key);
        } else if (line == "result") {
            rows.back().m_Code = codeNamed(rest);
        } else if (line == "text") {
            rows.back().m_Text = percentDecoded(rest);
        } else if (line == "signature") {
            rows.back().m_Signature = percentDecoded(rest);
        } else {
            throw std::runtime_error("forgeries.txt: " + line);
        }
    }
    return rows;
}

std::int32_t verifiedPayConfirm(std::string const& directory, std::string const& text, std::string const& signature) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(stringOf(directory));
    std::int32_t const code = thrownCode([&] {
        std::unique_ptr<KVXCIMPL_MessageObject> const message(
            factory.VerifyPayConfirm(stringOf(text), stringOf(signature)));
    });
    if (text.find('\0') == std::string::npos && signature.find('\0') == std::string::npos) {
        KVX_HANDLE verified = nullptr;
        std::int32_t const flat = MessageFactory_VerifyPayConfirm(&factory, text.c_str(), signature.c_str(), &verified);
        EXPECT_EQ(flat, code);
        EXPECT_EQ(verified != nullptr, flat == KVX_OK);
        DestroyMessageObject(verified);
    }
    return code;
}

std::string BlockSigner::publicHex() {
    return dataHex("rsa/key512.public.hex");
}

std::string BlockSigner::sign(std::string const& block) {
    static PkeyHolder const key = privateKey();
    OperationHolder const operation(EVP_PKEY_CTX_new(key.get(), nullptr), &EVP_PKEY_CTX_free);
    Bytes signature(kBlock);
    std::size_t size = signature.size();
    if (EVP_PKEY_decrypt_init(operation.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(operation.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_decrypt(operation.get(), signature.data(), &size, reinterpret_cast<unsigned char const*>(block.data()),
                         block.size()) != 1) {
        throw std::runtime_error("cannot sign");
    }
    signature.resize(size);
    return hexOf(signature);
}

std::string BlockSigner::blockFor(std::string const& text) {
    std::string units;
    for (char const character : text) {
        units += character;
        units += static_cast<unsigned char>(character) >= 0x80 ? '\xff' : '\0';
    }
    Bytes digest(SHA_DIGEST_LENGTH);
    EVP_Digest(units.data(), units.size(), digest.data(), nullptr, EVP_sha1(), nullptr);
    std::string block("\0\1", 2);
    block.append(kBlock - 3 - digest.size(), '\xff');
    block += '\0';
    block.append(digest.begin(), digest.end());
    return block;
}

}  // namespace kvxtest
