// Sends notifications with retries, and expires payments that nobody looks at.
// One thread, run(), loads new notifications from the store and expires payments; kWorkers threads, runWorker(), take
// what is due. Notifications to one host and port are sent one at a time, those of one payment in their order.
// An attempt: whyUnreachable() rules out addresses elsewhere, a fault may delay, drop or double the request, tryOnce()
// sends it, settle() or storeOutcome() stores the result.
// m_Mutex guards what is waiting and is not held while the store or the network is used.
#include "sandbox/service/notifier.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "sandbox/http/connection.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/httptext.h"
#include "sandbox/http/threadpool.h"
#include "sandbox/http/tlsidentity.h"
#include "sandbox/service/confirmation.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

using Clock = EndSignal::Clock;

constexpr std::chrono::seconds kPauseWithoutStore{5};
constexpr std::size_t kMaxResponse = std::size_t{8} * 1024 * 1024;

/// Why nothing can be sent to `address`; nothing when something can.
std::optional<std::string> whyUnreachable(std::string const& address, bool tls) {
    if (address.find('@') != std::string::npos && address.find("://") == std::string::npos) {
        return "it would be mailed to " + address;
    }
    try {
        localAddress(parseHttpAddress(address, tls).m_HostPort.m_Host);
        return std::nullopt;
    } catch (HttpError const& error) {
        return error.what();
    }
}

std::string requestText(HttpAddress const& address) {
    return "GET " + address.m_Target + " HTTP/1.0\r\nHost: " + address.m_HostPort.text() +
           "\r\nUser-Agent: tallowin-sandbox\r\nConnection: close\r\n\r\n";
}

/// One request to a merchant, and what came of it.
struct Attempt {
    std::string m_Response = {};
    std::optional<int> m_Status = {};
    std::string m_Verdict = {};  ///< "ok", or what is wrong.

    [[nodiscard]] bool good() const { return m_Verdict == "ok"; }
};

/// The response as far as it comes, and why it has no status if that is so.
Attempt converse(Connection& connection, std::string const& request, Clock::time_point deadline) {
    Attempt attempt;
    char piece[16 * 1024];
    // A merchant that refuses a request need not read all of it.
    connection.write(request.data(), request.size());
    ssize_t count = 1;
    while (count > 0 && !isCompleteResponse(attempt.m_Response) && attempt.m_Response.size() < kMaxResponse) {
        count = connection.read(piece, sizeof piece);
        attempt.m_Response.append(piece, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    connection.leaveRest();
    if (connection.ending().raised()) {
        attempt.m_Verdict = "the sandbox stopped before the merchant answered";
    } else if (Clock::now() >= deadline) {
        attempt.m_Verdict = "the merchant did not answer in time";
    } else if (count < 0) {
        attempt.m_Verdict = "the merchant reset the connection";
    } else {
        attempt.m_Verdict = attempt.m_Response.empty() ? "the merchant closed the connection without an answer"
                                                       : "the merchant's answer is not a complete one of HTTP";
    }
    return attempt;
}

/// `authority` is the file with those of merchants under TLS.
Attempt sendRequest(HttpAddress const& address, std::string const& authority, std::chrono::milliseconds timeout,
                    EndSignal const& ending) {
    Clock::time_point const begin = Clock::now();
    Attempt attempt;
    try {
        std::string const& host = address.m_HostPort.m_Host;
        TlsContextHolder const tls = address.m_Tls ? makeClientContext(authority, host) : nullptr;
        FileDescriptor const socket = connectLocally(address.m_HostPort, begin + timeout, ending);
        Connection connection(socket.get(), tls.get(), ending, timeout, begin);
        if (!connection.open()) {
            std::string const problem = connection.certificateProblem();
            throw HttpError(problem.empty() ? "the merchant made no TLS connection"
                                            : "the merchant's certificate was refused: " + problem);
        }
        attempt = converse(connection, requestText(address), begin + timeout);
    } catch (HttpError const& error) {
        attempt.m_Verdict = error.what();
    }
    attempt.m_Status = statusOfResponse(attempt.m_Response);
    if (attempt.m_Status) {
        bool const good = *attempt.m_Status >= httpstatus::kOk && *attempt.m_Status < httpstatus::kMultipleChoices;
        attempt.m_Verdict = good ? "ok" : "the merchant answered " + std::to_string(*attempt.m_Status);
    }
    return attempt;
}

/// Sends one request and stores it as `exchange`.
Attempt sendLogged(Services const& services, HttpAddress const& address, std::chrono::milliseconds timeout,
                   EndSignal const& ending, Exchange& exchange) {
    exchange.m_Time = services.m_Clock.text(exchange.m_Account);
    exchange.m_Request = keptText(requestText(address));
    Clock::time_point const begin = Clock::now();
    Attempt attempt = sendRequest(address, services.m_NotifyAuthority, timeout, ending);
    exchange.m_Microseconds = microsecondsSince(begin);
    exchange.m_Response = keptText(attempt.m_Response);
    exchange.m_Verdict = attempt.m_Verdict;
    services.m_Store.addExchange(exchange);
    return attempt;
}

Exchange exchangeOf(Notification const& notification, Payment const& payment, std::string const& query,
                    std::optional<Fault> const& fault) {
    Exchange exchange;
    exchange.m_Kind = ExchangeKind::kNotification;
    exchange.m_Account = payment.m_Account;
    exchange.m_Order = payment.attribute("ORDERID").value_or("");
    exchange.m_Token = payment.m_Token;
    exchange.m_Payment = payment.m_Id;
    exchange.m_Path = notification.m_Address.substr(0, notification.m_Address.find_first_of("?#"));
    Query const fields(query);
    exchange.m_Data = fields.value("DATA").value();
    exchange.m_Signature = fields.value("SIGNATURE").value();
    exchange.m_Fault = fault ? faultText(*fault) : "";
    return exchange;
}

Clock::duration delayOf(Fault const& fault) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(secondsOf(fault)));
}

/// "host:port" of an address; empty for those that cannot be read, to which nothing is sent.
std::string hostPortOf(std::string const& address) {
    try {
        return parseHttpAddress(address, true).m_HostPort.text();
    } catch (HttpError const&) {
        return "";
    }
}

}  // namespace

Notifier::Notifier(Services const& services, Timeouts timeouts)
    : m_Services(services), m_Timeouts(std::move(timeouts)) {}

Notifier::~Notifier() {
    stop();
}

void Notifier::start() {
    SignalsBlocked const blocked;
    m_Threads.emplace_back([this] { run(); });
    while (m_Threads.size() <= kWorkers) {
        m_Threads.emplace_back([this] { runWorker(); });
    }
}

void Notifier::wake() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    wakeLocked();
}

void Notifier::reload() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Reloading = true;
    wakeLocked();
}

void Notifier::wakeLocked() {
    m_Woken = true;
    m_Changed.notify_one();
}

void Notifier::stop() {
    m_Ending.raise();
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Stopping = true;
        m_Changed.notify_one();
        m_Queued.notify_all();
    }
    for (std::thread& thread : m_Threads) {
        thread.join();
    }
    m_Threads.clear();
}

void Notifier::run() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Stopping) {
        m_Woken = false;
        lock.unlock();
        Clock::time_point const next = poll();
        lock.lock();
        m_Changed.wait_until(lock, next, [this] { return m_Stopping || m_Woken; });
    }
}

/// Loads new notifications, expires payments and makes the moves that are due. Returns when to do that again.
Notifier::Clock::time_point Notifier::poll() {
    try {
        loadNew();
        while (!m_Ending.raised() && expireSomeOverdue(m_Services)) {
        }
        makeDueMoves(m_Services);
        return Clock::now() + m_Timeouts.m_ClockInterval;
    } catch (std::exception const&) {
        // The store failed, so there is nowhere to report it.
        return Clock::now() + kPauseWithoutStore;
    }
}

void Notifier::loadNew() {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (std::exchange(m_Reloading, false)) {
            m_LastTaken = 0;
            m_Waiting.clear();
        }
    }
    for (Notification const& notification : m_Services.m_Store.pendingNotifications(m_LastTaken)) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Waiting[hostPortOf(notification.m_Address)][notification.m_Number].m_Notification = notification;
        m_LastTaken = notification.m_Number;
        m_Queued.notify_one();
    }
}

/// Sends what is due. After each change some worker that is free looks again: it takes the next one, or waits until it
/// is due.
void Notifier::runWorker() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Stopping) {
        Clock::time_point next = Clock::time_point::max();
        std::optional<Job> job = takeDue(next);
        if (!job) {
            m_Queued.wait_until(lock, next);
            continue;
        }
        m_Busy.insert(job->m_HostPort);
        m_Queued.notify_one();
        lock.unlock();
        bool const unsettled = sendOnce(job->m_Pending);
        lock.lock();
        m_Busy.erase(job->m_HostPort);
        if (unsettled) {
            m_Waiting[job->m_HostPort][job->m_Pending.m_Notification.m_Number] = std::move(job->m_Pending);
        }
    }
}

/// Takes the oldest to a host and port that is due, with none of the same payment before it and none on its way to the
/// same host and port. Nothing when there is none; then `next` is the moment at which the first one is due.
std::optional<Notifier::Job> Notifier::takeDue(Clock::time_point& next) {
    Clock::time_point const now = Clock::now();
    for (auto& [hostPort, waiting] : m_Waiting) {
        if (m_Busy.count(hostPort) != 0) {
            continue;
        }
        std::set<std::string> heldUp;
        for (auto each = waiting.begin(); each != waiting.end(); ++each) {
            Pending& pending = each->second;
            if (!heldUp.insert(pending.m_Notification.m_Payment).second) {
                continue;
            }
            if (pending.m_Due <= now) {
                Job job{hostPort, std::move(pending)};
                waiting.erase(each);
                if (waiting.empty()) {
                    m_Waiting.erase(job.m_HostPort);
                }
                return job;
            }
            next = std::min(next, pending.m_Due);
        }
    }
    return std::nullopt;
}

/// False when it is settled.
bool Notifier::sendOnce(Pending& pending) {
    // For the case of a failure: no merchant is notified over and over because the outcome cannot be stored.
    pending.m_Due = Clock::time_point::max();
    try {
        return send(pending);
    } catch (std::exception const&) {
        // The store failed. A notification that is not settled there stays pending until the next start.
        return true;
    }
}

/// False when it is settled.
bool Notifier::send(Pending& pending) {
    Notification& notification = pending.m_Notification;
    if (std::optional<std::string> const reason =
            whyUnreachable(notification.m_Address, !m_Services.m_NotifyAuthority.empty())) {
        return settle(notification, "not sent: " + *reason);
    }
    std::optional<StoredPayment> const stored = m_Services.m_Store.paymentById(notification.m_Payment);
    if (!stored) {
        return false;  // it was removed meanwhile, with all its notifications
    }
    Payment const& payment = stored->m_Payment;
    std::string const order = payment.attribute("ORDERID").value_or("");
    FaultEffect effect{std::exchange(pending.m_Delay, std::nullopt)};
    std::vector<CheckStep> steps;
    if (!effect.m_Fault) {
        effect = takeFault(m_Services, ExchangeKind::kNotification, order, payment.m_Account, &payment, steps);
        if (effect.is(FaultKind::kDelay)) {
            pending.m_Due = Clock::now() + delayOf(*effect.m_Fault);
            pending.m_Delay = std::move(effect.m_Fault);
            return true;
        }
    }
    std::string const query = signedConfirmation(m_Services, payment, notification.m_Result, effect);
    Exchange exchange = exchangeOf(notification, payment, query, effect.m_Fault);
    exchange.m_Steps = std::move(steps);
    if (effect.is(FaultKind::kDrop)) {
        exchange.m_Time = m_Services.m_Clock.text(payment.m_Account);
        exchange.m_Verdict = "not sent";
        m_Services.m_Store.addExchange(exchange);
        return settle(notification, "not sent: the fault " + exchange.m_Fault + " happened");
    }
    return tryOnce(pending, query, exchange, effect.is(FaultKind::kTwice));
}

/// False when it is settled.
bool Notifier::tryOnce(Pending& pending, std::string const& query, Exchange& exchange, bool twice) {
    Notification& notification = pending.m_Notification;
    HttpAddress const address = parseHttpAddress(extendLink(notification.m_Address, query), true);
    Attempt best = sendLogged(m_Services, address, m_Timeouts.m_Response, m_Ending, exchange);
    if (twice) {
        Attempt const second = sendLogged(m_Services, address, m_Timeouts.m_Response, m_Ending, exchange);
        best = best.good() ? best : second;
    }
    if (!best.good() && m_Ending.raised()) {
        return true;
    }
    ++notification.m_Attempts;
    if (best.good()) {
        return settle(notification, "delivered: " + std::to_string(*best.m_Status));
    }
    auto const failures = static_cast<std::size_t>(notification.m_Attempts);
    if (failures > m_Timeouts.m_Backoff.size()) {
        return settle(notification, "given up: " + best.m_Verdict);
    }
    storeOutcome(notification, "to be tried again: " + best.m_Verdict);
    pending.m_Due = Clock::now() + m_Timeouts.m_Backoff[failures - 1];
    return true;
}

/// Always false.
bool Notifier::settle(Notification& notification, std::string const& outcome) {
    notification.m_Pending = false;
    storeOutcome(notification, outcome);
    return false;
}

void Notifier::storeOutcome(Notification& notification, std::string const& outcome) {
    notification.m_Time = m_Services.m_Clock.text();
    notification.m_Outcome = outcome;
    m_Services.m_Store.updateNotification(notification);
}

}  // namespace sandbox
