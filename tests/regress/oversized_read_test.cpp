// A raw read with room for more bytes than there can be memory once failed, because the system refuses such a number;
// the room is an upper bound, so the file's bytes are the answer. Bounded to a gibibyte it still failed, though only
// for a buffer less than that below the end of all addresses, as one process's stack in sixteen is.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "core/kvxctx.h"
#include "tests/support/directories.h"

using namespace kvxtest;

namespace {

TEST(RawQueryValue, TakesAnyRoomAsAnUpperBound) {
    TemporaryDirectory const dir;
    dir.write("three", "abc");
    KVX_Context context;
    context.Open(dir.path().c_str());
    unsigned char buffer[4] = {};
    unsigned long size = ULONG_MAX;
    EXPECT_TRUE(context.QueryValue("three", buffer, &size));
    EXPECT_EQ(size, 3U);
    EXPECT_STREQ(reinterpret_cast<char const*>(buffer), "abc");
}

TEST(RawQueryValue, TakesAnyRoomForABufferAtTheEndOfAllAddresses) {
    constexpr std::uintptr_t kPage = 4096;
    std::uintptr_t const end = sizeof(void*) == 8 ? std::uintptr_t{1} << 47 : std::uintptr_t{0xFFFFE000U};
    void* last = MAP_FAILED;
    for (std::uintptr_t address = end - kPage; last == MAP_FAILED && address > end - 65536 * kPage; address -= kPage) {
        last = ::mmap(reinterpret_cast<void*>(address), kPage, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }
    ASSERT_NE(last, MAP_FAILED);
    TemporaryDirectory const dir;
    dir.write("three", "abc");
    KVX_Context context;
    context.Open(dir.path().c_str());
    for (unsigned long const room : {ULONG_MAX, ULONG_MAX / 2, 1UL << 30, 4096UL}) {
        unsigned long size = room;
        EXPECT_TRUE(context.QueryValue("three", static_cast<unsigned char*>(last), &size)) << room;
        EXPECT_EQ(size, 3U);
        EXPECT_EQ(std::memcmp(last, "abc", 3), 0);
    }
    ::munmap(last, kPage);
}

TEST(RawQueryValue, ReadsAFileThatSpansPagesIntoABufferThatStartsInsideOne) {
    TemporaryDirectory const dir;
    std::string content;
    for (int i = 0; content.size() < 20000; ++i) {
        content += std::to_string(i);
    }
    dir.write("long", content);
    KVX_Context context;
    context.Open(dir.path().c_str());
    std::string buffer(content.size() + 100, '\0');
    unsigned long size = static_cast<unsigned long>(content.size() + 1);
    EXPECT_TRUE(context.QueryValue("long", reinterpret_cast<unsigned char*>(&buffer[99]), &size));
    EXPECT_EQ(size, content.size());
    EXPECT_EQ(buffer.substr(99, content.size()), content);
}

}  // namespace
