#include "tools/commands.h"

#include <utility>

namespace tool {

CLI::Validator const kNotEmpty([](std::string const& text) { return std::string(text.empty() ? "is empty" : ""); }, "");

CLI::App* addCommand(CommandLine& line, CLI::App& parent, std::string const& name, std::string const& summary,
                     Needs needs, Action run) {
    CLI::App* const command = parent.add_subcommand(name, summary);
    if (needs == Needs::kDirectory) {
        command->add_option("--dir", line.m_Session.m_Directory, "configuration directory of the account")
            ->type_name("DIR")
            ->envname("TALLOWIN_DIR");
    }
    command->add_flag("--json", line.m_Session.m_IsJson, "print one JSON object");
    bool const isNested = parent.get_parent() != nullptr;
    std::string const fullName = isNested ? parent.get_name() + ' ' + name : name;
    command->callback([&line, fullName, run = std::move(run)] {
        line.m_Session.m_Command = fullName;
        line.m_Action = run;
    });
    return command;
}

void addAllCommands(CommandLine& line) {
    addSetup(line);
    addPay(line);
}

}  // namespace tool
