// Handles, accounts and marks on outputs, for the tests of the public interface.
//
// The table of flat functions calls each one with harmless arguments, so that a test can try a handle on all of them.
// An account holds both halves of its own and of the server's key.

#include "tests/api/apisupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "tests/support/tbtext.h"

namespace kvxtest {

std::string addressText(void const* address) {
    std::ostringstream text;
    text << address;
    return text.str();
}

Outputs::Outputs() : m_Out(&m_Mark) {
    std::memset(m_Buffer, kByteMark, sizeof m_Buffer);
}

void Outputs::expectUntouched(std::string const& what) const {
    EXPECT_EQ(m_Size, kSizeMark) << what;
    EXPECT_TRUE(std::all_of(std::begin(m_Buffer), std::end(m_Buffer), [](char c) { return c == kByteMark; })) << what;
    EXPECT_EQ(m_Out, &m_Mark) << what;
}

std::vector<FlatFunction> const& flatFunctions() {
    // clang-format off
    static std::vector<FlatFunction> const functions = {
        {"ConfigurationSetup_SetConfiguration", Kind::kSetup,
         [](KVX_HANDLE h, Outputs&) { return ConfigurationSetup_SetConfiguration(h, "/"); }},
        {"ConfigurationSetup_Reconfigure", Kind::kSetup,
         [](KVX_HANDLE h, Outputs&) { return ConfigurationSetup_Reconfigure(h, "", "", ""); }},
        {"ConfigurationSetup_SetOption", Kind::kSetup,
         [](KVX_HANDLE h, Outputs&) { return ConfigurationSetup_SetOption(h, "UserName", "u"); }},
        {"ConfigurationSetup_GetAttribute", Kind::kSetup,
         [](KVX_HANDLE h, Outputs& o) { return ConfigurationSetup_GetAttribute(h, "f", "n", &o.m_Size, o.m_Buffer); }},
        {"ConfigurationSetup_SetAttribute", Kind::kSetup,
         [](KVX_HANDLE h, Outputs&) { return ConfigurationSetup_SetAttribute(h, "f", "n", "v"); }},
        {"MessageFactory_Open", Kind::kFactory,
         [](KVX_HANDLE h, Outputs&) { return MessageFactory_Open(h, "/"); }},
        {"MessageFactory_CreatePayInit", Kind::kFactory,
         [](KVX_HANDLE h, Outputs& o) { return MessageFactory_CreatePayInit(h, &o.m_Out); }},
        {"MessageFactory_VerifyPayConfirm", Kind::kFactory,
         [](KVX_HANDLE h, Outputs& o) { return MessageFactory_VerifyPayConfirm(h, "d", "s", &o.m_Out); }},
        {"MessageFactory_CreatePayComplete", Kind::kFactory,
         [](KVX_HANDLE h, Outputs& o) { return MessageFactory_CreatePayComplete(h, "i", "t", &o.m_Out); }},
        {"MessageFactory_CreateRequest", Kind::kFactory,
         [](KVX_HANDLE h, Outputs& o) { return MessageFactory_CreateRequest(h, "T", &o.m_Out); }},
        {"MessageObject_Open", Kind::kMessage,
         [](KVX_HANDLE h, Outputs&) { return MessageObject_Open(h, "/"); }},
        {"MessageObject_SetAttribute", Kind::kMessage,
         [](KVX_HANDLE h, Outputs&) { return MessageObject_SetAttribute(h, "n", "v"); }},
        {"MessageObject_GetAttribute", Kind::kMessage,
         [](KVX_HANDLE h, Outputs& o) { return MessageObject_GetAttribute(h, "n", &o.m_Size, o.m_Buffer); }},
        {"MessageObject_GetURL", Kind::kMessage,
         [](KVX_HANDLE h, Outputs& o) { return MessageObject_GetURL(h, &o.m_Size, o.m_Buffer); }},
        {"MessageObject_Capture", Kind::kMessage,
         [](KVX_HANDLE h, Outputs&) { return MessageObject_Capture(h); }},
        {"MessageObject_Execute", Kind::kMessage,
         [](KVX_HANDLE h, Outputs& o) { return MessageObject_Execute(h, &o.m_Out); }},
        {"MessageObject_FromString", Kind::kMessage,
         [](KVX_HANDLE h, Outputs&) { return MessageObject_FromString(h, "<KVX/>"); }},
        {"MessageObject_ToString", Kind::kMessage,
         [](KVX_HANDLE h, Outputs& o) { return MessageObject_ToString(h, &o.m_Size, o.m_Buffer); }},
    };
    // clang-format on
    return functions;
}

std::vector<KindFunctions> const& allKinds() {
    static std::vector<KindFunctions> const kinds = {
        {"configuration setup", Kind::kSetup, &CreateConfigurationSetup, &DestroyConfigurationSetup},
        {"message factory", Kind::kFactory, &CreateMessageFactory, &DestroyMessageFactory},
        {"message object", Kind::kMessage, &CreateMessageObject, &DestroyMessageObject},
    };
    return kinds;
}

AccountDirectory::AccountDirectory() {
    std::filesystem::create_directories(file("keys/private"));
    std::filesystem::create_directories(file("keys/public"));
    KVX_Context context;
    context.Open(stringOf(path()));
    for (char const* name : {"own", "server"}) {
        TbString keyId(name);
        context.GenKey(keyId);
    }
    write("keys/current", "own");
    setAddress("http://127.0.0.1:1");
}

void AccountDirectory::setAddress(std::string const& url) const {
    write("config.xml", "<KVX VTURL=\"" + url + "/pay\" CAPTUREURL=\"" + url + "/capture\" KVX.VTAUTOURL=\"" + url +
                            "/auto\" VTKEYID=\"server\"/>");
}

void AccountDirectory::setDefaults(std::string const& attributes) const {
    write("default.xml", "<KVX MSGTYPE=\"LoadDefaultsResponse\"" + attributes + "/>");
}

std::string AccountDirectory::sign(std::string const& text, std::string const& keyId) const {
    KVX_Context context;
    context.Open(stringOf(path()));
    TbString signature;
    context.SignData(stringOf(text), stringOf(keyId), signature);
    return bytesOf(signature);
}

std::string copiedOut(CopyOut const& call) {
    std::int32_t size = 0;
    EXPECT_EQ(call(&size, nullptr), KVX_E_BUFFER_TOO_SMALL);
    EXPECT_GE(size, 1);
    std::string text(static_cast<std::size_t>(size), '#');
    EXPECT_EQ(call(&size, text.data()), KVX_OK);
    EXPECT_EQ(text.back(), '\0');
    text.pop_back();
    return text;
}

std::string attribute(KVX_HANDLE message, char const* name) {
    return copiedOut([&](auto* size, auto* buffer) { return MessageObject_GetAttribute(message, name, size, buffer); });
}

std::string textOf(KVX_HANDLE message) {
    return copiedOut([&](auto* size, auto* buffer) { return MessageObject_ToString(message, size, buffer); });
}

std::string urlOf(KVX_HANDLE message) {
    return copiedOut([&](auto* size, auto* buffer) { return MessageObject_GetURL(message, size, buffer); });
}

MadeMessage AccountTest::payInit() const {
    MadeMessage message;
    EXPECT_EQ(MessageFactory_CreatePayInit(m_Factory.get(), message.out()), KVX_OK);
    return message;
}

MadeMessage AccountTest::request(char const* type) const {
    MadeMessage message;
    EXPECT_EQ(MessageFactory_CreateRequest(m_Factory.get(), type, message.out()), KVX_OK);
    return message;
}

MadeMessage AccountTest::confirmation(std::string const& data, std::string const& keyId) const {
    MadeMessage message;
    std::string const signature = m_Account.sign(data, keyId);
    EXPECT_EQ(MessageFactory_VerifyPayConfirm(m_Factory.get(), data.c_str(), signature.c_str(), message.out()), KVX_OK);
    return message;
}

MadeMessage AccountTest::responseTo(MadeMessage const& request) {
    MadeMessage response;
    EXPECT_EQ(MessageObject_Execute(request.get(), response.out()), KVX_OK);
    return response;
}

std::set<void*> addressesOf(KindFunctions const& kind, int count) {
    std::set<void*> addresses;
    for (int i = 0; i < count; ++i) {
        KVX_HANDLE const handle = kind.m_Create();
        addresses.insert(handle);
        kind.m_Destroy(handle);
    }
    return addresses;
}

std::set<void*> wholeCycle(KindFunctions const& kind) {
    constexpr int kMost = 1000000;
    std::set<void*> addresses;
    void* first = nullptr;
    for (int i = 0; i < kMost; ++i) {
        KVX_HANDLE const handle = kind.m_Create();
        kind.m_Destroy(handle);
        if (handle == first) {
            return addresses;
        }
        first = first == nullptr ? handle : first;
        addresses.insert(handle);
    }
    ADD_FAILURE() << "no address came again";
    return addresses;
}

void expectNoSlotIsLost(int times, std::function<void()> const& call) {
    KindFunctions const& messages = allKinds().back();
    call();  // takes as many slots at once as it ever will
    std::set<void*> const before = wholeCycle(messages);
    for (int i = 0; i < times; ++i) {
        call();
    }
    EXPECT_EQ(wholeCycle(messages), before) << "slots have been lost, others are in use now";
}

}  // namespace kvxtest
