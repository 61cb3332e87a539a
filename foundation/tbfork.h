/// What the library does around a fork() of the process. Internal: not installed.
#ifndef TALLOWIN_FOUNDATION_TBFORK_H
#define TALLOWIN_FOUNDATION_TBFORK_H

#include <pthread.h>

#include <atomic>

/// Runs three functions around every fork() of the process: before it, after it in the parent, after it in the child.
///
/// Registered with the C library on first use, because nothing of the library runs when it is loaded. A child of a fork
/// in the middle of a registration registers again only when its parent had not come so far.
template <void (*Before)(), void (*InParent)(), void (*InChild)()>
class TbForkHandlers {
public:
    /// Registers on the first call. When the C library has no memory for that, forks run without the functions.
    /// Any thread.
    static void ensure() noexcept { ::pthread_once(&s_Once, &registerAll); }

private:
    static void registerAll() {
        if (!s_IsRegistered) {
            s_IsRegistered = ::pthread_atfork(Before, InParent, &afterForkInChild) == 0;
        }
    }

    static void afterForkInChild() {
        s_IsRegistered = true;
        InChild();
    }

    static inline pthread_once_t s_Once = PTHREAD_ONCE_INIT;
    static inline std::atomic<bool> s_IsRegistered{false};
};

#endif
