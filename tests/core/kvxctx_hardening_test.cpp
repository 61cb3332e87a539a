// The settings that limit and check: how their values read, and what the checks of documents, keys, confirmations and
// names refuse. Limits of exchanges have their tests beside the network layer.

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <filesystem>
#include <string>

#include "core/kvxctx_checks.h"
#include "core/kvxctx_settings.h"
#include "tests/core/coresupport.h"
#include "tests/core/icctsupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

KVX_Settings settingsOf(std::string const& attributes) {
    return kvxSettingsIn(("<KVX " + attributes + "/>").c_str());
}

std::string documentOf(std::string const& attributes) {
    return "<KVX " + attributes + "/>";
}

// How values read.

struct LimitRow {
    char const* m_Name;
    std::uint32_t (*m_Get)(KVX_Settings const& settings);
    std::uint32_t m_Strict;
};

constexpr LimitRow kLimits[] = {
    {"CONNECTTIMEOUT", [](KVX_Settings const& s) { return s.m_Transfer.connectTimeout; }, 10},
    {"IOTIMEOUT", [](KVX_Settings const& s) { return s.m_Transfer.ioTimeout; }, 30},
    {"TOTALTIMEOUT", [](KVX_Settings const& s) { return s.m_Transfer.totalTimeout; }, 60},
    {"MAXRESPONSE", [](KVX_Settings const& s) { return s.m_Transfer.maxResponse; }, 8388608},
    {"MAXXML", [](KVX_Settings const& s) { return s.m_Documents.m_Bytes; }, 1048576},
    {"MAXDEPTH", [](KVX_Settings const& s) { return s.m_Documents.m_Levels; }, 256},
    {"MINKEYBITS", [](KVX_Settings const& s) { return s.m_MinKeyBits; }, 512},
};

TEST(SettingsLimits, AreDigitsOrAbsent) {
    struct Case {
        char const* m_Value;
        std::uint32_t m_Plain;
        bool m_IsWellFormed;
    };
    constexpr Case kCases[] = {
        {"5", 5, true},           {"0", 0, true},     {"007", 7, true},  {"4294967295", 4294967295U, true},
        {"4294967296", 0, false}, {"", 0, false},     {"-5", 0, false},  {"+5", 0, false},
        {"5s", 0, false},         {" 5", 0, false},   {"5 ", 0, false},  {"5.5", 0, false},
        {"five", 0, false},       {"0x10", 0, false}, {"1e3", 0, false}, {"99999999999999999999999", 0, false},
    };
    for (LimitRow const& limit : kLimits) {
        EXPECT_EQ(limit.m_Get(settingsOf("")), 0U) << limit.m_Name;
        EXPECT_EQ(limit.m_Get(settingsOf("PROFILE=\"strict\"")), limit.m_Strict) << limit.m_Name;
        for (Case const& row : kCases) {
            std::string const attribute = std::string(limit.m_Name) + "=\"" + row.m_Value + "\"";
            EXPECT_EQ(limit.m_Get(settingsOf(attribute)), row.m_Plain) << attribute;
            EXPECT_EQ(limit.m_Get(settingsOf("PROFILE=\"strict\" " + attribute)),
                      row.m_IsWellFormed ? row.m_Plain : limit.m_Strict)
                << attribute;
        }
    }
}

struct SwitchRow {
    char const* m_Name;
    bool (*m_Get)(KVX_Settings const& settings);
    bool m_IsStrict;  ///< On in the strict profile.
};

constexpr SwitchRow kChecks[] = {
    {"TLSVERIFY", [](KVX_Settings const& s) { return s.m_Transfer.verifyPeer; }, true},
    {"STRICTKEYS", [](KVX_Settings const& s) { return s.m_HasStrictKeys; }, true},
    {"STRICTCONFIRM", [](KVX_Settings const& s) { return s.m_HasStrictConfirm; }, true},
    {"STRICTSIG", [](KVX_Settings const& s) { return s.m_HasStrictSignature; }, true},
    {"STRICTNAMES", [](KVX_Settings const& s) { return s.m_HasStrictNames; }, true},
};

constexpr SwitchRow kSwitches[] = {
    {"SENDHOST", [](KVX_Settings const& s) { return s.m_Transfer.sendHost; }, false},
    {"TLSREUSE", [](KVX_Settings const& s) { return s.m_Transfer.reuseTls; }, false},
    {"SENDALL", [](KVX_Settings const& s) { return s.m_Transfer.sendAll; }, true},
    {"QUIET", [](KVX_Settings const& s) { return s.m_Transfer.isQuiet; }, true},
};

std::string attributeOf(SwitchRow const& row, char const* value) {
    return std::string(row.m_Name) + "=\"" + value + "\"";
}

TEST(SettingsChecks, AreOnUnlessAbsentOrZero) {
    for (SwitchRow const& check : kChecks) {
        EXPECT_FALSE(check.m_Get(settingsOf(""))) << check.m_Name;
        EXPECT_TRUE(check.m_Get(settingsOf("PROFILE=\"strict\""))) << check.m_Name;
        EXPECT_FALSE(check.m_Get(settingsOf("PROFILE=\"strict\" " + attributeOf(check, "0")))) << check.m_Name;
        EXPECT_TRUE(check.m_Get(settingsOf(check.m_Name))) << check.m_Name << " without a value";
        for (char const* value :
             {"", "&#49;", "&", "&true", "1", "yes", "true", "2", "01", "00", " 0", "off", "no", "1 "}) {
            EXPECT_TRUE(check.m_Get(settingsOf(attributeOf(check, value)))) << check.m_Name << " " << value;
        }
    }
}

TEST(SettingsSwitches, ChangeAtTheirTwoValuesOnly) {
    for (SwitchRow const& option : kSwitches) {
        EXPECT_FALSE(option.m_Get(settingsOf(""))) << option.m_Name;
        EXPECT_TRUE(option.m_Get(settingsOf(attributeOf(option, "1")))) << option.m_Name;
        EXPECT_EQ(option.m_Get(settingsOf("PROFILE=\"strict\"")), option.m_IsStrict) << option.m_Name;
        EXPECT_FALSE(option.m_Get(settingsOf("PROFILE=\"strict\" " + attributeOf(option, "0")))) << option.m_Name;
        for (char const* value : {"", "yes", "2", "01", "on"}) {
            EXPECT_FALSE(option.m_Get(settingsOf(attributeOf(option, value)))) << option.m_Name << " " << value;
            EXPECT_EQ(option.m_Get(settingsOf("PROFILE=\"strict\" " + attributeOf(option, value))), option.m_IsStrict)
                << option.m_Name << " " << value;
        }
    }
}

TEST(SettingsProfile, IsStrictHoweverItIsSpelledUnlessAbsentOrZero) {
    for (char const* value : {"strict", "Strict", "STRICT", "strickt", "1", "", "&#49;"}) {
        EXPECT_TRUE(settingsOf(std::string("PROFILE=\"") + value + "\"").m_HasStrictKeys) << value;
    }
    EXPECT_FALSE(settingsOf("PROFILE=\"0\"").m_HasStrictKeys);
    EXPECT_TRUE(settingsOf("CONNECTTIMEOUT=\"3\" PROFILE=\"strict\"").m_HasStrictKeys) << "the order does not matter";
    EXPECT_EQ(settingsOf("CONNECTTIMEOUT=\"3\" PROFILE=\"strict\"").m_Transfer.connectTimeout, 3U);
}

TEST(SettingsOfTls, ChooseTheLowestVersion) {
    EXPECT_EQ(settingsOf("").m_Transfer.minimumVersion, KVX_TlsVersion::Any);
    EXPECT_EQ(settingsOf("PROFILE=\"strict\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls12);
    EXPECT_EQ(settingsOf("TLSMIN=\"1.0\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls10);
    EXPECT_EQ(settingsOf("TLSMIN=\"1.1\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls11);
    EXPECT_EQ(settingsOf("TLSMIN=\"1.2\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls12);
    EXPECT_EQ(settingsOf("TLSMIN=\"1.3\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls13);
    for (char const* value : {"1", "1.4", "TLSv1.2", "12", "0", "", "&"}) {
        EXPECT_EQ(settingsOf(std::string("TLSMIN=\"") + value + "\"").m_Transfer.minimumVersion, KVX_TlsVersion::Tls12)
            << value;
    }
    EXPECT_TRUE(settingsOf("").m_Transfer.trustFile.isEmpty());
    EXPECT_FALSE(settingsOf("TLSCAFILE=\"&priv\"").m_Transfer.trustFile.isEmpty()) << "never the system's";
    EXPECT_TRUE(settingsOf("TLSCAFILE=\"/etc/ca.pem\"").m_Transfer.trustFile == TbString("/etc/ca.pem"));
}

TEST(SettingsOfFiles, ReadModesAndSynchronising) {
    EXPECT_TRUE(settingsOf("").m_SyncsFiles);
    EXPECT_FALSE(settingsOf("SYNCFILES=\"0\"").m_SyncsFiles);
    for (char const* value : {"", "1", "no", "00"}) {
        EXPECT_TRUE(settingsOf(std::string("SYNCFILES=\"") + value + "\"").m_SyncsFiles) << value;
    }
    EXPECT_EQ(settingsOf("").m_KeyMode, mode_t{0600});
    EXPECT_EQ(settingsOf("KEYMODE=\"0640\"").m_KeyMode, mode_t{0640});
    EXPECT_EQ(settingsOf("KEYMODE=\"440\"").m_KeyMode, mode_t{0440});
    EXPECT_EQ(settingsOf("KEYMODE=\"0660\"").m_KeyMode, mode_t{0660});
    for (char const* value : {"", "0644", "0606", "0777", "0700", "0040", "0", "rw-r-----", "0680", "00640", "1640"}) {
        EXPECT_EQ(settingsOf(std::string("KEYMODE=\"") + value + "\"").m_KeyMode, mode_t{0600}) << value;
    }
}

// What is refused.

std::string deepDocument(int levels) {
    std::string text = "<KVX A=\"1\">";
    for (int level = 1; level < levels; ++level) {
        text += "<E>";
    }
    for (int level = 1; level < levels; ++level) {
        text += "</E>";
    }
    return text + "</KVX>";
}

struct DocumentLimits : testing::Test, protected Merchant {
    /// The codes of every way to parse `text`.
    void expectParsing(std::string const& text, std::int32_t code) {
        write("config.xml", text);
        TbString value;
        EXPECT_EQ(thrownCode([&] { m_Context.QueryValue("config.xml", "A", value); }), code);
        EXPECT_EQ(thrownCode([&] { m_Context.SetValue("config.xml", "A", "1", false); }), code);
        xmlElement* root = nullptr;
        EXPECT_EQ(thrownCode([&] {
                      m_Context.XmlFromString(text.c_str(), &root);
                      root->release();
                  }),
                  code);
        TbStringStream stream(TbString(text.c_str()));
        EXPECT_EQ(thrownCode([&] {
                      m_Context.XmlFromStream(stream, &root);
                      root->release();
                  }),
                  code);
        KVX_Message message;
        message.Create(&m_Context, "T");
        EXPECT_EQ(thrownCode([&] { message.FromString(text.c_str()); }), code);
    }

    /// The code of a confirmation without signature, which is parsed first.
    std::int32_t opening(std::string const& text) {
        KVX_Message message;
        return thrownCode([&] { message.Open(&m_Context, text.c_str(), ""); });
    }
};

TEST_F(DocumentLimits, HoldForTheBytesOfEveryDocument) {
    std::string const text = "<KVX A=\"1\"/>";
    expectParsing(text, KVX_OK);
    write("settings.xml", documentOf("MAXXML=\"" + std::to_string(text.size()) + "\""));
    expectParsing(text, KVX_OK);
    write("settings.xml", documentOf("MAXXML=\"" + std::to_string(text.size() - 1) + "\""));
    expectParsing(text, KVX_E_INVALID_FORMAT);
    EXPECT_EQ(opening(text), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(opening("<KVX A=\"\"/>"), KVX_E_MISSING_SIGNATURE);
    write("settings.xml", documentOf("MAXXML=\"small\""));
    expectParsing(text, KVX_OK);
}

TEST_F(DocumentLimits, HoldForTheLevelsOfEveryDocument) {
    expectParsing(deepDocument(5), KVX_OK);
    write("settings.xml", documentOf("MAXDEPTH=\"5\""));
    expectParsing(deepDocument(5), KVX_OK);
    expectParsing(deepDocument(6), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(opening(deepDocument(5)), KVX_E_MISSING_SIGNATURE);
    EXPECT_EQ(opening(deepDocument(6)), KVX_E_INVALID_FORMAT);
    expectParsing("<KVX A=\"1\"><E/><E/><E/><E/><E/><E/></KVX>", KVX_OK);
    write("settings.xml", documentOf("MAXDEPTH=\"deep\""));
    expectParsing(deepDocument(6), KVX_OK);
}

TEST_F(DocumentLimits, AreThoseOfTheStrictProfileWhereTheSettingsAreDamaged) {
    write("settings.xml", "<KVX MAXDEPTH=\"9000\"");
    expectParsing(deepDocument(256), KVX_OK);
    expectParsing(deepDocument(257), KVX_E_INVALID_FORMAT);
}

TEST_F(DocumentLimits, HoldForResponses) {
    ExchangeServer server({"<KVX MSGTYPE=\"SetupResponse\" VTURL=\"x://y\"><E><E/></E></KVX>"});
    m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
    write("settings.xml", documentOf("MAXDEPTH=\"2\""));
    std::string const before = read("config.xml");
    EXPECT_EQ(thrownCode([&] { m_Context.Setup(); }), KVX_E_INVALID_FORMAT);
    EXPECT_EQ(read("config.xml"), before);
    write("settings.xml", documentOf("MAXDEPTH=\"3\""));
    EXPECT_EQ(thrownCode([&] { m_Context.Setup(); }), KVX_OK);
}

TEST_F(DocumentLimits, DoNotHoldForTheSettingsThemselves) {
    write("settings.xml", documentOf("MAXXML=\"5\" MAXDEPTH=\"1\" STRICTNAMES=\"1\"") + "<E><E/></E>");
    EXPECT_EQ(thrownCode([&] { m_Context.SetValue("config.xml", "&", "1", false); }), KVX_E_INVALID_OPTION);
}

std::string pinOf(std::string const& publicHex) {
    Bytes const key = bytesOfHex(publicHex);
    Bytes digest(32);
    EVP_Digest(key.data(), key.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    return hexOf(digest);
}

/// A merchant, and a confirmation by the server's key.
struct StrictVerification : testing::Test, protected Merchant {
    /// The merchant's own key is another one than the server's.
    StrictVerification() {
        TbString keyId = "own";
        m_Context.GenKey(keyId);
    }

    /// The text signed with the merchant's own key.
    std::string signedAsOwn(std::string const& text) {
        TbString signature;
        m_Context.SignData(text.c_str(), "own", signature);
        return signature.c_str();
    }
    static std::string confirmation(std::string const& keyId, std::string const& type = "PayConfirm") {
        return "<KVX MSGTYPE=\"" + type + "\" KEYID=\"" + keyId + "\" TOKEN=\"1\"/>";
    }
    Thrown verify(std::string const& text, std::string const& signature) {
        KVX_Message message;
        return thrown([&] { message.Open(&m_Context, text.c_str(), signature.c_str()); });
    }
    Thrown verify(std::string const& text) { return verify(text, signedElsewhere(text, Widening::kWithSign)); }
};

TEST_F(StrictVerification, AcceptsTheServersConfirmation) {
    for (char const* settings : {"", "PROFILE=\"strict\"", "STRICTCONFIRM=\"1\" STRICTSIG=\"1\" MINKEYBITS=\"512\""}) {
        write("settings.xml", documentOf(settings));
        EXPECT_EQ(verify(confirmation("server")).m_Code, KVX_OK) << settings;
    }
}

TEST_F(StrictVerification, RefusesOtherTypesAndOwnKeys) {
    EXPECT_EQ(verify(confirmation("own"), signedAsOwn(confirmation("own"))).m_Code, KVX_OK);
    EXPECT_EQ(verify(confirmation("server", "PayInit")).m_Code, KVX_OK);
    write("settings.xml", documentOf("STRICTCONFIRM=\"1\""));
    Thrown const own = verify(confirmation("own"), signedAsOwn(confirmation("own")));
    EXPECT_EQ(own.m_Code, KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(own.m_Line, 733);
    Thrown const other = verify(confirmation("server", "PayInit"));
    EXPECT_EQ(other.m_Code, KVX_E_WRONG_RESPONSE);
    EXPECT_EQ(other.m_Line, 736);
    EXPECT_EQ(verify("<KVX KEYID=\"server\"/>").m_Code, KVX_E_WRONG_RESPONSE) << "no type";
    EXPECT_EQ(verify(confirmation("server", "payconfirm")).m_Code, KVX_E_WRONG_RESPONSE);
    EXPECT_EQ(verify(confirmation("server", "Other"), std::string(128, '0')).m_Code, KVX_E_INVALID_SIGNATURE)
        << "the signature comes first";
}

TEST_F(StrictVerification, NeedsToKnowWhetherTheKeyIsAnOwnOne) {
    std::string const text = confirmation("own");
    std::string const signature = signedAsOwn(text);
    write("settings.xml", documentOf("STRICTCONFIRM=\"1\""));
    FailingReads const failing(m_Dir.file("keys/private/own"));
    EXPECT_EQ(verify(text, signature).m_Code, KVX_E_CANNOT_OPEN);
}

TEST_F(StrictVerification, NeedsSettingsThatCanBeOpened) {
    std::filesystem::create_symlink(std::string(300, 'x'), m_Dir.file("settings.xml"));
    EXPECT_EQ(verify(confirmation("own"), signedAsOwn(confirmation("own"))).m_Code, KVX_E_CANNOT_OPEN);
}

TEST_F(StrictVerification, RefusesSignaturesInOtherSpellings) {
    std::string const text = confirmation("server");
    std::string const signature = signedElsewhere(text, Widening::kWithSign);
    std::string upper = signature;
    for (char& character : upper) {
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    ASSERT_NE(upper, signature);
    for (std::string const& spelling : {upper, signature + "0", signature + "f"}) {
        write("settings.xml", documentOf(""));
        EXPECT_EQ(verify(text, spelling).m_Code, KVX_OK) << spelling;
        write("settings.xml", documentOf("STRICTSIG=\"1\""));
        Thrown const refused = verify(text, spelling);
        EXPECT_EQ(refused.m_Code, KVX_E_INVALID_SIGNATURE) << spelling;
        EXPECT_EQ(refused.m_Line, 301);
    }
    EXPECT_EQ(verify(text, signature).m_Code, KVX_OK);
    EXPECT_EQ(verify(text, "00" + signature).m_Code, KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(verify(text, signature.substr(2)).m_Code, KVX_E_INVALID_SIGNATURE);
}

TEST_F(StrictVerification, AcceptsThePinnedKeyAlone) {
    std::string const text = confirmation("server");
    std::string const pin = pinOf(dataHex("rsa/key512.public.hex"));
    std::string upper = pin;
    for (char& character : upper) {
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    for (std::string const& accepted : {pin, upper}) {
        write("settings.xml", documentOf("KEYPIN=\"" + accepted + "\""));
        EXPECT_EQ(verify(text).m_Code, KVX_OK) << accepted;
    }
    std::string changed = pin;
    changed[0] = changed[0] == '0' ? '1' : '0';
    for (std::string const& refused : {changed, pin.substr(1), pin + "0", std::string("none")}) {
        write("settings.xml", documentOf("KEYPIN=\"" + refused + "\""));
        Thrown const failure = verify(text);
        EXPECT_EQ(failure.m_Code, KVX_E_INVALID_SIGNATURE) << refused;
        EXPECT_EQ(failure.m_Line, 299);
    }
    for (char const* damaged : {"KEYPIN=\"\"", "KEYPIN=\"&abcd\"", "KEYPIN"}) {
        write("settings.xml", documentOf(damaged));
        EXPECT_EQ(verify(text).m_Code, KVX_E_INVALID_SIGNATURE) << damaged;
    }
}

TEST_F(StrictVerification, RefusesAPinnedKeyThatCannotBeDigested) {
    Bytes const key = dataBytes("rsa/key512.public.hex");
    KvxPublicKey const pinned{key.data(), static_cast<std::uint32_t>(key.size())};
    KVX_Settings const settings = settingsOf("KEYPIN=\"" + pinOf(dataHex("rsa/key512.public.hex")) + "\"");
    EXPECT_TRUE(kvxIsAcceptedKey(settings, pinned));
    WithoutAlgorithms const none;
    EXPECT_FALSE(kvxIsAcceptedKey(settings, pinned));
    ERR_clear_error();
}

TEST_F(StrictVerification, RefusesKeysThatAreTooSmall) {
    std::string const text = confirmation("server");
    write("settings.xml", documentOf("MINKEYBITS=\"512\""));
    EXPECT_EQ(verify(text).m_Code, KVX_OK);
    write("settings.xml", documentOf("MINKEYBITS=\"513\""));
    EXPECT_EQ(verify(text).m_Code, KVX_E_INVALID_SIGNATURE);
    write("settings.xml", documentOf("MINKEYBITS=\"many\""));
    EXPECT_EQ(verify(text).m_Code, KVX_OK);
}

TEST_F(StrictVerification, FailsWithDamagedSettings) {
    for (char const* settings : {"", "<KVX", "<OTHER/>"}) {
        write("settings.xml", settings);
        EXPECT_EQ(verify(confirmation("server")).m_Code, KVX_E_INVALID_FORMAT) << settings;
    }
}

/// A server that answers a set-up with one document.
struct StrictSetup : testing::Test, protected Merchant {
    std::int32_t importing(std::string const& blob) {
        ExchangeServer server({"<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"new\" KEYBLOB=\"" + blob + "\"/>"});
        m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
        TbString keyId = "new";
        return thrownCode([&] { m_Context.ImportKey(keyId); });
    }
};

TEST_F(StrictSetup, RefusesKeysThatVerifyNothing) {
    std::string const good = dataHex("rsa/key512.public.hex");
    // A key with modulus 512 bits and the exponent 1; an even modulus; 1032 bits; a bare number.
    std::string const even = good.substr(0, good.size() - 11) + "0" + good.substr(good.size() - 10);
    ASSERT_EQ(good.substr(good.size() - 10), "0203010001");
    std::string const exponentOne = [&] {
        Bytes key = bytesOfHex(good);
        key.resize(key.size() - 5);
        key.insert(key.end(), {0x02, 0x01, 0x01});
        key[1] = static_cast<unsigned char>(key[1] - 2);
        return hexOf(key);
    }();
    std::string const refused[] = {"",
                                   "no digits",
                                   "00",
                                   good.substr(2),
                                   good.substr(0, 40),
                                   even,
                                   exponentOne,
                                   dataHex("rsa/key1032.public.hex"),
                                   dataHex("rsa/key512.spki.hex"),
                                   "3006020101020103"};
    for (std::string const& blob : refused) {
        write("settings.xml", documentOf("STRICTKEYS=\"1\""));
        EXPECT_EQ(importing(blob), KVX_E_INVALID_KEY) << blob;
        EXPECT_FALSE(exists("keys/public/new")) << blob;
    }
    for (std::string const& blob : refused) {
        write("settings.xml", documentOf(""));
        EXPECT_EQ(importing(blob), KVX_OK) << blob;
        EXPECT_EQ(read("keys/public/new"), blob);
    }
    write("settings.xml", documentOf("PROFILE=\"strict\""));
    for (std::string const& blob : {good, dataHex("rsa/key1024.public.hex")}) {
        EXPECT_EQ(importing(blob), KVX_OK) << blob;
        EXPECT_EQ(read("keys/public/new"), blob);
    }
}

TEST_F(StrictSetup, RefusesAnotherKeyThanThePinnedOne) {
    std::string const good = dataHex("rsa/key1024.public.hex");
    write("settings.xml", documentOf("KEYPIN=\"" + pinOf(good) + "\""));
    EXPECT_EQ(importing(dataHex("rsa/key512.public.hex")), KVX_E_INVALID_KEY);
    EXPECT_FALSE(exists("keys/public/new"));
    EXPECT_EQ(importing(good), KVX_OK);
}

TEST_F(StrictSetup, RefusesASmallerKey) {
    write("settings.xml", documentOf("MINKEYBITS=\"1024\""));
    EXPECT_EQ(importing(dataHex("rsa/key512.public.hex")), KVX_E_INVALID_KEY);
    EXPECT_FALSE(exists("keys/public/new"));
    EXPECT_EQ(importing(dataHex("rsa/key1024.public.hex")), KVX_OK);
}

TEST_F(StrictSetup, RefusesAConfigurationWithoutAPaymentAddress) {
    std::string const before = read("config.xml");
    for (char const* response : {"<KVX MSGTYPE=\"SetupResponse\"/>", "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"\"/>",
                                 "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"pay.example\"/>",
                                 "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"://pay.example\"/>"}) {
        ExchangeServer server({response});
        m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
        write("config.xml", before);
        write("settings.xml", documentOf("STRICTKEYS=\"1\""));
        EXPECT_EQ(thrownCode([&] { m_Context.Setup(); }), KVX_E_NO_CONFIGURATION);
        EXPECT_EQ(read("config.xml"), before);
        write("settings.xml", documentOf("STRICTKEYS=\"0\""));
        EXPECT_EQ(thrownCode([&] { m_Context.Setup(); }), KVX_OK);
        EXPECT_EQ(read("config.xml"), response);
    }
}

TEST_F(StrictSetup, ReplacesNothingWhenTheLastResponseIsRefused) {
    std::string const pin = "KEYPIN=\"" + pinOf(dataHex("rsa/key512.public.hex")) + "\"";
    for (std::string const& settings : {std::string("STRICTKEYS=\"1\""), pin, std::string("MINKEYBITS=\"512\"")}) {
        ExchangeServer server({"<KVX MSGTYPE=\"SetupResponse\" VTURL=\"x://new\" VTKEYID=\"new\"/>",
                               "<KVX MSGTYPE=\"LoadDefaultsResponse\"/>",
                               "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"new\" KEYBLOB=\"00\"/>"});
        m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
        write("settings.xml", documentOf(settings));
        std::string const before = read("config.xml");
        EXPECT_EQ(thrownCode([&] { m_Context.Reconfigure(); }), KVX_E_INVALID_KEY) << settings;
        EXPECT_EQ(read("config.xml"), before) << settings;
        EXPECT_FALSE(exists("default.xml")) << settings;
        EXPECT_FALSE(exists("keys/public/new")) << settings;
    }
}

TEST_F(StrictSetup, WritesTheSameFilesAsAPlainOne) {
    std::string const configuration =
        "<KVX MSGTYPE=\"SetupResponse\" VTURL=\"x://new\" VTKEYID=\"new\" CUSTOMERID=\"7\"/>";
    std::string const defaults = "<KVX MSGTYPE=\"LoadDefaultsResponse\" A=\"1\"/>";
    std::string const key = dataHex("rsa/key1024.public.hex");
    for (char const* settings : {"STRICTKEYS=\"0\"", "STRICTKEYS=\"1\""}) {
        ExchangeServer server({configuration, defaults,
                               "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"new\" KEYBLOB=\"" + key + "\"/>",
                               "<KVX MSGTYPE=\"KeyExportResponse\"/>"});
        m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
        write("settings.xml", documentOf(settings));
        write("config.xml", "<KVX/>");
        write("default.xml", "<KVX/>");
        write("keys/public/new", "");
        EXPECT_EQ(thrownCode([&] { m_Context.Reconfigure(); }), KVX_OK) << settings;
        EXPECT_EQ(read("config.xml"), configuration);
        EXPECT_EQ(read("default.xml"), defaults);
        EXPECT_EQ(read("keys/public/new"), key);
        EXPECT_EQ(read("keys/current").substr(0, 4), "0-7-");
        EXPECT_EQ(server.messages().size(), 4U);
    }
}

TEST_F(StrictSetup, ReplacesNothingForIdsThatNameNoFileOrAnOwnKey) {
    std::string const foreign = dataHex("rsa/key1024.public.hex");
    struct Case {
        std::string m_KeyId;
        std::string m_Blob;
        std::string m_CustomerId;
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"", foreign, "7", KVX_E_FILE_NOT_FOUND},
        {std::string(300, 'k'), foreign, "7", KVX_E_FILE_NOT_FOUND},
        {"../x", foreign, "7", KVX_E_FILE_NOT_FOUND},
        {"new", foreign, "../../x", KVX_E_FILE_NOT_FOUND},
        {"new", foreign, std::string(250, 'c'), KVX_E_FILE_NOT_FOUND},
        {"own", foreign, "7", KVX_E_INVALID_KEY},
    };
    for (Case const& row : cases) {
        ExchangeServer server(
            {"<KVX MSGTYPE=\"SetupResponse\" VTURL=\"x://new\" VTKEYID=\"asked\" CUSTOMERID=\"" + row.m_CustomerId +
                 "\"/>",
             "<KVX MSGTYPE=\"LoadDefaultsResponse\"/>",
             "<KVX MSGTYPE=\"KeyQueryResponse\" KEYID=\"" + row.m_KeyId + "\" KEYBLOB=\"" + row.m_Blob + "\"/>"});
        m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
        write("settings.xml", documentOf("STRICTKEYS=\"1\""));
        std::string const before = read("config.xml");
        EXPECT_EQ(thrownCode([&] { m_Context.Reconfigure(); }), row.m_Code) << row.m_KeyId << " " << row.m_CustomerId;
        EXPECT_EQ(read("config.xml"), before);
        EXPECT_FALSE(exists("default.xml"));
        EXPECT_FALSE(exists("keys/public/new"));
    }
}

TEST_F(StrictSetup, NeedsTheNameOfAKey) {
    ExchangeServer server(
        {"<KVX MSGTYPE=\"SetupResponse\" VTURL=\"x://new\"/>", "<KVX MSGTYPE=\"LoadDefaultsResponse\"/>"});
    m_Context.SetOption("VTAUTOURL", server.url("/auto").c_str());
    write("settings.xml", documentOf("STRICTKEYS=\"1\""));
    EXPECT_EQ(thrownCode([&] { m_Context.Reconfigure(); }), KVX_E_NO_CONFIGURATION);
}

TEST_F(StrictSetup, GivesNewPrivateKeysTheirMode) {
    struct Case {
        char const* m_Settings;
        unsigned m_Mode;
    };
    for (Case const& row : {Case{"", 0600}, Case{"KEYMODE=\"0640\"", 0640}, Case{"KEYMODE=\"0644\"", 0600}}) {
        write("settings.xml", documentOf(row.m_Settings));
        std::filesystem::remove(m_Dir.file("keys/private/fresh"));
        TbString keyId = "fresh";
        m_Context.GenKey(keyId);
        auto const mode = std::filesystem::status(m_Dir.file("keys/private/fresh")).permissions();
        EXPECT_EQ(static_cast<unsigned>(mode), row.m_Mode) << row.m_Settings;
    }
}

TEST_F(StrictSetup, LeavesOutSynchronisingOnRequestAlone) {
    static int s_Syncs = 0;
    SystemCalls calls;
    calls->fsync = [](int) {
        ++s_Syncs;
        return 0;
    };
    write("settings.xml", documentOf("SYNCFILES=\"0\""));
    m_Context.UpdateFile("config.xml", "<KVX/>");
    EXPECT_EQ(s_Syncs, 0);
    write("settings.xml", documentOf("SYNCFILES=\"1\""));
    m_Context.UpdateFile("config.xml", "<KVX/>");
    EXPECT_GT(s_Syncs, 0);
}

struct StrictNames : testing::Test, protected Merchant {};

TEST_F(StrictNames, RefuseWhatNoReaderFindsAgain) {
    char const* const unreadable[] = {"", "A B", "A&", "A=", "\"", "A/", "<", "A(.0)", "\xC3\xA9", "A:B", "A\tB"};
    KVX_Message message;
    message.Create(&m_Context, "T");
    for (char const* name : unreadable) {
        write("settings.xml", documentOf("STRICTNAMES=\"1\""));
        std::string const before = read("config.xml");
        EXPECT_EQ(thrownCode([&] { message.SetAttribute(name, "1"); }), KVX_E_INVALID_OPTION) << name;
        EXPECT_EQ(thrownCode([&] { m_Context.SetValue("config.xml", name, "1", false); }), KVX_E_INVALID_OPTION)
            << name;
        EXPECT_EQ(read("config.xml"), before);
        write("settings.xml", documentOf("STRICTNAMES=\"0\""));
        EXPECT_EQ(thrownCode([&] { message.SetAttribute(name, "1"); }), KVX_OK) << name;
    }
    write("settings.xml", documentOf("STRICTNAMES=\"1\""));
    EXPECT_EQ(thrownCode([&] { message.SetAttribute("KVX.A-b_9", "1"); }), KVX_OK);
    EXPECT_EQ(thrownCode([&] { m_Context.SetValue("config.xml", "KVX.A-b_9", "1", false); }), KVX_OK);
}

}  // namespace
