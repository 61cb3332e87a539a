#ifndef TALLOWIN_SANDBOX_SERVICE_SERVICES_H
#define TALLOWIN_SANDBOX_SERVICE_SERVICES_H

#include <string>

#include "sandbox/faults/faultregistry.h"
#include "sandbox/http/httpmessages.h"
#include "sandbox/service/keyring.h"
#include "sandbox/service/serviceclock.h"
#include "sandbox/service/standingdecisions.h"
#include "sandbox/store/store.h"

namespace sandbox {

class Notifier;

/// Where the service listens: base addresses without a slash at the end, empty where it does not.
struct Addresses {
    std::string m_Plain;
    std::string m_Tls;
    std::string m_Control;  ///< Plain HTTP, never touched by faults.
    std::string m_Proxy;
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
    std::string const& m_Seed;  ///< Of the identifiers of payments; empty: they are random.
    bool m_Lenient;             ///< Odd content of a PayInit is accepted with a warning.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_SERVICES_H
