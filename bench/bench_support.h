/// What the benchmark programs share: registering work in pairs, running it interleaved, printing ratios.
///
/// A program registers its work, then calls `run`. All its benchmarks run in one go, their repetitions in random order,
/// so that whatever else the machine does falls on all of them alike. Printed are ratios of medians, never times.
#ifndef TALLOWIN_BENCH_BENCH_SUPPORT_H
#define TALLOWIN_BENCH_BENCH_SUPPORT_H

#include <cstddef>
#include <functional>
#include <string>

namespace kvxbench {

/// One iteration. Whatever it computes it hands to `benchmark::DoNotOptimize`.
using Work = std::function<void()>;

/// What an iteration costs: this thread's time on a processor, which other programs disturb little, or the time that
/// passes.
enum class Clock { kProcessor, kWall };

/// Registers a benchmark. Names are unique in a program.
void add(std::string const& name, Work work);

/// A row of the table: the median of `measured` over the median of `base`, both registered names.
void compare(std::string const& label, std::string const& measured, std::string const& base,
             Clock clock = Clock::kProcessor);

/// A row on growth: the same, divided by how many times as much `measured` handles. 1 is linear growth.
void compareGrowth(std::string const& label, std::string const& measured, std::string const& base, double timesAsMuch);

/// Registers "`name`/ours" and "`name`/`other`" and their row.
void addPair(std::string const& name, Work ours, std::string const& other, Work theirs);

/// A row with two numbers of bytes and their ratio.
void addBytes(std::string const& label, double ours, std::string const& other, double theirs);

/// Runs everything and prints the table. Takes the options of the benchmark library; repetitions, interleaving and the
/// time of a repetition are set to defaults first. Rows that a filter leaves incomplete are left out. Returns the
/// program's exit status: 1 when there is no row.
int run(int argc, char** argv);

/// Bytes of the heap in use. Includes what the allocator adds to each block.
std::size_t heapInUse();

/// Throws std::runtime_error with `what` unless `condition`: both sides of a pair must do the same work.
void require(bool condition, char const* what);

/// A `main`: registers with `setUp`, then runs. What is thrown is printed and ends the program with status 1.
int benchMain(int argc, char** argv, void (*setUp)());

}  // namespace kvxbench

#endif
