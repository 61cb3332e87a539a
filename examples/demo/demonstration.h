#ifndef TALLOWIN_EXAMPLES_DEMO_DEMONSTRATION_H
#define TALLOWIN_EXAMPLES_DEMO_DEMONSTRATION_H

#include <string>

#include "../common/libraryhandle.h"
#include "report.h"
#include "shop.h"
#include "shopper.h"

namespace demo {

/// What the shop knows of one purchase.
struct Order {
    std::string m_Number;
    std::string m_Amount;
    std::string m_Currency;
    std::string m_Token;       ///< Of its payment; ties the confirmation to this order.
    std::string m_Url;         ///< The payment URL.
    bool m_Delivered = false;  ///< Goods have left the house, never to do so again for this order.
};

/// Where everything happens.
struct Settings {
    std::string m_Service;    ///< Address of the payment service's set-up.
    std::string m_Directory;  ///< The merchant's configuration directory; its parent exists.
};

/// A merchant and its shoppers, from the first set-up to the last refused attempt. Every method is a section and relies
/// on those before it; each throws UnexpectedResult when a step ends otherwise than it should.
class Demonstration {
public:
    Demonstration(Settings settings, Report& report) : m_Settings(std::move(settings)), m_Report(report) {}

    /// Runs all sections.
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
    Answer openPaymentPage(Order const& order);
    Visit decide(Order const& order, Answer const& page, std::string const& decision, std::string const& backAt);
    void showConfirmation(Visit const& visit) const;

    /// A message object that holds the text of `confirmation` and can be captured.
    void fillForCapture(examples::MessageHandle& message, Visit const& confirmation);

    /// Asks the service for the state of the order's payment.
    void expectState(Order const& order, std::string const& expected);

    /// What speaks against delivering `order` on this verified message; "accepted" when nothing does.
    [[nodiscard]] static std::string checkConfirmation(examples::MessageHandle const& message, Order const& order);

    /// The signature of `data` must not verify.
    void expectVerifyFailure(std::string const& attempt, std::string const& data, std::string const& signature,
                             std::int32_t expected);

    /// The signature of `data` verifies, and the shop must refuse it all the same.
    void expectShopRefusal(std::string const& attempt, Visit const& visit, Order const& order,
                           std::string const& objection);

    Settings m_Settings;
    Report& m_Report;
    Shop m_Shop;
    examples::FactoryHandle m_Factory{CreateMessageFactory()};
    Order m_Book{"1001", "19.90", "EUR", "", ""};
    Order m_Lamp{"1002", "249.00", "EUR", "", ""};
    Visit m_BookPaid;
    Visit m_LampCancelled;
};

}  // namespace demo

#endif
