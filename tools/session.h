/// One run of a command: its common options, and what it reports.
#ifndef TALLOWIN_TOOLS_SESSION_H
#define TALLOWIN_TOOLS_SESSION_H

#include <nlohmann/json.hpp>
#include <string>

#include "tools/standardstreams.h"
#include "tools/toolfailure.h"

namespace tool {

using Json = nlohmann::ordered_json;

/// How a piece of text stands out on a terminal.
enum class Emphasis { kPlain, kStrong, kGood, kBad, kWarning };

/// Collects what a command reports, for people and as JSON, and writes one of the two at the end.
///
/// People get lines on standard output; colours and progress only on a terminal. With --json standard output is one
/// JSON object, also after a failure; docs/command-line.md describes it.
class Session {
public:
    explicit Session(StandardStreams const& streams);

    /// The options --dir and --json; the command line writes to them.
    std::string m_Directory;
    bool m_IsJson = false;

    /// The command's name, such as "keys list"; set before it runs.
    std::string m_Command;

    /// The configuration directory as an absolute path. UsageError when neither --dir nor TALLOWIN_DIR named one.
    [[nodiscard]] std::string directory() const;

    /// The same, for commands that need an account: ToolFailure, with a cure, unless it has been set up.
    [[nodiscard]] std::string accountDirectory() const;

    /// Adds a line for people; controls in `text` become escapes.
    void line(std::string const& text, Emphasis emphasis = Emphasis::kPlain);

    /// Adds text for people byte by byte, with a line end; on a terminal its controls become escapes.
    void value(std::string const& text);

    /// The object of --json, for members that the command adds.
    [[nodiscard]] Json& json() { return m_Json; }

    /// Reports something that did not stop the command: on standard error at once, and in the member "warnings".
    void warn(std::string const& text);

    /// The command ran and the answer is no: exit status 1 without a message.
    void setNegative() { m_IsPositive = false; }

    /// Whether progress is shown: for people, with standard error on a terminal.
    [[nodiscard]] bool showsProgress() const;

    /// `text` in colours when standard output shows them.
    [[nodiscard]] std::string emphasised(std::string const& text, Emphasis emphasis) const;

    [[nodiscard]] StandardStreams const& streams() const { return m_Streams; }

    /// Writes the report. Returns the exit status.
    int finish();

    /// Writes what went wrong instead. Returns the exit status.
    int fail(ToolFailure const& failure);

private:
    StandardStreams const& m_Streams;
    std::string m_Lines;
    Json m_Json = Json::object();
    bool m_IsPositive = true;
};

/// A value for JSON: bytes that are no UTF-8 are replaced when it is written.
std::string dumped(Json const& value);

}  // namespace tool

#endif
