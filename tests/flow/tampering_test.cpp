// Confirmations that were changed on the way to the shop.
//
// Every byte of the text and every digit of the signature is changed, left out and cut. Odd: the signature's text has
// several accepted spellings, so it identifies nothing.

#include "tallowin/codes.h"
#include "tests/flow/flowsupport.h"

using namespace kvxtest;

namespace {

/// One genuine confirmation for each test.
class Tampering : public FlowTest {
protected:
    Tampering() {
        openShop();
        m_Genuine = pays(shop().payment({"caf\xc3\xa9", "12.50", "EUR"}));
    }

    void SetUp() override { ASSERT_EQ(shop().verify(m_Genuine), KVX_OK); }

    Returned m_Genuine;
};

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// Whether `code` is one that refuses a changed confirmation.
bool isRefusal(std::int32_t code) {
    return code == KVX_E_INVALID_SIGNATURE || code == KVX_E_INVALID_FORMAT || code == KVX_E_NOT_FOUND ||
           code == KVX_E_NO_KEY_ID;
}

TEST_F(Tampering, WithAnyByteOfTheTextIsRefused) {
    for (std::size_t at = 0; at < m_Genuine.m_Data.size(); ++at) {
        for (char const mask : {'\x01', '\x20', '\x7f'}) {
            Returned changed = m_Genuine;
            changed.m_Data[at] = static_cast<char>(changed.m_Data[at] ^ mask);
            EXPECT_PRED1(isRefusal, shop().verify(changed)) << "byte " << at << ": " << changed.m_Data;
        }
    }
}

TEST_F(Tampering, ByLeavingAnyByteOutOrPuttingOneInIsRefused) {
    for (std::size_t at = 0; at < m_Genuine.m_Data.size(); ++at) {
        Returned shorter = m_Genuine;
        shorter.m_Data.erase(at, 1);
        EXPECT_PRED1(isRefusal, shop().verify(shorter)) << "without byte " << at;
        Returned longer = m_Genuine;
        longer.m_Data.insert(at, 1, ' ');
        EXPECT_PRED1(isRefusal, shop().verify(longer)) << "with a space at " << at;
    }
}

TEST_F(Tampering, ByCuttingTheTextAnywhereIsRefused) {
    for (std::size_t length = 0; length < m_Genuine.m_Data.size(); ++length) {
        Returned cut = m_Genuine;
        cut.m_Data.resize(length);
        EXPECT_PRED1(isRefusal, shop().verify(cut)) << length;
    }
    Returned longer = m_Genuine;
    longer.m_Data += "\n";
    EXPECT_EQ(shop().verify(longer), KVX_E_INVALID_SIGNATURE);
}

TEST_F(Tampering, WithAnyDigitOfTheSignatureIsRefused) {
    for (std::size_t at = 0; at < m_Genuine.m_Signature.size(); ++at) {
        for (char const digit : {'0', '1', '8', 'f'}) {
            if (m_Genuine.m_Signature[at] != digit) {
                Returned changed = m_Genuine;
                changed.m_Signature[at] = digit;
                EXPECT_EQ(shop().verify(changed), KVX_E_INVALID_SIGNATURE) << "digit " << at;
            }
        }
        Returned changed = m_Genuine;
        changed.m_Signature[at] = 'g';
        EXPECT_EQ(shop().verify(changed), KVX_E_INVALID_KEY) << "no digit at " << at;
    }
}

TEST_F(Tampering, ByCuttingTheSignatureAnywhereIsRefused) {
    for (std::size_t length = 0; length < m_Genuine.m_Signature.size(); ++length) {
        Returned cut = m_Genuine;
        cut.m_Signature.resize(length);
        EXPECT_EQ(shop().verify(cut), length == 0 ? KVX_E_MISSING_SIGNATURE : KVX_E_INVALID_SIGNATURE) << length;
    }
    Returned longer = m_Genuine;
    longer.m_Signature += "00";
    EXPECT_EQ(shop().verify(longer), KVX_E_INVALID_SIGNATURE);
}

TEST_F(Tampering, KeepsOtherSpellingsOfTheSignatureAcceptable) {
    // So a signature's text identifies nothing.
    Returned upper = m_Genuine;
    for (char& digit : upper.m_Signature) {
        ASSERT_TRUE(isHexDigit(digit));
        digit = digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit;
    }
    ASSERT_NE(upper.m_Signature, m_Genuine.m_Signature);
    EXPECT_EQ(shop().verify(upper), KVX_OK);
    Returned odd = m_Genuine;
    odd.m_Signature += "7";
    EXPECT_EQ(shop().verify(odd), KVX_OK);
}

TEST_F(Tampering, WithTheSignatureOfAnotherConfirmationIsRefused) {
    Returned const other = pays(shop().payment());
    EXPECT_EQ(shop().verify({"", m_Genuine.m_Data, other.m_Signature}), KVX_E_INVALID_SIGNATURE);
    EXPECT_EQ(shop().verify({"", other.m_Data, m_Genuine.m_Signature}), KVX_E_INVALID_SIGNATURE);
}

TEST_F(Tampering, ByNamingTheMerchantsOwnKeyIsRefused) {
    std::string const own = shop().dir().read("keys/current");
    std::string const server = service().services().m_Keys.current()->m_Id;
    Returned changed = m_Genuine;
    std::size_t const at = changed.m_Data.find(server);
    ASSERT_NE(at, std::string::npos);
    changed.m_Data.replace(at, server.size(), own);
    EXPECT_EQ(shop().verify(changed), KVX_E_INVALID_SIGNATURE);
}

TEST_F(Tampering, ByNamingAKeyOutsideTheDirectoryFindsNone) {
    std::string const server = service().services().m_Keys.current()->m_Id;
    for (std::string const& keyId : {"../public/" + server, "./" + server, std::string(".."), std::string("."),
                                     std::string("/dev/zero"), std::string("")}) {
        Returned changed = m_Genuine;
        changed.m_Data.replace(changed.m_Data.find(server), server.size(), keyId);
        EXPECT_EQ(shop().verify(changed), KVX_E_NOT_FOUND) << keyId;
    }
}

}  // namespace
