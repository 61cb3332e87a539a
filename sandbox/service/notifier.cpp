#include "sandbox/service/notifier.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <utility>

#include "sandbox/http/httptext.h"
#include "sandbox/http/links.h"
#include "sandbox/http/localsocket.h"
#include "sandbox/http/relay.h"
#include "sandbox/http/signalguards.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/service/protocol.h"
#include "sandbox/text/refusal.h"
#include "sandbox/text/wiretext.h"

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
        down.endWhen(isWholeAnswer);
        Outcome const outcome = carry(up, down, {deadline, patience}, ending);
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
    record.microseconds = microsecondsSince(begin);
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

/// What an address shares with those that must wait for one another. Nothing is sent to an address that cannot be read.
std::string laneOf(std::string const& address) {
    try {
        return parseHttpAddress(address).place.text();
    } catch (Refusal const&) {
        return "";
    }
}

/// The oldest of `waiting` that is due and has none of the same payment before it; the end when there is none. Then
/// `next` becomes the moment at which the first one is due, if that comes before it.
template <class Waiting>
typename Waiting::iterator firstDue(Waiting& waiting, Clock::time_point now, Clock::time_point& next) {
    std::set<std::string> heldUp;
    for (auto each = waiting.begin(); each != waiting.end(); ++each) {
        auto const& [number, pending] = *each;
        if (!heldUp.insert(pending.notification.payment).second) {
            continue;
        }
        if (pending.due <= now) {
            return each;
        }
        next = std::min(next, pending.due);
    }
    return waiting.end();
}

}  // namespace

Notifier::Notifier(Site const& site, Patience patience) : m_Site(site), m_Patience(std::move(patience)) {}

Notifier::~Notifier() {
    stop();
}

void Notifier::start() {
    for (Payment const& payment : m_Site.store.payments(PaymentState::Opened)) {
        watch(payment);
    }
    SignalsBlocked const blocked;
    m_Threads.emplace_back([this] { run(); });
    while (m_Threads.size() <= kSenders) {
        m_Threads.emplace_back([this] { runSender(); });
    }
}

void Notifier::wake() {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    m_Woken = true;
    m_Changed.notify_one();
}

void Notifier::watch(Payment const& payment) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    // While others are watched the clock is looked at anyway.
    m_Woken = m_Woken || m_Watched.empty();
    m_Watched.emplace(expirationOf(payment), payment.id);
    m_Changed.notify_one();
}

void Notifier::stop() {
    m_Ending.raise();
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Stopping = true;
        m_Changed.notify_one();
        m_Assigned.notify_all();
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
        Clock::time_point const nextLook = look();
        lock.lock();
        Clock::time_point const next = std::min(nextLook, assignDue());
        m_Changed.wait_until(lock, next, [this] { return m_Stopping || m_Woken; });
    }
}

/// Finds what has come about. Returns when to do that again.
Notifier::Clock::time_point Notifier::look() {
    try {
        takeAdded();
        expireOverdue();
    } catch (std::exception const&) {
        // The store failed, so this can be told nowhere.
        return Clock::now() + kPauseWithoutStore;
    }
    std::lock_guard<std::mutex> const lock(m_Mutex);
    return m_Watched.empty() ? Clock::time_point::max() : Clock::now() + m_Patience.clock;
}

void Notifier::expireOverdue() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    while (!m_Stopping && !m_Watched.empty() && m_Site.clock.now() > m_Watched.begin()->first) {
        auto const overdue = m_Watched.begin();
        std::string const id = overdue->second;
        lock.unlock();
        if (expireWhenOverdue(m_Site, m_Site.store.paymentById(id).value().payment)) {
            return;  // the clock was set back meanwhile
        }
        lock.lock();
        m_Watched.erase(overdue);
    }
}

void Notifier::takeAdded() {
    for (Notification const& notification : m_Site.store.notifications(m_LastTaken)) {
        if (notification.pending) {
            std::lock_guard<std::mutex> const lock(m_Mutex);
            m_Lanes[laneOf(notification.address)].waiting[notification.number].notification = notification;
        }
        m_LastTaken = notification.number;
    }
}

/// Hands one notification of each lane that is not busy to the senders, if one is due. Returns when the next one is.
Notifier::Clock::time_point Notifier::assignDue() {
    Clock::time_point const now = Clock::now();
    Clock::time_point next = Clock::time_point::max();
    for (auto& [name, lane] : m_Lanes) {
        if (lane.busy) {
            continue;  // whoever sends calls when it is done
        }
        auto const due = firstDue(lane.waiting, now, next);
        if (due != lane.waiting.end()) {
            m_Errands.push_back({name, std::move(due->second)});
            lane.waiting.erase(due);
            lane.busy = true;
            m_Assigned.notify_one();
        }
    }
    return next;
}

void Notifier::runSender() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (;;) {
        m_Assigned.wait(lock, [this] { return m_Stopping || !m_Errands.empty(); });
        if (m_Stopping) {
            return;
        }
        Errand errand = std::move(m_Errands.front());
        m_Errands.pop_front();
        lock.unlock();
        bool const unsettled = sendOnce(errand.pending);
        lock.lock();
        Lane& lane = m_Lanes.at(errand.lane);
        lane.busy = false;
        if (unsettled) {
            lane.waiting[errand.pending.notification.number] = std::move(errand.pending);
        } else if (lane.waiting.empty()) {
            m_Lanes.erase(errand.lane);
        }
        m_Woken = true;
        m_Changed.notify_one();
    }
}

/// False when it is settled.
bool Notifier::sendOnce(Pending& pending) {
    // In case of a failure: no merchant is asked over and over because that could not be kept.
    pending.due = Clock::time_point::max();
    try {
        return send(pending);
    } catch (std::exception const&) {
        // The store failed, so this can be told nowhere. What is not settled there stays pending until the next start.
        return true;
    }
}

/// False when it is settled.
bool Notifier::send(Pending& pending) {
    Notification& notification = pending.notification;
    if (std::optional<std::string> const reason = obstacle(notification.address)) {
        return settle(notification, "not sent: " + *reason);
    }
    Payment const payment = m_Site.store.paymentById(notification.payment).value().payment;
    std::string const order = payment.attribute("ORDERID").value_or("");
    std::optional<Fault> fault = std::exchange(pending.delay, std::nullopt);
    if (!fault) {
        fault = m_Site.faults.take(ExchangeKind::Notification, order);
        if (fault && fault->kind == FaultKind::Delay) {
            pending.delay = fault;
            pending.due = Clock::now() + delayOf(*fault);
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
    return attempt(pending, query, record, fault && fault->kind == FaultKind::Twice);
}

/// False when it is settled.
bool Notifier::attempt(Pending& pending, std::string const& query, Exchange& record, bool twice) {
    Notification& notification = pending.notification;
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
    pending.due = Clock::now() + m_Patience.pauses[failures - 1];
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
