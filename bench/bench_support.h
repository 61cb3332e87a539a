/// Shared by the benchmark programs: registering work in pairs, running it interleaved, printing ratios.
///
/// A program registers its work, then calls `run`. The repetitions of all benchmarks run in random order, so that other
/// load on the machine affects all of them alike. The table shows ratios of medians, never times.
#ifndef TALLOWIN_BENCH_BENCH_SUPPORT_H
#define TALLOWIN_BENCH_BENCH_SUPPORT_H

#include <cstddef>
#include <functional>
#include <string>

namespace kvxbench {

/// One iteration. Passes its result to `benchmark::DoNotOptimize`.
using Work = std::function<void()>;

/// How to measure an iteration: by the thread's processor time, which other programs affect little, or by wall time.
enum class Clock { kProcessor, kWall };

/// Registers a benchmark. `name` is unique in the program.
void add(std::string const& name, Work work);

/// Adds a row: the median of `measured` divided by the median of `base`, both registered names.
void compare(std::string const& label, std::string const& measured, std::string const& base,
             Clock clock = Clock::kProcessor);

/// Adds a growth row: the same ratio, divided by `timesAsMuch`, the ratio of the two sizes. 1 is linear growth.
void compareGrowth(std::string const& label, std::string const& measured, std::string const& base, double timesAsMuch);

/// Registers "`name`/ours" and "`name`/`other`" and adds the row that compares them.
void addPair(std::string const& name, Work ours, std::string const& other, Work theirs);

/// Adds a row with two numbers of bytes and their ratio.
void addBytes(std::string const& label, double ours, std::string const& other, double theirs);

/// Runs all benchmarks and prints the table. Accepts the options of the benchmark library, after defaults for
/// repetitions, interleaving and time per repetition. Omits rows whose benchmarks a filter excluded. Returns the exit
/// status: 1 when there is no row.
int run(int argc, char** argv);

/// Bytes of the heap in use, including the allocator's overhead per block.
std::size_t heapInUse();

/// Throws std::runtime_error with `message` unless `condition`. For checks that both sides do the same work.
void require(bool condition, char const* message);

/// The body of `main`: calls `setUp`, then `run`. Prints an exception and returns 1.
int benchMain(int argc, char** argv, void (*setUp)());

}  // namespace kvxbench

#endif
