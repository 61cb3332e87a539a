// Reads queries and objects of requests, and writes JSON of what is stored and what is armed.
// Lists: `after` alone or neither bound: the oldest rows first. `before` alone: the newest rows below it, newest first,
// so that a client can walk back from the end. Both bounds: the oldest first. A page ends after `limit` rows, or after
// the row with which it has kMaxListedBytes of content: a response has a bounded size whatever the merchants have sent.
// Objects are read strictly: unknown members, wrong types and numbers out of range are errors that name the member. A
// fault is read into text fields first and then parsed by the same code as the option `--fault`.
#include "sandbox/control/controlformat.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;
using Names = std::vector<std::string>;

/// A bound of the list; `row` is what its numbers count, "an exchange".
std::int64_t readBound(std::string const& name, std::string const& text, std::string const& row) {
    std::optional<std::int64_t> const number = wholeNumber(text);
    if (!number) {
        throw HttpError(name + " must be the number of " + row + ", not '" + text + "'");
    }
    return *number;
}

std::int64_t readLimit(std::string const& text) {
    std::optional<std::int64_t> const limit = wholeNumber(text);
    if (!limit || *limit < 1 || *limit > kMaxRows) {
        throw HttpError("limit must be a number from 1 to " + std::to_string(kMaxRows) + ", not '" + text + "'");
    }
    return *limit;
}

Page readPage(Query const& query, std::string const& row) {
    Page page;
    std::optional<std::string> const after = query.value("after");
    std::optional<std::string> const before = query.value("before");
    page.m_After = after ? readBound("after", *after, row) : page.m_After;
    page.m_Before = before && *before != "end" ? readBound("before", *before, row) : page.m_Before;
    page.m_NewestFirst = before && !after;
    page.m_Limit = kDefaultRows;
    if (std::optional<std::string> const limit = query.value("limit")) {
        page.m_Limit = readLimit(*limit);
    }
    page.m_MaxBytes = kMaxListedBytes;
    return page;
}

/// `payment` is the name of the condition on the identifier of a payment.
Filter readFilter(Query const& query, Names const& known, char const* payment) {
    refuseUnknown(query, known);
    Filter filter{query.value("account"), query.value("order"), query.value("token"), query.value(payment)};
    if (std::optional<std::string> const name = query.value("state")) {
        try {
            filter.m_State = stateFromName(*name);
        } catch (std::runtime_error const&) {
            throw HttpError("unknown payment state '" + *name + "'");
        }
    }
    if (std::optional<std::string> const name = query.value("kind")) {
        filter.m_Kind = exchangeFromName(*name);
        if (!filter.m_Kind) {
            throw HttpError("unknown kind of exchange '" + *name + "'");
        }
    }
    return filter;
}

constexpr char kAlways[] = "always";

/// The largest number of payments that a standing decision counts.
constexpr std::int64_t kMaxCounted = 1000;

/// What a member of a fault must be; empty when `value` is that.
std::string reasonToRefuse(FaultFieldRow const& field, json const& value) {
    if (field.m_Name == std::string("times")) {
        return value.is_number_integer() || value == kAlways ? "" : "a whole number or \"always\"";
    }
    switch (field.m_Type) {
        case FaultFieldType::kWhole:
            return value.is_number_integer() ? "" : "a whole number";
        case FaultFieldType::kNumber:
            return value.is_number() ? "" : "a number";
        default:
            return value.is_string() ? "" : "a string";
    }
}

json timesJson(std::int64_t times) {
    return times == 0 ? json(kAlways) : json(times);
}

/// Sets the member when there is a value.
template <class Value>
void putIfGiven(json& object, char const* name, std::optional<Value> const& value) {
    if (value) {
        object[name] = *value;
    }
}

/// A member that counts payments, up to kMaxCounted. Throws HttpError.
std::int64_t optionalCount(json const& object, std::string const& name) {
    std::int64_t const count = object.contains(name) ? requireNumber(object, name) : 0;
    if (count < 0 || count > kMaxCounted) {
        throw HttpError("the member '" + name + "' must be at most " + std::to_string(kMaxCounted));
    }
    return count;
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

void refuseUnknown(Query const& query, Names const& known) {
    for (std::string const& name : query.names()) {
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            throw HttpError("unknown filter '" + name + "', the filters of this list are: " + joined(known));
        }
    }
}

ListQuery readPaymentQuery(Query const& query) {
    return {readFilter(query, {"account", "order", "token", "id", "state", "after", "before", "limit"}, "id"),
            readPage(query, "a payment")};
}

ListQuery readExchangeQuery(Query const& query) {
    return {readFilter(query, {"account", "order", "token", "payment", "kind", "after", "before", "limit"}, "payment"),
            readPage(query, "an exchange")};
}

ListQuery readRemovalQuery(Query const& query) {
    ListQuery removal{readFilter(query, {"account", "order", "token", "payment", "kind", "after", "before"}, "payment"),
                      readPage(query, "an exchange")};
    removal.m_Page.m_Limit = Page::kNoLimit;
    return removal;
}

Filter readExportQuery(Query const& query) {
    return readFilter(query, {"account", "order", "token", "payment"}, "payment");
}

std::optional<std::string> readAccount(Query const& query) {
    refuseUnknown(query, {"account"});
    return query.value("account");
}

HttpResponse jsonResponse(json const& content, int status) {
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

void to_json(json& out, CheckStep const& step) {
    out = {{"good", step.m_Good}};
    if (step.m_Warning) {
        out["warning"] = true;
    }
    putBytes(out, "what", step.m_What);
    putBytes(out, "found", step.m_Found);
}

void to_json(json& out, HistoryEntry const& step) {
    out = {{"time", step.m_Time}, {"state", stateName(step.m_State)}, {"note", step.m_Note}};
}

void to_json(json& out, Notification const& notification) {
    out = {{"number", notification.m_Number},   {"payment", notification.m_Payment},
           {"result", notification.m_Result},   {"attempts", notification.m_Attempts},
           {"pending", notification.m_Pending}, {"time", notification.m_Time}};
    putBytes(out, "address", notification.m_Address);
    putBytes(out, "outcome", notification.m_Outcome);
}

void to_json(json& out, Snapshots::Entry const& snapshot) {
    out = {{"name", snapshot.m_Name}, {"time", snapshot.m_Time}, {"bytes", snapshot.m_Bytes}};
}

json paymentJson(Payment const& payment, std::vector<Notification> const& notifications) {
    json out = {{"number", payment.m_Number},  {"id", payment.m_Id},           {"state", stateName(payment.m_State)},
                {"attributes", json::array()}, {"history", payment.m_History}, {"notifications", notifications}};
    putBytes(out, "account", payment.m_Account);
    putBytes(out, "token", payment.m_Token);
    for (auto const& [name, value] : payment.m_Attributes) {
        json attribute = {{"name", name}};
        putBytes(attribute, "value", value);
        out["attributes"].push_back(std::move(attribute));
    }
    return out;
}

json summaryJson(ExchangeSummary const& exchange) {
    json out = {{"number", exchange.m_Number},
                {"time", exchange.m_Time},
                {"kind", exchangeName(exchange.m_Kind)},
                {"microseconds", exchange.m_Microseconds}};
    putBytes(out, "account", exchange.m_Account);
    putBytes(out, "token", exchange.m_Token);
    putBytes(out, "payment", exchange.m_Payment);
    putBytes(out, "order", exchange.m_Order);
    putBytes(out, "path", exchange.m_Path);
    putBytes(out, "verdict", exchange.m_Verdict);
    putBytes(out, "fault", exchange.m_Fault);
    return out;
}

void to_json(json& out, Exchange const& exchange) {
    out = summaryJson(exchange);
    out["steps"] = exchange.m_Steps;
    out["delivery"] = exchange.m_Delivery;
    putBytes(out, "data", exchange.m_Data);
    putBytes(out, "signature", exchange.m_Signature);
    putBytes(out, "request", exchange.m_Request);
    putBytes(out, "answer", exchange.m_Response);
}

void to_json(json& out, ArmedFault const& armed) {
    Fault const& fault = armed.m_Fault;
    out = {{"id", armed.m_Id},
           {"happened", armed.m_Happened},
           {"kind", faultRow(fault.m_Kind).m_Name},
           {"exchange", fault.m_Exchange ? exchangeName(*fault.m_Exchange) : "any"},
           {"times", timesJson(fault.m_Times)}};
    if (!fault.m_Account.empty()) {
        putBytes(out, "account", fault.m_Account);
    }
    putBytes(out, "order", fault.m_Order);
    if (fault.m_Skip != 0) {
        out["skip"] = fault.m_Skip;
    }
    putIfGiven(out, "seconds", fault.m_Seconds);
    putIfGiven(out, "bytes", fault.m_Bytes);
    putIfGiven(out, "status", fault.m_Status);
    putIfGiven(out, "megabytes", fault.m_Megabytes);
    if (fault.m_Text) {
        putBytes(out, "text", *fault.m_Text);
    }
}

void to_json(json& out, FaultKindRow const& row) {
    out = {{"name", row.m_Name},
           {"meaning", row.m_Meaning},
           {"exchanges", exchangeNames(row)},
           {"parameters", parameterNames(row)},
           {"carriedOut", row.m_CarriedOut}};
}

void to_json(json& out, StandingDecision const& decision) {
    out = {{"id", decision.m_Id},
           {"decision", decision.m_Decision},
           {"times", timesJson(decision.m_Times)},
           {"happened", decision.m_Happened}};
    if (decision.m_Skip != 0) {
        out["skip"] = decision.m_Skip;
    }
    putBytes(out, "account", decision.m_Account);
    putBytes(out, "order", decision.m_Order);
    putBytes(out, "amount", decision.m_Amount);
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

std::string optionalText(json const& object, std::string const& name) {
    return object.contains(name) ? requireText(object, name) : "";
}

Fault readFault(json const& object) {
    std::vector<std::string> allowed = {"kind"};
    for (FaultFieldRow const& row : allFaultFields()) {
        allowed.emplace_back(row.m_Name);
    }
    checkMembers(object, allowed);
    std::string const kind = requireText(object, "kind");
    FaultFields fields;
    for (FaultFieldRow const& row : allFaultFields()) {
        auto const found = object.find(row.m_Name);
        if (found == object.end()) {
            continue;
        }
        std::string const reason = reasonToRefuse(row, *found);
        if (!reason.empty()) {
            throw HttpError(std::string("the member '") + row.m_Name + "' must be " + reason);
        }
        fields.emplace_back(row.m_Name, found->is_string() ? found->get<std::string>() : found->dump());
    }
    return makeFault(kind, fields);
}

StandingDecision readDecision(json const& object) {
    checkMembers(object, {"decision", "account", "order", "amount", "times", "skip"});
    StandingDecision decision;
    decision.m_Decision = namedDecision(requireText(object, "decision")).m_Name;
    decision.m_Account = optionalText(object, "account");
    decision.m_Order = optionalText(object, "order");
    decision.m_Amount = optionalText(object, "amount");
    bool const isAlways = !object.contains("times") || object.at("times") == kAlways;
    decision.m_Times = isAlways ? 0 : optionalCount(object, "times");
    if (!isAlways && decision.m_Times == 0) {
        throw HttpError("the member 'times' must be a number from 1 or \"always\"");
    }
    decision.m_Skip = optionalCount(object, "skip");
    return decision;
}

}  // namespace sandbox
