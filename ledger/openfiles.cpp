#include "ledger/openfiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <vector>

#include "ledger/failure.h"
#include "ledger/processlock.h"
#include "tallowin/codes.h"

namespace ledger {

namespace {

using Entry = OpenFile::Entry;

/// Under the lock of the process.
std::vector<Entry>& entries() {
    static auto* const s_Entries = new std::vector<Entry>;  // outlives every connection
    return *s_Entries;
}

bool isSameFile(Entry const& one, Entry const& other) {
    return one.m_Device == other.m_Device && one.m_Number == other.m_Number;
}

}  // namespace

OpenFile::OpenFile(std::string const& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        throw Failure(KVX_E_LEDGER_CANNOT_OPEN, path + ": " + std::generic_category().message(errno));
    }
    m_Entry = {status.st_dev, status.st_ino, ::getpid()};
    std::lock_guard<std::mutex> const guard(processLock());
    for (Entry const& entry : entries()) {
        if (isSameFile(entry, m_Entry) && entry.m_Process != m_Entry.m_Process) {
            throw Failure(KVX_E_LEDGER_FORKED, path + ": process " + std::to_string(entry.m_Process) +
                                                   " had it open when it forked this one: fork first, then open it");
        }
    }
    entries().push_back(m_Entry);
}

OpenFile::~OpenFile() {
    if (m_IsAbandoned) {
        return;
    }
    std::lock_guard<std::mutex> const guard(processLock());
    auto const found = std::find_if(entries().begin(), entries().end(), [&](Entry const& entry) {
        return isSameFile(entry, m_Entry) && entry.m_Process == m_Entry.m_Process;
    });
    if (found != entries().end()) {
        entries().erase(found);
    }
}

}  // namespace ledger
