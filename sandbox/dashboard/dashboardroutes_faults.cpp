// The page of faults: the armed ones, a form to arm one, and the table of kinds.
//
// The form has a field for every parameter; empty fields are left out, so that the defaults apply. A rejected form is
// shown again with the entered values and the reason. Reading a fault is the same as for the option `--fault`.

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/control/controlroutes.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"

namespace sandbox {

namespace {

constexpr char kPath[] = "/faults";

/// A form field for a parameter of a fault.
struct DetailRow {
    char const* m_Name;  ///< The parameter's name, as in parseFault().
    char const* m_Label;
    char const* m_Preset;
};

// clang-format off
constexpr DetailRow kDetails[] = {
    {"account",   "Account (empty for any)",               ""},
    {"order",     "Order (empty for any)",                 ""},
    {"times",     "Times (number or always)",              "1"},
    {"seconds",   "Seconds",                               ""},
    {"bytes",     "Bytes sent before the fault",           ""},
    {"status",    "HTTP status",                           ""},
    {"text",      "Text of the response",                  ""},
    {"megabytes", "Megabytes",                             ""},
};
// clang-format on

/// Each option is a value and its text; `chosen` is selected.
std::string selectField(std::string const& label, std::string const& name, std::string const& chosen,
                        std::vector<std::pair<std::string, std::string>> const& options) {
    std::string html = "<label class=\"full\">" + escapeHtml(label) + "\n<select name=\"" + name + "\">\n";
    for (auto const& [value, text] : options) {
        html += "<option value=\"" + value + "\"" + (value == chosen ? " selected=\"selected\"" : "") + ">" +
                escapeHtml(text) + "</option>\n";
    }
    return html + "</select></label>\n";
}

std::string kindField(std::string const& chosen) {
    std::vector<std::pair<std::string, std::string>> options;
    for (FaultKindRow const& row : allFaultKinds()) {
        options.emplace_back(row.m_Name, std::string(row.m_Name) + ": " + row.m_Meaning);
    }
    return selectField("Kind", "kind", chosen, options);
}

std::string exchangeField(std::string const& chosen) {
    unsigned possible = 0;
    for (FaultKindRow const& row : allFaultKinds()) {
        possible |= row.m_Exchanges;
    }
    std::vector<std::pair<std::string, std::string>> options = {{"any", "any exchange that supports this kind"}};
    for (ExchangeKind const kind : allExchangeKinds()) {
        if ((possible & static_cast<unsigned>(kind)) != 0) {
            options.emplace_back(exchangeName(kind), exchangeName(kind));
        }
    }
    return selectField("Exchange", "exchange", chosen, options);
}

/// `form` contains the values entered before.
std::string armContent(Services const& services, Query const& form, std::string const& problem) {
    std::string fields =
        kindField(form.value("kind").value_or("")) + exchangeField(form.value("exchange").value_or(""));
    for (DetailRow const& row : kDetails) {
        fields += textField(row.m_Label, row.m_Name, form.value(row.m_Name).value_or(row.m_Preset));
    }
    return paragraph("Empty fields use the default. The table below lists the parameters of each kind.") +
           dashboardForm(services, kPath, fields + button("Arm"), problem);
}

std::string timesText(ArmedFault const& armed) {
    return std::to_string(armed.m_Happened) +
           (armed.m_Fault.m_Times == 0 ? ", until removed" : " of " + std::to_string(armed.m_Fault.m_Times));
}

std::string armedContent(Services const& services, std::string const& problem) {
    std::vector<ArmedFault> const all = services.m_Faults.armed();
    if (all.empty()) {
        return problemNotice(problem) + paragraph("No fault is armed.");
    }
    std::vector<Cells> rows;
    for (ArmedFault const& armed : all) {
        std::string const id = std::to_string(armed.m_Id);
        rows.push_back({id, escapeHtml(faultText(armed.m_Fault)), whole(timesText(armed)),
                        dashboardForm(services, "/faults/lift", hiddenField("id", id) + button("Remove fault " + id))});
    }
    return problemNotice(problem) +
           wideTable("Armed faults, oldest first", {"Fault", "Description", "Occurred", "Remove"}, rows) +
           dashboardForm(services, "/faults/lift", button("Remove all", "id", "all"));
}

std::string kindsContent() {
    std::vector<Cells> rows;
    for (FaultKindRow const& row : allFaultKinds()) {
        rows.push_back({whole(row.m_Name), escapeHtml(row.m_Meaning), joined(exchangeNames(row)),
                        whole(joined(parameterNames(row))), row.m_CarriedOut ? "yes" : "no"});
    }
    return wideTable("Kinds of faults and their parameters",
                     {"Kind", "Effect", "Exchanges", "Parameters", "Request processed"}, rows);
}

HttpResponse page(Services const& services, int status, Query const& form, std::string const& armProblem,
                  std::string const& liftProblem) {
    return dashboardPage(status, kPath, "Faults",
                         section("armed", "Armed faults", armedContent(services, liftProblem)) +
                             section("arm", "Arm a fault", armContent(services, form, armProblem)) +
                             section("kinds", "Kinds of faults", kindsContent()));
}

/// The fault described by a form. Throws HttpError.
Fault readForm(Query const& form) {
    FaultFields fields = {{"exchange", form.value("exchange").value_or("any")}};
    for (DetailRow const& row : kDetails) {
        std::string const value = form.value(row.m_Name).value_or("");
        if (!value.empty()) {
            fields.emplace_back(row.m_Name, value);
        }
    }
    return makeFault(form.value("kind").value_or(""), fields);
}

}  // namespace

HttpResponse faultsPage(Services const& services, Query const&) {
    return page(services, httpstatus::kOk, Query(""), "", "");
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
    if (!liftNamedFault(services, id)) {
        return page(services, httpstatus::kBadRequest, Query(""), "",
                    "No fault '" + id + "' is armed: it has occurred or was removed.");
    }
    return seeOther(kPath);
}

}  // namespace sandbox
