/// An account directory and a payment server for calls with faults, both made without the library.
///
/// Nothing here uses the library or OpenSSL, so that a process stays cold until the call under test.
#ifndef TALLOWIN_TESTS_FAULTS_STAGE_H
#define TALLOWIN_TESTS_FAULTS_STAGE_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/systemcalls.h"

namespace kvxtest {

/// What the server serves, and what a set-up writes.
extern std::string const kServedConfig;
extern std::string const kServedDefaults;

/// The body of the response to the request `text`.
std::string bodyFor(std::string const& text);

/// A configuration directory that has been set up: an own key "own", the server's key "server", all defaults. Removes
/// what it finds at its path first and itself at the end.
class Stage {
public:
    explicit Stage(std::string path);
    Stage(Stage const&) = delete;
    Stage& operator=(Stage const&) = delete;
    ~Stage();

    [[nodiscard]] std::string const& path() const { return m_Path; }
    void write(std::string const& name, std::string const& content) const;
    void remove(std::string const& name) const;
    [[nodiscard]] std::string read(std::string const& name) const;

    /// Stores what the directory holds now; `whatIsBroken` compares with it.
    void remember();

    /// Looks for temporary files and for files that are neither as remembered nor completely new. `newTexts` has the
    /// new content by name. Empty when all is well.
    [[nodiscard]] std::string whatIsBroken(std::map<std::string, std::set<std::string>> const& newTexts) const;

private:
    [[nodiscard]] std::map<std::string, std::string> files() const;

    std::string m_Path;
    std::map<std::string, std::string> m_Remembered;
};

/// Stands for the network and the server while it lives: sockets are descriptors of /dev/null, a request is answered
/// when it is complete, and its response is read in pieces. An incomplete one gets no response. One at a time.
class ScriptedNetwork {
public:
    /// `bodyFor` unless a test wants another answer.
    explicit ScriptedNetwork(std::function<std::string(std::string const&)> respond = &bodyFor);
    ScriptedNetwork(ScriptedNetwork const&) = delete;
    ScriptedNetwork& operator=(ScriptedNetwork const&) = delete;
    ~ScriptedNetwork();

    /// The requests, whole or cut, in order.
    static std::vector<std::string> const& requests();
    static void forgetRequests();

private:
    SystemCalls m_Calls;
};

}  // namespace kvxtest

#endif
