// Runs all registered benchmarks interleaved, collects the time of each repetition, and prints ratios of medians.
//
// Order: rows and the collector, printing, registering, run(). The collector replaces the benchmark library's own
// output. The range beside a ratio divides each side's lower quartile by the other's upper one, and the reverse.
// scripts/bench reads the table: columns are at least two spaces apart, and nothing in a column is.
#include "bench/bench_support.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <utility>

namespace kvxbench {

namespace {

struct Ratio {
    std::string m_Label;
    std::string m_Measured;
    std::string m_Base;
    Comparison m_Comparison;
};

struct Bytes {
    std::string m_Label;
    std::string m_Other;
    std::function<Sizes()> m_Measure;
    SizeGoal m_Goal;
};

/// A line of the table.
struct Line {
    std::string m_Label;
    double m_Value = 0;
    double m_Best = 0;  ///< The favourable end of the spread.
    std::string m_Detail;
    double m_Goal = kNoGoal;  ///< In the unit of m_Value.
    std::string m_GoalText;
};

std::vector<Ratio> g_Ratios;
std::vector<Bytes> g_Bytes;
std::multimap<std::string, std::string> g_Either;

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

/// Three significant digits.
std::string numberText(double number) {
    char text[32];
    int const decimals = number < 0.0995 ? 3 : number < 9.995 ? 2 : number < 99.95 ? 1 : 0;
    std::snprintf(text, sizeof text, "%.*f", decimals, number);
    return text;
}

std::string bytesText(double bytes) {
    char text[32];
    bool const isLarge = bytes >= 100000;
    std::snprintf(text, sizeof text, "%.0f %s", isLarge ? bytes / 1024 : bytes, isLarge ? "KiB" : "bytes");
    return text;
}

/// Appends the row of `ratio`, unless one of its benchmarks has not run.
void appendLine(Ratio const& ratio, Collector const& times, std::vector<Line>& lines) {
    Comparison const& how = ratio.m_Comparison;
    auto const measured = [&](double part) { return times.quantile(ratio.m_Measured, how.m_Clock, part); };
    auto const base = [&](double part) { return times.quantile(ratio.m_Base, how.m_Clock, part) * how.m_TimesTheWork; };
    if (base(0.5) <= 0 || measured(0.5) <= 0) {
        return;
    }
    Line line;
    line.m_Label = ratio.m_Label;
    line.m_Value = base(0.5) / measured(0.5);
    line.m_Best = base(0.75) / measured(0.25);
    line.m_Detail = numberText(base(0.25) / measured(0.75)) + " to " + numberText(line.m_Best);
    line.m_Goal = how.m_Goal;
    line.m_GoalText = numberText(how.m_Goal);
    lines.push_back(line);
}

Line lineOf(Bytes const& bytes) {
    Sizes const sizes = bytes.m_Measure();
    Line line;
    line.m_Label = bytes.m_Label;
    line.m_Value = (bytes.m_Other.empty() ? bytes.m_Goal.m_AtMost : sizes.m_Theirs) / sizes.m_Ours;
    line.m_Best = line.m_Value;
    line.m_Detail = bytesText(sizes.m_Ours);
    if (!bytes.m_Other.empty()) {
        line.m_Detail += ", " + bytes.m_Other + " " + bytesText(sizes.m_Theirs);
    }
    if (bytes.m_Goal.m_AtMost != kNoGoal) {
        line.m_Goal = line.m_Value * sizes.m_Ours / bytes.m_Goal.m_AtMost;
        line.m_GoalText = bytesText(bytes.m_Goal.m_AtMost);
    } else {
        line.m_Goal = bytes.m_Goal.m_TimesSmaller;
        line.m_GoalText = numberText(line.m_Goal);
    }
    return line;
}

bool isExcluded(std::string const& label, std::string const& filter) {
    if (filter.empty()) {
        return false;
    }
    bool const isInverted = filter.front() == '-';
    std::regex const pattern(isInverted ? filter.substr(1) : filter, std::regex::extended);
    return std::regex_search(label, pattern) == isInverted;
}

std::string markOf(Line const& line, std::set<std::string> const& reached) {
    if (line.m_Goal == kNoGoal || line.m_Value >= line.m_Goal) {
        return "";
    }
    auto const [begin, end] = g_Either.equal_range(line.m_Label);
    if (std::any_of(begin, end, [&](auto const& pair) { return reached.count(pair.second) != 0; })) {
        return "";
    }
    return line.m_Best >= line.m_Goal ? "short, within the spread" : "SHORT";
}

/// The width of a column: that of its longest text, and at least `least`.
int widthOf(std::vector<Line> const& lines, std::string Line::*text, std::size_t least) {
    for (Line const& line : lines) {
        least = std::max(least, (line.*text).size());
    }
    return static_cast<int>(least);
}

void print(std::vector<Line> const& lines) {
    std::set<std::string> reached;
    for (Line const& line : lines) {
        if (line.m_Goal != kNoGoal && line.m_Value >= line.m_Goal) {
            reached.insert(line.m_Label);
        }
    }
    int const width = widthOf(lines, &Line::m_Detail, 16);
    int const labelWidth = widthOf(lines, &Line::m_Label, 50);
    std::printf("%-*s  %8s  %-*s  %s\n", labelWidth, "times faster or smaller", "ratio", width, "quartiles", "goal");
    for (Line const& line : lines) {
        std::printf("%-*s  %8s  %-*s  %-11s  %s\n", labelWidth, line.m_Label.c_str(), numberText(line.m_Value).c_str(),
                    width, line.m_Detail.c_str(), line.m_Goal == kNoGoal ? "none" : line.m_GoalText.c_str(),
                    markOf(line, reached).c_str());
    }
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

void addTimed(std::string const& name, TimedWork work) {
    benchmark::RegisterBenchmark(name.c_str(), [work = std::move(work)](benchmark::State& state) {
        for ([[maybe_unused]] auto const& iteration : state) {
            state.SetIterationTime(work());
        }
    })->UseManualTime();
}

void compare(std::string const& label, std::string const& measured, std::string const& base,
             Comparison const& comparison) {
    g_Ratios.push_back({label, measured, base, comparison});
}

void compareScaling(std::string const& label, std::string const& large, std::string const& small, double timesAsMuch,
                    double goal) {
    Comparison comparison;
    comparison.m_Goal = goal;
    comparison.m_TimesTheWork = timesAsMuch;
    compare("scaling: " + label, large, small, comparison);
}

void addContest(std::string const& name, Work ours, std::vector<Contestant> const& others) {
    add(name + "/ours", std::move(ours));
    for (Contestant const& other : others) {
        add(name + "/" + other.m_Name, other.m_Work);
        Comparison comparison;
        comparison.m_Goal = other.m_Goal;
        compare(name + ", " + other.m_Name, name + "/ours", name + "/" + other.m_Name, comparison);
    }
}

void either(std::string const& label, std::string const& otherLabel) {
    g_Either.insert({label, otherLabel});
    g_Either.insert({otherLabel, label});
}

void addBytes(std::string const& label, std::string const& other, std::function<Sizes()> measure, SizeGoal goal) {
    g_Bytes.push_back({label, other, std::move(measure), goal});
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
    std::vector<Line> lines;
    for (Bytes const& bytes : g_Bytes) {
        if (!isExcluded(bytes.m_Label, benchmark::GetBenchmarkFilter())) {
            lines.push_back(lineOf(bytes));
        }
    }
    Collector times;
    if (!g_Ratios.empty()) {
        benchmark::RunSpecifiedBenchmarks(&times);
    }
    for (Ratio const& ratio : g_Ratios) {
        appendLine(ratio, times, lines);
    }
    print(lines);
    return lines.empty() ? 1 : 0;
}

std::size_t heapInUse() {
    struct mallinfo2 const now = ::mallinfo2();
    return now.uordblks + now.hblkhd;
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
