// The doctor's checks of files: the directory, its owner, modes, temporary files that were left behind, and documents.
//
// What is right for a document is asked of the library: the doctor reads a value with it and explains its refusal. Only
// the reason, such as "cut off", is found here. Repairs: modes that let others in, and temporary files that no process
// holds a lock on, which is how the library tells them too.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tools/accountfiles.h"
#include "tools/descriptor.h"
#include "tools/doctor.h"
#include "tools/toolfailure.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;

constexpr mode_t kOwnerReads = 0400;
constexpr mode_t kGroup = 0070;
constexpr mode_t kOthers = 0007;
constexpr mode_t kOthersWrite = 0002;

constexpr std::array<char const*, 4> kFolders = {"", "/keys", "/keys/public", "/keys/private"};

constexpr char kRestoreConfiguration[] = "restore it from a backup, or delete it and repeat the set-up: tallowin setup";

std::vector<std::string> hiddenFilesIn(std::string const& path) {
    Folder const folder(::opendir(path.c_str()));
    std::vector<std::string> names;
    while (folder != nullptr) {
        dirent const* const entry = ::readdir(folder.get());
        if (entry == nullptr) {
            break;
        }
        names.emplace_back(entry->d_name);
    }
    return names;
}

bool beginsWith(std::string const& text, std::string const& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool endsWith(std::string const& text, std::string const& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// --- Modes

/// One file or folder with a mode that lets others in.
void repairMode(Examination const& examination, std::string const& name, mode_t mode, mode_t better,
                std::string const& text) {
    std::string const path = examination.path(name);
    std::string const change = modeText(better) + " " + path;
    if (examination.m_Options.m_Repairs && ::chmod(path.c_str(), better) == 0) {
        return examination.m_Report.repaired("modes", text,
                                             "mode " + modeText(mode) + " changed to " + modeText(better));
    }
    examination.m_Report.problem("modes", text, "chmod " + change + ", or tallowin doctor --repair");
}

void examineMode(Examination const& examination, std::string const& name, bool isPrivateKey) {
    struct stat status = {};
    if (!fileStatus(examination.path(name), status)) {
        return;
    }
    mode_t const mode = status.st_mode & 07777U;
    std::string const shown = name.empty() ? "the directory" : name;
    if (isPrivateKey && (mode & kOthers) != 0) {
        repairMode(examination, name, mode, mode & ~kOthers,
                   "every user of this machine can use the private key " + name + ": mode " + modeText(mode));
    } else if ((mode & kOthersWrite) != 0 && (mode & S_ISVTX) == 0) {
        repairMode(examination, name, mode, mode & ~kOthersWrite,
                   "every user of this machine can change " + shown + ": mode " + modeText(mode));
    } else if (status.st_uid == ::geteuid() && (mode & kOwnerReads) == 0) {
        repairMode(examination, name, mode, mode | kOwnerReads,
                   "its owner cannot read " + shown + ": mode " + modeText(mode));
    }
    // A shop may sign as a member of the group, so this is for people to decide.
    if (isPrivateKey && (mode & kGroup) != 0 && valueIn(examination, "settings.xml", "KEYMODE").empty()) {
        examination.m_Report.warning("modes",
                                     "the group of the private key " + name + " can use it: mode " + modeText(mode),
                                     "chmod 0600 " + examination.path(name) +
                                         "; or, when the shop needs it, say so: KEYMODE=\"0640\" in settings.xml");
    }
}

// --- Documents

/// Why the library refuses `text` as a document.
std::string damageOf(std::string const& text) {
    if (text.empty()) {
        return "is empty";
    }
    if (beginsWith(text, "<?xml") || beginsWith(text, "<!")) {
        return "has an XML declaration or a comment, which the library does not read";
    }
    if (text[0] != '<') {
        return "is no XML";
    }
    if (text.back() != '>' && text.find_last_not_of(" \t\r\n") < text.size() &&
        text[text.find_last_not_of(" \t\r\n")] != '>') {
        return "is cut off: it does not end with >";
    }
    std::string const root = text.substr(1, text.find_first_of(" />\t\r\n", 1) - 1);
    if (root != "KVX") {
        return "has the root element " + root + " instead of KVX";
    }
    return "is damaged: it is not well-formed";
}

/// Whether the library can read values of the document `name`; adds a finding when it cannot.
bool examineDocument(Examination const& examination, std::string const& name, bool isRequired,
                     std::string const& cure) {
    struct stat status = {};
    if (!fileStatus(examination.path(name), status)) {
        if (isRequired) {
            examination.m_Report.problem("files", name + " is missing", cure);
        }
        return !isRequired;
    }
    std::string text;
    std::string reason;
    if (!readSmallFile(examination.path(name), text, reason)) {
        examination.m_Report.problem("files", name + " " + reason,
                                     "compare owner and mode with the user of the shop; " + cure);
        return false;
    }
    try {
        configuredValue(examination.m_Directory, name, "MSGTYPE");
        return true;
    } catch (ToolFailure const& failure) {
        if (failure.code() == KVX_E_INVALID_FORMAT) {
            examination.m_Report.problem("files", name + " " + damageOf(text), cure);
        } else {
            examination.m_Report.problem("files", "the library cannot read " + name + ": " + codeText(failure.code()),
                                         cure);
        }
        return false;
    }
}

void requireValue(Examination const& examination, std::string const& file, std::string const& name,
                  std::string const& use) {
    if (valueIn(examination, file, name).empty()) {
        examination.m_Report.problem("files", file + " has no " + name + ": " + use,
                                     "repeat the set-up: tallowin setup");
    }
}

bool isNumber(std::string const& text) {
    return text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
}

bool isVersion(std::string const& text) {
    return text == "1.0" || text == "1.1" || text == "1.2" || text == "1.3";
}

bool isSwitch(std::string const& text) {
    return text == "0" || text == "1";
}

bool isKeyMode(std::string const& text) {
    bool const isOctal = text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos;
    unsigned long const mode = isOctal ? std::stoul(text, nullptr, 8) : 0;
    return isOctal && (mode & ~0660UL) == 0 && (mode & kOwnerReads) != 0;
}

bool isDigest(std::string const& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool isReadableFile(std::string const& text) {
    std::error_code error;
    return std::filesystem::is_regular_file(text, error) && ::access(text.c_str(), R_OK) == 0;
}

struct SettingRow {
    char const* m_Name;
    bool (*m_IsValid)(std::string const& value);
    char const* m_Meaning;  ///< Of a malformed value.
};

// clang-format off
constexpr std::array<SettingRow, 18> kSettings = {{
    {"CONNECTTIMEOUT", isNumber,       "is no number and counts as absent"},
    {"IOTIMEOUT",      isNumber,       "is no number and counts as absent"},
    {"TOTALTIMEOUT",   isNumber,       "is no number and counts as absent"},
    {"MAXRESPONSE",    isNumber,       "is no number and counts as absent"},
    {"MAXXML",         isNumber,       "is no number and counts as absent"},
    {"MAXDEPTH",       isNumber,       "is no number and counts as absent"},
    {"MINKEYBITS",     isNumber,       "is no number and counts as absent"},
    {"TLSVERIFY",      isSwitch,       "is neither 0 nor 1 and counts as on"},
    {"STRICTKEYS",     isSwitch,       "is neither 0 nor 1 and counts as on"},
    {"STRICTCONFIRM",  isSwitch,       "is neither 0 nor 1 and counts as on"},
    {"STRICTSIG",      isSwitch,       "is neither 0 nor 1 and counts as on"},
    {"STRICTNAMES",    isSwitch,       "is neither 0 nor 1 and counts as on"},
    {"SENDHOST",       isSwitch,       "is neither 0 nor 1 and counts as absent"},
    {"TLSMIN",         isVersion,      "is no version of TLS and counts as 1.2"},
    {"KEYMODE",        isKeyMode,      "is no mode for a key and counts as 0600"},
    {"KEYPIN",         isDigest,       "is no SHA-256, so every server key is refused"},
    {"TLSCAFILE",      isReadableFile, "names no file that can be read, so every server is refused"},
    {"PROXYPORT",      isNumber,       "is no port"},
}};
// clang-format on

void examineSettings(Examination const& examination) {
    for (SettingRow const& row : kSettings) {
        std::string const value = valueIn(examination, "settings.xml", row.m_Name);
        if (!value.empty() && !row.m_IsValid(value)) {
            examination.m_Report.problem(
                "settings", std::string(row.m_Name) + "=\"" + value + "\" in settings.xml " + row.m_Meaning,
                "correct it in settings.xml");
        }
    }
    if (!examination.m_Report.hasFinding("settings")) {
        std::string const profile = valueIn(examination, "settings.xml", "PROFILE");
        examination.m_Report.good("settings", profile.empty()
                                                  ? "no profile: the library checks what single settings name"
                                                  : "profile " + profile);
    }
}

}  // namespace

std::string valueIn(Examination const& examination, std::string const& file, std::string const& name) {
    try {
        return configuredValue(examination.m_Directory, file, name);
    } catch (ToolFailure const&) {
        return "";
    }
}

bool readSmallFile(std::string const& path, std::string& content, std::string& reason) {
    Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status = {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        reason = systemFailure("cannot be opened", errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        reason = "is no file";
        return false;
    }
    std::string text(kMaxBytes + 1, '\0');
    std::size_t length = 0;
    ssize_t count = 1;
    while (count > 0 && length < text.size()) {
        count = ::read(file.get(), text.data() + length, text.size() - length);
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    if (count < 0 || length > kMaxBytes) {
        reason = count < 0 ? systemFailure("cannot be read", errno) : "is longer than a megabyte";
        return false;
    }
    text.resize(length);
    text.erase(text.find_last_not_of('\0') + 1);
    content = text;
    return true;
}

void replaceFile(std::string const& path, std::string const& content, unsigned mode) {
    struct stat status = {};
    mode_t const wanted = fileStatus(path, status) ? status.st_mode & 07777U : mode;
    // A name that the check of leftovers finds, should this be killed.
    std::string const folder = std::filesystem::path(path).parent_path().string();
    std::string const fresh = folder + "/.tallowin-doctor.tmp";
    ::unlink(fresh.c_str());
    writeNewFile(fresh, content, wanted);
    // When root repairs, the file stays the shop's.
    bool const isOwned = fileStatus(folder, status) &&
                         (status.st_uid == ::geteuid() || ::lchown(fresh.c_str(), status.st_uid, status.st_gid) == 0);
    if (!isOwned || ::rename(fresh.c_str(), path.c_str()) != 0) {
        int const error = errno;
        ::unlink(fresh.c_str());
        throw ToolFailure(systemFailure("cannot replace " + path, error));
    }
}

bool examineDirectory(Examination const& examination) {
    DoctorReport& report = examination.m_Report;
    std::string const& path = examination.m_Directory;
    struct stat status = {};
    if (!fileStatus(path, status)) {
        report.problem("directory", path + " does not exist", "set it up: tallowin setup --dir DIR URL --user USER");
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        report.problem("directory", path + " is no directory",
                       "move the file away, then set up: tallowin setup --dir DIR URL --user USER");
        return false;
    }
    if (::access(path.c_str(), R_OK | X_OK) != 0) {
        report.problem("directory", systemFailure("cannot open " + path, errno),
                       "run as its owner, " + userName(status.st_uid) + ", or as the user of the shop");
        return false;
    }
    report.good("directory", path + ", owner " + userName(status.st_uid) + ", mode " + modeText(status.st_mode));
    std::string const user =
        examination.m_Options.m_User.empty() ? userName(::geteuid()) : examination.m_Options.m_User;
    std::string const owner = userName(status.st_uid);
    std::string const cure = "chown -R " + user + " " + path + ", or run the shop as " + owner;
    for (std::string const& obstacle : obstaclesFor(SystemUser(user), path)) {
        report.problem("owner", obstacle, cure);
    }
    std::string const command = "chown " + owner + ' ';
    for (char const* folder : kFolders) {
        std::string const place = path + folder;
        std::string const prefix = place + '/';
        for (std::string const& name : filesIn(place)) {
            std::string const file = prefix + name;
            struct stat entry = {};
            if (fileStatus(file, entry) && entry.st_uid != status.st_uid) {
                report.warning("owner",
                               file.substr(path.size() + 1) + " belongs to " + userName(entry.st_uid) +
                                   ", the directory to " + owner,
                               command + file);
            }
        }
    }
    if (!report.hasFinding("owner")) {
        report.good("owner", "user " + user + " can read all that signing and verifying need");
    }
    return true;
}

bool mayRepair(Examination const& examination) {
    std::string const link = forbiddenLinkIn(examination.m_Directory);
    if (!link.empty()) {
        examination.m_Report.problem("directory", link + " is a link, behind which root repairs nothing",
                                     "repair as the owner of the directory, or put a folder in its place");
    }
    return link.empty();
}

void examineModes(Examination const& examination) {
    std::size_t const before = examination.m_Report.findings().size();
    for (char const* folder : kFolders) {
        std::string const prefix = *folder == '/' ? std::string(folder + 1) + '/' : "";
        examineMode(examination, *folder == '/' ? folder + 1 : "", false);
        for (std::string const& name : filesIn(examination.m_Directory + folder)) {
            examineMode(examination, prefix + name, std::string(folder) == "/keys/private");
        }
    }
    if (examination.m_Report.findings().size() == before) {
        examination.m_Report.good("modes", "no other user can use the keys or change the files");
    }
}

void examineLeftovers(Examination const& examination) {
    std::size_t const before = examination.m_Report.findings().size();
    for (char const* folder : kFolders) {
        for (std::string const& name : hiddenFilesIn(examination.m_Directory + folder)) {
            if (!beginsWith(name, ".tallowin-") || !endsWith(name, ".tmp")) {
                continue;
            }
            std::string const path = examination.m_Directory + folder + '/' + name;
            Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
            if (file.get() >= 0 && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
                continue;  // A living writer holds it.
            }
            std::string const text = "a temporary file was left behind: " + path;
            if (examination.m_Options.m_Repairs && ::unlink(path.c_str()) == 0) {
                examination.m_Report.repaired("leftovers", text, "removed");
            } else {
                examination.m_Report.warning("leftovers", text, "rm " + path + ", or tallowin doctor --repair");
            }
        }
    }
    if (examination.m_Report.findings().size() == before) {
        examination.m_Report.good("leftovers", "no temporary files");
    }
}

bool examineDocuments(Examination const& examination) {
    bool const hasSettings = examineDocument(
        examination, "settings.xml", false,
        "write it again by hand; an empty one is <KVX/>, the recommended one <KVX PROFILE=\"strict\"/>");
    bool const hasConfig = examineDocument(examination, "config.xml", true, kRestoreConfiguration);
    examineDocument(examination, "default.xml", true, kRestoreConfiguration);
    if (hasConfig) {
        requireValue(examination, "config.xml", "VTURL", "payment URLs cannot be made");
        requireValue(examination, "config.xml", "CAPTUREURL", "payments cannot be captured");
        requireValue(examination, "config.xml", "CUSTOMERID", "keys cannot be named");
    }
    if (!examination.m_Report.hasFinding("files")) {
        examination.m_Report.good("files", "config.xml, default.xml and settings.xml can be read");
    }
    if (hasSettings) {
        examineSettings(examination);
    }
    return hasSettings && hasConfig;
}

}  // namespace tool
