// ConfigurationSetup: values of the files of a directory, options, and the arguments of a set-up.
//
// A scripted server refuses every request, and its records show the credentials and the address in use. Odd: an empty
// value is not written, and setting it still succeeds.

#include "api/cConfigurationSetup.h"

#include <sys/stat.h>

#include "tests/api/apisupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/rawserver.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

std::string valueOf(KVX_HANDLE setup, char const* file, char const* name) {
    return copiedOut(
        [&](auto* size, auto* buffer) { return ConfigurationSetup_GetAttribute(setup, file, name, size, buffer); });
}

std::string autoUrl(RawServer const& server, std::string const& credentials = "") {
    return "http://" + credentials + "127.0.0.1:" + server.portText() + "/auto";
}

/// Refuses every request with the server's words.
constexpr char kRefusal[] = R"(<KVX MSGTYPE="Error" MESSAGE="not today"/>)";

/// "Basic ..." of the first request that `server` got.
std::string credentialsSeen(RawServer& server) {
    std::string const& request = server.records().at(0);
    std::string const start = "Authorization: Basic ";
    std::size_t const from = request.find(start) + start.size();
    return request.substr(from, request.find("\r\n", from) - from);
}

/// A set-up object, and the directory of an account in working order.
class ConfigurationSetup : public testing::Test {
protected:
    void open() const {
        ASSERT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), m_Account.path().c_str()), KVX_OK);
    }

    AccountDirectory m_Account;
    SetupHandle m_Setup;
};

/// A set-up object, and an empty directory.
class Reconfigure : public testing::Test {
protected:
    void open() const {
        ASSERT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), m_Directory.path().c_str()), KVX_OK);
    }

    TemporaryDirectory m_Directory;
    SetupHandle m_Setup;
};

TEST_F(ConfigurationSetup, ReadsAndWritesTheFilesOfItsDirectory) {
    open();
    EXPECT_EQ(valueOf(m_Setup.get(), "config.xml", "VTURL"), "http://127.0.0.1:1/pay");
    EXPECT_EQ(valueOf(m_Setup.get(), "config.xml", "KVX.VTAUTOURL"), "http://127.0.0.1:1/auto");
    EXPECT_EQ(valueOf(m_Setup.get(), "keys/current", ""), "own");
    EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), "config.xml", "VTURL", "http://a/<b>"), KVX_OK);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), "config.xml", "NEW", "1"), KVX_OK);
    EXPECT_EQ(valueOf(m_Setup.get(), "config.xml", "VTURL"), "http://a/<b>");
    EXPECT_EQ(m_Account.read("config.xml"), R"(<KVX VTURL="http://a/&lt;b&gt;" CAPTUREURL="http://127.0.0.1:1/capture")"
                                            R"( KVX.VTAUTOURL="http://127.0.0.1:1/auto" VTKEYID="server" NEW="1"/>)");
}

TEST_F(ConfigurationSetup, KeepsAnEmptyValueFromBeingWrittenAndSucceeds) {
    open();
    std::string const before = m_Account.read("config.xml");
    struct stat first = {};
    ASSERT_EQ(::stat(m_Account.file("config.xml").c_str(), &first), 0);
    for (char const* const value : {"", static_cast<char const*>(nullptr)}) {
        EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), "config.xml", "VTURL", value), KVX_OK);
        EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), "missing.xml", "VTURL", value), KVX_OK);
    }
    struct stat second = {};
    ASSERT_EQ(::stat(m_Account.file("config.xml").c_str(), &second), 0);
    EXPECT_EQ(m_Account.read("config.xml"), before);
    EXPECT_EQ(second.st_ino, first.st_ino) << "the file was not even rewritten";
    EXPECT_FALSE(m_Account.exists("missing.xml"));

    SetupHandle const unopened;
    EXPECT_EQ(ConfigurationSetup_SetAttribute(unopened.get(), "config.xml", "VTURL", ""), KVX_OK);
}

TEST_F(ConfigurationSetup, RefusesEverythingButOptionsBeforeADirectoryIsChosen) {
    Outputs outputs;
    EXPECT_EQ(ConfigurationSetup_GetAttribute(m_Setup.get(), "config.xml", "VTURL", &outputs.m_Size, outputs.m_Buffer),
              KVX_E_NO_CONTEXT);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), "config.xml", "VTURL", "v"), KVX_E_NO_CONTEXT);
    EXPECT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), "http://127.0.0.1:1/auto", "u", "p"), KVX_E_NO_CONTEXT);
    EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), "UserName", "u"), KVX_OK);
    outputs.expectUntouched("no directory");
}

TEST_F(ConfigurationSetup, TellsTheFailuresOfValuesApart) {
    m_Account.write("broken.xml", "<KVX A=");
    m_Account.write("other.xml", "<OTHER A=\"1\"/>");
    m_Account.write("empty.xml", "<KVX A=\"\"/>");
    open();
    struct Row {
        char const* m_File;
        char const* m_Name;
        std::int32_t m_Get;
        std::int32_t m_Set;
    };
    // clang-format off
    Row const rows[] = {
        {"missing.xml", "A",        KVX_E_CANNOT_OPEN,    KVX_E_CANNOT_OPEN},
        {"missing.xml", "",         KVX_E_CANNOT_OPEN,    KVX_E_CANNOT_OPEN},
        {"keys",        "A",        KVX_E_CANNOT_OPEN,    KVX_E_CANNOT_OPEN},
        {"",            "A",        KVX_E_CANNOT_OPEN,    KVX_E_CANNOT_OPEN},
        {"broken.xml",  "A",        KVX_E_INVALID_FORMAT, KVX_E_INVALID_FORMAT},
        {"other.xml",   "A",        KVX_E_INVALID_FORMAT, KVX_E_INVALID_FORMAT},
        {"empty.xml",   "A",        KVX_E_NOT_FOUND,      KVX_OK},
        {"config.xml",  "NONE",     KVX_E_NOT_FOUND,      KVX_OK},
        {"config.xml",  "vturl",    KVX_E_NOT_FOUND,      KVX_OK},
        {"config.xml",  "A(.0).B",  KVX_E_NOT_FOUND,      KVX_OK},
        {"config.xml",  "A(7)",     KVX_E_NOT_FOUND,      KVX_OK},
    };
    // clang-format on
    for (Row const& row : rows) {
        Outputs outputs;
        EXPECT_EQ(
            ConfigurationSetup_GetAttribute(m_Setup.get(), row.m_File, row.m_Name, &outputs.m_Size, outputs.m_Buffer),
            row.m_Get)
            << row.m_File << " " << row.m_Name;
        outputs.expectUntouched(std::string(row.m_File) + " " + row.m_Name);
    }
    for (Row const& row : rows) {
        EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), row.m_File, row.m_Name, "v"), row.m_Set)
            << row.m_File << " " << row.m_Name;
    }
    EXPECT_EQ(m_Account.read("broken.xml"), "<KVX A=");
    EXPECT_FALSE(m_Account.exists("missing.xml"));
}

TEST_F(ConfigurationSetup, NamesItsSourceAndLineForAMissingValue) {
    KVXCIMPL_ConfigurationSetup setup;
    setup.SetConfiguration(stringOf(m_Account.path()));
    TbString value("before");
    Thrown const failure = thrown([&] { setup.GetAttribute("config.xml", "NONE", value); });
    EXPECT_EQ(failure.m_Code, KVX_E_NOT_FOUND);
    EXPECT_EQ(failure.m_Text, "requested item was not found");
    EXPECT_EQ(failure.m_File, "cConfigurationSetup");
    EXPECT_EQ(failure.m_Line, 42);
    setup.GetAttribute("config.xml", "VTKEYID", value);
    EXPECT_EQ(bytesOf(value), "server");
}

TEST_F(ConfigurationSetup, KnowsThreeOptions) {
    for (char const* const name : {"UserName", "Password", "VTAUTOURL"}) {
        EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), name, "value"), KVX_OK) << name;
        EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), name, ""), KVX_OK) << name;
        EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), name, nullptr), KVX_OK) << name;
    }
    for (char const* const name : {"username", "password", "vtautourl", "USERNAME", "UserName ", "", "VTURL"}) {
        EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), name, "value"), KVX_E_INVALID_OPTION) << name;
    }
    EXPECT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), nullptr, nullptr), KVX_E_INVALID_OPTION);
    KVXCIMPL_ConfigurationSetup object;
    Thrown const failure = thrown([&] { object.SetOption("nonsense", ""); });
    EXPECT_EQ(failure.m_File, "kvxctx");
    EXPECT_EQ(failure.m_Line, 38);
}

TEST_F(ConfigurationSetup, CreatesTheLastDirectoryOfItsPathOnly) {
    TemporaryDirectory const dir;
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), dir.file("shop").c_str()), KVX_OK);
    EXPECT_TRUE(dir.exists("shop"));
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), dir.file("a/b").c_str()), ENOENT);
    EXPECT_FALSE(dir.exists("a"));
    dir.write("file", "x");
    EXPECT_EQ(ConfigurationSetup_SetConfiguration(m_Setup.get(), dir.file("file").c_str()), EEXIST);
    EXPECT_EQ(dir.read("file"), "x");
}

TEST_F(ConfigurationSetup, KeepsReportingAFailedDirectoryAsASmallPositiveNumberAndKeepsThePath) {
    TemporaryDirectory const dir;
    std::int32_t const result = ConfigurationSetup_SetConfiguration(m_Setup.get(), dir.file("a/b").c_str());
    EXPECT_GT(result, 0);
    EXPECT_LT(result, 4096);
    Outputs outputs;
    // Not "no context": the path is in place, only the file is missing.
    EXPECT_EQ(ConfigurationSetup_GetAttribute(m_Setup.get(), "config.xml", "A", &outputs.m_Size, outputs.m_Buffer),
              KVX_E_CANNOT_OPEN);
    outputs.expectUntouched("failed directory");
}

TEST_F(ConfigurationSetup, TakesTheCurrentDirectoryForNoPath) {
    WorkingDirectory const here(m_Account.path());
    for (char const* const path : {"", static_cast<char const*>(nullptr)}) {
        SetupHandle const setup;
        EXPECT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), path), KVX_OK);
        EXPECT_EQ(valueOf(setup.get(), "config.xml", "VTKEYID"), "server");
    }
}

TEST_F(ConfigurationSetup, CountsNullTextsAsEmpty) {
    open();
    EXPECT_EQ(valueOf(m_Setup.get(), "keys/current", nullptr), "own");
    Outputs outputs;
    EXPECT_EQ(ConfigurationSetup_GetAttribute(m_Setup.get(), nullptr, nullptr, &outputs.m_Size, outputs.m_Buffer),
              KVX_E_CANNOT_OPEN);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), nullptr, nullptr, nullptr), KVX_OK);
    EXPECT_EQ(ConfigurationSetup_SetAttribute(m_Setup.get(), nullptr, nullptr, "v"), KVX_E_CANNOT_OPEN);
    outputs.expectUntouched("null file");
}

TEST_F(Reconfigure, SendsTheCredentialsOfTheCallToTheAddressOfTheCall) {
    RawServer server(httpResponse(kRefusal));
    open();
    EXPECT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), autoUrl(server).c_str(), "us", "pw"), KVX_E_SERVER_ERROR);
    EXPECT_EQ(credentialsSeen(server), "dXM6cHcA") << "us:pw";
    EXPECT_EQ(server.records().at(0).find("GET /auto?DATA=%3cKVX%20MSGTYPE%3d%22SetupRequest%22"), 0U);
}

TEST_F(Reconfigure, WithoutAnAddressKeepsTheKnownOneAndReplacesTheCredentials) {
    for (char const* const noAddress : {"", static_cast<char const*>(nullptr)}) {
        RawServer server(httpResponse(kRefusal));
        SetupHandle const setup;
        ASSERT_EQ(ConfigurationSetup_SetConfiguration(setup.get(), m_Directory.path().c_str()), KVX_OK);
        ASSERT_EQ(ConfigurationSetup_SetOption(setup.get(), "VTAUTOURL", autoUrl(server).c_str()), KVX_OK);
        ASSERT_EQ(ConfigurationSetup_SetOption(setup.get(), "UserName", "old"), KVX_OK);
        ASSERT_EQ(ConfigurationSetup_SetOption(setup.get(), "Password", "old"), KVX_OK);
        EXPECT_EQ(ConfigurationSetup_Reconfigure(setup.get(), noAddress, "us", "pw"), KVX_E_SERVER_ERROR);
        EXPECT_EQ(credentialsSeen(server), "dXM6cHcA");
    }
}

TEST_F(Reconfigure, WithEmptyCredentialsDropsTheOldOnes) {
    RawServer server(httpResponse(kRefusal));
    open();
    ASSERT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), "UserName", "old"), KVX_OK);
    ASSERT_EQ(ConfigurationSetup_SetOption(m_Setup.get(), "Password", "old"), KVX_OK);
    EXPECT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), autoUrl(server).c_str(), nullptr, nullptr),
              KVX_E_SERVER_ERROR);
    EXPECT_EQ(credentialsSeen(server), "OgAA") << "a colon alone";
}

TEST_F(Reconfigure, RemembersItsArgumentsThoughItFails) {
    RawServer server(httpResponse(kRefusal));
    ASSERT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), autoUrl(server).c_str(), "a", "b"), KVX_E_NO_CONTEXT);
    open();
    EXPECT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), "", "us", "pw"), KVX_E_SERVER_ERROR)
        << "the address of the first call is in use";
    EXPECT_EQ(credentialsSeen(server), "dXM6cHcA");
}

TEST_F(Reconfigure, WithoutAnyAddressHasNoConfiguration) {
    open();
    EXPECT_EQ(ConfigurationSetup_Reconfigure(m_Setup.get(), "", "us", "pw"), KVX_E_NO_CONFIGURATION);
    EXPECT_TRUE(m_Directory.exists("keys/private"));
    EXPECT_TRUE(m_Directory.exists("keys/public"));
    EXPECT_FALSE(m_Directory.exists("keys/current"));
}

TEST_F(Reconfigure, TellsTheServersReasonThroughTheClass) {
    RawServer const server(httpResponse(kRefusal));
    KVXCIMPL_ConfigurationSetup setup;
    setup.SetConfiguration(stringOf(m_Directory.path()));
    Thrown const failure = thrown([&] { setup.Reconfigure(stringOf(autoUrl(server)), "us", "pw"); });
    EXPECT_EQ(failure.m_Code, KVX_E_SERVER_ERROR);
    EXPECT_EQ(failure.m_Text, "the request failed (not today)");
}

}  // namespace
