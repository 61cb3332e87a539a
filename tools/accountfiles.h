/// The files of a configuration directory, as the system sees them: who owns them, and who may use them.
#ifndef TALLOWIN_TOOLS_ACCOUNTFILES_H
#define TALLOWIN_TOOLS_ACCOUNTFILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

/// Fills `status`. False when there is no such file; ToolFailure when the system does not say.
bool fileStatus(std::string const& path, struct stat& status);

/// When the file changed last: nanoseconds since 1970, of the years 1833 to 2242, so that differences fit as well.
/// Files of other years count as of the nearest of these.
std::int64_t modificationTime(struct stat const& status);

/// The names of the regular files in the folder `path`, sorted, without those that begin with a dot. An absent folder
/// has none. ToolFailure when it cannot be read.
std::vector<std::string> filesIn(std::string const& path);

/// The first of `keys`, `keys/public` and `keys/private` in `directory` that root must not change files behind, as a
/// path: a link, which the directory's owner can lead to files of the system. Empty for other users, and when there is
/// none.
std::string forbiddenLinkIn(std::string const& directory);

/// The key id in `keys/current` of the account in `directory`; empty when the file is absent. ToolFailure when it
/// cannot be read.
std::string currentKeyOf(std::string const& directory);

/// `mode` without what the process's file mode creation mask takes away. Requires: one thread.
mode_t underMask(mode_t mode);

/// Makes a file that appears whole or not at all. A file that exists already stays as it is. ToolFailure.
void writeNewFile(std::string const& path, std::string const& content, mode_t mode);

/// "0640".
std::string modeText(mode_t mode);

/// The user's name, or the number of a user without one.
std::string userName(uid_t user);

/// A user of this system with its groups.
class SystemUser {
public:
    /// By name or number. UsageError when there is none.
    explicit SystemUser(std::string const& name);

    [[nodiscard]] std::string const& name() const { return m_Name; }

    /// Whether owner, group and mode let the user do all that `wanted` says: 4 read, 2 write, 1 search. Access control
    /// lists are not looked at.
    [[nodiscard]] bool may(struct stat const& status, unsigned wanted) const;

private:
    std::string m_Name;
    uid_t m_User;
    std::vector<gid_t> m_Groups;
};

/// What keeps `user` from signing and verifying with the account in `directory`, a sentence each: folders on the way
/// that it cannot search, files that it cannot read.
std::vector<std::string> obstaclesFor(SystemUser const& user, std::string const& directory);

}  // namespace tool

#endif
