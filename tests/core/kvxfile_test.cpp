// Replacing files: modes, owners, links, other users, readers and writers at once, left-over files.
//
// Some tests drop privileges in a child process. Odd: where the directory cannot be written, or the target is no
// regular file, the file is written in place.

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <thread>

#include "core/kvxfile.h"
#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

using namespace kvxtest;

namespace {

constexpr uid_t kNobody = 65534;

struct stat statusOf(std::string const& path) {
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t modeOf(std::string const& path) {
    return statusOf(path).st_mode & 07777;
}

/// Sets the umask and restores it at the end.
class Umask {
public:
    explicit Umask(mode_t mask) : m_Before(::umask(mask)) {}
    Umask(Umask const&) = delete;
    Umask& operator=(Umask const&) = delete;
    ~Umask() { ::umask(m_Before); }

private:
    mode_t m_Before;
};

void dropPrivileges() {
    if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
        throw std::runtime_error("cannot become another user");
    }
}

enum Status { kWritten = 10, kNotOpened = 11, kNotWritten = 12, kOther = 13 };

/// Replaces `file` in the directory `path`, as a user without privileges, in a process of its own.
int updateUnprivileged(std::string const& path, std::string const& file, std::string const& content) {
    return inChildProcess([&]() -> int {
        dropPrivileges();
        KVX_Context context;
        context.Open(path.c_str());
        Thrown const failure = thrown([&] { context.UpdateFile(file.c_str(), content.c_str()); });
        switch (failure.m_Code) {
            case KVX_OK:
                return kWritten;
            case KVX_E_FILE_NOT_FOUND:
                return failure.m_Line == 205 ? kNotOpened : kOther;
            case KVX_E_FILE_IO:
                return failure.m_Line == 212 ? kNotWritten : kOther;
            default:
                return kOther;
        }
    });
}

class ReplaceFile : public AccountTest {};

TEST_F(ReplaceFile, GivesANewFileTheUsualModeUnderTheUmask) {
    Umask const mask(027);
    m_Context.UpdateFile("config.xml", "x");
    EXPECT_EQ(modeOf(m_Dir.file("config.xml")), mode_t{0640});
}

TEST_F(ReplaceFile, KeepsTheModeOfTheOldFile) {
    for (mode_t const mode : {0600U, 0640U, 0666U, 0744U, 0200U}) {
        write("config.xml", "old");
        ::chmod(m_Dir.file("config.xml").c_str(), mode);
        m_Context.UpdateFile("config.xml", "new");
        EXPECT_EQ(modeOf(m_Dir.file("config.xml")), mode);
        ::chmod(m_Dir.file("config.xml").c_str(), 0600);
        EXPECT_EQ(read("config.xml"), "new");
    }
}

TEST_F(ReplaceFile, KeepsTheOwnerOfTheOldFile) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only a privileged process can give files away";
    }
    struct Owner {
        uid_t m_User;
        gid_t m_Group;
    };
    for (Owner const& owner : {Owner{kNobody, kNobody}, Owner{kNobody, ::getegid()}, Owner{::geteuid(), kNobody}}) {
        write("config.xml", "old");
        ASSERT_EQ(::chown(m_Dir.file("config.xml").c_str(), owner.m_User, owner.m_Group), 0);
        ::chmod(m_Dir.file("config.xml").c_str(), 0640);
        m_Context.UpdateFile("config.xml", "new");
        struct stat const status = statusOf(m_Dir.file("config.xml"));
        EXPECT_EQ(status.st_uid, owner.m_User);
        EXPECT_EQ(status.st_gid, owner.m_Group);
        EXPECT_EQ(status.st_mode & 07777, mode_t{0640});
        EXPECT_EQ(read("config.xml"), "new");
    }
}

TEST_F(ReplaceFile, PutsANewFileInThePlaceOfTheOldOne) {
    write("config.xml", "old");
    int const open = ::open(m_Dir.file("config.xml").c_str(), O_RDONLY | O_CLOEXEC);
    m_Context.UpdateFile("config.xml", "new");
    char bytes[4] = {};
    EXPECT_EQ(::read(open, bytes, 3), 3);
    EXPECT_STREQ(bytes, "old") << "a reader goes on with the file it opened";
    ::close(open);
    EXPECT_EQ(read("config.xml"), "new");
    EXPECT_EQ(filesIn(""), std::vector<std::string>{"config.xml"});
}

TEST_F(ReplaceFile, FollowsSymbolicLinks) {
    TemporaryDirectory elsewhere;
    elsewhere.write("target", "old");
    std::filesystem::create_symlink(elsewhere.file("target"), m_Dir.file("absolute"));
    std::filesystem::create_symlink("absolute", m_Dir.file("relative"));
    m_Context.UpdateFile("relative", "new");
    EXPECT_EQ(elsewhere.read("target"), "new");
    EXPECT_TRUE(S_ISLNK(statusOf(m_Dir.file("absolute")).st_mode));
    EXPECT_TRUE(S_ISLNK(statusOf(m_Dir.file("relative")).st_mode));
    EXPECT_EQ(filesIn(""), (std::vector<std::string>{"absolute", "relative"}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(elsewhere.path()), {}), 1);
}

TEST_F(ReplaceFile, MakesTheMissingTargetOfALink) {
    TemporaryDirectory elsewhere;
    std::filesystem::create_symlink(elsewhere.file("target"), m_Dir.file("link"));
    m_Context.UpdateFile("link", "new");
    EXPECT_EQ(elsewhere.read("target"), "new");
    EXPECT_TRUE(S_ISLNK(statusOf(m_Dir.file("link")).st_mode));
}

TEST_F(ReplaceFile, MakesTheMissingTargetOfLinksToLinks) {
    // From the account's directory to another one by its absolute path, within that by relative ones and through a
    // link to a directory, and back.
    TemporaryDirectory elsewhere;
    std::filesystem::create_directory(elsewhere.file("folder"));
    std::filesystem::create_symlink("folder", elsewhere.file("alias"));
    std::filesystem::create_symlink(elsewhere.file("alias/second"), m_Dir.file("first"));
    std::filesystem::create_symlink("../third", elsewhere.file("folder/second"));
    std::filesystem::create_symlink(m_Dir.file("target"), elsewhere.file("third"));
    for (char const* const content : {"made", "replaced"}) {
        m_Context.UpdateFile("first", content);
        EXPECT_EQ(read("target"), content);
        EXPECT_FALSE(S_ISLNK(statusOf(m_Dir.file("target")).st_mode));
        EXPECT_EQ(filesIn(""), (std::vector<std::string>{"first", "target"}));
        EXPECT_EQ(elsewhere.namesIn(""), (std::vector<std::string>{"alias", "folder", "third"}));
        EXPECT_EQ(elsewhere.namesIn("folder"), std::vector<std::string>{"second"});
    }
}

TEST_F(ReplaceFile, MakesTheMissingTargetOfALinkBesideItAndRenamesIt) {
    static std::string s_Created;
    static std::string s_Renamed;
    TemporaryDirectory elsewhere;
    std::filesystem::create_symlink(elsewhere.file("target"), m_Dir.file("link"));
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        s_Created = (flags & O_CREAT) != 0 ? path : s_Created;
        return TbSystemCalls::openFile(path, flags, mode);
    };
    calls->rename = [](char const* from, char const* to) {
        s_Renamed = to;
        return ::rename(from, to);
    };
    m_Context.UpdateFile("link", "new");
    EXPECT_EQ(s_Created.find(elsewhere.file(".tallowin-")), 0U) << s_Created;
    EXPECT_EQ(s_Renamed, elsewhere.file("target"));
}

TEST_F(ReplaceFile, MakesTheMissingTargetOfALinkInPlaceWhereItMust) {
    using Break = void (*)(TbSystemCalls & calls);
    struct {
        char const* m_Name;
        Break m_Break;
    } const rows[] = {
        {"no file beside it",
         [](TbSystemCalls& calls) {
             calls.open = [](char const* path, int flags, mode_t mode) {
                 errno = EACCES;
                 return (flags & O_EXCL) != 0 ? -1 : TbSystemCalls::openFile(path, flags, mode);
             };
         }},
        {"a link that cannot be read",
         [](TbSystemCalls& calls) {
             calls.readlink = [](char const*, char*, std::size_t) -> ssize_t {
                 errno = EIO;
                 return -1;
             };
         }},
        {"a link without an end",
         [](TbSystemCalls& calls) {
             calls.readlink = [](char const*, char* target, std::size_t) -> ssize_t {
                 *target = 'x';
                 return 1;
             };
         }},
        {"a link too long to be read",
         [](TbSystemCalls& calls) {
             calls.readlink = [](char const*, char* target, std::size_t bytes) {
                 std::memset(target, 'x', bytes);
                 return static_cast<ssize_t>(bytes);
             };
         }},
        {"a way that cannot be resolved",
         [](TbSystemCalls& calls) {
             calls.realpath = [](char const*, char*) -> char* {
                 errno = EACCES;
                 return nullptr;
             };
         }},
    };
    for (auto const& row : rows) {
        TemporaryDirectory elsewhere;
        std::filesystem::remove(m_Dir.file("link"));
        std::filesystem::create_symlink(elsewhere.file("target"), m_Dir.file("link"));
        SystemCalls calls;
        row.m_Break(*calls.operator->());
        EXPECT_EQ(thrownCode([&] { m_Context.UpdateFile("link", "new"); }), KVX_OK) << row.m_Name;
        EXPECT_EQ(elsewhere.read("target"), "new") << row.m_Name;
        EXPECT_TRUE(S_ISLNK(statusOf(m_Dir.file("link")).st_mode)) << row.m_Name;
        EXPECT_EQ(elsewhere.namesIn(""), std::vector<std::string>{"target"}) << row.m_Name;
    }
}

TEST_F(ReplaceFile, CannotOpenALinkThatLeadsNowhere) {
    std::filesystem::create_symlink("loop", m_Dir.file("loop"));
    std::filesystem::create_symlink("/nowhere/file", m_Dir.file("away"));
    std::filesystem::create_symlink("away", m_Dir.file("further"));
    std::filesystem::create_symlink("nowhere/", m_Dir.file("slash"));
    std::filesystem::create_symlink("nowhere/..", m_Dir.file("parent"));
    std::filesystem::create_symlink(path(), m_Dir.file("directory"));
    std::vector<std::string> const before = filesIn("");
    for (char const* name : {"loop", "away", "further", "slash", "parent", "directory"}) {
        EXPECT_EQ(thrownCode([&] { m_Context.UpdateFile(name, "x"); }), KVX_E_FILE_NOT_FOUND) << name;
    }
    EXPECT_EQ(filesIn(""), before);
}

TEST_F(ReplaceFile, WritesDevicesInPlaceAndNoticesThatTheyAreFull) {
    std::filesystem::create_symlink("/dev/null", m_Dir.file("null"));
    std::filesystem::create_symlink("/dev/full", m_Dir.file("full"));
    m_Context.UpdateFile("null", "x");
    for (std::size_t const length : {std::size_t{1}, std::size_t{100}, std::size_t{1000000}}) {
        TraceRecorder const recorder;
        Thrown const failure = thrown([&] { m_Context.UpdateFile("full", std::string(length, 'x').c_str()); });
        EXPECT_EQ(failure.m_Code, KVX_E_FILE_IO);
        EXPECT_EQ(failure.m_File, "kvxctx");
        EXPECT_EQ(failure.m_Line, 212);
        EXPECT_EQ(failure.m_Text, "file I/O error");
        EXPECT_TRUE(recorder.of("UPDATE").empty());
    }
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(ReplaceFile, WritesAPipeInPlace) {
    ASSERT_EQ(::mkfifo(m_Dir.file("pipe").c_str(), 0600), 0);
    std::string received;
    int const reader = ::open(m_Dir.file("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    m_Context.UpdateFile("pipe", "through");
    char bytes[100];
    ssize_t const count = ::read(reader, bytes, sizeof bytes);
    ::close(reader);
    ASSERT_EQ(count, 7);
    EXPECT_EQ(std::string(bytes, 7), "through");
    EXPECT_TRUE(S_ISFIFO(statusOf(m_Dir.file("pipe")).st_mode));
}

TEST_F(ReplaceFile, BearsPrivateKeysForTheirOwnerOnly) {
    static mode_t s_Asked = 0;
    s_Asked = 0;
    std::filesystem::create_directories(m_Dir.file("keys/private"));
    std::filesystem::create_directories(m_Dir.file("keys/public"));
    Umask const mask(0);
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        if ((flags & O_CREAT) != 0) {
            s_Asked |= mode;
        }
        return ::open(path, flags, mode);
    };
    m_Context.UpdateFile("keys/private/id", "secret");
    EXPECT_EQ(modeOf(m_Dir.file("keys/private/id")), mode_t{0600});
    EXPECT_EQ(s_Asked, mode_t{0600}) << "from its first instant";

    unsigned char byte = 'x';
    m_Context.UpdateFile("keys/private/raw", &byte, 1UL);
    EXPECT_EQ(modeOf(m_Dir.file("keys/private/raw")), mode_t{0600});
    m_Context.UpdateFile("keys/public/id", "public");
    EXPECT_EQ(modeOf(m_Dir.file("keys/public/id")), mode_t{0666});
}

TEST_F(ReplaceFile, LetsNobodyOpenTheNewFileBeforeItHasTheModeOfTheOldOne) {
    static mode_t s_Before = 0;
    write("config.xml", "old");
    ::chmod(m_Dir.file("config.xml").c_str(), 0640);
    Umask const mask(0);
    SystemCalls calls;
    calls->fchmod = [](int file, mode_t mode) {
        struct stat status = {};
        EXPECT_EQ(::fstat(file, &status), 0);
        s_Before = status.st_mode & 07777;
        return ::fchmod(file, mode);
    };
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(s_Before, mode_t{0600});
    EXPECT_EQ(modeOf(m_Dir.file("config.xml")), mode_t{0640});
}

TEST_F(ReplaceFile, KeepsTheModeOfAnExistingPrivateKey) {
    write("keys/private/id", "old");
    ::chmod(m_Dir.file("keys/private/id").c_str(), 0640);
    m_Context.UpdateFile("keys/private/id", "new");
    EXPECT_EQ(modeOf(m_Dir.file("keys/private/id")), mode_t{0640});
}

TEST_F(ReplaceFile, WritesInPlaceWhereTheDirectoryIsNotWritable) {
    TemporaryDirectory dir;
    dir.write("config.xml", "old content");
    ::chmod(dir.file("config.xml").c_str(), 0666);
    ::chmod(dir.path().c_str(), 0555);
    ino_t const before = statusOf(dir.file("config.xml")).st_ino;
    EXPECT_EQ(updateUnprivileged(dir.path(), "config.xml", "new"), kWritten);
    EXPECT_EQ(updateUnprivileged(dir.path(), "other.xml", "new"), kNotOpened);
    ::chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(dir.read("config.xml"), "new");
    EXPECT_EQ(statusOf(dir.file("config.xml")).st_ino, before);
    EXPECT_FALSE(dir.exists("other.xml"));
}

TEST_F(ReplaceFile, CannotOpenAFileThatMayNotBeWritten) {
    TemporaryDirectory dir;
    dir.write("config.xml", "old");
    ::chmod(dir.file("config.xml").c_str(), 0444);
    ::chmod(dir.path().c_str(), 0777);
    EXPECT_EQ(updateUnprivileged(dir.path(), "config.xml", "new"), kNotOpened);
    EXPECT_EQ(dir.read("config.xml"), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST_F(ReplaceFile, CannotOpenItsOwnersFileThatMayNotBeWritten) {
    TemporaryDirectory dir;
    dir.write("config.xml", "old");
    ::chmod(dir.file("config.xml").c_str(), 0444);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(dir.file("config.xml").c_str(), kNobody, kNobody), 0);
        ASSERT_EQ(::chown(dir.path().c_str(), kNobody, kNobody), 0);
    }
    EXPECT_EQ(updateUnprivileged(dir.path(), "config.xml", "new"), kNotOpened) << "it could be replaced";
    EXPECT_EQ(dir.read("config.xml"), "old");
}

TEST_F(ReplaceFile, WritesAStrangersFileInPlace) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "takes two users";
    }
    // With the sticky bit the name cannot be taken over; without it the owner could not be kept.
    for (mode_t const mode : {01777U, 0777U}) {
        TemporaryDirectory dir;
        dir.write("config.xml", "old");
        ::chmod(dir.file("config.xml").c_str(), 0666);
        ::chmod(dir.path().c_str(), mode);
        ino_t const before = statusOf(dir.file("config.xml")).st_ino;
        EXPECT_EQ(updateUnprivileged(dir.path(), "config.xml", "new"), kWritten);
        EXPECT_EQ(dir.read("config.xml"), "new");
        EXPECT_EQ(statusOf(dir.file("config.xml")).st_ino, before);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1) << mode;
    }
}

/// As fs.protected_regular has it for a stranger's file in a directory with the sticky bit.
TEST_F(ReplaceFile, WritesInPlaceWhereNobodyMayAskForANewFile) {
    write("config.xml", "old content");
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        errno = EACCES;
        return (flags & O_CREAT) != 0 ? -1 : TbSystemCalls::openFile(path, flags, mode);
    };
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(read("config.xml"), "new");
    EXPECT_EQ(thrownCode([&] { m_Context.UpdateFile("other.xml", "new"); }), KVX_E_FILE_NOT_FOUND);
}

TEST_F(ReplaceFile, RemovesWhatDeadWritersLeftAndNothingElse) {
    write(".tallowin-1-0.tmp", "half");
    write(".tallowin-99-7.tmp", "");
    write(".tallowin-notes", "mine");
    write("tallowin-1-0.tmp", "mine");
    write("x.tmp", "mine");
    std::filesystem::create_directory(m_Dir.file(".tallowin-d.tmp"));
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(filesIn(""), (std::vector<std::string>{".tallowin-d.tmp", ".tallowin-notes", "config.xml",
                                                     "tallowin-1-0.tmp", "x.tmp"}));
}

TEST_F(ReplaceFile, RemovesNoLinkAndTouchesNothingBehindIt) {
    TemporaryDirectory elsewhere;
    elsewhere.write("target", "mine");
    std::filesystem::create_symlink(elsewhere.file("target"), m_Dir.file(".tallowin-1-0.tmp"));
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(elsewhere.read("target"), "mine");
}

TEST_F(ReplaceFile, LeavesALivingWritersFileAlone) {
    static KVX_Context* s_Other = nullptr;
    static int s_Renames = 0;
    s_Renames = 0;
    KVX_Context other(m_Context);
    s_Other = &other;
    SystemCalls calls;
    // While the first writer is about to take the name over, a second one writes in the same directory.
    calls->rename = [](char const* from, char const* to) {
        if (s_Renames++ == 0) {
            s_Other->UpdateFile("second", "2");
        }
        return ::rename(from, to);
    };
    m_Context.UpdateFile("first", "1");
    EXPECT_EQ(filesIn(""), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(read("first"), "1");
}

TEST_F(ReplaceFile, StartsAgainWhenItsNewFileIsClearedAwayBeforeItIsLocked) {
    static std::string s_Created;
    static int s_Locks = 0;
    s_Locks = 0;
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        s_Created = path;
        return ::open(path, flags, mode);
    };
    calls->flock = [](int file, int operation) {
        if (s_Locks++ == 0) {
            ::unlink(s_Created.c_str());
        }
        return ::flock(file, operation);
    };
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(s_Locks, 2);
    EXPECT_EQ(read("config.xml"), "new");
    EXPECT_EQ(filesIn(""), std::vector<std::string>{"config.xml"});
}

TEST_F(ReplaceFile, TakesAnotherNameWhenOneIsTaken) {
    static int s_Opens = 0;
    s_Opens = 0;
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        if ((flags & O_EXCL) != 0 && s_Opens++ < 3) {
            errno = EEXIST;
            return -1;
        }
        return ::open(path, flags, mode);
    };
    m_Context.UpdateFile("config.xml", "new");
    EXPECT_EQ(s_Opens, 4);
    EXPECT_EQ(read("config.xml"), "new");
}

TEST_F(ReplaceFile, GivesUpWhenEveryNameIsTaken) {
    static int s_Opens = 0;
    s_Opens = 0;
    write("config.xml", "old");
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        if ((flags & O_EXCL) != 0) {
            ++s_Opens;
            errno = EEXIST;
            return -1;
        }
        return ::open(path, flags, mode);
    };
    EXPECT_EQ(thrownCode([&] { m_Context.UpdateFile("config.xml", "new"); }), KVX_E_FILE_NOT_FOUND);
    EXPECT_EQ(s_Opens, 16);
    EXPECT_EQ(read("config.xml"), "old");
}

// The file's own path just fits the longest one that the system takes.
TEST_F(ReplaceFile, WritesInPlaceWhereANewFilesPathWouldBeTooLong) {
    std::string directory = path();
    while (directory.size() < 4090) {
        directory += "/" + std::string(std::min<std::size_t>(200, 4090 - directory.size() - 1), 'd');
        ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0) << directory.size();
    }
    std::string const file = directory + "/f";
    std::ofstream(file) << "old and longer";
    ino_t const before = statusOf(file).st_ino;
    EXPECT_EQ(kvxReplaceFile(file.c_str(), "new", 3, {}), KvxWriteResult::kDone);
    EXPECT_EQ(statusOf(file).st_ino, before);
    TbStringStream content;
    EXPECT_EQ(kvxReadFile(file.c_str(), content), KvxReadResult::kDone);
    EXPECT_EQ(bytesOf(content), "new");
}

TEST_F(ReplaceFile, OpensEveryDescriptorCloseOnExec) {
    static bool s_AllClosed = true;
    write("config.xml", "<KVX/>");
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t mode) {
        s_AllClosed = s_AllClosed && (flags & O_CLOEXEC) != 0;
        return ::open(path, flags, mode);
    };
    m_Context.SetValue("config.xml", "A", "1", false);
    unsigned char byte = 0;
    unsigned long size = 1;
    m_Context.QueryValue("config.xml", &byte, &size);
    m_Context.UpdateFile("raw", &byte, 1UL);
    EXPECT_TRUE(s_AllClosed);
}

TEST_F(ReplaceFile, ShowsReadersTheOldOrTheNewContentWhole) {
    std::string const contents[] = {std::string(20000, 'a'), std::string(70000, 'b')};
    write("config.xml", contents[0]);
    pid_t const writer = ::fork();
    if (writer == 0) {
        for (int i = 0; i < 300; ++i) {
            if (thrownCode([&] { m_Context.UpdateFile("config.xml", contents[1 - i % 2].c_str()); }) != 0) {
                ::_exit(1);
            }
        }
        ::_exit(0);
    }
    int status = 0;
    long reads = 0;
    long changes = 0;
    char last = 'a';
    while (::waitpid(writer, &status, WNOHANG) == 0) {
        TbString value;
        ASSERT_TRUE(m_Context.QueryValue("config.xml", "", value));
        std::string const bytes = bytesOf(value);
        ASSERT_TRUE(bytes == contents[0] || bytes == contents[1]) << "a torn file of " << bytes.size() << " bytes";
        changes += bytes[0] != last ? 1 : 0;
        last = bytes[0];
        ++reads;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(reads, 0);
    EXPECT_EQ(filesIn(""), std::vector<std::string>{"config.xml"});
    RecordProperty("reads", std::to_string(reads));
    RecordProperty("changes", std::to_string(changes));
}

/// What the reader takes from the system at once.
constexpr std::size_t kChunk = 8192;

/// The size that the system tells is advice alone: a special file tells none, and another writer may be at work.
TEST(ReadFile, ReadsAFileWhateverSizeIsToldForIt) {
    static off_t s_Size = 0;
    TemporaryDirectory dir;
    std::string const content(kChunk + 7, 'c');
    dir.write("file", content);
    constexpr off_t kMost = std::numeric_limits<std::int32_t>::max();
    for (off_t const size : {off_t{-1}, off_t{0}, off_t{3}, off_t{8199}, off_t{10000}, kMost, kMost + 1}) {
        s_Size = size;
        SystemCalls calls;
        calls->fstat = [](int file, struct stat* status) {
            int const result = ::fstat(file, status);
            status->st_size = s_Size;
            return result;
        };
        TbStringStream out;
        EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kDone) << size;
        EXPECT_EQ(bytesOf(out), content) << size;
        EXPECT_LT(out.capacity(), 20000U) << size;
    }
    SystemCalls calls;
    calls->fstat = [](int, struct stat*) {
        errno = EIO;
        return -1;
    };
    TbStringStream out;
    EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kDone) << "no size at all";
    EXPECT_EQ(bytesOf(out), content);
}

TEST(ReadFile, AsksForTheSizeOfALongFileOnly) {
    static int s_Asked = 0;
    TemporaryDirectory dir;
    SystemCalls calls;
    calls->fstat = [](int file, struct stat* status) {
        ++s_Asked;
        return ::fstat(file, status);
    };
    for (std::size_t const size : {std::size_t{0}, std::size_t{1}, kChunk - 1, kChunk, kChunk + 1, 5 * kChunk}) {
        s_Asked = 0;
        std::string const content(size, 'c');
        dir.write("file", content);
        TbStringStream out;
        EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kDone) << size;
        EXPECT_EQ(bytesOf(out), content) << size;
        EXPECT_EQ(s_Asked, size < kChunk ? 0 : 1) << size;
    }
}

/// Reads of at most so many bytes, of which one may fail, while it lives. One at a time.
class ShortReads {
public:
    explicit ShortReads(std::size_t most, int failing = -1) {
        s_Most = most;
        s_Left = failing;
        m_Calls->read = [](int file, void* buffer, std::size_t bytes) -> ssize_t {
            if (s_Left-- == 0) {
                errno = EIO;
                return -1;
            }
            return ::read(file, buffer, std::min(bytes, s_Most));
        };
    }

private:
    static inline std::size_t s_Most = 0;
    static inline int s_Left = 0;

    SystemCalls m_Calls;
};

TEST(ReadFile, GoesOnAfterShortReadsAndKeepsWhatCameBeforeAFailure) {
    TemporaryDirectory dir;
    std::string content;
    for (int i = 0; content.size() < 3 * kChunk; ++i) {
        content += std::to_string(i);
    }
    dir.write("file", content);
    for (std::size_t const most : {std::size_t{100}, std::size_t{4096}, kChunk - 1, kChunk}) {
        {
            ShortReads const reads(most);
            TbStringStream out;
            EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kDone) << most;
            EXPECT_TRUE(bytesOf(out) == content) << most;
        }
        for (int const failing : {0, 1, 2, 3}) {
            ShortReads const reads(most, failing);
            TbStringStream out;
            EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kCannotRead) << most;
            EXPECT_EQ(content.find(bytesOf(out)), 0U) << most;
            EXPECT_EQ(out.length() == 0, failing == 0) << most;
        }
    }
}

/// What is no file is known by its status: file systems refuse to read a directory by different errors.
TEST(ReadFile, TellsADirectoryWhateverErrorItIsReadWith) {
    static int s_Error = 0;
    TemporaryDirectory dir;
    dir.write("file", "content");
    TbStringStream out;
    EXPECT_EQ(kvxReadFile(dir.path().c_str(), out), KvxReadResult::kDirectory);
    for (int const error : {EISDIR, EINVAL, EIO}) {
        s_Error = error;
        SystemCalls calls;
        calls->read = [](int, void*, std::size_t) -> ssize_t {
            errno = s_Error;
            return -1;
        };
        EXPECT_EQ(kvxReadFile(dir.path().c_str(), out), KvxReadResult::kDirectory) << error;
        EXPECT_EQ(kvxReadFile(dir.file("file").c_str(), out), KvxReadResult::kCannotRead) << error;
        calls->fstat = [](int, struct stat*) {
            errno = EIO;
            return -1;
        };
        EXPECT_EQ(kvxReadFile(dir.path().c_str(), out), KvxReadResult::kCannotRead) << error;
    }
}

/// A link is there, whatever name it leads to.
TEST(ReadFile, TellsANameThatIsTooLongFromALinkToOne) {
    TemporaryDirectory dir;
    std::string const name(300, 'x');
    std::filesystem::create_symlink(name, dir.file("link"));
    std::filesystem::create_symlink("nowhere", dir.file("dangling"));
    TbStringStream content;
    EXPECT_EQ(kvxReadFile(dir.file(name).c_str(), content), KvxReadResult::kNameTooLong);
    EXPECT_EQ(kvxReadFile(dir.file(name + "/file").c_str(), content), KvxReadResult::kNameTooLong);
    EXPECT_EQ(kvxReadFile(dir.file("link").c_str(), content), KvxReadResult::kCannotOpen);
    EXPECT_EQ(kvxReadFile(dir.file("dangling").c_str(), content), KvxReadResult::kAbsent);
}

TEST(SyncNewDirectory, SynchronisesTheDirectoryThatHoldsIt) {
    static std::string s_Opened;
    SystemCalls calls;
    calls->open = [](char const* path, int flags, mode_t) {
        EXPECT_NE(flags & O_DIRECTORY, 0);
        s_Opened += path;
        errno = EACCES;
        return -1;
    };
    struct Row {
        char const* m_New;
        char const* m_Holder;
    };
    constexpr Row kRows[] = {
        {"/a", "/"}, {"/a/", "/"}, {"/a/b", "/a"}, {"/a/b///", "/a"}, {"a", "."},
        {"a/", "."}, {"a/b", "a"}, {"a//b", "a/"}, {"/", "/"},        {"///", "/"},
    };
    for (Row const& row : kRows) {
        s_Opened = "";
        EXPECT_TRUE(kvxSyncNewDirectory(row.m_New)) << row.m_New;
        EXPECT_EQ(s_Opened, row.m_Holder) << row.m_New;
    }
}

TEST(OpenForReading, FailsWithoutAStatus) {
    TemporaryDirectory dir;
    dir.write("file", "content");
    std::size_t const before = countDescriptors();
    {
        SystemCalls calls;
        calls->fstat = [](int, struct stat*) {
            errno = EIO;
            return -1;
        };
        EXPECT_EQ(kvxOpenForReading(dir.file("file").c_str()), -1);
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(kvxOpenForReading(dir.path().c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
