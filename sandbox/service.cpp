#include "sandbox/service.h"

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "sandbox/datadirectory.h"
#include "sandbox/listener.h"
#include "sandbox/pages.h"
#include "sandbox/refusal.h"
#include "sandbox/signature.h"
#include "sandbox/site.h"
#include "sandbox/tlsidentity.h"
#include "sandbox/utctime.h"

namespace sandbox {

namespace {

constexpr char kDatabaseFile[] = "sandbox.db";
constexpr char kServerKeyId[] = "1-SERVER-1";

/// How an address answers a request that is turned down.
enum class RefusalForm { ErrorMessage, Page };

/// One protocol address; its requests are recorded.
struct Endpoint {
    Route route;
    HttpReply (*answer)(Site const& site, HttpRequest const& request, Exchange& record);
    RefusalForm refusal;
};

// clang-format off
constexpr Endpoint kEndpoints[] = {
    {{"GET",  "/auto"},         answerAuto,     RefusalForm::ErrorMessage},
    {{"GET",  "/pay"},          answerPay,      RefusalForm::Page},
    {{"POST", "/pay/decision"}, answerDecision, RefusalForm::Page},
    {{"GET",  "/capture"},      answerCapture,  RefusalForm::ErrorMessage},
};
// clang-format on

constexpr Route kList{"GET", "/"};
constexpr Route kReturned{"GET", "/returned"};

/// The stored server key, made when there is none yet.
StoredServerKey loadServerKey(Store& store, Options const& options, std::string const& time) {
    if (std::optional<StoredServerKey> stored = store.serverKey()) {
        return *stored;
    }
    StoredServerKey const fresh{kServerKeyId, privateKeyDer(makeSigningKey(options.serverKeyBits).get())};
    store.addServerKey(fresh, time);
    return fresh;
}

Site makeSite(Store& store, Options const& options) {
    std::function<std::time_t()> clock = options.clock ? options.clock : [] { return std::time(nullptr); };
    StoredServerKey const key = loadServerKey(store, options, utcText(clock()));
    store.putAccount(options.accountUser, options.accountPassword);
    return {store, key.id, readPrivateKeyDer(key.privateDer), std::move(clock)};
}

HttpReply plainReply(int status, std::string const& text) {
    return {status, "text/plain; charset=utf-8", text + "\n"};
}

std::vector<Route> allRoutes() {
    std::vector<Route> routes{kList, kReturned};
    for (Endpoint const& endpoint : kEndpoints) {
        routes.push_back(endpoint.route);
    }
    return routes;
}

}  // namespace

/// A service between start() and stop(). The members are torn down from the last to the first: no request is under way
/// any more when what it works on goes.
class Service::Running {
public:
    explicit Running(Options const& options)
        : m_Directory(options.dataDirectory),
          m_Store(m_Directory.file(kDatabaseFile)),
          m_Site(makeSite(m_Store, options)),
          m_Plain(options.port, nullptr) {
        if (options.tls) {
            m_Tls = std::make_unique<Listener>(options.tlsPort, makeTlsContext(m_Directory));
        }
        auto const handler = [this](HttpRequest const& request) { return answer(request); };
        m_Plain.start(allRoutes(), handler);
        if (m_Tls) {
            m_Tls->start(allRoutes(), handler);
        }
    }

    [[nodiscard]] Listener const& plain() const { return m_Plain; }
    [[nodiscard]] Listener const* tls() const { return m_Tls.get(); }
    [[nodiscard]] Site const& site() const { return m_Site; }

private:
    HttpReply answer(HttpRequest const& request) noexcept {
        try {
            return dispatch(request);
        } catch (Refusal const& refusal) {
            return plainReply(refusal.status(), refusal.what());
        } catch (std::exception const& failure) {
            return plainReply(500, std::string("The sandbox failed: ") + failure.what());
        }
    }

    HttpReply dispatch(HttpRequest const& request) {
        if (request.method == "HEAD") {
            throw Refusal("HEAD is not answered here, because every request counts", 405);
        }
        if (request.path == kList.path) {
            return listPage(m_Store.payments());
        }
        if (request.path == kReturned.path) {
            return returnedPage(request);
        }
        for (Endpoint const& endpoint : kEndpoints) {
            if (request.path == endpoint.route.path) {
                return answerRecorded(endpoint, request);
            }
        }
        throw Refusal("There is nothing here.", 404);
    }

    HttpReply answerRecorded(Endpoint const& endpoint, HttpRequest const& request) {
        Exchange record;
        record.time = m_Site.timeText();
        record.path = request.path;
        record.verdict = "ok";
        HttpReply reply;
        try {
            reply = endpoint.answer(m_Site, request, record);
        } catch (Refusal const& refusal) {
            record.verdict = refusal.what();
            reply = endpoint.refusal == RefusalForm::Page ? refusalPage(refusal.status(), refusal.what(), record)
                                                          : messageReply(errorMessage(refusal.what()));
        }
        m_Store.addExchange(record);
        return reply;
    }

    DataDirectory m_Directory;
    Store m_Store;
    Site m_Site;
    Listener m_Plain;
    std::unique_ptr<Listener> m_Tls;  ///< Null without TLS.
};

Service::Service(Options options) : m_Options(std::move(options)) {}

Service::~Service() = default;

void Service::start() {
    if (m_Running) {
        throw std::logic_error("the sandbox is running already");
    }
    m_Running = std::make_unique<Running>(m_Options);
}

void Service::stop() {
    m_Running.reset();
}

std::uint16_t Service::plainPort() const {
    return m_Running ? m_Running->plain().port() : std::uint16_t{0};
}

std::uint16_t Service::tlsPort() const {
    return m_Running && m_Running->tls() != nullptr ? m_Running->tls()->port() : std::uint16_t{0};
}

std::string Service::baseUrl() const {
    return m_Running ? m_Running->plain().baseUrl() : "";
}

std::string Service::tlsBaseUrl() const {
    return m_Running && m_Running->tls() != nullptr ? m_Running->tls()->baseUrl() : "";
}

std::string Service::authorityFile() const {
    return m_Options.dataDirectory + "/ca.pem";
}

std::string Service::serverKeyId() const {
    return running().site().serverKeyId;
}

std::vector<Payment> Service::payments() const {
    return running().site().store.payments();
}

std::vector<Exchange> Service::exchanges() const {
    return running().site().store.exchanges();
}

Service::Running const& Service::running() const {
    if (!m_Running) {
        throw std::runtime_error("the sandbox is not running");
    }
    return *m_Running;
}

}  // namespace sandbox
