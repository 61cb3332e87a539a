#include "demonstration.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "../common/printable.h"

namespace demo {

using examples::attributeOf;
using examples::attributePerLine;
using examples::CopiedText;
using examples::copiedText;
using examples::MessageHandle;
using examples::messageText;
using examples::SetupHandle;
using examples::urlOf;

namespace {

// The account that a sandbox is born with.
constexpr char kUser[] = "demo";
constexpr char kPassword[] = "demo";

constexpr char kPaidPage[] = "/paid";
constexpr char kDeclinedPage[] = "/declined";
constexpr char kCancelledPage[] = "/cancelled";

}  // namespace

void Demonstration::run() {
    setUp();
    makePaymentUrl();
    payAsShopper();
    verifyConfirmation();
    capture();
    complete();
    cancelAsShopper();
    tryForgeries();
    tryMisuse();
}

void Demonstration::setUp() {
    m_Report.section("The merchant sets up its account");
    m_Report.paragraph(
        "A merchant has an account at a payment service, here the sandbox. Its side of it lives in the directory " +
        m_Settings.m_Directory);
    SetupHandle const setup(CreateConfigurationSetup());
    m_Report.call("ConfigurationSetup_SetConfiguration",
                  ConfigurationSetup_SetConfiguration(setup.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "the directory is made");
    m_Report.paragraph("Registering asks " + m_Settings.m_Service +
                       " for the account's configuration, with user and password. "
                       "First with a wrong one:");
    m_Report.call("ConfigurationSetup_Reconfigure",
                  ConfigurationSetup_Reconfigure(setup.get(), m_Settings.m_Service.c_str(), kUser, "guessed"),
                  KVX_E_SERVER_ERROR, "a wrong password: the service refuses");
    m_Report.call("ConfigurationSetup_Reconfigure",
                  ConfigurationSetup_Reconfigure(setup.get(), m_Settings.m_Service.c_str(), kUser, kPassword), KVX_OK,
                  "registered, keys exchanged");
    showDirectory();
    CopiedText const payUrl = copiedText([&](std::int32_t* size, char* buffer) {
        return ConfigurationSetup_GetAttribute(setup.get(), "config.xml", "VTURL", size, buffer);
    });
    m_Report.call("ConfigurationSetup_GetAttribute", payUrl.m_Code, KVX_OK, "shoppers pay at " + payUrl.m_Text);
}

void Demonstration::showDirectory() const {
    namespace fs = std::filesystem;
    std::vector<std::string> lines;
    for (fs::directory_entry const& entry : fs::recursive_directory_iterator(m_Settings.m_Directory)) {
        if (entry.is_regular_file()) {
            lines.push_back(fs::relative(entry.path(), m_Settings.m_Directory).string() + "  (" +
                            std::to_string(entry.file_size()) + " bytes)");
        }
    }
    std::sort(lines.begin(), lines.end());
    std::string listing;
    for (std::string const& line : lines) {
        listing += line + '\n';
    }
    m_Report.block("The directory now holds the account, its defaults, the service's key and a key pair of our own:",
                   listing);
}

void Demonstration::makePaymentUrl() {
    m_Report.section("A shopper buys a book: the shop makes a payment URL");
    m_Report.call("MessageFactory_Open", MessageFactory_Open(m_Factory.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "the shop works with this directory");
    openPayment(m_Book);
    m_Report.paragraph("The shop keeps the TOKEN with order " + m_Book.m_Number +
                       " and sends the shopper's browser to the URL. "
                       "Nothing has been sent to the service by the shop itself.");
}

void Demonstration::openPayment(Order& order) {
    MessageHandle payment;
    m_Report.call("MessageFactory_CreatePayInit", MessageFactory_CreatePayInit(m_Factory.get(), payment.out()), KVX_OK,
                  "a payment for order " + order.m_Number);
    std::vector<std::pair<char const*, std::string>> const attributes = {
        {"ORDERID", order.m_Number},
        {"AMOUNT", order.m_Amount},
        {"CURRENCY", order.m_Currency},
        {"SUCCESSLINK", m_Shop.link(kPaidPage)},
        {"FAILLINK", m_Shop.link(kDeclinedPage)},
        {"BACKLINK", m_Shop.link(kCancelledPage)},
    };
    std::int32_t code = KVX_OK;
    for (auto const& [name, value] : attributes) {
        code = code == KVX_OK ? MessageObject_SetAttribute(payment.get(), name, value.c_str()) : code;
    }
    m_Report.call("MessageObject_SetAttribute", code, KVX_OK, order.m_Amount + " " + order.m_Currency + ", ways back");
    CopiedText const token = attributeOf(payment, "TOKEN");
    m_Report.call("MessageObject_GetAttribute", token.m_Code, KVX_OK, "TOKEN " + token.m_Text);
    CopiedText const url = urlOf(payment);
    m_Report.call("MessageObject_GetURL", url.m_Code, KVX_OK,
                  "signed, " + std::to_string(url.m_Text.size()) + " characters");
    order.m_Token = token.m_Text;
    order.m_Url = url.m_Text;
    m_Report.block("The message:", attributePerLine(messageText(payment)));
    m_Report.block("Its signature by our key:", queryValue(order.m_Url, "SIGNATURE"));
    m_Report.block("Both as the payment URL:", order.m_Url);
}

void Demonstration::payAsShopper() {
    m_Report.section("The shopper opens the payment URL and pays");
    m_BookPaid = decide(m_Book, openPaymentPage(m_Book), "pay", kPaidPage);
    showConfirmation(m_BookPaid);
}

Answer Demonstration::openPaymentPage(Order const& order) {
    Answer const page = fetch(order.m_Url);
    m_Report.step("browser: GET payment URL", std::to_string(page.m_Status), "200", "the service shows its page");
    m_Report.block("The page reads:", visibleText(page.m_Body));
    return page;
}

Visit Demonstration::decide(Order const& order, Answer const& page, std::string const& decision,
                            std::string const& backAt) {
    Form const form = readForm(order.m_Url, page.m_Body);
    m_Report.paragraph("The shopper presses the button \"" + decision + "\": POST " + form.m_Action);
    Answer const sentBack = press(form, decision);
    m_Report.step("browser: POST decision", std::to_string(sentBack.m_Status), "302", "decision: " + decision);
    m_Report.block("The service sends the browser back to the shop:", sentBack.m_Location);
    Answer const welcome = fetch(sentBack.m_Location);
    Visit visit = m_Shop.latest();
    m_Report.step("browser: GET " + visit.m_Path, std::to_string(welcome.m_Status), "200", "the shopper is back");
    m_Report.step("shop: which page", visit.m_Path, backAt, "where our links lead");
    return visit;
}

void Demonstration::showConfirmation(Visit const& visit) const {
    m_Report.block("The shop's web server got DATA, percent-decoded:", attributePerLine(visit.m_Data));
    m_Report.block("and SIGNATURE, said to be the service's:", visit.m_Signature);
}

void Demonstration::verifyConfirmation() {
    m_Report.section("The shop verifies the confirmation");
    m_Report.paragraph(
        "It came through the shopper's browser, so nothing in it is believed before its signature has been "
        "verified with the service's key, and only if it is about this very order, paid in full.");
    MessageHandle confirmation;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), m_BookPaid.m_Data.c_str(),
                                                  m_BookPaid.m_Signature.c_str(), confirmation.out()),
                  KVX_OK, "the service signed this text");
    m_Report.step("shop: MSGTYPE TOKEN AMOUNT CURRENCY RESULT", checkConfirmation(confirmation, m_Book), "accepted",
                  "the order is paid, the book is sent");
    m_Book.m_Delivered = true;
}

std::string Demonstration::checkConfirmation(MessageHandle const& message, Order const& order) {
    std::vector<std::pair<char const*, std::string>> const musts = {{"MSGTYPE", "PayConfirm"},
                                                                    {"TOKEN", order.m_Token},
                                                                    {"AMOUNT", order.m_Amount},
                                                                    {"CURRENCY", order.m_Currency},
                                                                    {"RESULT", "authorised"}};
    for (auto const& [name, must] : musts) {
        CopiedText const value = attributeOf(message, name);
        if (value.m_Code != KVX_OK) {
            return std::string("refused: no ") + name;
        }
        if (value.m_Text != must) {
            bool const opaque = std::string(name) == "TOKEN";
            return std::string("refused: ") + name + (opaque ? " of another order" : " is " + value.m_Text);
        }
    }
    return order.m_Delivered ? "refused: delivered already" : "accepted";
}

void Demonstration::capture() {
    m_Report.section("The shop captures the payment");
    m_Report.paragraph(
        "The payment is authorised; now the shop takes the money. A message object that is opened on the "
        "directory has our signing key; filled with the text of the confirmation it can be captured. The "
        "library signs it, sends it to the service and checks the answer.");
    MessageHandle message(CreateMessageObject());
    fillForCapture(message, m_BookPaid);
    m_Report.block("The message that is sent, KEYID now names our own key:", attributePerLine(messageText(message)));
    m_Report.call("MessageObject_Capture", MessageObject_Capture(message.get()), KVX_OK, "the money is ours");
    expectState(m_Book, "captured");
}

void Demonstration::fillForCapture(MessageHandle& message, Visit const& confirmation) {
    m_Report.call("MessageObject_Open", MessageObject_Open(message.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "an object with our key");
    m_Report.call("MessageObject_FromString", MessageObject_FromString(message.get(), confirmation.m_Data.c_str()),
                  KVX_OK, "the confirmation's text");
}

void Demonstration::complete() {
    m_Report.section("The shop completes the payment");
    MessageHandle confirmation;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), m_BookPaid.m_Data.c_str(),
                                                  m_BookPaid.m_Signature.c_str(), confirmation.out()),
                  KVX_OK, "to read the payment's ID");
    std::string const id = attributeOf(confirmation, "ID").m_Text;
    MessageHandle completion;
    m_Report.call(
        "MessageFactory_CreatePayComplete",
        MessageFactory_CreatePayComplete(m_Factory.get(), id.c_str(), m_Book.m_Token.c_str(), completion.out()), KVX_OK,
        "ID " + id);
    MessageHandle completed;
    m_Report.call("MessageObject_Execute", MessageObject_Execute(completion.get(), completed.out()), KVX_OK,
                  "sent, PayCompleteResponse came back");
    m_Report.block("The answer:", attributePerLine(messageText(completed)));
    expectState(m_Book, "completed");
}

void Demonstration::expectState(Order const& order, std::string const& expected) {
    MessageHandle question;
    m_Report.call("MessageFactory_CreateRequest",
                  MessageFactory_CreateRequest(m_Factory.get(), "Status", question.out()), KVX_OK,
                  "how does a payment stand?");
    m_Report.call("MessageObject_SetAttribute",
                  MessageObject_SetAttribute(question.get(), "TOKEN", order.m_Token.c_str()), KVX_OK,
                  "that of order " + order.m_Number);
    MessageHandle status;
    m_Report.call("MessageObject_Execute", MessageObject_Execute(question.get(), status.out()), KVX_OK,
                  "sent, StatusResponse came back");
    m_Report.step("shop: STATE of the payment", attributeOf(status, "STATE").m_Text, expected, "says the service");
}

void Demonstration::cancelAsShopper() {
    m_Report.section("A second shopper changes her mind");
    openPayment(m_Lamp);
    m_LampCancelled = decide(m_Lamp, openPaymentPage(m_Lamp), "cancel", kCancelledPage);
    showConfirmation(m_LampCancelled);
    m_Report.paragraph("A cancelled payment is confirmed and signed just as a paid one. The RESULT tells them apart.");
    expectShopRefusal("shop: the cancelled order", m_LampCancelled, m_Lamp, "refused: RESULT is cancelled");
    MessageHandle message(CreateMessageObject());
    fillForCapture(message, m_LampCancelled);
    m_Report.call("MessageObject_Capture", MessageObject_Capture(message.get()), KVX_E_SERVER_ERROR,
                  "the service takes no money for it");
    expectState(m_Lamp, "cancelled");
}

}  // namespace demo
