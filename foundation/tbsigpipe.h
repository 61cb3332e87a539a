/// The signal that writing to a pipe or socket without a reader raises. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBSIGPIPE_H
#define TALLOWIN_FOUNDATION_TBSIGPIPE_H

#include <csignal>

/// Keeps a write to a closed peer from raising SIGPIPE, for the calling thread alone: blocks the signal for its own
/// lifetime and takes away one that was raised meanwhile. Leaves `errno` alone.
class SigPipeGuard {
public:
    SigPipeGuard() noexcept;
    SigPipeGuard(SigPipeGuard const&) = delete;
    SigPipeGuard& operator=(SigPipeGuard const&) = delete;
    ~SigPipeGuard();

private:
    sigset_t m_Before;         ///< The thread's mask as found.
    bool m_WasPending = true;  ///< A signal that was pending before stays pending.
};

#endif
