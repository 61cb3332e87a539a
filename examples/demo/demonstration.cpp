// A whole payment as merchant and as shopper, then a cancelled one.
//
// Order: set-up, payment URL, the shopper pays, verification, capture, completion, the second shopper cancels. The
// sections on refusals stand in demonstration_refusals.cpp. Each library call is one step of the report, with the
// result it must have. Merchant and shopper are one thread here; what reaches the shop comes through a real web server.
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

// The account that every new sandbox has.
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
        "A merchant has an account at a payment service, here the sandbox. The merchant's configuration directory is " +
        m_Settings.m_Directory);
    SetupHandle const setup(CreateConfigurationSetup());
    m_Report.call("ConfigurationSetup_SetConfiguration",
                  ConfigurationSetup_SetConfiguration(setup.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "the directory is created");
    m_Report.paragraph("Set-up asks " + m_Settings.m_Service +
                       " for the account's configuration, with user and password. "
                       "The first request has a wrong password:");
    m_Report.call("ConfigurationSetup_Reconfigure",
                  ConfigurationSetup_Reconfigure(setup.get(), m_Settings.m_Service.c_str(), kUser, "guessed"),
                  KVX_E_SERVER_ERROR, "wrong password, the service refuses");
    m_Report.call("ConfigurationSetup_Reconfigure",
                  ConfigurationSetup_Reconfigure(setup.get(), m_Settings.m_Service.c_str(), kUser, kPassword), KVX_OK,
                  "set up, keys exchanged");
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
    m_Report.block(
        "The directory now contains the account, its defaults, the service's key and the merchant's key pair:",
        listing);
}

void Demonstration::makePaymentUrl() {
    m_Report.section("A shopper buys a book: the shop creates a payment URL");
    m_Report.call("MessageFactory_Open", MessageFactory_Open(m_Factory.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "the shop uses this directory");
    openPayment(m_Book);
    m_Report.paragraph("The shop stores the TOKEN with order " + m_Book.m_Number +
                       " and redirects the shopper's browser to the URL. "
                       "The shop itself has sent nothing to the service yet.");
}

void Demonstration::openPayment(Order& order) {
    MessageHandle payment;
    m_Report.call("MessageFactory_CreatePayInit", MessageFactory_CreatePayInit(m_Factory.get(), payment.out()), KVX_OK,
                  "a payment for order " + order.m_Number);
    std::vector<std::pair<char const*, std::string>> const attributes = {
        {"ORDERID", order.m_Number},
        {"AMOUNT", order.m_Amount},
        {"CURRENCY", order.m_Currency},
        {"SUCCESSLINK", m_Shop.url(kPaidPage)},
        {"FAILLINK", m_Shop.url(kDeclinedPage)},
        {"BACKLINK", m_Shop.url(kCancelledPage)},
    };
    std::int32_t code = KVX_OK;
    for (auto const& [name, value] : attributes) {
        code = code == KVX_OK ? MessageObject_SetAttribute(payment.get(), name, value.c_str()) : code;
    }
    m_Report.call("MessageObject_SetAttribute", code, KVX_OK,
                  order.m_Amount + " " + order.m_Currency + ", return links");
    CopiedText const token = attributeOf(payment, "TOKEN");
    m_Report.call("MessageObject_GetAttribute", token.m_Code, KVX_OK, "TOKEN " + token.m_Text);
    CopiedText const url = urlOf(payment);
    m_Report.call("MessageObject_GetURL", url.m_Code, KVX_OK,
                  "signed, " + std::to_string(url.m_Text.size()) + " characters");
    order.m_Token = token.m_Text;
    order.m_Url = url.m_Text;
    m_Report.block("The message:", attributePerLine(messageText(payment)));
    m_Report.block("Its signature, made with the merchant's key:", queryValue(order.m_Url, "SIGNATURE"));
    m_Report.block("The payment URL holds both:", order.m_Url);
}

void Demonstration::payAsShopper() {
    m_Report.section("The shopper opens the payment URL and pays");
    m_BookPaid = decide(m_Book, openPaymentPage(m_Book), "pay", kPaidPage);
    showConfirmation(m_BookPaid);
}

Response Demonstration::openPaymentPage(Order const& order) {
    Response const page = fetch(order.m_Url);
    m_Report.step("browser: GET payment URL", std::to_string(page.m_Status), "200",
                  "the service sends its payment page");
    m_Report.block("The text of the page:", visibleText(page.m_Body));
    return page;
}

ReturnRequest Demonstration::decide(Order const& order, Response const& page, std::string const& decision,
                                    std::string const& returnPath) {
    Form const form = readForm(order.m_Url, page.m_Body);
    m_Report.paragraph("The shopper presses the button \"" + decision + "\": POST " + form.m_Action);
    Response const redirect = submit(form, decision);
    m_Report.step("browser: POST decision", std::to_string(redirect.m_Status), "302", "decision: " + decision);
    m_Report.block("The service redirects the browser to the shop:", redirect.m_Location);
    Response const welcome = fetch(redirect.m_Location);
    ReturnRequest request = m_Shop.latestRequest();
    m_Report.step("browser: GET " + request.m_Path, std::to_string(welcome.m_Status), "200",
                  "the shopper is back in the shop");
    m_Report.step("shop: path of the request", request.m_Path, returnPath, "the page of the return link");
    return request;
}

void Demonstration::showConfirmation(ReturnRequest const& request) const {
    m_Report.block("The shop's web server received DATA, percent-decoded:", attributePerLine(request.m_Data));
    m_Report.block("and SIGNATURE, not verified yet:", request.m_Signature);
}

void Demonstration::verifyConfirmation() {
    m_Report.section("The shop verifies the confirmation");
    m_Report.paragraph(
        "The confirmation came through the shopper's browser, so the shop must not trust it yet. The shop verifies the "
        "signature with the service's key, then checks that the message confirms this order, paid in full.");
    MessageHandle confirmation;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), m_BookPaid.m_Data.c_str(),
                                                  m_BookPaid.m_Signature.c_str(), confirmation.out()),
                  KVX_OK, "the service signed this text");
    m_Report.step("shop: MSGTYPE TOKEN AMOUNT CURRENCY RESULT", checkConfirmation(confirmation, m_Book), "accepted",
                  "the order is paid, the shop sends the book");
    m_Book.m_Delivered = true;
}

std::string Demonstration::checkConfirmation(MessageHandle const& message, Order const& order) {
    std::vector<std::pair<char const*, std::string>> const required = {{"MSGTYPE", "PayConfirm"},
                                                                       {"TOKEN", order.m_Token},
                                                                       {"AMOUNT", order.m_Amount},
                                                                       {"CURRENCY", order.m_Currency},
                                                                       {"RESULT", "authorised"}};
    for (auto const& [name, wanted] : required) {
        CopiedText const value = attributeOf(message, name);
        if (value.m_Code != KVX_OK) {
            return std::string("refused: no ") + name;
        }
        if (value.m_Text != wanted) {
            bool const opaque = std::string(name) == "TOKEN";
            return std::string("refused: ") + name + (opaque ? " of another order" : " is " + value.m_Text);
        }
    }
    return order.m_Delivered ? "refused: already delivered" : "accepted";
}

void Demonstration::capture() {
    m_Report.section("The shop captures the payment");
    m_Report.paragraph(
        "The payment is authorised; now the shop takes the money. The shop opens a message object on the directory, "
        "which gives it the merchant's signing key, and fills it with the text of the confirmation. The library signs "
        "the message, sends it to the service and checks the response.");
    MessageHandle message(CreateMessageObject());
    fillForCapture(message, m_BookPaid);
    m_Report.block("The message to send; KEYID is now the merchant's key id:", attributePerLine(messageText(message)));
    m_Report.call("MessageObject_Capture", MessageObject_Capture(message.get()), KVX_OK, "the money is taken");
    expectState(m_Book, "captured");
}

void Demonstration::fillForCapture(MessageHandle& message, ReturnRequest const& confirmation) {
    m_Report.call("MessageObject_Open", MessageObject_Open(message.get(), m_Settings.m_Directory.c_str()), KVX_OK,
                  "an object with the merchant's key");
    m_Report.call("MessageObject_FromString", MessageObject_FromString(message.get(), confirmation.m_Data.c_str()),
                  KVX_OK, "the text of the confirmation");
}

void Demonstration::complete() {
    m_Report.section("The shop completes the payment");
    MessageHandle confirmation;
    m_Report.call("MessageFactory_VerifyPayConfirm",
                  MessageFactory_VerifyPayConfirm(m_Factory.get(), m_BookPaid.m_Data.c_str(),
                                                  m_BookPaid.m_Signature.c_str(), confirmation.out()),
                  KVX_OK, "the payment's ID can be read");
    std::string const id = attributeOf(confirmation, "ID").m_Text;
    MessageHandle completion;
    m_Report.call(
        "MessageFactory_CreatePayComplete",
        MessageFactory_CreatePayComplete(m_Factory.get(), id.c_str(), m_Book.m_Token.c_str(), completion.out()), KVX_OK,
        "ID " + id);
    MessageHandle completed;
    m_Report.call("MessageObject_Execute", MessageObject_Execute(completion.get(), completed.out()), KVX_OK,
                  "the service sent PayCompleteResponse");
    m_Report.block("The response:", attributePerLine(messageText(completed)));
    expectState(m_Book, "completed");
}

void Demonstration::expectState(Order const& order, std::string const& expected) {
    MessageHandle request;
    m_Report.call("MessageFactory_CreateRequest",
                  MessageFactory_CreateRequest(m_Factory.get(), "Status", request.out()), KVX_OK,
                  "a request for a payment's state");
    m_Report.call("MessageObject_SetAttribute",
                  MessageObject_SetAttribute(request.get(), "TOKEN", order.m_Token.c_str()), KVX_OK,
                  "the payment of order " + order.m_Number);
    MessageHandle status;
    m_Report.call("MessageObject_Execute", MessageObject_Execute(request.get(), status.out()), KVX_OK,
                  "the service sent StatusResponse");
    m_Report.step("shop: STATE of the payment", attributeOf(status, "STATE").m_Text, expected,
                  "as the service reports it");
}

void Demonstration::cancelAsShopper() {
    m_Report.section("A second shopper cancels");
    openPayment(m_Lamp);
    m_LampCancelled = decide(m_Lamp, openPaymentPage(m_Lamp), "cancel", kCancelledPage);
    showConfirmation(m_LampCancelled);
    m_Report.paragraph("The service confirms and signs a cancelled payment too. Only RESULT differs.");
    expectShopRefusal("shop: the cancelled order", m_LampCancelled, m_Lamp, "refused: RESULT is cancelled");
    MessageHandle message(CreateMessageObject());
    fillForCapture(message, m_LampCancelled);
    m_Report.call("MessageObject_Capture", MessageObject_Capture(message.get()), KVX_E_SERVER_ERROR,
                  "the service does not capture a cancelled payment");
    expectState(m_Lamp, "cancelled");
}

}  // namespace demo
