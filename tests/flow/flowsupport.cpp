// A merchant through the flat functions alone, a running sandbox, and the browser of its shopper.
//
// The browser opens the payment page over a bare socket and posts the form behind the button of its decision.

#include "tests/flow/flowsupport.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/api/apisupport.h"
#include "tests/sandbox/support/rawclient.h"
#include "tests/sandbox/support/testmerchant.h"
#include "tests/support/encodings.h"

namespace kvxtest {

namespace {

using sandboxtest::parseResponse;
using sandboxtest::RawResponse;

/// The value of a hidden field of a form.
std::string field(std::string const& page, std::string const& name) {
    std::string const start = "name=\"" + name + "\" value=\"";
    std::size_t const at = page.find(start);
    EXPECT_NE(at, std::string::npos) << page;
    std::size_t const from = at + start.size();
    return at == std::string::npos ? "" : page.substr(from, page.find('"', from) - from);
}

}  // namespace

std::string targetOf(std::string const& url) {
    std::size_t const authority = url.find("://") + 3;
    return url.substr(url.find('/', authority));
}

std::string getRequest(std::string const& url) {
    return "GET " + targetOf(url) + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

Returned takeApart(std::string const& location) {
    Returned returned;
    returned.m_Link = location.substr(0, location.find_first_of("?&", location.find("DATA=") - 1));
    returned.m_Data = percentDecoded(queryValue(location, "DATA"));
    returned.m_Signature = queryValue(location, "SIGNATURE");
    return returned;
}

std::string FlowMessage::get(std::string const& name) const {
    return copiedOut(
        [&](auto* size, auto* buffer) { return MessageObject_GetAttribute(m_Handle, name.c_str(), size, buffer); });
}

void FlowMessage::set(std::string const& name, std::string const& value) const {
    EXPECT_EQ(MessageObject_SetAttribute(m_Handle, name.c_str(), value.c_str()), KVX_OK) << name;
}

std::string FlowMessage::url() const {
    return copiedOut([&](auto* size, auto* buffer) { return MessageObject_GetURL(m_Handle, size, buffer); });
}

std::int32_t Shop::setUp(std::string const& url, std::string const& user, std::string const& password) const {
    KVX_HANDLE const setup = CreateConfigurationSetup();
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(setup, path().c_str()), KVX_OK);
    std::int32_t const result = ConfigurationSetup_Reconfigure(setup, url.c_str(), user.c_str(), password.c_str());
    DestroyConfigurationSetup(setup);
    return result;
}

void Shop::useProxy(std::uint16_t port) const {
    m_Dir.write("settings.xml",
                "<KVX USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"" + std::to_string(port) + "\"/>");
}

KVX_HANDLE Shop::newFactory() const {
    KVX_HANDLE const factory = CreateMessageFactory();
    EXPECT_EQ(MessageFactory_Open(factory, path().c_str()), KVX_OK);
    return factory;
}

FlowMessage Shop::payment(Order const& order) const {
    KVX_HANDLE const factory = newFactory();
    KVX_HANDLE made = nullptr;
    EXPECT_EQ(MessageFactory_CreatePayInit(factory, &made), KVX_OK);
    DestroyMessageFactory(factory);
    FlowMessage message(made);
    message.set("SUCCESSLINK", "http://shop.example/paid");
    message.set("FAILLINK", "http://shop.example/failed");
    message.set("BACKLINK", "http://shop.example/back");
    message.set("ORDERID", order.m_Id);
    message.set("AMOUNT", order.m_Amount);
    message.set("CURRENCY", order.m_Currency);
    return message;
}

std::int32_t Shop::verify(Returned const& returned) const {
    KVX_HANDLE const factory = newFactory();
    KVX_HANDLE made = nullptr;
    std::int32_t const result =
        MessageFactory_VerifyPayConfirm(factory, returned.m_Data.c_str(), returned.m_Signature.c_str(), &made);
    EXPECT_EQ(made != nullptr, result == KVX_OK);
    DestroyMessageObject(made);
    DestroyMessageFactory(factory);
    return result;
}

FlowMessage Shop::verified(Returned const& returned) const {
    KVX_HANDLE const factory = newFactory();
    KVX_HANDLE made = nullptr;
    EXPECT_EQ(MessageFactory_VerifyPayConfirm(factory, returned.m_Data.c_str(), returned.m_Signature.c_str(), &made),
              KVX_OK)
        << returned.m_Data;
    DestroyMessageFactory(factory);
    return FlowMessage(made);
}

FlowMessage Shop::filled(std::string const& text) const {
    FlowMessage message(CreateMessageObject());
    EXPECT_EQ(MessageObject_Open(message.handle(), path().c_str()), KVX_OK);
    EXPECT_EQ(MessageObject_FromString(message.handle(), text.c_str()), KVX_OK);
    return message;
}

std::int32_t Shop::capture(std::string const& data) const {
    return MessageObject_Capture(filled(data).handle());
}

FlowMessage Shop::completion(std::string const& id, std::string const& token) const {
    KVX_HANDLE const factory = newFactory();
    KVX_HANDLE made = nullptr;
    EXPECT_EQ(MessageFactory_CreatePayComplete(factory, id.c_str(), token.c_str(), &made), KVX_OK);
    DestroyMessageFactory(factory);
    return FlowMessage(made);
}

sandbox::Options Sandbox::options(std::string const& directory, bool tls) {
    sandbox::Options options;
    options.m_DataDirectory = directory;
    options.m_Tls = tls;
    options.m_Proxy = true;
    return options;
}

Sandbox::Sandbox(bool tls) : m_Service(options(m_Dir.path(), tls)) {
    m_Service.start();
}

std::string Sandbox::exchange(std::string const& url, std::string const& request) const {
    bool const tls = url.compare(0, 6, "https:") == 0;
    return sandboxtest::exchangeRaw(tls ? m_Service.addresses().m_Tls.m_Port : m_Service.addresses().m_Plain.m_Port,
                                    request, tls ? m_Service.authorityFile() : "");
}

std::string Sandbox::decisionRequest(std::string const& url, std::string const& decision) const {
    RawResponse const page = parseResponse(exchange(url, getRequest(url)));
    EXPECT_EQ(page.m_Status, 200) << page.m_Body;
    return sandboxtest::formPost("/pay/decision", "payment=" + field(page.m_Body, "payment") +
                                                      "&key=" + field(page.m_Body, "key") + "&decision=" + decision);
}

Returned Sandbox::shopper(std::string const& url, std::string const& decision) const {
    RawResponse const back = parseResponse(exchange(url, decisionRequest(url, decision)));
    EXPECT_EQ(back.m_Status, 302) << back.m_Body;
    return back.m_Status == 302 ? takeApart(back.m_Headers.at("location")) : Returned{};
}

int Sandbox::statusOf(std::string const& url) const {
    return parseResponse(exchange(url, getRequest(url))).m_Status;
}

std::string Sandbox::stateOf(std::string const& token) const {
    for (sandbox::Payment const& payment : sandboxtest::paymentsOf(m_Service)) {
        if (payment.m_Token == token) {
            return sandbox::stateName(payment.m_State);
        }
    }
    return "";
}

long Sandbox::accepted(std::string const& path) const {
    long count = 0;
    for (sandbox::Exchange const& exchange : sandboxtest::exchangesOf(m_Service)) {
        count += exchange.m_Path == path && exchange.m_Verdict == "ok" ? 1 : 0;
    }
    return count;
}

std::string Sandbox::lastVerdict() const {
    return sandboxtest::exchangesOf(m_Service).back().m_Verdict;
}

void FlowTest::startService(Transport transport) {
    m_Transport = transport;
    m_Sandbox.emplace(transport == Transport::kTls);
    m_Shop.emplace();
}

void FlowTest::openShop(Transport transport) {
    startService(transport);
    std::int32_t const result = m_Shop->setUp(autoUrl());
    if (result != KVX_OK) {
        throw std::runtime_error("the set-up of the shop fails with " + std::to_string(result));
    }
}

std::string FlowTest::autoUrl() const {
    return m_Transport == Transport::kTls ? m_Sandbox->tlsAutoUrl() : m_Sandbox->autoUrl();
}

Returned FlowTest::pays(FlowMessage const& payment) const {
    return m_Sandbox->shopper(payment.url(), "pay");
}

Returned FlowTest::declines(FlowMessage const& payment) const {
    return m_Sandbox->shopper(payment.url(), "decline");
}

Returned FlowTest::cancels(FlowMessage const& payment) const {
    return m_Sandbox->shopper(payment.url(), "cancel");
}

std::string FlowTest::stateOf(FlowMessage const& payment) const {
    return m_Sandbox->stateOf(payment.get("TOKEN"));
}

void FlowTest::expectNextPaymentWorks() const {
    EXPECT_EQ(m_Shop->verify(pays(m_Shop->payment())), KVX_OK);
}

std::int32_t execute(FlowMessage const& message) {
    KVX_HANDLE response = nullptr;
    std::int32_t const result = MessageObject_Execute(message.handle(), &response);
    EXPECT_EQ(response != nullptr, result == KVX_OK);
    DestroyMessageObject(response);
    return result;
}

FlowMessage responseTo(FlowMessage const& message) {
    KVX_HANDLE response = nullptr;
    EXPECT_EQ(MessageObject_Execute(message.handle(), &response), KVX_OK);
    return FlowMessage(response);
}

}  // namespace kvxtest
