/// The keys of an account: which there are, what they are for, and which may go.
#ifndef TALLOWIN_TOOLS_ACCOUNTKEYS_H
#define TALLOWIN_TOOLS_ACCOUNTKEYS_H

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

enum class KeyKind {
    kCurrent,  ///< Signs new messages.
    kOld,      ///< Own; signed messages of an earlier set-up.
    kNew,      ///< Own; made after the current one, by a set-up that has not ended or has failed.
    kServer,   ///< Signs confirmations.
    kOther,    ///< Public half only: an earlier key of the server.
};

struct AccountKey {
    std::string m_Id;
    KeyKind m_Kind = KeyKind::kOther;
    bool m_HasPrivate = false;
    bool m_HasPublic = false;
    std::int64_t m_Made = 0;      ///< Nanoseconds since 1970; the private half's, where there is one.
    std::int64_t m_Replaced = 0;  ///< When the next own key was made; 0 for the last one.
};

/// "current", "old", "new", "server" or "other".
char const* kindText(KeyKind kind);

/// All keys, own ones first, the youngest of them first. ToolFailure when the folders cannot be read.
std::vector<AccountKey> keysOf(std::string const& directory);

/// Why an own key stays when keys replaced longer than `ageSeconds` ago are removed; empty when it goes.
std::string reasonToKeep(AccountKey const& key, std::int64_t now, std::int64_t ageSeconds);

/// Removes both halves of an own key, the public one first: without it an address that the key signed verifies no more.
/// False when the key has become the current one. ToolFailure when a file cannot be removed.
bool removeKey(std::string const& directory, AccountKey const& key);

/// "2026-01-31 23:59:59 UTC".
std::string momentText(std::int64_t nanoseconds);

}  // namespace tool

#endif
