/// The shop's side of the payment protocol.
#ifndef TALLOWIN_EXAMPLES_SHOP_PAYMENTCLIENT_H
#define TALLOWIN_EXAMPLES_SHOP_PAYMENTCLIENT_H

#include <memory>
#include <string>
#include <vector>

#include "merchantaccount.h"
#include "orders.h"
#include "requesterror.h"

namespace storefront {

/// Makes all library calls of the shop for payments. Appends each call and its result to `calls`.
///
/// Each function uses handles of its own, so any thread may call any function at any time. Functions marked "Network"
/// wait for the service without a timeout.
class PaymentClient {
public:
    /// Borrows `account`.
    explicit PaymentClient(MerchantAccount& account) : m_Account(account) {}

    /// Starts a payment of the order's number and amount. The return links are `orderUrl` with "/paid", "/declined" and
    /// "/cancelled" appended, the notification address with "/notified". Sends nothing. Throws RequestError.
    Payment openPayment(Order const& order, std::string const& orderUrl, CallLog& calls) const;

    /// Verifies a confirmation from the visitor or a notification: the service signed it, and it confirms the order's
    /// latest or a superseded payment, the whole amount, with one of `results` ("authorised"). Throws RequestError with
    /// the reason otherwise. Does not check for replays. Network, when the signing key is unknown: the service may have
    /// a new one.
    Confirmation verify(Order const& order, std::vector<std::string> const& results, std::string const& data,
                        std::string const& signature, CallLog& calls) const;

    /// Captures the payment. Network. False means that the service did not confirm; it may still have captured.
    bool capture(Confirmation const& confirmation, CallLog& calls) const;

    /// Completes the payment: reports to the service that the order is fulfilled. Network.
    bool complete(Confirmation const& confirmation, CallLog& calls) const;

    /// The payment's state at the service: "authorised", "captured", "completed" and so on. Network. Empty when the
    /// service does not answer or does not know the payment.
    std::string state(std::string const& token, CallLog& calls) const;

private:
    struct Reading;

    [[nodiscard]] Reading read(std::string const& data, std::string const& signature, CallLog& calls) const;

    MerchantAccount& m_Account;
};

}  // namespace storefront

#endif
