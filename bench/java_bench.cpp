// A payment URL through the Java classes, in a virtual machine that has compiled them; compared with the flat
// functions.
//
// Processor time of the thread that makes the URLs. What the virtual machine does on other threads does not count.
//
// Times faster in one run:
//   payment URL in Java, flat functions  0.91

#include <time.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/childprocess.h"
#include "bench/merchant.h"
#include "bench/order.h"

namespace {

using kvxbench::ChildProcess;
using kvxbench::require;

constexpr double kGoal = 1 / 1.1;
constexpr int kRounds = 200;
constexpr int kWarmUps = 50;  ///< Times kRounds: enough for the compiler of the virtual machine.

/// What some payments took, and the URL of the last.
struct Rounds {
    double m_Seconds;
    std::string m_Url;
};

Rounds javaRounds(ChildProcess& java) {
    java.write(std::to_string(kRounds));
    double const nanoseconds = std::strtod(java.readLine().c_str(), nullptr);
    return {nanoseconds / 1e9, java.readLine()};
}

double threadSeconds() {
    timespec time = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Rounds flatRounds(kvxbench::Merchant const& merchant) {
    double const begin = threadSeconds();
    std::string url;
    for (int i = 0; i < kRounds; ++i) {
        url = merchant.paymentUrl();
    }
    return {threadSeconds() - begin, url};
}

void setUp() {
    static kvxbench::Account const s_Account;
    static kvxbench::Merchant const s_Merchant(s_Account.path());
    std::vector<std::string> command = {KVX_BENCH_JAVA, "-cp", KVX_BENCH_CLASS_PATH, "PaymentLoop", s_Account.path()};
    for (kvxbench::Field const& field : kvxbench::kOrder) {
        command.insert(command.end(), {field.m_Name, field.m_Value});
    }
    static ChildProcess s_Java(command);
    for (int i = 0; i < kWarmUps; ++i) {
        javaRounds(s_Java);
    }
    require(kvxbench::maskedUrl(javaRounds(s_Java).m_Url) == kvxbench::maskedUrl(flatRounds(s_Merchant).m_Url),
            "the contestants make different URLs");

    std::string const name = "payment URL in Java";
    kvxbench::addTimed(name + "/ours", [] { return javaRounds(s_Java).m_Seconds; });
    kvxbench::addTimed(name + "/flat functions", [] { return flatRounds(s_Merchant).m_Seconds; });
    kvxbench::Comparison comparison;
    comparison.m_Goal = kGoal;
    comparison.m_Clock = kvxbench::Clock::kWall;
    kvxbench::compare(name + ", flat functions", name + "/ours", name + "/flat functions", comparison);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
