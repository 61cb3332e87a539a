// Whether a file may be written was once judged by the real user, while opening is judged by the effective one: a
// setuid host could not write its files, and another replaced files that it must not write.

#include <gtest/gtest.h>
#include <unistd.h>

#include "core/kvxctx.h"
#include "tests/support/directories.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

constexpr uid_t kNobody = 65534;

TEST(UpdateFile, JudgesByTheEffectiveUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "takes root to become two users at once";
    }
    TemporaryDirectory const dir;
    dir.write("config.xml", "<KVX A=\"old\"/>");
    int const status = inChildProcess([&] {
        KVX_Context context;
        bool const changed = setresuid(kNobody, 0, 0) == 0;
        std::int32_t const code = thrownCode([&] {
            context.Open(dir.path().c_str());
            context.SetValue("config.xml", "A", "new", false);
        });
        return changed && code == KVX_OK ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(dir.read("config.xml"), "<KVX A=\"new\"/>");
}

}  // namespace
