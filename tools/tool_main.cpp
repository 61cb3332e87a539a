// The program tallowin: parses the command line, runs one command, reports.
// Exit status 0: the command succeeded and, for commands that check, the answer is yes. 1: it failed, or the answer is
// no, or the report could not be written. 2: the command line is wrong. Messages about wrong arguments never repeat an
// argument that no option expects: it may be a password in the wrong place.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <exception>
#include <new>
#include <string>

#include "tools/commands.h"
#include "tools/tooltext.h"

namespace {

constexpr int kUsage = 2;
constexpr std::size_t kMaxMessage = 400;

/// The option in an argument that nobody expected, without its value; empty when it is none.
std::string optionIn(std::string const& argument) {
    bool const isOption = argument.size() > 1 && argument[0] == '-';
    return isOption ? argument.substr(0, std::min(argument.find('='), std::size_t{40})) : "";
}

CLI::App const& namedCommand(CLI::App const& app) {
    auto const chosen = app.get_subcommands();
    return chosen.empty() ? app : namedCommand(*chosen.front());
}

std::string describe(CLI::App const& app, CLI::ParseError const& error) {
    if (dynamic_cast<CLI::ExtrasError const*>(&error) == nullptr) {
        return error.what();
    }
    for (std::string const& argument : app.remaining(true)) {
        std::string const option = optionIn(argument);
        if (!option.empty()) {
            return "unknown option " + option;
        }
    }
    return "an argument too many";
}

int usage(CLI::App const& app, std::string const& text) {
    std::string name = "tallowin";
    CLI::App const* const command = &namedCommand(app);
    for (CLI::App const* part = command; part->get_parent() != nullptr; part = part->get_parent()) {
        name.insert(sizeof "tallowin" - 1, ' ' + part->get_name());
    }
    tool::StandardStreams::writeError(name + ": " + tool::printable(tool::shortened(text, kMaxMessage)) +
                                      "\nTry: " + name + " --help\n");
    return kUsage;
}

/// Help and version are asked for by exceptions of the parser too.
int endOfParsing(CLI::App const& app, CLI::ParseError const& end, tool::Session& session) {
    if (end.get_exit_code() != 0) {
        return usage(app, describe(app, end));
    }
    bool const isVersion = dynamic_cast<CLI::CallForVersion const*>(&end) != nullptr;
    session.streams().write(isVersion ? std::string(end.what()) + '\n' : app.help());
    return 0;
}

int run(int argc, char** argv, tool::Session& session) {
    CLI::App app(tool::kProgramSummary, "tallowin");
    tool::CommandLine line{app, session, {}};
    declareProgram(line);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& end) {
        return endOfParsing(app, end, session);
    }
    try {
        line.m_Action(session);
        return session.finish();
    } catch (tool::UsageError const& error) {
        return usage(app, error.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    tool::StandardStreams const streams;
    tool::Session session(streams);
    if (argc < 1) {
        tool::StandardStreams::writeError("tallowin: started without arguments, not even its name\n");
        return kUsage;
    }
    try {
        try {
            return run(argc, argv, session);
        } catch (tool::ToolFailure const& failure) {
            return session.fail(failure);
        } catch (std::bad_alloc const&) {
            return session.fail(tool::ToolFailure("out of memory"));
        } catch (std::exception const& failure) {
            return session.fail(tool::ToolFailure(failure.what()));
        }
    } catch (std::exception const& failure) {
        tool::StandardStreams::writeError("tallowin: " + tool::printable(failure.what()) + '\n');
        return 1;
    }
}
