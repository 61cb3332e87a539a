/// The store files that this process has open.
#ifndef TALLOWIN_LEDGER_OPENFILES_H
#define TALLOWIN_LEDGER_OPENFILES_H

#include <sys/types.h>

#include <string>

namespace ledger {

/// Lists a file as open while it lives.
///
/// SQLite keeps its locks once for each file of a process. A child of fork() inherits that list and not the locks: a
/// connection that it opens to a file of the list holds none, so another process may delete the write-ahead log under
/// it. What the child commits then is lost.
class OpenFile {
public:
    /// Throws Failure: KVX_E_LEDGER_FORKED when the file was open in a parent process when it forked this one,
    /// KVX_E_LEDGER_CANNOT_OPEN when there is no such file.
    explicit OpenFile(std::string const& path);
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;
    ~OpenFile();

    /// In a child: the file stays listed as the parent's.
    void abandon() noexcept { m_IsAbandoned = true; }

    /// Which file it is, and the process that has it open.
    struct Entry {
        dev_t m_Device;
        ino_t m_Number;
        pid_t m_Process;
    };

private:
    Entry m_Entry{};
    bool m_IsAbandoned = false;
};

}  // namespace ledger

#endif
