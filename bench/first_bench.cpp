// The first payment URL of a fresh process: the call alone, and the whole process from its start, with the libraries it
// loads, to its end.
//
// Contestant: the peer (bench/peer.h). Both are programs that load their libraries dynamically. Processor time.
//
// Times faster in one run:
//   first payment URL, peer     1.11
//   process with one URL, peer  1.01

#include <cstdlib>
#include <string>

#include "bench/account.h"
#include "bench/bench_support.h"
#include "bench/childprocess.h"
#include "bench/merchant.h"

namespace {

constexpr double kGoal = 1 / 1.05;

struct First {
    double m_CallSeconds;
    double m_ProcessSeconds;
    std::string m_Url;
};

First runFirst(std::string const& program) {
    static kvxbench::Account const s_Account;
    kvxbench::ChildProcess child({program, s_Account.path()});
    First first;
    first.m_CallSeconds = std::strtod(child.readLine().c_str(), nullptr);
    first.m_Url = child.readLine();
    first.m_ProcessSeconds = child.wait();
    return first;
}

void addFirst(std::string const& name, double First::*seconds) {
    kvxbench::addTimed(name + "/ours", [seconds] { return runFirst(KVX_BENCH_FIRST_OURS).*seconds; });
    kvxbench::addTimed(name + "/peer", [seconds] { return runFirst(KVX_BENCH_FIRST_PEER).*seconds; });
    kvxbench::Comparison comparison;
    comparison.m_Goal = kGoal;
    comparison.m_Clock = kvxbench::Clock::kWall;
    kvxbench::compare(name + ", peer", name + "/ours", name + "/peer", comparison);
}

void setUp() {
    kvxbench::require(kvxbench::maskedUrl(runFirst(KVX_BENCH_FIRST_OURS).m_Url) ==
                          kvxbench::maskedUrl(runFirst(KVX_BENCH_FIRST_PEER).m_Url),
                      "the contestants make different URLs");
    addFirst("first payment URL", &First::m_CallSeconds);
    addFirst("process with one URL", &First::m_ProcessSeconds);
}

}  // namespace

int main(int argc, char** argv) {
    return kvxbench::benchMain(argc, argv, &setUp);
}
