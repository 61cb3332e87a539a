// Files that are there and cannot be opened, by every cause and for every function that reads them.
//
// One table holds the codes by function and file, for a file that the system reports as absent and for one that it
// does not let be opened. Behind each refused call nothing has been sent and no file has changed. Odd: the same
// missing file is harmless to one function and ends another.

#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>

#include "tests/api/apisupport.h"
#include "tests/support/processes.h"
#include "tests/support/rawserver.h"
#include "tests/support/systemcalls.h"

using namespace kvxtest;

namespace {

/// The answer to any request that the functions below send.
std::string answerTo(std::string const& request) {
    struct Row {
        char const* m_Asked;
        char const* m_Answer;
    };
    Row const rows[] = {
        {"SetupRequest", R"(<KVX MSGTYPE="SetupResponse" VTKEYID="server" CUSTOMERID="1"/>)"},
        {"LoadDefaultsRequest", R"(<KVX MSGTYPE="LoadDefaultsResponse" KVX.ISVALID="yes"/>)"},
        {"KeyQueryRequest", R"(<KVX MSGTYPE="KeyQueryResponse" KEYID="server" KEYBLOB="3048"/>)"},
        {"KeyExportRequest", R"(<KVX MSGTYPE="KeyExportResponse"/>)"},
        {"StatusRequest", R"(<KVX MSGTYPE="StatusResponse"/>)"},
        {"PayComplete", R"(<KVX MSGTYPE="PayConfirm"/>)"},
    };
    for (Row const& row : rows) {
        if (request.find(row.m_Asked) != std::string::npos) {
            return httpResponse(row.m_Answer);
        }
    }
    return "HTTP/1.0 500 Unknown\r\n\r\n";
}

/// An account in use, whose payment server records what it is sent.
class Shop {
public:
    Shop()
        : m_Server([this](Peer& peer) {
              std::string const request = peer.receiveRequest();
              m_Server.record(request);
              peer.send(answerTo(request));
          }) {
        m_Dir.setAddress(url());
        m_Dir.setDefaults(R"( KVX.ISVALID="yes" SUCCESSLINK="http://shop/ok" PAYINITTTL="3600")");
        m_Dir.write("settings.xml", "<KVX TRACEOPT=\"none\"/>");
    }

    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + m_Server.portText() + "/pay"; }

    /// Contents and modes of all files, by name.
    [[nodiscard]] std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> found;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(m_Dir.path())) {
            if (entry.is_regular_file()) {
                std::stringstream content;
                content << std::ifstream(entry.path()).rdbuf();
                found[entry.path()] = content.str();
            }
        }
        return found;
    }

    /// How many requests came in. Ends the server.
    std::size_t requests() { return m_Server.records().size(); }

    AccountDirectory m_Dir;

private:
    RawServer m_Server;
};

/// A call under test: all it needs is made in good times, before files fail.
class Prepared {
public:
    explicit Prepared(Shop const& shop) : m_Factory(shop.m_Dir.path()), m_Url(shop.url()) {
        ConfigurationSetup_SetConfiguration(m_Setup.get(), shop.m_Dir.path().c_str());
        EXPECT_EQ(MessageFactory_CreateRequest(m_Factory.get(), "Status", m_Request.out()), KVX_OK);
        EXPECT_EQ(MessageFactory_CreatePayInit(m_Factory.get(), m_Payment.out()), KVX_OK);
        EXPECT_EQ(MessageFactory_CreatePayComplete(m_Factory.get(), "P1", "t1", m_Completion.out()), KVX_OK);
        m_Signature = shop.m_Dir.sign(kConfirmation);
    }

    FactoryHandle m_Factory;
    SetupHandle m_Setup;
    MadeMessage m_Request;
    MadeMessage m_Payment;
    MadeMessage m_Completion;
    std::string m_Signature;
    std::string m_Url;
};

using Call = std::int32_t (*)(Prepared& prepared, char const* file);

std::int32_t createPayInit(Prepared& prepared, char const*) {
    MadeMessage made;
    return MessageFactory_CreatePayInit(prepared.m_Factory.get(), made.out());
}
std::int32_t getUrl(Prepared& prepared, char const*) {
    std::int32_t size = 0;
    std::int32_t const code = MessageObject_GetURL(prepared.m_Payment.get(), &size, nullptr);
    return code == KVX_E_BUFFER_TOO_SMALL ? KVX_OK : code;
}
std::int32_t verifyPayConfirm(Prepared& prepared, char const*) {
    MadeMessage made;
    return MessageFactory_VerifyPayConfirm(prepared.m_Factory.get(), kConfirmation, prepared.m_Signature.c_str(),
                                           made.out());
}
std::int32_t createPayComplete(Prepared& prepared, char const*) {
    MadeMessage made;
    return MessageFactory_CreatePayComplete(prepared.m_Factory.get(), "P1", "t1", made.out());
}
std::int32_t execute(Prepared& prepared, char const*) {
    MadeMessage made;
    return MessageObject_Execute(prepared.m_Request.get(), made.out());
}
std::int32_t capture(Prepared& prepared, char const*) {
    return MessageObject_Capture(prepared.m_Completion.get());
}
std::int32_t reconfigure(Prepared& prepared, char const*) {
    return ConfigurationSetup_Reconfigure(prepared.m_Setup.get(), prepared.m_Url.c_str(), "", "");
}
std::int32_t getAttribute(Prepared& prepared, char const* file) {
    std::int32_t size = 0;
    std::int32_t const code = ConfigurationSetup_GetAttribute(prepared.m_Setup.get(), file, "", &size, nullptr);
    return code == KVX_E_BUFFER_TOO_SMALL ? KVX_OK : code;
}
std::int32_t setAttribute(Prepared& prepared, char const* file) {
    return ConfigurationSetup_SetAttribute(prepared.m_Setup.get(), file, "A", "1");
}

constexpr char const* kFiles[] = {"config.xml",   "default.xml",      "settings.xml",
                                  "keys/current", "keys/private/own", "keys/public/server"};

constexpr std::size_t kConfig = 0;  ///< Its place in the row above.

/// What a function does with a file.
enum Use {
    kNo,    ///< It does not read it.
    kMay,   ///< It does without a missing one.
    kMust,  ///< A missing one is KVX_E_CANNOT_OPEN too.
    kKey,   ///< A missing one is an unknown key.
};

struct Function {
    char const* m_Name;
    Call m_Call;
    Use m_Use[std::size(kFiles)];
};

// clang-format off
constexpr Function kFunctions[] = {
    //                                      config  default settings current private public
    {"CreatePayInit",     &createPayInit,     {kNo,   kMay,   kMay,    kMust,  kNo,    kNo}},
    {"GetURL",            &getUrl,            {kMust, kNo,    kMay,    kNo,    kKey,   kNo}},
    {"VerifyPayConfirm",  &verifyPayConfirm,  {kNo,   kNo,    kMay,    kNo,    kNo,    kKey}},
    {"CreatePayComplete", &createPayComplete, {kNo,   kNo,    kNo,     kMust,  kNo,    kNo}},
    {"Execute",           &execute,           {kMust, kNo,    kMay,    kNo,    kKey,   kNo}},
    {"Capture",           &capture,           {kMust, kNo,    kMay,    kNo,    kKey,   kNo}},
    {"Reconfigure",       &reconfigure,       {kMust, kMay,   kMay,    kNo,    kNo,    kNo}},
    {"GetAttribute",      &getAttribute,      {kMust, kMust,  kMust,   kMust,  kMust,  kMust}},
    {"SetAttribute",      &setAttribute,      {kMust, kMust,  kMust,   kMust,  kMust,  kMust}},
};
// clang-format on

struct Cause {
    char const* m_Name;
    int m_Error;
};

constexpr Cause kAbsent[] = {{"ENOENT", ENOENT}, {"ENOTDIR", ENOTDIR}};

constexpr Cause kThere[] = {
    {"EACCES", EACCES}, {"EMFILE", EMFILE}, {"ENFILE", ENFILE},
    {"EIO", EIO},       {"ENOMEM", ENOMEM}, {"ELOOP", ELOOP},
    {"EPERM", EPERM},   {"ENODEV", ENODEV}, {"ETIMEDOUT", ETIMEDOUT},
};

std::int32_t codeOfAbsent(Use use) {
    switch (use) {
        case kMust:
            return KVX_E_CANNOT_OPEN;
        case kKey:
            return KVX_E_NOT_FOUND;
        default:
            return KVX_OK;
    }
}

/// Runs `visit` for each function and each file that it reads, with a name of the cell for failures.
void forEachCell(std::function<void(Function const&, std::size_t)> const& visit) {
    for (Function const& function : kFunctions) {
        for (std::size_t file = 0; file < std::size(kFiles); ++file) {
            SCOPED_TRACE(std::string(function.m_Name) + ", " + kFiles[file]);
            visit(function, file);
        }
    }
}

/// Every reading open of one file fails while it lives.
class FailingOpen {
public:
    FailingOpen(std::string const& path, int error) {
        s_Path = path;
        s_Error = error;
        m_Calls->open = [](char const* opened, int flags, mode_t mode) {
            if (opened == s_Path && (flags & O_ACCMODE) == O_RDONLY) {
                errno = s_Error;
                return -1;
            }
            return TbSystemCalls::openFile(opened, flags, mode);
        };
        m_Calls->fsync = [](int) { return 0; };
    }

private:
    static inline std::string s_Path;
    static inline int s_Error = 0;

    SystemCalls m_Calls;
};

TEST(UnreadableFiles, AreAbsentOnlyWhereTheSystemSaysSo) {
    forEachCell([](Function const& function, std::size_t file) {
        for (Cause const& cause : kAbsent) {
            Shop shop;
            Prepared prepared(shop);
            FailingOpen const failing(shop.m_Dir.file(kFiles[file]), cause.m_Error);
            EXPECT_EQ(function.m_Call(prepared, kFiles[file]), codeOfAbsent(function.m_Use[file])) << cause.m_Name;
        }
    });
}

TEST(UnreadableFiles, EndTheCallBeforeAnythingIsSentOrWritten) {
    forEachCell([](Function const& function, std::size_t file) {
        bool const isUsed = function.m_Use[file] != kNo;
        std::size_t const causes = isUsed ? std::size(kThere) : 1;
        for (std::size_t i = 0; i < causes; ++i) {
            Cause const& cause = kThere[i];
            Shop shop;
            Prepared prepared(shop);
            auto const before = shop.files();
            {
                FailingOpen const failing(shop.m_Dir.file(kFiles[file]), cause.m_Error);
                EXPECT_EQ(function.m_Call(prepared, kFiles[file]), isUsed ? KVX_E_CANNOT_OPEN : KVX_OK) << cause.m_Name;
            }
            if (isUsed) {
                EXPECT_EQ(shop.files(), before) << cause.m_Name;
                EXPECT_EQ(shop.requests(), 0U) << cause.m_Name;
            }
        }
    });
}

TEST(UnreadableFiles, EndTheCallWhereTheyCannotBeRead) {
    forEachCell([](Function const& function, std::size_t file) {
        Use const use = function.m_Use[file];
        if (use == kNo) {
            return;
        }
        Shop shop;
        Prepared prepared(shop);
        auto const before = shop.files();
        {
            FailingReads const failing(shop.m_Dir.file(kFiles[file]));
            // Where a missing file ends the call, a failure of the disk keeps its own code.
            bool const isOptional = use == kMay || (function.m_Call == &reconfigure && file == kConfig);
            EXPECT_EQ(function.m_Call(prepared, kFiles[file]), isOptional ? KVX_E_CANNOT_OPEN : KVX_E_FILE_IO);
        }
        EXPECT_EQ(shop.files(), before);
        EXPECT_EQ(shop.requests(), 0U);
    });
}

TEST(UnreadableFiles, AreRefusedForAUserWithoutPermissionAndForADirectoryInTheirPlace) {
    if (!kMayForkBesideThreads) {
        GTEST_SKIP() << "the shop's server is a thread";
    }
    constexpr uid_t kNobody = 65534;
    forEachCell([](Function const& function, std::size_t file) {
        if (function.m_Use[file] == kNo) {
            return;
        }
        for (bool const isDirectory : {false, true}) {
            Shop shop;
            // All belongs to the user that runs the call, so that only the one file's mode refuses it.
            std::string const path = shop.m_Dir.file(kFiles[file]);
            auto const before = shop.files();
            int const status = inChildProcess([&]() -> int {
                for (auto const& entry : std::filesystem::recursive_directory_iterator(shop.m_Dir.path())) {
                    if (::geteuid() == 0 && ::chown(entry.path().c_str(), kNobody, kNobody) != 0) {
                        return 97;
                    }
                }
                if (::geteuid() == 0 &&
                    (::chown(shop.m_Dir.path().c_str(), kNobody, kNobody) != 0 || ::setgroups(0, nullptr) != 0 ||
                     ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
                    return 97;
                }
                Prepared prepared(shop);
                if (isDirectory) {
                    std::filesystem::rename(path, path + ".aside");
                    std::filesystem::create_directory(path);
                } else {
                    ::chmod(path.c_str(), 0);
                }
                std::int32_t const code = function.m_Call(prepared, kFiles[file]);
                if (isDirectory) {
                    std::filesystem::remove(path);
                    std::filesystem::rename(path + ".aside", path);
                } else {
                    ::chmod(path.c_str(), 0644);
                }
                return code == KVX_E_CANNOT_OPEN ? 0 : 1;
            });
            EXPECT_EQ(status, 0) << (isDirectory ? "a directory" : "no permission");
            EXPECT_EQ(shop.files(), before);
            EXPECT_EQ(shop.requests(), 0U);
        }
    });
}

TEST(UnreadableFiles, AreAllThatAProcessWithoutDescriptorsHas) {
    Shop shop;
    Prepared prepared(shop);
    auto const before = shop.files();
    {
        SystemCalls calls;
        calls->open = [](char const*, int, mode_t) {
            errno = EMFILE;
            return -1;
        };
        EXPECT_EQ(createPayInit(prepared, nullptr), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(verifyPayConfirm(prepared, nullptr), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(execute(prepared, nullptr), KVX_E_CANNOT_OPEN);
        EXPECT_EQ(reconfigure(prepared, nullptr), KVX_E_CANNOT_OPEN);
    }
    EXPECT_EQ(shop.files(), before);
    EXPECT_EQ(shop.requests(), 0U);
}

TEST(UnreadableFiles, AreNoMatterForKeyIdsThatNoFileCanHave) {
    Shop shop;
    shop.m_Dir.write("keys/public/file", "x");
    Prepared prepared(shop);
    for (std::string const& keyId : {std::string(256, 'k'), std::string(5000, 'k'), std::string("unknown"),
                                     std::string("file/below"), std::string(".."), std::string()}) {
        std::string const data = R"(<KVX MSGTYPE="PayConfirm" TOKEN="t1" KEYID=")" + keyId + "\"/>";
        MadeMessage made;
        EXPECT_EQ(MessageFactory_VerifyPayConfirm(prepared.m_Factory.get(), data.c_str(), "00", made.out()),
                  KVX_E_NOT_FOUND)
            << keyId.size();
    }
}

}  // namespace
