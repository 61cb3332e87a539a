#include "core/kvxctx.h"

#include <cstdlib>
#include <memory>

#include "core/kvxdirectory.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "core/kvxlog.h"
#include "foundation/tbinplace.h"
#include "foundation/tbreleaser.h"
#include "foundation/tbsystem.h"

namespace {

/// Permissions of a new directory, before the process's umask.
constexpr mode_t kDirectoryMode = 0777;

bool canOpenDirectory(char const* path) {
    KvxDescriptor directory(kvxOpenDirectory(path));
    return directory.isOpen() && directory.close();
}

/// Makes a directory that survives a crash of the machine. False and `errno` on failure.
bool makeDirectory(TbString const& path) {
    return tbSystem().mkdir(path.c_str(), kDirectoryMode) == 0 && kvxSyncNewDirectory(path);
}

/// Whether opening failed for lack of descriptors or memory, which says nothing about the path.
bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

/// Needs no descriptor. Follows links, as opening does.
bool isDirectory(char const* path) {
    std::unique_ptr<char, TbReleaser<std::free>> const resolved(tbSystem().realpath(path, nullptr));
    struct ::stat status = {};
    return resolved != nullptr && tbSystem().lstat(resolved.get(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Why the directory `path` cannot be created, for people who have only the error number.
KvxCause directoryCause(TbString const& path, int error) {
    KvxCause cause = kvxFileCause(path, error);
    switch (error) {
        case ENOENT:
            cause.put(" (its parent directory is missing)");
            break;
        case EEXIST:
            cause.put(isDirectory(path.c_str()) ? " (and cannot be opened)" : " (and is no directory)");
            break;
        case ENOTDIR:
            cause.put(" (a part of the path is a file)");
            break;
        default:
            break;
    }
    return cause;
}

}  // namespace

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the path writes its room
KVX_Context::KVX_Context() {
    TbInPlaceText::giveRoom(m_Path, kPathRoom);
}

KVX_Context::KVX_Context(KVX_Context const& other) : KVX_Context() {
    KVX_Context::operator=(other);
}

KVX_Context& KVX_Context::operator=(KVX_Context const& other) {
    m_Path = other.m_Path;
    m_UserName = other.m_UserName;
    m_Password = other.m_Password;
    m_AutoUrl = other.m_AutoUrl;
    return *this;
}

void KVX_Context::Open(TbString const& path) {
    if (path.isEmpty()) {
        m_Path = GetDefaultConfiguration();
    } else {
        m_Path = path;
    }
    if (kvxLogIsOn()) {
        kvxLogEnter(m_Path);
    }
    kvx::kSourceCtx.trace(kvx::kLineOpen, "OPEN CONTEXT", m_Path);
    CreatePath(m_Path);
}

TbString KVX_Context::GetDefaultConfiguration() const {
    char path[256] = {};
    if (tbSystem().getcwd(path, sizeof path - 1) == nullptr) {
        path[0] = '\0';
    }
    return path;
}

void KVX_Context::CreatePath(TbString const& path) {
    if (!canOpenDirectory(path.c_str()) && !makeDirectory(path)) {
        int const error = errno;
        // Another process may have created it in between.
        if (error != EEXIST || !canOpenDirectory(path.c_str())) {
            if (error == EEXIST && isShortage(errno) && isDirectory(path.c_str())) {
                kvx::kSourceBase.failBecause(kvxFileCause(path, errno), KVX_E_CANNOT_OPEN, kvx::kLineCreatePath, path);
            }
            // Deliberate (directory-errno): the code is the system's own errno.
            kvx::kSourceBase.failBecause(directoryCause(path, error), error, kvx::kLineCreatePath,
                                         "KVX_Context::CreatePath(): failed to create directory");
        }
    }
}

void KVX_Context::SetOption(TbString const& name, TbString const& value) {
    // An address may hold credentials too.
    if (name == TbString("UserName")) {
        m_UserName.keepSecret();
        m_UserName = value;
    } else if (name == TbString("Password")) {
        m_Password.keepSecret();
        m_Password = value;
    } else if (name == TbString("VTAUTOURL")) {
        m_AutoUrl.keepSecret();
        m_AutoUrl = value;
    } else {
        kvx::kSourceCtx.failBecause("the options are UserName, Password and VTAUTOURL", KVX_E_INVALID_OPTION,
                                    kvx::kLineSetOption);
    }
}

void KVX_Context::LogMessage(TbString const&) {}

kvx::JoinedPath KVX_Context::pathOf(TbString const& file) const {
    return kvx::JoinedPath(m_Path, file);
}
