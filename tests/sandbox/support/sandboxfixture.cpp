#include "tests/sandbox/support/sandboxfixture.h"

#include <cstddef>

#include "tests/support/waiting.h"

namespace sandboxtest {

bool comesTrue(std::function<bool()> const& condition) {
    return kvxtest::waitUntil(condition, kTimeout);
}

SandboxTest::SandboxTest() {
    restart();
    publishKey();
}

sandbox::Options SandboxTest::options() {
    sandbox::Options options;
    options.m_DataDirectory = m_Directory.path();
    options.m_Lenient = m_Lenient;
    options.m_Clock = [this] { return m_Now.load(); };
    return options;
}

void SandboxTest::restart() {
    restart(options());
}

void SandboxTest::restart(sandbox::Options const& others) {
    m_Service.reset();
    m_Service = std::make_unique<sandbox::Service>(others);
    m_Service->start();
}

RawResponse SandboxTest::get(std::string const& target, std::string const& user, std::string const& password) const {
    return parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, merchantGet(target, user, password)));
}

std::string SandboxTest::askAuto(std::string const& text, std::string const& user, std::string const& password) const {
    RawResponse const response = get("/auto?DATA=" + percentEncoded(text), user, password);
    EXPECT_EQ(response.m_Status, 200);
    return response.m_Body;
}

void SandboxTest::publishKey() const {
    std::string const response = askAuto("<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"" + m_Merchant.keyId() +
                                         "\" KEYBLOB=\"" + m_Merchant.blob() + "\"/>");
    ASSERT_EQ(attributeOf(response, "MSGTYPE"), "KeyExportResponse") << response;
}

RawResponse SandboxTest::openPage(std::string const& text) const {
    return get("/pay" + m_Merchant.signedQuery(text));
}

RawResponse SandboxTest::press(RawResponse const& page, std::string const& decision) const {
    auto const field = [&page](std::string const& name) {
        std::string const start = "name=\"" + name + "\" value=\"";
        std::size_t const from = page.m_Body.find(start) + start.size();
        return page.m_Body.substr(from, page.m_Body.find('"', from) - from);
    };
    std::string const body = "payment=" + field("payment") + "&key=" + field("key") + "&decision=" + decision;
    return parseResponse(exchangeRaw(m_Service->addresses().m_Plain.m_Port, formPost("/pay/decision", body)));
}

std::string SandboxTest::askCapture(std::string const& text) const {
    RawResponse const response = get("/capture" + m_Merchant.signedQuery(text));
    EXPECT_EQ(response.m_Status, 200);
    return response.m_Body;
}

std::string SandboxTest::authorise(std::string const& token) const {
    RawResponse const back = press(openPage(m_Merchant.payInit(token)), "pay");
    EXPECT_EQ(back.m_Status, 302) << back.m_Body;
    std::string confirm = percentDecoded(queryValue(back.m_Headers.at("location"), "DATA"));
    std::string const serverKey = "KEYID=\"" + m_Service->services().m_Keys.current()->m_Id + "\"";
    return confirm.replace(confirm.find(serverKey), serverKey.size(), "KEYID=\"" + m_Merchant.keyId() + "\"");
}

std::string SandboxTest::reasonOf(std::string const& body) {
    return attributeOf(body, "MSGTYPE") == "Error" ? attributeOf(body, "MESSAGE") : "";
}

std::string SandboxTest::lastVerdict() const {
    return sandboxtest::exchangesOf(*m_Service).back().m_Verdict;
}

}  // namespace sandboxtest
