#include "sandbox/control/controljson.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "sandbox/text/refusal.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

/// What a member of a fault besides its kind must be.
struct FaultMember {
    char const* name;
    bool (*fits)(json const& value);
    char const* type;
};

bool isText(json const& value) {
    return value.is_string();
}

bool isWhole(json const& value) {
    return value.is_number_integer();
}

bool isNumber(json const& value) {
    return value.is_number();
}

bool isTimes(json const& value) {
    return value.is_number_integer() || value == "always";
}

// clang-format off
constexpr FaultMember kDetails[] = {
    {"exchange",  isText,   "a string"},
    {"order",     isText,   "a string"},
    {"times",     isTimes,  "a whole number or \"always\""},
    {"seconds",   isNumber, "a number"},
    {"bytes",     isWhole,  "a whole number"},
    {"status",    isWhole,  "a whole number"},
    {"text",      isText,   "a string"},
    {"megabytes", isWhole,  "a whole number"},
};
// clang-format on

json stepJson(CheckStep const& step) {
    json out = {{"good", step.good}};
    putBytes(out, "what", step.what);
    putBytes(out, "found", step.found);
    return out;
}

json parse(std::string const& body) {
    try {
        return json::parse(body);
    } catch (json::parse_error const& error) {
        throw Refusal("the body is not JSON, as byte " + std::to_string(error.byte) + " shows");
    } catch (json::out_of_range const&) {
        throw Refusal("the body holds a number beyond all range");
    }
}

}  // namespace

HttpReply jsonReply(int status, json const& content) {
    constexpr int kIndentation = 2;
    return {status, "application/json", content.dump(kIndentation) + "\n"};
}

void putBytes(json& object, std::string const& name, std::string const& bytes) {
    std::string const shown =
        json::parse(json(bytes).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
    object[name] = shown;
    if (shown != bytes) {
        object[name + "Hex"] = toHex(bytes);
    }
}

json notificationJson(Notification const& notification) {
    json out = {{"number", notification.number},     {"payment", notification.payment}, {"result", notification.result},
                {"attempts", notification.attempts}, {"pending", notification.pending}, {"time", notification.time}};
    putBytes(out, "address", notification.address);
    putBytes(out, "outcome", notification.outcome);
    return out;
}

json paymentJson(Payment const& payment, std::vector<Notification> const& notifications) {
    json out = {{"id", payment.id},
                {"state", stateName(payment.state)},
                {"attributes", json::array()},
                {"history", json::array()},
                {"notifications", json::array()}};
    putBytes(out, "account", payment.account);
    putBytes(out, "token", payment.token);
    for (auto const& [name, value] : payment.attributes) {
        json attribute = {{"name", name}};
        putBytes(attribute, "value", value);
        out["attributes"].push_back(std::move(attribute));
    }
    for (HistoryEntry const& step : payment.history) {
        out["history"].push_back({{"time", step.time}, {"state", stateName(step.state)}, {"note", step.note}});
    }
    for (Notification const& notification : notifications) {
        if (notification.payment == payment.id) {
            out["notifications"].push_back(notificationJson(notification));
        }
    }
    return out;
}

json exchangeJson(Exchange const& exchange) {
    json out = {{"number", exchange.number}, {"time", exchange.time},         {"kind", exchangeName(exchange.kind)},
                {"steps", json::array()},    {"delivery", exchange.delivery}, {"microseconds", exchange.microseconds}};
    putBytes(out, "order", exchange.order);
    putBytes(out, "path", exchange.path);
    putBytes(out, "verdict", exchange.verdict);
    putBytes(out, "fault", exchange.fault);
    putBytes(out, "data", exchange.data);
    putBytes(out, "signature", exchange.signature);
    putBytes(out, "request", exchange.request);
    putBytes(out, "answer", exchange.answer);
    for (CheckStep const& step : exchange.steps) {
        out["steps"].push_back(stepJson(step));
    }
    return out;
}

json faultJson(ArmedFault const& armed) {
    Fault const& fault = armed.fault;
    json out = {{"id", armed.id},
                {"happened", armed.happened},
                {"kind", faultRow(fault.kind).name},
                {"exchange", fault.exchange ? exchangeName(*fault.exchange) : "any"}};
    putBytes(out, "order", fault.order);
    out["times"] = fault.times == 0 ? json("always") : json(fault.times);
    if (fault.seconds) {
        out["seconds"] = *fault.seconds;
    }
    if (fault.bytes) {
        out["bytes"] = *fault.bytes;
    }
    if (fault.status) {
        out["status"] = *fault.status;
    }
    if (fault.text) {
        putBytes(out, "text", *fault.text);
    }
    if (fault.megabytes) {
        out["megabytes"] = *fault.megabytes;
    }
    return out;
}

json faultKindJson(FaultKindRow const& row) {
    return {{"name", row.name},
            {"meaning", row.meaning},
            {"exchanges", exchangeNames(row)},
            {"parameters", parameterNames(row)},
            {"carriedOut", row.carriedOut}};
}

json readObject(std::string const& body, std::vector<std::string> const& allowed) {
    json object = parse(body);
    if (!object.is_object()) {
        throw Refusal("the body is not a JSON object");
    }
    for (auto const& [name, value] : object.items()) {
        if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
            throw Refusal("there is no member '" + name + "' here");
        }
    }
    return object;
}

std::string requireText(json const& object, std::string const& name) {
    auto const found = object.find(name);
    if (found == object.end() || !found->is_string()) {
        throw Refusal("the member '" + name + "' must be there and a string");
    }
    return found->get<std::string>();
}

std::int64_t requireNumber(json const& object, std::string const& name) {
    auto const found = object.find(name);
    constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (found == object.end() || !found->is_number_integer() ||
        (found->is_number_unsigned() && found->get<std::uint64_t>() > kLargest)) {
        throw Refusal("the member '" + name + "' must be there and a whole number of at most 64 bits");
    }
    return found->get<std::int64_t>();
}

Fault readFault(std::string const& body) {
    std::vector<std::string> allowed = {"kind"};
    for (FaultMember const& member : kDetails) {
        allowed.emplace_back(member.name);
    }
    json const object = readObject(body, allowed);
    std::string const kind = requireText(object, "kind");
    FaultFields fields;
    for (FaultMember const& member : kDetails) {
        auto const found = object.find(member.name);
        if (found == object.end()) {
            continue;
        }
        if (!member.fits(*found)) {
            throw Refusal(std::string("the member '") + member.name + "' must be " + member.type);
        }
        fields.emplace_back(member.name, found->is_string() ? found->get<std::string>() : found->dump());
    }
    return makeFault(kind, fields);
}

}  // namespace sandbox
