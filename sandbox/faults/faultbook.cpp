#include "sandbox/faults/faultbook.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace sandbox {

namespace {

using Steady = std::chrono::steady_clock;

bool canHappenTo(Fault const& fault, ExchangeKind kind) {
    unsigned const exchanges = fault.exchange ? static_cast<unsigned>(*fault.exchange) : faultRow(fault.kind).exchanges;
    return (exchanges & static_cast<unsigned>(kind)) != 0;
}

FaultBook::Moment endOfRefusal(Fault const& fault) {
    if (!fault.seconds) {
        return FaultBook::Moment::max();
    }
    return Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(*fault.seconds));
}

}  // namespace

void FaultBook::tellRefusals(RefusalListener listener) {
    std::lock_guard<std::mutex> const announcing(m_Announcing);
    m_Listener = std::move(listener);
}

std::int64_t FaultBook::arm(Fault const& fault) {
    checkFault(fault);
    std::int64_t id = 0;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        ArmedFault armed;
        armed.id = ++m_LastId;
        armed.fault = fault;
        if (fault.kind == FaultKind::Refuse) {
            armed.refusesUntil = endOfRefusal(fault);
        }
        m_Armed.push_back(armed);
        id = armed.id;
    }
    announceRefusals();
    return id;
}

bool FaultBook::lift(std::int64_t id) {
    bool found = false;
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        auto const at =
            std::find_if(m_Armed.begin(), m_Armed.end(), [id](ArmedFault const& armed) { return armed.id == id; });
        found = at != m_Armed.end();
        if (found) {
            m_Armed.erase(at);
        }
    }
    announceRefusals();
    return found;
}

void FaultBook::liftAll() {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Armed.clear();
    }
    announceRefusals();
}

std::vector<ArmedFault> FaultBook::armed() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    forgetPast();
    return m_Armed;
}

std::optional<Fault> FaultBook::take(ExchangeKind kind, std::string const& order) {
    return takeFirst([kind, &order](Fault const& fault) {
        return canHappenTo(fault, kind) && (fault.order.empty() || fault.order == order);
    });
}

std::optional<Fault> FaultBook::takeForConnection(bool tls) {
    if (!tls) {
        return std::nullopt;
    }
    return takeFirst([](Fault const& fault) { return canHappenTo(fault, ExchangeKind::Connection); });
}

template <class Matches>
std::optional<Fault> FaultBook::takeFirst(Matches matches) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    for (std::size_t at = 0; at < m_Armed.size(); ++at) {
        // A refused connection happens to nobody who is heard of.
        if (m_Armed[at].fault.kind == FaultKind::Refuse || !matches(m_Armed[at].fault)) {
            continue;
        }
        ++m_Armed[at].happened;
        Fault const fault = m_Armed[at].fault;
        if (m_Armed[at].happened == fault.times) {
            m_Armed.erase(m_Armed.begin() + static_cast<std::ptrdiff_t>(at));
        }
        return fault;
    }
    return std::nullopt;
}

void FaultBook::forgetPast() {
    Moment const now = Steady::now();
    m_Armed.erase(std::remove_if(m_Armed.begin(), m_Armed.end(),
                                 [now](ArmedFault const& armed) {
                                     return armed.fault.kind == FaultKind::Refuse && armed.refusesUntil <= now;
                                 }),
                  m_Armed.end());
}

void FaultBook::announceRefusals() {
    std::lock_guard<std::mutex> const announcing(m_Announcing);
    Moment connection{};
    Moment proxy{};
    for (ArmedFault const& armed : this->armed()) {
        if (armed.fault.kind == FaultKind::Refuse) {
            bool const ofProxy = armed.fault.exchange == ExchangeKind::Proxy;
            Moment& until = ofProxy ? proxy : connection;
            until = std::max(until, armed.refusesUntil);
        }
    }
    if (m_Listener) {
        m_Listener(ExchangeKind::Connection, connection);
        m_Listener(ExchangeKind::Proxy, proxy);
    }
}

}  // namespace sandbox
