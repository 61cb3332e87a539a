/// Files of a configuration directory, changed so that a kill and loss of power leave the old or the new content.
///
/// Every function throws Failure: KVX_E_FILE_IO with the path and the system's words. Each change on disk is a point at
/// which tests end the process.
#ifndef TALLOWIN_LEDGER_SETUPFILES_H
#define TALLOWIN_LEDGER_SETUPFILES_H

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ledger {

/// A text whose bytes are wiped at the end of its life. Move-only.
class WipedText {
public:
    WipedText() = default;
    explicit WipedText(std::string text) : m_Text(std::move(text)) {}
    WipedText(WipedText&& other) noexcept;
    WipedText& operator=(WipedText&& other) noexcept;
    WipedText(WipedText const&) = delete;
    WipedText& operator=(WipedText const&) = delete;
    ~WipedText() { wipe(); }

    [[nodiscard]] std::string const& get() const { return m_Text; }

private:
    void wipe() noexcept;

    std::string m_Text;
};

/// The content of the file without the zero bytes at its end; nothing when there is no such file.
std::optional<WipedText> readFile(std::string const& path);

/// Whether there is anything at `path`.
bool isThere(std::string const& path);

/// Whether the folder is there, and this process may search and change it.
bool mayChange(std::string const& folder);

/// The number that the file system has for the file at `path`.
std::uint64_t numberOf(std::string const& path);

/// The names in the folder but those that begin with a dot; none when there is no such folder.
std::vector<std::string> namesIn(std::string const& folder);

/// Owner and mode of a new file.
struct FileModel {
    uid_t m_User;
    gid_t m_Group;
    mode_t m_Mode;
};

/// Those of the file at `path`; nothing when there is none.
std::optional<FileModel> modelOf(std::string const& path);

/// For a new file that its owner alone may read: this process's user, or for root the owner of `folder`.
FileModel newFileIn(std::string const& folder);

/// Gives the file the content, on disk when the function returns: a new file takes its name. Changes nothing when the
/// content is there already. An existing file keeps owner and mode, a new one gets those of `model`. A symbolic link is
/// followed.
void replaceFile(std::string const& path, std::string const& content, FileModel const& model);

/// Creates the folder, for its owner only, unless it is there. Root gives it to the owner of the folder above. Its name
/// is on disk when the function returns.
void createFolder(std::string const& path);

/// Gives the folder another name in the same folder. Requires: nothing has that name.
void renameFolder(std::string const& from, std::string const& to);

/// Removes the folder with all that is in it, if it is there. A kill may leave a part of it.
void removeFolder(std::string const& path);

/// A lock, which ends with the object or with the process. It is not waited for.
class FileLock {
public:
    enum class Kind {
        kShared,    ///< On a folder that is there.
        kExclusive  ///< On a file, which is created when it is not there.
    };

    FileLock(std::string const& path, Kind kind);
    FileLock(FileLock const&) = delete;
    FileLock& operator=(FileLock const&) = delete;
    ~FileLock();

    /// Whether a process has a lock that excludes this one.
    [[nodiscard]] bool isTaken() const { return m_IsTaken; }

private:
    int m_File;
    bool m_IsTaken = false;
};

}  // namespace ledger

#endif
