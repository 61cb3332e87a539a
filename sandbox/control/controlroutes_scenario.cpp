// Faults, and scenarios: faults and standing decisions that are armed together, from one JSON text. Snapshots use them
// as well: what is in memory goes into a snapshot as the scenario that would arm it again. All of a scenario is read
// before anything is armed, so that one with an error changes nothing. The error names the place: line and column where
// the text is no JSON, else the step.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlfilters.h"
#include "sandbox/control/controljson.h"
#include "sandbox/service/notifier.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

struct Scenario {
    std::vector<Fault> m_Faults;
    std::vector<StandingDecision> m_Decisions;
};

void readStep(Scenario& scenario, json step, json const& account) {
    if (!step.is_object() || step.contains("kind") == step.contains("decision")) {
        throw HttpError("a step is an object with one of the members 'kind', of a fault, and 'decision'");
    }
    if (!account.is_null() && !step.contains("account")) {
        step["account"] = account;
    }
    if (step.contains("kind")) {
        scenario.m_Faults.push_back(readFault(step));
    } else {
        scenario.m_Decisions.push_back(readDecision(step));
    }
}

/// `name` stands for the text in errors.
Scenario readScenario(std::string const& text, std::string const& name) {
    json const object = parseObject(text, name);
    checkMembers(object, {"account", "steps"});
    if (!object.contains("steps") || !object.at("steps").is_array()) {
        throw HttpError("the member 'steps' is required and must be an array");
    }
    Scenario scenario;
    json const account = object.contains("account") ? json(requireText(object, "account")) : json();
    for (json const& step : object.at("steps")) {
        try {
            readStep(scenario, step, account);
        } catch (HttpError const& error) {
            throw HttpError("step " + std::to_string(&step - &object.at("steps").front() + 1) + ": " + error.what());
        }
    }
    return scenario;
}

/// What was armed.
json arm(Services const& services, Scenario const& scenario) {
    json out = {{"faults", json::array()}, {"decisions", json::array()}};
    for (Fault const& fault : scenario.m_Faults) {
        ArmedFault armed;
        armed.m_Fault = fault;
        armed.m_Id = services.m_Faults.arm(fault);
        out["faults"].push_back(armed);
    }
    for (StandingDecision decision : scenario.m_Decisions) {
        decision.m_Id = services.m_Decisions.add(decision);
        out["decisions"].push_back(decision);
    }
    return out;
}

/// What is armed at present, as the steps of a scenario: counts are those that are left.
json presentSteps(Services const& services) {
    json steps = json::array();
    auto const add = [&steps](json step, std::int64_t times, std::int64_t happened, std::int64_t skip) {
        for (char const* name : {"id", "happened", "skip"}) {
            step.erase(name);
        }
        step["times"] = times == 0 ? json("always") : json(times - happened);
        if (skip > 0) {
            step["skip"] = skip;
        }
        steps.push_back(std::move(step));
    };
    for (ArmedFault const& armed : services.m_Faults.armed()) {
        Fault const& fault = armed.m_Fault;
        add(armed, fault.m_Times, armed.m_Happened, fault.m_Skip - armed.m_Passed);
    }
    for (StandingDecision const& each : services.m_Decisions.all()) {
        add(each, each.m_Times, each.m_Happened, each.m_Skip - static_cast<std::int64_t>(each.m_Passed.size()));
    }
    return steps;
}

/// The name in "/control/snapshots/NAME" and the addresses below.
std::string snapshotName(HttpRequest const& request) {
    std::string const name = request.m_Path.substr(sizeof "/control/snapshots/" - 1);
    return name.substr(0, name.find('/'));
}

}  // namespace

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

HttpResponse getScenario(Services const& services, HttpRequest const&) {
    return jsonResponse(httpstatus::kOk, {{"steps", presentSteps(services)}});
}

HttpResponse playScenario(Services const& services, HttpRequest const& request) {
    return jsonResponse(httpstatus::kCreated, arm(services, readScenario(request.m_Body, "the body")));
}

void playScenarioFile(Services const& services, std::string const& path) {
    std::ifstream file(path);
    std::string const text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw std::runtime_error("cannot read the scenario " + path);
    }
    try {
        arm(services, readScenario(text, "the text"));
    } catch (HttpError const& error) {
        throw std::runtime_error("scenario " + path + ": " + error.what());
    }
}

HttpResponse getSnapshots(Services const& services, HttpRequest const&) {
    return jsonResponse(httpstatus::kOk, {{"snapshots", services.m_Snapshots.all()}});
}

HttpResponse saveSnapshot(Services const& services, HttpRequest const& request) {
    std::string const name = snapshotName(request);
    json const note = {{"steps", presentSteps(services)}};
    bool const isNew = services.m_Snapshots.save(name, note.dump(-1, ' ', false, json::error_handler_t::replace));
    return jsonResponse(isNew ? httpstatus::kCreated : httpstatus::kOk, {{"name", name}});
}

HttpResponse restoreSnapshot(Services const& services, HttpRequest const& request) {
    std::string const name = snapshotName(request);
    Scenario const scenario = readScenario(services.m_Snapshots.note(name), "the snapshot's note");
    services.m_Snapshots.restore(name);
    services.m_Keys.reload();
    services.m_Clock.reload();
    services.m_Notifier.reload();
    services.m_Faults.liftAll();
    services.m_Decisions.removeAll();
    arm(services, scenario);
    return jsonResponse(httpstatus::kOk, {{"name", name}});
}

HttpResponse removeSnapshot(Services const& services, HttpRequest const& request) {
    services.m_Snapshots.remove(snapshotName(request));
    return getSnapshots(services, request);
}

}  // namespace sandbox
