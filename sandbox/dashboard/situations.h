#ifndef TALLOWIN_SANDBOX_DASHBOARD_SITUATIONS_H
#define TALLOWIN_SANDBOX_DASHBOARD_SITUATIONS_H

#include <string>
#include <vector>

#include "sandbox/faults/fault.h"

namespace sandbox {

/// A situation to rehearse.
struct Situation {
    std::string m_Text;           ///< "The service is slow".
    std::vector<Fault> m_Faults;  ///< Each of them causes it; never empty.
    std::string m_Advice;         ///< What the merchant should do then: "keep the order".
};

/// The rows of the table in docs/rehearse-failures.md that faults cause, in its order.
std::vector<Situation> const& allSituations();

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_DASHBOARD_SITUATIONS_H
