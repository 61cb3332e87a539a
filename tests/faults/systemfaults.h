/// Failing system calls of the library, one entry of the table at a time.
#ifndef TALLOWIN_TESTS_FAULTS_SYSTEMFAULTS_H
#define TALLOWIN_TESTS_FAULTS_SYSTEMFAULTS_H

#include <string>
#include <vector>

#include "tests/support/systemcalls.h"

namespace kvxtest {

/// How a system call fails.
enum class FaultKind {
    kOnce,    ///< One call fails.
    kAlways,  ///< That call and all later ones fail.
    kShort,   ///< Every transfer moves one byte.
    kEnd,     ///< One transfer moves nothing: the end of a file or connection, a full device.
    kStorm,   ///< A signal interrupts each call three times.
};

/// A way in which one entry can fail.
struct SystemFault {
    char const* m_Call;  ///< The entry's name.
    char const* m_Name;  ///< For the tables, such as "ENOENT".
    FaultKind m_Kind;
    int m_Error;
};

/// All of them, in the order of the system's table.
std::vector<SystemFault> const& systemFaults();

/// Counts the library's system calls while it lives, and fails one of them, over what the table holds.
class FailingSystem {
public:
    /// Fails nothing.
    FailingSystem();

    /// Fails call number `number` (from 0) of the fault's entry.
    FailingSystem(SystemFault const& fault, long number);

    FailingSystem(FailingSystem const&) = delete;
    FailingSystem& operator=(FailingSystem const&) = delete;
    ~FailingSystem() = default;

    /// Whether the library has made that call.
    static bool hasFailed();

    /// How often the library has made the call `name`.
    static long countOf(std::string const& name);

private:
    SystemCalls m_Calls;
};

}  // namespace kvxtest

#endif
