#ifndef TALLOWIN_SANDBOX_FAULTS_FAULTREGISTRY_H
#define TALLOWIN_SANDBOX_FAULTS_FAULTREGISTRY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/armedlist.h"
#include "sandbox/faults/fault.h"

namespace sandbox {

/// A fault that waits for its exchange.
struct ArmedFault {
    std::int64_t m_Id = 0;  ///< Counts up from 1.
    Fault m_Fault = {};
    std::int64_t m_Happened = 0;                                ///< How often so far.
    std::int64_t m_Passed = 0;                                  ///< How many exchanges it has let pass.
    std::chrono::steady_clock::time_point m_RefusesUntil = {};  ///< Of refused connections; max() until it is lifted.

    [[nodiscard]] std::string const& account() const { return m_Fault.m_Account; }
    [[nodiscard]] std::int64_t times() const { return m_Fault.m_Times; }
};

/// The faults that are armed, in memory only: a new service has none. Every member may be called by any thread.
class FaultRegistry {
public:
    using Moment = std::chrono::steady_clock::time_point;

    /// Called when the end of refusing changes, with the kind (kConnection or kProxy) and the end. A moment in the past
    /// means that connections are accepted. Not called by two threads at once.
    using RefusalListener = std::function<void(ExchangeKind kind, Moment until)>;

    /// `listener` is null or called until it is replaced by null.
    void setRefusalListener(RefusalListener listener);

    /// Arms `fault` and returns its identifier. Throws HttpError when it cannot happen.
    std::int64_t arm(Fault const& fault);

    /// False when none has this identifier.
    bool lift(std::int64_t id);

    /// Removes all; with `account` those that are limited to it.
    void liftAll(std::optional<std::string> const& account = {});

    /// Those that may still happen, oldest first; with `account` those that are limited to it.
    [[nodiscard]] std::vector<ArmedFault> armed(std::optional<std::string> const& account = {});

    /// Whether a fault that fits an exchange can happen to it. Called under the lock: it must not call the registry.
    using CanHappen = std::function<bool(Fault const& fault)>;

    /// The oldest fault that is armed for an exchange of this kind, order and account, counted as having happened. A
    /// fault that `canHappen` rules out stays armed; empty rules out none. Faults that let exchanges pass first count
    /// this one, whatever happens to it.
    std::optional<Fault> take(ExchangeKind kind, std::string const& order, std::string const& account = "",
                              CanHappen const& canHappen = nullptr);

    /// The same for a connection before its request; the faults of TLS are for connections under TLS.
    std::optional<Fault> takeForConnection(bool tls);

private:
    void notifyRefusalListener();

    std::mutex m_Notifying;  ///< Held while the listener is called. Guards it.
    RefusalListener m_Listener;
    ArmedList<ArmedFault> m_Armed;
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_FAULTS_FAULTREGISTRY_H
