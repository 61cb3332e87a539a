/// What the tests of all layers share.
#ifndef TALLOWIN_TESTS_SUPPORT_TEST_SUPPORT_H
#define TALLOWIN_TESTS_SUPPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/kvxbase.h"
#include "foundation/tbexception.h"
#include "foundation/tbstring.h"

namespace kvxtest {

/// The result code that `call` throws as KVX_Exception or TBFC_Exception; 0 when it throws neither.
std::int32_t thrownCode(std::function<void()> const& call);

/// What a KVX_Exception said. All zero and empty when none was thrown.
struct Thrown {
    std::int32_t m_Code = 0;
    std::string m_Text;
    std::string m_File;
    std::int32_t m_Line = 0;
};
Thrown thrown(std::function<void()> const& call);

/// The bytes of `text`, embedded zero bytes included, and back.
std::string bytesOf(TbString const& text);
TbString stringOf(std::string const& bytes);

/// Fails allocation number `failing` (from 0) and all later ones, or only that one, while it lives.
class FailingAllocation {
public:
    enum class Mode { kOnlyThat, kAllFromThere };
    FailingAllocation(long failing, Mode mode);
    FailingAllocation(FailingAllocation const&) = delete;
    FailingAllocation& operator=(FailingAllocation const&) = delete;
    ~FailingAllocation();

    /// Allocations asked for since construction.
    static long asked();
};

/// Runs `call` again and again, failing its first, second, third ... allocation, until it succeeds without a failure.
/// Every run must end in KVX_E_OUT_OF_MEMORY as TBFC_Exception, or succeed, and must leave no object behind.
/// Returns how many runs it took.
long survivesEveryFailingAllocation(std::function<void()> const& call);

/// A directory of its own for one test, removed with all its content at the end.
class TempDir {
public:
    TempDir();
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;
    ~TempDir();

    [[nodiscard]] std::string const& path() const { return m_Path; }
    [[nodiscard]] std::string file(std::string const& name) const { return m_Path + "/" + name; }

    /// Writes a file, creating directories on its way.
    void write(std::string const& name, std::string const& content) const;

    /// The content of a file; fails the test when it cannot be read.
    [[nodiscard]] std::string read(std::string const& name) const;

    [[nodiscard]] bool exists(std::string const& name) const;

private:
    std::string m_Path;
};

/// Collects the trace records written while it lives.
class TraceRecorder {
public:
    struct Record {
        std::string m_File;
        long m_Line;
        std::int32_t m_Code;
        std::string m_Event;
        std::string m_Detail;
    };
    TraceRecorder();
    TraceRecorder(TraceRecorder const&) = delete;
    TraceRecorder& operator=(TraceRecorder const&) = delete;
    ~TraceRecorder();

    [[nodiscard]] std::vector<Record> const& records() const;

    /// The records with that heading.
    [[nodiscard]] std::vector<Record> of(std::string const& event) const;
};

/// Runs `call` on a thread of its own with a stack of `stackBytes`.
void onStackOf(std::size_t stackBytes, std::function<void()> const& call);

/// How many descriptors this process has open.
std::size_t countDescriptors();

/// Runs `call` in a process of its own and returns its exit status, or 128 plus the signal that ended it.
/// What `call` returns is the exit status; an exception that leaves it is status 99.
int inChildProcess(std::function<int()> const& call);

/// The seed of this run's random tests: KVX_TEST_SEED when set, else a fixed one; printed with failures by the caller.
std::uint64_t testSeed();

}  // namespace kvxtest

#endif
