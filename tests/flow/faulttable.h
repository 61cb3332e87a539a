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
enum class Sees {
    kNotAsked,     ///< No shopper takes part.
    kWhole,        ///< The answer.
    kWrongReturn,  ///< The way back to the shop, with a confirmation that is not what it should be.
    kNothing,      ///< Not a byte, and the end.
    kReset,        ///< The connection is reset.
    kCut,          ///< The beginning of the answer.
    kStatus,       ///< Another status, and a text.
    kNoBlankLine,  ///< No empty line between head and body.
    kZeroByte,     ///< The answer with a zero byte in its body.
    kTwice,        ///< The answer, and all of it again.
    kHuge,         ///< The answer, and blanks.
};

/// Nobody calls the component, or with nothing.
inline constexpr std::optional<std::int32_t> kNotCalled = std::nullopt;

struct FaultTableRow {
    sandbox::ExchangeKind m_Exchange;
    sandbox::FaultKind m_Kind;
    bool m_CarriedOut;  ///< Whether the service did what it was asked.

    /// Of the function that made the exchange; for a decision, of verifying what came back. KVX_E_TLS_FAMILY stands for
    /// the whole family.
    std::optional<std::int32_t> m_Result;

    /// For a set-up a character each for config.xml, default.xml, the server's key and the merchant's current key: "."
    /// as before, "n" new, "r" new with what came behind the answer, "f" another than asked for. Else the state of the
    /// payment, "none" when the service knows of none.
    char const* m_Left;
    Sees m_Sees = Sees::kNotAsked;
    char const* m_Details = "";  ///< More of the fault, as it is spelled: "status=200".
    bool m_Tunnelled = false;    ///< At the proxy: it was asked for a tunnel, not to forward the request.
};

/// By exchange, and within one by fault, both in the order of the sandbox.
std::vector<FaultTableRow> const& faultTable();

/// An exchange that the table leaves out.
struct LeftOutExchange {
    sandbox::ExchangeKind m_Exchange;
    char const* m_Reason;
};
std::vector<LeftOutExchange> const& leftOutExchanges();

/// Those that the merchant asks for, so that a connection for them can fail.
std::vector<sandbox::ExchangeKind> const& merchantExchanges();

bool isOfSetUp(sandbox::ExchangeKind exchange);
bool isOfShopper(sandbox::ExchangeKind exchange);

/// Whether it happens to a connection to the service before its request.
bool isOfConnection(FaultTableRow const& row);

/// The text of docs/fault-table.md.
std::string faultTablePage();

}  // namespace kvxtest

#endif
