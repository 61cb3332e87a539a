// The armed faults, and the calls that make ports refuse connections.
// take() returns the oldest fault that fits an exchange and removes it after its last time. Faults with a number to
// skip count every exchange that fits, also one that another fault happens to: "the third capture" is the third one.
// The fault "refuse" is never taken: the listener is called after every change with the time until which each port
// refuses. m_Notifying makes these calls one at a time and in order. m_Mutex is not held during them.
#include "sandbox/faults/faultregistry.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sandbox {

namespace {

using Steady = std::chrono::steady_clock;

bool canHappenTo(Fault const& fault, ExchangeKind kind) {
    unsigned const exchanges =
        fault.m_Exchange ? static_cast<unsigned>(*fault.m_Exchange) : faultRow(fault.m_Kind).m_Exchanges;
    return (exchanges & static_cast<unsigned>(kind)) != 0;
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
    std::int64_t id = 0;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        ArmedFault armed;
        armed.m_Id = ++m_LastId;
        armed.m_Fault = fault;
        if (fault.m_Kind == FaultKind::kRefuse) {
            armed.m_RefusesUntil = refusedUntil(fault);
        }
        m_Armed.push_back(armed);
        id = armed.m_Id;
    }
    notifyRefusalListener();
    return id;
}

bool FaultRegistry::lift(std::int64_t id) {
    bool const found = removeIf([id](ArmedFault const& armed) { return armed.m_Id == id; });
    notifyRefusalListener();
    return found;
}

void FaultRegistry::liftAll(std::optional<std::string> const& account) {
    removeIf([&account](ArmedFault const& armed) { return !account || armed.m_Fault.m_Account == *account; });
    notifyRefusalListener();
}

/// False when none matches.
template <class Matches>
bool FaultRegistry::removeIf(Matches matches) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    auto const kept = std::remove_if(m_Armed.begin(), m_Armed.end(), matches);
    bool const any = kept != m_Armed.end();
    m_Armed.erase(kept, m_Armed.end());
    return any;
}

std::vector<ArmedFault> FaultRegistry::armed(std::optional<std::string> const& account) {
    Moment const now = Steady::now();
    removeIf([now](ArmedFault const& armed) {
        return armed.m_Fault.m_Kind == FaultKind::kRefuse && armed.m_RefusesUntil <= now;
    });
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::vector<ArmedFault> found;
    std::copy_if(m_Armed.begin(), m_Armed.end(), std::back_inserter(found),
                 [&account](ArmedFault const& armed) { return !account || armed.m_Fault.m_Account == *account; });
    return found;
}

std::optional<Fault> FaultRegistry::take(ExchangeKind kind, std::string const& order, std::string const& account,
                                         CanHappen const& canHappen) {
    return takeFirst(
        [kind, &order, &account](Fault const& fault) {
            return canHappenTo(fault, kind) && (fault.m_Order.empty() || fault.m_Order == order) &&
                   (fault.m_Account.empty() || fault.m_Account == account);
        },
        canHappen);
}

std::optional<Fault> FaultRegistry::takeForConnection(bool tls) {
    if (!tls) {
        return std::nullopt;
    }
    return takeFirst([](Fault const& fault) { return canHappenTo(fault, ExchangeKind::kConnection); }, nullptr);
}

template <class Fits>
std::optional<Fault> FaultRegistry::takeFirst(Fits fits, CanHappen const& canHappen) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    std::optional<Fault> taken;
    auto spent = m_Armed.end();
    for (auto each = m_Armed.begin(); each != m_Armed.end(); ++each) {
        Fault const& fault = each->m_Fault;
        // Connections are refused by the listener: no exchange comes of them.
        if (fault.m_Kind == FaultKind::kRefuse || !fits(fault)) {
            continue;
        }
        if (each->m_Passed < fault.m_Skip) {
            ++each->m_Passed;
        } else if (!taken && (!canHappen || canHappen(fault))) {
            taken = fault;
            spent = ++each->m_Happened == fault.m_Times ? each : spent;
        }
    }
    if (spent != m_Armed.end()) {
        m_Armed.erase(spent);
    }
    return taken;
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
