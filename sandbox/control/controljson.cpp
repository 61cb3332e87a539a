// JSON of the control API: writing payments, exchanges and faults, reading the objects in requests.
//
// Requests are read strictly: unknown members, wrong types and numbers out of range are errors that name the member. A
// fault is read into text fields first and then parsed by the same code as the option `--fault`.

#include "sandbox/control/controljson.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <utility>

#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

/// The required type of a fault's member.
struct FaultMember {
    char const* m_Name;
    bool (*m_Fits)(json const& value);
    char const* m_Type;
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
    {"account",   isText,   "a string"},
    {"order",     isText,   "a string"},
    {"times",     isTimes,  "a whole number or \"always\""},
    {"skip",      isWhole,  "a whole number"},
    {"seconds",   isNumber, "a number"},
    {"bytes",     isWhole,  "a whole number"},
    {"status",    isWhole,  "a whole number"},
    {"text",      isText,   "a string"},
    {"megabytes", isWhole,  "a whole number"},
};
// clang-format on

json stepJson(CheckStep const& step) {
    json out = {{"good", step.m_Good}};
    if (step.m_Warning) {
        out["warning"] = true;
    }
    putBytes(out, "what", step.m_What);
    putBytes(out, "found", step.m_Found);
    return out;
}

json parse(std::string const& body, std::string const& name) {
    try {
        return json::parse(body);
    } catch (json::parse_error const& error) {
        std::size_t const at = std::min<std::size_t>(error.byte > 0 ? error.byte - 1 : 0, body.size());
        auto const line = 1 + std::count(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(at), '\n');
        std::size_t const start = at == 0 ? std::string::npos : body.rfind('\n', at - 1);
        std::size_t const column = start == std::string::npos ? at + 1 : at - start;
        throw HttpError(name + " is not valid JSON: error at byte " + std::to_string(error.byte) + ", line " +
                        std::to_string(line) + ", column " + std::to_string(column));
    } catch (json::out_of_range const&) {
        throw HttpError("a number in " + name + " is out of range");
    }
}

}  // namespace

HttpResponse jsonResponse(int status, json const& content) {
    constexpr int kIndentation = 2;
    return {status, "application/json", content.dump(kIndentation) + "\n"};
}

void putBytes(json& object, std::string const& name, std::string const& bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x80; })) {
        object[name] = bytes;  // ASCII
        return;
    }
    std::string const shown =
        json::parse(json(bytes).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
    object[name] = shown;
    if (shown != bytes) {
        object[name + "Hex"] = toHex(bytes);
    }
}

json notificationJson(Notification const& notification) {
    json out = {{"number", notification.m_Number},   {"payment", notification.m_Payment},
                {"result", notification.m_Result},   {"attempts", notification.m_Attempts},
                {"pending", notification.m_Pending}, {"time", notification.m_Time}};
    putBytes(out, "address", notification.m_Address);
    putBytes(out, "outcome", notification.m_Outcome);
    return out;
}

json paymentJson(Payment const& payment, std::vector<Notification> const& notifications) {
    json out = {{"number", payment.m_Number},  {"id", payment.m_Id},       {"state", stateName(payment.m_State)},
                {"attributes", json::array()}, {"history", json::array()}, {"notifications", json::array()}};
    putBytes(out, "account", payment.m_Account);
    putBytes(out, "token", payment.m_Token);
    for (auto const& [name, value] : payment.m_Attributes) {
        json attribute = {{"name", name}};
        putBytes(attribute, "value", value);
        out["attributes"].push_back(std::move(attribute));
    }
    for (HistoryEntry const& step : payment.m_History) {
        out["history"].push_back({{"time", step.m_Time}, {"state", stateName(step.m_State)}, {"note", step.m_Note}});
    }
    for (Notification const& notification : notifications) {
        out["notifications"].push_back(notificationJson(notification));
    }
    return out;
}

json exchangeJson(Exchange const& exchange) {
    json out = {{"number", exchange.m_Number},           {"time", exchange.m_Time},
                {"kind", exchangeName(exchange.m_Kind)}, {"steps", json::array()},
                {"delivery", exchange.m_Delivery},       {"microseconds", exchange.m_Microseconds}};
    putBytes(out, "account", exchange.m_Account);
    putBytes(out, "token", exchange.m_Token);
    putBytes(out, "payment", exchange.m_Payment);
    putBytes(out, "order", exchange.m_Order);
    putBytes(out, "path", exchange.m_Path);
    putBytes(out, "verdict", exchange.m_Verdict);
    putBytes(out, "fault", exchange.m_Fault);
    putBytes(out, "data", exchange.m_Data);
    putBytes(out, "signature", exchange.m_Signature);
    putBytes(out, "request", exchange.m_Request);
    putBytes(out, "answer", exchange.m_Response);
    for (CheckStep const& step : exchange.m_Steps) {
        out["steps"].push_back(stepJson(step));
    }
    return out;
}

json faultJson(ArmedFault const& armed) {
    Fault const& fault = armed.m_Fault;
    json out = {{"id", armed.m_Id},
                {"happened", armed.m_Happened},
                {"kind", faultRow(fault.m_Kind).m_Name},
                {"exchange", fault.m_Exchange ? exchangeName(*fault.m_Exchange) : "any"}};
    if (!fault.m_Account.empty()) {
        putBytes(out, "account", fault.m_Account);
    }
    putBytes(out, "order", fault.m_Order);
    out["times"] = fault.m_Times == 0 ? json("always") : json(fault.m_Times);
    if (fault.m_Skip != 0) {
        out["skip"] = fault.m_Skip;
    }
    if (fault.m_Seconds) {
        out["seconds"] = *fault.m_Seconds;
    }
    if (fault.m_Bytes) {
        out["bytes"] = *fault.m_Bytes;
    }
    if (fault.m_Status) {
        out["status"] = *fault.m_Status;
    }
    if (fault.m_Text) {
        putBytes(out, "text", *fault.m_Text);
    }
    if (fault.m_Megabytes) {
        out["megabytes"] = *fault.m_Megabytes;
    }
    return out;
}

json faultKindJson(FaultKindRow const& row) {
    return {{"name", row.m_Name},
            {"meaning", row.m_Meaning},
            {"exchanges", exchangeNames(row)},
            {"parameters", parameterNames(row)},
            {"carriedOut", row.m_CarriedOut}};
}

json parseObject(std::string const& body, std::string const& name) {
    json object = parse(body, name);
    if (!object.is_object()) {
        throw HttpError(name + " is not a JSON object");
    }
    return object;
}

void checkMembers(json const& object, std::vector<std::string> const& allowed) {
    for (auto const& [name, value] : object.items()) {
        if (std::find(allowed.begin(), allowed.end(), name) == allowed.end()) {
            throw HttpError("unknown member '" + name + "'");
        }
    }
}

json readObject(std::string const& body, std::vector<std::string> const& allowed) {
    json object = parseObject(body);
    checkMembers(object, allowed);
    return object;
}

std::string requireText(json const& object, std::string const& name) {
    auto const found = object.find(name);
    if (found == object.end() || !found->is_string()) {
        throw HttpError("the member '" + name + "' is required and must be a string");
    }
    return found->get<std::string>();
}

std::int64_t requireNumber(json const& object, std::string const& name) {
    auto const found = object.find(name);
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (found == object.end() || !found->is_number_integer() ||
        (found->is_number_unsigned() && found->get<std::uint64_t>() > kMax)) {
        throw HttpError("the member '" + name + "' is required and must be a whole number of at most 64 bits");
    }
    return found->get<std::int64_t>();
}

Fault readFault(json const& object) {
    std::vector<std::string> allowed = {"kind"};
    for (FaultMember const& member : kDetails) {
        allowed.emplace_back(member.m_Name);
    }
    checkMembers(object, allowed);
    std::string const kind = requireText(object, "kind");
    FaultFields fields;
    for (FaultMember const& member : kDetails) {
        auto const found = object.find(member.m_Name);
        if (found == object.end()) {
            continue;
        }
        if (!member.m_Fits(*found)) {
            throw HttpError(std::string("the member '") + member.m_Name + "' must be " + member.m_Type);
        }
        fields.emplace_back(member.m_Name, found->is_string() ? found->get<std::string>() : found->dump());
    }
    return makeFault(kind, fields);
}

}  // namespace sandbox
