/// Lets tests stand in for the operating system.
#ifndef TALLOWIN_TESTS_SUPPORT_SYSTEM_CALLS_H
#define TALLOWIN_TESTS_SUPPORT_SYSTEM_CALLS_H

#include "foundation/tbsystem.h"

namespace kvxtest {

/// Lets a test replace entries of the table of system calls and puts all of them back at the end.
class SystemCalls {
public:
    SystemCalls() : m_Before(tbSystem()) {}
    SystemCalls(SystemCalls const&) = delete;
    SystemCalls& operator=(SystemCalls const&) = delete;
    ~SystemCalls() { tbSystem() = m_Before; }

    TbSystemCalls* operator->() { return &tbSystem(); }

private:
    TbSystemCalls m_Before;
};

}  // namespace kvxtest

#endif
