#include <optional>
#include <string>

#include "sandbox/control/control.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

/// The page of keys and clock.
namespace sandbox {

namespace {

constexpr char kPath[] = "/keys";

HttpResponse page(Services const& services, int status, std::string const& filledIn, std::string const& problem) {
    nlohmann::json content = keysJson(services);
    content["hasMerchants"] = !content["merchants"].empty();
    content["clock"] = statusJson(services)["clock"];
    content["ahead"] = filledIn;
    content["problem"] = problem;
    return dashboardPage(services, status, kPath, "Keys and clock", "keys_page", content);
}

}  // namespace

HttpResponse keysPage(Services const& services, Query const&) {
    return page(services, httpstatus::kOk, std::to_string(services.m_Clock.ahead()), "");
}

HttpResponse rotateByForm(Services const& services, Query const&) {
    services.m_Keys.rotate();
    return seeOther(kPath);
}

HttpResponse setClockByForm(Services const& services, Query const& form) {
    std::string const text = form.value("ahead").value_or("");
    try {
        std::optional<std::int64_t> const seconds = wholeNumber(text);
        if (!seconds) {
            throw HttpError("the offset must be a whole number of seconds, not '" + text + "'");
        }
        setClockAhead(services, *seconds);
    } catch (HttpError const& error) {
        return page(services, error.status(), text, error.what());
    }
    return seeOther(kPath);
}

}  // namespace sandbox
