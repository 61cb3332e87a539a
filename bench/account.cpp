#include "bench/account.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "bench/plain.h"
#include "bench/require.h"
#include "core/icct.h"

namespace kvxbench {

namespace {

constexpr char kConfig[] =
    R"(<KVX MSGTYPE="SetupResponse" VERSION="3" CUSTOMERID="4711" VTKEYID="1-0-server" )"
    R"(VTURL="https://pay.example.test/vt/pay" CAPTUREURL="https://pay.example.test/vt/capture" )"
    R"(VTAUTOURL="https://pay.example.test/vt/auto"/>)";

constexpr char kDefaults[] =
    R"(<KVX MSGTYPE="LoadDefaultsResponse" ISVALID="yes" ALLOWCOLLECT="no" DELIVERY="yes" LANGID="en" )"
    R"(SUCCESSLINK="https://shop.example.test/paid?shop=1&amp;lang=en" NOTIFYADDRESS="shop@example.test" )"
    R"(DEFAULTVALIDITY="14" BACKLINK="https://shop.example.test/cart" FAILLINK="https://shop.example.test/failed" )"
    R"(PAYINITTTL="3600"/>)";

}  // namespace

char const* const Account::kOwnKey = "0-4711-0123456789abcdef0123456789abcdef";
char const* const Account::kServerKey = "1-0-server";

Account::Account() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvxbench-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr, "cannot create a temporary directory");
    m_Path = pattern;
    std::filesystem::create_directories(m_Path + "/keys/private");
    std::filesystem::create_directories(m_Path + "/keys/public");
    write("config.xml", kConfig);
    write("default.xml", kDefaults);
    write("keys/current", kOwnKey);
    writeKeyPair(kOwnKey);
    writeKeyPair(kServerKey);
}

Account::~Account() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

void Account::write(std::string const& name, std::string const& content) const {
    std::ofstream out(m_Path + "/" + name, std::ios::binary);
    out << content;
    require(out.flush().good(), "cannot write the configuration directory");
}

void Account::writeKeyPair(std::string const& keyId) const {
    unsigned char publicKey[4096];
    unsigned char privateKey[4096];
    int publicLength = 0;
    int privateLength = 0;
    require(ICCT_GenerateKeys(publicKey, &publicLength, privateKey, &privateLength, nullptr, 0) == 0,
            "cannot generate a key pair");
    write("keys/public/" + keyId, plain::toHex({publicKey, publicKey + publicLength}));
    write("keys/private/" + keyId, plain::toHex({privateKey, privateKey + privateLength}));
}

}  // namespace kvxbench
