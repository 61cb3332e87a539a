#ifndef TALLOWIN_SANDBOX_SERVICE_KEYRING_H
#define TALLOWIN_SANDBOX_SERVICE_KEYRING_H

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sandbox/crypto/opensslholders.h"
#include "sandbox/service/serviceclock.h"
#include "sandbox/store/store.h"

namespace sandbox {

/// A key that the service signs confirmations with, or once did.
struct ServerKey {
    std::string m_Id;
    KeyHolder m_Key;
};

/// The service's own keys, kept in the store. Older keys are still available on request. May be used by any thread.
class KeyRing {
public:
    using Key = std::shared_ptr<ServerKey const>;

    /// Reads the keys of `store` and makes the first one of `bits` bits when there is none. Borrows both arguments.
    /// Throws std::runtime_error.
    KeyRing(Store& store, ServiceClock const& clock, unsigned bits);

    /// Reads the keys again, of which there is one at least, after the content of the store was replaced. Throws
    /// std::runtime_error.
    void reload();

    /// The newest key, which signs.
    [[nodiscard]] Key current() const;

    /// The key with that key id, null when there is none.
    [[nodiscard]] Key find(std::string const& id) const;

    /// Oldest first.
    [[nodiscard]] std::vector<Key> all() const;

    /// Makes a new key the current one and returns it. Throws std::runtime_error.
    Key rotate();

    /// The key before the current one; without a rotation a fresh key that was never published, named "1-SERVER-0".
    [[nodiscard]] Key stale();

    /// Whether keys of this service have, or may get, such a key id.
    static bool reserves(std::string const& id);

    /// Another key under the key id of the current one.
    [[nodiscard]] Key impostor();

private:
    Key add(std::size_t number);

    Store& m_Store;               ///< Borrowed.
    ServiceClock const& m_Clock;  ///< Borrowed.
    unsigned m_Bits;
    mutable std::mutex m_Mutex;
    std::vector<Key> m_Keys;  ///< Oldest first, never empty. Guarded by m_Mutex.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_KEYRING_H
