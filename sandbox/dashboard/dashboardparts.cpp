#include "sandbox/dashboard/dashboardparts.h"

#include <cstddef>
#include <utility>

#include "sandbox/pages/templates.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/utctime.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using nlohmann::json;

struct NavigationRow {
    char const* m_Path;
    char const* m_Text;
};

constexpr char kFaults[] = "/faults";
constexpr NavigationRow kNavigation[] = {
    {"/", "Overview"}, {kFaults, "Faults"}, {"/keys", "Keys and clock"}, {"/calculator", "Signature calculator"}};

/// The entry of the faults shows how many are armed.
json navigation(Services const& services, std::string const& path) {
    std::size_t const armed = services.m_Faults.armed().size();
    json entries = json::array();
    for (NavigationRow const& row : kNavigation) {
        bool const counts = row.m_Path == std::string(kFaults) && armed > 0;
        entries.push_back({{"path", row.m_Path},
                           {"text", row.m_Text},
                           {"current", path == row.m_Path},
                           {"count", counts ? json(std::to_string(armed) + " armed") : json()}});
    }
    return entries;
}

}  // namespace

HttpResponse dashboardPage(Services const& services, int status, std::string const& path, std::string const& title,
                           std::string const& name, json content) {
    content["title"] = title;
    content["isBroad"] = true;
    content["navigation"] = navigation(services, path);
    content["version"] = KVX_VERSION;
    content["formKey"] = services.m_FormKey;
    return renderPage(status, name, std::move(content));
}

HttpResponse seeOther(std::string const& path) {
    return {httpstatus::kSeeOther, "text/plain; charset=utf-8", "Done. See " + path + ".\n", path};
}

json exchangeRow(Exchange const& exchange) {
    return {{"number", exchange.m_Number},
            {"time", exchange.m_Time},
            {"kind", exchangeName(exchange.m_Kind)},
            {"order", exchange.m_Order},
            {"verdict", exchange.m_Verdict},
            {"ok", exchange.m_Verdict == "ok"},
            {"fault", exchange.m_Fault},
            {"duration", millisecondsText(exchange.m_Microseconds)}};
}

json exchangeTable(std::string const& caption, std::vector<Exchange> const& exchanges) {
    json rows = json::array();
    for (Exchange const& exchange : exchanges) {
        rows.push_back(exchangeRow(exchange));
    }
    return rows.empty() ? json() : json{{"caption", caption}, {"exchanges", std::move(rows)}};
}

std::string calculatorPath(std::string const& data, std::string const& signature) {
    return "/calculator?DATA=" + percentEncode(data) + "&SIGNATURE=" + percentEncode(signature);
}

std::string joined(std::vector<std::string> const& names) {
    std::string text;
    for (std::string const& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace sandbox
