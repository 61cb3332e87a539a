// An account with keys, and a server that answers each kind of request with a fixed message.
//
// `create`, `argumentsFor` and `textOf` hold, for every native method, an object, arguments and a result with which a
// call succeeds. A set-up call replaces address and key of the account, so `create` writes them anew each time.

#include "tests/jni/shop.h"

#include <gtest/gtest.h>

namespace kvxtest {

namespace {

/// The response to a request that contains a text. Any other request gets the configuration.
struct Response {
    char const* m_Request;
    char const* m_Body;
};

constexpr Response kResponses[] = {
    {"LoadDefaultsRequest", R"(<KVX MSGTYPE="LoadDefaultsResponse"/>)"},
    {"KeyQueryRequest", R"(<KVX MSGTYPE="KeyQueryResponse" KEYID="imported" KEYBLOB="3048"/>)"},
    {"KeyExportRequest", R"(<KVX MSGTYPE="KeyExportResponse"/>)"},
    {"ProbeRequest", R"(<KVX MSGTYPE="ProbeResponse"/>)"},
    {"GET /capture", R"(<KVX MSGTYPE="PayConfirm"/>)"},
};

void serve(Peer& peer, std::string const& url) {
    std::string const request = peer.receiveRequest();
    for (Response const& response : kResponses) {
        if (request.find(response.m_Request) != std::string::npos) {
            peer.send(httpResponse(response.m_Body));
            return;
        }
    }
    peer.send(httpResponse(R"(<KVX MSGTYPE="SetupResponse" VTKEYID="imported" KVX.VTAUTOURL=")" + url + "/auto\"/>"));
}

}  // namespace

Shop::Shop() : m_Server([this](Peer& peer) { serve(peer, url()); }), m_Signature(m_Account.sign(kConfirmation)) {}

KVX_HANDLE Shop::create(NativeRow const& row) const {
    if (row.constructs()) {
        return nullptr;
    }
    // A set-up call replaces both.
    m_Account.setAddress(url());
    m_Account.write("keys/current", "own");
    FactoryHandle const factory(path());
    KVX_HANDLE message = nullptr;
    switch (row.m_Kind) {
        case KvxKind::kMessageObject:
            EXPECT_EQ(MessageFactory_CreateRequest(factory.get(), "Probe", &message), KVX_OK);
            EXPECT_EQ(MessageObject_SetAttribute(message, "TOKEN", "t1"), KVX_OK);
            return message;
        case KvxKind::kMessageFactory: {
            KVX_HANDLE const other = row.m_Create();
            EXPECT_EQ(MessageFactory_Open(other, path().c_str()), KVX_OK);
            return other;
        }
        case KvxKind::kConfigurationSetup:
            break;
    }
    KVX_HANDLE const setup = row.m_Create();
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(setup, path().c_str()), KVX_OK);
    return setup;
}

std::array<std::string, 3> Shop::argumentsFor(NativeRow const& row) const {
    switch (row.m_Native) {
        case KvxNative::kSetupSetConfiguration:
        case KvxNative::kFactoryOpen:
        case KvxNative::kMessageOpen:
            return {path()};
        case KvxNative::kSetupReconfigure:
            return {url() + "/auto", "user", "password"};
        case KvxNative::kSetupSetOption:
            return {"UserName", "user"};
        case KvxNative::kSetupGetAttribute:
            return {"config.xml", "VTKEYID"};
        case KvxNative::kSetupSetAttribute:
            return {"config.xml", "NEW", "\xc3\xa9"};
        case KvxNative::kFactoryVerifyPayConfirm:
            return {kConfirmation, m_Signature};
        case KvxNative::kFactoryCreatePayComplete:
            return {"id", "token"};
        case KvxNative::kFactoryCreateRequest:
            return {"Probe"};
        case KvxNative::kMessageSetAttribute:
            return {"A", "1"};
        case KvxNative::kMessageGetAttribute:
            return {"TOKEN"};
        case KvxNative::kMessageFromString:
            return {R"(<KVX B="2"/>)"};
        default:  // no arguments
            return {};
    }
}

std::string Shop::textOf(NativeRow const& row) const {
    switch (row.m_Native) {
        case KvxNative::kSetupGetAttribute:
            return "server";
        case KvxNative::kMessageGetAttribute:
            return "t1";
        case KvxNative::kMessageGetURL:
            return url() + "/pay?DATA=%3cKVX%20MSGTYPE%3d%22Probe%22";
        case KvxNative::kMessageToString:
            return R"(<KVX MSGTYPE="Probe" KEYID="own" TOKEN="t1"/>)";
        default:  // no text
            return "";
    }
}

ShopCall::ShopCall(Shop const& shop, NativeRow const& row, FakeJvm& jvm)
    : m_Shop(shop), m_Row(row), m_Jvm(jvm), m_Object(row, shop.create(row)), m_Self(jvm.newObject(m_Object.handle())) {
    std::array<std::string, 3> const texts = shop.argumentsFor(row);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        m_Arguments[i] = jvm.newString(texts[i]);
    }
}

ShopCall::~ShopCall() {
    if (m_Row.m_MakesObject && m_Returned.m_Number != 0) {
        DestroyMessageObject(objectOf(m_Returned.m_Number));
    }
    if (m_Row.constructs() && handle() != 0) {
        m_Row.m_Destroy(objectOf(handle()));
    }
}

void ShopCall::run() {
    m_Returned = m_Row.m_Call(m_Jvm.env(), m_Self, m_Arguments);
}

void ShopCall::expectSuccess() const {
    expectFine(m_Jvm);
    EXPECT_EQ(m_Object.isLiving(), !m_Row.constructs() && !m_Row.destructs());
    if (m_Row.constructs()) {
        EXPECT_TRUE(kvxIsLivingInSlot(m_Row.m_Kind, objectOf(handle())));
    } else {
        EXPECT_EQ(handle(), m_Object.handle());
    }
    EXPECT_EQ(kvxIsLivingInSlot(KvxKind::kMessageObject, objectOf(m_Returned.m_Number)), m_Row.m_MakesObject);
    ASSERT_EQ(m_Returned.m_Text != nullptr, m_Row.m_ReturnsText);
    if (m_Row.m_ReturnsText) {
        EXPECT_EQ(m_Jvm.textOf(m_Returned.m_Text).find(m_Shop.textOf(m_Row)), 0U) << m_Jvm.textOf(m_Returned.m_Text);
    }
}

void ShopCall::expectNothingDone() const {
    EXPECT_EQ(m_Object.isLiving(), !m_Row.constructs());
    EXPECT_EQ(handle(), m_Object.handle());
    EXPECT_EQ(m_Returned.m_Number, 0);
    EXPECT_EQ(m_Returned.m_Text, nullptr);
}

}  // namespace kvxtest
