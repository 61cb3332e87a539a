/// The commands of the program `tallowin`.
///
/// A command is one source, `commands_NAME.cpp`: its options and what it does. `declareProgram()` lists them; help,
/// completion and manual pages are made from what they declare. A command's footer is the text of its manual page.
#ifndef TALLOWIN_TOOLS_COMMANDS_H
#define TALLOWIN_TOOLS_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/session.h"

namespace tool {

/// What the command line chose: set by the callback of the command that was named.
using Action = std::function<void(Session&)>;

/// The program's command line. Commands add themselves below `m_App`.
struct CommandLine {
    CLI::App& m_App;
    Session& m_Session;  ///< Receives the common options.
    Action m_Action;     ///< Empty until a command has been parsed.
};

/// Adds the command `name` below `parent`, with --json, and --dir unless it needs no directory. `run` is called with
/// the session when the command line names this command. The caller adds the other options; what they write to must
/// live as long as the command line, so it belongs into a shared pointer that `run` holds.
enum class Needs { kDirectory, kNothing };
CLI::App* addCommand(CommandLine& line, CLI::App& parent, std::string const& name, std::string const& summary,
                     Needs needs, Action run);

/// Refuses an empty value: usually a variable of a script that is not set.
CLI::Validator notEmpty();

/// What the program does, in one line.
constexpr char const* kProgramSummary = "payments of one merchant account: set up, pay, verify, capture, inspect";

/// Declares the whole command line: options of the program, every command.
void declareProgram(CommandLine& line);

void addCapture(CommandLine& line);
void addComplete(CommandLine& line);
void addDoctor(CommandLine& line);
void addExplain(CommandLine& line);
void addGet(CommandLine& line);
void addKeys(CommandLine& line);

// In a build without the ledger these two add nothing.
void addOrders(CommandLine& line);
void addRenewal(CommandLine& line, CLI::App& keys);  ///< Below `keys`.

void addPay(CommandLine& line);
void addRequest(CommandLine& line);
void addSandbox(CommandLine& line);
void addSet(CommandLine& line);
void addSetup(CommandLine& line);
void addShow(CommandLine& line);
void addVerify(CommandLine& line);

}  // namespace tool

#endif
