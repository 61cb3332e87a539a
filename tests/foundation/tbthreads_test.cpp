#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "foundation/tbmultimap.h"
#include "foundation/tbstring.h"
#include "foundation/tbstringstream.h"
#include "tests/foundation/foundationsupport.h"

using namespace kvxtest;

namespace {

/// Uses every kind of object, all of its own.
void work(int rounds, bool* isSound) {
    *isSound = true;
    for (int round = 0; round < rounds; ++round) {
        TbStrMap map;
        TbStrPtrMultimap children;
        TbStringStream stream;
        for (int i = 0; i < 30; ++i) {
            TbString const key(std::to_string((i * 7) % 20).c_str());
            map[key] = key;
            children.put(key, TbPtr(new TbString(key)));
            stream.put(key);
        }
        TbStrMap copy(map);
        for (int i = 0; i < 10; ++i) {
            TbString const key(std::to_string(i).c_str());
            copy.remove(key);
            children.remove(key, 0);
        }
        *isSound = *isSound && isSoundTree(map) && isSoundTree(copy) && isSoundTree(children) && map.count() == 20 &&
                   copy.count() == 10 && children.count() == 20;
    }
}

TEST(Threads, WithObjectsOfTheirOwnKeepTheCommonCountRight) {
    std::int32_t const start = TbRefCounter::m_nTotalRef;
    constexpr int kRounds = 200;
    bool sound[2] = {};
    std::vector<std::thread> threads;
    threads.reserve(2);
    for (bool& isSound : sound) {
        threads.emplace_back(&work, kRounds, &isSound);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(sound[0]);
    EXPECT_TRUE(sound[1]);
    EXPECT_EQ(TbRefCounter::m_nTotalRef, start);
}

TEST(Threads, MayHandAnObjectOver) {
    TbString text("from here");
    std::thread other([&] { text.append(TbString(" to there")); });
    other.join();
    EXPECT_TRUE(text == "from here to there");
}

}  // namespace
