/// Flushes of files to disk by this process, in place of the C library's fdatasync().
#ifndef TALLOWIN_TESTS_LEDGER_FLUSHES_H
#define TALLOWIN_TESTS_LEDGER_FLUSHES_H

namespace kvxtest {

/// Calls of fdatasync() so far.
long flushCalls();

/// Makes each fdatasync() of this process fail with EIO while it lives.
class FailingFlushes {
public:
    FailingFlushes();
    FailingFlushes(FailingFlushes const&) = delete;
    FailingFlushes& operator=(FailingFlushes const&) = delete;
    ~FailingFlushes();
};

}  // namespace kvxtest

#endif
