#ifndef TALLOWIN_SANDBOX_HTTP_SIGNALGUARDS_H
#define TALLOWIN_SANDBOX_HTTP_SIGNALGUARDS_H

#include <pthread.h>

#include <csignal>

namespace sandbox {

/// Threads that are started while this lives begin with every signal blocked: signals belong to the program, and a peer
/// that goes away under TLS must not raise SIGPIPE.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t m_Before{};
};

/// The HTTP library ignores SIGPIPE for the whole process as soon as a server is made; the process decides that itself.
class SigpipeDispositionKept {
public:
    SigpipeDispositionKept() { ::sigaction(SIGPIPE, nullptr, &m_Before); }
    ~SigpipeDispositionKept() { ::sigaction(SIGPIPE, &m_Before, nullptr); }
    SigpipeDispositionKept(SigpipeDispositionKept const&) = delete;
    SigpipeDispositionKept& operator=(SigpipeDispositionKept const&) = delete;

private:
    struct sigaction m_Before {};
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_SIGNALGUARDS_H
