#ifndef TALLOWIN_SANDBOX_HTTP_LOCALSOCKET_H
#define TALLOWIN_SANDBOX_HTTP_LOCALSOCKET_H

#include "sandbox/http/endsignal.h"
#include "sandbox/http/hostport.h"

namespace sandbox {

/// A connection to another program on this machine.
class LocalSocket {
public:
    /// Connects. Throws HttpError: 403 when the host is not this machine, 502 when nothing listens there, 504 when it
    /// has not come about by `deadline`, 503 when `ending` was raised before.
    LocalSocket(HostPort const& hostPort, EndSignal::Clock::time_point deadline, EndSignal const& ending);
    ~LocalSocket();
    LocalSocket(LocalSocket const&) = delete;
    LocalSocket& operator=(LocalSocket const&) = delete;

    [[nodiscard]] int get() const { return m_Socket; }

private:
    int m_Socket;  ///< Owned.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_LOCALSOCKET_H
