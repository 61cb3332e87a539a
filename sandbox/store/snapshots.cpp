// Snapshots: one SQLite file each, with the note as one more setting.
// A snapshot is copied beside its name and renamed, so that a name never stands for half a copy. Before it replaces the
// content of the store its layout is looked at; one of another layout is refused, and nothing changes.
#include "sandbox/store/snapshots.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

namespace files = std::filesystem;

constexpr char kSuffix[] = ".db";
constexpr char kNote[] = "snapshot note";
constexpr std::size_t kMaxName = 64;
constexpr char kNameCharacters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";

}  // namespace

std::vector<Snapshots::Entry> Snapshots::all() const {
    std::vector<Entry> found;
    std::error_code missing;
    for (files::directory_entry const& file : files::directory_iterator(m_Directory, missing)) {
        struct stat status {};
        if (file.path().extension() == kSuffix && ::stat(file.path().c_str(), &status) == 0) {
            found.push_back(
                {file.path().stem().string(), utcText(status.st_mtime), static_cast<std::uintmax_t>(status.st_size)});
        }
    }
    std::sort(found.begin(), found.end(), [](Entry const& a, Entry const& b) { return a.m_Name < b.m_Name; });
    return found;
}

bool Snapshots::save(std::string const& name, std::string const& note) {
    std::string const file = fileOf(name);
    std::string const fresh = file + ".new";
    std::lock_guard<std::mutex> const lock(m_Mutex);
    bool const isNew = !files::exists(file);
    if (isNew && all().size() >= kMax) {
        throw HttpError("there are " + std::to_string(kMax) + " snapshots already: remove one first",
                        httpstatus::kConflict);
    }
    ::mkdir(m_Directory.c_str(), S_IRWXU);
    files::remove(fresh);
    {
        Database copy(fresh);
        m_Store.copyTo(copy);
        copy.run("INSERT OR REPLACE INTO settings (name, value) VALUES (?, ?)", kNote, note);
    }
    files::rename(fresh, file);
    return isNew;
}

std::string Snapshots::note(std::string const& name) {
    Database copy(existing(name), Database::Access::kRead);
    Statement row = copy.prepare("SELECT value FROM settings WHERE name = ?", kNote);
    return row.step() ? row.column(0) : "";
}

void Snapshots::restore(std::string const& name) {
    std::string const file = existing(name);
    std::lock_guard<std::mutex> const lock(m_Mutex);
    Database copy(file);
    Store::prepareTables(copy, file);
    m_Store.replaceBy(copy);
    m_Store.setSetting(kNote, "");
}

void Snapshots::remove(std::string const& name) {
    std::string const file = existing(name);
    std::lock_guard<std::mutex> const lock(m_Mutex);
    files::remove(file);
}

std::string Snapshots::fileOf(std::string const& name) const {
    if (name.empty() || name.size() > kMaxName || name[0] == '.' ||
        name.find_first_not_of(kNameCharacters) != std::string::npos) {
        throw HttpError("the name of a snapshot has 1 to 64 letters, digits, '_', '-' and '.', which is not the first");
    }
    return m_Directory + "/" + name + kSuffix;
}

std::string Snapshots::existing(std::string const& name) const {
    std::string file = fileOf(name);
    if (!files::exists(file)) {
        throw HttpError("there is no snapshot '" + name + "'", httpstatus::kNotFound);
    }
    return file;
}

}  // namespace sandbox
