#include "tools/session.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tools/failurereport.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr std::size_t kMaxMessage = 1000;

char const* colourOf(Emphasis emphasis) {
    switch (emphasis) {
        case Emphasis::kStrong:
            return "\033[1m";
        case Emphasis::kGood:
            return "\033[32m";
        case Emphasis::kBad:
            return "\033[31m";
        case Emphasis::kWarning:
            return "\033[33m";
        case Emphasis::kPlain:
            break;
    }
    return nullptr;
}

bool isSet(char const* name) {
    char const* const value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

bool isDumb() {
    char const* const terminal = std::getenv("TERM");
    return terminal == nullptr || std::string(terminal) == "dumb";
}

}  // namespace

Session::Session(StandardStreams const& streams) : m_Streams(streams) {}

std::string Session::directory() const {
    if (m_Directory.empty()) {
        throw UsageError("no configuration directory: give --dir DIR or set TALLOWIN_DIR");
    }
    std::error_code error;
    std::filesystem::path const path = std::filesystem::absolute(m_Directory, error);
    if (error) {
        throw ToolFailure("cannot find the current directory: " + error.message());
    }
    std::string const text = path.string();
    std::size_t const end = text.find_last_not_of('/');
    return end == std::string::npos ? "/" : text.substr(0, end + 1);
}

std::string Session::accountDirectory() const {
    std::string const path = directory();
    std::string const cure = "set it up: tallowin setup --dir DIR URL --user USER";
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        throw ToolFailure(systemFailure("cannot open the directory " + path, errno), errno == ENOENT ? cure : "");
    }
    if (!S_ISDIR(status.st_mode)) {
        throw ToolFailure(path + " is no directory");
    }
    if (::stat((path + "/keys/current").c_str(), &status) != 0) {
        int const error = errno;
        throw ToolFailure(error == ENOENT || error == ENOTDIR
                              ? "the directory " + path + " has not been set up: it has no keys/current"
                              : systemFailure("cannot open " + path + "/keys/current", error),
                          error == ENOENT ? cure : "");
    }
    return path;
}

void Session::line(std::string const& text, Emphasis emphasis) {
    m_Lines += emphasised(printable(text), emphasis) + '\n';
}

void Session::value(std::string const& text) {
    m_Lines += (m_Streams.isOutputTerminal() ? printable(text) : text) + '\n';
}

void Session::warn(std::string const& text) {
    m_Json["warnings"].push_back(text);
    if (!m_IsJson) {
        StandardStreams::writeError("tallowin " + m_Command + ": warning: " + printable(text) + '\n');
    }
}

bool Session::showsProgress() const {
    return !m_IsJson && m_Streams.isErrorTerminal();
}

std::string Session::emphasised(std::string const& text, Emphasis emphasis) const {
    char const* const colour = colourOf(emphasis);
    bool const isColoured = colour != nullptr && m_Streams.isOutputTerminal() && !isSet("NO_COLOR") && !isDumb();
    return isColoured ? colour + text + "\033[0m" : text;
}

int Session::finish() {
    if (!m_IsJson) {
        m_Streams.write(m_Lines);
        return m_IsPositive ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    Json out = {{"command", m_Command}, {"ok", m_IsPositive}};
    out.update(m_Json);
    m_Streams.write(dumped(out) + '\n');
    return m_IsPositive ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Session::fail(ToolFailure const& failure) {
    if (!m_IsJson) {
        std::string text = "tallowin " + m_Command + ": " + shortened(printable(failure.what()), kMaxMessage) + '\n';
        if (!failure.reason().empty()) {
            text += "  reason: " + shortened(printable(failure.reason()), kMaxMessage) + '\n';
        }
        if (!failure.hint().empty()) {
            text += "  " + printable(failure.hint()) + '\n';
        }
        StandardStreams::writeError(text);
        return EXIT_FAILURE;
    }
    Json error = jsonOf(failure);
    if (!failure.hint().empty()) {
        error["hint"] = failure.hint();
    }
    if (failure.mayHaveHappened()) {
        error["mayHaveHappened"] = true;
    }
    Json out = {{"command", m_Command}, {"ok", false}, {"error", error}};
    if (m_Json.contains("warnings")) {
        out["warnings"] = m_Json["warnings"];
    }
    m_Streams.write(dumped(out) + '\n');
    return EXIT_FAILURE;
}

std::string dumped(Json const& value) {
    return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tool
