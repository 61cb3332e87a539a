#include "tests/api/apisupport.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace kvxtest {

namespace {

std::time_t g_Now = 0;

std::time_t fixedTime(std::time_t*) {
    return g_Now;
}

}  // namespace

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

AccountDir::AccountDir() {
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

void AccountDir::setAddress(std::string const& url) const {
    write("config.xml", "<KVX VTURL=\"" + url + "/pay\" CAPTUREURL=\"" + url + "/capture\" KVX.VTAUTOURL=\"" + url +
                            "/auto\" VTKEYID=\"server\"/>");
}

void AccountDir::setDefaults(std::string const& attributes) const {
    write("default.xml", "<KVX MSGTYPE=\"LoadDefaultsResponse\"" + attributes + "/>");
}

std::string AccountDir::sign(std::string const& text, std::string const& keyId) const {
    KVX_Context context;
    context.Open(stringOf(path()));
    TbString signature;
    context.SignData(stringOf(text), stringOf(keyId), signature);
    return bytesOf(signature);
}

std::string httpAnswer(std::string const& body) {
    return "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\n\r\n" + body;
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

FixedTime::FixedTime(std::time_t now) {
    g_Now = now;
    m_Calls->time = &fixedTime;
}

WorkingDirectory::WorkingDirectory(std::string const& path) : m_Before(std::filesystem::current_path().string()) {
    std::filesystem::current_path(path);
}

WorkingDirectory::~WorkingDirectory() {
    std::filesystem::current_path(m_Before);
}

}  // namespace kvxtest
