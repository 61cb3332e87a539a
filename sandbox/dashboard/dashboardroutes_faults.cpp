// The page of faults: the armed ones, the situations of the guide with a button each, and every kind with a form of its
// own, which has the fields of that kind alone.
//
// The situations are those of the guide's table, which is embedded as it is: a row has three cells, the second with the
// faults in backquotes. Marks of Markdown are dropped: backquotes, and links but for their text.
//
// Empty fields are left out, so that the defaults apply. A rejected form is shown again with the entered values and the
// reason. Reading a fault is the same as for the option `--fault`.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controlformat.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/pages/templates.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;

constexpr char kPath[] = "/faults";

/// A situation to rehearse.
struct Situation {
    std::string m_Text;           ///< "The service is slow".
    std::vector<Fault> m_Faults;  ///< Each of them causes it; never empty.
    std::string m_Advice;         ///< What the merchant should do then: "keep the order".
};

/// The text between `line`'s bars, without the spaces around it.
std::vector<std::string> cellsOf(std::string const& line) {
    std::vector<std::string> cells;
    std::istringstream in(line);
    std::string cell;
    std::getline(in, cell, '|');
    while (std::getline(in, cell, '|')) {
        std::size_t const from = cell.find_first_not_of(' ');
        cells.push_back(from == std::string::npos ? "" : cell.substr(from, cell.find_last_not_of(' ') - from + 1));
    }
    return cells;
}

std::vector<Fault> faultsIn(std::string const& cell) {
    std::vector<Fault> faults;
    std::istringstream in(cell);
    std::string text;
    for (bool quoted = false; std::getline(in, text, '`'); quoted = !quoted) {
        if (quoted) {
            faults.push_back(parseFault(text));
        }
    }
    return faults;
}

std::string plain(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '`'), text.end());
    for (std::size_t at = text.find("]("); at != std::string::npos; at = text.find("](")) {
        text.erase(at, text.find(')', at) + 1 - at);
        text.erase(text.rfind('[', at), 1);
    }
    return text;
}

std::vector<Situation> readGuide() {
    std::vector<Situation> situations;
    std::istringstream in(templateText("rehearse-failures.md"));
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> const cells = cellsOf(line);
        if (cells.size() != 3) {
            continue;
        }
        std::vector<Fault> faults = faultsIn(cells[1]);
        if (!faults.empty()) {
            situations.push_back({plain(cells[0]), std::move(faults), plain(cells[2])});
        }
    }
    return situations;
}

/// The rows of the table in docs/rehearse-failures.md that faults cause, in its order.
std::vector<Situation> const& allSituations() {
    static std::vector<Situation> const situations = readGuide();
    return situations;
}

bool isOfConnections(FaultKindRow const& row) {
    return happensTo(row, ExchangeKind::kConnection) || row.m_Exchanges == bit(ExchangeKind::kProxy);
}

bool isOfHttp(FaultKindRow const& row) {
    return !isOfConnections(row) && happensTo(row, ExchangeKind::kPage);
}

bool isOfMessages(FaultKindRow const& row) {
    return !isOfConnections(row) && !isOfHttp(row);
}

/// Kinds that stand together.
struct GroupRow {
    char const* m_Heading;
    bool (*m_Has)(FaultKindRow const& row);
};

constexpr GroupRow kGroups[] = {{"Connections, TLS and proxy", isOfConnections},
                                {"Requests and responses", isOfHttp},
                                {"What messages say, and outcomes", isOfMessages}};

/// The parameters of the kind, and those that every fault has: but faults of a connection have no account and no order,
/// and refused connections are not counted.
json fieldsContent(FaultKindRow const& row, Query const& form) {
    std::vector<std::string> const own = parameterNames(row);
    std::set<std::string> names(own.begin(), own.end());
    names.insert("times");
    if (row.m_Kind != FaultKind::kRefuse) {
        names.insert("skip");
    }
    if (!happensTo(row, ExchangeKind::kConnection)) {
        names.insert({"account", "order"});
    }
    json fields = json::array();
    for (FaultFieldRow const& field : allFaultFields()) {
        if (names.count(field.m_Name) > 0) {
            std::string const preset = field.m_Name == std::string("times") ? "1" : "";
            fields.push_back({{"name", field.m_Name},
                              {"label", field.m_Label},
                              {"value", form.value(field.m_Name).value_or(preset)}});
        }
    }
    return fields;
}

/// `form` contains the values entered before, empty for other kinds.
json kindContent(FaultKindRow const& row, Query const& form, bool open) {
    json content = row;
    content["open"] = open;
    content["fields"] = fieldsContent(row, form);
    content["exchanges"] = rowsOf(exchangeNames(row), [&form](std::string const& name) {
        return json{{"name", name}, {"selected", form.value("exchange") == name}};
    });
    return content;
}

json groupsContent(Query const& form) {
    json groups = json::array();
    for (GroupRow const& group : kGroups) {
        json kinds = json::array();
        for (FaultKindRow const& row : allFaultKinds()) {
            bool const chosen = form.value("kind") == row.m_Name;
            if (group.m_Has(row)) {
                kinds.push_back(kindContent(row, chosen ? form : Query(""), chosen));
            }
        }
        groups.push_back({{"heading", group.m_Heading}, {"kinds", std::move(kinds)}});
    }
    return groups;
}

json situationRow(Situation const& situation) {
    auto const faultRow = [](Fault const& fault) { return json{{"text", faultText(fault)}}; };
    return {{"situation", situation.m_Text},
            {"advice", situation.m_Advice},
            {"faults", rowsOf(situation.m_Faults, faultRow)}};
}

json armedRow(ArmedFault const& armed) {
    std::int64_t const times = armed.m_Fault.m_Times;
    return {{"id", armed.m_Id},
            {"text", faultText(armed.m_Fault)},
            {"times",
             std::to_string(armed.m_Happened) + (times == 0 ? ", until removed" : " of " + std::to_string(times))}};
}

HttpResponse page(Services const& services, int status, Query const& form, std::string const& armProblem,
                  std::string const& liftProblem) {
    std::vector<ArmedFault> const armed = services.m_Faults.armed();
    return dashboardPage(services, status, kPath, "Faults", "faults_page",
                         {{"hasArmed", !armed.empty()},
                          {"armed", rowsOf(armed, armedRow)},
                          {"lift", {{"problem", liftProblem}}},
                          {"situations", rowsOf(allSituations(), situationRow)},
                          {"arm", {{"problem", armProblem}}},
                          {"groups", groupsContent(form)}});
}

/// The fault described by a form: as one text, or in fields. Throws HttpError.
Fault readForm(Query const& form) {
    if (std::optional<std::string> const text = form.value("fault")) {
        return parseFault(*text);
    }
    FaultFields fields;
    for (FaultFieldRow const& row : allFaultFields()) {
        std::optional<std::string> const value = form.value(row.m_Name);
        bool const isChoice = row.m_Name == std::string("exchange");
        if (value && (isChoice || !value->empty())) {
            fields.emplace_back(row.m_Name, *value);
        }
    }
    return makeFault(form.value("kind").value_or(""), fields);
}

}  // namespace

HttpResponse faultsPage(Services const& services, Query const& query) {
    return page(services, httpstatus::kOk, query, "", "");
}

HttpResponse armByForm(Services const& services, Query const& form) {
    try {
        services.m_Faults.arm(readForm(form));
    } catch (HttpError const& error) {
        return page(services, error.status(), form, error.what(), "");
    }
    return seeOther(kPath);
}

HttpResponse liftByForm(Services const& services, Query const& form) {
    std::string const id = form.value("id").value_or("");
    if (id == "all") {
        services.m_Faults.liftAll();
        return seeOther(kPath);
    }
    std::optional<std::int64_t> const number = wholeNumber(id);
    if (!number || !services.m_Faults.lift(*number)) {
        return page(services, httpstatus::kBadRequest, Query(""), "",
                    "No fault '" + id + "' is armed: it has occurred or was removed.");
    }
    return seeOther(kPath);
}

}  // namespace sandbox
