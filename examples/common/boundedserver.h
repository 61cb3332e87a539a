/// A web server that limits each request in size and time, so that clients cannot use up its threads or its memory.
#ifndef TALLOWIN_EXAMPLES_COMMON_BOUNDEDSERVER_H
#define TALLOWIN_EXAMPLES_COMMON_BOUNDEDSERVER_H

#include <httplib.h>

#include <chrono>
#include <future>
#include <string>

namespace examples {

/// On 127.0.0.1. Allows 5 seconds and 32 KB for one request, 5 seconds for each pause while a response is sent, and one
/// request for each connection. Add the handlers before start().
class BoundedServer : public httplib::Server {
public:
    BoundedServer();

    /// Stops and waits for the open requests, without a timeout. Destroy what handlers use afterwards.
    ~BoundedServer() override;

    /// Takes the port; 0 takes a free one. Returns the server's address without a path. Throws std::runtime_error when
    /// the port is in use.
    std::string bind(int port);

    /// Serves. Requires: bind() has succeeded.
    void start();

    /// Stops. Returns false when requests are still open after `timeout`.
    [[nodiscard]] bool close(std::chrono::seconds timeout);

private:
    bool process_and_close_socket(socket_t socket) override;

    std::string m_Address;
    std::future<void> m_Serving;  ///< Ready when the server has stopped.
};

}  // namespace examples

#endif
