// Looking up orders, and evidence that a third party checks with the program openssl.
#include <gtest/gtest.h>

#include <cstdlib>

#include "ledger/byteforms.h"
#include "tests/ledger/ledgersupport.h"

using namespace kvxtest;

namespace {

class LookUp : public LedgerTest {
protected:
    void begin(std::string const& number) const {
        Purchase purchase;
        purchase.m_Number = number;
        static_cast<void>(m_Ledger.url(purchase));
    }
};

TEST_F(LookUp, ListsOrdersPageByPage) {
    for (char const* number : {"C", "A", "B"}) {
        begin(number);
    }
    using Numbers = std::vector<std::string>;
    EXPECT_EQ(m_Ledger.numbers(""), (Numbers{"C", "A", "B"})) << "in the order in which they were begun";
    EXPECT_EQ(m_Ledger.numbers("", "", 2), (Numbers{"C", "A"}));
    EXPECT_EQ(m_Ledger.numbers("", "A", 2), (Numbers{"B"}));
    std::string const page =
        copiedOut([&](auto* size, auto* buffer) { return Ledger_ListOrders(m_Ledger.get(), "", "", 2, size, buffer); });
    EXPECT_EQ(nlohmann::json::parse(page).at("next"), "A");
    std::string const last = copiedOut(
        [&](auto* size, auto* buffer) { return Ledger_ListOrders(m_Ledger.get(), "", "A", 1, size, buffer); });
    EXPECT_EQ(nlohmann::json::parse(last).at("next"), nullptr);
}

TEST_F(LookUp, FiltersByState) {
    begin("A-16");
    begin("A-17");
    EXPECT_EQ(outcome("authorised"), "PAID_NOW");
    using Numbers = std::vector<std::string>;
    EXPECT_EQ(m_Ledger.numbers("waiting"), Numbers{"A-16"});
    EXPECT_EQ(m_Ledger.numbers("authorised"), Numbers{"A-17"});
    EXPECT_EQ(m_Ledger.numbers("paid"), Numbers{"A-17"});
    for (char const* filter : {"captured", "untold", "surplus", "attention"}) {
        EXPECT_EQ(m_Ledger.numbers(filter), Numbers{}) << filter;
    }
}

TEST_F(LookUp, ListsAStateWhetherOrNotTheWorkerHasToLook) {
    for (char const* number : {"E", "D", "C", "B", "A"}) {
        begin(number);
    }
    ASSERT_EQ(m_Store.run("UPDATE attempts SET state = 'authorised', due_at = 5 WHERE order_id IN (1, 4)"), "");
    ASSERT_EQ(m_Store.run("UPDATE attempts SET state = 'authorised', due_at = NULL WHERE order_id IN (2, 5)"), "");
    using Numbers = std::vector<std::string>;
    EXPECT_EQ(m_Ledger.numbers("authorised"), (Numbers{"E", "D", "B", "A"}));
    EXPECT_EQ(m_Ledger.numbers("authorised", "", 3), (Numbers{"E", "D", "B"}));
    EXPECT_EQ(m_Ledger.numbers("authorised", "D", 1), Numbers{"B"});
    EXPECT_EQ(m_Ledger.numbers("waiting"), Numbers{"C"});
}

TEST_F(LookUp, ListsEveryOrderForAttentionWhenNoStatusRequestIsToClearUp) {
    begin("B");
    begin("A");
    EXPECT_EQ(m_Ledger.numbers("attention"), std::vector<std::string>{});
    m_Ledger.option("MAXASKS", "0");
    EXPECT_EQ(m_Ledger.numbers("attention"), (std::vector<std::string>{"B", "A"}));
}

TEST_F(LookUp, RefusesWhatItCannotFind) {
    begin("A-17");
    struct Case {
        char const* m_Filter;
        char const* m_After;
        std::int32_t m_Limit;
        std::int32_t m_Code;
    };
    Case const cases[] = {
        {"bought", "", 1, KVX_E_LEDGER_INVALID},
        {"", "", 0, KVX_E_LEDGER_INVALID},
        {"", "", 1001, KVX_E_LEDGER_INVALID},
        {"", "none", 1, KVX_E_NOT_FOUND},
    };
    for (Case const& row : cases) {
        std::int32_t size = -7;
        EXPECT_EQ(Ledger_ListOrders(m_Ledger.get(), row.m_Filter, row.m_After, row.m_Limit, &size, nullptr),
                  row.m_Code);
        EXPECT_EQ(size, -7);
    }
    std::int32_t size = -7;
    EXPECT_EQ(Ledger_GetState(m_Ledger.get(), "none", &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(Ledger_GetOrder(m_Ledger.get(), "none", &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(Ledger_ExportOrder(m_Ledger.get(), "none", &size, nullptr), KVX_E_NOT_FOUND);
    EXPECT_EQ(size, -7);
}

TEST_F(LookUp, ShowsTheMembersThatItPromises) {
    begin("A-17");
    nlohmann::json const order = m_Ledger.order();
    for (char const* name :
         {"number", "amount", "currency", "state", "paid", "created", "told", "newestAttempt", "paidAttempt",
          "lastCode", "lastCodeName", "lastReason", "due", "attributes", "attempts"}) {
        EXPECT_TRUE(order.contains(name)) << name;
    }
    nlohmann::json const attempt = m_Ledger.attempt();
    for (char const* name :
         {"attempt", "token", "state", "attention", "url", "created", "expires", "result", "paid", "paymentId", "tries",
          "refusals", "lastCode", "lastCodeName", "lastReason", "due", "leaseOwner"}) {
        EXPECT_TRUE(attempt.contains(name)) << name;
    }
}

// The service's signature extends the sign of bytes above 0x7F, which the signer of the tests does not: see the flow
// test.
class Evidence : public LedgerFlowTest {
protected:
    /// The exit status of a shell command in the directory of the test.
    [[nodiscard]] int shell(std::string const& command) const {
        return std::system(("cd '" + m_Dir.path() + "' && (" + command + ") >log 2>&1").c_str());
    }

    void writeBase64(std::string const& name, nlohmann::json const& value) const {
        m_Dir.write(name + ".b64", value.get<std::string>() + "\n");
        EXPECT_EQ(shell("openssl base64 -d -A -in " + name + ".b64 -out " + name), 0);
    }

    [[nodiscard]] int verify() const {
        return shell(
            "openssl dgst -sha1 -binary -out digest signed && openssl pkeyutl -verify -pubin -inkey key.pem "
            "-in digest -sigfile signature -pkeyopt rsa_padding_mode:pkcs1");
    }
};

TEST_F(Evidence, IsCheckedWithOpensslAlone) {
    pay();
    EXPECT_EQ(m_Ledger.run(), 1);
    nlohmann::json const evidence = m_Ledger.evidence();
    EXPECT_EQ(evidence.at("evidenceVersion"), 1);
    int verified = 0;
    for (nlohmann::json const& transition : evidence.at("transitions")) {
        if (!transition.contains("signature")) {
            continue;
        }
        nlohmann::json const& key = evidence.at("keys").at(0);
        EXPECT_EQ(transition.at("keyFingerprint"), key.at("fingerprint"));
        m_Dir.write("key.pem", key.at("pem"));
        writeBase64("signature", transition.at("signatureBase64"));
        writeBase64("signed", transition.at("signedBase64"));
        EXPECT_EQ(verify(), 0) << m_Dir.read("log");
        ++verified;
        // One changed byte, and it is no evidence.
        std::string bytes = m_Dir.read("signed");
        bytes[10] = static_cast<char>(bytes[10] ^ 1);
        m_Dir.write("signed", bytes);
        EXPECT_NE(verify(), 0);
    }
    EXPECT_EQ(verified, 1);
}

TEST_F(Evidence, HasTheFingerprintOfTheKeyFile) {
    pay();
    nlohmann::json const evidence = m_Ledger.evidence();
    std::string const keyId = service().services().m_Keys.current()->m_Id;
    EXPECT_EQ(evidence.at("keys").at(0).at("keyId"), keyId);
    m_Dir.write("key.hex", shop().dir().read("keys/public/" + keyId));
    EXPECT_EQ(shell("python3 -c \"import sys; sys.stdout.buffer.write(bytes.fromhex(open('key.hex').read().strip()))\" "
                    "| openssl dgst -sha256 -r | cut -d' ' -f1 > fingerprint"),
              0);
    EXPECT_EQ(m_Dir.read("fingerprint"), evidence.at("keys").at(0).at("fingerprint").get<std::string>() + "\n");
}

TEST_F(Evidence, HoldsBytesThatAreNoText) {
    Purchase purchase;
    purchase.m_Number = "A-17";
    purchase.m_Attributes["DESCRIPTION"] = "caf\xe9";
    EXPECT_EQ(decide(m_Ledger.url(purchase), "pay"), "PAID_NOW");
    nlohmann::json const evidence = m_Ledger.evidence();
    nlohmann::json const& begun = evidence.at("transitions").at(0);
    EXPECT_NE(begun.at("message").get<std::string>().find("caf\u00e9"), std::string::npos);
    writeBase64("message", begun.at("messageBase64"));
    EXPECT_NE(m_Dir.read("message").find("caf\xe9"), std::string::npos);
}

TEST(ByteForms, AreThoseOfOtherPrograms) {
    using namespace ledger;
    struct Case {
        char const* m_Bytes;
        char const* m_Base64;
    };
    for (Case const& row :
         {Case{"", ""}, Case{"f", "Zg=="}, Case{"fo", "Zm8="}, Case{"foo", "Zm9v"}, Case{"foob", "Zm9vYg=="}}) {
        EXPECT_EQ(base64Of(row.m_Bytes), row.m_Base64);
    }
    EXPECT_EQ(hexOf("\x01\xfe"), "01fe");
    EXPECT_EQ(bytesOf("01FEf"), "\x01\xfe");
    EXPECT_EQ(bytesOf("0x"), "");
    EXPECT_EQ(hexOf(sha1Of("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hexOf(widened("a\xe9")), "6100e9ff");
    EXPECT_EQ(printable("a\n\xe9z"), "a??z");
    EXPECT_EQ(printable(std::string(101, 'x')), std::string(100, 'x') + "...");
}

}  // namespace
