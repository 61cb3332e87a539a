// The directory of a context: opening, creating, defaults, options.
//
// Each test has a directory of its own and looks at the files and modes that a call leaves. Odd: only the last
// directory of a path is created; the path stays set when opening fails.

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "foundation/tblocalstring.h"
#include "tests/core/coresupport.h"
#include "tests/support/allocations.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

constexpr char kCannotCreate[] = " (KVX_Context::CreatePath(): failed to create directory)";

mode_t modeOf(std::string const& path) {
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

/// The credentials that requests of `context` carry.
std::string credentialsOf(KVX_Context& context) {
    TbStringStream message;
    TbString url;
    context.RequestToURL("http://host/", message, "", url);
    std::string const text = bytesOf(url);
    return text.substr(7, text.find("host/") - 7);
}

TEST(Context, StartsWithoutAPath) {
    KVX_Context context;
    EXPECT_EQ(bytesOf(context.GetPath()), "");
    EXPECT_EQ(credentialsOf(context), "");
}

TEST(Context, KeepsPathAndOptionsInACopy) {
    Account account;
    account.m_Context.SetOption("UserName", "u");
    account.m_Context.SetOption("Password", "p");
    KVX_Context copy(account.m_Context);
    KVX_Context assigned;
    assigned = account.m_Context;
    for (KVX_Context* context : {&copy, &assigned}) {
        EXPECT_EQ(bytesOf(context->GetPath()), account.path());
        EXPECT_EQ(credentialsOf(*context), "u:p@");
    }
}

TEST(Context, CountsItsFourStringsAsLiving) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    {
        KVX_Context const context;
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 4);
        KVX_Context copy(context);
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 8);
        copy = context;
        EXPECT_EQ(TbRefCounter::m_nTotalRef, start + 8);
    }
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(Context, HoldsAPathOfUsualLengthInItself) {
    TemporaryDirectory dir;
    std::string const path = dir.path();
    for (std::size_t const length : {std::size_t{63}, std::size_t{64}}) {
        ASSERT_LT(path.size(), length - 2);
        std::string const longer = path + std::string(length - path.size(), '/');
        KVX_Context context;
        AllocationMeter const meter;
        context.Open(TbBorrowed(longer.c_str()));
        KVX_Context copy(context);
        copy = context;
        EXPECT_EQ(AllocationMeter::calls(), length == 63 ? 0U : 3U) << length;
        EXPECT_EQ(bytesOf(copy.path()), longer);
    }
}

TEST(OpenContext, LeavesAnExistingDirectoryUntouched) {
    TemporaryDirectory dir;
    dir.write("config.xml", "x");
    ::chmod(dir.path().c_str(), 0750);
    KVX_Context context;
    context.Open(dir.path().c_str());
    EXPECT_EQ(bytesOf(context.GetPath()), dir.path());
    EXPECT_EQ(modeOf(dir.path()), mode_t{0750});
    EXPECT_EQ(dir.read("config.xml"), "x");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(OpenContext, CreatesTheLastDirectoryUnderTheUmask) {
    TemporaryDirectory dir;
    mode_t const before = ::umask(027);
    KVX_Context context;
    context.Open(dir.file("account").c_str());
    ::umask(before);
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("account")));
    EXPECT_EQ(modeOf(dir.file("account")), mode_t{0750});
}

TEST(OpenContext, CreatesWithAllPermissionsWithoutUmask) {
    TemporaryDirectory dir;
    mode_t const before = ::umask(0);
    KVX_Context().Open(dir.file("account").c_str());
    ::umask(before);
    EXPECT_EQ(modeOf(dir.file("account")), mode_t{0777});
}

TEST(OpenContext, TakesTheCurrentDirectoryForAnEmptyPathAndCreatesNothing) {
    TemporaryDirectory dir;
    WorkingDirectory const here(dir.path());
    for (TbString const& path : {TbString(), TbString("")}) {
        KVX_Context context;
        context.Open(path);
        EXPECT_EQ(bytesOf(context.GetPath()), dir.path());
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(OpenContext, KeepsATrailingSeparator) {
    TemporaryDirectory dir;
    KVX_Context context;
    context.Open((dir.path() + "/").c_str());
    EXPECT_EQ(bytesOf(context.GetPath()), dir.path() + "/");
    TraceRecorder const recorder;
    context.UpdateFile("file", "content");
    EXPECT_EQ(dir.read("file"), "content");
    EXPECT_EQ(recorder.records().at(0).m_Detail, dir.path() + "//file");
    TbString value;
    EXPECT_TRUE(context.QueryValue("file", "", value));
    EXPECT_EQ(bytesOf(value), "content");
}

TEST(OpenContext, FailsWithTheSystemsOwnErrorNumber) {
    TemporaryDirectory dir;
    dir.write("file", "x");
    struct Case {
        std::string m_Path;
        std::int32_t m_Code;
        std::string m_Text;
    };
    Case const cases[] = {
        {dir.file("missing/account"), 2, "ErrorCode = 0x2"},
        {dir.file("file"), 17, "ErrorCode = 0x11"},
        {dir.file("file/account"), 20, "ErrorCode = 0x14"},
        {dir.file(std::string(300, 'x')), 36, "ErrorCode = 0x24"},
        {dir.path() + std::string(5000, '/') + "x", 36, "ErrorCode = 0x24"},
    };
    for (Case const& row : cases) {
        KVX_Context context;
        Thrown const failure = thrown([&] { context.Open(row.m_Path.c_str()); });
        EXPECT_EQ(failure.m_Code, row.m_Code) << row.m_Path;
        EXPECT_EQ(failure.m_Text, row.m_Text + kCannotCreate) << row.m_Path;
        EXPECT_EQ(failure.m_File, "kvxbase");
        EXPECT_EQ(failure.m_Line, 55);
        EXPECT_EQ(bytesOf(context.GetPath()), row.m_Path) << "the path is kept";
    }
    EXPECT_EQ(dir.read("file"), "x");
}

TEST(OpenContext, TracesThePathBeforeItCreatesTheDirectory) {
    TemporaryDirectory dir;
    TraceRecorder const recorder;
    KVX_Context context;
    context.Open(dir.path().c_str());
    std::string const wrong = dir.file("missing/account");
    EXPECT_EQ(thrownCode([&] { context.Open(wrong.c_str()); }), 2);
    EXPECT_EQ(linesOf(recorder.records()),
              (std::vector<std::string>{"kvxctx:23:0:OPEN CONTEXT:" + dir.path(), "kvxctx:23:0:OPEN CONTEXT:" + wrong,
                                        std::string("kvxbase:55:2:EXCEPTION:ErrorCode = 0x2") + kCannotCreate}));
}

TEST(OpenContext, TracesTheCurrentDirectoryForAnEmptyPath) {
    TemporaryDirectory dir;
    WorkingDirectory const here(dir.path());
    TraceRecorder const recorder;
    KVX_Context context;
    context.Open("");
    EXPECT_EQ(linesOf(recorder.records()), std::vector<std::string>{"kvxctx:23:0:OPEN CONTEXT:" + dir.path()});
}

TEST(OpenContext, ReplacesThePathAndKeepsTheOptions) {
    Account account;
    TemporaryDirectory other;
    account.m_Context.SetOption("UserName", "u");
    account.m_Context.SetOption("Password", "p");
    account.m_Context.Open(other.file("second").c_str());
    EXPECT_EQ(bytesOf(account.m_Context.GetPath()), other.file("second"));
    EXPECT_TRUE(other.exists("second"));
    EXPECT_EQ(credentialsOf(account.m_Context), "u:p@");
}

TEST(OpenContext, FailsInADirectoryThatIsTooDeepToBeNamed) {
    TemporaryDirectory dir;
    std::string deep = dir.path();
    while (deep.size() < 300) {
        deep += "/" + std::string(100, 'd');
    }
    std::filesystem::create_directories(deep);
    WorkingDirectory const here(deep);
    KVX_Context context;
    EXPECT_EQ(bytesOf(context.GetDefaultConfiguration()), "");
    Thrown const failure = thrown([&] { context.Open(""); });
    EXPECT_EQ(failure.m_Code, 2);
    EXPECT_EQ(failure.m_Text, std::string("ErrorCode = 0x2") + kCannotCreate);
    EXPECT_EQ(bytesOf(context.GetPath()), "");
}

TEST(DefaultConfiguration, IsTheCurrentDirectoryUpToABufferOf255Bytes) {
    static std::size_t s_Length = 0;
    SystemCalls calls;
    calls->getcwd = [](char* buffer, std::size_t bytes) -> char* {
        EXPECT_EQ(bytes, 255U);
        if (s_Length >= bytes) {
            errno = ERANGE;
            return nullptr;
        }
        std::memset(buffer, 'd', s_Length);
        buffer[s_Length] = '\0';
        return buffer;
    };
    for (std::size_t const length : {1U, 253U, 254U}) {
        s_Length = length;
        EXPECT_EQ(bytesOf(KVX_Context().GetDefaultConfiguration()), std::string(length, 'd'));
    }
    for (std::size_t const length : {255U, 256U, 4000U}) {
        s_Length = length;
        EXPECT_EQ(bytesOf(KVX_Context().GetDefaultConfiguration()), "") << length;
    }
}

TEST(DefaultConfiguration, IsEmptyWhateverAFailureLeavesInTheBuffer) {
    SystemCalls calls;
    calls->getcwd = [](char* buffer, std::size_t) -> char* {
        std::memset(buffer, 'x', 10);
        errno = ENOENT;
        return nullptr;
    };
    EXPECT_EQ(bytesOf(KVX_Context().GetDefaultConfiguration()), "");
}

TEST(CreatePath, AcceptsADirectoryThatAnotherProcessJustCreated) {
    static int s_Looked = 0;
    s_Looked = 0;
    TemporaryDirectory dir;
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        if (s_Looked++ == 0) {
            errno = ENOENT;
            return -1;
        }
        return TbSystemCalls::openFile(path, flags, mode);
    };
    KVX_Context context;
    EXPECT_NO_THROW(context.CreatePath(dir.path().c_str()));
    EXPECT_EQ(s_Looked, 2);
}

TEST(CreatePath, LooksOnceMoreAndThenFails) {
    static int s_Looked = 0;
    s_Looked = 0;
    TemporaryDirectory dir;
    SystemCalls calls;
    calls->open = [](char const*, int, mode_t) {
        ++s_Looked;
        errno = EACCES;
        return -1;
    };
    KVX_Context context;
    EXPECT_EQ(thrownCode([&] { context.CreatePath(dir.path().c_str()); }), 17);
    EXPECT_EQ(s_Looked, 2);
}

TEST(CreatePath, CannotOpenADirectoryThatIsThereForLackOfDescriptorsOrMemory) {
    TemporaryDirectory dir;
    dir.write("file", "x");
    std::filesystem::create_directory(dir.file("directory"));
    std::filesystem::create_symlink("directory", dir.file("link"));
    std::filesystem::create_symlink("nowhere", dir.file("nowhere"));
    static int s_Error = 0;
    for (int const error : {EMFILE, ENFILE, ENOMEM, EACCES}) {
        s_Error = error;
        SystemCalls calls;
        calls->open = [](char const*, int, mode_t) {
            errno = s_Error;
            return -1;
        };
        std::int32_t const code = error == EACCES ? EEXIST : KVX_E_CANNOT_OPEN;
        KVX_Context context;
        for (char const* name : {"directory", "link"}) {
            Thrown const failure = thrown([&] { context.CreatePath(dir.file(name).c_str()); });
            EXPECT_EQ(failure.m_Code, code) << name << ", " << error;
            EXPECT_EQ(failure.m_File, "kvxbase");
            EXPECT_EQ(failure.m_Line, 55);
        }
        for (char const* name : {"file", "nowhere"}) {
            EXPECT_EQ(thrownCode([&] { context.CreatePath(dir.file(name).c_str()); }), EEXIST) << name << ", " << error;
        }
        EXPECT_NO_THROW(context.CreatePath(dir.file("new").c_str()));
        std::filesystem::remove(dir.file("new"));
    }
}

TEST(CreatePath, ReportsTheErrorOfTheCreationWhereNothingCanBeLookedAt) {
    TemporaryDirectory dir;
    SystemCalls calls;
    calls->open = [](char const*, int, mode_t) {
        errno = EMFILE;
        return -1;
    };
    calls->lstat = [](char const*, struct stat*) {
        errno = EIO;
        return -1;
    };
    KVX_Context context;
    EXPECT_EQ(thrownCode([&] { context.CreatePath(dir.path().c_str()); }), EEXIST);
}

TEST(CreatePath, ReportsTheErrorOfTheCreation) {
    SystemCalls calls;
    calls->mkdir = [](char const*, mode_t mode) {
        EXPECT_EQ(mode, mode_t{0777});
        errno = ENOSPC;
        return -1;
    };
    TemporaryDirectory dir;
    KVX_Context context;
    Thrown const failure = thrown([&] { context.CreatePath(dir.file("x").c_str()); });
    EXPECT_EQ(failure.m_Code, ENOSPC);
    EXPECT_EQ(failure.m_Text, std::string("ErrorCode = 0x1c") + kCannotCreate);
}

TEST(CreatePath, OpensADirectoryAloneAndCloseOnExec) {
    static int s_Flags = 0;
    TemporaryDirectory dir;
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        s_Flags = flags;
        return TbSystemCalls::openFile(path, flags, mode);
    };
    KVX_Context context;
    context.CreatePath(dir.path().c_str());
    EXPECT_EQ(s_Flags, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(thrownCode([&] { context.CreatePath(dir.file("pipe").c_str()); }), EEXIST) << "without a wait";
}

TEST(CreatePath, LooksOnceMoreWhereClosingFails) {
    static int s_Closed = 0;
    s_Closed = 0;
    TemporaryDirectory dir;
    auto const before = countDescriptors();
    SystemCalls calls;
    calls->close = [](int file) {
        int const result = ::close(file);
        errno = EIO;
        return s_Closed++ == 0 ? -1 : result;
    };
    KVX_Context context;
    EXPECT_NO_THROW(context.CreatePath(dir.path().c_str()));
    EXPECT_EQ(s_Closed, 2);
    EXPECT_EQ(countDescriptors(), before);
}

TEST(CreatePath, LeavesNoDirectoryOpen) {
    TemporaryDirectory dir;
    auto const before = countDescriptors();
    for (int i = 0; i < 10; ++i) {
        KVX_Context().CreatePath(dir.path().c_str());
    }
    EXPECT_EQ(countDescriptors(), before);
}

TEST(SetOption, AcceptsThreeNames) {
    KVX_Context context;
    context.SetOption("UserName", "alice");
    EXPECT_EQ(credentialsOf(context), "alice:@");
    context.SetOption("Password", "secret");
    EXPECT_EQ(credentialsOf(context), "alice:secret@");
    context.SetOption("UserName", "");
    EXPECT_EQ(credentialsOf(context), ":secret@");
    context.SetOption("Password", "");
    EXPECT_EQ(credentialsOf(context), "");
    EXPECT_NO_THROW(context.SetOption("VTAUTOURL", "http://127.0.0.1/"));
}

TEST(SetOption, RefusesEveryOtherName) {
    KVX_Context context;
    char const* const names[] = {"username", "password",  "vtautourl", "USERNAME", "UserNam",       "UserNames",
                                 "",         " UserName", "UserName ", "Passwort", "KVX.VTAUTOURL", "VTURL"};
    for (char const* name : names) {
        TraceRecorder const recorder;
        Thrown const failure = thrown([&] { context.SetOption(name, "value"); });
        EXPECT_EQ(failure.m_Code, KVX_E_INVALID_OPTION) << name;
        EXPECT_EQ(failure.m_Text, "invalid option");
        EXPECT_EQ(failure.m_File, "kvxctx");
        EXPECT_EQ(failure.m_Line, 38);
        EXPECT_EQ(linesOf(recorder.records()), std::vector<std::string>{"kvxctx:38:80040207:EXCEPTION:invalid option"});
    }
    EXPECT_EQ(credentialsOf(context), "");
}

TEST(LogMessage, IsWrittenNowhere) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    TraceRecorder const recorder;
    KVX_Context().LogMessage("CREATE PATH: %s");
    EXPECT_TRUE(recorder.records().empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
