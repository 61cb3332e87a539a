// Creates a payment with 15 attributes and its signed URL with the flat functions, reading the account's files at each
// call.
//
// Contestants: the peer (bench/peer.h), the floor (bench/floor.h). Asking for the size first must not cost a second
// signature: the two calls are compared with two whose message changes in between, so that both sign.
//
// Times faster in one run:
//   payment URL, peer                           1.83
//   payment URL, floor                          0.75
//   size asked, then the URL, two plain calls   1.43
//   size asked, then the URL, peer twice        3.05

#include <benchmark/benchmark.h>

#include <string>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/floor.h"
#include "bench/merchant.h"
#include "bench/peer.h"
#include "bench/plain.h"
#include "tallowin/tallowin.h"

namespace {

using kvxbench::Account;
using kvxbench::maskedUrl;
using kvxbench::Merchant;
using kvxbench::require;
namespace peer = kvxbench::peer;

constexpr double kWithinFloor = 1 / 1.1;

Account const& account() {
    static Account const s_Account;
    return s_Account;
}

std::int32_t sizeOfUrl(KVX_HANDLE message) {
    std::int32_t size = 0;
    require(MessageObject_GetURL(message, &size, nullptr) == KVX_E_BUFFER_TOO_SMALL && size > 1, "no size");
    return size;
}

std::string sizeAndUrl(Merchant const& merchant) {
    KVX_HANDLE message = merchant.payment();
    std::string url = Merchant::urlOf(message, sizeOfUrl(message));
    DestroyMessageObject(message);
    return url;
}

std::string twoUrls(Merchant const& merchant) {
    KVX_HANDLE message = merchant.payment();
    require(MessageObject_SetAttribute(message, "DESCRIPTION", "Cup") == KVX_OK, "no attribute");
    std::int32_t const size = sizeOfUrl(message);
    require(MessageObject_SetAttribute(message, "DESCRIPTION", "Tea") == KVX_OK, "no attribute");
    std::string url = Merchant::urlOf(message, size);
    DestroyMessageObject(message);
    return url;
}

void setUp() {
    std::string const directory = account().path();
    static Merchant const s_Merchant(directory);
    std::string const expected = maskedUrl(peer::paymentUrl(directory));
    require(maskedUrl(s_Merchant.paymentUrl()) == expected && maskedUrl(sizeAndUrl(s_Merchant)) == expected &&
                maskedUrl(twoUrls(s_Merchant)) == expected,
            "the contestants make different URLs");
    std::string const signature = kvxbench::plain::sign(
        "a message", kvxbench::plain::readFile(directory + "/keys/private/" + Account::kServerKey));
    static kvxbench::Floor s_Floor(directory, Account::kOwnKey, Account::kServerKey, signature);

    auto const peerUrl = [directory] { benchmark::DoNotOptimize(peer::paymentUrl(directory)); };
    kvxbench::addContest(
        "payment URL", [] { benchmark::DoNotOptimize(s_Merchant.paymentUrl()); },
        {{"peer", peerUrl, 2.3}, {"floor", [] { benchmark::DoNotOptimize(s_Floor.payment()); }, kWithinFloor}});
    kvxbench::either("payment URL, peer", "payment URL, floor");

    kvxbench::addContest("size asked, then the URL", [] { benchmark::DoNotOptimize(sizeAndUrl(s_Merchant)); },
                         {{"two plain calls", [] { benchmark::DoNotOptimize(twoUrls(s_Merchant)); }, 1.5},
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
