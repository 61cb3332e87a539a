// Payments, confirmations and set-ups on one shop for a long time, with faults in random order.
//
// Each round takes rows of the fault table at random and holds the component to them; between them payments without a
// fault go through as a whole. Memory is measured in blocks of the library and in the whole process. KVX_SOAK_SECONDS
// makes it long; KVX_TEST_SEED repeats a run.

#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "foundation/tbmemory.h"
#include "foundation/tbobject.h"
#include "tallowin/codes.h"
#include "tests/flow/armedrow.h"
#include "tests/support/processes.h"
#include "tests/support/random.h"

using namespace kvxtest;
using sandbox::ExchangeKind;

namespace {

/// Counts the blocks that the library holds beyond those it held when this was made.
class HeldBlocks {
public:
    HeldBlocks() {
        s_Held = 0;
        tbSetAllocationGate([](std::size_t) {
            __atomic_fetch_add(&s_Held, 1, __ATOMIC_RELAXED);
            return true;
        });
        tbSetReleaseObserver([](void const*, std::size_t) { __atomic_fetch_sub(&s_Held, 1, __ATOMIC_RELAXED); });
    }
    HeldBlocks(HeldBlocks const&) = delete;
    HeldBlocks& operator=(HeldBlocks const&) = delete;
    ~HeldBlocks() {
        tbSetAllocationGate(nullptr);
        tbSetReleaseObserver(nullptr);
    }

    static long count() { return __atomic_load_n(&s_Held, __ATOMIC_RELAXED); }

private:
    static inline long s_Held = 0;
};

/// Rounds of the short form.
constexpr long kRounds = 40;

/// Bytes that a round may leave in the process on average: the sandbox, which runs in it, keeps some state.
constexpr long kBytesOfRound = 4096;
constexpr long kBytesInAll = 4L << 20;

long secondsWanted() {
    char const* const text = std::getenv("KVX_SOAK_SECONDS");
    return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
}

class Soak : public FaultTable {
protected:
    /// One row of a random exchange of the merchant's.
    void expectARandomRow() {
        constexpr ExchangeKind kExchanges[] = {ExchangeKind::kCapture,  ExchangeKind::kComplete,
                                               ExchangeKind::kSetup,    ExchangeKind::kDefaults,
                                               ExchangeKind::kKeyQuery, ExchangeKind::kKeyExport};
        ExchangeKind const exchange = kExchanges[m_Random.below(std::size(kExchanges))];
        std::vector<FaultTableRow> const rows = rowsOf(exchange);
        std::vector<FaultTableRow> const one{rows[m_Random.below(rows.size())]};
        if (isOfSetUp(exchange)) {
            expectSetUps(one);
        } else {
            expectPayments(one);
        }
    }

    void expectAWholePayment() {
        Order const order{"S-" + std::to_string(m_Random.below(1000000)),
                          std::to_string(m_Random.below(100000)) + ".50", "EUR"};
        Returned const returned = pays(shop().payment(order));
        {
            FlowMessage const confirmation = shop().verified(returned);
            EXPECT_EQ(confirmation.get("ORDERID"), order.m_Id);
            EXPECT_EQ(confirmation.get("AMOUNT"), order.m_Amount);
            EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
            EXPECT_EQ(execute(shop().completion(confirmation.get("ID"), confirmation.get("TOKEN"))), KVX_OK);
            EXPECT_EQ(stateOf(confirmation), "completed");
        }
        Returned forged = returned;
        std::size_t const at = m_Random.below(forged.m_Signature.size());
        forged.m_Signature[at] = forged.m_Signature[at] == '0' ? '1' : '0';
        EXPECT_EQ(shop().verify(forged), KVX_E_INVALID_SIGNATURE);
    }

    Random m_Random;
};

TEST_F(Soak, GivesNoWrongResultAndHoldsNoMemory) {
    openShop();
    expectARandomRow();
    expectAWholePayment();

    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + std::chrono::seconds(secondsWanted());
    HeldBlocks const held;
    std::int32_t const objects = TbRefCounter::m_nTotalRef;
    std::size_t const descriptors = countDescriptors();
    auto const before = static_cast<long>(mallinfo2().uordblks);
    long rounds = 0;
    while ((secondsWanted() == 0 ? rounds < kRounds : Clock::now() < end) && !HasFailure()) {
        expectARandomRow();
        expectAWholePayment();
        ++rounds;
        EXPECT_EQ(HeldBlocks::count(), 0);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, objects);
    }
    auto const grown = static_cast<long>(mallinfo2().uordblks) - before;
    std::cout << rounds << " rounds, the process grew by " << grown << " bytes, seed " << testSeed() << '\n';
    EXPECT_LT(grown, kBytesInAll + rounds * kBytesOfRound);
    EXPECT_LE(countDescriptors(), descriptors + 16) << "the sandbox has connections and a database open";
}

}  // namespace
