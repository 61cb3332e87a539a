#ifndef TALLOWIN_EXAMPLES_SHOP_PAYMENTCLIENT_H
#define TALLOWIN_EXAMPLES_SHOP_PAYMENTCLIENT_H

#include <memory>
#include <string>
#include <vector>

#include "merchantaccount.h"
#include "orders.h"
#include "requesterror.h"

namespace storefront {

/// All that the shop asks of the library. Notes every call with its result in `calls`.
///
/// Every function works on handles of its own, so any thread may call any of them at any time. Those marked "network"
/// wait for the service, as long as it takes.
class PaymentClient {
public:
    /// Borrows `account`.
    explicit PaymentClient(MerchantAccount& account) : m_Account(account) {}

    /// Starts a payment for the order's number and amount, over which the visitor comes back to `orderUrl` followed
    /// by "/paid", "/declined" or "/cancelled", and about which the service tells the shop at "/notified". Sends
    /// nothing. Throws RequestError.
    Payment openPayment(Order const& order, std::string const& orderUrl, CallLog& calls) const;

    /// What is in a message that came back with the visitor or by itself, when the service signed it and it is the
    /// confirmation of the order's latest payment or one that it overtook, over the whole amount, with one of `results`
    /// ("authorised"). Throws RequestError with what is wrong otherwise. Whether it has come before is the caller's
    /// question. Network, when a key signed it that the service may have made meanwhile.
    Confirmation verify(Order const& order, std::vector<std::string> const& results, std::string const& data,
                        std::string const& signature, CallLog& calls) const;

    /// Takes the money. Network. False says only that the service did not confirm it; it may have done it.
    bool capture(Confirmation const& confirmation, CallLog& calls) const;

    /// Tells the service that the order has been dealt with. Network.
    bool complete(Confirmation const& confirmation, CallLog& calls) const;

    /// Asks the service how the payment stands: "authorised", "captured", "completed". Network. Empty without an
    /// answer, and when the service does not know it.
    std::string state(std::string const& token, CallLog& calls) const;

private:
    struct Reading;

    [[nodiscard]] Reading read(std::string const& data, std::string const& signature, CallLog& calls) const;

    MerchantAccount& m_Account;
};

}  // namespace storefront

#endif
