/// The steps of a set-up, shown while it runs.
#ifndef TALLOWIN_TOOLS_SETUPPROGRESS_H
#define TALLOWIN_TOOLS_SETUPPROGRESS_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "tools/session.h"

namespace tool {

/// Shows on a terminal which of a set-up's exchanges have ended. The set-up writes a file after each, so the files are
/// looked at while it runs. With checks of keys it writes the first three together; then these appear at once.
class SetupProgress {
public:
    /// Begins; does nothing when the session shows no progress.
    SetupProgress(Session const& session, std::string directory);
    SetupProgress(SetupProgress const&) = delete;
    SetupProgress& operator=(SetupProgress const&) = delete;

    /// Removes the line of the step that has not ended.
    ~SetupProgress();

    static constexpr std::size_t kSteps = 5;

private:
    /// The files of a folder, or one file: names and inodes. Replacing a file changes its inode.
    using Files = std::set<std::pair<std::string, std::uint64_t>>;
    [[nodiscard]] Files filesOf(std::size_t step) const;
    void watch();
    void look();
    void showWaiting() const;

    std::string m_Directory;
    std::array<Files, kSteps> m_Before;
    std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
    std::size_t m_Done = 0;  ///< Steps that have been shown as done.
    std::mutex m_Mutex;
    std::condition_variable m_Ended;
    bool m_HasEnded = false;
    std::thread m_Watcher;  ///< Not running when no progress is shown.
};

}  // namespace tool

#endif
