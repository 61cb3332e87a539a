// The payment page and the shopper's decision with a fault, one payment for each row of the table.
//
// A browser over a bare socket records every byte of the faulty response. The same request without the fault gives the
// whole response, which the recorded bytes are compared with.

#include <sys/socket.h>

#include <cerrno>
#include <optional>

#include "sandbox/service/confirmation.h"
#include "tallowin/codes.h"
#include "tests/flow/armedrow.h"
#include "tests/sandbox/support/rawclient.h"

using namespace kvxtest;
using sandbox::ExchangeKind;
using sandbox::FaultKind;

namespace {

struct Received {
    std::string m_Bytes;
    bool m_Reset = false;
};

/// Sends the request of a browser and returns the bytes of the response.
Received receive(sandbox::Service const& service, std::string const& request) {
    sandboxtest::RawConnection const connection(service.addresses().m_Plain.m_Port);
    connection.send(request);
    Received received;
    char piece[16384];
    ssize_t count = 0;
    while ((count = ::recv(connection.get(), piece, sizeof piece, 0)) > 0) {
        received.m_Bytes.append(piece, static_cast<std::size_t>(count));
    }
    received.m_Reset = count < 0 && errno == ECONNRESET;
    EXPECT_TRUE(count == 0 || received.m_Reset) << "the response does not end";
    return received;
}

/// `text` with the first `from` in it replaced.
std::string replaced(std::string text, std::string const& from, std::string const& to) {
    std::size_t const at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

/// The confirmation in the redirect of a response; nothing when it is no complete redirect.
std::optional<Returned> confirmationIn(std::string const& bytes) {
    if (bytes.find("\r\n\r\n") == std::string::npos) {
        return std::nullopt;
    }
    sandboxtest::RawResponse const response = sandboxtest::parseResponse(bytes);
    return response.m_Status == 302 ? std::optional<Returned>(takeApart(response.m_Headers.at("location")))
                                    : std::nullopt;
}

bool isHuge(std::string const& bytes, std::string const& whole) {
    std::string const body = sandboxtest::parseResponse(whole).m_Body;
    std::string const size = std::to_string(kMegabytes << 20);
    std::string const head = whole.substr(0, whole.size() - body.size());
    std::string const length = "Content-Length: ";
    return bytes == replaced(head, length + std::to_string(body.size()), length + size) + body +
                        std::string((kMegabytes << 20) - body.size(), ' ');
}

bool isStatus(std::string const& bytes) {
    constexpr int kUnavailable = 503;
    return sandboxtest::parseResponse(bytes).m_Status == kUnavailable;
}

bool isWrongReturn(std::string const& bytes, std::string const& whole) {
    std::optional<Returned> const wrong = confirmationIn(bytes);
    std::optional<Returned> const right = confirmationIn(whole);
    return wrong && right && wrong->m_Link == right->m_Link &&
           (wrong->m_Data != right->m_Data || wrong->m_Signature != right->m_Signature);
}

/// Whether `received` in the place of `whole` is that outcome for a browser.
bool isExpected(BrowserResult outcome, Received const& received, std::string const& whole) {
    std::string const& bytes = received.m_Bytes;
    switch (outcome) {
        case BrowserResult::kNoShopper:
            return false;
        case BrowserResult::kWhole:
            return bytes == whole;
        case BrowserResult::kWrongReturn:
            return isWrongReturn(bytes, whole);
        case BrowserResult::kNothing:
            return bytes.empty() && !received.m_Reset;
        case BrowserResult::kReset:
            return bytes.empty() && received.m_Reset;
        case BrowserResult::kCut:
            return !bytes.empty() && bytes.size() < whole.size() && whole.compare(0, bytes.size(), bytes) == 0;
        case BrowserResult::kStatus:
            return isStatus(bytes);
        case BrowserResult::kNoBlankLine:
            return bytes == replaced(whole, "\r\n\r\n", "\r\n");
        case BrowserResult::kZeroByte:
            return bytes.size() == whole.size() + 1 && replaced(bytes, std::string(1, '\0'), "") == whole;
        case BrowserResult::kTwice:
            return bytes == whole + whole;
        case BrowserResult::kHuge:
            return isHuge(bytes, whole);
    }
    return false;
}

/// A state as the rows spell it: "none" for an unknown payment.
std::string stateOrNone(std::string const& state) {
    return state.empty() ? "none" : state;
}

/// The result of verifying the confirmation of a response. Expects an accepted one to be of the right type.
std::optional<std::int32_t> verifyReturn(Shop const& shop, Received const& received, FaultKind kind) {
    std::optional<Returned> const returned = confirmationIn(received.m_Bytes);
    if (!returned) {
        return kNotCalled;
    }
    std::int32_t const result = shop.verify(*returned);
    if (result == KVX_OK) {
        EXPECT_EQ(shop.verified(*returned).get("MSGTYPE"),
                  kind == FaultKind::kWrongType ? sandbox::kUnexpectedType : "PayConfirm");
    }
    return result;
}

}  // namespace

void FaultTable::expectPages() {
    for (FaultTableRow const& row : rowsOf(ExchangeKind::kPage)) {
        SCOPED_TRACE(nameOf(row));
        FlowMessage const payment = shop().payment();
        std::string const url = payment.url();
        Received received;
        {
            ArmedRow const armed(service(), row, payment.get("ORDERID"));
            received = receive(service(), getRequest(url));
        }
        EXPECT_EQ(stateOrNone(stateOf(payment)), row.m_Left);

        std::string const again = receive(service(), getRequest(url)).m_Bytes;
        EXPECT_TRUE(isExpected(row.m_BrowserResult, received, again)) << received.m_Bytes.substr(0, again.size() * 2);
        EXPECT_EQ(shop().verify(pays(payment)), KVX_OK);
        EXPECT_EQ(stateOf(payment), "authorised");
    }
}

void FaultTable::expectDecisions() {
    // A paid payment to replay, and one that stays open to swap with.
    ASSERT_EQ(shop().verify(pays(shop().payment())), KVX_OK);
    EXPECT_EQ(sandbox().statusOf(shop().payment().url()), 200);
    for (FaultTableRow const& plain : rowsOf(ExchangeKind::kDecision)) {
        FaultTableRow const row = expected(plain);
        SCOPED_TRACE(nameOf(row));
        FlowMessage const payment = shop().payment();
        std::string const token = payment.get("TOKEN");
        std::string const request = sandbox().decisionRequest(payment.url(), "pay");
        Received received;
        {
            ArmedRow const armed(service(), row, payment.get("ORDERID"));
            received = receive(service(), request);
        }
        EXPECT_EQ(stateOf(payment), row.m_Left);
        EXPECT_EQ(verifyReturn(shop(), received, row.m_Kind), row.m_Result);

        Received const again = receive(service(), request);
        EXPECT_TRUE(isExpected(row.m_BrowserResult, received, again.m_Bytes))
            << received.m_Bytes.substr(0, again.m_Bytes.size() * 2);
        EXPECT_EQ(verifyReturn(shop(), again, FaultKind::kBytewise), KVX_OK);
        EXPECT_EQ(timesIn(service(), token, row.m_Left), 1);
    }
}

TEST_F(FaultTable, HoldsForThePage) {
    openShop();
    expectPages();
}

TEST_F(FaultTable, HoldsForTheDecision) {
    openShop();
    expectDecisions();
}

TEST_F(FaultTable, HoldsForTheDecisionUnderStrictSettings) {
    openShop();
    makeStrict(shop());
    beStrict();
    expectDecisions();
}
