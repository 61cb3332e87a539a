/// The life of a payment attempt: its states, events and transitions.
///
/// Written by scripts/lifecycle from ledger/lifecycle.json, do not edit.
#ifndef TALLOWIN_LEDGER_LIFECYCLETABLE_H
#define TALLOWIN_LEDGER_LIFECYCLETABLE_H

namespace ledger {

// clang-format off
/// What the worker does in a state when the attempt is due.
enum class Job {
    kNone,  ///< Nothing is due.
    kAsk,  ///< After expiry and GRACESECONDS: a status request; without STATUSTYPE the event timed_out.
    kCapture,  ///< A capture, at once and after each pause.
    kComplete,  ///< A completion, at once and after each pause.
    kTakeover,  ///< When the lease has run out: the event interrupted.
    kSettle,  ///< After SETTLESECONDS: a status request; without STATUSTYPE the event repeated where CAPTUREIDEMPOTENT is 1, otherwise nothing.
};

enum class State {
    kOpened,  ///< Under construction, not stored.
    kWaiting,  ///< The payment URL is out, and nobody has decided.
    kAuthorised,  ///< Paid. A capture is due, unless CAPTURE is 0.
    kCapturing,  ///< A worker may have sent a capture.
    kCaptured,  ///< The service has captured. A completion is due, if COMPLETE is 1.
    kCompleting,  ///< A worker may have sent a completion.
    kCompleted,  ///< The service has completed.
    kDeclined,  ///< The service declined. A new attempt may begin.
    kCancelled,  ///< The shopper cancelled, or a person gave the payment up. A new attempt may begin.
    kExpired,  ///< Nobody decided in time. A new attempt may begin.
    kCaptureRefused,  ///< The service will not capture. A person has to look.
    kUnknown,  ///< A capture was sent and its outcome is in doubt. Asked about, repeated or left for a person.
    kCompletionUnknown,  ///< A completion was sent and its outcome is in doubt. Asked about, repeated or left for a person.
    kSurplus,  ///< Paid, while another attempt counts. Listed, never captured.
};

enum class Event {
    kBegun,  ///< A payment is begun.
    kConfirmedPaid,  ///< A genuine confirmation says authorised of a payment that was not known as paid, and no other attempt has paid.
    kConfirmedSurplus,  ///< A genuine confirmation says authorised of a payment that was not known as paid, and another attempt has paid.
    kConfirmedDeclined,  ///< A genuine confirmation says declined.
    kConfirmedCancelled,  ///< A genuine confirmation says cancelled.
    kConfirmedExpired,  ///< A genuine confirmation says expired.
    kConfirmedLater,  ///< The first genuine confirmation arrives of a payment that is known as paid from elsewhere. One that a person has given up stays so.
    kFoundOpened,  ///< A status response says opened.
    kFoundAuthorised,  ///< A status response says authorised, and no other attempt has paid.
    kFoundSurplus,  ///< A status response says authorised, captured or completed, and another attempt has paid.
    kFoundCaptured,  ///< A status response says captured, and no other attempt has paid.
    kFoundCompleted,  ///< A status response says completed, and no other attempt has paid.
    kFoundDeclined,  ///< A status response says declined.
    kFoundCancelled,  ///< A status response says cancelled.
    kFoundExpired,  ///< A status response says expired.
    kFoundLapsed,  ///< A status response says lapsed: the authorisation has ended without a capture.
    kFoundNothing,  ///< The service has refused MAXASKS status requests in a row (KVX_E_SERVER_ERROR): it knows no such payment.
    kFoundRefused,  ///< A status response says authorised after the service has refused MAXREFUSALS captures in a row (KVX_E_SERVER_ERROR).
    kTimedOut,  ///< Expiry and GRACESECONDS are over, and there is no STATUSTYPE.
    kCaptureSent,  ///< A capture is about to be sent.
    kCaptureDone,  ///< A capture succeeds.
    kCaptureFailed,  ///< A capture fails with a code that says that no money has moved.
    kCaptureInDoubt,  ///< A capture fails with a code that leaves it open whether money has moved.
    kCompleteSent,  ///< A completion is about to be sent.
    kCompleteDone,  ///< A completion succeeds.
    kCompleteFailed,  ///< A completion fails with a code that says that nothing has happened.
    kCompleteInDoubt,  ///< A completion fails with a code that leaves its outcome open.
    kInterrupted,  ///< The lease of a worker that may have sent something has run out.
    kRepeated,  ///< Nothing can be asked, and CAPTUREIDEMPOTENT allows to send again.
    kDelivered,  ///< The shop has delivered an order that is paid, or was when it was reported.
    kResolvedAuthorised,  ///< A person says: not captured, capture again.
    kResolvedCaptured,  ///< A person says: captured.
    kResolvedCompleted,  ///< A person says: completed.
    kResolvedRefused,  ///< A person says: the service will not capture.
    kResolvedCancelled,  ///< A person gives the payment up; another attempt may pay the order.
    kResolvedSurplus,  ///< A person says: the surplus payment has been voided or paid back.
};

struct StateRow {
    State m_State;
    char const* m_Name;  ///< Stored.
    Job m_Job;
    bool m_IsPaid;          ///< The attempt is the one that pays its order.
    bool m_WantsAttention;  ///< A person has to look, unless the worker has a next step.
};

struct EventRow {
    Event m_Event;
    char const* m_Name;  ///< Stored.
};

struct TransitionRow {
    State m_From;
    Event m_Event;
    State m_To;
};

/// In the order of the enumerators.
inline constexpr StateRow kStates[] = {
    {State::kOpened,            "opened",             Job::kNone,     false, false},
    {State::kWaiting,           "waiting",            Job::kAsk,      false, false},
    {State::kAuthorised,        "authorised",         Job::kCapture,  true,  false},
    {State::kCapturing,         "capturing",          Job::kTakeover, true,  false},
    {State::kCaptured,          "captured",           Job::kComplete, true,  false},
    {State::kCompleting,        "completing",         Job::kTakeover, true,  false},
    {State::kCompleted,         "completed",          Job::kNone,     true,  false},
    {State::kDeclined,          "declined",           Job::kNone,     false, false},
    {State::kCancelled,         "cancelled",          Job::kNone,     false, false},
    {State::kExpired,           "expired",            Job::kNone,     false, false},
    {State::kCaptureRefused,    "capture_refused",    Job::kNone,     true,  true},
    {State::kUnknown,           "unknown",            Job::kSettle,   true,  true},
    {State::kCompletionUnknown, "completion_unknown", Job::kSettle,   true,  true},
    {State::kSurplus,           "surplus",            Job::kNone,     false, true},
};

/// In the order of the enumerators.
inline constexpr EventRow kEvents[] = {
    {Event::kBegun,              "begun"},
    {Event::kConfirmedPaid,      "confirmed_paid"},
    {Event::kConfirmedSurplus,   "confirmed_surplus"},
    {Event::kConfirmedDeclined,  "confirmed_declined"},
    {Event::kConfirmedCancelled, "confirmed_cancelled"},
    {Event::kConfirmedExpired,   "confirmed_expired"},
    {Event::kConfirmedLater,     "confirmed_later"},
    {Event::kFoundOpened,        "found_opened"},
    {Event::kFoundAuthorised,    "found_authorised"},
    {Event::kFoundSurplus,       "found_surplus"},
    {Event::kFoundCaptured,      "found_captured"},
    {Event::kFoundCompleted,     "found_completed"},
    {Event::kFoundDeclined,      "found_declined"},
    {Event::kFoundCancelled,     "found_cancelled"},
    {Event::kFoundExpired,       "found_expired"},
    {Event::kFoundLapsed,        "found_lapsed"},
    {Event::kFoundNothing,       "found_nothing"},
    {Event::kFoundRefused,       "found_refused"},
    {Event::kTimedOut,           "timed_out"},
    {Event::kCaptureSent,        "capture_sent"},
    {Event::kCaptureDone,        "capture_done"},
    {Event::kCaptureFailed,      "capture_failed"},
    {Event::kCaptureInDoubt,     "capture_in_doubt"},
    {Event::kCompleteSent,       "complete_sent"},
    {Event::kCompleteDone,       "complete_done"},
    {Event::kCompleteFailed,     "complete_failed"},
    {Event::kCompleteInDoubt,    "complete_in_doubt"},
    {Event::kInterrupted,        "interrupted"},
    {Event::kRepeated,           "repeated"},
    {Event::kDelivered,          "delivered"},
    {Event::kResolvedAuthorised, "resolved_authorised"},
    {Event::kResolvedCaptured,   "resolved_captured"},
    {Event::kResolvedCompleted,  "resolved_completed"},
    {Event::kResolvedRefused,    "resolved_refused"},
    {Event::kResolvedCancelled,  "resolved_cancelled"},
    {Event::kResolvedSurplus,    "resolved_surplus"},
};

inline constexpr TransitionRow kTransitions[] = {
    {State::kOpened,            Event::kBegun,              State::kWaiting},
    {State::kWaiting,           Event::kConfirmedPaid,      State::kAuthorised},
    {State::kDeclined,          Event::kConfirmedPaid,      State::kAuthorised},
    {State::kCancelled,         Event::kConfirmedPaid,      State::kAuthorised},
    {State::kExpired,           Event::kConfirmedPaid,      State::kAuthorised},
    {State::kWaiting,           Event::kConfirmedSurplus,   State::kSurplus},
    {State::kDeclined,          Event::kConfirmedSurplus,   State::kSurplus},
    {State::kCancelled,         Event::kConfirmedSurplus,   State::kSurplus},
    {State::kExpired,           Event::kConfirmedSurplus,   State::kSurplus},
    {State::kWaiting,           Event::kConfirmedDeclined,  State::kDeclined},
    {State::kWaiting,           Event::kConfirmedCancelled, State::kCancelled},
    {State::kWaiting,           Event::kConfirmedExpired,   State::kExpired},
    {State::kAuthorised,        Event::kConfirmedLater,     State::kAuthorised},
    {State::kCapturing,         Event::kConfirmedLater,     State::kCapturing},
    {State::kCaptured,          Event::kConfirmedLater,     State::kCaptured},
    {State::kCompleting,        Event::kConfirmedLater,     State::kCompleting},
    {State::kCompleted,         Event::kConfirmedLater,     State::kCompleted},
    {State::kCaptureRefused,    Event::kConfirmedLater,     State::kCaptureRefused},
    {State::kUnknown,           Event::kConfirmedLater,     State::kUnknown},
    {State::kCompletionUnknown, Event::kConfirmedLater,     State::kCompletionUnknown},
    {State::kSurplus,           Event::kConfirmedLater,     State::kSurplus},
    {State::kCancelled,         Event::kConfirmedLater,     State::kCancelled},
    {State::kWaiting,           Event::kFoundAuthorised,    State::kAuthorised},
    {State::kWaiting,           Event::kFoundSurplus,       State::kSurplus},
    {State::kWaiting,           Event::kFoundCaptured,      State::kCaptured},
    {State::kWaiting,           Event::kFoundCompleted,     State::kCompleted},
    {State::kWaiting,           Event::kFoundDeclined,      State::kDeclined},
    {State::kWaiting,           Event::kFoundCancelled,     State::kCancelled},
    {State::kWaiting,           Event::kFoundExpired,       State::kExpired},
    {State::kWaiting,           Event::kFoundLapsed,        State::kExpired},
    {State::kWaiting,           Event::kFoundNothing,       State::kExpired},
    {State::kWaiting,           Event::kTimedOut,           State::kExpired},
    {State::kAuthorised,        Event::kCaptureSent,        State::kCapturing},
    {State::kCapturing,         Event::kCaptureDone,        State::kCaptured},
    {State::kUnknown,           Event::kCaptureDone,        State::kCaptured},
    {State::kAuthorised,        Event::kCaptureDone,        State::kCaptured},
    {State::kCapturing,         Event::kCaptureFailed,      State::kAuthorised},
    {State::kCapturing,         Event::kCaptureInDoubt,     State::kUnknown},
    {State::kCapturing,         Event::kInterrupted,        State::kUnknown},
    {State::kCaptured,          Event::kCompleteSent,       State::kCompleting},
    {State::kCompleting,        Event::kCompleteDone,       State::kCompleted},
    {State::kCompletionUnknown, Event::kCompleteDone,       State::kCompleted},
    {State::kCaptured,          Event::kCompleteDone,       State::kCompleted},
    {State::kCompleting,        Event::kCompleteFailed,     State::kCaptured},
    {State::kCompleting,        Event::kCompleteInDoubt,    State::kCompletionUnknown},
    {State::kCompleting,        Event::kInterrupted,        State::kCompletionUnknown},
    {State::kUnknown,           Event::kFoundAuthorised,    State::kAuthorised},
    {State::kUnknown,           Event::kFoundRefused,       State::kCaptureRefused},
    {State::kUnknown,           Event::kFoundCaptured,      State::kCaptured},
    {State::kCompletionUnknown, Event::kFoundCaptured,      State::kCaptured},
    {State::kUnknown,           Event::kFoundCompleted,     State::kCompleted},
    {State::kCompletionUnknown, Event::kFoundCompleted,     State::kCompleted},
    {State::kUnknown,           Event::kFoundOpened,        State::kCaptureRefused},
    {State::kUnknown,           Event::kFoundDeclined,      State::kCaptureRefused},
    {State::kUnknown,           Event::kFoundCancelled,     State::kCaptureRefused},
    {State::kUnknown,           Event::kFoundExpired,       State::kCaptureRefused},
    {State::kUnknown,           Event::kFoundLapsed,        State::kCaptureRefused},
    {State::kUnknown,           Event::kRepeated,           State::kAuthorised},
    {State::kCompletionUnknown, Event::kRepeated,           State::kCaptured},
    {State::kWaiting,           Event::kDelivered,          State::kWaiting},
    {State::kAuthorised,        Event::kDelivered,          State::kAuthorised},
    {State::kCapturing,         Event::kDelivered,          State::kCapturing},
    {State::kCaptured,          Event::kDelivered,          State::kCaptured},
    {State::kCompleting,        Event::kDelivered,          State::kCompleting},
    {State::kCompleted,         Event::kDelivered,          State::kCompleted},
    {State::kDeclined,          Event::kDelivered,          State::kDeclined},
    {State::kCancelled,         Event::kDelivered,          State::kCancelled},
    {State::kExpired,           Event::kDelivered,          State::kExpired},
    {State::kCaptureRefused,    Event::kDelivered,          State::kCaptureRefused},
    {State::kUnknown,           Event::kDelivered,          State::kUnknown},
    {State::kCompletionUnknown, Event::kDelivered,          State::kCompletionUnknown},
    {State::kSurplus,           Event::kDelivered,          State::kSurplus},
    {State::kWaiting,           Event::kResolvedAuthorised, State::kAuthorised},
    {State::kUnknown,           Event::kResolvedAuthorised, State::kAuthorised},
    {State::kCaptureRefused,    Event::kResolvedAuthorised, State::kAuthorised},
    {State::kWaiting,           Event::kResolvedCaptured,   State::kCaptured},
    {State::kUnknown,           Event::kResolvedCaptured,   State::kCaptured},
    {State::kCaptureRefused,    Event::kResolvedCaptured,   State::kCaptured},
    {State::kCompletionUnknown, Event::kResolvedCaptured,   State::kCaptured},
    {State::kWaiting,           Event::kResolvedCompleted,  State::kCompleted},
    {State::kUnknown,           Event::kResolvedCompleted,  State::kCompleted},
    {State::kCaptureRefused,    Event::kResolvedCompleted,  State::kCompleted},
    {State::kCompletionUnknown, Event::kResolvedCompleted,  State::kCompleted},
    {State::kUnknown,           Event::kResolvedRefused,    State::kCaptureRefused},
    {State::kWaiting,           Event::kResolvedCancelled,  State::kCancelled},
    {State::kUnknown,           Event::kResolvedCancelled,  State::kCancelled},
    {State::kCaptureRefused,    Event::kResolvedCancelled,  State::kCancelled},
    {State::kSurplus,           Event::kResolvedSurplus,    State::kCancelled},
};
// clang-format on

}  // namespace ledger

#endif
