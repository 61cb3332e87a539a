// Verifies a confirmation with the flat functions; compared with pugixml and OpenSSL, which read the same key file.
//
// Reference numbers (medians of one interleaved run on a shared machine with two processors; they vary by a tenth):
//   confirmation verified / pugixml and OpenSSL       2.6
//   confirmation verified / its RSA operation alone   4.5

#include <benchmark/benchmark.h>

#include <pugixml.hpp>
#include <string>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/plain.h"
#include "tallowin/tallowin.h"

namespace {

using kvxbench::Account;
using kvxbench::require;
namespace plain = kvxbench::plain;

Account const& account() {
    static Account const s_Account;
    return s_Account;
}

std::string confirmation() {
    return std::string(R"(<KVX MSGTYPE="PayConfirm" KEYID=")") + Account::kServerKey +
           R"(" TOKEN="0123456789abcdef0123456789abcdef" ID="abcdef0123456789abcdef0123456789" AMOUNT="1250" )"
           R"(CURRENCY="EUR" ORDERID="A &amp; B 4711" PROVIDERID="90" PROVIDERNAME="Example &quot;Cards&quot;" )"
           R"(EXPIRATION="20301231 23:59:59" RESULT="0" PAYERNAME="Someone" PAYERCOUNTRY="CH"/>)";
}

bool oursVerifies(KVX_HANDLE factory, std::string const& data, std::string const& signature) {
    KVX_HANDLE message = nullptr;
    if (MessageFactory_VerifyPayConfirm(factory, data.c_str(), signature.c_str(), &message) != KVX_OK) {
        return false;
    }
    DestroyMessageObject(message);
    return true;
}

bool plainVerifies(std::string const& directory, std::string const& data, std::string const& signature) {
    pugi::xml_document document;
    if (!document.load_string(data.c_str())) {
        return false;
    }
    pugi::xml_node message = document.child("KVX");
    std::string const keyId = message.attribute("KEYID").value();
    if (keyId.empty() || keyId.find('/') != std::string::npos ||
        !plain::verify(data, signature, plain::readFile(directory + "/keys/public/" + keyId))) {
        return false;
    }
    if (std::string(message.attribute("MSGTYPE").value()) == "PayConfirm") {
        message.append_attribute("CONFIGPATH").set_value(directory.c_str());
    }
    return true;
}

void setUp() {
    static KVX_HANDLE const s_Factory = CreateMessageFactory();
    std::string const directory = account().path();
    require(MessageFactory_Open(s_Factory, directory.c_str()) == KVX_OK, "no factory");

    std::string const data = confirmation();
    std::string const signature =
        plain::sign(data, plain::readFile(directory + "/keys/private/" + std::string(Account::kServerKey)));
    require(oursVerifies(s_Factory, data, signature) && plainVerifies(directory, data, signature),
            "a good confirmation is refused");
    std::string const changed = data + " ";
    require(!oursVerifies(s_Factory, changed, signature) && !plainVerifies(directory, changed, signature),
            "a changed confirmation is accepted");

    kvxbench::addPair(
        "confirmation verified",
        [data, signature] { benchmark::DoNotOptimize(oursVerifies(s_Factory, data, signature)); },
        "pugixml and OpenSSL",
        [directory, data, signature] { benchmark::DoNotOptimize(plainVerifies(directory, data, signature)); });

    std::string const key = plain::readFile(directory + "/keys/public/" + std::string(Account::kServerKey));
    kvxbench::add("signature",
                  [data, signature, key] { benchmark::DoNotOptimize(plain::verify(data, signature, key)); });
    kvxbench::compare("confirmation verified / its RSA operation alone", "confirmation verified/ours", "signature");
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
