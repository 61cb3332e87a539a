/// A shop, a shopper and the payment service, for tests of whole payments.
///
/// The shop uses the flat functions alone. The shopper is a browser that opens the payment page and decides there.
#ifndef TALLOWIN_TESTS_FLOW_FLOWSUPPORT_H
#define TALLOWIN_TESTS_FLOW_FLOWSUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service.h"
#include "tallowin/tallowin.h"
#include "tests/sandbox/support/servicerows.h"
#include "tests/support/directories.h"

namespace kvxtest {

/// A message object of the flat face, with everything copied out as strings. Movable; destroys its handle.
class FlowMessage {
public:
    explicit FlowMessage(KVX_HANDLE handle) : m_Handle(handle) {}
    FlowMessage(FlowMessage&& other) noexcept : m_Handle(other.m_Handle) { other.m_Handle = nullptr; }
    FlowMessage(FlowMessage const&) = delete;
    FlowMessage& operator=(FlowMessage const&) = delete;
    ~FlowMessage() { DestroyMessageObject(m_Handle); }

    [[nodiscard]] KVX_HANDLE handle() const { return m_Handle; }

    /// The attribute's value; empty, and the test fails, when there is none.
    [[nodiscard]] std::string get(std::string const& name) const;
    void set(std::string const& name, std::string const& value) const;
    [[nodiscard]] std::string url() const;

private:
    KVX_HANDLE m_Handle;
};

/// The data that the shopper brings back to the shop.
struct Returned {
    std::string m_Link;       ///< The address without DATA and SIGNATURE.
    std::string m_Data;       ///< Decoded.
    std::string m_Signature;  ///< As it came.
};

/// The order that all tests sell.
struct Order {
    std::string m_Id = "A-17";
    std::string m_Amount = "12.50";
    std::string m_Currency = "EUR";
};

/// A merchant: one configuration directory, used through the flat functions alone.
class Shop {
public:
    [[nodiscard]] std::string const& path() const { return m_Dir.path(); }
    [[nodiscard]] TemporaryDirectory const& dir() const { return m_Dir; }

    /// Runs the set-up against the configuration service at `url`.
    [[nodiscard]] std::int32_t setUp(std::string const& url, std::string const& user = "demo",
                                     std::string const& password = "demo") const;

    /// Sends everything through the proxy on that port from now on.
    void useProxy(std::uint16_t port) const;

    /// A payment for `order`, with links of three kinds back to the shop.
    [[nodiscard]] FlowMessage payment(Order const& order = {}) const;

    /// The result of verifying, and the verified message; `verified` fails the test when there is none.
    [[nodiscard]] std::int32_t verify(Returned const& returned) const;
    [[nodiscard]] FlowMessage verified(Returned const& returned) const;

    /// A message object that holds `text` and can be signed.
    [[nodiscard]] FlowMessage filled(std::string const& text) const;

    /// Captures the payment of the confirmation `data`.
    [[nodiscard]] std::int32_t capture(std::string const& data) const;

    [[nodiscard]] FlowMessage completion(std::string const& id, std::string const& token) const;

private:
    TemporaryDirectory m_Dir;
    KVX_HANDLE newFactory() const;
};

/// Runs the service, with its proxy, on a directory of its own.
class Sandbox {
public:
    explicit Sandbox(bool tls = false);

    [[nodiscard]] sandbox::Service& service() { return m_Service; }
    [[nodiscard]] std::string autoUrl() const { return m_Service.addresses().m_Plain.m_Url + "/auto"; }
    [[nodiscard]] std::string tlsAutoUrl() const { return m_Service.addresses().m_Tls.m_Url + "/auto"; }

    /// Opens the page at `url` and returns the request that its button for `decision` sends: pay, decline or cancel.
    [[nodiscard]] std::string decisionRequest(std::string const& url, std::string const& decision) const;

    /// Opens the page at `url` as a shopper does and takes `decision`.
    [[nodiscard]] Returned shopper(std::string const& url, std::string const& decision) const;

    /// The status of the page at `url`.
    [[nodiscard]] int statusOf(std::string const& url) const;

    /// The state of the payment with this token, in words; empty when there is none.
    [[nodiscard]] std::string stateOf(std::string const& token) const;

    /// How many requests to `path` were accepted.
    [[nodiscard]] long accepted(std::string const& path) const;

    /// The verdict of the service on its last request.
    [[nodiscard]] std::string lastVerdict() const;

private:
    static sandbox::Options options(std::string const& directory, bool tls);
    [[nodiscard]] std::string exchange(std::string const& url, std::string const& request) const;

    TemporaryDirectory m_Dir;
    sandbox::Service m_Service;
};

/// The opening of a flow test: a running service, and a shop with a directory of its own.
class FlowTest : public testing::Test {
protected:
    enum class Transport { kPlain, kTls };

    /// Starts a service and gives the test a shop that is not set up.
    void startService(Transport transport = Transport::kPlain);

    /// Starts a service and sets the shop up there. Throws std::runtime_error when that fails.
    void openShop(Transport transport = Transport::kPlain);

    [[nodiscard]] Sandbox const& sandbox() const { return *m_Sandbox; }
    [[nodiscard]] sandbox::Service& service() { return m_Sandbox->service(); }
    [[nodiscard]] Shop const& shop() const { return *m_Shop; }

    /// The address of the configuration service, over the transport of the test.
    [[nodiscard]] std::string autoUrl() const;

    /// The shopper opens the page of `payment` and decides there.
    [[nodiscard]] Returned pays(FlowMessage const& payment) const;
    [[nodiscard]] Returned declines(FlowMessage const& payment) const;
    [[nodiscard]] Returned cancels(FlowMessage const& payment) const;

    /// The state of `payment` at the service, in words; empty when it knows of none.
    [[nodiscard]] std::string stateOf(FlowMessage const& payment) const;

    /// Makes one more payment and expects its confirmation to be verified.
    void expectNextPaymentWorks() const;

    /// The next matching request to the service goes wrong as `fault` says, in the sandbox's own spelling.
    void arm(std::string const& fault) { service().services().m_Faults.arm(sandbox::parseFault(fault)); }

private:
    Transport m_Transport = Transport::kPlain;
    std::optional<Sandbox> m_Sandbox;
    std::optional<Shop> m_Shop;
};

/// Sends `message`. Expects a response on success only, and drops it.
std::int32_t execute(FlowMessage const& message);

/// Sends `message` and returns the response; fails the test when there is none.
FlowMessage responseTo(FlowMessage const& message);

/// "/path?query" of an absolute URL.
std::string targetOf(std::string const& url);

/// The request of a browser that opens `url`.
std::string getRequest(std::string const& url);

/// The data that a shopper sent to `location` brings back.
Returned takeApart(std::string const& location);

}  // namespace kvxtest

#endif
