// Looks at files with stat() and opens none of the keys. Whether a user may read a file follows from owner, groups and
// mode alone: that works for every user, without becoming one.

#include "tools/accountfiles.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tools/descriptor.h"
#include "tools/toolfailure.h"

namespace tool {

namespace {

bool isAbsence(int error) {
    return error == ENOENT || error == ENOTDIR;
}

bool writeWhole(int file, std::string const& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        ssize_t const count = ::write(file, content.data() + done, content.size() - done);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return ::fsync(file) == 0;
}

/// The entry of the user database for a name, or else for a number.
passwd entryOf(std::string const& name, std::vector<char>& memory) {
    passwd entry = {};
    passwd* found = nullptr;
    memory.resize(65536);
    ::getpwnam_r(name.c_str(), &entry, memory.data(), memory.size(), &found);
    bool const isNumber =
        !name.empty() && name.size() < 10 && name.find_first_not_of("0123456789") == std::string::npos;
    if (found == nullptr && isNumber) {
        auto const number = static_cast<uid_t>(std::stoul(name));
        ::getpwuid_r(number, &entry, memory.data(), memory.size(), &found);
    }
    if (found == nullptr) {
        throw UsageError("this system has no user " + name);
    }
    return entry;
}

std::vector<gid_t> groupsOf(passwd const& entry) {
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
        groups.resize(std::max(static_cast<std::size_t>(count), 2 * groups.size()));
        count = static_cast<int>(groups.size());
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

}  // namespace

bool fileStatus(std::string const& path, struct stat& status) {
    if (::stat(path.c_str(), &status) == 0) {
        return true;
    }
    if (!isAbsence(errno)) {
        throw ToolFailure(systemFailure("cannot look at " + path, errno));
    }
    return false;
}

std::int64_t modificationTime(struct stat const& status) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    constexpr std::int64_t kFirst = -(std::int64_t{1} << 32);
    constexpr std::int64_t kLast = std::int64_t{1} << 33;
    return std::clamp(std::int64_t{status.st_mtim.tv_sec}, kFirst, kLast) * kSecond + status.st_mtim.tv_nsec;
}

std::vector<std::string> filesIn(std::string const& path) {
    Folder const folder(::opendir(path.c_str()));
    if (folder == nullptr) {
        if (isAbsence(errno)) {
            return {};
        }
        throw ToolFailure(systemFailure("cannot read the folder " + path, errno));
    }
    std::vector<std::string> names;
    std::string const prefix = path + '/';
    errno = 0;
    while (dirent const* const entry = ::readdir(folder.get())) {
        std::string const name = entry->d_name;
        struct stat status = {};
        bool const isFile = ::lstat((prefix + name).c_str(), &status) == 0 && S_ISREG(status.st_mode);
        if (isFile && name[0] != '.') {
            names.push_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw ToolFailure(systemFailure("cannot read the folder " + path, errno));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string forbiddenLinkIn(std::string const& directory) {
    for (char const* folder : {"/keys", "/keys/public", "/keys/private"}) {
        struct stat status = {};
        std::string const path = directory + folder;
        if (::geteuid() == 0 && ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
            return path;
        }
    }
    return "";
}

std::string currentKeyOf(std::string const& directory) {
    constexpr std::size_t kMaxFileName = 255;
    std::string const path = directory + "/keys/current";
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (file.get() < 0) {
        if (isAbsence(errno)) {
            return "";
        }
        throw ToolFailure(systemFailure("cannot open " + path, errno));
    }
    char content[kMaxFileName + 1] = "";
    ssize_t const count = ::read(file.get(), content, sizeof content - 1);
    if (count < 0) {
        throw ToolFailure(systemFailure("cannot read " + path, errno));
    }
    return content;  // A file that was written in place may end in zero bytes.
}

mode_t underMask(mode_t mode) {
    mode_t const mask = ::umask(0);  // It can only be read by setting it.
    ::umask(mask);
    return mode & ~mask;
}

void writeNewFile(std::string const& path, std::string const& content, mode_t mode) {
    std::string temporary = path + ".XXXXXX";
    Descriptor const file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (file.get() < 0) {
        throw ToolFailure(systemFailure("cannot write " + path, errno));
    }
    bool const isWritten = writeWhole(file.get(), content) && ::fchmod(file.get(), mode) == 0 &&
                           ::link(temporary.c_str(), path.c_str()) == 0;
    int const error = errno;
    ::unlink(temporary.c_str());
    if (!isWritten && error != EEXIST) {
        throw ToolFailure(systemFailure("cannot write " + path, error));
    }
    std::string const folder = std::filesystem::path(path).parent_path().string();
    Descriptor const parent(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ::fsync(parent.get());
}

std::string modeText(mode_t mode) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%04o", static_cast<unsigned>(mode & 07777U));
    return digits;
}

std::string userName(uid_t user) {
    std::vector<char> memory(65536);
    passwd entry = {};
    passwd* found = nullptr;
    ::getpwuid_r(user, &entry, memory.data(), memory.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(user);
}

SystemUser::SystemUser(std::string const& name) {
    std::vector<char> memory;
    passwd const entry = entryOf(name, memory);
    m_Name = entry.pw_name;
    m_User = entry.pw_uid;
    m_Groups = groupsOf(entry);
}

bool SystemUser::may(struct stat const& status, unsigned wanted) const {
    if (m_User == 0) {
        return true;
    }
    bool const isInGroup = std::find(m_Groups.begin(), m_Groups.end(), status.st_gid) != m_Groups.end();
    unsigned const shift = status.st_uid == m_User ? 6 : isInGroup ? 3 : 0;
    return ((status.st_mode >> shift) & wanted) == wanted;
}

std::vector<std::string> obstaclesFor(SystemUser const& user, std::string const& directory) {
    constexpr unsigned kRead = 4;
    constexpr unsigned kSearch = 1;
    std::vector<std::string> obstacles;
    struct stat status = {};
    auto const look = [&](std::string const& path, unsigned wanted) {
        if (fileStatus(path, status) && !user.may(status, wanted)) {
            obstacles.push_back("user " + user.name() + " cannot " + (wanted == kRead ? "read " : "search ") + path +
                                ": owner " + userName(status.st_uid) + ", mode " + modeText(status.st_mode));
        }
    };
    std::string walked;
    for (std::filesystem::path const& part : std::filesystem::path(directory)) {
        walked += walked.empty() || walked == "/" ? "" : "/";
        walked += part.string();
        look(walked, kSearch);
    }
    for (char const* folder : {"/keys", "/keys/public", "/keys/private"}) {
        look(directory + folder, kSearch);
    }
    for (char const* file : {"/config.xml", "/default.xml", "/settings.xml", "/keys/current"}) {
        look(directory + file, kRead);
    }
    std::string const current = currentKeyOf(directory);
    if (!current.empty() && current.find('/') == std::string::npos) {
        look(directory + "/keys/private/" + current, kRead);
        look(directory + "/keys/public/" + current, kRead);
    }
    return obstacles;
}

}  // namespace tool
