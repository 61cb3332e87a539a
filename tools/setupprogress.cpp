#include "tools/setupprogress.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <exception>

#include "tools/accountfiles.h"

namespace tool {

namespace {

constexpr std::chrono::milliseconds kInterval(50);

struct Step {
    char const* m_File;  ///< A file, or a folder when it ends in "/".
    char const* m_Text;
};

constexpr std::array<Step, SetupProgress::kSteps> kStepRows = {{
    {"config.xml", "configuration of the account"},
    {"default.xml", "defaults of the account"},
    {"keys/public/", "key of the service"},
    {"keys/private/", "new key pair"},
    {"keys/current", "publication of the new key"},
}};

}  // namespace

SetupProgress::SetupProgress(Session const& session, std::string directory) : m_Directory(std::move(directory)) {
    if (!session.showsProgress()) {
        return;
    }
    for (std::size_t step = 0; step < kSteps; ++step) {
        m_Before[step] = filesOf(step);
    }
    showWaiting();
    m_Watcher = std::thread([this] { watch(); });
}

SetupProgress::~SetupProgress() {
    if (!m_Watcher.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_HasEnded = true;
    }
    m_Ended.notify_one();
    m_Watcher.join();
    StandardStreams::writeError("\r\033[K");
}

SetupProgress::Files SetupProgress::filesOf(std::size_t step) const {
    std::string const name = kStepRows[step].m_File;
    std::string const path = m_Directory + '/' + name;
    bool const isFolder = name.back() == '/';
    Files files;
    try {
        for (std::string const& file : isFolder ? filesIn(path) : std::vector<std::string>{""}) {
            struct stat status = {};
            if (::stat((path + file).c_str(), &status) == 0) {
                files.emplace(file, status.st_ino);
            }
        }
    } catch (std::exception const&) {
        return files;  // The set-up reports what it cannot use; this only watches.
    }
    return files;
}

void SetupProgress::watch() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Ended.wait_for(lock, kInterval, [this] { return m_HasEnded; })) {
        look();
    }
    look();
}

void SetupProgress::look() {
    std::size_t done = kSteps;
    while (done > m_Done && filesOf(done - 1) == m_Before[done - 1]) {
        --done;
    }
    if (done == m_Done) {
        return;
    }
    for (; m_Done < done; ++m_Done) {
        bool const isNew = filesOf(m_Done) != m_Before[m_Done];
        std::chrono::duration<double> const since = std::chrono::steady_clock::now() - m_Begin;
        char text[128];
        std::snprintf(text, sizeof text, "\r\033[K  %-30s %s %6.2f s\n", kStepRows[m_Done].m_Text,
                      isNew ? "done" : "kept", since.count());
        StandardStreams::writeError(text);
    }
    showWaiting();
}

void SetupProgress::showWaiting() const {
    if (m_Done < kSteps) {
        StandardStreams::writeError(std::string("  ") + kStepRows[m_Done].m_Text + " ...");
    }
}

}  // namespace tool
