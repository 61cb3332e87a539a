// Evidence of configuration directories: which keys they hold, whose they are, and what cannot be used.
#include "diagnosis/directoryevidence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "diagnosis/explanation.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/text/wiretext.h"
#include "tests/support/directories.h"

namespace {

using namespace diagnosis;
using sandbox::makeSigningKey;
using sandbox::publicKeyBlob;
using sandbox::signText;
using sandbox::Widening;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A directory as a set-up leaves it, with keys of the server and of the merchant 1001.
class DirectoryKeys : public ::testing::Test {
protected:
    DirectoryKeys() {
        m_Directory.write("config.xml", "<KVX MSGTYPE=\"SetupResponse\" VTKEYID=\"1-SERVER\" CUSTOMERID=\"1001\"/>");
        m_Directory.write("keys/public/1-SERVER", publicKeyBlob(m_ServerKey.get()));
        m_Directory.write("keys/public/0-1001-own", publicKeyBlob(m_OwnKey.get()));
        m_Directory.write("keys/private/0-1001-own", "never read");
    }

    [[nodiscard]] DirectoryEvidence read() const { return directoryEvidence(m_Directory.path(), {}, {}); }

    /// The keys as "ID owner", with "!" behind the current one.
    [[nodiscard]] std::vector<std::string> keys() const {
        std::vector<std::string> texts;
        for (KnownKey const& key : read().m_Evidence.m_Keys) {
            texts.push_back(key.m_Id + " " + keyOwner({"server", "", ""}, key.m_Account) + (key.m_Current ? "!" : ""));
        }
        return texts;
    }

    kvxtest::TemporaryDirectory m_Directory;
    sandbox::KeyHolder m_ServerKey = makeSigningKey(512);
    sandbox::KeyHolder m_OwnKey = makeSigningKey(512);
};

TEST_F(DirectoryKeys, KnowsTheOwnerOfEach) {
    m_Directory.write("keys/public/1-OLD", publicKeyBlob(makeSigningKey(512).get()));
    m_Directory.write("keys/public/0-1001-old", publicKeyBlob(makeSigningKey(512).get()));
    m_Directory.write("keys/public/.tallowin-1-2.tmp", "half");
    EXPECT_THAT(keys(), ElementsAre("0-1001-old the merchant 1001", "0-1001-own the merchant 1001", "1-OLD server",
                                    "1-SERVER server!"));
    EXPECT_THAT(read().m_Problems, IsEmpty());
}

TEST_F(DirectoryKeys, ExplainsWithThem) {
    std::string const text = "<KVX MSGTYPE=\"PayConfirm\" KEYID=\"1-SERVER\" AMOUNT=\"12.50\"/>";
    Evidence const evidence = read().m_Evidence;
    std::string const signature = signText(m_ServerKey.get(), text, Widening::kSign);
    EXPECT_TRUE(diagnose(evidence, text, signature).m_Right);
    Diagnosis const changed = diagnose(evidence, sandbox::replaceAll(text, "12.50", "1.50"), signature);
    EXPECT_EQ(explain(evidence.m_Wording, changed).m_Sentence, "AMOUNT was changed from 12.50 to 1.50");
    std::string const own = sandbox::replaceAll(text, "1-SERVER", "0-1001-own");
    Diagnosis const wrong = diagnose(evidence, text, signText(m_OwnKey.get(), text, Widening::kZero));
    EXPECT_THAT(explain(evidence.m_Wording, wrong).m_Sentence,
                HasSubstr("made with the key '0-1001-own' of the merchant 1001, not with the key '1-SERVER'"));
}

TEST_F(DirectoryKeys, ReportsWhatCannotBeUsed) {
    m_Directory.write("keys/public/1-SERVER", "nonsense");
    std::filesystem::create_directory(m_Directory.file("keys/public/1-FOLDER"));
    m_Directory.write("config.xml", "<KVX");
    DirectoryEvidence const found = read();
    EXPECT_THAT(keys(), ElementsAre("0-1001-own the merchant of this directory"));
    EXPECT_THAT(found.m_Problems, ElementsAre(HasSubstr("config.xml: the message is not well-formed"),
                                              "keys/public/1-FOLDER: it cannot be read",
                                              HasSubstr("keys/public/1-SERVER: the key blob")));
}

TEST_F(DirectoryKeys, ReadsKeysWithZeroBytesBehindThem) {
    m_Directory.write("keys/public/1-SERVER", publicKeyBlob(m_ServerKey.get()) + std::string(9, '\0'));
    EXPECT_THAT(read().m_Problems, IsEmpty());
    EXPECT_EQ(read().m_Evidence.m_Keys.size(), 2u);
}

TEST(DirectoryEvidence, ReportsAMissingDirectory) {
    DirectoryEvidence const found = directoryEvidence("/nowhere", {}, {});
    EXPECT_THAT(found.m_Evidence.m_Keys, IsEmpty());
    EXPECT_THAT(found.m_Problems,
                ElementsAre("config.xml: it is missing or cannot be read", "keys/public: No such file or directory"));
}

}  // namespace
