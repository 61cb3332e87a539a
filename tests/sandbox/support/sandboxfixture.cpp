#include "tests/sandbox/support/sandboxfixture.h"

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace sandboxtest {

bool comesTrue(std::function<bool()> const& condition) {
    constexpr std::chrono::milliseconds kBetween{2};
    auto const end = std::chrono::steady_clock::now() + kTimeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(kBetween);
    }
    return true;
}

TemporaryDirectory::TemporaryDirectory() {
    std::string path = (std::filesystem::temp_directory_path() / "tallowin-sandbox-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    m_Path = path;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

SandboxTest::SandboxTest() {
    restart();
    publishKey();
}

sandbox::Options SandboxTest::options() {
    sandbox::Options options;
    options.m_DataDirectory = m_Directory.path();
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
    return parseResponse(exchangeRaw(m_Service->plainPort(), merchantGet(target, user, password)));
}

std::string SandboxTest::askAuto(std::string const& text, std::string const& user, std::string const& password) const {
    RawResponse const response = get("/auto?DATA=" + encode(text), user, password);
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
    return parseResponse(exchangeRaw(m_Service->plainPort(), formPost("/pay/decision", body)));
}

std::string SandboxTest::askCapture(std::string const& text) const {
    RawResponse const response = get("/capture" + m_Merchant.signedQuery(text));
    EXPECT_EQ(response.m_Status, 200);
    return response.m_Body;
}

std::string SandboxTest::authorise(std::string const& token) const {
    RawResponse const back = press(openPage(m_Merchant.payInit(token)), "pay");
    EXPECT_EQ(back.m_Status, 302) << back.m_Body;
    std::string confirm = decode(queryValue(back.m_Headers.at("location"), "DATA"));
    std::string const serverKey = "KEYID=\"" + m_Service->serverKeyId() + "\"";
    return confirm.replace(confirm.find(serverKey), serverKey.size(), "KEYID=\"" + m_Merchant.keyId() + "\"");
}

std::string SandboxTest::reasonOf(std::string const& body) {
    return attributeOf(body, "MSGTYPE") == "Error" ? attributeOf(body, "MESSAGE") : "";
}

std::string SandboxTest::lastVerdict() const {
    return m_Service->exchanges().back().m_Verdict;
}

}  // namespace sandboxtest
