/// The keys of the service, in the configuration directory and in the store.
#ifndef TALLOWIN_LEDGER_SERVICEKEYS_H
#define TALLOWIN_LEDGER_SERVICEKEYS_H

#include <sys/stat.h>

#include <optional>
#include <string>

#include "ledger/component.h"
#include "ledger/orderstore.h"

namespace ledger {

/// Which file stood at a path, and with which content, as far as its status shows.
class FileStamp {
public:
    FileStamp() = default;
    explicit FileStamp(std::string const& path);

    /// Never equal for a file that is not there.
    bool operator==(FileStamp const& other) const;

private:
    struct stat m_Status {};
    bool m_Exists = false;
};

/// Says which key may sign confirmations. The current key is the one that "config.xml" names; the store remembers when
/// it was replaced.
class ServiceKeys {
public:
    ServiceKeys(Account const& account, Store& store) : m_Account(account), m_Store(store) {}

    /// The current key. Reads files only when they have changed. Throws Failure when there is none.
    ServiceKey const& current();

    /// The current key, recorded in the store unless this object has done so before. Throws Failure when there is none.
    ServiceKey const& recordCurrent(Time now);

    /// The fingerprint of the key `keyId`, when it is the service's current one, which is recorded, or an earlier one
    /// that was replaced at most `oldSeconds` before `now`. The key counts, not its id: the service may give one key
    /// another id. Requires: a signature was verified with it, so the id names a file in the directory.
    std::optional<std::string> accepted(std::string const& keyId, Time now, std::int64_t oldSeconds);

    /// Whether the private half of the key `keyId` is in the directory. Throws Failure when that cannot be seen.
    [[nodiscard]] bool isOwn(std::string const& keyId) const;

    /// Whether the public half of the key `keyId` is in the directory, and is the merchant's own or accepted(). A
    /// set-up writes the file of a key first and makes it the service's current one afterwards.
    bool isKnown(std::string const& keyId, Time now, std::int64_t oldSeconds);

private:
    [[nodiscard]] bool isHere(std::string const& keyId) const;
    [[nodiscard]] std::optional<ServiceKey> read(std::string const& keyId) const;
    [[nodiscard]] std::string path(char const* folder, std::string const& keyId) const;

    Account const& m_Account;  ///< Borrowed.
    Store& m_Store;            ///< Borrowed.
    ServiceKey m_Current;
    FileStamp m_ConfigStamp;  ///< Of the files that m_Current was read from.
    FileStamp m_KeyStamp;
    std::string m_RecordedFingerprint;  ///< Of the key that is recorded as the current one.
    std::string m_RecordedId;
};

/// Whether a file of a folder can have the name `keyId`.
bool isFileName(std::string const& keyId);

/// The id of the key that `data` names, without reading it as a message; "" when there is none that can be a file's
/// name.
std::string keyIdNamedIn(std::string const& data);

}  // namespace ledger

#endif
