// The armed faults, and the calls that make ports refuse connections.
// take() returns the oldest fault that fits an exchange and removes it after its last time. Faults with a number to
// skip count every exchange that fits, also one that another fault happens to: "the third capture" is the third one.
// The fault "refuse" is never taken: the listener is called after every change with the time until which each port
// refuses. m_Notifying makes these calls one at a time and in order.
#include "sandbox/faults/faultregistry.h"

#include <algorithm>
#include <utility>

namespace sandbox {

namespace {

using Steady = std::chrono::steady_clock;

bool canHappenTo(Fault const& fault, ExchangeKind kind) {
    return fault.m_Exchange ? fault.m_Exchange == kind : happensTo(faultRow(fault.m_Kind), kind);
}

FaultRegistry::Moment refusedUntil(Fault const& fault) {
    if (!fault.m_Seconds) {
        return FaultRegistry::Moment::max();
    }
    return Steady::now() +
           std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(*fault.m_Seconds));
}

}  // namespace

void FaultRegistry::setRefusalListener(RefusalListener listener) {
    std::lock_guard<std::mutex> const notifying(m_Notifying);
    m_Listener = std::move(listener);
}

std::int64_t FaultRegistry::arm(Fault const& fault) {
    checkFault(fault);
    ArmedFault armed;
    armed.m_Fault = fault;
    if (fault.m_Kind == FaultKind::kRefuse) {
        armed.m_RefusesUntil = refusedUntil(fault);
    }
    std::int64_t const id = m_Armed.add(std::move(armed));
    notifyRefusalListener();
    return id;
}

bool FaultRegistry::lift(std::int64_t id) {
    bool const found = m_Armed.remove(id);
    notifyRefusalListener();
    return found;
}

void FaultRegistry::liftAll(std::optional<std::string> const& account) {
    m_Armed.removeAll(account);
    notifyRefusalListener();
}

std::vector<ArmedFault> FaultRegistry::armed(std::optional<std::string> const& account) {
    m_Armed.removeIf([now = Steady::now()](ArmedFault const& armed) {
        return armed.m_Fault.m_Kind == FaultKind::kRefuse && armed.m_RefusesUntil <= now;
    });
    return m_Armed.all(account);
}

std::optional<Fault> FaultRegistry::take(ExchangeKind kind, std::string const& order, std::string const& account,
                                         CanHappen const& canHappen) {
    auto const ready = [kind, &order, &account](ArmedFault& armed) {
        Fault const& fault = armed.m_Fault;
        // Connections are refused by the listener: no exchange comes of them.
        bool const fits = fault.m_Kind != FaultKind::kRefuse && canHappenTo(fault, kind) &&
                          (fault.m_Order.empty() || fault.m_Order == order) &&
                          (fault.m_Account.empty() || fault.m_Account == account);
        bool const passes = fits && armed.m_Passed < fault.m_Skip;
        armed.m_Passed += passes ? 1 : 0;
        return fits && !passes;
    };
    std::optional<ArmedFault> const taken =
        m_Armed.take(ready, [&canHappen](ArmedFault const& armed) { return !canHappen || canHappen(armed.m_Fault); });
    return taken ? std::optional<Fault>(taken->m_Fault) : std::nullopt;
}

std::optional<Fault> FaultRegistry::takeForConnection(bool tls) {
    // Faults of connections are limited to no order and no account.
    return tls ? take(ExchangeKind::kConnection, "") : std::nullopt;
}

void FaultRegistry::notifyRefusalListener() {
    std::lock_guard<std::mutex> const notifying(m_Notifying);
    Moment connection{};
    Moment proxy{};
    for (ArmedFault const& armed : this->armed()) {
        if (armed.m_Fault.m_Kind == FaultKind::kRefuse) {
            bool const ofProxy = armed.m_Fault.m_Exchange == ExchangeKind::kProxy;
            Moment& until = ofProxy ? proxy : connection;
            until = std::max(until, armed.m_RefusesUntil);
        }
    }
    if (m_Listener) {
        m_Listener(ExchangeKind::kConnection, connection);
        m_Listener(ExchangeKind::kProxy, proxy);
    }
}

}  // namespace sandbox
