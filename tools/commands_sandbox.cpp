// `tallowin sandbox`: the payment service for one's own machine takes the place of this program, with the arguments
// that follow. It is looked for in TALLOWIN_SANDBOX, beside this program, and in the path.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tools/commands.h"

namespace tool {

namespace {

constexpr char const* kProgram = "tallowin-sandbox";

std::string findProgram() {
    char const* const named = std::getenv("TALLOWIN_SANDBOX");
    if (named != nullptr && *named != '\0') {
        return named;
    }
    std::error_code error;
    std::filesystem::path const own = std::filesystem::read_symlink("/proc/self/exe", error);
    std::filesystem::path const beside = own.parent_path() / kProgram;
    return !error && std::filesystem::is_regular_file(beside, error) ? beside.string() : kProgram;
}

void startSandbox(Session const& session, std::vector<std::string> const& arguments) {
    std::string const program = findProgram();
    std::vector<char*> vector = {const_cast<char*>(program.c_str())};
    for (std::string const& argument : arguments) {
        vector.push_back(const_cast<char*>(argument.c_str()));
    }
    vector.push_back(nullptr);
    session.streams().restore();
    std::signal(SIGPIPE, SIG_DFL);
    ::execvp(program.c_str(), vector.data());
    int const error = errno;
    throw ToolFailure(systemFailure("cannot start " + program, error),
                      error == ENOENT ? "install the sandbox, or name it in TALLOWIN_SANDBOX" : "");
}

}  // namespace

void addSandbox(CommandLine& line) {
    CLI::App* const command = line.m_App.add_subcommand("sandbox", "start a payment service on this machine");
    command->prefix_command();
    command->set_help_flag();
    command->footer(
        "Takes the place of this program with tallowin-sandbox, which is looked for in TALLOWIN_SANDBOX, beside this "
        "program and in the path. All arguments are those of tallowin-sandbox; --data DIR is required.");
    command->callback([&line, command] {
        line.m_Session.m_Command = "sandbox";
        line.m_Action = [command](Session const& session) { startSandbox(session, command->remaining()); };
    });
}

}  // namespace tool
