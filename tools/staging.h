/// A new directory that appears under its name only when it is complete.
#ifndef TALLOWIN_TOOLS_STAGING_H
#define TALLOWIN_TOOLS_STAGING_H

#include <csignal>
#include <string>
#include <thread>

namespace tool {

/// A folder beside the one to be made, with a name of its own. Unless it is published, it is removed with all it holds:
/// by the destructor, and by SIGINT, SIGTERM and SIGHUP before they end the process. A kill that cannot be caught
/// leaves it; its name begins with a dot.
///
/// One object at a time in a process. Made before other threads, since it blocks these signals for all of them.
class Staging {
public:
    /// Makes a folder beside `target`. ToolFailure.
    explicit Staging(std::string target);
    Staging(Staging const&) = delete;
    Staging& operator=(Staging const&) = delete;
    ~Staging();

    [[nodiscard]] std::string const& path() const { return m_Path; }

    /// Renames it to the target, which must be absent or an empty folder. ToolFailure otherwise.
    void publish();

private:
    void awaitSignals(int signals) const;

    std::string m_Target;
    std::string m_Path;     ///< The folder beside it, with the permissions of a new folder.
    sigset_t m_OldMask{};   ///< The signals that were blocked before.
    int m_End = -1;         ///< An event that ends the thread.
    std::thread m_Watcher;  ///< Takes the signals.
};

}  // namespace tool

#endif
