#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICES_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICES_H

#include <atomic>
#include <string>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/http/httptext.h"
#include "sandbox/service/keyring.h"
#include "sandbox/service/serviceclock.h"
#include "sandbox/service/standingdecisions.h"
#include "sandbox/store/snapshots.h"
#include "sandbox/store/store.h"

namespace sandbox {

class Notifier;

/// Where the service listens; empty where it does not.
struct Addresses {
    ServedAddress m_Plain;
    ServedAddress m_Tls;
    ServedAddress m_Control;  ///< Plain HTTP, never touched by faults.
    ServedAddress m_Proxy;
};

/// What every part of the service works on, shared by all threads. Everything is borrowed.
struct Services {
    Store& m_Store;
    KeyRing& m_Keys;
    FaultRegistry& m_Faults;
    ServiceClock& m_Clock;
    Addresses const& m_Addresses;
    Notifier& m_Notifier;
    std::string const& m_FormKey;  ///< Must come back with every form of the dashboard.
    StandingDecisions& m_Decisions;
    Snapshots& m_Snapshots;
    std::string const& m_Token;            ///< Demanded for control API and dashboard; empty: none is.
    std::string const& m_NotifyAuthority;  ///< File with authorities of merchants under TLS; empty: plain HTTP only.
    std::string const& m_Seed;             ///< Of the identifiers of payments; empty: they are random.
    bool m_Lenient;                        ///< Odd content of a PayInit is accepted with a warning.
    std::atomic<bool> const& m_Ready;      ///< Whether all ports are served.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICES_H
