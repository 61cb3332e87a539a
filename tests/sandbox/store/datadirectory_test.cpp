// The data directory and the database in it: modes, the lock of one service, replaced files, unusable and foreign
// databases, two callers that advance one payment.
#include "sandbox/store/datadirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "sandbox/store/store.h"
#include "tests/sandbox/support/sandboxfixture.h"

namespace {

using namespace sandbox;
using sandboxtest::TemporaryDirectory;
using ::testing::HasSubstr;

std::string reasonFor(std::string const& path) {
    try {
        DataDirectory const directory(path);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "";
}

mode_t umaskOfProcess() {
    mode_t const mask = ::umask(0);
    ::umask(mask);
    return mask;
}

TEST(DataDirectory, IsListedByItsOwnerOnly) {
    TemporaryDirectory const temporary;
    DataDirectory const directory(temporary.path() + "/data");
    struct stat status {};
    ASSERT_EQ(::stat((temporary.path() + "/data").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0711u & ~umaskOfProcess()) << "others open published files by their names";
}

TEST(DataDirectory, IsHeldByOneAtATime) {
    TemporaryDirectory const temporary;
    {
        DataDirectory const first(temporary.path());
        EXPECT_THAT(reasonFor(temporary.path()), HasSubstr("another sandbox is running"));
    }
    EXPECT_EQ(reasonFor(temporary.path()), "");
}

TEST(DataDirectory, ReportsWhyItCannotBeUsed) {
    TemporaryDirectory const temporary;
    EXPECT_THAT(reasonFor(""), HasSubstr("no data directory"));
    EXPECT_THAT(reasonFor(temporary.path() + "/missing/data"), HasSubstr("No such file or directory"));
    std::ofstream(temporary.path() + "/file") << "x";
    EXPECT_THAT(reasonFor(temporary.path() + "/file"), HasSubstr("Not a directory"));
}

TEST(DataDirectory, ReplacesFilesForTheirOwnerOnly) {
    TemporaryDirectory const temporary;
    DataDirectory const directory(temporary.path());
    EXPECT_EQ(directory.read("name"), "");
    directory.write("name", "first, and longer");
    directory.write("name", "second");
    EXPECT_EQ(directory.read("name"), "second");
    struct stat status {};
    ASSERT_EQ(::stat(directory.file("name").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    directory.publish("name");
    ASSERT_EQ(::stat(directory.file("name").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_THROW(directory.publish("other"), std::runtime_error);
}

TEST(Store, RefusesAFileThatIsNoDatabase) {
    TemporaryDirectory const temporary;
    std::string const path = temporary.path() + "/sandbox.db";
    std::ofstream(path) << std::string(4096, 'x');
    EXPECT_THROW(Store{path}, std::runtime_error);
}

TEST(Store, RefusesAnotherLayout) {
    for (std::string const layout : {"4", "6", "99"}) {
        TemporaryDirectory const temporary;
        std::string const path = temporary.path() + "/sandbox.db";
        Database(path).execute(("PRAGMA user_version = " + layout).c_str());
        try {
            Store const store(path);
            ADD_FAILURE() << layout << " accepted";
        } catch (std::runtime_error const& error) {
            EXPECT_THAT(error.what(), HasSubstr("has layout " + layout + ", this sandbox knows layout 5"));
        }
    }
}

TEST(Store, LetsOneOfTwoCallersAdvanceAPayment) {
    TemporaryDirectory const temporary;
    Store store(temporary.path() + "/sandbox.db");
    store.putAccount("u", "p");
    StoredPayment stored;
    stored.m_Payment.m_Id = "P1";
    stored.m_Payment.m_Account = "u";
    stored.m_Payment.m_Token = "t";
    store.openPayment(stored, "now");
    HistoryEntry const step{"later", PaymentState::kAuthorised, "note"};
    EXPECT_TRUE(store.advance("P1", {PaymentState::kOpened}, step));
    EXPECT_FALSE(store.advance("P1", {PaymentState::kOpened}, step));
    EXPECT_FALSE(store.advance("P2", {PaymentState::kOpened}, step));
    EXPECT_EQ(store.paymentById("P1")->m_Payment.m_History.size(), 2u);
}

TEST(Store, KeepsTokensOfAccountsApart) {
    TemporaryDirectory const temporary;
    Store store(temporary.path() + "/sandbox.db");
    StoredPayment stored;
    stored.m_Payment.m_Token = "t";
    for (char const* user : {"one", "two"}) {
        store.putAccount(user, "p");
        stored.m_Payment.m_Id = std::string("P-") + user;
        stored.m_Payment.m_Account = user;
        EXPECT_EQ(store.openPayment(stored, "now").m_Payment.m_Id, stored.m_Payment.m_Id);
    }
    stored.m_Payment.m_Id = "P-three";
    EXPECT_EQ(store.openPayment(stored, "now").m_Payment.m_Id, "P-two");
    EXPECT_EQ(store.customerOf("one"), "1001");
    EXPECT_EQ(store.customerOf("two"), "1002");
}

TEST(PaymentStates, HaveNamesThatLeadBack) {
    for (PaymentState const state : {PaymentState::kOpened, PaymentState::kAuthorised, PaymentState::kDeclined,
                                     PaymentState::kCancelled, PaymentState::kCaptured, PaymentState::kCompleted}) {
        EXPECT_EQ(stateFromName(stateName(state)), state);
    }
    EXPECT_THROW(stateFromName("paid"), std::runtime_error);
}

}  // namespace
