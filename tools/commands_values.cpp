// `tallowin get` and `tallowin set`: values of the files of a configuration directory.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

#include "tools/accountfiles.h"
#include "tools/commands.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

constexpr std::size_t kMaxValue = 65536;
constexpr mode_t kSettingsMode = 0644;

// The settings that the library reads. A test compares them with the pages that describe them.
constexpr std::array<char const*, 28> kSettings = {
    "CONNECTTIMEOUT", "IOTIMEOUT", "KEYMODE",       "KEYPIN",     "LOGFILE",      "LOGSIZE",   "MAXDEPTH",
    "MAXRESPONSE",    "MAXXML",    "MINKEYBITS",    "PROFILE",    "PROXYHOST",    "PROXYPORT", "QUIET",
    "SENDALL",        "SENDHOST",  "STRICTCONFIRM", "STRICTKEYS", "STRICTNAMES",  "STRICTSIG", "SYNCFILES",
    "TLSCAFILE",      "TLSMIN",    "TLSREUSE",      "TLSVERIFY",  "TOTALTIMEOUT", "TRACEOPT",  "USEPROXY"};

struct ValueOptions {
    std::string m_File;
    std::string m_Name;
    std::string m_Value;
    bool m_FromInput = false;
};

/// Refuses files that are no values: those of other directories, and private keys.
void requireValueFile(std::string const& file) {
    if (file.empty() || file[0] == '/' || ("/" + file + "/").find("/../") != std::string::npos) {
        throw UsageError("FILE is a file of the directory, such as config.xml");
    }
    if (file.find("private") != std::string::npos) {
        throw UsageError("private keys are not shown");
    }
}

void getValue(Session& session, ValueOptions const& options) {
    requireValueFile(options.m_File);
    if (!options.m_Name.empty() && !isName(options.m_Name)) {
        throw UsageError("names of values consist of A-Z a-z 0-9 . - _");
    }
    std::string const directory = session.accountDirectory();
    struct stat status = {};
    if (!fileStatus(directory + '/' + options.m_File, status)) {
        throw ToolFailure("the directory has no file " + options.m_File);
    }
    std::string const value = configuredValue(directory, options.m_File, options.m_Name);
    if (value.empty()) {
        throw ToolFailure(options.m_Name.empty() ? options.m_File + " is empty"
                                                 : options.m_File + " has no value " + options.m_Name);
    }
    session.json()["file"] = options.m_File;
    if (!options.m_Name.empty()) {
        session.json()["name"] = options.m_Name;
    }
    session.json()["value"] = value;
    session.value(value);
}

std::string readValue() {
    std::string text;
    char block[4096];
    for (;;) {
        ssize_t const count = ::read(STDIN_FILENO, block, sizeof block);
        if (count < 0 && errno != EINTR) {
            throw ToolFailure(systemFailure("cannot read the value", errno));
        }
        if (count == 0) {
            return text.substr(0, text.find_last_not_of("\r\n") + 1);
        }
        text.append(block, count > 0 ? static_cast<std::size_t>(count) : 0);
        if (text.size() > kMaxValue) {
            throw ToolFailure("the value is longer than 65536 bytes");
        }
    }
}

bool isSetting(std::string const& name) {
    return std::find(kSettings.begin(), kSettings.end(), name) != kSettings.end();
}

void setValue(Session& session, ValueOptions const& options) {
    requireValueFile(options.m_File);
    if (!isName(options.m_Name)) {
        throw UsageError("names of values consist of A-Z a-z 0-9 . - _");
    }
    std::string const directory = session.accountDirectory();
    session.streams().requireOutput();
    std::string const value = options.m_FromInput ? readValue() : options.m_Value;
    if (value.empty() || value.find('\0') != std::string::npos) {
        throw UsageError("a value is not empty and has no zero byte");
    }
    std::string const path = directory + '/' + options.m_File;
    if (options.m_File == "settings.xml") {
        writeNewFile(path, "<KVX/>", underMask(kSettingsMode));
        if (!isSetting(options.m_Name)) {
            session.warn("the library reads no setting of the name " + options.m_Name);
        }
    }
    SetupObject const setup = openSetup(directory);
    std::int32_t const code =
        ConfigurationSetup_SetAttribute(setup.get(), options.m_File.c_str(), options.m_Name.c_str(), value.c_str());
    if (code != KVX_OK) {
        throw ToolFailure("cannot change " + options.m_File, code);
    }
    session.json()["file"] = options.m_File;
    session.json()["name"] = options.m_Name;
    session.json()["value"] = value;
    session.line(options.m_Name + " of " + options.m_File + " is \"" + value + '"');
}

void addFile(CLI::App& command, std::string& file) {
    command.add_option("file", file, "file of the directory, such as settings.xml")
        ->type_name("ACCOUNT-FILE")
        ->required();
}

}  // namespace

void addGet(CommandLine& line) {
    auto const options = std::make_shared<ValueOptions>();
    CLI::App* const command =
        addCommand(line, line.m_App, "get", "print a value of a file of the directory", Needs::kDirectory,
                   [options](Session& session) { getValue(session, *options); });
    command->footer(
        "Prints the value byte by byte; on a terminal, control characters become escapes. Private keys are not "
        "printed.");
    addFile(*command, options->m_File);
    command->add_option("name", options->m_Name, "name of the value, such as VTURL; the whole file without it")
        ->type_name("NAME");
}

void addSet(CommandLine& line) {
    auto const options = std::make_shared<ValueOptions>();
    CLI::App* const command =
        addCommand(line, line.m_App, "set", "change a value of a file of the directory", Needs::kDirectory,
                   [options](Session& session) { setValue(session, *options); });
    command->footer(
        "Replaces one value and keeps the others. settings.xml is made when it is missing; other files must exist. The "
        "file "
        "keeps its first element only.");
    addFile(*command, options->m_File);
    command->add_option("name", options->m_Name, "name of the value, such as TLSVERIFY")->type_name("NAME")->required();
    CLI::Option* const value = command->add_option("value", options->m_Value, "the new value")->type_name("VALUE");
    command->add_flag("--stdin", options->m_FromInput, "read the value from standard input")->excludes(value);
}

}  // namespace tool
