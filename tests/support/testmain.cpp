// Runs the tests of one program and holds every single one to leaving no foundation object behind.

#include <gtest/gtest.h>

#include "foundation/tbobject.h"

namespace {

class LiveObjectGuard : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const&) override { m_Before = TbRefCounter::m_nTotalRef; }

    void OnTestEnd(testing::TestInfo const& test) override {
        if (!test.result()->Failed()) {
            EXPECT_EQ(TbRefCounter::m_nTotalRef, m_Before) << "foundation objects left behind";
        }
    }

    std::int32_t m_Before = 0;
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The framework owns and deletes its listeners.
    testing::UnitTest::GetInstance()->listeners().Append(new LiveObjectGuard);
    return RUN_ALL_TESTS();
}
