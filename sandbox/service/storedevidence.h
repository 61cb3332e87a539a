#ifndef TALLOWIN_SANDBOX_SERVICE_STOREDEVIDENCE_H
#define TALLOWIN_SANDBOX_SERVICE_STOREDEVIDENCE_H

#include "diagnosis/diagnosis.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// The keys of `services` and of its merchants, and the messages stored there. Valid while `services` is.
diagnosis::Evidence storedEvidence(Services const& services);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_STOREDEVIDENCE_H
