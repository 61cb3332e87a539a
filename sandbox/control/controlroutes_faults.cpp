#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/control/controlfilters.h"
#include "sandbox/control/controljson.h"
#include "sandbox/control/controlroutes.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/wiretext.h"

/// The control API's addresses for faults.
namespace sandbox {

HttpResponse getFaults(Services const& services, HttpRequest const& request) {
    return jsonResponse(httpstatus::kOk, {{"faults", services.m_Faults.armed(readAccount(request.m_Query))}});
}

HttpResponse getFaultKinds(Services const&, HttpRequest const&) {
    return jsonResponse(httpstatus::kOk, {{"kinds", allFaultKinds()}});
}

HttpResponse armFault(Services const& services, HttpRequest const& request) {
    ArmedFault armed;
    armed.m_Fault = readFault(parseObject(request.m_Body));
    armed.m_Id = services.m_Faults.arm(armed.m_Fault);
    return jsonResponse(httpstatus::kCreated, armed);
}

HttpResponse liftFault(Services const& services, HttpRequest const& request) {
    std::string const name = request.m_Path.substr(request.m_Path.rfind('/') + 1);
    std::optional<std::int64_t> const id = wholeNumber(name);
    if (!id || !services.m_Faults.lift(*id)) {
        throw HttpError("no fault '" + name + "' is armed", httpstatus::kNotFound);
    }
    return getFaults(services, request);
}

HttpResponse liftAllFaults(Services const& services, HttpRequest const& request) {
    services.m_Faults.liftAll(readAccount(request.m_Query));
    return getFaults(services, request);
}

}  // namespace sandbox
