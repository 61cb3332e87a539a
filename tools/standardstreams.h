/// Standard input, output and error of the process.
#ifndef TALLOWIN_TOOLS_STANDARDSTREAMS_H
#define TALLOWIN_TOOLS_STANDARDSTREAMS_H

#include <string>

namespace tool {

/// Takes standard output for the tool alone: what others print to descriptor 1, such as the library's record of raw
/// exchanges, goes to standard error. Descriptors 0 to 2 that are closed are opened, so that no file gets their number.
///
/// One object in the process, made first.
class StandardStreams {
public:
    StandardStreams();
    StandardStreams(StandardStreams const&) = delete;
    StandardStreams& operator=(StandardStreams const&) = delete;
    ~StandardStreams();

    /// Whether each of them is a terminal.
    [[nodiscard]] bool isInputTerminal() const;
    [[nodiscard]] bool isOutputTerminal() const;
    [[nodiscard]] bool isErrorTerminal() const;

    /// Raises ToolFailure when standard output is closed or its reader is gone. Commands that change something call it
    /// first, since they could not report what they did.
    void requireOutput() const;

    /// Writes `text` to standard output. ToolFailure when it cannot be written completely.
    void write(std::string const& text) const;

    /// Writes `text` to standard error. A failure is ignored: there is nothing left to report it with.
    static void writeError(std::string const& text);

    /// Discards what others print to descriptor 1, from now on.
    static void silenceOthers();

    /// Gives descriptor 1 back, for a program that takes the place of this one.
    void restore() const;

private:
    int m_Output = -1;  ///< Standard output; -1 when it was closed at the start.
};

}  // namespace tool

#endif
