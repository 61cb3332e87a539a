/// Whether a confirmation pays an order: what is checked, and what was found.
#ifndef TALLOWIN_TOOLS_VERIFICATION_H
#define TALLOWIN_TOOLS_VERIFICATION_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/commands.h"
#include "tools/confirmationinput.h"
#include "tools/toolobjects.h"

namespace tool {

/// What the order expects; empty where nothing is compared.
struct Expected {
    std::string m_Token;
    std::string m_Amount;
    std::string m_Currency;
    std::string m_Order;
    std::string m_Result;  ///< Empty: "authorised", when the message has a RESULT.
};

/// Adds the options that fill `expected`, which must outlive the command line.
void addExpectedOptions(CLI::App& command, Expected& expected);

struct Check {
    std::string m_Name;       ///< As the member of the JSON: "type", "amount" ...
    std::string m_Attribute;  ///< As in the message.
    std::string m_Expected;
    std::string m_Found;
    [[nodiscard]] bool hasPassed() const { return m_Expected == m_Found; }
};

/// A confirmation whose signature is right, and its checks.
struct Verification {
    Attributes m_Message;
    std::vector<Check> m_Checks;
    std::vector<std::string> m_NotCompared;  ///< Options that were not given.
    [[nodiscard]] bool hasPassed() const;
};

/// Verifies the signature with the keys of `directory`, then compares. ToolFailure when the signature is not right.
Verification verify(std::string const& directory, ConfirmationInput const& confirmation, Expected const& expected);

/// Adds the checks to what the session reports.
void report(Session& session, Verification const& verification);

}  // namespace tool

#endif
