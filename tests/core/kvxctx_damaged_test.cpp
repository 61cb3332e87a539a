// The texts of exceptions about files of the directory: which file is damaged or cannot be opened.
//
// The troubleshooting guide sends merchants from such a text to the file. A document or signature from outside, a
// missing file and a directory that a caller asks for have no file to name.

#include <filesystem>
#include <functional>
#include <string>

#include "api/cMessageFactory.h"
#include "api/cMessageObject.h"
#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

using Call = void (*)(KVX_Context& context);

void read(KVX_Context& context, char const* file) {
    TbString value;
    context.QueryValue(file, "A", value);
}
void create(KVX_Context& context) {
    KVX_Message message;
    message.Create(&context, "PayInit");
}
void createPayInit(KVX_Context& context) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(context.GetPath());
    delete factory.CreatePayInit();
}
void getUrl(KVX_Context& context) {
    KVX_Message message;
    message.Create(&context, "PayInit");
    TbString url;
    message.GetURL(url);
}
void open(KVX_Context& context) {
    KVX_Message message;
    message.Open(&context, "<KVX KEYID=\"server\"/>", "00");
}
void sign(KVX_Context& context) {
    TbString signature;
    context.SignData("text", "own", signature);
}
void setUp(KVX_Context& context) {
    context.SetOption("VTAUTOURL", "http://127.0.0.1:1/");
    context.Reconfigure();
}
void publish(KVX_Context& context) {
    context.SetOption("VTAUTOURL", "http://127.0.0.1:1/");
    TbString keyId("own");
    context.PublishKey(keyId);
}

struct Damage {
    char const* m_File;
    char const* m_Name;
    Call m_Call;
    std::int32_t m_Code;
    char const* m_Text;  ///< Before the name of the file.
};

// clang-format off
constexpr char kNoDocument[] = "invalid file format";
constexpr char kNoKey[]      = "invalid key blob";

Damage const kDamages[] = {
    {"config.xml",         "GetURL",        &getUrl,        KVX_E_INVALID_FORMAT, kNoDocument},
    {"config.xml",         "set-up",        &setUp,         KVX_E_INVALID_FORMAT, kNoDocument},
    {"config.xml",         "GetAttribute",  [](auto& context) { read(context, "config.xml"); },
                                                            KVX_E_INVALID_FORMAT, kNoDocument},
    {"config.xml",         "SetAttribute",  [](auto& context) { context.SetValue("config.xml", "A", "1", false); },
                                                            KVX_E_INVALID_FORMAT, kNoDocument},
    {"default.xml",        "CreatePayInit", &createPayInit, KVX_E_INVALID_FORMAT, kNoDocument},
    {"default.xml",        "set-up",        &setUp,         KVX_E_INVALID_FORMAT, kNoDocument},
    {"settings.xml",       "verification",  &open,          KVX_E_INVALID_FORMAT, kNoDocument},
    {"settings.xml",       "set-up",        &setUp,         KVX_E_INVALID_FORMAT, kNoDocument},
    {"keys/private/own",   "SignData",      &sign,          KVX_E_INVALID_KEY,    kNoKey},
    {"keys/private/own",   "GetURL",        &getUrl,        KVX_E_INVALID_KEY,    kNoKey},
    {"keys/public/server", "verification",  &open,          KVX_E_INVALID_KEY,    kNoKey},
};

Damage const kUnreadable[] = {
    {"config.xml",         "GetURL",        &getUrl,        KVX_E_CANNOT_OPEN, ""},
    {"config.xml",         "set-up",        &setUp,         KVX_E_CANNOT_OPEN, ""},
    {"default.xml",        "CreatePayInit", &createPayInit, KVX_E_CANNOT_OPEN, ""},
    {"default.xml",        "set-up",        &setUp,         KVX_E_CANNOT_OPEN, ""},
    {"settings.xml",       "verification",  &open,          KVX_E_CANNOT_OPEN, ""},
    {"settings.xml",       "set-up",        &setUp,         KVX_E_CANNOT_OPEN, ""},
    {"keys/current",       "Create",        &create,        KVX_E_CANNOT_OPEN, ""},
    {"keys/private/own",   "SignData",      &sign,          KVX_E_CANNOT_OPEN, ""},
    {"keys/public/server", "verification",  &open,          KVX_E_CANNOT_OPEN, ""},
    {"keys/public/own",    "publication",   &publish,       KVX_E_CANNOT_OPEN, ""},
};
// clang-format on

struct Whole : Merchant {
    Whole() {
        write("default.xml", "<KVX/>");
        write("settings.xml", "<KVX/>");
    }
};

TEST(DamagedFiles, AreNamedInTheTextOfTheException) {
    for (Damage const& row : kDamages) {
        for (char const* content : {"no document, no key", "<KVX", "<OTHER/>"}) {
            Whole account;
            account.write(row.m_File, content);
            Thrown const failure = thrown([&] { row.m_Call(account.m_Context); });
            EXPECT_EQ(failure.m_Code, row.m_Code) << row.m_File << ", " << row.m_Name;
            EXPECT_EQ(failure.m_Text, std::string(row.m_Text) + " (" + row.m_File + ")") << row.m_Name;
        }
    }
}

TEST(DamagedFiles, AreNamedWhenTheyCannotBeOpened) {
    static std::string s_Path;
    for (Damage const& row : kUnreadable) {
        Whole account;
        s_Path = account.m_Dir.file(row.m_File);
        SystemCalls calls;
        calls->open = [](char const* path, int flags, mode_t mode) {
            if (path == s_Path) {
                errno = EACCES;
                return -1;
            }
            return TbSystemCalls::openFile(path, flags, mode);
        };
        Thrown const failure = thrown([&] { row.m_Call(account.m_Context); });
        EXPECT_EQ(failure.m_Code, row.m_Code) << row.m_File << ", " << row.m_Name;
        EXPECT_EQ(failure.m_Text, std::string("ErrorCode = 0x80040219 (") + row.m_File + ")") << row.m_Name;
        EXPECT_EQ(failure.m_File, "kvxurl");
        EXPECT_EQ(failure.m_Line, 41);
    }
}

TEST(DamagedFiles, AreNamedWhenADirectoryIsInTheirPlace) {
    for (char const* file : {"default.xml", "settings.xml"}) {
        Whole account;
        std::filesystem::remove(account.m_Dir.file(file));
        std::filesystem::create_directory(account.m_Dir.file(file));
        Thrown const failure = thrown([&] { setUp(account.m_Context); });
        EXPECT_EQ(failure.m_Text, std::string("ErrorCode = 0x80040219 (") + file + ")");
    }
}

TEST(DamagedFiles, AreNotBlamedForWhatComesFromOutsideOrIsMissing) {
    Whole account;
    KVX_Context& context = account.m_Context;
    TbString text;
    TbStringStream stream;
    xmlElement* element = nullptr;
    KVX_Message message(&context);
    struct Row {
        std::function<void()> m_Call;
        char const* m_Text;
    };
    Row const rows[] = {
        {[&] { context.XmlFromString("<KVX", &element); }, "invalid file format"},
        {[&] { context.XmlFromString("<OTHER/>", &element); }, "invalid file format"},
        {[&] { message.FromString("<KVX"); }, "invalid file format"},
        {[&] { message.Open(&context, "<KVX", "00"); }, "invalid file format"},
        {[&] { message.Open(&context, "<KVX KEYID=\"server\"/>", "no digits"); }, "invalid key blob"},
        {[&] { context.VerifyData("text", "unknown", "00"); }, "requested item was not found"},
        {[&] { context.SignData("text", "unknown", text); }, "requested item was not found"},
        {[&] { context.QueryValue("missing.xml", "A", text); }, "ErrorCode = 0x80040219"},
        {[&] { context.QueryValue("keys", "A", text); }, "ErrorCode = 0x80040219"},
        {[&] { context.SetValue("missing.xml", "A", "1", false); }, "ErrorCode = 0x80040219"},
        {[&] { context.StreamFromURL(account.m_Dir.file("missing.xml").c_str(), stream); }, "ErrorCode = 0x80040219"},
        {[&] { context.UpdateFile("missing/file", "x"); }, "file not found"},
    };
    for (Row const& row : rows) {
        EXPECT_EQ(thrown(row.m_Call).m_Text, row.m_Text);
    }
}

TEST(DamagedFiles, AreNotNamedToReadersOfAPath) {
    Whole account;
    SystemCalls calls;
    calls->open = [](char const*, int, mode_t) {
        errno = EACCES;
        return -1;
    };
    TbStringStream out;
    Thrown const failure =
        thrown([&] { account.m_Context.StreamFromURL(account.m_Dir.file("config.xml").c_str(), out); });
    EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80040219");
    EXPECT_EQ(failure.m_Line, 41);
}

}  // namespace
