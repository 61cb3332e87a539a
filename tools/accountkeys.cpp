// A set-up makes a key pair first and names it in `keys/current` last. In between the pair looks like a left-over, so
// no key goes that is younger than the current one, or was replaced only lately: a process may still hold a message
// that it signs with its key.

#include "tools/accountkeys.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <map>

#include "tools/accountfiles.h"
#include "tools/toolfailure.h"
#include "tools/toolobjects.h"

namespace tool {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

std::int64_t modified(std::string const& folder, std::string const& id) {
    struct stat status = {};
    return fileStatus(folder + '/' + id, status) ? modificationTime(status) : 0;
}

std::map<std::string, AccountKey> halvesOf(std::string const& directory) {
    std::map<std::string, AccountKey> keys;
    std::string const publicKeys = directory + "/keys/public";
    std::string const privateKeys = directory + "/keys/private";
    for (std::string const& id : filesIn(publicKeys)) {
        AccountKey& key = keys[id];
        key.m_HasPublic = true;
        key.m_Made = modified(publicKeys, id);
    }
    for (std::string const& id : filesIn(privateKeys)) {
        AccountKey& key = keys[id];
        key.m_HasPrivate = true;
        key.m_Made = modified(privateKeys, id);
    }
    for (auto& [id, key] : keys) {
        key.m_Id = id;
    }
    return keys;
}

KeyKind kindOf(AccountKey const& key, std::string const& current, std::int64_t currentMade, std::string const& server) {
    if (key.m_Id == current) {
        return KeyKind::kCurrent;
    }
    if (key.m_HasPrivate) {
        return currentMade != 0 && key.m_Made < currentMade ? KeyKind::kOld : KeyKind::kNew;
    }
    return key.m_Id == server ? KeyKind::kServer : KeyKind::kOther;
}

void removeFile(std::string const& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw ToolFailure(systemFailure("cannot remove " + path, errno));
    }
}

}  // namespace

char const* kindText(KeyKind kind) {
    switch (kind) {
        case KeyKind::kCurrent:
            return "current";
        case KeyKind::kOld:
            return "old";
        case KeyKind::kNew:
            return "new";
        case KeyKind::kServer:
            return "server";
        case KeyKind::kOther:
            break;
    }
    return "other";
}

std::vector<AccountKey> keysOf(std::string const& directory) {
    std::string const current = currentKeyOf(directory);
    std::string const server = configuredValue(directory, "config.xml", "VTKEYID");
    std::map<std::string, AccountKey> const halves = halvesOf(directory);
    auto const own = halves.find(current);
    std::int64_t const currentMade = own == halves.end() || !own->second.m_HasPrivate ? 0 : own->second.m_Made;
    std::vector<AccountKey> keys;
    for (auto const& row : halves) {
        keys.push_back(row.second);
        keys.back().m_Kind = kindOf(row.second, current, currentMade, server);
    }
    std::stable_sort(keys.begin(), keys.end(), [](AccountKey const& left, AccountKey const& right) {
        return left.m_HasPrivate != right.m_HasPrivate ? left.m_HasPrivate : left.m_Made > right.m_Made;
    });
    for (std::size_t index = 1; index < keys.size() && keys[index].m_HasPrivate; ++index) {
        keys[index].m_Replaced = keys[index - 1].m_Made;
    }
    return keys;
}

std::string reasonToKeep(AccountKey const& key, std::int64_t now, std::int64_t ageSeconds) {
    switch (key.m_Kind) {
        case KeyKind::kCurrent:
            return "it signs new messages";
        case KeyKind::kNew:
            return "a set-up may be publishing it";
        case KeyKind::kServer:
        case KeyKind::kOther:
            return "it is not an own key";
        case KeyKind::kOld:
            break;
    }
    return now - key.m_Replaced < ageSeconds * kSecond ? "a process may still sign with it" : "";
}

bool removeKey(std::string const& directory, AccountKey const& key) {
    if (currentKeyOf(directory) == key.m_Id) {
        return false;
    }
    removeFile(directory + "/keys/public/" + key.m_Id);
    removeFile(directory + "/keys/private/" + key.m_Id);
    return true;
}

std::string momentText(std::int64_t nanoseconds) {
    std::time_t const moment = static_cast<std::time_t>(nanoseconds / kSecond);
    std::tm time = {};
    char text[40] = "";
    if (::gmtime_r(&moment, &time) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &time);
    }
    return text;
}

}  // namespace tool
