#ifndef TALLOWIN_EXAMPLES_SHOP_MERCHANTACCOUNT_H
#define TALLOWIN_EXAMPLES_SHOP_MERCHANTACCOUNT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "calllog.h"

namespace storefront {

/// A merchant's account at the payment service, and its configuration directory. Any thread may call any function at
/// any time.
class MerchantAccount {
public:
    /// `service` is the service's set-up address.
    MerchantAccount(std::string directory, std::string service, std::string user, std::string password)
        : m_Directory(std::move(directory)),
          m_Service(std::move(service)),
          m_User(std::move(user)),
          m_Password(std::move(password)) {}

    [[nodiscard]] std::string const& directory() const { return m_Directory; }

    /// Registers the directory with the service when that has not been done in the directory's life. Network. Throws
    /// std::runtime_error.
    void setUpOnce();

    /// Registers once more, which imports the key that the service signs with now. Network.
    ///
    /// Whoever has a visitor's address can make the shop call this, so after a success there is none for half a minute:
    /// meanwhile callers get what the last time brought. A few callers wait for one that is under way, but not for
    /// long.
    void setUpAgain(CallLog& calls);

private:
    [[nodiscard]] std::int32_t setUp() const;

    std::string m_Directory;
    std::string m_Service;
    std::string m_User;
    std::string m_Password;
    std::mutex m_Mutex;               ///< Guards all below.
    std::condition_variable m_Ended;  ///< A set-up has ended.
    bool m_SettingUp = false;
    int m_Waiting = 0;                                  ///< So many wait for it.
    std::chrono::steady_clock::time_point m_Next = {};  ///< Before this there is no other.
};

}  // namespace storefront

#endif
