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
    std::optional<std::string> const account = readAccount(request.m_Query);
    nlohmann::json faults = nlohmann::json::array();
    for (ArmedFault const& armed : services.m_Faults.armed()) {
        if (!account || armed.m_Fault.m_Account == *account) {
            faults.push_back(faultJson(armed));
        }
    }
    return jsonResponse(httpstatus::kOk, {{"faults", faults}});
}

HttpResponse getFaultKinds(Services const&, HttpRequest const&) {
    nlohmann::json kinds = nlohmann::json::array();
    for (FaultKindRow const& row : allFaultKinds()) {
        kinds.push_back(faultKindJson(row));
    }
    return jsonResponse(httpstatus::kOk, {{"kinds", kinds}});
}

HttpResponse armFault(Services const& services, HttpRequest const& request) {
    ArmedFault armed;
    armed.m_Fault = readFault(parseObject(request.m_Body));
    armed.m_Id = services.m_Faults.arm(armed.m_Fault);
    return jsonResponse(httpstatus::kCreated, faultJson(armed));
}

HttpResponse liftFault(Services const& services, HttpRequest const& request) {
    std::string const name = request.m_Path.substr(request.m_Path.rfind('/') + 1);
    if (!liftNamedFault(services, name)) {
        throw HttpError("no fault '" + name + "' is armed", httpstatus::kNotFound);
    }
    return getFaults(services, request);
}

bool liftNamedFault(Services const& services, std::string const& text) {
    std::optional<std::int64_t> const id = wholeNumber(text);
    return id && services.m_Faults.lift(*id);
}

HttpResponse liftAllFaults(Services const& services, HttpRequest const& request) {
    std::optional<std::string> const account = readAccount(request.m_Query);
    if (account) {
        services.m_Faults.liftAllOf(*account);
    } else {
        services.m_Faults.liftAll();
    }
    return getFaults(services, request);
}

}  // namespace sandbox
