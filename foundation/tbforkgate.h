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

    /// Right also for a thread that is cancelled while it has the gate open.
    ~TbForkGate() { open(); }

    /// Lets forks through while the calling thread waits for the network, and stops them again. An open gate may be
    /// opened, a closed one closed.
    void open() noexcept;
    void close() noexcept;

private:
    bool m_IsClosed = false;
};

#endif
