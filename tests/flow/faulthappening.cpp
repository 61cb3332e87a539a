#include "tests/flow/faulthappening.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "tallowin/codes.h"

namespace kvxtest {

using sandbox::ExchangeKind;
using sandbox::FaultKind;

namespace {

constexpr char kMoment[] = "0.05";

template <class IsWanted>
std::vector<FaultTableRow> rowsWith(IsWanted isWanted) {
    std::vector<FaultTableRow> rows;
    std::copy_if(faultTable().begin(), faultTable().end(), std::back_inserter(rows), isWanted);
    return rows;
}

}  // namespace

sandbox::Fault faultOf(FaultTableRow const& row, std::string const& order) {
    sandbox::FaultKindRow const& kind = sandbox::faultRow(row.kind);
    std::string text = kind.name;
    if (!isOfConnection(row)) {
        text += std::string(",exchange=") + sandbox::exchangeName(row.exchange);
        text += order.empty() || row.exchange == ExchangeKind::Proxy ? "" : ",order=" + order;
        bool const forAMoment = (kind.parameters & sandbox::kTakesSeconds) != 0 && row.kind != FaultKind::Refuse &&
                                row.kind != FaultKind::Bytewise;
        text += forAMoment ? std::string(",seconds=") + kMoment : "";
        text += (kind.parameters & sandbox::kTakesMegabytes) != 0 ? ",megabytes=" + std::to_string(kMegabytes) : "";
    }
    return sandbox::parseFault(text + (*row.details != '\0' ? "," : "") + row.details);
}

HappeningRow* HappeningRow::s_Current = nullptr;

HappeningRow::HappeningRow(sandbox::Service& service, FaultTableRow const& row, std::string const& order)
    : m_Service(service), m_Fault(faultOf(row, order)) {
    if (!isOfConnection(row)) {
        m_Service.arm(m_Fault);
        return;
    }
    auto const& all = merchantExchanges();
    m_ConnectionsBefore = isOfSetUp(row.exchange) ? std::find(all.begin(), all.end(), row.exchange) - all.begin() : 0;
    s_Current = this;
    m_System->connect = &HappeningRow::connect;
}

HappeningRow::~HappeningRow() {
    // Refused connections are not counted, everything else happens once and is gone.
    EXPECT_EQ(m_Service.faults().empty(), m_Fault.kind != FaultKind::Refuse) << "it did not happen";
    m_Service.liftFaults();
}

int HappeningRow::connect(int socket, sockaddr const* address, socklen_t length) {
    if (s_Current->m_ConnectionsBefore-- == 0) {
        s_Current->m_Service.arm(s_Current->m_Fault);
    }
    return ::connect(socket, address, length);
}

std::int32_t asInRows(std::int32_t code) {
    constexpr std::int32_t kNumber = 0xFFF;
    return (code & ~kNumber) == KVX_E_TLS_FAMILY ? KVX_E_TLS_FAMILY : code;
}

std::string nameOf(FaultTableRow const& row) {
    return std::string(sandbox::faultRow(row.kind).name) + " " + row.details + " at " +
           sandbox::exchangeName(row.exchange) + (row.tunnelled ? " in a tunnel" : "");
}

std::vector<FaultTableRow> rowsOf(ExchangeKind exchange) {
    return rowsWith([exchange](auto const& row) { return row.exchange == exchange && !isOfConnection(row); });
}

std::vector<FaultTableRow> rowsOfConnections(bool ofSetUp) {
    return rowsWith([ofSetUp](auto const& row) { return isOfConnection(row) && isOfSetUp(row.exchange) == ofSetUp; });
}

std::vector<FaultTableRow> rowsOfProxy(bool tunnelled) {
    return rowsWith(
        [tunnelled](auto const& row) { return row.exchange == ExchangeKind::Proxy && row.tunnelled == tunnelled; });
}

long carriedOut(sandbox::Service const& service, ExchangeKind kind) {
    std::vector<sandbox::Exchange> const all = service.exchanges();
    return std::count_if(all.begin(), all.end(), [kind](sandbox::Exchange const& exchange) {
        return exchange.kind == kind && exchange.verdict == "ok";
    });
}

long timesIn(sandbox::Service const& service, std::string const& token, std::string const& state) {
    long count = 0;
    for (sandbox::Payment const& payment : service.payments()) {
        for (sandbox::HistoryEntry const& entry : payment.history) {
            count += payment.token == token && sandbox::stateName(entry.state) == state ? 1 : 0;
        }
    }
    return count;
}

}  // namespace kvxtest
