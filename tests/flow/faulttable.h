/// What every fault of the sandbox does to a merchant: one row for each fault and each exchange that it can happen to.
/// The tests hold the component to the rows, and docs/fault-table.md shows them to people.
#ifndef TALLOWIN_TESTS_FLOW_FAULTTABLE_H
#define TALLOWIN_TESTS_FLOW_FAULTTABLE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/fault.h"

namespace kvxtest {

/// What the shopper's browser gets.
enum class BrowserResult {
    kNoShopper,    ///< No shopper takes part.
    kWhole,        ///< The response.
    kWrongReturn,  ///< The return link, with a confirmation that is not what it should be.
    kNothing,      ///< Not a byte, and the end.
    kReset,        ///< The connection is reset.
    kCut,          ///< The beginning of the response.
    kStatus,       ///< Another status, and a text.
    kNoBlankLine,  ///< No empty line between head and body.
    kZeroByte,     ///< The response with a zero byte in its body.
    kTwice,        ///< The response, and all of it again.
    kHuge,         ///< The response, and blanks.
};

/// The component is not called, or has nothing to verify.
inline constexpr std::optional<std::int32_t> kNotCalled = std::nullopt;

struct FaultTableRow {
    sandbox::ExchangeKind m_Exchange;
    sandbox::FaultKind m_Kind;
    bool m_CarriedOut;  ///< Whether the service carried out the request.

    /// Of the function that made the exchange; for a decision, of verifying what came back. KVX_E_TLS_FAMILY stands for
    /// the whole family.
    std::optional<std::int32_t> m_Result;

    /// For a set-up a character each for config.xml, default.xml, the server's key and the merchant's current key: "."
    /// as before, "n" new, "r" new with what followed the response, "f" another than asked for. Else the state of the
    /// payment, "none" when the service knows of none.
    char const* m_Left;
    BrowserResult m_BrowserResult = BrowserResult::kNoShopper;
    char const* m_Details = "";  ///< More of the fault, as it is spelled: "status=200".
    bool m_Tunnelled = false;    ///< At the proxy: by a tunnel, not by forwarding the request.
};

/// The same row for a merchant whose settings say PROFILE="strict".
FaultTableRow strictRow(FaultTableRow const& row);

/// By exchange, and within one by fault, both in the order of the sandbox.
std::vector<FaultTableRow> const& faultTable();

/// An exchange that the table leaves out.
struct LeftOutExchange {
    sandbox::ExchangeKind m_Exchange;
    char const* m_Reason;
};
std::vector<LeftOutExchange> const& leftOutExchanges();

/// The exchanges that the merchant starts, so that a connection for them can fail.
std::vector<sandbox::ExchangeKind> const& merchantExchanges();

bool isOfSetUp(sandbox::ExchangeKind exchange);
bool isOfShopper(sandbox::ExchangeKind exchange);

/// Whether it happens to a connection to the service before its request.
bool isOfConnection(FaultTableRow const& row);

/// The text of docs/fault-table.md.
std::string faultTablePage();

}  // namespace kvxtest

#endif
