// Responses that are made piece by piece while they are sent: what happens, as server-sent events, and the export of
// payments and exchanges as JSON lines. The description of this API stands here as well.
// A stream of events first reads from the store the exchanges after the one that the client saw last, then waits for
// events. It begins to collect events before that, so none is missed; exchanges that it read from the store are left
// out. Only exchanges have an "id", their number: it is what a client that connects again has seen last.
// The export is read page by page. An object of JSON stands on each line: payments first, then exchanges, each with the
// member "type".
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sandbox/control/control.h"
#include "sandbox/control/controlformat.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"

namespace sandbox {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

/// Shows the client, and what is between, that the connection is alive.
constexpr char kComment[] = ":\n\n";
constexpr std::chrono::seconds kBetweenComments(15);

/// Between two pieces: a thread that woke for each event under load would take time from payments.
constexpr std::chrono::milliseconds kPause(100);

std::string eventText(char const* name, json const& data) {
    return std::string("event: ") + name + "\ndata: " + data.dump() + "\n\n";
}

std::string exchangeEvent(ExchangeSummary const& exchange) {
    return "id: " + std::to_string(exchange.m_Number) + "\n" + eventText("exchange", summaryJson(exchange));
}

/// The stream of one client.
class EventStream {
public:
    /// Without a number only what happens from now on.
    EventStream(Services const& services, std::optional<std::string> account, std::optional<std::int64_t> after)
        : m_Store(services.m_Store), m_Account(std::move(account)), m_Reader(m_Store.events()) {
        m_Filter.m_Account = m_Account;
        m_Page.m_Limit = kDefaultRows;
        m_CatchesUp = after.has_value();
        m_Page.m_After = after.value_or(m_Page.m_After);
    }

    /// See BodySource.
    std::optional<std::string> next(std::chrono::milliseconds timeout) {
        if (std::exchange(m_Fresh, false)) {
            return kComment;
        }
        if (m_CatchesUp) {
            return catchUp();
        }
        std::this_thread::sleep_until(m_PauseUntil);
        std::optional<std::vector<StoreEvent>> const events = m_Reader.await(timeout);
        if (!events) {
            return std::nullopt;
        }
        // Under load an event comes with many others, most payments among them more than once.
        std::set<std::string> payments;
        for (StoreEvent const& event : *events) {
            if (!event.m_Exchange) {
                payments.insert(paymentOf(event));
            }
        }
        Subjects const subjects = payments.empty() ? Subjects() : m_Store.subjectsOf(payments);
        std::string text;
        for (StoreEvent const& event : *events) {
            text += textOf(event, subjects);
        }
        if (text.empty() && Clock::now() >= m_CommentAt) {
            text = kComment;
        }
        if (!text.empty()) {
            m_PauseUntil = Clock::now() + kPause;
            m_CommentAt = Clock::now() + kBetweenComments;
        }
        return text;
    }

private:
    std::string catchUp() {
        Listing<Exchange> const listing = m_Store.exchangeSummaries(m_Filter, m_Page);
        std::string text;
        for (Exchange const& exchange : listing.m_Rows) {
            text += exchangeEvent(exchange);
            m_Page.m_After = exchange.m_Number;
        }
        m_CatchesUp = listing.m_More;
        return text;
    }

    using Subjects = std::map<std::string, Store::Subject>;

    /// Whose move or notification it is.
    static std::string const& paymentOf(StoreEvent const& event) {
        return event.m_Move ? event.m_Move->m_Payment : event.m_Notification->m_Payment;
    }

    /// Empty for another account, and for a payment that is no more.
    std::string textOf(StoreEvent const& event, Subjects const& subjects) {
        if (event.m_Exchange) {
            bool const isNew = event.m_Exchange->m_Number > m_Page.m_After;
            return isNew && fits(event.m_Exchange->m_Account) ? exchangeEvent(*event.m_Exchange) : "";
        }
        auto const found = subjects.find(paymentOf(event));
        if (found == subjects.end() || !fits(found->second.m_Account)) {
            return "";
        }
        Store::Subject const& subject = found->second;
        return event.m_Move ? moveEvent(*event.m_Move, subject) : notificationEvent(*event.m_Notification, subject);
    }

    [[nodiscard]] bool fits(std::string const& account) const { return !m_Account || *m_Account == account; }

    static std::string moveEvent(StoreEvent::Move const& move, Store::Subject const& subject) {
        json data = move.m_Step;
        data["id"] = move.m_Payment;
        putBytes(data, "account", subject.m_Account);
        putBytes(data, "order", subject.m_Order);
        return eventText("payment", data);
    }

    static std::string notificationEvent(Notification const& notification, Store::Subject const& subject) {
        json data = notification;
        putBytes(data, "account", subject.m_Account);
        return eventText("notification", data);
    }

    Store& m_Store;  ///< Borrowed.
    std::optional<std::string> m_Account;
    EventFeed::Reader m_Reader;
    Filter m_Filter;
    Page m_Page;  ///< Of the exchanges that are to be read from the store.
    bool m_CatchesUp = false;
    bool m_Fresh = true;
    Clock::time_point m_PauseUntil = Clock::now();
    Clock::time_point m_CommentAt = Clock::now() + kBetweenComments;
};

/// The exchange that the client saw last, by its header or by the query. Throws HttpError.
std::optional<std::int64_t> lastSeen(HttpRequest const& request) {
    std::optional<std::string> const text = request.m_LastEventId.empty()
                                                ? request.m_Query.value("after")
                                                : std::optional<std::string>(request.m_LastEventId);
    constexpr std::size_t kMaxDigits = 18;
    if (!text) {
        return std::nullopt;
    }
    if (text->empty() || text->size() > kMaxDigits || text->find_first_not_of("0123456789") != std::string::npos) {
        throw HttpError("Last-Event-ID and after take the number of an exchange, not '" + *text + "'");
    }
    return std::stoll(*text);
}

constexpr char kOpenApi[] =
#include <openapi.inc>
    ;

/// The lines of an export, a page of rows at a time.
class Export {
public:
    /// Borrows `services`. Throws HttpError.
    Export(Services const& services, Query const& query) : m_Services(services), m_Filter(readExportQuery(query)) {
        m_Page.m_Limit = kDefaultRows;
        m_Page.m_MaxBytes = kMaxListedBytes;
    }

    /// See BodySource.
    std::optional<std::string> next() {
        if (!m_PaymentsDone) {
            Listing<Payment> const listing = m_Services.m_Store.payments(m_Filter, m_Page);
            return linesOf(listing, "payment", m_PaymentsDone, [this](Payment const& payment) {
                return paymentJson(payment, m_Services.m_Store.notificationsOf(payment.m_Id));
            });
        }
        if (!m_AtEnd) {
            Listing<Exchange> const listing = m_Services.m_Store.exchanges(m_Filter, m_Page);
            return linesOf(listing, "exchange", m_AtEnd, [](Exchange const& exchange) { return json(exchange); });
        }
        return std::nullopt;
    }

private:
    /// The lines of a page, which goes on to the next one, or to the beginning when this `isLast`.
    template <class Row, class ToJson>
    std::string linesOf(Listing<Row> const& listing, char const* type, bool& isLast, ToJson toJson) {
        std::string lines;
        for (Row const& row : listing.m_Rows) {
            json object = toJson(row);
            object["type"] = type;
            lines += object.dump() + "\n";
        }
        isLast = !listing.m_More;
        m_Page.m_After = isLast ? Page().m_After : listing.m_Rows.back().m_Number;
        return lines;
    }

    Services const& m_Services;
    Filter m_Filter;
    Page m_Page;
    bool m_PaymentsDone = false;
    bool m_AtEnd = false;
};

HttpResponse getEvents(Services const& services, HttpRequest const& request) {
    refuseUnknown(request.m_Query, {"account", "after"});
    HttpResponse response{httpstatus::kOk, "text/event-stream", ""};
    auto const stream = std::make_shared<EventStream>(services, request.m_Query.value("account"), lastSeen(request));
    response.m_Source = [stream](std::chrono::milliseconds timeout) { return stream->next(timeout); };
    return response;
}

HttpResponse exportAll(Services const& services, HttpRequest const& request) {
    bringUpToDate(services);
    HttpResponse response{httpstatus::kOk, "application/x-ndjson", ""};
    auto const lines = std::make_shared<Export>(services, request.m_Query);
    response.m_Source = [lines](std::chrono::milliseconds /*timeout*/) { return lines->next(); };
    return response;
}

HttpResponse getOpenApi(Services const&, HttpRequest const&) {
    return {httpstatus::kOk, "application/json", kOpenApi};
}

}  // namespace

std::vector<ControlRoute> streamRoutes() {
    // clang-format off
    return {
        {"GET", "/control/openapi.json", getOpenApi},
        {"GET", "/control/events",       getEvents},
        {"GET", "/control/export",       exportAll},
    };
    // clang-format on
}

}  // namespace sandbox
