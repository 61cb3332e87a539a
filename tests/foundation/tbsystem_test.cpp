// The table of system calls and its two helpers: repetition after signals, and descriptors that stay clear of standard
// input, output and error. Tests replace entries of the table; a guard puts the table back. No descriptor is really
// moved or closed.
#include "foundation/tbsystem.h"

#include <gtest/gtest.h>

namespace {

TEST(TbRetryInterrupted, RepeatsACallThatASignalInterrupted) {
    int calls = 0;
    int const result = tbRetryInterrupted([&] {
        errno = EINTR;
        return ++calls < 4 ? -1 : 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(calls, 4);
}

TEST(TbRetryInterrupted, PassesEveryOtherFailureOn) {
    int calls = 0;
    int const result = tbRetryInterrupted([&] {
        ++calls;
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(calls, 1);
}

TEST(TbSystem, HandsOutOneTableWhoseEntriesATestMayReplace) {
    TbSystemCalls const before = tbSystem();
    tbSystem().close = [](int) { return 42; };
    EXPECT_EQ(tbSystem().close(-1), 42);
    tbSystem() = before;
    errno = 0;
    EXPECT_EQ(tbSystem().close(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(TbSystem, ReachesTheOperatingSystem) {
    int const file = tbSystem().open("/", O_RDONLY | O_CLOEXEC, 0);
    ASSERT_GE(file, 0);
    struct stat status = {};
    EXPECT_EQ(tbSystem().fstat(file, &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(tbSystem().lstat("/", &status), 0);
    int const copy = tbSystem().dupFrom(file, 50);
    EXPECT_GE(copy, 50);
    EXPECT_EQ(::fcntl(copy, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(tbSystem().close(copy), 0);
    EXPECT_EQ(tbSystem().close(file), 0);
}

TEST(TbSystem, MakesNoDescriptorNonBlockingThatIsNotOpen) {
    errno = 0;
    EXPECT_EQ(tbSystem().setNonBlocking(-1), -1);
    EXPECT_EQ(errno, EBADF);
    int ends[2] = {};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(tbSystem().setNonBlocking(ends[0]), 0);
    char byte = 0;
    EXPECT_EQ(tbSystem().read(ends[0], &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN) << "an empty pipe would block";
    ::close(ends[0]);
    ::close(ends[1]);
}

int g_Closed = -1;

/// Puts a table back at the end of a test.
class TableGuard {
public:
    TableGuard() : m_Before(tbSystem()) {}
    TableGuard(TableGuard const&) = delete;
    TableGuard& operator=(TableGuard const&) = delete;
    ~TableGuard() { tbSystem() = m_Before; }

private:
    TbSystemCalls m_Before;
};

TEST(TbAwayFromStandardStreams, LeavesOtherNumbersAndFailuresAlone) {
    TableGuard const guard;
    tbSystem().dupFrom = [](int, int) { return 99; };
    for (int const file : {-1, 3, 4, 1000}) {
        EXPECT_EQ(tbAwayFromStandardStreams(file), file);
    }
}

TEST(TbAwayFromStandardStreams, MovesTheFirstThreeNumbersAndClosesThem) {
    TableGuard const guard;
    tbSystem().dupFrom = [](int, int least) { return least + 4; };
    tbSystem().close = [](int file) {
        g_Closed = file;
        return 0;
    };
    for (int const file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        g_Closed = -1;
        EXPECT_EQ(tbAwayFromStandardStreams(file), 7);
        EXPECT_EQ(g_Closed, file);
    }
}

TEST(TbAwayFromStandardStreams, ReportsThatNoNumberIsFreeAndClosesTheFile) {
    TableGuard const guard;
    tbSystem().dupFrom = [](int, int) {
        errno = EMFILE;
        return -1;
    };
    tbSystem().close = [](int file) {
        g_Closed = file;
        errno = EIO;
        return -1;
    };
    g_Closed = -1;
    EXPECT_EQ(tbAwayFromStandardStreams(STDOUT_FILENO), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(g_Closed, STDOUT_FILENO);
}

}  // namespace
