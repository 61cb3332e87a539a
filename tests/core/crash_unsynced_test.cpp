// The machine stops during a set-up, and the disk has only what was synchronised.
//
// A recorded disk gives every tree that may be there after each step. Each one is written out and examined as an
// account: old and new files whole, never an empty one, and payments where they were possible before. After the call
// has returned, every tree must be the new account. Without synchronisation the same examination must find losses.

#include <filesystem>
#include <set>
#include <string>

#include "tests/core/crashsupport.h"
#include "tests/core/recordeddisk.h"
#include "tests/support/exceptions.h"

using namespace kvxtest;

namespace {

void writeOut(RecordedDisk::Tree const& tree, TemporaryDirectory const& directory) {
    for (auto const& [name, content] : tree) {
        if (content.has_value()) {
            directory.write(name, *content);
        } else {
            std::filesystem::create_directories(directory.file(name));
        }
    }
}

std::string listing(RecordedDisk::Tree const& tree) {
    std::string text;
    for (auto const& [name, content] : tree) {
        text += name + (content.has_value() ? ", " + std::to_string(content->size()) + " bytes" : "/") + "\n";
    }
    return text;
}

/// What was found in all trees of a record.
struct Losses {
    std::size_t m_Trees = 0;  ///< Different ones that were examined.
    std::size_t m_Flawed = 0;
    std::string m_First;  ///< The first flawed one.
};

/// Examines the account in `folder` of each tree: during the run by `during`, after it by `after`. Ends at `most`
/// flawed ones.
Losses lossesIn(RecordedDisk const& disk, Allowed const& during, Allowed const& after, std::string const& folder = "",
                std::size_t most = 5) {
    Losses losses;
    std::set<RecordedDisk::Tree> seen;
    for (std::size_t steps = 0; steps <= disk.steps() && losses.m_Flawed < most; ++steps) {
        bool const isOver = steps == disk.steps();
        if (isOver) {
            seen.clear();
        }
        disk.forEachTree(steps, [&](RecordedDisk::Tree const& tree) {
            if (!seen.insert(tree).second) {
                return true;
            }
            TemporaryDirectory copy;
            writeOut(tree, copy);
            std::string const flaws = flawsOf(copy.file(folder), isOver ? after : during);
            ++losses.m_Trees;
            if (!flaws.empty() && losses.m_Flawed++ == 0) {
                losses.m_First = "after step " + std::to_string(steps) + " of " + std::to_string(disk.steps()) +
                                 (steps > 0 ? ", " + disk.describe(steps - 1) : "") + ":\n" + flaws + listing(tree);
            }
            return losses.m_Flawed < most;
        });
    }
    return losses;
}

/// What there is before a set-up.
struct Start {
    char const* m_Name;
    AccountFiles m_Files;
    char const* m_Settings;
};

Start const kStarts[] = {
    {"fresh directory", {}, "<KVX/>"},
    {"configured", earlierFiles(), "<KVX/>"},
    {"strict, fresh directory", {}, R"(<KVX PROFILE="strict"/>)"},
    {"strict, configured", earlierFiles(), R"(<KVX PROFILE="strict"/>)"},
    {"defaults invalid", {earlierFiles().m_Configuration, "<KVX/>", earlierFiles().m_ServerKey, "own"}, "<KVX/>"},
};

void prepare(Account& account, Start const& start, SetupServer const& server) {
    if (!start.m_Files.m_KeyId.empty()) {
        writeFiles(account, start.m_Files);
    }
    account.write("settings.xml", start.m_Settings);
    account.m_Context.SetOption("VTAUTOURL", server.url().c_str());
}

TEST(PowerLoss, LeavesAnAccountThatWorksWheneverASetupIsInterrupted) {
    for (Start const& start : kStarts) {
        SetupServer const server;
        Account account;
        prepare(account, start, server);
        RecordedDisk const disk(account.path());
        account.m_Context.Reconfigure();
        Allowed after = Allowed::after(start.m_Files);
        Losses const losses = lossesIn(disk, Allowed::during(start.m_Files), after);
        EXPECT_EQ(losses.m_Flawed, 0U) << start.m_Name << ", " << losses.m_First;
        EXPECT_GT(losses.m_Trees, 15U) << start.m_Name;
        RecordProperty(start.m_Name,
                       std::to_string(disk.steps()) + " steps, " + std::to_string(losses.m_Trees) + " trees");
    }
}

TEST(PowerLoss, LosesNoDirectoryThatTheContextHasMade) {
    SetupServer const server;
    TemporaryDirectory parent;
    RecordedDisk const disk(parent.path());
    KVX_Context context;
    context.Open(parent.file("shop").c_str());
    context.SetOption("VTAUTOURL", server.url().c_str());
    context.Reconfigure();
    Losses const losses = lossesIn(disk, Allowed::during({}), Allowed::after({}), "shop");
    EXPECT_EQ(losses.m_Flawed, 0U) << losses.m_First;
    EXPECT_GT(losses.m_Trees, 15U);
}

TEST(PowerLoss, LeavesTheOldOrTheNewDocumentWhenAValueIsSet) {
    AccountFiles const files = earlierFiles();
    for (std::string const& value : {std::string("n"), std::string(9000, 'n')}) {
        Account account;
        writeFiles(account, files);
        RecordedDisk const disk(account.path());
        account.m_Context.SetValue("default.xml", "LANGID", value.c_str(), false);
        Allowed after{{files.m_Configuration},
                      {R"(<KVX KVX.ISVALID="yes" LANGID=")" + value + "\"/>"},
                      {files.m_ServerKey},
                      {files.m_KeyId},
                      false,
                      false,
                      true};
        Allowed during = after;
        during.m_Defaults.insert(files.m_Defaults);
        Losses const losses = lossesIn(disk, during, after);
        EXPECT_EQ(losses.m_Flawed, 0U) << losses.m_First;
        EXPECT_GT(losses.m_Trees, 4U);
    }
}

/// The examination sees losses where there are some.
TEST(PowerLoss, LosesFilesWithoutSynchronisation) {
    for (AccountFiles const& files : {AccountFiles(), earlierFiles()}) {
        SetupServer const server;
        Account account;
        prepare(account, {"", files, R"(<KVX SYNCFILES="0"/>)"}, server);
        RecordedDisk const disk(account.path());
        account.m_Context.Reconfigure();
        Losses const losses = lossesIn(disk, Allowed::during(files), Allowed::after(files), "", 20);
        EXPECT_EQ(losses.m_Flawed, 20U) << "of " << losses.m_Trees << " trees";
        EXPECT_NE(losses.m_First.find("holds \"\""), std::string::npos) << "an empty file: " << losses.m_First;
    }
}

/// The tree of a record without a stop is the directory itself.
TEST(RecordedDisk, FollowsTheRealOne) {
    SetupServer const server;
    Account account;
    prepare(account, kStarts[1], server);
    RecordedDisk const disk(account.path());
    account.m_Context.Reconfigure();
    RecordedDisk::Tree found;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(account.path())) {
        std::string const name = std::filesystem::relative(entry.path(), account.path());
        found[name] = entry.is_directory() ? std::nullopt : std::optional(contentOf(entry.path()));
    }
    EXPECT_EQ(disk.liveTree(disk.steps()), found);
}

/// The ways to lose an unsynchronised file, one by one.
TEST(RecordedDisk, GivesTheTreesOfEachStop) {
    TemporaryDirectory dir;
    dir.write("file", "old");
    RecordedDisk disk(dir.path());
    TbSystemCalls& calls = tbSystem();
    auto const treesNow = [&] {
        std::set<RecordedDisk::Tree> trees;
        disk.forEachTree(disk.steps(), [&](RecordedDisk::Tree const& tree) {
            trees.insert(tree);
            return true;
        });
        return trees;
    };
    using Trees = std::set<RecordedDisk::Tree>;
    RecordedDisk::Tree const old{{"file", "old"}};
    int const file = calls.open(dir.file("new").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    EXPECT_EQ(treesNow(), (Trees{old, {{"file", "old"}, {"new", ""}}}));
    EXPECT_EQ(calls.write(file, "new", 3), 3);
    EXPECT_EQ(treesNow(), (Trees{old,
                                 {{"file", "old"}, {"new", ""}},
                                 {{"file", "old"}, {"new", std::string(3, '\0')}},
                                 {{"file", "old"}, {"new", "new"}}}));
    calls.fsync(file);
    EXPECT_EQ(treesNow(), (Trees{old, {{"file", "old"}, {"new", "new"}}}));
    calls.rename(dir.file("new").c_str(), dir.file("file").c_str());
    EXPECT_EQ(treesNow(), (Trees{old, {{"file", "old"}, {"new", "new"}}, {{"file", "new"}}}));
    int const directory = calls.open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    calls.fsync(directory);
    EXPECT_EQ(treesNow(), (Trees{{{"file", "new"}}}));
    calls.ftruncate(file, 1);
    EXPECT_EQ(treesNow(), (Trees{{{"file", "new"}}, {{"file", "n"}}}));
    calls.unlink(dir.file("file").c_str());
    EXPECT_EQ(treesNow(), (Trees{{{"file", "new"}}, {{"file", "n"}}, {}}));
    calls.close(directory);
    calls.close(file);
}

}  // namespace
