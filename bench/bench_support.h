/// Shared by the benchmark programs: registering contestants, running them interleaved, printing ratios and goals.
///
/// A program registers its work, then calls `run`. The repetitions of all benchmarks run in random order, so that other
/// load on the machine affects all of them alike. The table shows ratios of medians, never times. In every row larger
/// is better.
#ifndef TALLOWIN_BENCH_BENCH_SUPPORT_H
#define TALLOWIN_BENCH_BENCH_SUPPORT_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "bench/require.h"

namespace kvxbench {

/// One iteration. Passes its result to `benchmark::DoNotOptimize`.
using Work = std::function<void()>;

/// One iteration that measures itself. Returns seconds.
using TimedWork = std::function<double()>;

/// How to measure an iteration: by the thread's processor time, which other programs affect little, or by wall time.
/// Work that measures itself counts as wall time.
enum class Clock { kProcessor, kWall };

/// The goal of a row that has none.
constexpr double kNoGoal = 0;

/// How to compare two benchmarks.
struct Comparison {
    double m_Goal = kNoGoal;            ///< The least wanted result.
    Clock m_Clock = Clock::kProcessor;  ///< What counts as time.
    double m_TimesTheWork = 1;          ///< How many times the work of the base the measured one does.
};

/// Another way to do the same work.
struct Contestant {
    std::string m_Name;
    Work m_Work;
    double m_Goal = kNoGoal;  ///< How many times faster the library must be; below 1 it may be slower.
};

/// Registers a benchmark. `name` is unique in the program.
void add(std::string const& name, Work work);

/// Registers a benchmark that measures itself.
void addTimed(std::string const& name, TimedWork work);

/// Adds a row: how many times faster `measured` is than `base`, both registered names.
void compare(std::string const& label, std::string const& measured, std::string const& base,
             Comparison const& comparison = {});

/// The goal of a scaling row, with room for memory that is touched for the first time. Time proportional to the square
/// of the size gives 0.1 for 10 times the size.
constexpr double kLinear = 0.2;

/// Adds the row "scaling: `label`": the speed of `large`, per byte or entry, divided by that of `small`. 1 is linear.
/// `timesAsMuch` is the ratio of the two sizes.
void compareScaling(std::string const& label, std::string const& large, std::string const& small, double timesAsMuch,
                    double goal = kLinear);

/// Registers "`name`/ours" and for each of `others` "`name`/its name", and adds the rows that compare with them:
/// "`name`, its name".
void addContest(std::string const& name, Work ours, std::vector<Contestant> const& others);

/// Two rows with one goal: neither falls short when the other one reaches its own.
void either(std::string const& label, std::string const& otherLabel);

/// Bytes of the library, and of a contestant or 0.
struct Sizes {
    double m_Ours;
    double m_Theirs;
};

/// The goal of a row of bytes.
struct SizeGoal {
    double m_AtMost = kNoGoal;        ///< Bytes.
    double m_TimesSmaller = kNoGoal;  ///< Than the contestant.
};

/// Adds a row that shows how many times smaller the library is than contestant `other`, or than the goal where `other`
/// is empty. `measure` is called once, before the benchmarks, and not at all when a filter excludes `label`.
void addBytes(std::string const& label, std::string const& other, std::function<Sizes()> measure, SizeGoal goal);

/// Runs all benchmarks and prints the table. Accepts the options of the benchmark library, after defaults for
/// repetitions, interleaving and time per repetition. Omits rows that a filter excluded. Returns the exit status: 1
/// when there is no row; a row that falls short of its goal is no failure.
int run(int argc, char** argv);

/// Bytes of the heap in use, including the allocator's overhead per block.
std::size_t heapInUse();

/// The body of `main`: calls `setUp`, then `run`. Prints an exception and returns 1.
int benchMain(int argc, char** argv, void (*setUp)());

}  // namespace kvxbench

#endif
