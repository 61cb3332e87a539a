// The flat functions, each with its preparation and the check of its effect.
//
// A name without parentheses is the function on a ready account; one with parentheses has the condition in them. The
// creating functions and those without a handle are given a code: out of memory for null.

#include "tests/faults/flatcalls.h"

#include <openssl/x509_vfy.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "core/kvxctx.h"
#include "net/kvxhttp.h"
#include "tests/support/encodings.h"
#include "tests/support/testdata.h"

namespace kvxtest {

namespace {

TlsServers g_TlsServers;

/// "config.xml" after a value has been added.
constexpr char kConfigWithNew[] =
    R"(<KVX VTURL="http://127.0.0.1:7/pay" CAPTUREURL="http://127.0.0.1:7/capture" VTKEYID="server" )"
    R"(CUSTOMERID="c1" VERSION="1" NEW="1"/>)";

/// Longer than what a message has room for from the beginning.
std::string const kLongValue(2000, 'x');

constexpr char kRequestText[] = R"(<KVX MSGTYPE="PayInit" AMOUNT="12.50"/>)";

std::string confirmationText() {
    return dataText("signing/confirm.txt");
}

/// Runs after a call, without faults.
std::string textOf(KVX_HANDLE message) {
    char buffer[4096] = {};
    std::int32_t size = sizeof buffer;
    return MessageObject_ToString(message, &size, buffer) == KVX_OK ? buffer : "no text";
}

std::string attributeOf(KVX_HANDLE message, char const* name) {
    char buffer[4096] = {};
    std::int32_t size = sizeof buffer;
    return MessageObject_GetAttribute(message, name, &size, buffer) == KVX_OK ? buffer : "no attribute";
}

/// Collects what differs.
class Differences {
public:
    void expect(std::string const& what, std::string const& is, std::string const& wanted) {
        if (is != wanted) {
            m_Text += what + " is '" + is + "' instead of '" + wanted + "'; ";
        }
    }
    void require(std::string const& what, bool isRight) {
        if (!isRight) {
            m_Text += what + "; ";
        }
    }
    [[nodiscard]] std::string text() const { return m_Text; }

private:
    std::string m_Text;
};

std::string timeText(std::time_t when) {
    std::tm utc = {};
    ::gmtime_r(&when, &utc);
    char text[80];
    std::strftime(text, sizeof text, "%Y%m%d %H:%M:%S", &utc);
    return text;
}

void makeSetup(CallState& state) {
    state.m_Setup = CreateConfigurationSetup();
    ConfigurationSetup_SetConfiguration(state.m_Setup, state.m_Stage.path().c_str());
}

void makeBareSetup(CallState& state) {
    state.m_Setup = CreateConfigurationSetup();
}

void makeFactory(CallState& state) {
    state.m_Factory = CreateMessageFactory();
    MessageFactory_Open(state.m_Factory, state.m_Stage.path().c_str());
}

void makeBareFactory(CallState& state) {
    state.m_Factory = CreateMessageFactory();
}

void makeBareMessage(CallState& state) {
    state.m_Message = CreateMessageObject();
}

void makeOpenMessage(CallState& state) {
    makeBareMessage(state);
    MessageObject_Open(state.m_Message, state.m_Stage.path().c_str());
}

void makeRequest(CallState& state) {
    makeFactory(state);
    MessageFactory_CreateRequest(state.m_Factory, "Probe", &state.m_Message);
    MessageObject_SetAttribute(state.m_Message, "TOKEN", "t1");
}

/// A request after another one was signed: the key lives on, the signature is a new one.
void makeSecondRequest(CallState& state) {
    makeRequest(state);
    MessageObject_GetURL(state.m_Message, &state.m_Size, nullptr);
    MessageObject_SetAttribute(state.m_Message, "TOKEN", "t2");
}

void removeCurrentKey(Stage& stage) {
    stage.remove("keys/current");
}

void removeOwnKey(Stage& stage) {
    stage.remove("keys/private/own");
}

/// Makes config.xml a symbolic link to the file "elsewhere".
void linkConfiguration(Stage& stage) {
    stage.write("elsewhere", stage.read("config.xml"));
    stage.remove("config.xml");
    std::filesystem::create_symlink(stage.path() + "/elsewhere", stage.path() + "/config.xml");
}

void replaceInConfiguration(Stage& stage, std::string const& old, std::string const& fresh) {
    std::string text = stage.read("config.xml");
    text.replace(text.find(old), old.size(), fresh);
    stage.write("config.xml", text);
}

void captureOverTls(Stage& stage, std::uint16_t port) {
    replaceInConfiguration(stage, "http://127.0.0.1:7/capture",
                           "https://127.0.0.1:" + std::to_string(port) + "/capture");
}

void captureUnverified(Stage& stage) {
    captureOverTls(stage, g_TlsServers.m_Port);
}

/// Only the authorities of the file are trusted.
void writeTrust(Stage& stage) {
    stage.write("settings.xml", R"(<KVX TLSVERIFY="1" TLSCAFILE=")" + g_TlsServers.m_TrustFile + "\"/>");
}

void captureVerified(Stage& stage) {
    captureOverTls(stage, g_TlsServers.m_TrustedPort);
    writeTrust(stage);
}

void captureBySystem(Stage& stage) {
    captureOverTls(stage, g_TlsServers.m_TrustedPort);
    stage.write("settings.xml", R"(<KVX TLSVERIFY="1"/>)");
    ::setenv("SSL_CERT_FILE", g_TlsServers.m_TrustFile.c_str(), 1);
    ::setenv("SSL_CERT_DIR", stage.path().c_str(), 1);
}

void captureUntrusted(Stage& stage) {
    captureOverTls(stage, g_TlsServers.m_Port);
    writeTrust(stage);
}

void captureByName(Stage& stage) {
    replaceInConfiguration(stage, "127.0.0.1:7/capture", "localhost:7/capture");
}

void refuseCapture(Stage& stage) {
    replaceInConfiguration(stage, "/capture", "/refused");
}

void useProxy(Stage& stage) {
    stage.write("settings.xml", R"(<KVX USEPROXY="1" PROXYHOST="127.0.0.1" PROXYPORT="9"/>)");
}

void useStrictConfirmation(Stage& stage) {
    // The test account holds the private half of the key it verifies with only under the name "own".
    stage.write("settings.xml", R"(<KVX STRICTCONFIRM="1"/>)");
}

std::string wrongFile(CallState& state, char const* name) {
    Differences found;
    found.expect(name, state.m_Stage.read(name), kConfigWithNew);
    return found.text();
}

std::string wrongLinkedFile(CallState& state) {
    return wrongFile(state, "elsewhere");
}

std::string wrongPayInit(CallState& state) {
    struct {
        char const* m_Name;
        char const* m_Value;
    } const wanted[] = {
        {"MSGTYPE", "PayInit"},
        {"KEYID", "own"},
        {"ALLOWCOLLECT", "1"},
        {"DELIVERY", "2"},
        {"LANGID", "de"},
        {"SUCCESSLINK", "http://s"},
        {"NOTIFYADDRESS", "http://n"},
        {"DEFAULTVALIDITY", "5"},
        {"BACKLINK", "http://b"},
        {"FAILLINK", "http://f"},
    };
    Differences found;
    for (auto const& attribute : wanted) {
        found.expect(attribute.m_Name, attributeOf(state.m_Out, attribute.m_Name), attribute.m_Value);
    }
    std::string const token = attributeOf(state.m_Out, "TOKEN");
    found.require("no token: " + token, token.size() == 32 &&
                                            token.find_first_not_of("0123456789abcdef") == token.npos &&
                                            token.find_first_not_of('0') != token.npos);
    std::string const expiry = attributeOf(state.m_Out, "EXPIRATION");
    std::time_t const now = std::time(nullptr);
    found.require("it expires at " + expiry, expiry >= timeText(now + 3500) && expiry <= timeText(now + 3700));
    return found.text();
}

std::string wrongConfirmation(CallState& state) {
    Differences found;
    found.expect("MSGTYPE", attributeOf(state.m_Out, "MSGTYPE"), "PayConfirm");
    found.expect("TOKEN", attributeOf(state.m_Out, "TOKEN"), "t-1");
    found.expect("CONFIGPATH", attributeOf(state.m_Out, "CONFIGPATH"), state.m_Stage.path());
    return found.text();
}

std::string wrongCompletion(CallState& state) {
    Differences found;
    found.expect(
        "the message", textOf(state.m_Out),
        R"(<KVX MSGTYPE="PayComplete" KEYID="own" CONFIGPATH=")" + state.m_Stage.path() + R"(" ID="id1" TOKEN="t1"/>)");
    return found.text();
}

/// Whether `text` carries a message with a signature that the own key fits.
bool isSigned(CallState& state, std::string const& text) {
    KVX_Context context;
    context.Open(state.m_Stage.path().c_str());
    std::string const data = percentDecoded(queryValue(text, "DATA"));
    std::string const signature = queryValue(text, "SIGNATURE");
    try {
        context.VerifyData(data.c_str(), "own", signature.c_str());
        return true;
    } catch (KVX_Exception const&) {
        return false;
    }
}

std::string wrongUrl(CallState& state) {
    std::string const url = state.m_Buffer;
    Differences found;
    found.require("no payment URL: " + url, url.rfind("http://127.0.0.1:7/pay?DATA=%3cKVX%20MSGTYPE", 0) == 0);
    found.require("the signature does not fit", isSigned(state, url));
    return found.text();
}

std::string wrongSentRequest(CallState& state, std::string const& begin) {
    std::vector<std::string> const& requests = ScriptedNetwork::requests();
    if (requests.size() != 1) {
        return std::to_string(requests.size()) + " requests; ";
    }
    Differences found;
    std::string const& request = requests.front();
    found.require("another request: " + request, request.rfind("GET " + begin, 0) == 0);
    found.require("the header is cut", request.find("\r\nUserAgent: Tallowin") != std::string::npos);
    found.require("the signature does not fit", isSigned(state, request.substr(0, request.find(" HTTP/1.0"))));
    return found.text();
}

std::string wrongCapture(CallState& state) {
    return wrongSentRequest(state, "/capture?DATA=");
}

std::string wrongProxiedCapture(CallState& state) {
    return wrongSentRequest(state, "http://127.0.0.1:7/capture?DATA=");
}

std::string wrongResponse(CallState& state) {
    Differences found;
    found.expect("the response", textOf(state.m_Out), R"(<KVX MSGTYPE="ProbeResponse" ANSWER="42"/>)");
    return wrongSentRequest(state, "/capture?DATA=") + found.text();
}

std::string wrongSetup(CallState& state) {
    Differences found;
    found.expect("config.xml", state.m_Stage.read("config.xml"), kServedConfig);
    found.expect("default.xml", state.m_Stage.read("default.xml"), kServedDefaults);
    found.expect("the server's key", state.m_Stage.read("keys/public/server"), dataHex("rsa/key512.public.hex"));
    std::string const current = state.m_Stage.read("keys/current");
    found.require("the current key is " + current, current.rfind("0-c2-", 0) == 0);
    std::vector<std::string> const& requests = ScriptedNetwork::requests();
    found.require(std::to_string(requests.size()) + " requests", requests.size() == 4);
    std::string const blob = state.m_Stage.read("keys/public/" + current);
    found.require("another key was published",
                  !requests.empty() && !blob.empty() && requests.back().find(blob) != std::string::npos);
    return found.text();
}

std::string wrongDirectory(CallState& state) {
    char buffer[64] = {};
    std::int32_t size = sizeof buffer;
    Differences found;
    found.expect("reading",
                 codeText(ConfigurationSetup_GetAttribute(state.m_Setup, "config.xml", "VTKEYID", &size, buffer)), "0");
    found.expect("VTKEYID", buffer, "server");
    return found.text();
}

std::string wrongBuffer(CallState& state, std::string const& wanted) {
    Differences found;
    found.expect("the text", state.m_Buffer, wanted);
    return found.text();
}

std::string wrongMessage(CallState& state, std::string const& wanted) {
    Differences found;
    found.expect("the message", textOf(state.m_Message), wanted);
    return found.text();
}

std::int32_t codeOfHandle(KVX_HANDLE handle) {
    return handle == nullptr ? KVX_E_OUT_OF_MEMORY : KVX_OK;
}

std::int32_t verify(CallState& state, std::string const& data, std::string const& signature) {
    return MessageFactory_VerifyPayConfirm(state.m_Factory, data.c_str(), signature.c_str(), &state.m_Out);
}

std::int32_t reconfigure(CallState& state, char const* url) {
    return ConfigurationSetup_Reconfigure(state.m_Setup, url, "user", "password");
}

/// Built before the fault begins: the test's own texts are not under test.
std::string const& validSignature() {
    static std::string const text = dataHex("signing/confirm.signature.hex");
    return text;
}
std::string const& invalidSignature() {
    static std::string const text = [] {
        std::string changed = validSignature();
        changed.back() = changed.back() == '0' ? '1' : '0';
        return changed;
    }();
    return text;
}
std::string const& validConfirmation() {
    static std::string const text = confirmationText();
    return text;
}

void makeConfirmable(CallState& state) {
    validSignature();
    invalidSignature();
    validConfirmation();
    makeFactory(state);
}

std::vector<FlatCall> makeCalls() {
    using S = CallState;
    // clang-format off
    return {
        {"KVX_GetVersion", KVX_OK, nullptr, nullptr,
         [](S&) { return KVX_GetVersion() == nullptr ? KVX_E_UNEXPECTED : KVX_OK; }, nullptr},
        {"KVX_GetErrorName", KVX_OK, nullptr, nullptr,
         [](S&) { return KVX_GetErrorName(KVX_E_FILE_IO)[0] == 'K' ? KVX_OK : KVX_E_UNEXPECTED; }, nullptr},
        {"KVX_GetErrorStringFromResult", KVX_OK, nullptr, nullptr,
         [](S& s) { return KVX_GetErrorStringFromResult(KVX_E_FILE_IO, &s.m_Size, s.m_Buffer) == 1 ? KVX_OK : KVX_E_OUT_OF_MEMORY; },
         [](S& s) { return wrongBuffer(s, "file I/O error"); }},
        {"KVX_GetLastErrorText", KVX_OK, nullptr, nullptr,
         [](S& s) {
             std::int32_t const refused = MessageFactory_Open(nullptr, "");
             return refused == KVX_E_BAD_HANDLE ? KVX_GetLastErrorText(&s.m_Size, s.m_Buffer) : KVX_E_UNEXPECTED;
         }, nullptr},
        {"CreateConfigurationSetup", KVX_OK, nullptr, nullptr,
         [](S& s) { return codeOfHandle(s.m_Setup = CreateConfigurationSetup()); }, nullptr, true},
        {"DestroyConfigurationSetup", KVX_OK, nullptr, &makeSetup,
         [](S& s) { DestroyConfigurationSetup(s.m_Setup); return KVX_OK; }, nullptr},
        {"ConfigurationSetup_SetConfiguration", KVX_OK, nullptr, &makeBareSetup,
         [](S& s) { return ConfigurationSetup_SetConfiguration(s.m_Setup, s.m_Stage.path().c_str()); }, &wrongDirectory},
        {"ConfigurationSetup_SetConfiguration (current directory)", KVX_OK,
         [](Stage& stage) { std::filesystem::current_path(stage.path()); }, &makeBareSetup,
         [](S& s) { return ConfigurationSetup_SetConfiguration(s.m_Setup, ""); }, &wrongDirectory},
        {"ConfigurationSetup_SetConfiguration (new directory)", KVX_OK,
         [](Stage& stage) { std::filesystem::current_path(stage.path()); }, &makeBareSetup,
         [](S& s) { return ConfigurationSetup_SetConfiguration(s.m_Setup, "made"); },
         [](S&) -> std::string { return std::filesystem::is_directory("made") ? "" : "no directory; "; }},
        {"ConfigurationSetup_SetConfiguration (no parent)", ENOENT, nullptr, &makeBareSetup,
         [](S& s) { return ConfigurationSetup_SetConfiguration(s.m_Setup, "/no/such/place"); }, nullptr},
        {"ConfigurationSetup_Reconfigure", KVX_OK, nullptr, &makeSetup,
         [](S& s) { return reconfigure(s, "http://127.0.0.1:7/auto"); }, &wrongSetup},
        {"ConfigurationSetup_Reconfigure (new account)", KVX_OK,
         [](Stage& stage) { std::filesystem::remove_all(stage.path() + "/keys"); stage.remove("config.xml"); stage.remove("default.xml"); },
         &makeSetup, [](S& s) { return reconfigure(s, "http://127.0.0.1:7/auto"); }, &wrongSetup},
        {"ConfigurationSetup_Reconfigure (no address)", KVX_E_NO_CONFIGURATION, nullptr, &makeSetup,
         [](S& s) { return reconfigure(s, ""); }, nullptr},
        {"ConfigurationSetup_SetOption", KVX_OK, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetOption(s.m_Setup, "UserName", "a name longer than the string keeps in reserve"); }, nullptr},
        {"ConfigurationSetup_SetOption (unknown)", KVX_E_INVALID_OPTION, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetOption(s.m_Setup, "Nonsense", "1"); }, nullptr},
        {"ConfigurationSetup_GetAttribute", KVX_OK, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_GetAttribute(s.m_Setup, "config.xml", "VTKEYID", &s.m_Size, s.m_Buffer); },
         [](S& s) { return wrongBuffer(s, "server"); }},
        {"ConfigurationSetup_GetAttribute (no file)", KVX_E_CANNOT_OPEN, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_GetAttribute(s.m_Setup, "missing.xml", "VTKEYID", &s.m_Size, s.m_Buffer); }, nullptr},
        {"ConfigurationSetup_SetAttribute", KVX_OK, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetAttribute(s.m_Setup, "config.xml", "NEW", "1"); },
         [](S& s) { return wrongFile(s, "config.xml"); }},
        {"ConfigurationSetup_SetAttribute (symbolic link)", KVX_OK, &linkConfiguration, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetAttribute(s.m_Setup, "config.xml", "NEW", "1"); }, &wrongLinkedFile},
        {"ConfigurationSetup_SetAttribute (left-over)", KVX_OK,
         [](Stage& stage) { stage.write(".tallowin-1-0.tmp", "cut"); }, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetAttribute(s.m_Setup, "config.xml", "NEW", "1"); },
         [](S& s) { return wrongFile(s, "config.xml"); }},
        {"ConfigurationSetup_SetAttribute (no file)", KVX_E_CANNOT_OPEN, nullptr, &makeSetup,
         [](S& s) { return ConfigurationSetup_SetAttribute(s.m_Setup, "missing.xml", "NEW", "1"); }, nullptr},
        {"CreateMessageFactory", KVX_OK, nullptr, nullptr,
         [](S& s) { return codeOfHandle(s.m_Factory = CreateMessageFactory()); }, nullptr, true},
        {"DestroyMessageFactory", KVX_OK, nullptr, &makeFactory,
         [](S& s) { DestroyMessageFactory(s.m_Factory); return KVX_OK; }, nullptr},
        {"MessageFactory_Open", KVX_OK, nullptr, &makeBareFactory,
         [](S& s) { return MessageFactory_Open(s.m_Factory, s.m_Stage.path().c_str()); },
         [](S& s) { MessageFactory_CreateRequest(s.m_Factory, "Probe", &s.m_Out);
                    return attributeOf(s.m_Out, "KEYID") == "own" ? "" : std::string("another directory; "); }},
        {"MessageFactory_CreatePayInit", KVX_OK, nullptr, &makeFactory,
         [](S& s) { return MessageFactory_CreatePayInit(s.m_Factory, &s.m_Out); }, &wrongPayInit},
        {"MessageFactory_CreatePayInit (not set up)", KVX_E_CANNOT_OPEN, &removeCurrentKey, &makeFactory,
         [](S& s) { return MessageFactory_CreatePayInit(s.m_Factory, &s.m_Out); }, nullptr},
        {"MessageFactory_VerifyPayConfirm", KVX_OK, nullptr, &makeConfirmable,
         [](S& s) { return verify(s, validConfirmation(), validSignature()); }, &wrongConfirmation},
        {"MessageFactory_VerifyPayConfirm (strict)", KVX_OK, &useStrictConfirmation, &makeConfirmable,
         [](S& s) { return verify(s, validConfirmation(), validSignature()); }, &wrongConfirmation},
        {"MessageFactory_VerifyPayConfirm (own key, strict)", KVX_E_INVALID_SIGNATURE,
         [](Stage& stage) { useStrictConfirmation(stage); stage.write("keys/private/server", stage.read("keys/private/own")); },
         &makeConfirmable, [](S& s) { return verify(s, validConfirmation(), validSignature()); }, nullptr},
        {"MessageFactory_VerifyPayConfirm (bad signature)", KVX_E_INVALID_SIGNATURE, nullptr, &makeConfirmable,
         [](S& s) { return verify(s, validConfirmation(), invalidSignature()); }, nullptr},
        {"MessageFactory_VerifyPayConfirm (no document)", KVX_E_INVALID_FORMAT, nullptr, &makeConfirmable,
         [](S& s) { return MessageFactory_VerifyPayConfirm(s.m_Factory, "<KVX", "00", &s.m_Out); }, nullptr},
        {"MessageFactory_CreatePayComplete", KVX_OK, nullptr, &makeFactory,
         [](S& s) { return MessageFactory_CreatePayComplete(s.m_Factory, "id1", "t1", &s.m_Out); }, &wrongCompletion},
        {"MessageFactory_CreateRequest", KVX_OK, nullptr, &makeFactory,
         [](S& s) { return MessageFactory_CreateRequest(s.m_Factory, "Probe", &s.m_Out); },
         [](S& s) { return textOf(s.m_Out) == R"(<KVX MSGTYPE="Probe" KEYID="own"/>)" ? "" : "wrong: " + textOf(s.m_Out); }},
        {"MessageFactory_CreateRequest (no type)", KVX_E_NO_MESSAGE_TYPE, nullptr, &makeFactory,
         [](S& s) { return MessageFactory_CreateRequest(s.m_Factory, "", &s.m_Out); }, nullptr},
        {"CreateMessageObject", KVX_OK, nullptr, nullptr,
         [](S& s) { return codeOfHandle(s.m_Message = CreateMessageObject()); }, nullptr, true},
        {"DestroyMessageObject", KVX_OK, nullptr, &makeRequest,
         [](S& s) { DestroyMessageObject(s.m_Message); return KVX_OK; }, nullptr},
        {"MessageObject_Open", KVX_OK, nullptr, &makeBareMessage,
         [](S& s) { return MessageObject_Open(s.m_Message, s.m_Stage.path().c_str()); },
         [](S& s) { return wrongMessage(s, R"(<KVX MSGTYPE="ERROR" KEYID="own"/>)"); }},
        {"MessageObject_Open (not set up)", KVX_E_CANNOT_OPEN, &removeCurrentKey, &makeBareMessage,
         [](S& s) { return MessageObject_Open(s.m_Message, s.m_Stage.path().c_str()); }, nullptr},
        {"MessageObject_SetAttribute", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_SetAttribute(s.m_Message, "AMOUNT", "12.50"); },
         [](S& s) { return wrongMessage(s, R"(<KVX MSGTYPE="Probe" KEYID="own" TOKEN="t1" AMOUNT="12.50"/>)"); }},
        {"MessageObject_SetAttribute (long value)", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_SetAttribute(s.m_Message, "DESCRIPTION", kLongValue.c_str()); },
         [](S& s) {
             return wrongMessage(s, R"(<KVX MSGTYPE="Probe" KEYID="own" TOKEN="t1" DESCRIPTION=")" + kLongValue + "\"/>");
         }},
        {"MessageObject_SetAttribute (odd name)", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_SetAttribute(s.m_Message, "A B", "1"); },
         [](S& s) { return wrongMessage(s, R"(<KVX MSGTYPE="Probe" KEYID="own" TOKEN="t1" A B="1"/>)"); }},
        {"MessageObject_GetAttribute", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_GetAttribute(s.m_Message, "TOKEN", &s.m_Size, s.m_Buffer); },
         [](S& s) { return wrongBuffer(s, "t1"); }},
        {"MessageObject_GetAttribute (no attribute)", KVX_E_NOT_FOUND, nullptr, &makeRequest,
         [](S& s) { return MessageObject_GetAttribute(s.m_Message, "NONE", &s.m_Size, s.m_Buffer); }, nullptr},
        {"MessageObject_GetURL", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_GetURL(s.m_Message, &s.m_Size, s.m_Buffer); }, &wrongUrl},
        {"MessageObject_GetURL (kept key)", KVX_OK, nullptr, &makeSecondRequest,
         [](S& s) { return MessageObject_GetURL(s.m_Message, &s.m_Size, s.m_Buffer); }, &wrongUrl},
        {"MessageObject_GetURL (no key)", KVX_E_NOT_FOUND, &removeOwnKey, &makeRequest,
         [](S& s) { return MessageObject_GetURL(s.m_Message, &s.m_Size, s.m_Buffer); }, nullptr},
        {"MessageObject_GetURL (not outgoing)", KVX_E_UNEXPECTED, nullptr, &makeOpenMessage,
         [](S& s) { return MessageObject_GetURL(s.m_Message, &s.m_Size, s.m_Buffer); }, nullptr},
        {"MessageObject_Capture", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, &wrongCapture},
        {"MessageObject_Capture (host name)", KVX_OK, &captureByName, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, &wrongCapture},
        {"MessageObject_Capture (proxy)", KVX_OK, &useProxy, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, &wrongProxiedCapture},
        {"MessageObject_Capture (server error)", KVX_E_SERVER_ERROR, &refuseCapture, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, nullptr},
        {"MessageObject_Capture (TLS)", KVX_OK, &captureUnverified, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, nullptr, false, CallNetwork::kTls},
        {"MessageObject_Capture (TLS, verified)", KVX_OK, &captureVerified, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, nullptr, false, CallNetwork::kTls},
        {"MessageObject_Capture (TLS, system's authorities)", KVX_OK, &captureBySystem, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, nullptr, false, CallNetwork::kTls},
        {"MessageObject_Capture (TLS, not trusted)", KVX_E_TLS_FAMILY | kKvxTlsCertificate | X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
         &captureUntrusted, &makeRequest,
         [](S& s) { return MessageObject_Capture(s.m_Message); }, nullptr, false, CallNetwork::kTls},
        {"MessageObject_Execute", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_Execute(s.m_Message, &s.m_Out); }, &wrongResponse, true},
        {"MessageObject_Execute (server error)", KVX_E_SERVER_ERROR, &refuseCapture, &makeOpenMessage,
         [](S& s) { return MessageObject_Execute(s.m_Message, &s.m_Out); }, nullptr},
        {"MessageObject_FromString", KVX_OK, nullptr, &makeOpenMessage,
         [](S& s) { return MessageObject_FromString(s.m_Message, kRequestText); },
         [](S& s) { return wrongMessage(s, R"(<KVX MSGTYPE="PayInit" AMOUNT="12.50" KEYID="own"/>)"); }},
        {"MessageObject_FromString (no document)", KVX_E_INVALID_FORMAT, nullptr, &makeOpenMessage,
         [](S& s) { return MessageObject_FromString(s.m_Message, "<KVX"); }, nullptr},
        {"MessageObject_ToString", KVX_OK, nullptr, &makeRequest,
         [](S& s) { return MessageObject_ToString(s.m_Message, &s.m_Size, s.m_Buffer); },
         [](S& s) { return wrongBuffer(s, R"(<KVX MSGTYPE="Probe" KEYID="own" TOKEN="t1"/>)"); }},
        {"MessageObject_ToString (no message)", KVX_E_UNEXPECTED, nullptr, &makeBareMessage,
         [](S& s) { return MessageObject_ToString(s.m_Message, &s.m_Size, s.m_Buffer); }, nullptr},
    };
    // clang-format on
}

}  // namespace

CallState::~CallState() {
    clearOutputs();
    DestroyMessageObject(m_Message);
    DestroyMessageFactory(m_Factory);
    DestroyConfigurationSetup(m_Setup);
}

void CallState::clearOutputs() {
    DestroyMessageObject(m_Out);
    m_Out = nullptr;
    m_Size = sizeof m_Buffer;
    std::memset(m_Buffer, 0, sizeof m_Buffer);
}

std::vector<FlatCall> const& flatCalls() {
    static std::vector<FlatCall> const calls = makeCalls();
    return calls;
}

std::map<std::string, std::set<std::string>> const& newTexts() {
    static std::map<std::string, std::set<std::string>> const texts = {
        {"config.xml", {kConfigWithNew, kServedConfig}},
        {"elsewhere", {kConfigWithNew}},
        {"default.xml", {kServedDefaults}},
    };
    return texts;
}

void setTlsServers(TlsServers const& servers) {
    g_TlsServers = servers;
}

std::string codeText(std::int32_t code) {
    char text[32];
    std::snprintf(text, sizeof text, code < 0 ? "0x%08X" : "%d", static_cast<unsigned>(code));
    return text;
}

}  // namespace kvxtest
