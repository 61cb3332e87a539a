#include "tools/declarations.h"

namespace tool {

namespace {

DeclaredOption declared(CLI::Option const& option) {
    DeclaredOption out;
    for (std::string const& name : option.get_lnames()) {
        out.m_Names.push_back("--" + name);
    }
    for (std::string const& name : option.get_snames()) {
        out.m_Names.push_back("-" + name);
    }
    out.m_Value = option.get_type_size() == 0 ? "" : option.get_type_name();
    out.m_Text = option.get_description();
    out.m_IsRequired = option.get_required();
    return out;
}

void add(CLI::App const& app, std::string const& name, std::vector<DeclaredCommand>& commands) {
    DeclaredCommand command;
    command.m_Name = name;
    command.m_Summary = app.get_description();
    command.m_Text = app.get_footer();
    for (CLI::Option const* const option : app.get_options()) {
        bool const isArgument = option->get_lnames().empty() && option->get_snames().empty();
        (isArgument ? command.m_Arguments : command.m_Options).push_back(declared(*option));
    }
    auto const children = app.get_subcommands([](CLI::App const*) { return true; });
    for (CLI::App const* const child : children) {
        command.m_Commands.push_back(child->get_name());
    }
    commands.push_back(command);
    for (CLI::App const* const child : children) {
        add(*child, name.empty() ? child->get_name() : name + ' ' + child->get_name(), commands);
    }
}

}  // namespace

std::vector<DeclaredCommand> declaredCommands(CLI::App const& program) {
    std::vector<DeclaredCommand> commands;
    add(program, "", commands);
    return commands;
}

}  // namespace tool
