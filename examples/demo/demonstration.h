/// The steps of the demonstration.
#ifndef TALLOWIN_EXAMPLES_DEMO_DEMONSTRATION_H
#define TALLOWIN_EXAMPLES_DEMO_DEMONSTRATION_H

#include <cstdint>
#include <string>
#include <utility>

#include "../common/libraryhandle.h"
#include "paymentpage.h"
#include "report.h"
#include "shopserver.h"

namespace demo {

/// An order of the shop.
struct Order {
    std::string m_Number;
    std::string m_Amount;
    std::string m_Currency;
    std::string m_Token;       ///< The payment's token, which also stands in its confirmation.
    std::string m_Url;         ///< The payment URL.
    bool m_Delivered = false;  ///< The goods were sent; no confirmation may send them again.
};

/// The command-line arguments.
struct Settings {
    std::string m_Service;    ///< Set-up address of the payment service.
    std::string m_Directory;  ///< The merchant's configuration directory; its parent exists.
};

/// A merchant and two shoppers, from set-up to refused forgeries.
///
/// Each section method relies on the sections before it. Each throws UnexpectedResult when a step has another result
/// than expected. One thread.
class Demonstration {
public:
    /// Borrows `report`.
    Demonstration(Settings settings, Report& report) : m_Settings(std::move(settings)), m_Report(report) {}

    /// Runs all sections in order.
    void run();

private:
    void setUp();
    void makePaymentUrl();
    void payAsShopper();
    void verifyConfirmation();
    void capture();
    void complete();
    void cancelAsShopper();
    void tryForgeries();
    void tryMisuse();

    void showDirectory() const;
    void openPayment(Order& order);
    Response openPaymentPage(Order const& order);

    /// Submits the payment page with `decision` and follows the redirect to the shop, which must lead to `returnPath`.
    /// Returns the request that the shop received.
    ReturnRequest decide(Order const& order, Response const& page, std::string const& decision,
                         std::string const& returnPath);
    void showConfirmation(ReturnRequest const& request) const;

    /// Opens `message` on the directory and fills it with the text of `confirmation`.
    void fillForCapture(examples::MessageHandle& message, ReturnRequest const& confirmation);

    /// Asks the service for the state of the order's payment.
    void expectState(Order const& order, std::string const& expected);

    /// Why a verified message does not pay `order`; "accepted" when it does.
    [[nodiscard]] static std::string checkConfirmation(examples::MessageHandle const& message, Order const& order);

    /// VerifyPayConfirm must fail with `expected`. `forgery` names the attempt in the report.
    void expectVerifyFailure(std::string const& forgery, std::string const& data, std::string const& signature,
                             std::int32_t expected);

    /// VerifyPayConfirm must succeed and checkConfirmation() must return `reason`.
    void expectShopRefusal(std::string const& action, ReturnRequest const& request, Order const& order,
                           std::string const& reason);

    Settings m_Settings;
    Report& m_Report;
    ShopServer m_Shop;
    examples::FactoryHandle m_Factory{CreateMessageFactory()};
    Order m_Book{"1001", "19.90", "EUR", "", ""};   ///< The first shopper's.
    Order m_Lamp{"1002", "249.00", "EUR", "", ""};  ///< The second shopper's.
    ReturnRequest m_BookPaid;                       ///< The confirmation of m_Book's payment.
    ReturnRequest m_LampCancelled;                  ///< The confirmation of m_Lamp's payment, which was cancelled.
};

}  // namespace demo

#endif
