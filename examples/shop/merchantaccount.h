/// The shop's account at the payment service.
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

/// The merchant's account and its configuration directory. Any thread may call any function at any time.
class MerchantAccount {
public:
    /// `service` is the set-up address of the payment service.
    MerchantAccount(std::string directory, std::string service, std::string user, std::string password)
        : m_Directory(std::move(directory)),
          m_Service(std::move(service)),
          m_User(std::move(user)),
          m_Password(std::move(password)) {}

    [[nodiscard]] std::string const& directory() const { return m_Directory; }

    /// Sets up the directory, unless an earlier set-up succeeded. Network. Throws std::runtime_error.
    void setUpOnce();

    /// Repeats the set-up, which imports the service's current signing key. Network.
    ///
    /// Visitors can trigger this with forged messages, so there is at most one set-up in 30 seconds, or 2 after a
    /// failure; in between this returns at once. While another thread sets up, a few callers wait for it for some
    /// seconds, the others return at once.
    void setUpAgain(CallLog& calls);

private:
    [[nodiscard]] std::int32_t setUp() const;

    std::string m_Directory;
    std::string m_Service;
    std::string m_User;
    std::string m_Password;
    std::mutex m_Mutex;               ///< Guards all members below.
    std::condition_variable m_Ended;  ///< A set-up has ended.
    bool m_SettingUp = false;
    int m_Waiting = 0;                                  ///< Threads that wait for m_Ended.
    std::chrono::steady_clock::time_point m_Next = {};  ///< No further set-up before this time.
};

}  // namespace storefront

#endif
