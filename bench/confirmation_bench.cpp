// Verifies a confirmation of 0.6 KB with the flat functions, reading the key file at each call.
//
// Contestants: the peer (bench/peer.h), the floor (bench/floor.h).
//
// Times faster in one run:
//   confirmation verified, peer    1.45
//   confirmation verified, floor   0.70

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
using kvxbench::require;
namespace peer = kvxbench::peer;
namespace plain = kvxbench::plain;

constexpr double kWithinFloor = 1 / 1.25;

Account const& account() {
    static Account const s_Account;
    return s_Account;
}

/// A confirmation of 0.6 KB.
std::string confirmation() {
    return std::string(R"(<KVX MSGTYPE="PayConfirm" KEYID=")") + Account::kServerKey +
           R"(" TOKEN="0123456789abcdef0123456789abcdef" ID="abcdef0123456789abcdef0123456789" AMOUNT="1250" )"
           R"(CURRENCY="EUR" ORDERID="A &amp; B 4711" DESCRIPTION="Two pots of tea and a cake, delivered on Monday" )"
           R"(PROVIDERID="90" PROVIDERNAME="Example &quot;Cards&quot;" EXPIRATION="20301231 23:59:59" RESULT="0" )"
           R"(PAYERNAME="Someone Somewhere" PAYERCOUNTRY="CH" PAYERADDRESS="12 Long Street, 8000 Sometown" )"
           R"(BACKLINK="https://shop.example.test/cart" SUCCESSLINK="https://shop.example.test/paid?shop=1&amp;lang=en"/>)";
}

bool oursVerifies(KVX_HANDLE factory, std::string const& data, std::string const& signature) {
    KVX_HANDLE message = nullptr;
    if (MessageFactory_VerifyPayConfirm(factory, data.c_str(), signature.c_str(), &message) != KVX_OK) {
        return false;
    }
    DestroyMessageObject(message);
    return true;
}

void setUp() {
    std::string const directory = account().path();
    static kvxbench::Merchant const s_Merchant(directory);

    std::string const data = confirmation();
    std::string const signature =
        plain::sign(data, plain::readFile(directory + "/keys/private/" + std::string(Account::kServerKey)));
    require(oursVerifies(s_Merchant.factory(), data, signature) && peer::verifies(directory, data, signature),
            "a good confirmation is refused");
    std::string const changed = data + " ";
    require(!oursVerifies(s_Merchant.factory(), changed, signature) && !peer::verifies(directory, changed, signature),
            "a changed confirmation is accepted");

    static kvxbench::Floor s_Floor(directory, Account::kOwnKey, Account::kServerKey, signature);
    kvxbench::addContest(
        "confirmation verified",
        [data, signature] { benchmark::DoNotOptimize(oursVerifies(s_Merchant.factory(), data, signature)); },
        {{"peer",
          [directory, data, signature] { benchmark::DoNotOptimize(peer::verifies(directory, data, signature)); }, 1.9},
         {"floor", [] { benchmark::DoNotOptimize(s_Floor.confirmation()); }, kWithinFloor}});
    kvxbench::either("confirmation verified, peer", "confirmation verified, floor");
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
