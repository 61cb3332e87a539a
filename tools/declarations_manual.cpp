// Manual pages in the man macros. Every text is escaped, so that no character of it is a request of roff.

#include <tallowin/version.h>

#include <algorithm>

#include "tools/declarations.h"

namespace tool {

namespace {

std::string escaped(std::string const& text) {
    std::string out;
    for (char const character : text) {
        if (character == '\\') {
            out += "\\e";
        } else if (character == '-') {
            out += "\\-";
        } else if (character == '\n') {
            out += out.size() >= 1 && out.back() == '\n' ? ".PP\n" : "\n";
        } else if ((character == '.' || character == '\'') && (out.empty() || out.back() == '\n')) {
            out += "\\&";
            out += character;
        } else {
            out += character;
        }
    }
    return out;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char character) {
        return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
    });
    return text;
}

std::string pageName(std::string const& command) {
    std::string name = command.empty() ? "tallowin" : "tallowin-" + command;
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

std::string sentence(std::string text) {
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') {
        text[0] = static_cast<char>(text[0] - 'a' + 'A');
    }
    return text.empty() || text.back() == '.' ? text : text + '.';
}

std::string optionsSection(char const* title, std::vector<DeclaredOption> const& options) {
    if (options.empty()) {
        return "";
    }
    std::string out = std::string(".SH ") + title + '\n';
    for (DeclaredOption const& option : options) {
        std::string head;
        for (std::string const& name : option.m_Names) {
            head += (head.empty() ? "" : "\\fR, ") + ("\\fB" + escaped(name));
        }
        head += "\\fR";
        if (!option.m_Value.empty()) {
            head += (option.m_Names.empty() ? "\\fI" : " \\fI") + escaped(option.m_Value) + "\\fR";
        }
        out +=
            ".TP\n" + head + '\n' + escaped(sentence(option.m_Text) + (option.m_IsRequired ? " Required." : "")) + '\n';
    }
    return out;
}

std::string synopsis(DeclaredCommand const& command) {
    std::string out = ".SH SYNOPSIS\n.B tallowin";
    out += command.m_Name.empty() ? "\n" : ' ' + command.m_Name + '\n';
    if (!command.m_Commands.empty()) {
        return out + ".I COMMAND\n.RI [ OPTIONS ]\n";
    }
    out += command.m_Options.empty() ? "" : ".RI [ OPTIONS ]\n";
    for (DeclaredOption const& argument : command.m_Arguments) {
        out += argument.m_IsRequired ? ".I " + escaped(argument.m_Value) + '\n'
                                     : ".RI [ " + escaped(argument.m_Value) + " ]\n";
    }
    return out;
}

std::string commandsSection(DeclaredCommand const& command, std::vector<DeclaredCommand> const& commands) {
    std::string out;
    for (DeclaredCommand const& other : commands) {
        bool const isBelow = other.m_Name.size() > command.m_Name.size() &&
                             other.m_Name.compare(0, command.m_Name.size(), command.m_Name) == 0;
        if (isBelow && !command.m_Commands.empty()) {
            out += ".TP\n.BR " + escaped(pageName(other.m_Name)) + " (1)\n" + escaped(sentence(other.m_Summary)) + '\n';
        }
    }
    return out.empty() ? "" : ".SH COMMANDS\n" + out;
}

}  // namespace

std::string manualPage(DeclaredCommand const& command, std::vector<DeclaredCommand> const& commands) {
    std::string const name = pageName(command.m_Name);
    std::string out = ".TH " + upper(name) + " 1 \"\" \"tallowin " + TALLOWIN_VERSION_STRING + "\" \"User Commands\"\n";
    out += ".SH NAME\n" + escaped(name) + " \\- " + escaped(command.m_Summary) + '\n' + synopsis(command);
    out += ".SH DESCRIPTION\n" + escaped(command.m_Text.empty() ? sentence(command.m_Summary) : command.m_Text) + '\n';
    out += commandsSection(command, commands) + optionsSection("ARGUMENTS", command.m_Arguments) +
           optionsSection("OPTIONS", command.m_Options);
    out +=
        ".SH EXIT STATUS\n.TP\n0\nThe command succeeded; of a check, everything is as expected.\n.TP\n1\nThe command "
        "failed, or something is not as expected, or the report could not be written.\n.TP\n2\nThe command line is "
        "wrong.\n.SH ENVIRONMENT\n.TP\n.B TALLOWIN_DIR\nThe configuration directory, without "
        "\\fB\\-\\-dir\\fR.\n.TP\n.B "
        "NO_COLOR\nWhen it is set, nothing is coloured.\n.SH SEE ALSO\n.BR tallowin (1)";
    return out + (command.m_Name == "sandbox" || command.m_Name.empty() ? ",\n.BR tallowin\\-sandbox (1)\n" : "\n");
}

}  // namespace tool
