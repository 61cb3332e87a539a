// Completion for bash, zsh and fish: commands, options, and for values of options directories, files or user names. The
// value of every other option is left to the user: nothing is suggested.

#include <algorithm>

#include "tools/declarations.h"

namespace tool {

namespace {

/// `text` in single quotes of a shell.
std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char const character : text) {
        out += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    return out + "'";
}

std::string joined(std::vector<std::string> const& words) {
    std::string out;
    for (std::string const& word : words) {
        out += (out.empty() ? "" : " ") + word;
    }
    return out;
}

std::string namesOf(std::vector<DeclaredOption> const& options) {
    std::string out;
    for (DeclaredOption const& option : options) {
        out += (out.empty() ? "" : " ") + joined(option.m_Names);
    }
    return out;
}

/// The commands that `command` is the beginning of, as patterns: "keys" for "keys list".
std::string parentOf(std::string const& name) {
    std::size_t const blank = name.rfind(' ');
    return blank == std::string::npos ? "" : name.substr(0, blank);
}

std::string lastWord(std::string const& name) {
    return name.substr(name.rfind(' ') + 1);
}

std::string bashValues(std::string const& value) {
    if (value == "DIR") {
        return "_tallowin_fill -d";
    }
    if (value == "FILE") {
        return "_tallowin_fill -f";
    }
    return value == "USER" ? "_tallowin_fill -u" : "COMPREPLY=()";
}

std::string bashArguments(DeclaredCommand const& command) {
    for (DeclaredOption const& argument : command.m_Arguments) {
        if (argument.m_Value == "ACCOUNT-FILE") {
            return std::string(" ") + kAccountFiles;
        }
    }
    return "";
}

std::string zshAction(std::string const& value) {
    if (value == "DIR") {
        return ":directory:_files -/";
    }
    if (value == "FILE") {
        return ":file:_files";
    }
    if (value == "USER") {
        return ":user:_users";
    }
    return value == "ACCOUNT-FILE" ? std::string(":file:(") + kAccountFiles + ')' : ':' + value + ":( )";
}

/// A text inside the brackets of an option of _arguments.
std::string zshText(std::string const& text) {
    std::string out;
    for (char const character : text) {
        bool const isSpecial = character == '[' || character == ']' || character == ':' || character == '\\';
        out += isSpecial ? std::string("\\") + character : std::string(1, character);
    }
    return out;
}

std::string zshFunction(std::string const& name) {
    std::string out = "_tallowin" + (name.empty() ? "" : "_" + name);
    std::replace(out.begin(), out.end(), ' ', '_');
    return out;
}

std::string zshOptions(DeclaredCommand const& command) {
    std::string out;
    for (DeclaredOption const& option : command.m_Options) {
        std::string const value = option.m_Value.empty() ? "" : zshAction(option.m_Value);
        std::string const repeated = option.m_Value.find('=') == std::string::npos ? "" : "*";
        std::string const text = '[' + zshText(option.m_Text) + ']' + value;
        for (std::string const& name : option.m_Names) {
            std::string const argument = (repeated + name).append(text);
            out += " \\\n    " + quoted(argument);
        }
    }
    return out;
}

std::string zshChoice(DeclaredCommand const& command, std::vector<DeclaredCommand> const& commands) {
    std::string list;
    std::string cases;
    for (DeclaredCommand const& other : commands) {
        if (!other.m_Name.empty() && parentOf(other.m_Name) == command.m_Name) {
            list += "\n    " + quoted(lastWord(other.m_Name) + ':' + zshText(other.m_Summary));
            cases += "\n      " + lastWord(other.m_Name) + ") " + zshFunction(other.m_Name) + " ;;";
        }
    }
    return "  local -a commands\n  commands=(" + list + "\n  )\n  _arguments -C" + zshOptions(command) +
           " \\\n    '1:command:->command' '*::argument:->argument'\n  case $state in\n    command) _describe command "
           "commands ;;\n    argument)\n      case $words[1] in" +
           cases + "\n      esac ;;\n  esac\n";
}

std::string zshArguments(DeclaredCommand const& command) {
    std::string out = "  _arguments" + zshOptions(command);
    for (DeclaredOption const& argument : command.m_Arguments) {
        out += " \\\n    " + quoted(':' + zshAction(argument.m_Value));
    }
    return out + '\n';
}

/// The condition under which fish is in `name`; for the program, that no command has been typed yet.
std::string fishCondition(DeclaredCommand const& command) {
    std::string out;
    for (std::string rest = command.m_Name; !rest.empty(); rest = parentOf(rest)) {
        out.insert(0, "__fish_seen_subcommand_from " + lastWord(rest) + (out.empty() ? "" : "; and "));
    }
    if (command.m_Commands.empty()) {
        return out;
    }
    return (out.empty() ? "" : out + "; and ") + "not __fish_seen_subcommand_from " + joined(command.m_Commands);
}

std::string fishValues(std::string const& value) {
    if (value == "DIR") {
        return " -x -a '(__fish_complete_directories)'";
    }
    if (value == "FILE") {
        return " -r -F";
    }
    return value == "USER" ? " -x -a '(__fish_complete_users)'" : value.empty() ? "" : " -x";
}

std::string fishOption(std::string const& condition, DeclaredOption const& option) {
    std::string out = "complete -c tallowin -n " + quoted(condition);
    for (std::string const& name : option.m_Names) {
        out += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    return out + fishValues(option.m_Value) + " -d " + quoted(option.m_Text) + '\n';
}

}  // namespace

std::string bashCompletion(std::vector<DeclaredCommand> const& commands) {
    std::string names;
    std::string values;
    std::string words;
    for (DeclaredCommand const& command : commands) {
        if (!command.m_Name.empty()) {
            names += (names.empty() ? "" : " | ") + quoted(command.m_Name);
        }
        for (DeclaredOption const& option : command.m_Options) {
            if (!option.m_Value.empty()) {
                values += "    " + quoted(command.m_Name + ' ' + option.m_Names.front()) + ") " +
                          bashValues(option.m_Value) + "; return ;;\n";
            }
        }
        words += "    " + quoted(command.m_Name) + ") words=" +
                 quoted(joined(command.m_Commands) + (command.m_Commands.empty() ? "" : " ") +
                        namesOf(command.m_Options) + bashArguments(command)) +
                 " ;;\n";
    }
    return "# bash completion for tallowin\n"
           "_tallowin_fill() {\n"
           "  compopt -o filenames\n"
           "  mapfile -t COMPREPLY < <(compgen \"$1\" -- \"$current\")\n"
           "}\n"
           "_tallowin() {\n"
           "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' words='' "
           "index\n"
           "  if [ \"$current\" = = ]; then\n"
           "    current=''\n"
           "  elif [ \"$previous\" = = ]; then\n"
           "    previous=${COMP_WORDS[COMP_CWORD - 2]}\n"
           "  fi\n"
           "  for ((index = 1; index < COMP_CWORD; index++)); do\n"
           "    words=\"$command${command:+ }${COMP_WORDS[index]}\"\n"
           "    case $words in\n"
           "      " +
           names +
           ") command=$words ;;\n"
           "    esac\n"
           "  done\n"
           "  case \"$command $previous\" in\n" +
           values +
           "  esac\n"
           "  words=''\n"
           "  case $command in\n" +
           words +
           "  esac\n"
           "  if [ \"$command\" = sandbox ]; then\n"
           "    _tallowin_fill -f\n"
           "    return\n"
           "  fi\n"
           "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "}\n"
           "complete -F _tallowin tallowin\n";
}

std::string zshCompletion(std::vector<DeclaredCommand> const& commands) {
    std::string out = "#compdef tallowin\n";
    for (auto command = commands.rbegin(); command != commands.rend(); ++command) {
        out += zshFunction(command->m_Name) + "() {\n  local curcontext=$curcontext state line\n";
        if (command->m_Name == "sandbox") {
            out += "  _files\n";
        } else {
            out += command->m_Commands.empty() ? zshArguments(*command) : zshChoice(*command, commands);
        }
        out += "}\n";
    }
    return out + "_tallowin \"$@\"\n";
}

std::string fishCompletion(std::vector<DeclaredCommand> const& commands) {
    std::string out = "# fish completion for tallowin\ncomplete -c tallowin -f\n";
    for (DeclaredCommand const& command : commands) {
        std::string const condition = fishCondition(command);
        for (DeclaredCommand const& other : commands) {
            if (!other.m_Name.empty() && parentOf(other.m_Name) == command.m_Name) {
                out += "complete -c tallowin -n " + quoted(condition) + " -a " + lastWord(other.m_Name) + " -d " +
                       quoted(other.m_Summary) + '\n';
            }
        }
        for (DeclaredOption const& option : command.m_Options) {
            out += fishOption(condition, option);
        }
        for (DeclaredOption const& argument : command.m_Arguments) {
            if (argument.m_Value == "ACCOUNT-FILE") {
                out += "complete -c tallowin -n " + quoted(condition) + " -a " + quoted(kAccountFiles) + '\n';
            }
        }
    }
    return out + "complete -c tallowin -n '__fish_seen_subcommand_from sandbox' -F\n";
}

}  // namespace tool
