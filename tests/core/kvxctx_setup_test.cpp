// The four exchanges of a set-up, one by one and as a whole.
//
// A scripted server responses each request; requests, traces and the files of the directory are compared. Failures are
// tried at every exchange. Odd: an imported key is stored under the identifier that the response names.

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "tests/core/coresupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

constexpr char kSetupResponse[] = "<KVX MSGTYPE=\"SetupResponse\" VERSION=\"7\" VTKEYID=\"vt-1\" CUSTOMERID=\"4711\"/>";
constexpr char kDefaultsResponse[] = "<KVX MSGTYPE=\"LoadDefaultsResponse\" KVX.ISVALID=\"yes\"/>\n";
constexpr char kKeyResponse[] = "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"vt-1\" KEYBLOB=\"3048\"/>";
constexpr char kExportResponse[] = "<KVX MSGTYPE=\"KeyExportResponse\"/>";
constexpr char kError[] = "<KVX MSGTYPE=\"Error\" MESSAGE=\"not today\"/>";

/// The whole request that carries `message` to `path`.
std::string requestWith(std::string const& path, std::string const& message, char const* credentials = "OgAA") {
    return "GET " + path + "?DATA=" + percentEncoded(message) + " HTTP/1.0\r\nAuthorization: Basic " + credentials +
           "\r\nUserAgent: Tallowin Application Component 1.0\r\n\r\n";
}

/// An account whose option names the server.
struct Configured : Account {
    explicit Configured(ExchangeServer const& server) { m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str()); }
};

/// The records of the core's own events, network and exceptions left out.
std::vector<std::string> eventsOf(TraceRecorder const& recorder) {
    std::vector<std::string> events;
    for (TraceRecorder::Record const& record : recorder.records()) {
        if (record.m_File == "kvxctx" && record.m_Event != "EXCEPTION") {
            events.push_back(record.m_Event + ":" + record.m_Detail);
            EXPECT_EQ(record.m_Code, KVX_OK);
        }
    }
    return events;
}

using Operation = void (*)(KVX_Context&);

void setup(KVX_Context& context) {
    context.Setup();
}
void loadDefaults(KVX_Context& context) {
    context.LoadDefaults();
}
void importKey(KVX_Context& context) {
    TbString keyId("vt-1");
    context.ImportKey(keyId);
}
void publishKey(KVX_Context& context) {
    TbString keyId("own");
    context.PublishKey(keyId);
}

struct Exchange {
    char const* m_Name;
    Operation m_Run;
    char const* m_Response;
    char const* m_ExpectedType;
    std::int32_t m_CodeWithoutEndpoint;
    char const* m_TextWithoutEndpoint;
    char const* m_Written;
};

Exchange const kExchanges[] = {
    {"Setup", &setup, kSetupResponse, "SetupResponse", KVX_E_NO_CONFIGURATION, "no configuration found", "config.xml"},
    {"LoadDefaults", &loadDefaults, kDefaultsResponse, "LoadDefaultsResponse", KVX_E_NO_ENDPOINT, "no endpoint",
     "default.xml"},
    {"ImportKey", &importKey, kKeyResponse, "KeyQueryResponse", KVX_E_NO_CONFIGURATION, "no configuration found",
     "keys/public/vt-1"},
    {"PublishKey", &publishKey, kExportResponse, "KeyExportResponse", KVX_E_NO_ENDPOINT, "no endpoint", "keys/current"},
};

/// Writes the files that every exchange needs.
void prepare(Account const& account) {
    account.write("keys/public/own", "30480241");
    std::filesystem::create_directories(account.m_Dir.file("keys/private"));
}

TEST(Setup, SendsItsVersionAndStoresTheWholeAnswer) {
    std::string const body = "\r\n " + std::string(kSetupResponse) + "\ntrailing & text";
    ExchangeServer server({body});
    Configured account(server);
    TraceRecorder const recorder;
    account.m_Context.Setup();
    EXPECT_EQ(account.read("config.xml"), body);
    EXPECT_EQ(eventsOf(recorder), std::vector<std::string>{"UPDATE:" + account.m_Dir.file("config.xml")});
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{requestWith("/auto", "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>")});
}

TEST(Setup, SendsTheVersionOfTheConfiguration) {
    struct Case {
        char const* m_Configuration;
        char const* m_Version;
    };
    Case const cases[] = {{"<KVX VERSION=\"42\"/>", "42"},
                          {"<KVX VERSION=\"\"/>", "0"},
                          {"<KVX/>", "0"},
                          {"<KVX VERSION=\"a&amp;b\"/>", "a&amp;b"}};
    for (Case const& row : cases) {
        ExchangeServer server({kSetupResponse});
        Configured account(server);
        account.write("config.xml", row.m_Configuration);
        account.m_Context.Setup();
        EXPECT_EQ(server.messages(), std::vector<std::string>{std::string("<KVX MSGTYPE=\"SetupRequest\" VERSION=\"") +
                                                              row.m_Version + "\"/>"});
    }
}

TEST(Setup, SendsCredentialsInTheAuthority) {
    ExchangeServer server({kSetupResponse});
    Configured account(server);
    account.m_Context.SetOption("UserName", "alice");
    account.m_Context.SetOption("Password", "pw");
    account.m_Context.Setup();
    EXPECT_EQ(server.requests(), std::vector<std::string>{requestWith(
                                     "/auto", "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>", "YWxpY2U6cHcA")});
}

TEST(LoadDefaults, StoresTheWholeAnswerAndTraces) {
    ExchangeServer server({kDefaultsResponse});
    Configured account(server);
    TraceRecorder const recorder;
    account.m_Context.LoadDefaults();
    EXPECT_EQ(account.read("default.xml"), kDefaultsResponse);
    EXPECT_EQ(eventsOf(recorder),
              (std::vector<std::string>{"UPDATE:" + account.m_Dir.file("default.xml"), "LOAD DEFAULTS:"}));
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{requestWith("/auto", "<KVX MSGTYPE=\"LoadDefaultsRequest\"/>")});
}

TEST(ImportKey, StoresTheKeyAndTraces) {
    ExchangeServer server({"<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"vt-1\" KEYBLOB=\"30&lt;48\"/>"});
    Configured account(server);
    prepare(account);
    TraceRecorder const recorder;
    TbString keyId("vt-1");
    account.m_Context.ImportKey(keyId);
    EXPECT_EQ(bytesOf(keyId), "vt-1");
    EXPECT_EQ(account.read("keys/public/vt-1"), "30<48");
    EXPECT_EQ(eventsOf(recorder),
              (std::vector<std::string>{"UPDATE:" + account.m_Dir.file("keys/public/vt-1"), "IMPORT:"}));
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{requestWith("/auto", "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"vt-1\"/>")});
}

TEST(ImportKey, StoresTheKeyUnderTheAnsweredIdentifier) {
    ExchangeServer server({"<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"vt-2\" KEYBLOB=\"3048\"/>"});
    Configured account(server);
    prepare(account);
    TbString keyId("vt-1");
    account.m_Context.ImportKey(keyId);
    EXPECT_EQ(bytesOf(keyId), "vt-2");
    EXPECT_EQ(account.filesIn("keys/public"), (std::vector<std::string>{"own", "vt-2"}));
    EXPECT_EQ(account.read("keys/public/vt-2"), "3048");
}

TEST(ImportKey, TakesAbsentAttributesAsAskedAndAsEmpty) {
    ExchangeServer server({"<KVX MSGTYPE=\"KeyQueryResponse\"/>"});
    Configured account(server);
    prepare(account);
    TbString keyId("vt-1");
    account.m_Context.ImportKey(keyId);
    EXPECT_EQ(bytesOf(keyId), "vt-1");
    EXPECT_EQ(account.read("keys/public/vt-1"), "");
}

TEST(ImportKey, CannotOpenAFileOutsideTheKeyDirectory) {
    for (char const* answered : {"../x", "a/b", "/tmp/x", ".", "..", "", "../private/own", "x/"}) {
        ExchangeServer server(
            {std::string("<KVX MSGTYPE=\"KeyQueryResponse\" KEYBLOB=\"3048\" KEYID=\"") + answered + "\"/>"});
        Configured account(server);
        prepare(account);
        std::filesystem::create_directories(account.m_Dir.file("keys/public/a"));
        TraceRecorder const recorder;
        TbString keyId("vt-1");
        Thrown const failure = thrown([&] { account.m_Context.ImportKey(keyId); });
        EXPECT_EQ(failure.m_Code, KVX_E_FILE_NOT_FOUND) << answered;
        EXPECT_EQ(failure.m_Text, "file not found");
        EXPECT_EQ(failure.m_File, "kvxctx");
        EXPECT_EQ(failure.m_Line, 205);
        EXPECT_TRUE(eventsOf(recorder).empty());
        EXPECT_EQ(account.filesIn("keys/public"), (std::vector<std::string>{"a", "own"}));
        EXPECT_TRUE(account.filesIn("keys/public/a").empty());
        EXPECT_TRUE(account.filesIn("keys/private").empty());
        EXPECT_EQ(account.filesIn("keys"), (std::vector<std::string>{"private", "public"}));
    }
}

TEST(PublishKey, SendsThePublicHalfAndMakesTheKeyCurrent) {
    ExchangeServer server({kExportResponse});
    Configured account(server);
    prepare(account);
    account.write("keys/current", "old");
    account.write("keys/public/own", "30\n<48>");
    TraceRecorder const recorder;
    TbString keyId("own");
    account.m_Context.PublishKey(keyId);
    EXPECT_EQ(account.read("keys/current"), "own");
    EXPECT_EQ(eventsOf(recorder),
              (std::vector<std::string>{"UPDATE:" + account.m_Dir.file("keys/current"), "PUBLISH:"}));
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{requestWith(
                  "/auto", "<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"own\" KEYBLOB=\"30\n&lt;48&gt;\"/>")});
}

TEST(PublishKey, SendsNothingWithoutTheKeyFile) {
    ExchangeServer server({kExportResponse});
    Configured account(server);
    prepare(account);
    for (char const* name : {"missing", "", "."}) {
        TbString keyId(name);
        Thrown const failure = thrown([&] { account.m_Context.PublishKey(keyId); });
        EXPECT_EQ(failure.m_Code, KVX_E_KEY_NOT_FOUND) << name;
        EXPECT_EQ(failure.m_Text, "the requested key was not found");
        EXPECT_EQ(failure.m_File, "kvxctx");
    }
    EXPECT_FALSE(account.exists("keys/current"));
    EXPECT_TRUE(server.requests().empty());
}

TEST(PublishKey, LooksForTheEndpointBeforeTheKeyFile) {
    Account account;
    TbString keyId("missing");
    EXPECT_EQ(thrownCode([&] { account.m_Context.PublishKey(keyId); }), KVX_E_NO_ENDPOINT);
    account.m_Context.SetOption("VTAUTOURL", "http://127.0.0.1:1/");
    EXPECT_EQ(thrownCode([&] { account.m_Context.PublishKey(keyId); }), KVX_E_KEY_NOT_FOUND);
}

TEST(Exchanges, FailWithTheirOwnCodeWithoutAnEndpoint) {
    for (Exchange const& exchange : kExchanges) {
        for (char const* configuration :
             {"", "<KVX/>", "<KVX KVX.VTAUTOURL=\"\"/>", "<KVX VTAUTOURL=\"http://x/\"/>"}) {
            Account account;
            prepare(account);
            if (configuration[0] != '\0') {
                account.write("config.xml", configuration);
            }
            account.m_Context.SetOption("VTAUTOURL", "");
            Thrown const failure = thrown([&] { exchange.m_Run(account.m_Context); });
            EXPECT_EQ(failure.m_Code, exchange.m_CodeWithoutEndpoint) << exchange.m_Name << configuration;
            EXPECT_EQ(failure.m_Text, exchange.m_TextWithoutEndpoint);
            EXPECT_EQ(failure.m_File, "kvxctx");
        }
    }
}

TEST(Exchanges, ReadTheEndpointFromTheConfigurationUnlessTheOptionNamesOne) {
    for (Exchange const& exchange : kExchanges) {
        ExchangeServer server({exchange.m_Response});
        Account account;
        prepare(account);
        std::string const configuration = "<KVX KVX.VTAUTOURL=\"" + server.url("/configured") + "\"/>";
        account.write("config.xml", configuration);
        exchange.m_Run(account.m_Context);
        account.write("config.xml", configuration);
        account.m_Context.SetOption("VTAUTOURL", server.url("/option").c_str());
        exchange.m_Run(account.m_Context);
        ASSERT_EQ(server.requests().size(), 2U) << exchange.m_Name;
        EXPECT_EQ(server.requests()[0].rfind("GET /configured?DATA=", 0), 0U);
        EXPECT_EQ(server.requests()[1].rfind("GET /option?DATA=", 0), 0U);
    }
}

TEST(Exchanges, AreNotSigned) {
    for (Exchange const& exchange : kExchanges) {
        ExchangeServer server({exchange.m_Response});
        Configured account(server);
        prepare(account);
        exchange.m_Run(account.m_Context);
        EXPECT_EQ(server.requests().at(0).find("SIGNATURE"), std::string::npos) << exchange.m_Name;
    }
}

TEST(Exchanges, PassAMalformedConfiguration) {
    for (Exchange const& exchange : kExchanges) {
        Account account;
        prepare(account);
        account.write("config.xml", "<KVX");
        EXPECT_EQ(thrownCode([&] { exchange.m_Run(account.m_Context); }), KVX_E_INVALID_FORMAT) << exchange.m_Name;
    }
}

TEST(Exchanges, RefuseAnUnopenedContext) {
    for (Exchange const& exchange : kExchanges) {
        KVX_Context context;
        Thrown const failure = thrown([&] { exchange.m_Run(context); });
        EXPECT_EQ(failure.m_Code, KVX_E_NO_CONTEXT) << exchange.m_Name;
        EXPECT_EQ(failure.m_Line, 71);
    }
}

TEST(Exchanges, RefuseABaseAddressWithoutScheme) {
    for (Exchange const& exchange : kExchanges) {
        Account account;
        prepare(account);
        account.m_Context.SetOption("VTAUTOURL", "127.0.0.1/auto");
        EXPECT_EQ(thrownCode([&] { exchange.m_Run(account.m_Context); }), KVX_E_INVALID_URL) << exchange.m_Name;
    }
}

TEST(Exchanges, KeepNeedingASlashBehindTheHost) {
    for (Exchange const& exchange : kExchanges) {
        Account account;
        prepare(account);
        account.m_Context.SetOption("VTAUTOURL", "http://127.0.0.1");
        EXPECT_EQ(thrownCode([&] { exchange.m_Run(account.m_Context); }), KVX_E_HTTP_NAME_LOOKUP) << exchange.m_Name;
    }
}

TEST(Exchanges, WriteAndTraceNothingUnlessTheAnswerIsRight) {
    struct Case {
        std::string m_Response;
        std::int32_t m_Code;
        std::string m_Text;
    };
    Case const cases[] = {
        {kError, KVX_E_SERVER_ERROR, "the request failed (not today)"},
        {"<KVX MSGTYPE=\"Other\"/>", KVX_E_WRONG_RESPONSE,
         "request failed (Response MSGTYPE: received 'Other', expected '%')"},
        {"<KVX/>", KVX_E_WRONG_RESPONSE, "request failed (Response MSGTYPE: received '', expected '%')"},
        {"", KVX_E_INVALID_FORMAT, "invalid file format"},
        {"<html>", KVX_E_INVALID_FORMAT, "invalid file format"},
        {"<html></html>", KVX_E_INVALID_FORMAT, "invalid file format"},
        {"<?xml version=\"1.0\"?><KVX MSGTYPE=\"SetupResponse\"/>", KVX_E_INVALID_FORMAT, "invalid file format"},
        {"HTTP/1.0 404 Not Found\r\n\r\n", KVX_E_HTTP_NOT_FOUND, "URL resource not found"},
        {"HTTP/1.0 503 Busy\r\n\r\n" + std::string(kError), KVX_E_HTTP_UNAVAILABLE, "server temporarily unavailable"},
        {"HTTP/1.0 200 OK\r\n", KVX_E_HTTP_BAD_REPLY, "ErrorCode = 0x80042022"},
    };
    for (Exchange const& exchange : kExchanges) {
        for (Case const& row : cases) {
            ExchangeServer server({row.m_Response});
            Configured account(server);
            prepare(account);
            account.write(exchange.m_Written, "<KVX A=\"old\"/>");
            TraceRecorder const recorder;
            Thrown const failure = thrown([&] { exchange.m_Run(account.m_Context); });
            std::string text = row.m_Text;
            if (text.find('%') != std::string::npos) {
                text.replace(text.find('%'), 1, exchange.m_ExpectedType);
            }
            EXPECT_EQ(failure.m_Code, row.m_Code) << exchange.m_Name << ": " << row.m_Response;
            EXPECT_EQ(failure.m_Text, text) << exchange.m_Name << ": " << row.m_Response;
            EXPECT_TRUE(eventsOf(recorder).empty());
            EXPECT_EQ(account.read(exchange.m_Written), "<KVX A=\"old\"/>");
        }
    }
}

TEST(Exchanges, FailWhenNobodyAnswers) {
    ClosedPort const port;
    for (Exchange const& exchange : kExchanges) {
        Account account;
        prepare(account);
        account.m_Context.SetOption("VTAUTOURL", ("http://127.0.0.1:" + port.text() + "/auto").c_str());
        Thrown const failure = thrown([&] { exchange.m_Run(account.m_Context); });
        EXPECT_EQ(failure.m_Code, KVX_E_SOCKET_REFUSED) << exchange.m_Name;
        EXPECT_EQ(failure.m_Text, "connection refused (failed to connect to host)");
    }
}

TEST(Exchanges, TraceNothingWhenTheAnswerCannotBeStored) {
    for (Exchange const& exchange : kExchanges) {
        ExchangeServer server({exchange.m_Response});
        Configured account(server);
        prepare(account);
        SystemCalls calls;
        calls->fsync = [](int) {
            errno = EIO;
            return -1;
        };
        TraceRecorder const recorder;
        Thrown const failure = thrown([&] { exchange.m_Run(account.m_Context); });
        EXPECT_EQ(failure.m_Code, KVX_E_FILE_IO) << exchange.m_Name;
        EXPECT_EQ(failure.m_Line, 212);
        EXPECT_TRUE(eventsOf(recorder).empty());
    }
}

TEST(Exchanges, AcceptBytesAbove127InAnAnswer) {
    std::string const body = "<KVX MSGTYPE=\"SetupResponse\" NAME=\"Caf\xE9 \xC3\xA9\"/>";
    ExchangeServer server({body});
    Configured account(server);
    account.m_Context.Setup();
    EXPECT_EQ(account.read("config.xml"), body);
}

/// A server for a whole set-up with these responses, some of which a test replaces.
struct Responses {
    std::string m_Setup = kSetupResponse;
    std::string m_Defaults = kDefaultsResponse;
    std::string m_Key = kKeyResponse;
    std::string m_Exported = kExportResponse;

    [[nodiscard]] std::vector<std::string> all() const { return {m_Setup, m_Defaults, m_Key, m_Exported}; }
    [[nodiscard]] std::vector<std::string> withoutDefaults() const { return {m_Setup, m_Key, m_Exported}; }
};

std::vector<std::string> typesOf(std::vector<std::string> const& messages) {
    std::vector<std::string> types;
    for (std::string const& message : messages) {
        std::size_t const begin = message.find("MSGTYPE=\"") + 9;
        types.push_back(message.substr(begin, message.find('"', begin) - begin));
    }
    return types;
}

TEST(Reconfigure, BringsAnEmptyDirectoryIntoWorkingOrder) {
    ExchangeServer server(Responses().all());
    Configured account(server);
    TraceRecorder const recorder;
    account.m_Context.Reconfigure();

    std::string const keyId = account.read("keys/current");
    ASSERT_EQ(keyId.size(), 7 + 32U) << keyId;
    EXPECT_EQ(keyId.substr(0, 7), "0-4711-");
    EXPECT_EQ(keyId.find_first_not_of("0123456789abcdef", 7), std::string::npos);
    EXPECT_EQ(account.filesIn(""), (std::vector<std::string>{"config.xml", "default.xml", "keys"}));
    EXPECT_EQ(account.filesIn("keys"), (std::vector<std::string>{"current", "private", "public"}));
    EXPECT_EQ(account.filesIn("keys/private"), std::vector<std::string>{keyId});
    EXPECT_EQ(account.filesIn("keys/public"), (std::vector<std::string>{keyId, "vt-1"}));
    EXPECT_EQ(account.read("config.xml"), kSetupResponse);
    EXPECT_EQ(account.read("default.xml"), kDefaultsResponse);
    EXPECT_EQ(account.read("keys/public/vt-1"), "3048");

    std::string const update = "UPDATE:" + account.m_Dir.path() + "/";
    EXPECT_EQ(eventsOf(recorder),
              (std::vector<std::string>{"START RECONFIGURE:", update + "config.xml", update + "default.xml",
                                        "LOAD DEFAULTS:", update + "keys/public/vt-1",
                                        "IMPORT:", update + "keys/public/" + keyId, update + "keys/private/" + keyId,
                                        update + "keys/current", "PUBLISH:", "RECONFIGURE OK:"}));
    EXPECT_EQ(server.requests(),
              (std::vector<std::string>{
                  requestWith("/auto", "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"0\"/>"),
                  requestWith("/auto", "<KVX MSGTYPE=\"LoadDefaultsRequest\"/>"),
                  requestWith("/auto", "<KVX MSGTYPE=\"KeyQueryRequest\" KEYID=\"vt-1\"/>"),
                  requestWith("/auto", "<KVX MSGTYPE=\"KeyExportRequest\" KEYID=\"" + keyId + "\" KEYBLOB=\"" +
                                           account.read("keys/public/" + keyId) + "\"/>")}));
}

TEST(Reconfigure, WritesEachResultBeforeItAsksForTheNext) {
    std::vector<std::string> seen;
    Account account;
    ExchangeServer server(Responses().all(), [&](std::size_t) {
        std::string state;
        for (char const* name : {"config.xml", "default.xml", "keys/public/vt-1", "keys/current"}) {
            state += account.exists(name) ? 'x' : '-';
        }
        state += account.exists("keys/private") ? std::to_string(account.filesIn("keys/private").size()) : "?";
        seen.push_back(state);
    });
    account.m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
    account.m_Context.Reconfigure();
    EXPECT_EQ(server.requests().size(), 4U);
    EXPECT_EQ(seen, (std::vector<std::string>{"----0", "x---0", "xx--0", "xxx-1"}));
}

TEST(Reconfigure, LoadsTheDefaultsUnlessTheyAreValid) {
    struct Case {
        char const* m_Defaults;
        bool m_Loads;
    };
    Case const cases[] = {
        {"<KVX KVX.ISVALID=\"yes\"/>", false}, {"<KVX KVX.ISVALID=\"no\"/>", true},
        {"<KVX KVX.ISVALID=\"Yes\"/>", true},  {"<KVX KVX.ISVALID=\"YES\"/>", true},
        {"<KVX KVX.ISVALID=\"\"/>", true},     {"<KVX KVX.ISVALID=\"yes \"/>", true},
        {"<KVX ISVALID=\"yes\"/>", true},      {"<KVX/>", true},
    };
    for (Case const& row : cases) {
        ExchangeServer server(row.m_Loads ? Responses().all() : Responses().withoutDefaults());
        Configured account(server);
        account.write("default.xml", row.m_Defaults);
        account.m_Context.Reconfigure();
        std::vector<std::string> expected{"SetupRequest", "LoadDefaultsRequest", "KeyQueryRequest", "KeyExportRequest"};
        if (!row.m_Loads) {
            expected.erase(expected.begin() + 1);
        }
        EXPECT_EQ(typesOf(server.messages()), expected) << row.m_Defaults;
        EXPECT_EQ(account.read("default.xml"), row.m_Loads ? kDefaultsResponse : row.m_Defaults);
    }
}

TEST(Reconfigure, StopsAtMalformedDefaultsBeforeItSendsAnything) {
    ExchangeServer server(Responses().all());
    Configured account(server);
    account.write("default.xml", "<KVX");
    TraceRecorder const recorder;
    EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(eventsOf(recorder), std::vector<std::string>{"START RECONFIGURE:"});
    EXPECT_TRUE(server.requests().empty());
    EXPECT_TRUE(account.exists("keys/private"));
    EXPECT_TRUE(account.exists("keys/public"));
}

TEST(Reconfigure, MakesAndPublishesAnotherKeyEachTime) {
    ExchangeServer server({kSetupResponse, kDefaultsResponse, kKeyResponse, kExportResponse, kSetupResponse,
                           kKeyResponse, kExportResponse});
    Configured account(server);
    account.m_Context.Reconfigure();
    std::string const first = account.read("keys/current");
    account.m_Context.Reconfigure();
    std::string const second = account.read("keys/current");
    EXPECT_NE(first, second);
    EXPECT_TRUE(account.exists("keys/private/" + first)) << "old keys stay";
    EXPECT_TRUE(account.exists("keys/private/" + second));
    EXPECT_EQ(server.messages().at(4), "<KVX MSGTYPE=\"SetupRequest\" VERSION=\"7\"/>");
}

TEST(Reconfigure, UsesTheAddressThatTheNewConfigurationNames) {
    ExchangeServer rest({kDefaultsResponse, kKeyResponse, kExportResponse});
    ExchangeServer named(
        {"<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"vt-1\" KVX.VTAUTOURL=\"" + rest.url("/second") + "\"/>"});
    Account account;
    account.write("config.xml", "<KVX KVX.VTAUTOURL=\"" + named.url("/first") + "\"/>");
    account.m_Context.Reconfigure();
    EXPECT_EQ(named.requests().size(), 1U);
    ASSERT_EQ(rest.requests().size(), 3U);
    for (std::string const& request : rest.requests()) {
        EXPECT_EQ(request.rfind("GET /second?DATA=", 0), 0U);
    }
}

TEST(Reconfigure, NamesTheKeyWithoutACustomer) {
    Responses responses;
    responses.m_Setup = "<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"vt-1\"/>";
    ExchangeServer server(responses.all());
    Configured account(server);
    account.m_Context.Reconfigure();
    std::string const keyId = account.read("keys/current");
    EXPECT_EQ(keyId.substr(0, 3), "0--");
    EXPECT_EQ(keyId.size(), 3 + 32U);
}

TEST(Reconfigure, KeepsReadingTheVersionThatItDoesNotUse) {
    ExchangeServer server(Responses().all());
    Configured account(server);
    static std::string config;
    static int reads;
    config = account.m_Dir.file("config.xml");
    reads = 0;
    SystemCalls system;
    system->open = [](char const* path, int flags, mode_t mode) {
        reads += path == config && (flags & O_ACCMODE) == O_RDONLY ? 1 : 0;
        return TbSystemCalls::openFile(path, flags, mode);
    };
    account.m_Context.Reconfigure();
    EXPECT_EQ(reads, 4) << "the request's version, the server's key, the customer, the version";
}

TEST(Reconfigure, RefusesAnUnopenedContext) {
    KVX_Context context;
    TraceRecorder const recorder;
    Thrown const failure = thrown([&] { context.Reconfigure(); });
    EXPECT_EQ(failure.m_Code, KVX_E_NO_CONTEXT);
    EXPECT_EQ(failure.m_Text, "no context present");
    EXPECT_EQ(failure.m_File, "kvxctx");
    EXPECT_TRUE(eventsOf(recorder).empty());
}

TEST(Reconfigure, CreatesTheThreeDirectoriesInOrderBeforeAnythingElse) {
    struct Case {
        char const* m_Blocking;
        std::vector<std::string> m_InKeys;
    };
    Case const cases[] = {{"keys", {}}, {"keys/private", {"private"}}, {"keys/public", {"private", "public"}}};
    for (Case const& row : cases) {
        ExchangeServer server(Responses().all());
        Configured account(server);
        account.write(row.m_Blocking, "a file");
        TraceRecorder const recorder;
        Thrown const failure = thrown([&] { account.m_Context.Reconfigure(); });
        EXPECT_EQ(failure.m_Code, 17);
        EXPECT_EQ(failure.m_File, "kvxbase");
        EXPECT_EQ(failure.m_Line, 55);
        EXPECT_TRUE(eventsOf(recorder).empty());
        EXPECT_TRUE(server.requests().empty());
        if (std::strcmp(row.m_Blocking, "keys") != 0) {
            EXPECT_EQ(account.filesIn("keys"), row.m_InKeys);
        }
    }
}

TEST(Reconfigure, FailsWithoutAnEndpoint) {
    Account account;
    EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), KVX_E_NO_CONFIGURATION);
}

TEST(Reconfigure, KeepsWhatEarlierStepsWrote) {
    struct Case {
        char const* m_Name;
        Responses m_Responses;
        std::int32_t m_Code;
        std::size_t m_Requests;
        std::vector<std::string> m_Events;  ///< Details left out.
        std::size_t m_OwnKeys;
    };
    auto const with = [](std::string Responses::*which, std::string const& response) {
        Responses responses;
        responses.*which = response;
        return responses;
    };
    Case const cases[] = {
        {"set-up refused", with(&Responses::m_Setup, kError), KVX_E_SERVER_ERROR, 1, {"START RECONFIGURE"}, 0},
        {"defaults refused",
         with(&Responses::m_Defaults, kError),
         KVX_E_SERVER_ERROR,
         2,
         {"START RECONFIGURE", "UPDATE"},
         0},
        {"no server key named",
         with(&Responses::m_Setup, "<KVX MSGTYPE=\"SetupResponse\" CUSTOMERID=\"1\"/>"),
         KVX_E_NO_CONFIGURATION,
         2,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS"},
         0},
        {"server key named by nothing",
         with(&Responses::m_Setup, "<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"\"/>"),
         KVX_E_NO_CONFIGURATION,
         2,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS"},
         0},
        {"server key refused",
         with(&Responses::m_Key, kError),
         KVX_E_SERVER_ERROR,
         3,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS"},
         0},
        {"server key of another directory",
         with(&Responses::m_Key, "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"../current\" KEYBLOB=\"x\"/>"),
         KVX_E_FILE_NOT_FOUND,
         3,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS"},
         0},
        {"customer of another directory",
         with(&Responses::m_Setup, "<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"vt-1\" CUSTOMERID=\"/../../x\"/>"),
         KVX_E_FILE_NOT_FOUND,
         3,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS", "UPDATE", "IMPORT"},
         0},
        {"own key refused",
         with(&Responses::m_Exported, kError),
         KVX_E_SERVER_ERROR,
         4,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS", "UPDATE", "IMPORT", "UPDATE", "UPDATE"},
         1},
        {"own key answered wrongly",
         with(&Responses::m_Exported, kKeyResponse),
         KVX_E_WRONG_RESPONSE,
         4,
         {"START RECONFIGURE", "UPDATE", "UPDATE", "LOAD DEFAULTS", "UPDATE", "IMPORT", "UPDATE", "UPDATE"},
         1},
    };
    for (Case const& row : cases) {
        SCOPED_TRACE(row.m_Name);
        ExchangeServer server(row.m_Responses.all());
        Configured account(server);
        account.write("keys/current", "previous");
        TraceRecorder const recorder;
        EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), row.m_Code);
        std::vector<std::string> events;
        for (std::string const& event : eventsOf(recorder)) {
            events.push_back(event.substr(0, event.find(':')));
        }
        EXPECT_EQ(events, row.m_Events);
        EXPECT_EQ(server.requests().size(), row.m_Requests);
        EXPECT_EQ(account.exists("config.xml"), row.m_Events.size() > 1);
        EXPECT_EQ(account.exists("default.xml"), row.m_Events.size() > 2);
        EXPECT_EQ(account.exists("keys/public/vt-1"), row.m_Events.size() > 4);
        EXPECT_EQ(account.filesIn("keys/private").size(), row.m_OwnKeys);
        EXPECT_EQ(account.filesIn("keys/public").size(), row.m_OwnKeys + (row.m_Events.size() > 4 ? 1 : 0));
        EXPECT_EQ(account.read("keys/current"), "previous");
        EXPECT_EQ(account.filesIn("keys"), (std::vector<std::string>{"current", "private", "public"}));
    }
}

TEST(Reconfigure, CannotStoreAServerKeyThatTheConfigurationNamesOutsideTheDirectory) {
    for (char const* named : {"../current", "../../x", "a/b", "..", "."}) {
        Responses responses;
        responses.m_Setup = std::string("<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"") + named + "\"/>";
        responses.m_Key = "<KVX MSGTYPE=\"KeyQueryResponse\" KEYBLOB=\"x\"/>";
        ExchangeServer server(responses.all());
        Configured account(server);
        EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), KVX_E_FILE_NOT_FOUND) << named;
        EXPECT_EQ(server.requests().size(), 3U);
        EXPECT_EQ(account.filesIn("keys"), (std::vector<std::string>{"private", "public"}));
        EXPECT_TRUE(account.filesIn("keys/public").empty());
        EXPECT_FALSE(account.exists("x"));
    }
}

TEST(Reconfigure, MakesNoKeyOutsideTheDirectoryForACustomerThatNamesOne) {
    Responses responses;
    responses.m_Setup = "<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"vt-1\" CUSTOMERID=\"/../../../x\"/>";
    ExchangeServer server(responses.all());
    Configured account(server);
    std::filesystem::create_directories(account.m_Dir.file("keys/public/0-"));
    std::filesystem::create_directories(account.m_Dir.file("keys/private/0-"));
    EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_EQ(account.filesIn(""), (std::vector<std::string>{"config.xml", "default.xml", "keys"}));
    EXPECT_EQ(account.filesIn("keys"), (std::vector<std::string>{"private", "public"}));
}

TEST(ImportKey, CannotOpenAFileWhoseNameHoldsAZeroByte) {
    ExchangeServer server({"<KVX MSGTYPE=\"KeyQueryResponse\" KEYBLOB=\"x\"/>"});
    Configured account(server);
    prepare(account);
    TbString keyId = stringOf(std::string("a\0b", 3));
    EXPECT_EQ(thrownCode([&] { account.m_Context.ImportKey(keyId); }), KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(account.filesIn("keys/public"), std::vector<std::string>{"own"});
}

TEST(Reconfigure, LeavesThePublicHalfWhenThePrivateOneCannotBeWritten) {
    ExchangeServer server(Responses().all());
    Configured account(server);
    account.write("keys/current", "previous");
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        if ((flags & O_CREAT) != 0 && std::strstr(path, "/keys/private/") != nullptr) {
            errno = EMFILE;
            return -1;
        }
        return ::open(path, flags, mode);
    };
    EXPECT_EQ(thrownCode([&] { account.m_Context.Reconfigure(); }), KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(server.requests().size(), 3U);
    EXPECT_EQ(account.filesIn("keys/public").size(), 2U);
    EXPECT_TRUE(account.filesIn("keys/private").empty());
    EXPECT_EQ(account.read("keys/current"), "previous");
}

TEST(Reconfigure, FailsLastWhenTheCurrentKeyCannotBeSwitched) {
    ExchangeServer server(Responses().all());
    Configured account(server);
    std::filesystem::create_directories(account.m_Dir.file("keys/current"));
    TraceRecorder const recorder;
    Thrown const failure = thrown([&] { account.m_Context.Reconfigure(); });
    EXPECT_EQ(failure.m_Code, KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(failure.m_Line, 205);
    EXPECT_EQ(server.requests().size(), 4U);
    EXPECT_TRUE(recorder.of("PUBLISH").empty());
    EXPECT_TRUE(recorder.of("RECONFIGURE OK").empty());
}

}  // namespace
