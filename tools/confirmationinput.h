/// A confirmation as users have it: the address that the shopper's browser showed, its query, or two values.
#ifndef TALLOWIN_TOOLS_CONFIRMATIONINPUT_H
#define TALLOWIN_TOOLS_CONFIRMATIONINPUT_H

#include <CLI/CLI.hpp>
#include <string>

#include "tools/standardstreams.h"

namespace tool {

/// Where the confirmation is.
struct ConfirmationSource {
    std::string m_First;   ///< An address, a query, or DATA; empty: a file or standard input.
    std::string m_Second;  ///< SIGNATURE, when the first is DATA.
    std::string m_File;    ///< "-" for standard input.
};

/// DATA and SIGNATURE, percent-decoded.
struct ConfirmationInput {
    std::string m_Data;
    std::string m_Signature;  ///< Empty when there was none.
};

/// Adds the arguments and options that fill `source`, which must outlive the command line.
void addConfirmationOptions(CLI::App& command, ConfirmationSource& source);

/// Reads it. UsageError when the command line names two sources; ToolFailure when there is no confirmation in it, a
/// parameter occurs twice, or it is longer than a megabyte.
ConfirmationInput readConfirmation(StandardStreams const& streams, ConfirmationSource const& source);

/// The confirmation in a text: an address or a query with DATA and SIGNATURE, or both values on a line each.
/// ToolFailure.
ConfirmationInput confirmationIn(std::string const& text);

}  // namespace tool

#endif
