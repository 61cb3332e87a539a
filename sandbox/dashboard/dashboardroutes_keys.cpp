#include <optional>
#include <string>
#include <vector>

#include "sandbox/control/controlroutes.h"
#include "sandbox/crypto/signature.h"
#include "sandbox/dashboard/dashboardparts.h"
#include "sandbox/dashboard/dashboardroutes.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/httpstatus.h"
#include "sandbox/text/wiretext.h"

/// The page of keys and clock.
namespace sandbox {

namespace {

constexpr char kPath[] = "/keys";

std::string serverKeysContent(Services const& services) {
    std::string const current = services.m_Keys.current()->m_Id;
    std::vector<Cells> rows;
    for (KeyRing::Key const& key : services.m_Keys.all()) {
        rows.push_back({whole(key->m_Id), whole(key->m_Id == current ? "signing" : "old"),
                        std::to_string(EVP_PKEY_get_bits(key->m_Key.get())), publicKeyBlob(key->m_Key.get())});
    }
    return paragraph("The newest key signs confirmations. Merchants can still query the old keys.") +
           wideTable("Keys of this service, oldest first", {"Key", "Use", "Bits", "Public key"}, rows) +
           dashboardForm(services, "/keys/rotate", button("Create a new signing key"));
}

std::string merchantKeysContent(Services const& services) {
    std::vector<Cells> rows;
    for (PublishedKey const& published : services.m_Store.merchantKeys()) {
        rows.push_back({escapeHtml(published.m_Id), escapeHtml(published.m_Key.m_Account), whole(published.m_Time),
                        std::to_string(EVP_PKEY_get_bits(readPublicKeyBlob(published.m_Key.m_Blob).get()))});
    }
    if (rows.empty()) {
        return paragraph("No merchant has published a key yet.");
    }
    return wideTable("Keys of merchants, oldest first", {"Key", "Account", "Published", "Bits"}, rows);
}

std::string clockContent(Services const& services, std::string const& filledIn, std::string const& problem) {
    return "<dl>\n" + entry("Service time", services.m_Clock.text()) +
           entry("Offset in seconds", std::to_string(services.m_Clock.ahead())) + "</dl>\n" +
           dashboardForm(
               services, "/keys/clock",
               textField("Offset in seconds (negative for the past)", "ahead", filledIn) + button("Set the clock"),
               problem);
}

HttpResponse page(Services const& services, int status, std::string const& filledIn, std::string const& problem) {
    return dashboardPage(status, kPath, "Keys and clock",
                         section("server", "Keys of this service", serverKeysContent(services)) +
                             section("merchants", "Keys of merchants", merchantKeysContent(services)) +
                             section("clock", "Clock", clockContent(services, filledIn, problem)));
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
