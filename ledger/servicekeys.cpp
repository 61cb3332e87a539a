#include "ledger/servicekeys.h"

#include <cerrno>
#include <cstddef>
#include <system_error>

#include "ledger/byteforms.h"
#include "ledger/failure.h"

namespace ledger {

namespace {

constexpr char kConfig[] = "config.xml";
constexpr char kPublic[] = "keys/public/";
constexpr char kPrivate[] = "keys/private/";

constexpr char kQuotes[] = "\"'";
constexpr char kSpaces[] = " \t\r\n";

/// Whether `text`, which stands between two values of attributes, ends with "KEYID=" as a name of its own. Spaces may
/// stand around the sign.
bool endsWithNameOfKeyId(std::string text) {
    static std::string const kName = "KEYID";
    auto const trim = [&] { text.erase(text.find_last_not_of(kSpaces) + 1); };
    trim();
    if (text.empty() || text.back() != '=') {
        return false;
    }
    text.pop_back();
    trim();
    return text.substr(text.find_last_of(kSpaces) + 1) == kName;
}

}  // namespace

bool isFileName(std::string const& keyId) {
    constexpr std::size_t kMaxName = 255;
    return !keyId.empty() && keyId.size() <= kMaxName && keyId != "." && keyId != ".." &&
           keyId.find('/') == std::string::npos;
}

FileStamp::FileStamp(std::string const& path) : m_Exists(::stat(path.c_str(), &m_Status) == 0) {}

bool FileStamp::operator==(FileStamp const& other) const {
    return m_Exists && other.m_Exists && m_Status.st_dev == other.m_Status.st_dev &&
           m_Status.st_ino == other.m_Status.st_ino && m_Status.st_size == other.m_Status.st_size &&
           m_Status.st_mtim.tv_sec == other.m_Status.st_mtim.tv_sec &&
           m_Status.st_mtim.tv_nsec == other.m_Status.st_mtim.tv_nsec;
}

ServiceKey const& ServiceKeys::current() {
    FileStamp const config(m_Account.directory() + "/" + kConfig);
    if (config == m_ConfigStamp && FileStamp(path(kPublic, m_Current.m_KeyId)) == m_KeyStamp) {
        return m_Current;
    }
    std::string const keyId = m_Account.value(kConfig, "VTKEYID").value_or("");
    if (!isFileName(keyId)) {
        throw Failure(KVX_E_NO_CONFIGURATION, m_Account.directory() + "/" + kConfig + ": has no VTKEYID");
    }
    FileStamp const keyStamp(path(kPublic, keyId));
    std::optional<ServiceKey> const key = read(keyId);
    if (!key) {
        throw Failure(KVX_E_CANNOT_OPEN, path(kPublic, keyId) + ": the service's key is not there");
    }
    m_Current = *key;
    m_ConfigStamp = config;
    m_KeyStamp = keyStamp;
    return m_Current;
}

ServiceKey const& ServiceKeys::recordCurrent(Time now) {
    ServiceKey const& key = current();
    if (m_RecordedFingerprint == key.m_Fingerprint && m_RecordedId == key.m_KeyId) {
        return key;
    }
    std::optional<ServiceKey> const stored = m_Store.keyWithFingerprint(key.m_Fingerprint);
    if (!stored || stored->m_ReplacedAt || stored->m_KeyId != key.m_KeyId) {
        inTransaction(m_Store.database(), [&] {
            m_Store.setCurrentKey(key, now);
            return true;
        });
    }
    m_RecordedFingerprint = key.m_Fingerprint;
    m_RecordedId = key.m_KeyId;
    return key;
}

std::optional<std::string> ServiceKeys::accepted(std::string const& keyId, Time now, std::int64_t oldSeconds) {
    ServiceKey const& newest = recordCurrent(now);
    if (keyId == newest.m_KeyId) {
        return newest.m_Fingerprint;
    }
    std::optional<ServiceKey> const key = read(keyId);
    std::optional<ServiceKey> const stored =
        key ? m_Store.keyWithFingerprint(key->m_Fingerprint) : std::optional<ServiceKey>();
    if (!stored) {
        return std::nullopt;
    }
    bool const isTooOld = stored->m_ReplacedAt && now - *stored->m_ReplacedAt > oldSeconds * kSecond;
    return isTooOld ? std::nullopt : std::optional<std::string>(stored->m_Fingerprint);
}

bool ServiceKeys::isOwn(std::string const& keyId) const {
    struct stat status {};
    std::string const file = path(kPrivate, keyId);
    if (!isFileName(keyId)) {
        return false;
    }
    if (::stat(file.c_str(), &status) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        throw Failure(KVX_E_CANNOT_OPEN, file + ": " + std::generic_category().message(errno));
    }
    return false;
}

bool ServiceKeys::isKnown(std::string const& keyId, Time now, std::int64_t oldSeconds) {
    return isHere(keyId) && (isOwn(keyId) || accepted(keyId, now, oldSeconds));
}

bool ServiceKeys::isHere(std::string const& keyId) const {
    struct stat status {};
    return isFileName(keyId) && ::stat(path(kPublic, keyId).c_str(), &status) == 0;
}

std::optional<ServiceKey> ServiceKeys::read(std::string const& keyId) const {
    std::optional<std::string> const text = m_Account.value(kPublic + keyId, "");
    if (!text) {
        return std::nullopt;
    }
    ServiceKey key;
    std::string const der = bytesOf(*text);
    key.m_KeyId = keyId;
    key.m_Blob = hexOf(der);
    key.m_Fingerprint = hexOf(sha256Of(der));
    return key;
}

std::string ServiceKeys::path(char const* folder, std::string const& keyId) const {
    return m_Account.directory() + "/" + folder + keyId;
}

std::string keyIdNamedIn(std::string const& data) {
    std::size_t begin = 0;
    for (std::size_t at = data.find_first_of(kQuotes); at != std::string::npos; at = data.find_first_of(kQuotes, at)) {
        std::size_t const end = data.find(data[at], at + 1);
        if (end == std::string::npos) {
            break;
        }
        if (endsWithNameOfKeyId(data.substr(begin, at - begin))) {
            std::string const keyId = data.substr(at + 1, end - at - 1);
            return isFileName(keyId) ? keyId : "";
        }
        begin = at = end + 1;
    }
    return "";
}

}  // namespace ledger
