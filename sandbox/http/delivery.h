#ifndef TALLOWIN_SANDBOX_HTTP_DELIVERY_H
#define TALLOWIN_SANDBOX_HTTP_DELIVERY_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sandbox/faults/fault.h"
#include "sandbox/store/rows.h"
#include "sandbox/store/store.h"

/// Sending a response, and storing its exchange.
namespace sandbox {

class Connection;

/// Sends `response`, head and body, the way `fault` wants it. Faults that change what a response says are ignored
/// here. Waits end early when the client goes or the service stops. A response without a fault may travel with the end
/// of the connection, which is to come at once.
void deliver(Connection& connection, std::string const& response, std::optional<Fault> const& fault);

/// Adds an exchange to the store when its response is ready, and what was sent of it when a fault applied.
class ExchangeLog {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Borrows `store`. `request` has begun, and ends with the exchange. `begin` is when the request was complete.
    ExchangeLog(Store& store, std::unique_ptr<Store::Request> request, Exchange exchange, TimePoint begin);

    /// Called with all bytes of the response before it is sent.
    void responseReady(std::string const& response);

    /// Called after the response was sent, or part of it: that many bytes, before a reset or the end.
    void responseSent(std::size_t bytes, bool isReset);

private:
    Store& m_Store;  ///< Borrowed.
    std::unique_ptr<Store::Request> m_Request;
    Exchange m_Exchange;
    TimePoint m_Begin;
};

/// For the duration of an exchange.
std::int64_t microsecondsSince(std::chrono::steady_clock::time_point begin);

/// How much of a response was sent, in words.
std::string deliveryText(std::size_t bytes, bool isReset, std::int64_t microseconds);

/// `text` cut to what is stored of a request or a response.
std::string keptText(std::string const& text);

/// A request as it is stored: the credentials of its header covered.
std::string keptRequest(std::string const& raw);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_HTTP_DELIVERY_H
