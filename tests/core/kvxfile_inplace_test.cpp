// Files that are written in place, because none can be made beside them.
//
// The writer is killed before each of its system calls, its disk is full, its calls fail one by one: the old or the new
// content must remain. Odd: the new content may be followed by zero bytes, which every reader of a whole file ignores.

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/kvxfile.h"
#include "tests/core/coresupport.h"
#include "tests/support/deadlycall.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

using namespace kvxtest;

namespace {

/// No file can be made in any directory while it lives, as in one without write permission.
class NoNewFiles {
public:
    NoNewFiles() {
        s_Truncations = 0;
        m_Calls->open = [](char const* path, int flags, mode_t mode) {
            if ((flags & O_EXCL) != 0) {
                errno = EACCES;
                return -1;
            }
            s_Truncations += (flags & O_TRUNC) != 0 ? 1 : 0;
            return TbSystemCalls::openFile(path, flags, mode);
        };
    }

    /// How many files were emptied by opening them.
    static int truncations() { return s_Truncations; }

    SystemCalls m_Calls;

private:
    static inline int s_Truncations = 0;
};

std::string documentOf(std::size_t bytes) {
    std::string const begin = "<KVX A=\"" + std::to_string(bytes) + "\" FILL=\"";
    std::string const end = "\"/>";
    return begin + std::string(bytes - begin.size() - end.size(), 'f') + end;
}

/// `content` without zero bytes at its end.
std::string withoutPadding(std::string content) {
    content.erase(content.find_last_not_of('\0') + 1);
    return content;
}

/// Sizes of the old and the new document: longer, shorter, equal, within a page and beyond.
struct Sizes {
    std::size_t m_Old;
    std::size_t m_New;
};
constexpr Sizes kSizes[] = {{100, 300}, {300, 100}, {200, 200}, {3000, 40}, {100, 20000}, {20000, 100}};

TEST(InPlace, LeavesADocumentWholeWhereverTheWriterIsKilled) {
    for (Sizes const& sizes : kSizes) {
        SCOPED_TRACE(std::to_string(sizes.m_Old) + " to " + std::to_string(sizes.m_New));
        std::string const before = documentOf(sizes.m_Old);
        std::string const after = documentOf(sizes.m_New);
        bool sawOld = false;
        bool sawPadding = false;
        int step = 0;
        for (bool finished = false; !finished; ++step) {
            ASSERT_LT(step, 200);
            Account account;
            account.write("config.xml", before);
            int const status = inChildProcess([&] {
                NoNewFiles const none;
                DeadlyCall const deadly(step);
                account.m_Context.UpdateFile("config.xml", after.c_str());
                return NoNewFiles::truncations();
            });
            finished = status == 0;
            ASSERT_TRUE(finished || status == 128 + SIGKILL) << status;
            std::string const content = account.read("config.xml");
            std::string const document = withoutPadding(content);
            EXPECT_TRUE(document == before || document == after) << "killed at step " << step;
            EXPECT_LE(content.size(), std::max(sizes.m_Old, sizes.m_New)) << "killed at step " << step;
            sawOld = sawOld || document == before;
            sawPadding = sawPadding || content.size() != document.size();
            TbString value;
            EXPECT_TRUE(account.m_Context.QueryValue("config.xml", "A", value)) << "killed at step " << step;
            if (finished) {
                EXPECT_EQ(content, after);
            }
            account.m_Context.SetValue("config.xml", "A", "next", false);
            EXPECT_TRUE(account.m_Context.QueryValue("config.xml", "A", value));
            EXPECT_EQ(bytesOf(value), "next");
        }
        EXPECT_GT(step, 10);
        EXPECT_TRUE(sawOld);
        EXPECT_EQ(sawPadding, sizes.m_New < sizes.m_Old);
    }
}

TEST(InPlace, LeavesAKeyIdThatSignsWhereverTheWriterIsKilled) {
    for (auto const& [before, after] : {std::pair("own", "a-longer-name"), std::pair("a-longer-name", "own")}) {
        int step = 0;
        for (bool finished = false; !finished; ++step) {
            ASSERT_LT(step, 200);
            Merchant account;
            account.writeOwnKey("a-longer-name");
            account.write("keys/current", before);
            int const status = inChildProcess([&, target = after] {
                NoNewFiles const none;
                DeadlyCall const deadly(step);
                account.m_Context.UpdateFile("keys/current", target);
                return 0;
            });
            finished = status == 0;
            KVX_Message message;
            message.Create(&account.m_Context, "PayInit");
            TbString keyId;
            message.GetAttribute("KEYID", keyId);
            EXPECT_TRUE(keyId == TbString(before) || keyId == TbString(after)) << "killed at step " << step;
            EXPECT_EQ(keyId.length(), std::strlen(keyId.c_str())) << "killed at step " << step;
            TbString url;
            EXPECT_EQ(thrownCode([&] { message.GetURL(url); }), KVX_OK) << "killed at step " << step;
        }
        EXPECT_GT(step, 10);
    }
}

TEST(InPlace, LeavesAKeyThatVerifiesWhereverTheWriterIsKilled) {
    std::string const key = dataHex("rsa/key512.public.hex");
    std::string const longer = dataHex("rsa/key2048.public.hex");
    for (bool const isShortened : {false, true}) {
        int step = 0;
        for (bool finished = false; !finished; ++step) {
            ASSERT_LT(step, 200);
            Account account;
            account.write("keys/public/server", isShortened ? longer : key);
            int const status = inChildProcess([&] {
                NoNewFiles const none;
                DeadlyCall const deadly(step);
                account.m_Context.UpdateFile("keys/public/server", (isShortened ? key : longer).c_str());
                return 0;
            });
            finished = status == 0;
            std::string const left = withoutPadding(account.read("keys/public/server"));
            ASSERT_TRUE(left == key || left == longer) << "killed at step " << step;
            std::int32_t const code = thrownCode([&] {
                account.m_Context.VerifyData(dataText("signing/plain.txt").c_str(), "server",
                                             dataHex("signing/plain.signature.hex").c_str());
            });
            EXPECT_EQ(code, left == key ? KVX_OK : KVX_E_INVALID_SIGNATURE) << "killed at step " << step;
        }
        EXPECT_GT(step, 10);
    }
}

TEST(InPlace, PadsWithWhatReadersOfWholeFilesIgnore) {
    ExchangeServer server({"<KVX MSGTYPE=\"KeyExportResponse\"/>"});
    Merchant account;
    std::string const padding(3, '\0');
    for (char const* file : {"config.xml", "keys/private/own", "keys/public/own"}) {
        account.write(file, account.read(file) + padding);
    }
    TbString value;
    EXPECT_TRUE(account.m_Context.QueryValue("config.xml", "VTURL", value));
    TbString signature;
    account.m_Context.SignData("text", "own", signature);
    EXPECT_EQ(thrownCode([&] { account.m_Context.VerifyData("text", "own", signature); }), KVX_OK);
    account.m_Context.SetOption("VTAUTOURL", server.url("/").c_str());
    TbString keyId("own");
    account.m_Context.PublishKey(keyId);
    EXPECT_NE(server.messages().at(0).find("KEYBLOB=\"" + dataHex("rsa/key512.public.hex") + "\""), std::string::npos);
    EXPECT_TRUE(account.m_Context.QueryValue("keys/public/own", "", value));
    EXPECT_EQ(value.length(), dataHex("rsa/key512.public.hex").size() + 3) << "a raw text is the whole file";
}

TEST(InPlace, ReservesRoomBeforeItTouchesTheContent) {
    static int s_Writes = 0;
    for (int const error : {ENOSPC, EDQUOT, EIO}) {
        for (Sizes const& sizes : kSizes) {
            s_Writes = 0;
            static int s_Error = 0;
            s_Error = error;
            Account account;
            account.write("config.xml", documentOf(sizes.m_Old));
            NoNewFiles none;
            none.m_Calls->fallocate = [](int, int mode, off_t, off_t) {
                EXPECT_EQ(mode, FALLOC_FL_KEEP_SIZE) << "a reader must not see the room";
                errno = s_Error;
                return -1;
            };
            none.m_Calls->write = [](int, void const*, std::size_t bytes) {
                ++s_Writes;
                return static_cast<ssize_t>(bytes);
            };
            EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", documentOf(sizes.m_New).c_str()); }),
                      KVX_E_FILE_IO);
            EXPECT_EQ(s_Writes, 0);
            EXPECT_EQ(account.read("config.xml"), documentOf(sizes.m_Old));
        }
    }
}

TEST(InPlace, WritesWhereNoRoomCanBeReserved) {
    static int s_Error = 0;
    for (int const error : {EOPNOTSUPP, EINVAL, ENOSYS}) {
        s_Error = error;
        Account account;
        account.write("config.xml", documentOf(300));
        NoNewFiles none;
        none.m_Calls->fallocate = [](int, int, off_t, off_t) {
            errno = s_Error;
            return -1;
        };
        account.m_Context.UpdateFile("config.xml", documentOf(100).c_str());
        EXPECT_EQ(account.read("config.xml"), documentOf(100));
        EXPECT_EQ(NoNewFiles::truncations(), 0);
    }
}

/// The system takes a few bytes a write and fails after some of them, as a disk that gets full; later it works again.
TEST(InPlace, PutsTheOldContentBackWhenTheDiskIsFullHalfWay) {
    static int s_Left = 0;
    for (Sizes const& sizes : {Sizes{100, 160}, Sizes{160, 100}, Sizes{120, 120}}) {
        for (int writes = 0; writes < 16; ++writes) {
            s_Left = writes;
            Account account;
            account.write("config.xml", documentOf(sizes.m_Old));
            NoNewFiles none;
            none.m_Calls->fallocate = [](int, int, off_t, off_t) {
                errno = EOPNOTSUPP;
                return -1;
            };
            none.m_Calls->write = [](int file, void const* data, std::size_t bytes) -> ssize_t {
                if (s_Left-- == 0) {
                    errno = ENOSPC;
                    return -1;
                }
                return ::write(file, data, std::min<std::size_t>(bytes, 10));
            };
            std::int32_t const code =
                thrownCode([&] { account.m_Context.UpdateFile("config.xml", documentOf(sizes.m_New).c_str()); });
            EXPECT_EQ(code, s_Left < 0 ? KVX_E_FILE_IO : KVX_OK) << writes;
            EXPECT_EQ(account.read("config.xml"), documentOf(code == KVX_OK ? sizes.m_New : sizes.m_Old)) << writes;
        }
    }
}

TEST(InPlace, PutsTheOldContentBackWhenALaterCallFails) {
    using Break = void (*)(TbSystemCalls & calls);
    struct Row {
        char const* m_Name;
        Break m_Break;
        std::int32_t m_Code;
    };
    static int s_Calls = 0;
    Row const rows[] = {
        {"fsync",
         [](TbSystemCalls& calls) {
             calls.fsync = [](int file) {
                 errno = EIO;
                 return s_Calls++ == 0 ? -1 : ::fsync(file);
             };
         },
         KVX_E_FILE_IO},
        {"fsync, of a file system without it",
         [](TbSystemCalls& calls) {
             calls.fsync = [](int) {
                 errno = EINVAL;
                 return -1;
             };
         },
         KVX_OK},
        {"ftruncate",
         [](TbSystemCalls& calls) {
             calls.ftruncate = [](int file, off_t bytes) {
                 errno = EIO;
                 return s_Calls++ == 0 ? -1 : ::ftruncate(file, bytes);
             };
         },
         KVX_E_FILE_IO},
        {"ftruncate, interrupted",
         [](TbSystemCalls& calls) {
             calls.ftruncate = [](int file, off_t bytes) {
                 errno = EINTR;
                 return s_Calls++ == 0 ? -1 : ::ftruncate(file, bytes);
             };
         },
         KVX_OK},
        {"flock",
         [](TbSystemCalls& calls) {
             calls.flock = [](int, int) {
                 errno = ENOLCK;
                 return -1;
             };
         },
         KVX_OK},
    };
    for (Row const& row : rows) {
        s_Calls = 0;
        Account account;
        account.write("config.xml", documentOf(300));
        NoNewFiles none;
        row.m_Break(*none.m_Calls.operator->());
        EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", documentOf(100).c_str()); }), row.m_Code)
            << row.m_Name;
        EXPECT_EQ(account.read("config.xml"), documentOf(row.m_Code == KVX_OK ? 100 : 300)) << row.m_Name;
    }
}

/// Ten bytes a write for twelve writes; then the disk is full, and one call of putting the old content back fails too.
TEST(InPlace, LeavesWhatIsThereWhenTheOldContentCannotBePutBack) {
    static int s_Left = 0;
    static int s_Syncs = 0;
    std::string const before = documentOf(100);
    std::string const after = documentOf(160);
    struct Row {
        char const* m_Name;
        void (*m_Break)(TbSystemCalls& calls);
        std::string m_Content;
    };
    Row const rows[] = {
        {"write", [](TbSystemCalls&) {}, after.substr(0, 120)},
        {"lseek",
         [](TbSystemCalls& calls) {
             calls.lseek = [](int, off_t, int) -> off_t {
                 s_Left = INT_MAX;  // a write would succeed, at the wrong place
                 errno = EIO;
                 return -1;
             };
         },
         after.substr(0, 120)},
        {"ftruncate",
         [](TbSystemCalls& calls) {
             calls.lseek = [](int file, off_t offset, int origin) {
                 s_Left = INT_MAX;
                 return ::lseek(file, offset, origin);
             };
             calls.ftruncate = [](int, off_t) {
                 errno = EIO;
                 return -1;
             };
         },
         before + after.substr(100, 20)},
    };
    for (Row const& row : rows) {
        s_Left = 12;
        s_Syncs = 0;
        Account account;
        account.write("config.xml", before);
        NoNewFiles none;
        none.m_Calls->fallocate = [](int, int, off_t, off_t) {
            errno = EOPNOTSUPP;
            return -1;
        };
        none.m_Calls->write = [](int file, void const* data, std::size_t bytes) -> ssize_t {
            if (s_Left <= 0) {
                errno = ENOSPC;
                return -1;
            }
            --s_Left;
            return ::write(file, data, std::min<std::size_t>(bytes, 10));
        };
        none.m_Calls->fsync = [](int) { return ++s_Syncs, 0; };
        row.m_Break(*none.m_Calls.operator->());
        EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", after.c_str()); }), KVX_E_FILE_IO)
            << row.m_Name;
        EXPECT_EQ(account.read("config.xml"), row.m_Content) << row.m_Name;
        EXPECT_EQ(s_Syncs, 0) << row.m_Name;
    }
}

TEST(InPlace, PutsNoContentBackThatItHasNotReadWhole) {
    static int s_Left = 0;
    std::string const after = documentOf(160);
    s_Left = 12;
    Account account;
    account.write("config.xml", documentOf(100));
    NoNewFiles none;
    none.m_Calls->fallocate = [](int, int, off_t, off_t) { return 0; };
    none.m_Calls->fstat = [](int file, struct stat* status) {
        int const result = ::fstat(file, status);
        status->st_size += S_ISREG(status->st_mode) ? 5 : 0;
        return result;
    };
    none.m_Calls->write = [](int file, void const* data, std::size_t bytes) -> ssize_t {
        if (s_Left-- == 0) {
            errno = ENOSPC;
            return -1;
        }
        return ::write(file, data, std::min<std::size_t>(bytes, 10));
    };
    EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", after.c_str()); }), KVX_E_FILE_IO);
    EXPECT_EQ(account.read("config.xml"), after.substr(0, 120));
}

TEST(InPlace, EmptiesAndFillsAFile) {
    struct Row {
        char const* m_Old;
        char const* m_New;
    };
    for (Row const& row : {Row{"", ""}, Row{"old", ""}, Row{"", "new"}}) {
        Account account;
        account.write("config.xml", row.m_Old);
        NoNewFiles const none;
        account.m_Context.UpdateFile("config.xml", row.m_New);
        EXPECT_EQ(account.read("config.xml"), row.m_New) << row.m_Old;
        EXPECT_EQ(NoNewFiles::truncations(), 0);
    }
}

TEST(InPlace, TouchesNothingWhenTheFileCannotBeLookedAt) {
    static int s_Looked = 0;
    for (int const failing : {0, 1}) {
        static int s_Failing = 0;
        s_Failing = failing;
        s_Looked = 0;
        Account account;
        account.write("config.xml", documentOf(300));
        NoNewFiles none;
        none.m_Calls->fstat = [](int file, struct stat* status) {
            if (s_Looked++ == s_Failing) {
                errno = EIO;
                return -1;
            }
            return ::fstat(file, status);
        };
        EXPECT_EQ(thrownCode([&] { account.m_Context.UpdateFile("config.xml", "new"); }), KVX_E_FILE_IO);
        EXPECT_EQ(account.read("config.xml"), documentOf(300));
    }
}

TEST(InPlace, WritesAFileThatMayNotBeRead) {
    Account account;
    account.write("config.xml", documentOf(300));
    NoNewFiles none;
    none.m_Calls->open = [](char const* path, int flags, mode_t mode) {
        if ((flags & O_EXCL) != 0 || ((flags & O_ACCMODE) == O_RDONLY && std::strstr(path, "config.xml") != nullptr)) {
            errno = EACCES;
            return -1;
        }
        return TbSystemCalls::openFile(path, flags, mode);
    };
    account.m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(account.read("config.xml"), "new");
}

/// Processes that write one file in place at the same time leave one of their contents, not a mixture.
TEST(InPlace, TakesTurnsWithOtherWriters) {
    Account account;
    std::string const contents[] = {documentOf(3000), documentOf(200)};
    account.write("config.xml", contents[0]);
    pid_t writers[2];
    for (int i = 0; i < 2; ++i) {
        writers[i] = ::fork();
        if (writers[i] == 0) {
            NoNewFiles none;
            none.m_Calls->fsync = [](int) { return 0; };
            for (int round = 0; round < 300; ++round) {
                account.m_Context.UpdateFile("config.xml", contents[i].c_str());
                // Looks while no writer is at work.
                int const lock = ::open(account.m_Dir.file("config.xml").c_str(), O_RDONLY | O_CLOEXEC);
                ::flock(lock, LOCK_SH);
                std::string const left = account.read("config.xml");
                ::close(lock);
                if (left != contents[0] && left != contents[1]) {
                    ::_exit(1);
                }
            }
            ::_exit(0);
        }
    }
    for (pid_t const writer : writers) {
        int status = 0;
        ASSERT_EQ(::waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a mixture was left";
    }
    std::string const left = account.read("config.xml");
    EXPECT_TRUE(left == contents[0] || left == contents[1]);
}

TEST(InPlace, DoesNotWaitForEverBehindAForeignLock) {
    Account account;
    account.write("config.xml", documentOf(100));
    int const reader = ::open(account.m_Dir.file("config.xml").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(reader, LOCK_SH), 0);
    {
        NoNewFiles const none;
        SystemCalls calls;
        calls->poll = [](pollfd*, nfds_t, int) { return 0; };
        account.m_Context.UpdateFile("config.xml", documentOf(200).c_str());
    }
    EXPECT_EQ(account.read("config.xml"), documentOf(200));
    ::close(reader);
}

TEST(InPlace, LeavesTheOldContentOnADiskThatIsReallyFull) {
    constexpr int kNoMount = 77;
    TemporaryDirectory dir;
    int const status = inChildProcess([&]() -> int {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("none", dir.path().c_str(), "tmpfs", 0, "size=32k,mode=755") != 0) {
            return kNoMount;
        }
        dir.write("config.xml", documentOf(300));
        std::filesystem::permissions(dir.file("config.xml"), std::filesystem::perms(0666));
        std::string fill;
        int const file = ::open(dir.file("fill").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        while (::write(file, std::string(4096, 'f').c_str(), 4096) > 0) {
        }
        ::close(file);
        // The directory's owner writes beside the file, another user in place.
        for (bool const isOther : {false, true}) {
            if (isOther && (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
                return 1;
            }
            KVX_Context context;
            context.Open(dir.path().c_str());
            if (thrownCode([&] { context.UpdateFile("config.xml", documentOf(20000).c_str()); }) != KVX_E_FILE_IO) {
                return 2;
            }
            if (dir.read("config.xml") != documentOf(300)) {
                return 3;
            }
        }
        // What fits in the file's own room is written.
        KVX_Context context;
        context.Open(dir.path().c_str());
        context.UpdateFile("config.xml", documentOf(1000).c_str());
        return dir.read("config.xml") == documentOf(1000) ? 0 : 4;
    });
    if (status == kNoMount) {
        GTEST_SKIP() << "this process may not mount a small file system";
    }
    EXPECT_EQ(status, 0);
}

TEST(WithoutPadding, DropsZeroBytesAtTheEndAlone) {
    struct Row {
        std::string m_Content;
        std::string m_Expected;
    };
    Row const rows[] = {
        {"", ""},
        {"a", "a"},
        {std::string("a\0\0", 3), "a"},
        {std::string("\0\0", 2), ""},
        {"a\n", "a\n"},
        {std::string("a\0b\0", 4), std::string("a\0b", 3)},
    };
    for (Row const& row : rows) {
        EXPECT_EQ(bytesOf(kvxWithoutPadding(stringOf(row.m_Content))), row.m_Expected);
    }
    EXPECT_EQ(kvxWithoutPadding(TbString()).length(), 0U);
}

class WriteOptions : public AccountTest {
protected:
    mode_t modeAfter(char const* name, KvxWriteOptions const& options) {
        EXPECT_EQ(kvxReplaceFile(m_Dir.file(name).c_str(), "x", 1, options), KvxWriteResult::kDone);
        struct stat status = {};
        EXPECT_EQ(::stat(m_Dir.file(name).c_str(), &status), 0);
        return status.st_mode & 07777;
    }
};

TEST_F(WriteOptions, GiveNewFilesAModeThatTheUmaskReducesUnlessItIsExact) {
    mode_t const before = ::umask(077);
    EXPECT_EQ(modeAfter("a", {0640, false, true}), mode_t{0600});
    EXPECT_EQ(modeAfter("b", {0640, true, true}), mode_t{0640});
    EXPECT_EQ(modeAfter("b", {0600, true, true}), mode_t{0640}) << "an old file keeps its own";
    EXPECT_EQ(modeAfter("c", {}), mode_t{0600});
    ::umask(before);
}

TEST_F(WriteOptions, MakeNoFileThatCannotHaveItsExactMode) {
    SystemCalls calls;
    calls->fchmod = [](int, mode_t mode) {
        EXPECT_EQ(mode, mode_t{0640});
        errno = EPERM;
        return -1;
    };
    EXPECT_EQ(kvxReplaceFile(m_Dir.file("a").c_str(), "x", 1, {0640, true, true}), KvxWriteResult::kCannotWrite);
    EXPECT_EQ(filesIn(""), std::vector<std::string>());
    EXPECT_EQ(kvxReplaceFile(m_Dir.file("a").c_str(), "x", 1, {0640, false, true}), KvxWriteResult::kDone);
}

TEST_F(WriteOptions, LeaveTheDiskAloneOnRequest) {
    static int s_Syncs = 0;
    for (bool const isInPlace : {false, true}) {
        NoNewFiles none;
        if (!isInPlace) {
            none.m_Calls->open = &TbSystemCalls::openFile;
        }
        none.m_Calls->fsync = [](int) { return ++s_Syncs, 0; };
        for (bool const syncs : {true, false}) {
            s_Syncs = 0;
            m_Dir.write("file", "a longer content");
            EXPECT_EQ(kvxReplaceFile(m_Dir.file("file").c_str(), "new", 3, {0666, false, syncs}),
                      KvxWriteResult::kDone);
            EXPECT_EQ(s_Syncs, syncs ? 2 : 0);
            EXPECT_EQ(read("file"), "new");
        }
    }
}

}  // namespace
