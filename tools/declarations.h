/// The command line as data, for what is generated from it: completion and manual pages.
#ifndef TALLOWIN_TOOLS_DECLARATIONS_H
#define TALLOWIN_TOOLS_DECLARATIONS_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tool {

struct DeclaredOption {
    std::vector<std::string> m_Names;  ///< With their dashes, long ones first; empty for an argument without a name.
    std::string m_Value;               ///< Word for its value, such as "DIR"; empty for a switch.
    std::string m_Text;
    bool m_IsRequired = false;
};

/// A command, or the program itself.
struct DeclaredCommand {
    std::string m_Name;  ///< "keys list"; empty for the program.
    std::string m_Summary;
    std::string m_Text;
    std::vector<DeclaredOption> m_Options;
    std::vector<DeclaredOption> m_Arguments;
    std::vector<std::string> m_Commands;  ///< Words that may follow, such as "list"; empty for most.
};

/// The program first, then every command before those below it.
std::vector<DeclaredCommand> declaredCommands(CLI::App const& program);

/// The whole texts of the completion for each shell.
std::string bashCompletion(std::vector<DeclaredCommand> const& commands);
std::string zshCompletion(std::vector<DeclaredCommand> const& commands);
std::string fishCompletion(std::vector<DeclaredCommand> const& commands);

/// The manual page of one command, or of the program, which lists the others.
std::string manualPage(DeclaredCommand const& command, std::vector<DeclaredCommand> const& commands);

/// Names of files that get and set take, for completion.
constexpr char const* kAccountFiles = "config.xml default.xml settings.xml";

}  // namespace tool

#endif
