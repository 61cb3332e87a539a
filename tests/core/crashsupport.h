/// Accounts that a set-up is interrupted in, and the check of what an interruption has left.
#ifndef TALLOWIN_TESTS_CORE_CRASHSUPPORT_H
#define TALLOWIN_TESTS_CORE_CRASHSUPPORT_H

#include <set>
#include <string>

#include "tests/core/coresupport.h"
#include "tests/support/systemcalls.h"

namespace kvxtest {

/// The files of an account that are written by a set-up. An empty text: there is no such file.
struct AccountFiles {
    std::string m_Configuration;
    std::string m_Defaults;
    std::string m_ServerKey;  ///< Of the key id kServerKeyId.
    std::string m_KeyId;      ///< The current key's. That of another set-up is drawn anew.
};

inline constexpr char kServerKeyId[] = "vt-1";

/// What SetupServer sends: longer and shorter than the files before.
AccountFiles filesFromServer();

/// An account that was set up some time ago, with defaults that are valid, and with the test key of 512 bits as its
/// own.
AccountFiles earlierFiles();

void writeFiles(Account const& account, AccountFiles const& files);

/// Answers the requests of a set-up by their type, in any order and number: clients may die.
class SetupServer {
public:
    SetupServer();

    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + m_Server.portText() + "/auto"; }

private:
    RawServer m_Server;
};

/// What the files of an account may hold.
struct Allowed {
    /// Before a set-up from `before` to what the server sends, during it and after it.
    static Allowed during(AccountFiles const& before);
    static Allowed after(AccountFiles const& before);

    using Contents = std::set<std::string>;  ///< An empty text: the file may be absent.

    Contents m_Configuration;
    Contents m_Defaults;
    Contents m_ServerKey;
    Contents m_KeyId;               ///< Besides those of new keys.
    bool m_HasNewKey = false;       ///< The current key is a new one.
    bool m_MayHavePadding = false;  ///< Zero bytes behind the content of a file that was written in place.
    bool m_Pays = false;            ///< A payment URL can be made.
};

/// What is wrong with the account in the directory `path`, a line each. Empty: each file has a whole content that is
/// allowed, private keys have their public halves, the current key signs, and payment URLs can be made as they should.
/// Temporary files do not count.
std::string flawsOf(std::string const& path, Allowed const& allowed);

/// The temporary files in all directories of the account, a line each.
std::string temporaryFilesIn(std::string const& path);

/// No file can be made in the account's own directory and in "keys" while it lives, as without permission to write
/// there. New keys can be made.
class ClosedDirectories {
public:
    explicit ClosedDirectories(std::string const& path);

private:
    static inline std::string s_Path;

    SystemCalls m_Calls;
};

/// The value of the environment variable `name`, a number; `otherwise` without one.
std::size_t numberFrom(char const* name, std::size_t otherwise);

}  // namespace kvxtest

#endif
