#include <cstddef>
#include <stdexcept>

#include "demonstration.h"

/// The sections on messages that library, service or shop must refuse.
namespace demo {

using examples::MessageHandle;

namespace {

/// `text` with the first `from` replaced by `to`. Throws std::logic_error when `from` is missing: an unchanged message
/// would prove nothing.
std::string altered(std::string text, std::string const& from, std::string const& to) {
    std::size_t const at = text.find(from);
    if (at == std::string::npos) {
        throw std::logic_error("nothing to alter: " + from);
    }
    return text.replace(at, from.size(), to);
}

}  // namespace

void Demonstration::tryForgeries() {
    m_Report.section("Library and service refuse forgeries");
    m_Report.paragraph(
        "The second shopper wants the lamp without paying and edits the URL in her browser: \"cancelled\" becomes "
        "\"authorised\". More forgeries follow.");
    expectVerifyFailure("RESULT rewritten",
                        altered(m_LampCancelled.m_Data, "RESULT=\"cancelled\"", "RESULT=\"authorised\""),
                        m_LampCancelled.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("AMOUNT rewritten", altered(m_BookPaid.m_Data, "AMOUNT=\"" + m_Book.m_Amount, "AMOUNT=\"1.00"),
                        m_BookPaid.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("one space added", m_BookPaid.m_Data + " ", m_BookPaid.m_Signature, KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("signature of another message", m_BookPaid.m_Data, m_LampCancelled.m_Signature,
                        KVX_E_INVALID_SIGNATURE);
    expectVerifyFailure("not a signature", m_BookPaid.m_Data, "not a signature", KVX_E_INVALID_KEY);
    expectVerifyFailure("no signature", m_BookPaid.m_Data, "", KVX_E_MISSING_SIGNATURE);
    expectVerifyFailure("not a message", "<html>paid</html>", m_BookPaid.m_Signature, KVX_E_INVALID_FORMAT);
    m_Report.paragraph("The shopper can also edit the payment URL. Here AMOUNT is changed to get a cheaper lamp.");
    std::string const cheaper = altered(m_Lamp.m_Url, "249%2e00", "2%2e00");
    m_Report.step("browser: GET altered payment URL", std::to_string(fetch(cheaper).m_Status), "400",
                  "the service refuses it");
}

void Demonstration::tryMisuse() {
    m_Report.section("The shop refuses genuine messages for another purpose");
    m_Report.paragraph(
        "Keys of the merchant's directory signed these three messages, so VerifyPayConfirm accepts them. The shop must "
        "check which order and which outcome each one confirms:");
    expectShopRefusal("shop: the book's confirmation for the lamp", m_BookPaid, m_Lamp,
                      "refused: TOKEN of another order");
    expectShopRefusal("shop: the book's confirmation again", m_BookPaid, m_Book, "refused: already delivered");
    ReturnRequest const ownPayment{"", percentDecoded(queryValue(m_Lamp.m_Url, "DATA")),
                                   queryValue(m_Lamp.m_Url, "SIGNATURE")};
    expectShopRefusal("shop: the merchant's own payment message", ownPayment, m_Lamp, "refused: MSGTYPE is PayInit");
}

void Demonstration::expectVerifyFailure(std::string const& forgery, std::string const& data,
                                        std::string const& signature, std::int32_t expected) {
    MessageHandle message;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), data.c_str(), signature.c_str(), message.out()),
                  expected, forgery + ": refused");
}

void Demonstration::expectShopRefusal(std::string const& action, ReturnRequest const& request, Order const& order,
                                      std::string const& reason) {
    MessageHandle message;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), request.m_Data.c_str(), request.m_Signature.c_str(),
                                                  message.out()),
                  KVX_OK, "the signature is genuine");
    m_Report.step(action, checkConfirmation(message, order), reason, "the shop sends no goods");
}

}  // namespace demo
