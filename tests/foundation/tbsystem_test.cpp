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
    EXPECT_EQ(tbSystem().close(file), 0);
}

}  // namespace
