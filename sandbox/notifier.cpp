#include "sandbox/notifier.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <utility>

#include "sandbox/httptext.h"
#include "sandbox/links.h"
#include "sandbox/localsocket.h"
#include "sandbox/protocol.h"
#include "sandbox/refusal.h"
#include "sandbox/relay.h"
#include "sandbox/signalguards.h"
#include "sandbox/wiretext.h"

namespace sandbox {

namespace {

using Clock = EndSignal::Clock;

constexpr std::chrono::seconds kPauseWithoutStore{5};
constexpr int kFirstGood = 200;
constexpr int kFirstOther = 300;

/// Why nothing can be sent to `address`; nothing when it can.
std::optional<std::string> obstacle(std::string const& address) {
    if (address.find('@') != std::string::npos && address.find("://") == std::string::npos) {
        return "it would be mailed to " + address;
    }
    try {
        localAddress(parseHttpAddress(address).place.host);
        return std::nullopt;
    } catch (Refusal const& refusal) {
        return refusal.what();
    }
}

/// What is wrong with an answer that has no status.
std::string lackOf(Outcome outcome, std::string const& answer) {
    switch (outcome) {
        case Outcome::TargetLost:
            return "the merchant reset the connection";
        case Outcome::TooLate:
            return "the merchant did not answer in time";
        case Outcome::Stopped:
            return "the sandbox stopped before the merchant answered";
        default:
            return answer.empty() ? "the merchant closed the connection without an answer"
                                  : "the merchant's answer is not a complete one of HTTP";
    }
}

std::string requestText(HttpAddress const& address) {
    return "GET " + address.target + " HTTP/1.0\r\nHost: " + address.place.text() +
           "\r\nUser-Agent: tallowin-sandbox\r\nConnection: close\r\n\r\n";
}

/// What came of one request to a merchant.
struct Asked {
    std::string answer = {};
    std::optional<int> status = {};
    std::string verdict = {};  ///< "ok", or what is wrong.

    [[nodiscard]] bool good() const { return verdict == "ok"; }
};

Asked ask(HttpAddress const& address, std::chrono::milliseconds patience, EndSignal const& ending) {
    Clock::time_point const deadline = Clock::now() + patience;
    Asked asked;
    try {
        LocalSocket const socket(address.place, deadline, ending);
        Flow up(Flow::kNowhere, socket.get(), requestText(address), Flow::AtEnd::Leave);
        Flow down(socket.get(), Flow::kNowhere, "", Flow::AtEnd::Leave);
        Outcome const outcome = carry(up, down, deadline, ending);
        asked.answer = down.begin();
        asked.status = statusOfAnswer(asked.answer);
        asked.verdict =
            asked.status ? "the merchant answered " + std::to_string(*asked.status) : lackOf(outcome, asked.answer);
    } catch (Refusal const& refusal) {
        asked.verdict = refusal.what();
    }
    if (asked.status && *asked.status >= kFirstGood && *asked.status < kFirstOther) {
        asked.verdict = "ok";
    }
    return asked;
}

/// Asks once and records that as `record`.
Asked askRecorded(Site const& site, HttpAddress const& address, std::chrono::milliseconds patience,
                  EndSignal const& ending, Exchange& record) {
    record.time = site.clock.text();
    record.request = keptText(requestText(address));
    Clock::time_point const begin = Clock::now();
    Asked asked = ask(address, patience, ending);
    record.microseconds = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
    record.answer = keptText(asked.answer);
    record.verdict = asked.verdict;
    site.store.addExchange(record);
    return asked;
}

Exchange recordOf(Notification const& notification, std::string const& order, std::string const& query,
                  std::optional<Fault> const& fault) {
    Exchange record;
    record.kind = ExchangeKind::Notification;
    record.order = order;
    record.path = notification.address.substr(0, notification.address.find_first_of("?#"));
    record.data = Query(query).value("DATA").value();
    record.signature = Query(query).value("SIGNATURE").value();
    record.fault = fault ? faultText(*fault) : "";
    return record;
}

Clock::duration delayOf(Fault const& fault) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(secondsOf(fault)));
}

}  // namespace

Notifier::Notifier(Site const& site, Patience patience) : m_Site(site), m_Patience(std::move(patience)) {}

Notifier::~Notifier() {
    stop();
}

void Notifier::start() {
    SignalsBlocked const blocked;
    m_Thread = std::thread([this] { run(); });
}

void Notifier::wake() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Added = true;
    m_Changed.notify_one();
}

void Notifier::stop() {
    m_Ending.raise();
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Stopping = true;
        m_Changed.notify_one();
    }
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
}

void Notifier::run() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Stopping) {
        m_Added = false;
        lock.unlock();
        Clock::time_point const next = sendDue();
        lock.lock();
        m_Changed.wait_until(lock, next, [this] { return m_Stopping || m_Added; });
    }
}

/// Returns when the next attempt is due.
Clock::time_point Notifier::sendDue() {
    Clock::time_point next = Clock::time_point::max();
    try {
        for (Notification const& notification : m_Site.store.notifications()) {
            if (m_Ending.raised()) {
                break;
            }
            if (!notification.pending) {
                continue;
            }
            Plan& plan = m_Plans[notification.number];
            if (plan.due <= Clock::now()) {
                // In case of a failure: no merchant is asked over and over because that could not be kept.
                plan.due = Clock::time_point::max();
                if (!send(notification, plan)) {
                    m_Plans.erase(notification.number);
                    continue;
                }
            }
            next = std::min(next, plan.due);
        }
    } catch (std::exception const&) {
        // The store failed, so this can be told nowhere. What is not settled there stays pending until the next start.
        next = Clock::now() + kPauseWithoutStore;
    }
    return next;
}

/// False when it is settled.
bool Notifier::send(Notification notification, Plan& plan) {
    if (std::optional<std::string> const reason = obstacle(notification.address)) {
        return settle(notification, "not sent: " + *reason);
    }
    Payment const payment = m_Site.store.paymentById(notification.payment).value().payment;
    std::string const order = payment.attribute("ORDERID").value_or("");
    std::optional<Fault> fault = std::exchange(plan.delay, std::nullopt);
    if (!fault) {
        fault = m_Site.faults.take(ExchangeKind::Notification, order);
        if (fault && fault->kind == FaultKind::Delay) {
            plan.delay = fault;
            plan.due = Clock::now() + delayOf(*fault);
            return true;
        }
    }
    std::string const query = signedConfirmation(m_Site, payment, notification.result, fault);
    Exchange record = recordOf(notification, order, query, fault);
    if (fault && fault->kind == FaultKind::Drop) {
        record.time = m_Site.clock.text();
        record.verdict = "not sent";
        m_Site.store.addExchange(record);
        return settle(notification, "not sent: the fault " + record.fault + " happened");
    }
    return attempt(notification, plan, query, record, fault && fault->kind == FaultKind::Twice);
}

/// False when it is settled.
bool Notifier::attempt(Notification& notification, Plan& plan, std::string const& query, Exchange& record, bool twice) {
    HttpAddress const address = parseHttpAddress(extendLink(notification.address, query));
    Asked best = askRecorded(m_Site, address, m_Patience.answer, m_Ending, record);
    if (twice) {
        Asked const second = askRecorded(m_Site, address, m_Patience.answer, m_Ending, record);
        best = best.good() ? best : second;
    }
    if (!best.good() && m_Ending.raised()) {
        return true;
    }
    ++notification.attempts;
    if (best.good()) {
        return settle(notification, "delivered: " + std::to_string(*best.status));
    }
    auto const failures = static_cast<std::size_t>(notification.attempts);
    if (failures > m_Patience.pauses.size()) {
        return settle(notification, "given up: " + best.verdict);
    }
    keep(notification, "to be tried again: " + best.verdict);
    plan.due = Clock::now() + m_Patience.pauses[failures - 1];
    return true;
}

/// Always false.
bool Notifier::settle(Notification& notification, std::string const& outcome) {
    notification.pending = false;
    keep(notification, outcome);
    return false;
}

void Notifier::keep(Notification& notification, std::string const& outcome) {
    notification.time = m_Site.clock.text();
    notification.outcome = outcome;
    m_Site.store.updateNotification(notification);
}

}  // namespace sandbox
