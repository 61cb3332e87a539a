// Every row of the lifecycle is made to happen, and every pair of a state and an event without a row changes nothing.
//
// The attempt is put into the state by hand. The service is a script that answers each request with what the row needs;
// what has to happen between a request and its result is done at the points of the ledger.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>

#include "ledger/lifecycle.h"
#include "ledger/testpoints.h"
#include "tests/ledger/ledgersupport.h"
#include "tests/support/rawserver.h"

using namespace kvxtest;
using ledger::Event;
using ledger::State;

namespace {

/// What the service does with a request; set by the test, read by the server.
class Answer {
public:
    void set(std::string const& response) {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        m_Response = response;
    }

    [[nodiscard]] std::string response() {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        return m_Response;
    }

private:
    std::mutex m_Mutex;
    std::string m_Response;  ///< Empty: the connection is reset.
};

std::string statusOf(int status) {
    return "HTTP/1.0 " + std::to_string(status) + " Text\r\n\r\n";
}

class LifecycleRows : public LedgerTest {
protected:
    LifecycleRows() {
        m_Dir.write("account/config.xml", "<KVX VTURL=\"http://127.0.0.1:1/pay\" CAPTUREURL=\"http://127.0.0.1:" +
                                              m_Service.portText() + "/capture\" VTKEYID=\"server\"/>");
        for (auto const& [name, value] :
             Attributes{{"STATUSTYPE", "Status"}, {"COMPLETE", "1"}, {"RETRYBASE", "100"}, {"SETTLESECONDS", "100"}}) {
            m_Ledger.option(name, value);
        }
    }
    ~LifecycleRows() override { ledger::g_TestPoint = nullptr; }

    void sql(std::string const& statement) const { EXPECT_EQ(m_Store.run(statement), "") << statement; }

    /// Puts the attempt into `state`, due now, with everything that belongs to it.
    void put(State state) const {
        ledger::StateRow const& row = ledger::rowOf(state);
        bool const isKnownAsPaid = row.m_IsPaid || state == State::kSurplus;
        std::string const where = " WHERE order_id = (SELECT id FROM orders WHERE number = 'A-17') AND attempt = 1";
        sql("UPDATE attempts SET state = '" + std::string(row.m_Name) + "', due_at = " + std::to_string(m_Start) +
            ", lease_owner = NULL, result = NULL, confirmation = NULL, refusals = 0, paid_at = " +
            (isKnownAsPaid ? "1, payment_id = 'P1'" : "NULL, payment_id = NULL") + where);
        sql("UPDATE orders SET told_at = NULL, paid_attempt = " + std::string(row.m_IsPaid ? "1" : "NULL") +
            " WHERE number = 'A-17'");
    }

    void refusedOften() const { sql("UPDATE attempts SET refusals = 5"); }

    /// Makes another attempt of the order the one that has paid.
    void payOtherwise() const {
        sql("INSERT INTO attempts SELECT order_id, 2, 'other', 'completed', message, url, created_at, expires_at, "
            "NULL, 1,"
            " 'P2', NULL, 0, 0, NULL, NULL, NULL, NULL, 0 FROM attempts WHERE attempt = 1");
        sql("UPDATE orders SET newest_attempt = 2, paid_attempt = 2, told_at = 1");
    }

    /// At the first point before sending, does `call`; it may look at the store and change it.
    static void beforeSending(std::function<void()> call) {
        static std::function<void()> s_Call;
        s_Call = std::move(call);
        ledger::g_TestPoint = [](ledger::TestPoint point) {
            if (point == ledger::TestPoint::kBeforeSending) {
                ledger::g_TestPoint = nullptr;
                s_Call();
            }
        };
    }

    void answer(std::string const& response) { m_Answer.set(response); }

    /// The service answers a status request with this state.
    void answerState(std::string const& state) {
        answer(httpResponse("<KVX MSGTYPE=\"StatusResponse\" ID=\"P1\" STATE=\"" + state + "\"/>"));
    }

    void work() const { EXPECT_GE(m_Ledger.run(1), 0); }

    /// Makes `event` happen to an attempt in the state `from`; false when it cannot happen there at all.
    bool cause(State from, Event event);
    bool causeByWorker(State from, Event event);
    bool causeExchange(State from, Event event, std::string const& response);

    [[nodiscard]] State state() const {
        return ledger::stateNamed(m_Ledger.attempt(1).at("state")).value_or(State::kOpened);
    }

    Answer m_Answer;
    RawServer m_Service{[this](Peer& peer) {
        static_cast<void>(peer.receiveRequest());
        std::string const response = m_Answer.response();
        if (response.empty()) {
            peer.reset();
        } else {
            peer.send(response);
            peer.finish();
        }
    }};
};

bool LifecycleRows::cause(State from, Event event) {
    put(from);
    if (from == State::kWaiting) {
        sql("UPDATE attempts SET asks = 10 WHERE attempt = 1");  // a person has to look
    }
    switch (event) {
        case Event::kConfirmedLater:
            if (from == State::kCancelled) {
                sql("UPDATE attempts SET paid_at = 1 WHERE attempt = 1");  // a person has given it up
            }
            static_cast<void>(confirm(says("authorised")));
            return true;
        case Event::kConfirmedPaid:
            static_cast<void>(confirm(says("authorised")));
            return true;
        case Event::kConfirmedSurplus:
            if (ledger::rowOf(from).m_IsPaid) {
                return false;  // the attempt itself has paid
            }
            payOtherwise();
            static_cast<void>(confirm(says("authorised")));
            return true;
        case Event::kConfirmedDeclined:
            static_cast<void>(confirm(says("declined")));
            return true;
        case Event::kConfirmedCancelled:
            static_cast<void>(confirm(says("cancelled")));
            return true;
        case Event::kConfirmedExpired:
            static_cast<void>(confirm(says("expired")));
            return true;
        case Event::kResolvedAuthorised:
            static_cast<void>(m_Ledger.resolve("authorised"));
            return true;
        case Event::kResolvedCaptured:
            static_cast<void>(m_Ledger.resolve("captured"));
            return true;
        case Event::kResolvedCompleted:
            static_cast<void>(m_Ledger.resolve("completed"));
            return true;
        case Event::kResolvedRefused:
            static_cast<void>(m_Ledger.resolve("capture_refused"));
            return true;
        case Event::kResolvedCancelled:
            static_cast<void>(m_Ledger.resolve("cancelled"));
            return true;
        case Event::kResolvedSurplus:
            static_cast<void>(m_Ledger.resolve("surplus_settled"));
            return true;
        case Event::kDelivered:
            sql("UPDATE orders SET told_at = 1, delivered_at = NULL");
            EXPECT_EQ(Ledger_Delivered(m_Ledger.get(), "A-17"), KVX_OK);
            return true;
        case Event::kBegun:
            return false;  // opened is not stored; begin_test.cpp has it
        default:
            return causeByWorker(from, event);
    }
}

bool LifecycleRows::causeByWorker(State from, Event event) {
    std::string const captured = httpResponse("<KVX MSGTYPE=\"PayConfirm\"/>");
    std::string const completed = httpResponse("<KVX MSGTYPE=\"PayCompleteResponse\"/>");
    bool const isAsked =
        ledger::rowOf(from).m_Job == ledger::Job::kAsk || ledger::rowOf(from).m_Job == ledger::Job::kSettle;
    switch (event) {
        case Event::kCaptureSent:
            return causeExchange(from, event, captured);
        case Event::kCompleteSent:
            return causeExchange(from, event, completed);
        case Event::kCaptureDone:
            return causeExchange(from, event, captured);
        case Event::kCompleteDone:
            return causeExchange(from, event, completed);
        case Event::kCaptureFailed:
        case Event::kCompleteFailed:
            return causeExchange(from, event, statusOf(403));
        case Event::kCaptureInDoubt:
        case Event::kCompleteInDoubt:
            return causeExchange(from, event, "");
        case Event::kInterrupted:
            if (ledger::rowOf(from).m_Job != ledger::Job::kTakeover) {
                return false;
            }
            work();
            return true;
        case Event::kTimedOut:
        case Event::kRepeated:
            m_Ledger.option("STATUSTYPE", "");
            m_Ledger.option("CAPTUREIDEMPOTENT", event == Event::kRepeated ? "1" : "0");
            if (!isAsked) {
                return false;
            }
            work();
            return true;
        default:
            break;
    }
    if (!isAsked) {
        return false;  // nobody asks about it
    }
    switch (event) {
        case Event::kFoundSurplus:
            if (ledger::rowOf(from).m_IsPaid) {
                return false;
            }
            payOtherwise();
            answerState("authorised");
            break;
        case Event::kFoundRefused:
            refusedOften();
            answerState("authorised");
            break;
        case Event::kFoundNothing:
            sql("UPDATE attempts SET refusals = 9 WHERE attempt = 1");  // one less than it takes
            answer(httpResponse("<KVX MSGTYPE=\"Error\" MESSAGE=\"no such payment\"/>"));
            break;
        default: {
            std::string const name = ledger::nameOf(event);
            answerState(name.substr(name.find('_') + 1));
            break;
        }
    }
    work();
    return true;
}

/// An exchange that has `response`, while the attempt is in the state `from`: the worker starts it as it always does,
/// and the attempt is put into that state while the request is on its way.
bool LifecycleRows::causeExchange(State from, Event event, std::string const& response) {
    bool const isSending = event == Event::kCaptureSent || event == Event::kCompleteSent;
    std::string const name = ledger::nameOf(event);
    State const start = name.find("capture") == 0 ? State::kAuthorised : State::kCaptured;
    if (isSending && from != start) {
        return false;  // the worker sends from one state only
    }
    State const sending = start == State::kAuthorised ? State::kCapturing : State::kCompleting;
    answer(response);
    put(start);
    if (isSending) {
        beforeSending([this] {
            // The state in between, which the result then replaces.
            EXPECT_EQ(m_Ledger.history().back().substr(m_Ledger.history().back().rfind(' ') + 1),
                      m_Ledger.attempt(1).at("state").get<std::string>());
        });
    } else if (from != sending) {
        beforeSending([this, from] { put(from); });
    }
    work();
    return true;
}

TEST_F(LifecycleRows, HappenAsTheTableSays) {
    static_cast<void>(m_Ledger.url());
    int happened = 0;
    for (ledger::StateRow const& from : ledger::kStates) {
        for (ledger::EventRow const& event : ledger::kEvents) {
            if (from.m_State == State::kOpened) {
                continue;
            }
            SCOPED_TRACE(std::string(from.m_Name) + " " + event.m_Name);
            sql("DELETE FROM attempts WHERE attempt = 2");
            sql("UPDATE orders SET newest_attempt = 1, paid_attempt = NULL");
            m_Ledger.option("STATUSTYPE", "Status");
            m_Ledger.option("CAPTUREIDEMPOTENT", "0");
            std::size_t const before = m_Ledger.history().size();
            bool const isTried = cause(from.m_State, event.m_Event);
            std::optional<State> const to = ledger::stateAfter(from.m_State, event.m_Event);
            std::vector<std::string> const history = m_Ledger.history();
            std::string const row = to ? std::string(from.m_Name) + " " + event.m_Name + " " + ledger::nameOf(*to) : "";
            bool const isRecorded =
                std::find(history.begin() + static_cast<std::ptrdiff_t>(before), history.end(), row) != history.end();
            EXPECT_EQ(isRecorded, to.has_value());
            happened += isRecorded ? 1 : 0;
            bool const isSending = event.m_Event == Event::kCaptureSent || event.m_Event == Event::kCompleteSent;
            if (isTried && !isSending && to) {
                EXPECT_EQ(state(), *to);
            }
            for (std::size_t index = before; index < history.size() && !to; ++index) {
                EXPECT_EQ(history[index].find(std::string(" ") + event.m_Name + " "), std::string::npos)
                    << history[index];
            }
        }
    }
    EXPECT_EQ(happened + 1, static_cast<int>(std::size(ledger::kTransitions))) << "all but the beginning";
}

}  // namespace
