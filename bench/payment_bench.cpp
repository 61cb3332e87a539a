// Creates a payment with 15 attributes and its signed URL with the flat functions, reading the account's files at each
// call.
//
// Contestants: the peer (bench/peer.h), the floor (bench/floor.h). Asking for the size first must not cost a second
// signature: the two calls are compared with two whose message changes in between, so that both sign.
//
// Times faster in one run:
//   payment URL, peer                           0.55
//   payment URL, floor                          0.21
//   size asked, then the URL, two plain calls   1.00
//   size asked, then the URL, peer twice        0.72

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/floor.h"
#include "bench/peer.h"
#include "bench/plain.h"
#include "tallowin/tallowin.h"

namespace {

using kvxbench::Account;
using kvxbench::require;
namespace peer = kvxbench::peer;

constexpr double kWithinFloor = 1 / 1.1;

Account const& account() {
    static Account const s_Account;
    return s_Account;
}

KVX_HANDLE payment(KVX_HANDLE factory) {
    KVX_HANDLE message = nullptr;
    require(MessageFactory_CreatePayInit(factory, &message) == KVX_OK, "no payment");
    for (peer::Field const& field : peer::order()) {
        require(MessageObject_SetAttribute(message, field.m_Name, field.m_Value) == KVX_OK, "no attribute");
    }
    return message;
}

std::string urlOf(KVX_HANDLE message, std::int32_t size) {
    std::vector<char> url(static_cast<std::size_t>(size));
    require(MessageObject_GetURL(message, &size, url.data()) == KVX_OK, "no URL");
    return url.data();
}

std::int32_t sizeOfUrl(KVX_HANDLE message) {
    std::int32_t size = 0;
    require(MessageObject_GetURL(message, &size, nullptr) == KVX_E_BUFFER_TOO_SMALL && size > 1, "no size");
    return size;
}

std::string oursUrl(KVX_HANDLE factory) {
    KVX_HANDLE message = payment(factory);
    std::string url = urlOf(message, 4096);
    DestroyMessageObject(message);
    return url;
}

std::string oursSizeAndUrl(KVX_HANDLE factory) {
    KVX_HANDLE message = payment(factory);
    std::string url = urlOf(message, sizeOfUrl(message));
    DestroyMessageObject(message);
    return url;
}

std::string oursTwoUrls(KVX_HANDLE factory) {
    KVX_HANDLE message = payment(factory);
    require(MessageObject_SetAttribute(message, "DESCRIPTION", "Cup") == KVX_OK, "no attribute");
    std::int32_t const size = sizeOfUrl(message);
    require(MessageObject_SetAttribute(message, "DESCRIPTION", "Tea") == KVX_OK, "no attribute");
    std::string url = urlOf(message, size);
    DestroyMessageObject(message);
    return url;
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
    std::string const expected = masked(peer::paymentUrl(directory));
    require(masked(oursUrl(s_Factory)) == expected && masked(oursSizeAndUrl(s_Factory)) == expected &&
                masked(oursTwoUrls(s_Factory)) == expected,
            "the contestants make different URLs");
    std::string const signature = kvxbench::plain::sign(
        "a message", kvxbench::plain::readFile(directory + "/keys/private/" + Account::kServerKey));
    static kvxbench::Floor s_Floor(directory, Account::kOwnKey, Account::kServerKey, signature);

    auto const peerUrl = [directory] { benchmark::DoNotOptimize(peer::paymentUrl(directory)); };
    kvxbench::addContest(
        "payment URL", [] { benchmark::DoNotOptimize(oursUrl(s_Factory)); },
        {{"peer", peerUrl, 2.3}, {"floor", [] { benchmark::DoNotOptimize(s_Floor.payment()); }, kWithinFloor}});
    kvxbench::either("payment URL, peer", "payment URL, floor");

    kvxbench::addContest("size asked, then the URL", [] { benchmark::DoNotOptimize(oursSizeAndUrl(s_Factory)); },
                         {{"two plain calls", [] { benchmark::DoNotOptimize(oursTwoUrls(s_Factory)); }, 1.5},
                          {"peer twice",
                           [peerUrl] {
                               peerUrl();
                               peerUrl();
                           },
                           1.5}});
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
