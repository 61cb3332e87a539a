#include "net/kvxmemorywatch.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

bool hasFailureAfter(int reason, int number) {
    KvxMemoryWatch watch;
    if (reason != 0) {
        ERR_raise(ERR_LIB_SSL, reason);
        ERR_raise(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR);
    }
    errno = number;
    return watch.hasFailure();
}

/// Runs `test` in a process of its own: a process remembers a lack of memory.
void apart(void (*test)()) {
    EXPECT_EQ(inChildProcess([test] {
                  test();
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

}  // namespace

TEST(MemoryWatch, SeesEntriesOfTheErrorQueueAndTheAllocatorsErrno) {
    apart([] {
        EXPECT_TRUE(hasFailureAfter(ERR_R_MALLOC_FAILURE, 0)) << "also below another entry";
        EXPECT_TRUE(hasFailureAfter(0, ENOMEM));
        EXPECT_FALSE(hasFailureAfter(0, 0));
        EXPECT_FALSE(hasFailureAfter(ERR_R_EVP_LIB, ECONNRESET));
        EXPECT_EQ(ERR_peek_error(), 0UL) << "the queue is empty afterwards";
    });
}

TEST(MemoryWatch, BelievesNothingFromBefore) {
    ERR_raise(ERR_LIB_SSL, ERR_R_MALLOC_FAILURE);
    errno = ENOMEM;
    KvxMemoryWatch watch;
    EXPECT_FALSE(watch.hasFailure());
}

TEST(MemoryWatch, RemembersWhatASampleHasSeen) {
    apart([] {
        KvxMemoryWatch watch;
        errno = ENOMEM;
        watch.sample();
        errno = ECONNRESET;
        watch.sample();
        EXPECT_TRUE(watch.hasFailure());
    });
}

TEST(MemoryWatch, LeavesErrnoToTheCallsOrAsItWas) {
    errno = EPIPE;
    { KvxMemoryWatch const nothing; }
    EXPECT_EQ(errno, EPIPE);
    {
        KvxMemoryWatch const failed;
        errno = ECONNRESET;
    }
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(MemoryWatch, NotesLackOfMemoryForTheProcess) {
    apart([] {
        EXPECT_FALSE(kvxHasLackedMemory());
        EXPECT_FALSE(hasFailureAfter(ERR_R_EVP_LIB, ENOENT));
        EXPECT_FALSE(kvxHasLackedMemory());
        {
            KvxMemoryWatch const unasked;
            errno = ENOMEM;
        }
        EXPECT_TRUE(kvxHasLackedMemory());
    });
}
