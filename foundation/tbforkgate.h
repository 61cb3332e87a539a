/// Keeping forks out of short operations. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBFORKGATE_H
#define TALLOWIN_FOUNDATION_TBFORKGATE_H

/// While one exists, fork() waits.
///
/// OpenSSL and the C library have locks that a child of fork() finds held for ever when another thread of its parent
/// held them. Calls that may take such a lock stand in the scope of a gate. Never across a call that waits for the
/// network or another process. A thread has one at a time. Any number of threads may have theirs at once; a waiting
/// fork() keeps further ones waiting. Changes neither `errno` nor signals.
class TbForkGate {
public:
    TbForkGate() noexcept { close(); }
    TbForkGate(TbForkGate const&) = delete;
    TbForkGate& operator=(TbForkGate const&) = delete;
    ~TbForkGate() { open(); }

    /// Lets forks through while the calling thread waits for the network, and stops them again.
    static void open() noexcept;
    static void close() noexcept;
};

#endif
