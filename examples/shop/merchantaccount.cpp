#include "merchantaccount.h"

#include <tallowin/tallowin.h>

#include <stdexcept>
#include <system_error>

#include "../common/libraryhandle.h"
#include "../common/missingfile.h"
#include "../common/printable.h"

namespace storefront {

namespace {

constexpr std::chrono::seconds kSetUpInterval{30};
constexpr std::chrono::seconds kSetUpIntervalAfterFailure{2};
constexpr std::chrono::seconds kSetUpWait{5};
constexpr int kMaxWaiting = 8;

void must(char const* action, std::int32_t code) {
    if (code != KVX_OK) {
        throw std::runtime_error(std::string(action) + ": " + examples::resultText(code));
    }
}

}  // namespace

void MerchantAccount::setUpOnce() {
    examples::SetupHandle const setup(CreateConfigurationSetup());
    std::int32_t const chosen = ConfigurationSetup_SetConfiguration(setup.get(), m_Directory.c_str());
    if (chosen > 0) {  // an errno of the system
        throw std::runtime_error("the directory \"" + m_Directory +
                                 "\" cannot be made: " + std::generic_category().message(chosen));
    }
    must("choosing the directory", chosen);
    // A set-up writes the current key id last.
    examples::CopiedText const key = examples::copiedText([&](std::int32_t* size, char* buffer) {
        return ConfigurationSetup_GetAttribute(setup.get(), "keys/current", "", size, buffer);
    });
    if (key.m_Code != KVX_E_CANNOT_OPEN || !examples::isMissing(m_Directory + "/keys/current")) {
        must("reading keys/current", key.m_Code);  // a new set-up would replace the key
        return;
    }
    must("registering",
         ConfigurationSetup_Reconfigure(setup.get(), m_Service.c_str(), m_User.c_str(), m_Password.c_str()));
}

void MerchantAccount::setUpAgain(CallLog& calls) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (m_SettingUp) {
        if (m_Waiting < kMaxWaiting) {
            ++m_Waiting;
            m_Ended.wait_for(lock, kSetUpWait, [this] { return !m_SettingUp; });
            --m_Waiting;
        }
        return;
    }
    if (std::chrono::steady_clock::now() < m_Next) {
        return;
    }
    m_SettingUp = true;
    lock.unlock();
    std::int32_t const code = setUp();
    lock.lock();
    m_SettingUp = false;
    m_Next = std::chrono::steady_clock::now() + (code == KVX_OK ? kSetUpInterval : kSetUpIntervalAfterFailure);
    m_Ended.notify_all();
    calls.push_back({"ConfigurationSetup_Reconfigure", examples::resultText(code)});
}

std::int32_t MerchantAccount::setUp() const {
    examples::SetupHandle const setup(CreateConfigurationSetup());
    std::int32_t const chosen = ConfigurationSetup_SetConfiguration(setup.get(), m_Directory.c_str());
    return chosen != KVX_OK
               ? chosen
               : ConfigurationSetup_Reconfigure(setup.get(), m_Service.c_str(), m_User.c_str(), m_Password.c_str());
}

}  // namespace storefront
