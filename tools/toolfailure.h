/// The two ways in which a command ends without success.
#ifndef TALLOWIN_TOOLS_TOOLFAILURE_H
#define TALLOWIN_TOOLS_TOOLFAILURE_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tool {

/// The command line is wrong: exit status 2. The text is one sentence without a full stop.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The command failed: exit status 1.
class ToolFailure : public std::runtime_error {
public:
    /// A failure that the tool found itself. `hint` is a cure, or empty.
    explicit ToolFailure(std::string const& text, std::string hint = "");

    /// A failure of the library: `doing` says what was tried, such as "cannot sign the payment". Takes the library's
    /// reason. `mayHaveHappened` says whether the service may have carried it out all the same. Requires: the call that
    /// returned `code` is the last one of this thread that failed.
    ToolFailure(std::string const& doing, std::int32_t code, std::string hint = "", bool mayHaveHappened = false);

    /// A failure of another library with the same codes, and the reason that it gives.
    static ToolFailure withReason(std::string const& doing, std::int32_t code, std::string reason,
                                  std::string hint = "", bool mayHaveHappened = false);

    /// The library's result code; 0 when the tool found the failure.
    [[nodiscard]] std::int32_t code() const { return m_Code; }
    [[nodiscard]] std::string const& hint() const { return m_Hint; }

    /// What the library said about the failure: the path or the address, and the words of the system or the service;
    /// empty when the tool found the failure.
    [[nodiscard]] std::string const& reason() const { return m_Reason; }

    /// Whether the service may have carried out what failed here.
    [[nodiscard]] bool mayHaveHappened() const { return m_MayHaveHappened; }

private:
    std::int32_t m_Code = 0;
    std::string m_Hint;
    std::string m_Reason;
    bool m_MayHaveHappened = false;
};

/// Raises a ToolFailure unless `code` is KVX_OK.
void require(std::int32_t code, char const* doing);

/// "cannot open FILE: no such file or directory", for the system's `error` number.
std::string systemFailure(std::string const& doing, int error);

/// "0x80040213 KVX_E_SERVER_ERROR (the request failed)"; "errno 20 ENOTDIR (Not a directory)" for the system's numbers.
std::string codeText(std::int32_t code);

/// "KVX_E_SERVER_ERROR"; "ENOTDIR" for the system's numbers; empty for a number that is no code.
std::string codeName(std::int32_t code);

/// "0x80040213"; "20" for the system's numbers.
std::string codeNumber(std::int32_t code);

/// The library's text of a code, or the system's for a number of its own; empty when there is none.
std::string codeMeaning(std::int32_t code);

}  // namespace tool

#endif
