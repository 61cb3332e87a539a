// Runs all registered benchmarks interleaved, collects the time of each repetition, and prints ratios of medians.
//
// Order: rows and the collector, registering, run(), checks. The collector replaces the benchmark library's own output.
// The range beside a ratio divides each side's lower quartile by the other's upper one, and the reverse.
#include "bench/bench_support.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace kvxbench {

namespace {

struct Ratio {
    std::string m_Label;
    std::string m_Measured;
    std::string m_Base;
    double m_Divisor;
    Clock m_Clock;
};

struct Bytes {
    std::string m_Label;
    double m_Ours;
    std::string m_Other;
    double m_Theirs;
};

std::vector<Ratio> g_Ratios;
std::vector<Bytes> g_Bytes;

/// Stores the time of each repetition; prints nothing.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(Context const&) override { return true; }

    void ReportRuns(std::vector<Run> const& runs) override {
        for (Run const& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            auto const iterations = static_cast<double>(run.iterations);
            std::string const& name = run.run_name.function_name;
            m_Times[{name, Clock::kProcessor}].push_back(run.cpu_accumulated_time / iterations);
            m_Times[{name, Clock::kWall}].push_back(run.real_accumulated_time / iterations);
        }
    }

    /// The quantile `part` of the repetitions' times; 0 when there are none.
    [[nodiscard]] double quantile(std::string const& name, Clock clock, double part) const {
        auto const found = m_Times.find({name, clock});
        if (found == m_Times.end()) {
            return 0;
        }
        std::vector<double> times = found->second;
        std::sort(times.begin(), times.end());
        double const position = part * static_cast<double>(times.size() - 1);
        auto const below = static_cast<std::size_t>(position);
        std::size_t const above = std::min(below + 1, times.size() - 1);
        return times[below] + (position - static_cast<double>(below)) * (times[above] - times[below]);
    }

private:
    std::map<std::pair<std::string, Clock>, std::vector<double>> m_Times;
};

/// Prints a row. Returns false when one of its benchmarks has not run.
bool printRatio(Ratio const& ratio, Collector const& times) {
    auto const measured = [&](double part) { return times.quantile(ratio.m_Measured, ratio.m_Clock, part); };
    auto const base = [&](double part) { return times.quantile(ratio.m_Base, ratio.m_Clock, part) * ratio.m_Divisor; };
    if (base(0.5) <= 0 || measured(0.5) <= 0) {
        return false;
    }
    std::printf("%-62s %8.2f   %.2f to %.2f\n", ratio.m_Label.c_str(), measured(0.5) / base(0.5),
                measured(0.25) / base(0.75), measured(0.75) / base(0.25));
    return true;
}

}  // namespace

void add(std::string const& name, Work work) {
    benchmark::RegisterBenchmark(name.c_str(), [work = std::move(work)](benchmark::State& state) {
        for ([[maybe_unused]] auto const& iteration : state) {
            work();
        }
        // The allocator defers part of the work of freeing; that must not count for the next benchmark.
        ::malloc_trim(0);
    });
}

void compare(std::string const& label, std::string const& measured, std::string const& base, Clock clock) {
    g_Ratios.push_back({label, measured, base, 1, clock});
}

void compareGrowth(std::string const& label, std::string const& measured, std::string const& base, double timesAsMuch) {
    g_Ratios.push_back({label, measured, base, timesAsMuch, Clock::kProcessor});
}

void addPair(std::string const& name, Work ours, std::string const& other, Work theirs) {
    add(name + "/ours", std::move(ours));
    add(name + "/" + other, std::move(theirs));
    compare(name + " / " + other, name + "/ours", name + "/" + other);
}

void addBytes(std::string const& label, double ours, std::string const& other, double theirs) {
    g_Bytes.push_back({label, ours, other, theirs});
}

int run(int argc, char** argv) {
    // Options on the command line come later and override these.
    std::string defaults[] = {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9",
                              "--benchmark_min_time=0.05"};
    std::vector<char*> arguments(argv, argv + argc);
    for (std::string& option : defaults) {
        arguments.insert(arguments.begin() + 1, option.data());
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    Collector times;
    benchmark::RunSpecifiedBenchmarks(&times);

    std::printf("%-62s %8s   %s\n", "", "ratio", "between quartiles");
    std::size_t printed = 0;
    for (Ratio const& ratio : g_Ratios) {
        printed += printRatio(ratio, times) ? 1U : 0U;
    }
    for (Bytes const& bytes : g_Bytes) {
        std::printf("%-62s %8.2f   %.0f bytes, %s %.0f\n", bytes.m_Label.c_str(), bytes.m_Ours / bytes.m_Theirs,
                    bytes.m_Ours, bytes.m_Other.c_str(), bytes.m_Theirs);
    }
    return printed == 0 ? 1 : 0;
}

std::size_t heapInUse() {
    struct mallinfo2 const now = ::mallinfo2();
    return now.uordblks + now.hblkhd;
}

void require(bool condition, char const* message) {
    if (!condition) {
        throw std::runtime_error(message);
    }
}

int benchMain(int argc, char** argv, void (*setUp)()) {
    try {
        setUp();
        return run(argc, argv);
    } catch (std::exception const& failure) {
        std::cerr << argv[0] << ": " << failure.what() << '\n';
        return 1;
    }
}

}  // namespace kvxbench
