#ifndef TALLOWIN_EXAMPLES_SHOP_BOUNDEDSERVER_H
#define TALLOWIN_EXAMPLES_SHOP_BOUNDEDSERVER_H

#include <httplib.h>

namespace storefront {

/// A web server with limits for every request, so that one client cannot block the others: a maximum size for request
/// line, headers and body together, chunked or not; a timeout for the whole request; one request per connection. The
/// HTTP library limits neither headers nor chunked bodies, and its timeout restarts with every byte.
class BoundedServer : public httplib::Server {
public:
    BoundedServer();

private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace storefront

#endif
