/// Why a confirmation does not verify.
#ifndef TALLOWIN_TOOLS_VERIFY_EXPLAIN_H
#define TALLOWIN_TOOLS_VERIFY_EXPLAIN_H

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tools/session.h"

namespace tool {

/// What the command line says about explanations.
struct ExplainOptions {
    bool m_Explains = false;
    std::vector<std::string> m_OriginalFiles;  ///< Files with messages, queries or URLs to compare with.
};

/// Adds --explain and --original, which fill `options`; it must outlive the command line.
void addExplainOptions(CLI::App& command, ExplainOptions& options);

/// A confirmation that the library has refused.
struct RefusedConfirmation {
    std::string m_Data;  ///< Decoded.
    std::string m_Signature;
    std::vector<std::pair<std::string, std::string>> m_Expected;  ///< Attributes as they should be: names and values.
};

/// Reports what was signed, by which key of the account in `directory`, and which single change would make SIGNATURE
/// pass: the sentence for people first, then `failure` and the details; for JSON the members "error" and "explanation".
/// The run becomes negative. May take some seconds. ToolFailure when an original cannot be read or holds no message.
void explainRefusal(Session& session, std::string const& directory, RefusedConfirmation const& confirmation,
                    ExplainOptions const& options, ToolFailure const& failure);

}  // namespace tool

#endif
