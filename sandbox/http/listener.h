#ifndef TALLOWIN_SANDBOX_HTTP_LISTENER_H
#define TALLOWIN_SANDBOX_HTTP_LISTENER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "sandbox/crypto/filedescriptor.h"
#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/connection.h"
#include "sandbox/http/endsignal.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/threadpool.h"
#include "sandbox/http/tlsidentity.h"

namespace sandbox {

/// One port of 127.0.0.1, or of another address, plain or under TLS, and the connections to it. One thread waits for
/// all clients that have sent nothing yet; each of the others is served by a thread of its own. Every connection
/// carries one exchange and is closed after it.
///
/// Unlike the sockets of the HTTP library it can refuse connections for a while without letting go of its port.
class Listener {
public:
    using Clock = EndSignal::Clock;

    /// Serves a connection whose handshake is done. Called by several threads at once. Exceptions are printed to
    /// standard error and end the connection.
    using Serve = std::function<void(Connection& connection)>;

    /// Takes the port (0 picks one) of `address`; connections wait until start(). `tls` is null for a plain port,
    /// `faults` for one whose connections never fail; both are borrowed. A request that is not complete after
    /// `timeout` is dropped. Throws std::runtime_error.
    Listener(std::uint16_t port, TlsIdentity const* tls, FaultRegistry* faults, std::chrono::milliseconds timeout,
             ListenAddress const& address);

    /// Stops.
    ~Listener();
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    [[nodiscard]] ServedAddress address() const;

    /// Serves connections with `serve` until stop(). The fault of a connection is taken as soon as it is accepted. One
    /// whose client sends nothing for `silence`, or for the timeout of a request, is shut down for reading and then
    /// served. Throws std::runtime_error.
    void start(Serve serve, Clock::duration silence = Connection::kIoTimeout);

    /// Refuses connections from now on until `moment`. A moment in the past accepts again. Open connections stay open.
    void refuseUntil(Clock::time_point moment);

    /// Accepts no more connections, ends waits of threads that serve one, and shuts open connections down for reading.
    void beginStop();

    /// As beginStop(), then waits. Connections still open five seconds after the first of these calls are closed.
    void stop();

private:
    /// A connection that is not served yet.
    struct Client {
        int m_Socket;
        std::optional<Fault> m_Fault;
        Clock::time_point m_Accepted;
    };

    void run();
    void listen();
    void shutDownAll(int direction);
    bool awaitEvent(bool& connecting, bool& sending);
    void acceptOne();
    bool watch(int socket, std::uint64_t number);
    void serveSpeaking();
    void serveSilent();
    void serve(Client client);
    void serveOne(Client const& client);
    void closeSocket(int socket);
    void wake() const;

    FileDescriptor m_Socket;
    FileDescriptor m_Wake;   ///< An event that ends the wait of the thread.
    FileDescriptor m_Watch;  ///< An epoll instance for the sockets in m_Waiting.
    ServedAddress m_Address;
    TlsIdentity const* m_Tls;  ///< Borrowed; null for a plain port.
    FaultRegistry* m_Faults;   ///< Borrowed; null without faults.
    std::chrono::milliseconds m_RequestTimeout;
    EndSignal m_Ending;
    Serve m_Serve;
    Clock::duration m_Silence{};
    std::thread m_Thread;
    std::map<std::uint64_t, Client> m_Waiting;  ///< Whose clients were silent so far, oldest first. Used by m_Thread.
    std::uint64_t m_Accepted = 0;               ///< How many connections. Used by m_Thread, as is the next one.
    Clock::time_point m_PausesUntil{};          ///< Accepts none before that: the system had no room.
    std::mutex m_Mutex;                         ///< Guards the rest but for m_Servers.
    std::condition_variable m_Ended;            ///< A connection has ended.
    Clock::time_point m_RefusesUntil{};
    bool m_IsListening = false;
    bool m_Stopping = false;
    Clock::time_point m_CutAt{};  ///< Once it is stopping.
    std::set<int> m_Open;         ///< The sockets of all connections, waiting or served.
    ThreadPool m_Servers;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_LISTENER_H
