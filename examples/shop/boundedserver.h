#ifndef TALLOWIN_EXAMPLES_SHOP_BOUNDEDSERVER_H
#define TALLOWIN_EXAMPLES_SHOP_BOUNDEDSERVER_H

#include <httplib.h>

namespace storefront {

/// A web server that gives every request the same measure, so that no visitor can take the shop from the others: so
/// many bytes for line, headers and body together, chunked or not, so much time for all of them to come, and one
/// request for a connection. The HTTP library itself bounds neither headers nor chunked bodies, and its time limit
/// starts anew with every byte.
class BoundedServer : public httplib::Server {
public:
    BoundedServer();

private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace storefront

#endif
