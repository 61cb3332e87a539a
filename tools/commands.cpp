#include "tools/commands.h"

#include <tallowin/tallowin.h>

#include <utility>

namespace tool {

CLI::Validator notEmpty() {
    return {[](std::string const& text) { return std::string(text.empty() ? "is empty" : ""); }, ""};
}

CLI::App* addCommand(CommandLine& line, CLI::App& parent, std::string const& name, std::string const& summary,
                     Needs needs, Action run) {
    CLI::App* const command = parent.add_subcommand(name, summary);
    // Each command has a place of its own: the parser copies the variable of the environment for all commands, also for
    // those that are not named.
    auto const directory = std::make_shared<std::string>();
    if (needs == Needs::kDirectory) {
        command->add_option("--dir", *directory, "configuration directory of the account")
            ->type_name("DIR")
            ->envname("TALLOWIN_DIR");
    }
    command->add_flag("--json", line.m_Session.m_IsJson, "print one JSON object");
    bool const isNested = parent.get_parent() != nullptr;
    std::string const fullName = isNested ? parent.get_name() + ' ' + name : name;
    command->callback([&line, fullName, directory, run = std::move(run)] {
        line.m_Session.m_Directory = *directory;
        line.m_Session.m_Command = fullName;
        line.m_Action = run;
    });
    return command;
}

void declareProgram(CommandLine& line) {
    line.m_App.set_help_flag("-h,--help", "print this help");
    line.m_App.set_version_flag("--version",
                                std::string("tallowin ") + TALLOWIN_VERSION_STRING + ", library " + KVX_GetVersion(),
                                "print the versions of program and library");
    line.m_App.require_subcommand(1);
    addSetup(line);
    addPay(line);
    addVerify(line);
    addCapture(line);
    addComplete(line);
    addRequest(line);
    addGet(line);
    addSet(line);
    addShow(line);
    addKeys(line);
    addOrders(line);
    addDoctor(line);
    addExplain(line);
    addSandbox(line);
}

}  // namespace tool
