// Writes completion and manual pages into a directory; runs while the tree is built.
//
//   tallowin_documents DIRECTORY
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "tools/commands.h"
#include "tools/declarations.h"

namespace {

void write(std::filesystem::path const& file, std::string const& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out << text << std::flush;
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

void writeAll(std::filesystem::path const& directory) {
    tool::StandardStreams const streams;
    tool::Session session(streams);
    CLI::App app(tool::kProgramSummary, "tallowin");
    tool::CommandLine line{app, session, {}};
    tool::declareProgram(line);
    auto const commands = tool::declaredCommands(app);
    write(directory / "bash" / "tallowin", tool::bashCompletion(commands));
    write(directory / "zsh" / "_tallowin", tool::zshCompletion(commands));
    write(directory / "fish" / "tallowin.fish", tool::fishCompletion(commands));
    for (tool::DeclaredCommand const& command : commands) {
        std::string name = command.m_Name.empty() ? "tallowin" : "tallowin-" + command.m_Name;
        std::replace(name.begin(), name.end(), ' ', '-');
        if (command.m_Name != "sandbox") {  // The page tallowin-sandbox belongs to that program.
            write(directory / "man1" / (name + ".1"), tool::manualPage(command, commands));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: tallowin_documents DIRECTORY\n";
        return 2;
    }
    try {
        writeAll(argv[1]);
    } catch (std::exception const& failure) {
        std::cerr << "tallowin_documents: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
