// Every system call of replacing a file fails, is interrupted, or is the last one of its process.
//
// One table names call, occurrence and error, with the result and the content that must remain: the old file or the new
// one, never a part. A second reader looks after each failure.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "foundation/tbstring.h"
#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"

using namespace kvxtest;

namespace {

enum Call {
    kLstat,
    kAccess,
    kOpendir,
    kOpen,
    kFlock,
    kFstat,
    kFchmod,
    kWrite,
    kFsync,
    kRename,
    kClose,
    kUnlink,
    kCalls,
};

constexpr char const* kNames[] = {"lstat",  "access", "opendir", "open",   "flock", "fstat",
                                  "fchmod", "write",  "fsync",   "rename", "close", "unlink"};

/// The faults of the calls.
struct Plan {
    Call m_Failing = kCalls;         ///< The call that fails; none.
    int m_Number = 0;                ///< Which one of its kind, from 0.
    int m_Error = 0;                 ///< Its errno.
    bool m_Always = false;           ///< All later ones of its kind fail as well.
    std::size_t m_Chunk = SIZE_MAX;  ///< Most bytes that one write takes.
    int m_KillAt = -1;               ///< The process dies instead of its call with this number, of any kind, from 0.
};

Plan g_Plan;
int g_Counts[kCalls];
int g_Steps = 0;

/// Counts a call; true when it is to fail.
bool fails(Call call) {
    if (g_Steps++ == g_Plan.m_KillAt) {
        ::kill(::getpid(), SIGKILL);
    }
    int const number = g_Counts[call]++;
    if (call != g_Plan.m_Failing || (g_Plan.m_Always ? number < g_Plan.m_Number : number != g_Plan.m_Number)) {
        return false;
    }
    errno = g_Plan.m_Error;
    return true;
}

/// Puts a plan into force while it lives.
class Faults {
public:
    explicit Faults(Plan const& plan) {
        g_Plan = plan;
        g_Steps = 0;
        std::fill(std::begin(g_Counts), std::end(g_Counts), 0);
        m_Calls->lstat = [](char const* path, struct stat* status) {
            return fails(kLstat) ? -1 : ::lstat(path, status);
        };
        m_Calls->access = [](char const* path, int mode) { return fails(kAccess) ? -1 : ::access(path, mode); };
        m_Calls->opendir = [](char const* path) { return fails(kOpendir) ? nullptr : ::opendir(path); };
        m_Calls->open = [](char const* path, int flags, mode_t mode) {
            // The settings say how the file is written; reading them is no part of writing it.
            bool const isCounted = std::strstr(path, "settings.xml") == nullptr;
            return isCounted && fails(kOpen) ? -1 : ::open(path, flags, mode);
        };
        m_Calls->flock = [](int file, int operation) { return fails(kFlock) ? -1 : ::flock(file, operation); };
        m_Calls->fstat = [](int file, struct stat* status) { return fails(kFstat) ? -1 : ::fstat(file, status); };
        m_Calls->fchmod = [](int file, mode_t mode) { return fails(kFchmod) ? -1 : ::fchmod(file, mode); };
        m_Calls->write = [](int file, void const* data, std::size_t bytes) -> ssize_t {
            if (fails(kWrite)) {
                return g_Plan.m_Error == 0 ? 0 : -1;
            }
            return ::write(file, data, std::min(bytes, g_Plan.m_Chunk));
        };
        m_Calls->fsync = [](int file) { return fails(kFsync) ? -1 : ::fsync(file); };
        m_Calls->rename = [](char const* from, char const* to) { return fails(kRename) ? -1 : ::rename(from, to); };
        m_Calls->close = [](int file) {
            // The descriptor is gone even when closing reports a failure.
            bool const failing = fails(kClose);
            int const error = errno;
            int const result = ::close(file);
            errno = failing ? error : errno;
            return failing ? -1 : result;
        };
        m_Calls->unlink = [](char const* path) { return fails(kUnlink) ? -1 : ::unlink(path); };
    }

private:
    SystemCalls m_Calls;
};

constexpr char kOld[] = "the old content";
constexpr char kNew[] = "a new and somewhat longer content";

struct Case {
    Call m_Call;
    int m_Number;
    int m_Error;
    std::int32_t m_Code;
    char const* m_Content;  ///< Afterwards; null: no file.
};

void run(Case const& row, bool hasOld, std::size_t chunk = SIZE_MAX) {
    SCOPED_TRACE(std::string(kNames[row.m_Call]) + " number " + std::to_string(row.m_Number) + ", error " +
                 std::to_string(row.m_Error) + (hasOld ? ", old file" : ", no old file"));
    Account account;
    if (hasOld) {
        account.write("config.xml", kOld);
        ::chmod(account.m_Dir.file("config.xml").c_str(), 0640);
    }
    std::size_t const before = countDescriptors();
    Thrown failure;
    {
        Plan plan;
        plan.m_Failing = row.m_Call;
        plan.m_Number = row.m_Number;
        plan.m_Error = row.m_Error;
        plan.m_Chunk = chunk;
        Faults const faults(plan);
        failure = thrown([&] { account.m_Context.UpdateFile("config.xml", kNew); });
    }
    EXPECT_GT(g_Counts[row.m_Call], row.m_Number) << "the call was never made";
    EXPECT_EQ(failure.m_Code, row.m_Code) << failure.m_Text;
    if (row.m_Code != KVX_OK) {
        EXPECT_EQ(failure.m_File, "kvxctx");
        EXPECT_EQ(failure.m_Line, row.m_Code == KVX_E_FILE_NOT_FOUND ? 205 : 212);
    }
    if (row.m_Content == nullptr) {
        EXPECT_FALSE(account.exists("config.xml"));
    } else {
        EXPECT_EQ(account.read("config.xml"), row.m_Content);
        struct stat status = {};
        ::stat(account.m_Dir.file("config.xml").c_str(), &status);
        EXPECT_EQ(status.st_mode & 0777, hasOld ? mode_t{0640} : mode_t{0644});
    }
    EXPECT_FALSE(account.hasTemporaryFile());
    EXPECT_EQ(countDescriptors(), before) << "a descriptor is left open";
}

TEST(ReplaceFileFaults, LeaveTheOldContentOrCompleteTheNewOne) {
    // The calls: lstat, access, opendir; open, flock, fstat of the new file; fstat, fchmod, write, fsync, rename; open,
    // fsync, close of the directory; close of the new file.
    Case const cases[] = {
        {kAccess, 0, EACCES, KVX_E_FILE_NOT_FOUND, kOld},
        {kAccess, 0, EROFS, KVX_E_FILE_NOT_FOUND, kOld},
        {kOpendir, 0, EMFILE, KVX_OK, kNew},
        {kOpen, 0, EMFILE, KVX_E_FILE_NOT_FOUND, kOld},
        {kOpen, 0, ENOENT, KVX_E_FILE_NOT_FOUND, kOld},
        {kOpen, 0, ENOSPC, KVX_E_FILE_IO, kOld},
        {kOpen, 0, EDQUOT, KVX_E_FILE_IO, kOld},
        {kOpen, 0, EIO, KVX_E_FILE_IO, kOld},
        {kOpen, 0, EINTR, KVX_OK, kNew},
        {kOpen, 0, EACCES, KVX_OK, kNew},  // in place
        {kOpen, 0, EROFS, KVX_OK, kNew},
        {kFlock, 0, ENOLCK, KVX_OK, kNew},
        {kFlock, 0, EINTR, KVX_OK, kNew},
        {kFstat, 0, EIO, KVX_OK, kNew},
        {kFstat, 1, EIO, KVX_E_FILE_IO, kOld},
        {kFchmod, 0, EIO, KVX_E_FILE_IO, kOld},
        {kFchmod, 0, ENOSPC, KVX_E_FILE_IO, kOld},
        {kFchmod, 0, EPERM, KVX_OK, kNew},  // in place, on a file system without modes
        {kWrite, 0, ENOSPC, KVX_E_FILE_IO, kOld},
        {kWrite, 0, EDQUOT, KVX_E_FILE_IO, kOld},
        {kWrite, 0, EIO, KVX_E_FILE_IO, kOld},
        {kWrite, 0, EFBIG, KVX_E_FILE_IO, kOld},
        {kWrite, 0, 0, KVX_E_FILE_IO, kOld},  // takes nothing
        {kWrite, 0, EINTR, KVX_OK, kNew},
        {kFsync, 0, EIO, KVX_E_FILE_IO, kOld},
        {kFsync, 0, ENOSPC, KVX_E_FILE_IO, kOld},
        {kFsync, 0, EINTR, KVX_OK, kNew},
        {kRename, 0, EIO, KVX_E_FILE_IO, kOld},
        {kRename, 0, ENOSPC, KVX_E_FILE_IO, kOld},
        {kRename, 0, EISDIR, KVX_E_FILE_IO, kOld},
        {kRename, 0, EACCES, KVX_OK, kNew},  // in place
        {kRename, 0, EPERM, KVX_OK, kNew},
        {kRename, 0, EBUSY, KVX_OK, kNew},  // a mount point
        {kOpen, 1, EMFILE, KVX_OK, kNew},
        {kFsync, 1, EINVAL, KVX_OK, kNew},
        {kFsync, 1, EINTR, KVX_OK, kNew},
        {kFsync, 1, EIO, KVX_E_FILE_IO, kNew},  // complete, but perhaps not durable, so the call must fail
        {kClose, 0, EIO, KVX_OK, kNew},
        {kClose, 1, EIO, KVX_OK, kNew},  // all is on disk by then
    };
    for (Case const& row : cases) {
        run(row, true);
    }
}

TEST(ReplaceFileFaults, MakeNoFileThatWasNotThere) {
    Case const cases[] = {
        {kOpendir, 0, EMFILE, KVX_OK, kNew},
        {kOpen, 0, EMFILE, KVX_E_FILE_NOT_FOUND, nullptr},
        {kOpen, 0, ENOSPC, KVX_E_FILE_NOT_FOUND, nullptr},
        {kOpen, 0, EIO, KVX_E_FILE_NOT_FOUND, nullptr},
        {kOpen, 0, EINTR, KVX_OK, kNew},
        {kFlock, 0, ENOLCK, KVX_OK, kNew},
        {kFstat, 0, EIO, KVX_OK, kNew},
        {kWrite, 0, ENOSPC, KVX_E_FILE_IO, nullptr},
        {kWrite, 0, 0, KVX_E_FILE_IO, nullptr},
        {kFsync, 0, EIO, KVX_E_FILE_IO, nullptr},
        {kRename, 0, ENOSPC, KVX_E_FILE_IO, nullptr},
        {kClose, 0, EIO, KVX_OK, kNew},
    };
    mode_t const before = ::umask(022);
    for (Case const& row : cases) {
        run(row, false);
    }
    ::umask(before);
}

TEST(ReplaceFileFaults, GoOnAfterShortWrites) {
    run({kOpendir, 0, EMFILE, KVX_OK, kNew}, true, 1);
    run({kWrite, 5, EINTR, KVX_OK, kNew}, true, 1);
    for (int number = 0; number < 33; ++number) {
        run({kWrite, number, ENOSPC, KVX_E_FILE_IO, kOld}, true, 1);
    }
}

TEST(ReplaceFileFaults, AreNoticedWhenWritingInPlace) {
    struct InPlace {
        Call m_Call;
        int m_Error;
        std::int32_t m_Code;
    };
    InPlace const cases[] = {
        {kWrite, ENOSPC, KVX_E_FILE_IO},       {kFsync, EIO, KVX_E_FILE_IO}, {kClose, EIO, KVX_E_FILE_IO},
        {kClose, ENOSPC, KVX_E_FILE_IO},       {kClose, EINTR, KVX_OK},      {kFsync, EINVAL, KVX_OK},
        {kOpen, EACCES, KVX_E_FILE_NOT_FOUND}, {kOpen, EINTR, KVX_OK},       {kFsync, EROFS, KVX_OK},
    };
    for (InPlace const& row : cases) {
        Account account;
        // A device is never replaced.
        std::filesystem::create_symlink("/dev/null", account.m_Dir.file("config.xml"));
        Plan plan;
        plan.m_Failing = row.m_Call;
        plan.m_Error = row.m_Error;
        std::int32_t code = 0;
        {
            Faults const faults(plan);
            code = thrownCode([&] { account.m_Context.UpdateFile("config.xml", kNew); });
        }
        EXPECT_EQ(code, row.m_Code) << kNames[row.m_Call] << " " << row.m_Error;
    }
}

TEST(ReplaceFileFaults, LeaveAFileThatCannotBeRemovedToTheNextWriter) {
    Account account;
    account.write("config.xml", kOld);
    {
        SystemCalls calls;
        calls->unlink = [](char const*) {
            errno = EIO;
            return -1;
        };
        calls->fsync = [](int) {
            errno = EIO;
            return -1;
        };
        EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", kNew); }), KVX_E_FILE_IO);
    }
    EXPECT_TRUE(account.hasTemporaryFile());
    EXPECT_EQ(account.read("config.xml"), kOld);
    account.m_Context.UpdateFile("config.xml", kNew);
    EXPECT_FALSE(account.hasTemporaryFile());
    EXPECT_EQ(account.read("config.xml"), kNew);
}

TEST(ReplaceFileFaults, LeaveOneContentWholeWhereverTheWriterIsKilled) {
    bool sawOld = false;
    bool sawLeftover = false;
    int step = 0;
    for (bool finished = false; !finished; ++step) {
        ASSERT_LT(step, 200);
        Account account;
        account.write("config.xml", kOld);
        int const status = inChildProcess([&] {
            Plan plan;
            plan.m_KillAt = step;
            plan.m_Chunk = 5;
            Faults const faults(plan);
            account.m_Context.UpdateFile("config.xml", kNew);
            return 0;
        });
        finished = status == 0;
        ASSERT_TRUE(finished || status == 128 + SIGKILL) << status;
        std::string const content = account.read("config.xml");
        EXPECT_TRUE(content == kOld || content == kNew) << "killed at step " << step << ": " << content;
        sawOld = sawOld || content == kOld;
        sawLeftover = sawLeftover || account.hasTemporaryFile();

        account.m_Context.UpdateFile("config.xml", "next");
        EXPECT_FALSE(account.hasTemporaryFile()) << "killed at step " << step;
        EXPECT_EQ(account.read("config.xml"), "next");
    }
    EXPECT_GT(step, 15);
    EXPECT_TRUE(sawOld);
    EXPECT_TRUE(sawLeftover);
}

TEST(ReplaceFileFaults, NeverShowAHalfWrittenKeyWhereverTheWriterIsKilled) {
    int step = 0;
    for (bool finished = false; !finished; ++step) {
        ASSERT_LT(step, 200);
        Account account;
        std::filesystem::create_directories(account.m_Dir.file("keys/public"));
        std::filesystem::create_directories(account.m_Dir.file("keys/private"));
        int const status = inChildProcess([&] {
            Plan plan;
            plan.m_KillAt = step;
            plan.m_Chunk = 100;
            Faults const faults(plan);
            TbString keyId("id");
            account.m_Context.GenKey(keyId);
            return 0;
        });
        finished = status == 0;
        for (char const* half : {"keys/public/id", "keys/private/id"}) {
            if (account.exists(half)) {
                EXPECT_GT(account.read(half).size(), 140U) << half << ", killed at step " << step;
            }
        }
        EXPECT_TRUE(!account.exists("keys/private/id") || account.exists("keys/public/id"));
    }
    EXPECT_GT(step, 25);
}

}  // namespace
