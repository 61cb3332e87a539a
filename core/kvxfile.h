/// Files of the configuration directory: read whole, replaced whole and durably. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXFILE_H
#define TALLOWIN_CORE_KVXFILE_H

#include <sys/types.h>

#include "foundation/tbstringstream.h"

/// Owns a file descriptor.
class KvxDescriptor {
public:
    explicit KvxDescriptor(int file) noexcept : m_File(file) {}
    KvxDescriptor(KvxDescriptor const&) = delete;
    KvxDescriptor& operator=(KvxDescriptor const&) = delete;
    ~KvxDescriptor() { close(); }

    [[nodiscard]] int get() const noexcept { return m_File; }
    [[nodiscard]] bool isOpen() const noexcept { return m_File >= 0; }

    /// Passes the descriptor to the caller.
    int release() noexcept {
        int const file = m_File;
        m_File = -1;
        return file;
    }

    /// Closes now; false when the system reports that data was lost.
    bool close() noexcept;

private:
    int m_File;  ///< -1 when none.
};

/// Opens `path` for reading, close-on-exec. -1 and `errno` on failure; a directory cannot be opened (EISDIR).
int kvxOpenForReading(char const* path) noexcept;

enum class KvxReadResult {
    kDone,
    kAbsent,       ///< The system says that there is no such file.
    kNameTooLong,  ///< A file of this name cannot exist there.
    kDirectory,
    kCannotOpen,  ///< It is there, or may be.
    kCannotRead,  ///< The output holds the part that was read.
};

/// Appends the whole file to `out`.
[[nodiscard]] KvxReadResult kvxReadFile(char const* path, TbStringStream& out);

/// Reads up to `bytes` bytes; fewer only at the end of the file. -1 on failure. `bytes` may be more than the buffer has
/// room for, as long as the file is not.
ssize_t kvxReadUpTo(int file, void* buffer, std::size_t bytes) noexcept;

/// Writes all `bytes` bytes. False on failure.
bool kvxWriteAll(int file, void const* data, std::size_t bytes) noexcept;

enum class KvxWriteResult {
    kDone,
    kCannotOpen,   ///< Nothing was touched.
    kCannotWrite,  ///< The old content stays where the file could be replaced as a whole. When only the directory
                   ///< could not be synchronised, the new content is there and may not survive a crash of the machine.
};

/// Replaces the content of `path` by `bytes` bytes at `data`.
///
/// A new file beside it takes its name once the data is on disk, so a reader, a kill or a full disk finds the old or
/// the new content whole. Owner and mode of the old file are kept; a new one gets `mode` less the process's umask. A
/// symbolic link is followed. A target that is no regular file, or that no file can be made beside, is written in
/// place. Temporary files of dead processes in the directory are removed.
KvxWriteResult kvxReplaceFile(char const* path, void const* data, std::size_t bytes, mode_t mode);

#endif
