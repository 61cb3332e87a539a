/// Files of the configuration directory: read whole, replaced whole and durably. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXFILE_H
#define TALLOWIN_CORE_KVXFILE_H

#include <sys/types.h>

#include "foundation/tblocalstring.h"

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

/// Opens the directory `path`, close-on-exec. -1 and `errno` on failure; ENOTDIR for anything else than a directory.
int kvxOpenDirectory(char const* path) noexcept;

enum class KvxReadResult {
    kDone,
    kAbsent,       ///< The system says that there is no such file.
    kNameTooLong,  ///< A file of this name cannot exist there.
    kDirectory,
    kCannotOpen,  ///< It is there, or may be.
    kCannotRead,  ///< The output holds the part that was read.
};

/// Appends the whole file to `out`. `errno` has the system's word when the result is not kDone.
[[nodiscard]] KvxReadResult kvxReadFile(char const* path, TbString& out);

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

/// How a file is written.
struct KvxWriteOptions {
    mode_t m_Mode = 0666;    ///< Of a new file, less the process's umask.
    bool m_IsExact = false;  ///< The mode holds whatever the umask.
    bool m_Syncs = true;     ///< The content is on disk before the call returns.
};

/// Replaces the content of `path` by `bytes` bytes at `data`.
///
/// A new file beside it takes its name once the data is on disk, so a reader, a kill or a full disk finds the old or
/// the new content whole. Owner and mode of the old file are kept. A symbolic link is followed, also to a file that
/// does not exist yet. Temporary files of dead processes in the directory are removed.
///
/// `errno` has the system's word when the result is not kDone.
///
/// A target that no file can be made beside is written in place, by one write. There too a kill between two system
/// calls and a full disk leave the old or the new content; the new one may be followed by padding, see
/// kvxWithoutPadding(). A target that is no regular file is written plainly.
KvxWriteResult kvxReplaceFile(char const* path, void const* data, std::size_t bytes, KvxWriteOptions const& options);

/// Synchronises the directory that holds the new directory `path`, where the system allows it. False and `errno` when
/// the new one may not survive a crash of the machine.
[[nodiscard]] bool kvxSyncNewDirectory(TbString const& path);

/// `content` without the zero bytes at its end.
///
/// A shorter content that is written in place has the old length for a moment, or for good when the writer dies then.
/// It is padded with zero bytes: no key id and no key holds one, texts end at one for callers of the flat functions,
/// and what stands behind the last tag of a document is dropped. Readers of whole files drop the padding by this
/// function.
[[nodiscard]] TbString kvxWithoutPadding(TbString const& content);

/// The content of a file of the directory; those of usual size need no allocation.
using KvxFileText = TbLocalString<2048>;

/// The hexadecimal text of a signature; one with a key of up to 2048 bits needs no allocation.
using KvxSignatureText = TbLocalString<520>;

/// The length of kvxWithoutPadding().
[[nodiscard]] std::uint32_t kvxLengthWithoutPadding(TbString const& content) noexcept;

#endif
