// A process that sets up and sets values without end is killed at drawn moments.
//
// The child counts its system calls in shared memory; its parent watches the count and kills it some calls later, in
// whatever it does then. All kills of a round hit one account, so that a loss would stay. The seed is KVX_TEST_SEED,
// the number of kills KVX_KILLS (200 unless set; the full form is some thousands).

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include "tests/core/crashsupport.h"
#include "tests/support/deadlycall.h"
#include "tests/support/random.h"
#include "tests/support/waiting.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kKillsOfARound = 50;
constexpr std::size_t kMaxCalls = 600;  ///< Before a kill: three set-ups.
constexpr std::size_t kLengths = 7;

/// A number that parent and child see.
class SharedCount {
public:
    SharedCount() {
        void* const memory = ::mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_Count = memory == MAP_FAILED ? nullptr : new (memory) Count(0);
    }
    SharedCount(SharedCount const&) = delete;
    SharedCount& operator=(SharedCount const&) = delete;
    ~SharedCount() { ::munmap(m_Count, sizeof(Count)); }

    using Count = std::atomic<std::size_t>;
    [[nodiscard]] Count& get() const { return *m_Count; }

private:
    Count* m_Count;
};

/// What the child sets "LANGID" of the defaults to, in turn: texts of different lengths, within the 4096 bytes that are
/// written at once in place.
std::string valueOf(std::size_t number) {
    return std::string(1 + number % kLengths * 500, 'v');
}

std::string defaultsWith(std::string const& value) {
    return R"(<KVX KVX.ISVALID="yes" LANGID=")" + value + "\"/>";
}

[[noreturn]] void workWithoutEnd(Account& account, bool isInPlace, SharedCount::Count& calls) {
    static SharedCount::Count* s_Calls = nullptr;
    s_Calls = &calls;
    WithoutSync const fast;
    std::unique_ptr<ClosedDirectories> closed;
    if (isInPlace) {
        closed = std::make_unique<ClosedDirectories>(account.path());
    }
    DeadlyCall const counting(-1, [] { s_Calls->fetch_add(1); });
    try {
        for (std::size_t number = 0;; ++number) {
            account.m_Context.SetValue("default.xml", "LANGID", valueOf(number).c_str(), false);
            if (number % 4 == 3) {
                account.m_Context.Reconfigure();
            }
        }
    } catch (...) {
        ::_exit(1);
    }
}

/// Kills a child at the drawn moment. False when it has ended by itself.
bool killWorker(Account& account, bool isInPlace, Random& random) {
    SharedCount const calls;
    pid_t const child = ::fork();
    if (child == 0) {
        workWithoutEnd(account, isInPlace, calls.get());
    }
    std::size_t const moment = 1 + random.below(kMaxCalls);
    bool hasEnded = false;
    int status = 0;
    bool const isThere = waitUntil([&] {
        hasEnded = ::waitpid(child, &status, WNOHANG) == child;
        return hasEnded || calls.get() >= moment;
    });
    if (!hasEnded) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    return isThere && WIFSIGNALED(status);
}

Allowed allowedContents() {
    AccountFiles const before = earlierFiles();
    Allowed allowed = Allowed::during(before);
    for (std::size_t number = 0; number < kLengths; ++number) {
        allowed.m_Defaults.insert(defaultsWith(valueOf(number)));
    }
    return allowed;
}

class RandomKills : public testing::TestWithParam<bool> {};

TEST_P(RandomKills, LeaveAnAccountThatWorks) {
    bool const isInPlace = GetParam();
    std::size_t const kills = numberFrom("KVX_KILLS", 200);
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    SetupServer const server;
    std::unique_ptr<Account> account;
    std::size_t withTemporary = 0;
    for (std::size_t kill = 0; kill < kills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        if (kill % kKillsOfARound == 0) {
            account = std::make_unique<Account>();
            AccountFiles files = earlierFiles();
            files.m_Defaults = defaultsWith("v");
            writeFiles(*account, files);
            account->m_Context.SetOption("VTAUTOURL", server.url().c_str());
        }
        ASSERT_TRUE(killWorker(*account, isInPlace, random)) << "the worker ended by itself";
        Allowed allowed = allowedContents();
        allowed.m_MayHavePadding = isInPlace;
        ASSERT_EQ(flawsOf(account->path(), allowed), "");
        withTemporary += temporaryFilesIn(account->path()).empty() ? 0U : 1U;

        // The next run completes what was interrupted.
        if (kill % kKillsOfARound == kKillsOfARound - 1) {
            WithoutSync const fast;
            account->m_Context.Reconfigure();
            Allowed after = Allowed::after(earlierFiles());
            after.m_Defaults = allowed.m_Defaults;
            after.m_MayHavePadding = isInPlace;
            ASSERT_EQ(flawsOf(account->path(), after), "");
            ASSERT_EQ(temporaryFilesIn(account->path()), "");
        }
    }
    RecordProperty("kills", std::to_string(kills));
    RecordProperty("with a temporary file left", std::to_string(withTemporary));
    EXPECT_GT(withTemporary, 0U) << "no kill hit a writer";
}

INSTANTIATE_TEST_SUITE_P(Ways, RandomKills, testing::Values(false, true),
                         [](testing::TestParamInfo<bool> const& row) { return row.param ? "InPlace" : "Beside"; });

}  // namespace
