#ifndef TALLOWIN_SANDBOX_SERVICE_H
#define TALLOWIN_SANDBOX_SERVICE_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sandbox/http/httptext.h"
#include "sandbox/service/services.h"

namespace sandbox {

/// What a service is started with.
struct Options {
    std::string m_DataDirectory;             ///< Created when missing; its parent must exist.
    std::uint16_t m_Port = 0;                ///< Of plain HTTP; 0 picks a free one.
    bool m_Tls = false;                      ///< Listen with TLS as well.
    std::uint16_t m_TlsPort = 0;             ///< Of TLS; 0 picks a free one.
    std::uint16_t m_ControlPort = 0;         ///< Of the port that no fault touches; 0 picks a free one.
    bool m_Proxy = false;                    ///< Run a proxy as well.
    std::uint16_t m_ProxyPort = 0;           ///< Of the proxy; 0 picks a free one.
    std::string m_AccountUser = "demo";      ///< The merchant's account, created or given this password at the start.
    std::string m_AccountPassword = "demo";  ///< Kept as a salted hash only.
    unsigned m_ServerKeyBits = 512;      ///< Of the key that signs confirmations, when it is made at the first start.
    std::vector<Fault> m_Faults = {};    ///< Armed from the start.
    ListenAddress m_Listen = {};         ///< One that others reach needs a token.
    std::string m_Token = {};            ///< Demanded for control API and dashboard; empty: none is.
    std::string m_NotifyAuthority = {};  ///< File with the authorities of merchants with https addresses; empty: none.
    std::string m_ScenarioFile = {};     ///< A scenario that is armed from the start; empty: none.
    std::string m_Seed = {};             ///< Makes the identifiers of payments predictable; empty: they are random.
    bool m_Lenient = false;              ///< Accept odd content of a PayInit with a warning instead of refusing it.
    Retention m_Retention = {};          ///< How much of payments and exchanges is kept.
    std::function<std::time_t()> m_Clock = {};  ///< The time of day; empty means the system's. Called by many threads.
    std::chrono::milliseconds m_RequestTimeout{30'000};       ///< For a whole request to arrive.
    std::chrono::milliseconds m_ProxyTimeout{60'000};         ///< Until the target of the proxy begins to respond.
    std::chrono::milliseconds m_NotificationTimeout{10'000};  ///< For the merchant's response to a notification.

    /// How often the time of day is checked for payments that expire.
    std::chrono::milliseconds m_ClockInterval{1'000};

    /// Pauses between notification attempts; attempts = pauses + 1.
    std::vector<std::chrono::milliseconds> m_NotificationBackoff = {std::chrono::seconds(1), std::chrono::seconds(5)};
};

/// The payment service, the server of the merchant's protocol, on 127.0.0.1 unless the options say otherwise.
///
/// A service is started and stopped by one thread; in between every other member may be called by any thread. It needs
/// nothing of the component it stands against. Addresses: `/auto` set-up and keys, `/pay` payment page, `/pay/decision`
/// the shopper's decision, `/capture` capture and completion, `/returned` the page for shoppers without a shop to
/// return to, `/` the dashboard. All ports serve all of them.
class Service {
public:
    /// Remembers `options`; nothing is opened yet.
    explicit Service(Options options);

    /// Stops the service when it still runs.
    ~Service();
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    /// Opens the data directory, makes what is missing in it (database, server key, certificates) and listens. Returns
    /// when requests are accepted. Throws std::runtime_error with a text for people when a part of that fails; nothing
    /// is left running then. Calling it on a running service throws std::logic_error.
    void start();

    /// Finishes the requests in progress, closes everything and releases the data directory. A notification in progress
    /// is cut and sent again after the next start. Harmless on a service that is not running.
    void stop();

    /// Where it listens; all empty when it is not running.
    [[nodiscard]] Addresses addresses() const;

    /// The file with the certificate that TLS clients must trust.
    [[nodiscard]] std::string authorityFile() const;

    /// What its parts work on. Throws std::runtime_error when it is not running.
    [[nodiscard]] Services const& services() const;

private:
    struct Running;

    Options m_Options;
    std::unique_ptr<Running> m_Running;  ///< Null when not running.
};

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_SERVICE_H
