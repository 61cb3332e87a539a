#include "tests/core/core_support.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

namespace kvxtest {

namespace {

using Bytes = std::vector<unsigned char>;

Bytes fromHex(std::string const& digits) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string toHex(Bytes const& bytes) {
    std::string digits;
    for (unsigned char const byte : bytes) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(byte));
        digits += two;
    }
    return digits;
}

}  // namespace

void Account::writeServerKey(std::string const& keyId) const {
    write("keys/public/" + keyId, hexFile("rsa/key512.public.hex"));
}

void Account::writeOwnKey(std::string const& keyId) const {
    writeServerKey(keyId);
    write("keys/private/" + keyId, hexFile("rsa/key512.private.hex"));
}

std::vector<std::string> Account::filesIn(std::string const& folder) const {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(m_Dir.file(folder))) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool Account::hasTemporaryFile(std::string const& folder) const {
    std::vector<std::string> const names = filesIn(folder);
    return std::any_of(names.begin(), names.end(),
                       [](std::string const& name) { return name.rfind(".tallowin-", 0) == 0; });
}

std::string dataFile(std::string const& name) {
    std::string const path = std::string(KVX_TEST_DATA_DIR) + "/" + name;
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) {
        throw std::runtime_error("no test data at " + path);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string hexFile(std::string const& name) {
    std::string digits = dataFile(name);
    digits.erase(std::remove(digits.begin(), digits.end(), '\n'), digits.end());
    return digits;
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

    Bytes const blob = fromHex(hexFile("rsa/key512.private.hex"));
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
    return toHex(signature);
}

std::string answerWith(std::string const& body) {
    return "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\n\r\n" + body;
}

ExchangeServer::ExchangeServer(std::vector<std::string> answers, std::function<void(std::size_t)> beforeAnswer)
    : m_Answers(std::move(answers)), m_BeforeAnswer(std::move(beforeAnswer)), m_Server([this](Peer& peer) {
          m_Server.record(peer.receiveRequest());
          std::size_t const number = m_Served++;
          if (m_BeforeAnswer) {
              m_BeforeAnswer(number);
          }
          std::string const& answer = m_Answers[std::min(number, m_Answers.size() - 1)];
          peer.send(answer.rfind("HTTP/", 0) == 0 ? answer : answerWith(answer));
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

std::string queryValue(std::string const& text, std::string const& name) {
    for (std::string const& lead : {"?" + name + "=", "&" + name + "="}) {
        std::size_t const at = text.find(lead);
        if (at != std::string::npos) {
            std::size_t const begin = at + lead.size();
            return text.substr(begin, text.find_first_of("& \r\n", begin) - begin);
        }
    }
    return "";
}

std::string percentDecoded(std::string const& text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        std::string const digits = text.substr(i + 1, 2);
        EXPECT_EQ(digits.find_first_not_of("0123456789abcdef"), std::string::npos) << digits;
        EXPECT_EQ(digits.size(), 2U);
        decoded += static_cast<char>(std::stoi(digits, nullptr, 16));
        i += 2;
    }
    return decoded;
}

std::vector<std::string> linesOf(std::vector<TraceRecorder::Record> const& records) {
    std::vector<std::string> lines;
    for (TraceRecorder::Record const& record : records) {
        char numbers[64];
        std::snprintf(numbers, sizeof numbers, ":%ld:%x:", record.m_Line, static_cast<unsigned>(record.m_Code));
        lines.push_back(record.m_File + numbers + record.m_Event + ":" + record.m_Detail);
    }
    return lines;
}

}  // namespace kvxtest
