#include "tests/core/coresupport.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "tests/support/encodings.h"
#include "tests/support/testdata.h"

namespace kvxtest {

void Account::writeServerKey(std::string const& keyId) const {
    write("keys/public/" + keyId, dataHex("rsa/key512.public.hex"));
}

void Account::writeOwnKey(std::string const& keyId) const {
    writeServerKey(keyId);
    write("keys/private/" + keyId, dataHex("rsa/key512.private.hex"));
}

Merchant::Merchant(std::string const& config) {
    writeOwnKey("own");
    writeServerKey("server");
    write("keys/current", "own");
    write("config.xml", config);
}

bool Account::hasTemporaryFile(std::string const& folder) const {
    std::vector<std::string> const names = m_Dir.namesIn(folder);
    return std::any_of(names.begin(), names.end(),
                       [](std::string const& name) { return name.rfind(".tallowin-", 0) == 0; });
}

std::string signedElsewhere(std::string const& text, Widening widening) {
    Bytes units;
    for (char const character : text) {
        auto const byte = static_cast<unsigned char>(character);
        units.push_back(byte);
        units.push_back(byte >= 0x80 && widening == Widening::kWithSign ? 0xFF : 0x00);
    }
    Bytes digest(SHA_DIGEST_LENGTH);
    unsigned int length = 0;
    EVP_Digest(units.data(), units.size(), digest.data(), &length, EVP_sha1(), nullptr);

    Bytes const blob = dataBytes("rsa/key512.private.hex");
    unsigned char const* position = blob.data();
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> const key(
        d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &position, static_cast<long>(blob.size())), &EVP_PKEY_free);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> const operation(EVP_PKEY_CTX_new(key.get(), nullptr),
                                                                                &EVP_PKEY_CTX_free);
    Bytes signature(512);
    std::size_t size = signature.size();
    if (EVP_PKEY_sign_init(operation.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(operation.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_sign(operation.get(), signature.data(), &size, digest.data(), digest.size()) != 1) {
        throw std::runtime_error("cannot sign");
    }
    signature.resize(size);
    return hexOf(signature);
}

ExchangeServer::ExchangeServer(std::vector<std::string> responses, std::function<void(std::size_t)> beforeResponse)
    : m_Responses(std::move(responses)), m_BeforeResponse(std::move(beforeResponse)), m_Server([this](Peer& peer) {
          m_Server.record(peer.receiveRequest());
          std::size_t const number = m_Served++;
          if (m_BeforeResponse) {
              m_BeforeResponse(number);
          }
          std::string const& response = m_Responses[std::min(number, m_Responses.size() - 1)];
          peer.send(response.rfind("HTTP/", 0) == 0 ? response : httpResponse(response));
      }) {}

std::string ExchangeServer::url(std::string const& path) const {
    return "http://127.0.0.1:" + m_Server.portText() + path;
}

std::vector<std::string> ExchangeServer::messages() {
    std::vector<std::string> texts;
    for (std::string const& request : requests()) {
        texts.push_back(percentDecoded(queryValue(request, "DATA")));
    }
    return texts;
}

}  // namespace kvxtest
