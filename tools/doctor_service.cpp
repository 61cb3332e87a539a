// The doctor's checks of the way to the service: addresses, proxy, connection, TLS and clock.
//
// Each host and port that config.xml names is visited once, as the library would: through the proxy when one is set.
// What is sent is "HEAD /", without credentials and without a message, so nothing changes at the service. Any answer of
// HTTP will do. Its Date header is compared with the clock of this machine, since payments expire by it.

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <set>

#include "tools/doctor.h"
#include "tools/doctorconnection.h"
#include "tools/serviceaddress.h"
#include "tools/toolfailure.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

// A certificate that expires sooner is reported.
constexpr long kDaysWarned = 21;

// A difference of clocks that is reported. An answer may take some seconds, and Date counts whole ones.
constexpr long kMaxClockDifference = 60;

constexpr char kHttpPort[] = "80";
constexpr char kHttpsPort[] = "443";
constexpr char kDefaultProxyPort[] = "8080";

struct Target {
    bool m_IsTls;
    std::string m_Host;
    std::string m_Port;

    [[nodiscard]] std::string place() const { return m_Host + ":" + m_Port; }
    [[nodiscard]] std::string address() const { return (m_IsTls ? "https://" : "http://") + place() + "/"; }
    bool operator<(Target const& other) const { return address() < other.address(); }
};

/// The hosts in `config.xml`. Adds findings about addresses that cannot be used.
std::set<Target> targetsOf(Examination const& examination) {
    std::set<Target> targets;
    for (char const* name : {"VTURL", "CAPTUREURL", "KVX.VTAUTOURL"}) {
        std::string const url = valueIn(examination, "config.xml", name);
        if (url.empty()) {
            continue;  // "files" reports those that are needed.
        }
        try {
            requireServiceAddress(url);
        } catch (UsageError const& error) {
            examination.m_Report.problem("addresses",
                                         std::string(name) + " in config.xml is " + url + ": " + error.what(),
                                         "ask the provider for the address, then repeat the set-up: tallowin setup");
            continue;
        }
        bool const isTls = url.compare(0, 6, "https:") == 0;
        std::size_t const begin = url.find("//") + 2;
        HostPort const place = hostPortOf(url.substr(begin, url.find('/', begin) - begin));
        targets.insert({isTls, place.m_Host, !place.m_Port.empty() ? place.m_Port : isTls ? kHttpsPort : kHttpPort});
        if (isInClearText(url)) {
            examination.m_Report.warning("addresses", std::string(name) + " is sent in clear text: " + url,
                                         "ask the provider for an address with https://, then repeat the set-up");
        }
    }
    if (!examination.m_Report.hasFinding("addresses")) {
        examination.m_Report.good("addresses", targets.empty() ? "none" : "the addresses of config.xml can be used");
    }
    return targets;
}

/// The proxy in settings.xml; nothing when none is used. Adds a finding when it cannot be used.
std::optional<HostPort> proxyOf(Examination const& examination) {
    std::string const use = valueIn(examination, "settings.xml", "USEPROXY");
    std::string const host = valueIn(examination, "settings.xml", "PROXYHOST");
    if (use.empty() || use == "0") {
        if (!host.empty()) {
            examination.m_Report.warning(
                "proxy", "settings.xml names a proxy, " + host + ", that is not used: no USEPROXY=\"1\"",
                "set USEPROXY=\"1\", or remove PROXYHOST");
        }
        return std::nullopt;
    }
    if (use != "1") {
        examination.m_Report.problem("proxy",
                                     "USEPROXY=\"" + use + "\" in settings.xml is not 1: the proxy is not used",
                                     "set USEPROXY=\"1\", or \"0\" for none");
        return std::nullopt;
    }
    if (host.empty()) {
        examination.m_Report.problem("proxy", "settings.xml has USEPROXY=\"1\" and no PROXYHOST: no proxy is used",
                                     "add PROXYHOST and PROXYPORT, or remove USEPROXY");
        return std::nullopt;
    }
    std::string const port = valueIn(examination, "settings.xml", "PROXYPORT");
    try {
        return hostPortOf(host + ":" + (port.empty() ? kDefaultProxyPort : port));
    } catch (UsageError const& error) {
        examination.m_Report.problem("proxy", "the proxy in settings.xml cannot be used: " + std::string(error.what()),
                                     "correct PROXYHOST and PROXYPORT");
        return std::nullopt;
    }
}

// --- TLS

struct TrustRow {
    long m_Error;
    char const* m_Text;
    char const* m_Cure;
};

constexpr char kAddAuthority[] = "put the provider's authority into a file and name it: TLSCAFILE in settings.xml";

// clang-format off
constexpr std::array<TrustRow, 7> kTrust = {{
    {X509_V_ERR_CERT_HAS_EXPIRED,                    "has expired",                                 "the provider must renew it; see also the clock of this machine"},
    {X509_V_ERR_CERT_NOT_YET_VALID,                  "is not valid yet",                            "see the clock of this machine, or ask the provider"},
    {X509_V_ERR_HOSTNAME_MISMATCH,                   "is for another name",                         "use the name that the certificate is for, or ask the provider"},
    {X509_V_ERR_IP_ADDRESS_MISMATCH,                 "is not for this address",                     "use a name that the certificate is for, or ask the provider"},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,         "is signed by itself alone",                   kAddAuthority},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,           "comes from an authority that is not trusted", kAddAuthority},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,   "comes from an authority that is not known",   kAddAuthority},
}};
// clang-format on

/// Whether the library verifies certificates with these settings.
bool verifiesTls(Examination const& examination) {
    std::string const profile = valueIn(examination, "settings.xml", "PROFILE");
    std::string const verify = valueIn(examination, "settings.xml", "TLSVERIFY");
    return verify.empty() ? !profile.empty() && profile != "0" : verify != "0";
}

void addTrustFindings(Examination const& examination, Target const& target, TlsFacts const& facts) {
    bool const isVerified = verifiesTls(examination);
    for (long const error : facts.m_Errors) {
        auto const* const row = std::find_if(kTrust.begin(), kTrust.end(),
                                             [error](TrustRow const& known) { return known.m_Error == error; });
        bool const isCommon = error == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE && facts.m_Errors.size() > 1;
        if (isCommon) {
            continue;  // Follows from an issuer that is not known.
        }
        std::string text =
            "the certificate of " + target.place() + " " +
            (row != kTrust.end() ? row->m_Text : std::string("is refused: ") + X509_verify_cert_error_string(error));
        if (error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH) {
            text += ": " + (facts.m_Names.empty() ? facts.m_Subject : facts.m_Names);
        }
        if (error == X509_V_ERR_CERT_HAS_EXPIRED) {
            text += ", on " + facts.m_Expiry;
        }
        std::string const cure = row != kTrust.end() ? row->m_Cure : "show this to the provider";
        if (isVerified) {
            examination.m_Report.problem("tls", text, cure);
        } else {
            examination.m_Report.warning("tls", text + "; the library does not look, since TLSVERIFY is off", cure);
        }
    }
    if (!isVerified) {
        examination.m_Report.warning("tls", "the certificate of " + target.place() + " is not verified",
                                     "set TLSVERIFY=\"1\", or PROFILE=\"strict\", in settings.xml");
    }
}

void examineTls(Examination const& examination, Target const& target, TlsFacts const& facts) {
    DoctorReport& report = examination.m_Report;
    std::size_t const before = report.findings().size();
    addTrustFindings(examination, target, facts);
    bool const hasExpired =
        std::find(facts.m_Errors.begin(), facts.m_Errors.end(), X509_V_ERR_CERT_HAS_EXPIRED) != facts.m_Errors.end();
    if (!hasExpired && facts.m_DaysLeft < kDaysWarned) {
        report.warning("tls",
                       "the certificate of " + target.place() + " expires in " + std::to_string(facts.m_DaysLeft) +
                           " days, on " + facts.m_Expiry,
                       "see that the provider renews it");
    }
    std::string const least = valueIn(examination, "settings.xml", "TLSMIN");
    std::string const spoken =
        facts.m_Version == "TLSv1" ? "1.0" : facts.m_Version.substr(facts.m_Version.find('v') + 1);
    bool const isRefused = (!least.empty() ? spoken < least : verifiesTls(examination) && spoken < "1.2");
    if (isRefused) {
        report.problem(
            "tls", target.place() + " speaks " + facts.m_Version + ", which settings.xml refuses",
            "the provider must offer TLS 1.2 or later; TLSMIN=\"" + spoken + "\" would accept it until then");
    } else if (spoken < "1.2") {
        report.warning("tls", target.place() + " speaks " + facts.m_Version + ", which is broken",
                       "the provider must offer TLS 1.2 or later");
    }
    if (report.findings().size() == before) {
        report.good("tls", target.place() + " speaks " + facts.m_Version + "; its certificate is valid until " +
                               facts.m_Expiry);
    }
}

// --- Clock

/// The value of the header `name`, in lower case with a colon; empty when there is none.
std::string headerOf(std::string const& answer, std::string const& name) {
    std::string lower = answer;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
    std::size_t const at = lower.find("\r\n" + name);
    if (at == std::string::npos) {
        return "";
    }
    std::size_t const begin = at + 2 + name.size();
    return trimmed(answer.substr(begin, answer.find("\r\n", begin) - begin));
}

/// "75 seconds", "5 minutes", "3 hours".
std::string spanOf(long seconds) {
    constexpr long kMinute = 60;
    constexpr long kHour = 60 * kMinute;
    constexpr long kDay = 24 * kHour;
    if (seconds < 2 * kMinute) {
        return std::to_string(seconds) + " seconds";
    }
    if (seconds < 2 * kHour) {
        return std::to_string(seconds / kMinute) + " minutes";
    }
    return seconds < 2 * kDay ? std::to_string(seconds / kHour) + " hours" : std::to_string(seconds / kDay) + " days";
}

void examineClock(Examination const& examination, Target const& target, std::string const& answer) {
    std::string const date = headerOf(answer, "date:");
    std::tm fields = {};
    char const* const end = ::strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &fields);
    if (end == nullptr || *end != '\0') {
        return examination.m_Report.skipped(
            "clock", date.empty() ? "not checked: " + target.place() + " sends no Date"
                                  : "not checked: " + target.place() + " sends a Date that cannot be read: " + date);
    }
    long const difference = static_cast<long>(std::time(nullptr) - ::timegm(&fields));
    if (std::labs(difference) <= kMaxClockDifference) {
        return examination.m_Report.good("clock", "differs from that of " + target.place() + " by less than a minute");
    }
    examination.m_Report.problem("clock",
                                 "the clock of this machine is " + spanOf(std::labs(difference)) +
                                     (difference > 0 ? " ahead of" : " behind") + " that of " + target.place() +
                                     ": payments expire at the wrong time",
                                 "set the clock, and keep it set: timedatectl set-ntp true");
}

// --- The visit

void visit(Examination const& examination, Target const& target, std::optional<HostPort> const& proxy) {
    DoctorReport& report = examination.m_Report;
    std::string step = proxy ? "proxy" : "connection";
    try {
        DoctorConnection connection(proxy ? proxy->m_Host : target.m_Host, proxy ? proxy->m_Port : target.m_Port,
                                    examination.m_Options.m_TimeoutSeconds);
        if (proxy && target.m_IsTls) {
            connection.openTunnel(target.place());
        }
        step = "connection";
        if (target.m_IsTls) {
            step = "tls";
            std::string const trust = valueIn(examination, "settings.xml", "TLSCAFILE");
            examineTls(examination, target, connection.startTls(target.m_Host, trust));
        }
        step = "connection";
        std::string const path = proxy && !target.m_IsTls ? "http://" + target.place() + "/" : "/";
        std::string const answer = connection.ask("HEAD " + path + " HTTP/1.0\r\nHost: " + target.place() + "\r\n\r\n");
        if (answer.compare(0, 5, "HTTP/") != 0) {
            bool const isTls = answer.size() > 1 && answer[0] == '\x15' && answer[1] == '\x03';
            throw ConnectionFailure(target.place() + (isTls ? " speaks TLS" : " does not answer in HTTP"),
                                    isTls ? "the address should begin with https://: ask the provider"
                                          : "compare host and port with the provider");
        }
        std::size_t const blank = answer.find(' ');
        std::string const status = blank == std::string::npos ? "" : answer.substr(blank + 1, 3);
        if (proxy && !target.m_IsTls && (status == "407" || status == "502" || status == "503" || status == "504")) {
            step = "proxy";
            throw ConnectionFailure("the proxy answers " + status + " for " + target.place(),
                                    status == "407" ? "the library has no credentials for proxies: let it pass without"
                                                    : "see whether the proxy reaches " + target.place());
        }
        report.good("connection", target.address() + " answers" + (proxy ? " through the proxy" : ""));
        examineClock(examination, target, answer);
    } catch (ConnectionFailure const& failure) {
        report.problem(step, failure.what(), failure.cure());
    }
}

}  // namespace

void examineService(Examination const& examination) {
    std::set<Target> const targets = targetsOf(examination);
    std::optional<HostPort> const proxy = proxyOf(examination);
    for (Target const& target : targets) {
        visit(examination, target, proxy);
    }
    if (proxy && !targets.empty() && !examination.m_Report.hasFinding("proxy")) {
        examination.m_Report.good("proxy", proxy->m_Host + ":" + proxy->m_Port + " lets the service through");
    } else if (!proxy && !examination.m_Report.hasFinding("proxy")) {
        examination.m_Report.good("proxy", "none is used");
    }
}

}  // namespace tool
