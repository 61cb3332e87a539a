#include <cstddef>
#include <stdexcept>

#include "demonstration.h"

/// The sections about what must not get through.
namespace demo {

using examples::MessageHandle;

namespace {

/// `text` with the one occurrence of `from` replaced. Throws std::logic_error when it is not there: the attempt would
/// change nothing, and its refusal would prove nothing.
std::string altered(std::string text, std::string const& from, std::string const& to) {
    std::size_t const at = text.find(from);
    if (at == std::string::npos) {
        throw std::logic_error("nothing to alter: " + from);
    }
    return text.replace(at, from.size(), to);
}

}  // namespace

void Demonstration::tryForgeries() {
    m_Report.section("Forgeries do not get through");
    m_Report.paragraph(
        "The second shopper wants the lamp without paying and edits the address in her browser: \"cancelled\" "
        "becomes \"authorised\". Others try other things.");
    expectVerifyFailure("RESULT rewritten",
                        altered(m_LampCancelled.m_Data, "RESULT=\"cancelled\"", "RESULT=\"authorised\""),
                        m_LampCancelled.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("AMOUNT rewritten", altered(m_BookPaid.m_Data, "AMOUNT=\"" + m_Book.m_Amount, "AMOUNT=\"1.00"),
                        m_BookPaid.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("one space added", m_BookPaid.m_Data + " ", m_BookPaid.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("another's signature", m_BookPaid.m_Data, m_LampCancelled.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("signature of nonsense", m_BookPaid.m_Data, "not a signature", KVX_E_INVALID_KEY);
    expectVerifyFailure("no signature", m_BookPaid.m_Data, "", KVX_E_MISSING_SIGNATURE);
    expectVerifyFailure("no message", "<html>paid</html>", m_BookPaid.m_Signature, KVX_E_INVALID_FORMAT);
    m_Report.paragraph(
        "A cheaper lamp is tried on the way to the service as well: AMOUNT changed inside the payment URL.");
    std::string const cheaper = altered(m_Lamp.m_Url, "249%2e00", "2%2e00");
    m_Report.step("browser: GET altered payment URL", std::to_string(fetch(cheaper).m_Status), "400",
                  "the service refuses as well");
}

void Demonstration::tryMisuse() {
    m_Report.section("Genuine messages, presented for something else");
    m_Report.paragraph(
        "These three are signed by keys of our directory, so VerifyPayConfirm lets them pass. What they are "
        "about is for the shop to check, and it does:");
    expectShopRefusal("shop: the book's confirmation, for the lamp", m_BookPaid, m_Lamp,
                      "refused: TOKEN of another order");
    expectShopRefusal("shop: the book's confirmation, once more", m_BookPaid, m_Book, "refused: delivered already");
    Visit const ownPayment{"", percentDecoded(queryValue(m_Lamp.m_Url, "DATA")), queryValue(m_Lamp.m_Url, "SIGNATURE")};
    expectShopRefusal("shop: our own payment message sent back", ownPayment, m_Lamp, "refused: MSGTYPE is PayInit");
}

void Demonstration::expectVerifyFailure(std::string const& attempt, std::string const& data,
                                        std::string const& signature, std::int32_t expected) {
    MessageHandle never;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), data.c_str(), signature.c_str(), never.out()),
                  expected, attempt + ": refused");
}

void Demonstration::expectShopRefusal(std::string const& attempt, Visit const& visit, Order const& order,
                                      std::string const& objection) {
    MessageHandle message;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), visit.m_Data.c_str(), visit.m_Signature.c_str(),
                                                  message.out()),
                  KVX_OK, "the signature is genuine");
    m_Report.step(attempt, checkConfirmation(message, order), objection, "no goods for that");
}

}  // namespace demo
