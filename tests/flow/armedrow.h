/// Arms the faults of the fault table, for the tests that compare the component with it.
#ifndef TALLOWIN_TESTS_FLOW_ARMEDROW_H
#define TALLOWIN_TESTS_FLOW_ARMEDROW_H

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <vector>

#include "sandbox/service.h"
#include "tests/flow/faulttable.h"
#include "tests/flow/flowsupport.h"
#include "tests/sandbox/support/servicerows.h"
#include "tests/support/systemcalls.h"

namespace kvxtest {

/// Megabytes of huge responses; more than the strict profile permits where that is in force.
inline constexpr int kMegabytes = 4;
inline constexpr int kTooManyMegabytes = 9;

/// How much of a fault there is: a moment and some megabytes, or more than strict settings bear.
enum class FaultSize { kSmall, kTooLarge };

/// The fault of `row`, for one order where the fault can be for one. Throws sandbox::HttpError when it cannot happen.
sandbox::Fault faultOf(FaultTableRow const& row, std::string const& order = "", FaultSize size = FaultSize::kSmall);

/// Arms the fault of a row while it lives. A fault of a connection is armed right before the component connects for
/// the exchange of the row. One at a time.
class ArmedRow {
public:
    ArmedRow(sandbox::Service& service, FaultTableRow const& row, std::string const& order = "",
             FaultSize size = FaultSize::kSmall);
    ArmedRow(ArmedRow const&) = delete;
    ArmedRow& operator=(ArmedRow const&) = delete;

    /// Fails the test when it has not happened.
    ~ArmedRow();

private:
    static int connect(int socket, sockaddr const* address, socklen_t length);

    static ArmedRow* s_Current;

    sandbox::Service& m_Service;
    sandbox::Fault m_Fault;
    std::ptrdiff_t m_ConnectionsBefore = 0;  ///< How many more connections the component makes before the one.
    SystemCalls m_System;
};

/// `code`, or its family where the rows name that.
std::int32_t asInRows(std::int32_t code);

/// What a row is called when it fails.
std::string nameOf(FaultTableRow const& row);

/// The rows of one exchange without those of its connection, and those of connections of set-ups or payments.
std::vector<FaultTableRow> rowsOf(sandbox::ExchangeKind exchange);
std::vector<FaultTableRow> rowsOfConnections(bool ofSetUp);

/// The rows of the proxy, for tunnels or for forwarded requests.
std::vector<FaultTableRow> rowsOfProxy(bool tunnelled);

/// How often the service has carried out such a request.
long carriedOut(sandbox::Service const& service, sandbox::ExchangeKind kind);

/// How often the payment with this token has come into `state`.
long timesIn(sandbox::Service const& service, std::string const& token, std::string const& state);

/// The suite of all tests of the table. Each verb is defined beside the tests that use it, holds the component to all
/// rows and expects the same step without a fault to succeed afterwards.
class FaultTable : public FlowTest {
protected:
    /// From now on the component has strict settings and the rows are those of it.
    void beStrict() { m_IsStrict = true; }
    [[nodiscard]] bool isStrict() const { return m_IsStrict; }
    [[nodiscard]] FaultTableRow expected(FaultTableRow const& row) const { return m_IsStrict ? strictRow(row) : row; }
    [[nodiscard]] FaultSize faultSize() const { return m_IsStrict ? FaultSize::kTooLarge : FaultSize::kSmall; }
    void makeStrict(Shop const& shop, std::uint16_t proxyPort = 0);

    void expectSetUps(std::vector<FaultTableRow> const& rows);
    void expectPages();
    void expectDecisions();
    void expectPayments(std::vector<FaultTableRow> const& rows);

private:
    bool m_IsStrict = false;
};

}  // namespace kvxtest

#endif
