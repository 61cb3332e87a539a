#include <cstdint>
#include <string>

#include "sandbox/control/controljson.h"
#include "sandbox/control/controlroutes.h"
#include "sandbox/text/refusal.h"

/// Faults in the control API.
namespace sandbox {

namespace {

constexpr int kCreated = 201;
constexpr int kNotFound = 404;

}  // namespace

HttpReply tellFaults(Site const& site, HttpRequest const&) {
    nlohmann::json faults = nlohmann::json::array();
    for (ArmedFault const& armed : site.faults.armed()) {
        faults.push_back(faultJson(armed));
    }
    return jsonReply(200, {{"faults", faults}});
}

HttpReply tellFaultKinds(Site const&, HttpRequest const&) {
    nlohmann::json kinds = nlohmann::json::array();
    for (FaultKindRow const& row : allFaultKinds()) {
        kinds.push_back(faultKindJson(row));
    }
    return jsonReply(200, {{"kinds", kinds}});
}

HttpReply armFault(Site const& site, HttpRequest const& request) {
    ArmedFault armed;
    armed.fault = readFault(request.body);
    armed.id = site.faults.arm(armed.fault);
    return jsonReply(kCreated, faultJson(armed));
}

HttpReply liftFault(Site const& site, HttpRequest const& request) {
    std::string const name = request.path.substr(request.path.rfind('/') + 1);
    if (!liftNamedFault(site, name)) {
        throw Refusal("no fault '" + name + "' is armed", kNotFound);
    }
    return tellFaults(site, request);
}

bool liftNamedFault(Site const& site, std::string const& text) {
    std::optional<std::int64_t> const id = wholeNumber(text);
    return id && site.faults.lift(*id);
}

HttpReply liftAllFaults(Site const& site, HttpRequest const& request) {
    site.faults.liftAll();
    return tellFaults(site, request);
}

}  // namespace sandbox
