// Creates a payment and its signed URL with the flat functions; compared with a message built in a std::string, with
// the same files, the same fields and the same RSA operation with OpenSSL.
//
// Reference numbers (medians of one interleaved run on a shared machine with two processors; they vary by a tenth):
//   payment and its URL / std::string and OpenSSL   1.6
//   payment and its URL / its RSA operation alone   2.2

#include <benchmark/benchmark.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/plain.h"
#include "tallowin/tallowin.h"

namespace {

using kvxbench::require;

struct Field {
    char const* m_Name;
    char const* m_Value;
};

constexpr Field kOrder[] = {{"AMOUNT", "1250"}, {"CURRENCY", "EUR"}, {"ORDERID", "A & B 4711"}, {"DESCRIPTION", "Tea"}};

constexpr char const* kFromDefaults[] = {"ALLOWCOLLECT",  "DELIVERY",        "LANGID",   "SUCCESSLINK",
                                         "NOTIFYADDRESS", "DEFAULTVALIDITY", "BACKLINK", "FAILLINK"};

kvxbench::Account const& account() {
    static kvxbench::Account const s_Account;
    return s_Account;
}

std::string oursUrl(KVX_HANDLE factory) {
    KVX_HANDLE message = nullptr;
    require(MessageFactory_CreatePayInit(factory, &message) == KVX_OK, "no payment");
    for (Field const& field : kOrder) {
        require(MessageObject_SetAttribute(message, field.m_Name, field.m_Value) == KVX_OK, "no attribute");
    }
    std::vector<char> url(4096);
    auto size = static_cast<std::int32_t>(url.size());
    require(MessageObject_GetURL(message, &size, url.data()) == KVX_OK, "no URL");
    DestroyMessageObject(message);
    return url.data();
}

/// The value of attribute `name` as written in the file, still escaped; empty when absent.
std::string escapedAttribute(std::string const& document, std::string const& name) {
    std::string const opening = " " + name + "=\"";
    std::size_t const at = document.find(opening);
    if (at == std::string::npos) {
        return "";
    }
    std::size_t const begin = at + opening.size();
    return document.substr(begin, document.find('"', begin) - begin);
}

std::string escape(std::string const& value) {
    std::string escaped;
    for (char const character : value) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&apos;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string freshToken() {
    uuid_t bytes;
    uuid_generate(bytes);
    return kvxbench::plain::toHex({bytes, bytes + sizeof bytes});
}

std::string expiry(std::string const& ttl) {
    std::time_t const when = std::time(nullptr) + std::strtol(ttl.c_str(), nullptr, 10);
    std::tm utc = {};
    ::gmtime_r(&when, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &utc);
    return text;
}

std::string plainUrl(std::string const& directory) {
    namespace plain = kvxbench::plain;
    std::string const keyId = plain::readFile(directory + "/keys/current");
    std::string const defaults = plain::readFile(directory + "/default.xml");
    std::string const config = plain::readFile(directory + "/config.xml");

    std::string message = "<KVX MSGTYPE=\"PayInit\" KEYID=\"" + escape(keyId) + "\" TOKEN=\"" + freshToken() + '"';
    for (char const* const name : kFromDefaults) {
        message += std::string(" ") + name + "=\"" + escapedAttribute(defaults, name) + '"';
    }
    message += " EXPIRATION=\"" + expiry(escapedAttribute(defaults, "PAYINITTTL")) + '"';
    for (Field const& field : kOrder) {
        message += std::string(" ") + field.m_Name + "=\"" + escape(field.m_Value) + '"';
    }
    message += "/>";
    std::string const signature = plain::sign(message, plain::readFile(directory + "/keys/private/" + keyId));
    return escapedAttribute(config, "VTURL") + "?DATA=" + plain::percentEncode(message) + "&SIGNATURE=" + signature;
}

/// The URL without the parts that differ each time: token, expiry, signature.
std::string masked(std::string url) {
    for (std::string const name : {"TOKEN%3d%22", "EXPIRATION%3d%22"}) {
        std::size_t const begin = url.find(name) + name.size();
        url.erase(begin, url.find("%22", begin) - begin);
    }
    return url.substr(0, url.find("&SIGNATURE=") + 11) + std::to_string(url.size());
}

void setUp() {
    static KVX_HANDLE const s_Factory = CreateMessageFactory();
    std::string const directory = account().path();
    require(MessageFactory_Open(s_Factory, directory.c_str()) == KVX_OK, "no factory");
    require(masked(oursUrl(s_Factory)) == masked(plainUrl(directory)), "the two sides make different URLs");
    kvxbench::addPair(
        "payment and its URL", [] { benchmark::DoNotOptimize(oursUrl(s_Factory)); }, "std::string and OpenSSL",
        [directory] { benchmark::DoNotOptimize(plainUrl(directory)); });

    // The share of the signature.
    std::string const key =
        kvxbench::plain::readFile(directory + "/keys/private/" + std::string(kvxbench::Account::kOwnKey));
    kvxbench::add("signature", [key] { benchmark::DoNotOptimize(kvxbench::plain::sign("a message", key)); });
    kvxbench::compare("payment and its URL / its RSA operation alone", "payment and its URL/ours", "signature");
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
