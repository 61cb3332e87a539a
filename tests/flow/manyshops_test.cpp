// Many threads, each with objects of its own, on one directory.

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "tallowin/codes.h"
#include "tests/flow/flowsupport.h"

using namespace kvxtest;

namespace {

class ManyThreads : public FlowTest {};

TEST_F(ManyThreads, PayOnOneDirectoryAtOnce) {
    constexpr int kThreads = 8;
    constexpr int kPayments = 25;
    openShop();

    std::mutex mutex;
    std::set<std::string> tokens;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            for (int i = 0; i < kPayments; ++i) {
                Order const order{std::to_string(number) + "-" + std::to_string(i), std::to_string(i) + ".50", "EUR"};
                FlowMessage const payment = shop().payment(order);
                std::string const token = payment.get("TOKEN");
                Returned const returned = pays(payment);
                FlowMessage const confirmation = shop().verified(returned);
                EXPECT_EQ(confirmation.get("TOKEN"), token);
                EXPECT_EQ(confirmation.get("ORDERID"), order.m_Id);
                EXPECT_EQ(confirmation.get("AMOUNT"), order.m_Amount);
                EXPECT_EQ(shop().capture(returned.m_Data), KVX_OK);
                FlowMessage const completion = shop().completion(confirmation.get("ID"), token);
                EXPECT_EQ(execute(completion), KVX_OK);
                std::lock_guard<std::mutex> const lock(mutex);
                EXPECT_TRUE(tokens.insert(token).second);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(tokens.size(), static_cast<std::size_t>(kThreads * kPayments));
    for (std::string const& token : tokens) {
        EXPECT_EQ(sandbox().stateOf(token), "completed");
    }
}

TEST_F(ManyThreads, PayWhileTheDirectoryIsSetUpAnew) {
    constexpr int kSetUps = 5;
    openShop();
    std::atomic<bool> done{false};
    std::thread administrator([&] {
        for (int i = 0; i < kSetUps; ++i) {
            EXPECT_EQ(shop().setUp(autoUrl()), KVX_OK);
        }
        done = true;
    });
    int payments = 0;
    do {
        // A reader sees the old or the new files, never half of one.
        FlowMessage const payment = shop().payment();
        EXPECT_EQ(shop().verify(pays(payment)), KVX_OK);
        ++payments;
    } while (!done);
    administrator.join();
    EXPECT_GT(payments, 0);
}

}  // namespace
