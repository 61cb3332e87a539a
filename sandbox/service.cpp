// Puts the service together: which part handles a request, and the order in which all parts start and stop.
// route() asks the protocol, the control API and the dashboard in turn. Running holds everything between start() and
// stop(); its members are destroyed from the last to the first, so no request is served any more when the services go.
// Odd: the listeners begin to stop together, and the proxy stops after them, because it carries their last responses.
#include "sandbox/service.h"

#include <atomic>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

#include "sandbox/control/control.h"
#include "sandbox/dashboard/dashboard.h"
#include "sandbox/http/listener.h"
#include "sandbox/http/requestserver.h"
#include "sandbox/http/tlsidentity.h"
#include "sandbox/pages/shopperpages.h"
#include "sandbox/proxy/proxy.h"
#include "sandbox/service/endpoints.h"
#include "sandbox/service/notifier.h"
#include "sandbox/store/datadirectory.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

constexpr char kDatabaseFile[] = "sandbox.db";
constexpr char kSnapshots[] = "snapshots";
constexpr int kFormKeyBytes = 16;

HttpResponse route(Services const& services, HttpRequest const& request) {
    if (request.m_Method == "HEAD") {
        throw HttpError("HEAD is not answered here, because every request counts", httpstatus::kMethodNotAllowed);
    }
    for (auto const handler : {handleProtocol, handleControl, handleDashboard}) {
        if (std::optional<HttpResponse> response = handler(services, request)) {
            return *response;
        }
    }
    if (request.m_Method == "GET" && request.m_Path == "/returned") {
        return returnedPage(request);
    }
    throw HttpError("There is nothing here.", httpstatus::kNotFound);
}

HttpResponse handle(Services const& services, HttpRequest const& request) noexcept {
    try {
        return route(services, request);
    } catch (HttpError const& error) {
        return plainResponse(error.status(), error.what());
    } catch (std::exception const& failure) {
        return failureResponse(failure.what());
    }
}

}  // namespace

/// A service between start() and stop(). The members are torn down from the last to the first: no request is under way
/// any more when what it works on goes.
struct Service::Running {
    explicit Running(Options const& options)
        : m_Directory(options.m_DataDirectory),
          m_Store(m_Directory.file(kDatabaseFile), options.m_Retention),
          m_Clock(options.m_Clock, m_Store),
          m_Keys(m_Store, m_Clock, options.m_ServerKeyBits),
          m_Services{m_Store,
                     m_Keys,
                     m_Faults,
                     m_Clock,
                     m_Addresses,
                     m_Notifier,
                     m_FormKey,
                     m_Decisions,
                     m_Snapshots,
                     options.m_Token,
                     options.m_NotifyAuthority,
                     options.m_Seed,
                     options.m_Lenient,
                     m_Ready},
          m_Notifier(m_Services,
                     {options.m_NotificationTimeout, options.m_NotificationBackoff, options.m_ClockInterval}),
          m_Requests([this](HttpRequest const& request) { return handle(m_Services, request); }),
          m_Control(options.m_ControlPort, nullptr, nullptr, options.m_RequestTimeout, options.m_Listen),
          m_Plain(options.m_Port, nullptr, &m_Faults, options.m_RequestTimeout, options.m_Listen) {
        m_Store.putAccount(options.m_AccountUser, options.m_AccountPassword);
        if (options.m_Tls) {
            m_TlsIdentity = makeTlsIdentity(m_Directory, options.m_Listen.m_Name);
            m_Tls = std::make_unique<Listener>(options.m_TlsPort, &m_TlsIdentity, &m_Faults, options.m_RequestTimeout,
                                               options.m_Listen);
            m_Addresses.m_Tls = m_Tls->address();
        }
        if (options.m_Proxy) {
            m_Proxy = std::make_unique<Listener>(options.m_ProxyPort, nullptr, nullptr, options.m_RequestTimeout,
                                                 ListenAddress());
            m_Addresses.m_Proxy = m_Proxy->address();
        }
        m_Addresses.m_Plain = m_Plain.address();
        m_Addresses.m_Control = m_Control.address();
        m_Faults.setRefusalListener([this](ExchangeKind kind, FaultRegistry::Moment until) { refuse(kind, until); });
        for (Fault const& fault : options.m_Faults) {
            m_Faults.arm(fault);
        }
        if (!options.m_ScenarioFile.empty()) {
            playScenarioFile(m_Services, options.m_ScenarioFile);
        }
        // Without TLS the HTTP library waits once more for a first line that did not come.
        start(m_Control, 2 * Connection::kIoTimeout);
        start(m_Plain, 2 * Connection::kIoTimeout);
        if (m_Tls) {
            start(*m_Tls, Connection::kIoTimeout);
        }
        if (m_Proxy) {
            m_Proxy->start([this, timeout = options.m_ProxyTimeout](Connection& connection) {
                serveProxyRequest(m_Services, connection, timeout);
            });
        }
        m_Notifier.start();
        m_Ready = true;
    }

    ~Running() {
        m_Ready = false;
        m_Faults.setRefusalListener(nullptr);
        m_Store.events().end();
        // All listeners together, so that none goes on while another one ends. The proxy ends last.
        m_Control.beginStop();
        m_Plain.beginStop();
        if (m_Tls) {
            m_Tls->beginStop();
        }
    }
    Running(Running const&) = delete;
    Running& operator=(Running const&) = delete;

    void start(Listener& listener, std::chrono::seconds silence) {
        auto const serve = [this, baseUrl = listener.address().m_Url](Connection& connection) {
            m_Requests.serve(connection, baseUrl);
        };
        listener.start(serve, silence);
    }

    void refuse(ExchangeKind kind, FaultRegistry::Moment until) {
        if (kind == ExchangeKind::kProxy) {
            if (m_Proxy) {
                m_Proxy->refuseUntil(until);
            }
            return;
        }
        m_Plain.refuseUntil(until);
        if (m_Tls) {
            m_Tls->refuseUntil(until);
        }
    }

    DataDirectory m_Directory;
    Store m_Store;
    ServiceClock m_Clock;
    KeyRing m_Keys;
    FaultRegistry m_Faults;
    StandingDecisions m_Decisions;
    Snapshots m_Snapshots{m_Directory.file(kSnapshots), m_Store};
    Addresses m_Addresses;
    std::atomic<bool> m_Ready{false};
    std::string m_FormKey = randomHex(kFormKeyBytes);
    Services m_Services;
    Notifier m_Notifier;
    RequestServer m_Requests;
    std::unique_ptr<Listener> m_Proxy;  ///< Null without a proxy. Ends after the others, to carry their last responses.
    TlsIdentity m_TlsIdentity;          ///< Empty without TLS.
    Listener m_Control;
    Listener m_Plain;
    std::unique_ptr<Listener> m_Tls;  ///< Null without TLS.
};

Service::Service(Options options) : m_Options(std::move(options)) {}

Service::~Service() = default;

void Service::start() {
    if (m_Running) {
        throw std::logic_error("the sandbox is running already");
    }
    if (m_Options.m_Token.empty() && !m_Options.m_Listen.isLocal()) {
        throw std::runtime_error("a service that other machines reach needs a token");
    }
    m_Running = std::make_unique<Running>(m_Options);
}

void Service::stop() {
    m_Running.reset();
}

Addresses Service::addresses() const {
    return m_Running ? m_Running->m_Addresses : Addresses();
}

std::string Service::authorityFile() const {
    return m_Options.m_DataDirectory + "/ca.pem";
}

Services const& Service::services() const {
    if (!m_Running) {
        throw std::runtime_error("the sandbox is not running");
    }
    return m_Running->m_Services;
}

}  // namespace sandbox
