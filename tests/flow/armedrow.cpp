// Faults of the table, armed at the sandbox.
//
// A fault of an exchange is armed at once. A fault of a connection has no exchange yet: it is armed inside the
// connect() call of the component, after the connections of the exchanges before it.

#include "tests/flow/armedrow.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "tallowin/codes.h"

namespace kvxtest {

using sandbox::ExchangeKind;
using sandbox::FaultKind;

namespace {

constexpr char kMoment[] = "0.05";

/// Seconds of the strict settings in these tests, and of a fault that outlasts them.
constexpr char kLimit[] = "1";
constexpr char kTooLong[] = "1.5";

template <class IsWanted>
std::vector<FaultTableRow> rowsWith(IsWanted isWanted) {
    std::vector<FaultTableRow> rows;
    std::copy_if(faultTable().begin(), faultTable().end(), std::back_inserter(rows), isWanted);
    return rows;
}

}  // namespace

sandbox::Fault faultOf(FaultTableRow const& row, std::string const& order, FaultSize size) {
    bool const isSmall = size == FaultSize::kSmall;
    sandbox::FaultKindRow const& kind = sandbox::faultRow(row.m_Kind);
    std::string text = kind.m_Name;
    if (!isOfConnection(row)) {
        text += std::string(",exchange=") + sandbox::exchangeName(row.m_Exchange);
        text += order.empty() || row.m_Exchange == ExchangeKind::kProxy ? "" : ",order=" + order;
        bool const forAMoment = (kind.m_Parameters & sandbox::kTakesSeconds) != 0 && row.m_Kind != FaultKind::kRefuse &&
                                row.m_Kind != FaultKind::kBytewise;
        text += forAMoment ? std::string(",seconds=") + (isSmall ? kMoment : kTooLong) : "";
        text += (kind.m_Parameters & sandbox::kTakesMegabytes) != 0
                    ? ",megabytes=" + std::to_string(isSmall ? kMegabytes : kTooManyMegabytes)
                    : "";
    }
    return sandbox::parseFault(text + (*row.m_Details != '\0' ? "," : "") + row.m_Details);
}

ArmedRow* ArmedRow::s_Current = nullptr;

ArmedRow::ArmedRow(sandbox::Service& service, FaultTableRow const& row, std::string const& order, FaultSize size)
    : m_Service(service), m_Fault(faultOf(row, order, size)) {
    if (!isOfConnection(row)) {
        m_Service.services().m_Faults.arm(m_Fault);
        return;
    }
    auto const& all = merchantExchanges();
    m_ConnectionsBefore =
        isOfSetUp(row.m_Exchange) ? std::find(all.begin(), all.end(), row.m_Exchange) - all.begin() : 0;
    s_Current = this;
    m_System->connect = &ArmedRow::connect;
}

ArmedRow::~ArmedRow() {
    // Refused connections are not counted, everything else happens once and is gone.
    EXPECT_EQ(m_Service.services().m_Faults.armed().empty(), m_Fault.m_Kind != FaultKind::kRefuse)
        << "it did not happen";
    m_Service.services().m_Faults.liftAll();
}

int ArmedRow::connect(int socket, sockaddr const* address, socklen_t length) {
    if (s_Current->m_ConnectionsBefore-- == 0) {
        s_Current->m_Service.services().m_Faults.arm(s_Current->m_Fault);
    }
    return ::connect(socket, address, length);
}

void FaultTable::makeStrict(Shop const& shop, std::uint16_t proxyPort) {
    std::string const proxy = " USEPROXY=\"1\" PROXYHOST=\"127.0.0.1\" PROXYPORT=\"" + std::to_string(proxyPort) + "\"";
    std::string const limit = std::string("\"") + kLimit + "\"";
    shop.dir().write("settings.xml", "<KVX PROFILE=\"strict\" CONNECTTIMEOUT=" + limit + " IOTIMEOUT=" + limit +
                                         " TLSCAFILE=\"" + service().authorityFile() + "\"" +
                                         (proxyPort == 0 ? "" : proxy) + "/>");
}

std::int32_t asInRows(std::int32_t code) {
    constexpr std::int32_t kNumber = 0xFFF;
    return (code & ~kNumber) == KVX_E_TLS_FAMILY ? KVX_E_TLS_FAMILY : code;
}

std::string nameOf(FaultTableRow const& row) {
    return std::string(sandbox::faultRow(row.m_Kind).m_Name) + " " + row.m_Details + " at " +
           sandbox::exchangeName(row.m_Exchange) + (row.m_Tunnelled ? " in a tunnel" : "");
}

std::vector<FaultTableRow> rowsOf(ExchangeKind exchange) {
    return rowsWith([exchange](auto const& row) { return row.m_Exchange == exchange && !isOfConnection(row); });
}

std::vector<FaultTableRow> rowsOfConnections(bool ofSetUp) {
    return rowsWith([ofSetUp](auto const& row) { return isOfConnection(row) && isOfSetUp(row.m_Exchange) == ofSetUp; });
}

std::vector<FaultTableRow> rowsOfProxy(bool tunnelled) {
    return rowsWith([tunnelled](auto const& row) {
        return row.m_Exchange == ExchangeKind::kProxy && row.m_Tunnelled == tunnelled;
    });
}

long carriedOut(sandbox::Service const& service, ExchangeKind kind) {
    std::vector<sandbox::Exchange> const all = sandboxtest::exchangesOf(service);
    return std::count_if(all.begin(), all.end(), [kind](sandbox::Exchange const& exchange) {
        return exchange.m_Kind == kind && exchange.m_Verdict == "ok";
    });
}

long timesIn(sandbox::Service const& service, std::string const& token, std::string const& state) {
    long count = 0;
    for (sandbox::Payment const& payment : sandboxtest::paymentsOf(service)) {
        for (sandbox::HistoryEntry const& entry : payment.m_History) {
            count += payment.m_Token == token && sandbox::stateName(entry.m_State) == state ? 1 : 0;
        }
    }
    return count;
}

}  // namespace kvxtest
