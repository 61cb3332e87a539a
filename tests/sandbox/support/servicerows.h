#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_SERVICEROWS_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_SERVICEROWS_H

#include <vector>

#include "sandbox/service.h"
#include "sandbox/service/paymentmoves.h"

/// What a running service has stored, oldest first.
namespace sandboxtest {

/// As they are at present.
inline std::vector<sandbox::Payment> paymentsOf(sandbox::Service const& service) {
    sandbox::bringUpToDate(service.services());
    return service.services().m_Store.payments({}, {}).m_Rows;
}

inline std::vector<sandbox::Exchange> exchangesOf(sandbox::Service const& service) {
    return service.services().m_Store.exchanges({}, {}).m_Rows;
}

inline std::vector<sandbox::Notification> notificationsOf(sandbox::Service const& service) {
    return service.services().m_Store.notifications();
}

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_SERVICEROWS_H
