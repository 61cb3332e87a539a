// A process is killed at every system call of a set-up and of setting a value.
//
// A child process dies instead of its first call, the next one instead of its second, until one lives to the end. After
// each kill the account must hold old and new files whole, pay if it could pay before, and be repaired by the next run.
// Odd: files that are written in place may be followed by zero bytes until then.

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "tests/core/crashsupport.h"
#include "tests/support/deadlycall.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"

using namespace kvxtest;

namespace {

constexpr int kMaxCalls = 3000;  ///< More than any run makes.
constexpr uid_t kNobody = 65534;

enum class Way {
    kBeside,           ///< Files are replaced by new ones.
    kInPlace,          ///< No file can be made where the old ones are.
    kInPlaceAsNobody,  ///< The same, by the permissions of the directories.
    kThroughLinks,     ///< Files are symbolic links to files that do not exist yet.
};

/// Whether new files are made and renamed.
bool isBeside(Way way) {
    return way == Way::kBeside || way == Way::kThroughLinks;
}

/// What there is before a run.
struct Start {
    char const* m_Name;
    AccountFiles m_Files;
    char const* m_Settings = nullptr;
    Way m_Way = Way::kBeside;
    int m_LeastCalls = 100;
};

/// Names of tests would hold its bytes, addresses among them.
void PrintTo(Start const& start, std::ostream* out) {
    *out << start.m_Name;
}

std::string nameOf(testing::TestParamInfo<Start> const& row) {
    return row.param.m_Name;
}

AccountFiles withDefaults(std::string const& defaults) {
    AccountFiles files = earlierFiles();
    files.m_Defaults = defaults;
    return files;
}

constexpr char kStrict[] = R"(<KVX PROFILE="strict"/>)";
constexpr char kLongInvalid[] =
    R"(<KVX KVX.ISVALID="no" LANGID="de" FILL="12345678901234567890123456789012345678901234567"/>)";

/// Opens the way for another user: files may be written, directories not, save those of new keys.
void openForNobody(Account const& account) {
    std::filesystem::path const root(account.path());
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) {
        bool const isOfKeys = entry.path().filename() == "public" || entry.path().filename() == "private";
        ::chmod(entry.path().c_str(), !entry.is_directory() ? 0666 : isOfKeys ? 0777 : 0555);
    }
    ::chmod(root.c_str(), 0555);
}

/// Makes files of the account symbolic links to files that do not exist, one of them through another link.
void linkToNowhere(Account const& account) {
    std::filesystem::create_directories(account.m_Dir.file("elsewhere"));
    std::filesystem::create_directories(account.m_Dir.file("keys"));
    std::filesystem::create_symlink("elsewhere/configuration", account.m_Dir.file("config.xml"));
    std::filesystem::create_symlink("elsewhere/link", account.m_Dir.file("default.xml"));
    std::filesystem::create_symlink(account.m_Dir.file("elsewhere/defaults"), account.m_Dir.file("elsewhere/link"));
    std::filesystem::create_symlink("../elsewhere/current", account.m_Dir.file("keys/current"));
}

/// Lets the owner, if it is not root, remove the account.
void closeForNobody(Account const& account) {
    ::chmod(account.path(), 0755);
    ::chmod(account.m_Dir.file("keys").c_str(), 0755);
}

/// Gives up the rights of root, if there are any.
void becomeNobody() {
    if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
                             ::setresuid(kNobody, kNobody, kNobody) != 0)) {
        ::_exit(98);
    }
}

/// Runs `call` in a child process under the conditions of `way`. It dies at the call number `killAt`; never for -1.
int runChild(Account& account, Way way, int killAt, std::function<void()> const& call) {
    return inChildProcess([&] {
        if (way == Way::kInPlaceAsNobody) {
            becomeNobody();
        }
        WithoutSync const fast;
        std::unique_ptr<ClosedDirectories> closed;
        if (way == Way::kInPlace) {
            closed = std::make_unique<ClosedDirectories>(account.path());
        }
        DeadlyCall const deadly(killAt);
        call();
        return 0;
    });
}

/// What a row tries.
struct Trial {
    std::function<void(Account&)> m_Prepare;
    std::function<void(KVX_Context&)> m_Run;
    Allowed m_During;
    Allowed m_After;
};

void killEverywhere(Start const& start, Trial const& trial) {
    SCOPED_TRACE(start.m_Name);
    int step = 0;
    bool sawTemporary = false;
    for (bool finished = false; !finished; ++step) {
        ASSERT_LT(step, kMaxCalls);
        SCOPED_TRACE("killed at call " + std::to_string(step));
        Account account;
        trial.m_Prepare(account);
        if (start.m_Settings != nullptr) {
            account.write("settings.xml", start.m_Settings);
        }
        if (start.m_Way == Way::kInPlaceAsNobody) {
            openForNobody(account);
        } else if (start.m_Way == Way::kThroughLinks) {
            linkToNowhere(account);
        }
        auto const run = [&](int killAt) {
            return runChild(account, start.m_Way, killAt, [&] { trial.m_Run(account.m_Context); });
        };

        int const status = run(step);
        finished = status == 0;
        EXPECT_TRUE(finished || status == 128 + SIGKILL) << status;
        EXPECT_EQ(flawsOf(account.path(), finished ? trial.m_After : trial.m_During), "");
        sawTemporary = sawTemporary || !temporaryFilesIn(account.path()).empty();

        EXPECT_EQ(run(-1), 0) << "the next run fails";
        EXPECT_EQ(flawsOf(account.path(), trial.m_After), "") << "after the next run";
        EXPECT_EQ(temporaryFilesIn(account.path()), "") << "after the next run";
        EXPECT_EQ(std::filesystem::is_symlink(account.m_Dir.file("config.xml")), start.m_Way == Way::kThroughLinks);
        closeForNobody(account);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
    EXPECT_GT(step, start.m_LeastCalls);
    EXPECT_TRUE(sawTemporary || !isBeside(start.m_Way));
    testing::Test::RecordProperty(start.m_Name, std::to_string(step));
}

class KilledSetup : public testing::TestWithParam<Start> {};

TEST_P(KilledSetup, LeavesAnAccountThatTheNextSetupCompletes) {
    Start const& start = GetParam();
    SetupServer const server;
    Trial trial;
    trial.m_Prepare = [&](Account& account) {
        if (!start.m_Files.m_KeyId.empty()) {
            writeFiles(account, start.m_Files);
            std::filesystem::create_directories(account.m_Dir.file("keys/private"));
        }
        account.m_Context.SetOption("VTAUTOURL", server.url().c_str());
    };
    trial.m_Run = [](KVX_Context& context) { context.Reconfigure(); };
    trial.m_During = Allowed::during(start.m_Files);
    trial.m_During.m_MayHavePadding = !isBeside(start.m_Way);
    trial.m_After = Allowed::after(start.m_Files);
    killEverywhere(start, trial);
}

INSTANTIATE_TEST_SUITE_P(
    Starts, KilledSetup,
    testing::Values(Start{"FreshDirectory", {}}, Start{"LinksToNowhere", {}, nullptr, Way::kThroughLinks},
                    Start{"Configured", earlierFiles()}, Start{"DefaultsInvalid", withDefaults(kLongInvalid)},
                    Start{"FreshAndStrict", {}, kStrict}, Start{"InvalidAndStrict", withDefaults("<KVX/>"), kStrict},
                    Start{"InPlace", withDefaults(kLongInvalid), nullptr, Way::kInPlace},
                    Start{"InPlaceAndGrowing", withDefaults("<KVX/>"), nullptr, Way::kInPlace},
                    Start{"InPlaceAsNobody", withDefaults(kLongInvalid), nullptr, Way::kInPlaceAsNobody}),
    &nameOf);

class KilledSetValue : public testing::TestWithParam<Start> {};

TEST_P(KilledSetValue, LeavesTheOldOrTheNewDocumentThatTheNextCallReplaces) {
    Start const& start = GetParam();
    struct Row {
        char const* m_Name;
        std::string m_Value;
    };
    // A longer value, a shorter one, one as long as before.
    for (Row const& row : {Row{"longer", std::string(300, 'n')}, Row{"shorter", "n"}, Row{"equal", "never"}}) {
        SCOPED_TRACE(row.m_Name);
        AccountFiles const files = withDefaults(R"(<KVX LANGID="older"/>)");
        Trial trial;
        trial.m_Prepare = [&](Account& account) { writeFiles(account, files); };
        trial.m_Run = [&](KVX_Context& context) {
            context.SetValue("default.xml", "LANGID", row.m_Value.c_str(), false);
        };
        trial.m_After = {{files.m_Configuration},
                         {"<KVX LANGID=\"" + row.m_Value + "\"/>"},
                         {files.m_ServerKey},
                         {files.m_KeyId},
                         false,
                         false,
                         true};
        trial.m_During = trial.m_After;
        trial.m_During.m_Defaults.insert(files.m_Defaults);
        trial.m_During.m_MayHavePadding = !isBeside(start.m_Way);
        killEverywhere(start, trial);
    }
}

INSTANTIATE_TEST_SUITE_P(Starts, KilledSetValue,
                         testing::Values(Start{"Configured", {}, nullptr, Way::kBeside, 15},
                                         Start{"Strict", {}, kStrict, Way::kBeside, 15},
                                         Start{"InPlace", {}, nullptr, Way::kInPlace, 15},
                                         Start{"InPlaceAsNobody", {}, nullptr, Way::kInPlaceAsNobody, 15}),
                         &nameOf);

}  // namespace
