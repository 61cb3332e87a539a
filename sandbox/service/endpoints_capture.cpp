// Capture, completion and status (/capture), signed with the merchant's key.
// lead() is the common part: it finds the payment by account and TOKEN, compares what the message repeats with the
// order, and moves the state. A payment that is there already gets the same response again, so repeating is harmless.
// No notification is sent: the merchant made the change.
#include "sandbox/service/endpoints.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/service/confirmation.h"
#include "sandbox/service/paymentmoves.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/rowwith.h"

namespace sandbox {

namespace {

/// What a handler of one type is given.
struct CaptureRequest {
    Services const& m_Services;
    SignedMessage const& m_Sent;
    FaultEffect const& m_Effect;
    std::optional<StoredPayment> const& m_Payment;  ///< The merchant's payment with TOKEN.
};

/// The payment of the merchant that TOKEN names; an ID, when given, must agree. Throws HttpError.
Payment namedPayment(CaptureRequest const& request) {
    Message const& message = request.m_Sent.m_Message;
    std::string const token = message.require("TOKEN");
    std::optional<StoredPayment> const& stored = request.m_Payment;
    if (!stored) {
        throw HttpError("there is no payment with the TOKEN '" + token + "'");
    }
    std::optional<std::string> const id = message.find("ID");
    if (id && *id != stored->m_Payment.m_Id) {
        throw HttpError("ID and TOKEN name different payments: the payment with this TOKEN is '" +
                        stored->m_Payment.m_Id + "', not '" + *id + "'");
    }
    return stored->m_Payment;
}

/// An attribute that is repeated must have the value of the order. Throws HttpError.
void checkRepeated(Message const& message, Payment const& payment, char const* name) {
    std::optional<std::string> const repeated = message.find(name);
    std::string const ordered = payment.attribute(name).value_or("");
    if (repeated && *repeated != ordered) {
        throw HttpError(std::string(name) + " is '" + *repeated + "', the payment has '" + ordered + "'");
    }
}

/// A request made from the confirmation, or from a response of the capture service, repeats its RESULT. Throws
/// HttpError.
void checkResult(Message const& message, Payment const& payment) {
    std::string const result = message.find("RESULT").value_or("");
    for (PaymentState const state : {PaymentState::kAuthorised, PaymentState::kCaptured, PaymentState::kCompleted}) {
        if (result.empty() || result == stateName(state)) {
            return;
        }
    }
    throw HttpError("RESULT is '" + result + "', the payment is " + stateName(payment.m_State));
}

/// Throws HttpError when captures of the payment are refused for good, from now on or already.
void checkRefusal(CaptureRequest const& request, Payment const& payment) {
    if (payment.m_State != PaymentState::kAuthorised) {
        return;
    }
    Store& store = request.m_Services.m_Store;
    if (request.m_Effect.is(FaultKind::kRefuseCapture)) {
        store.refuseCaptures(
            payment.m_Id,
            {request.m_Services.m_Clock.text(payment.m_Account), payment.m_State, "capture refused for good"},
            textOf(*request.m_Effect.m_Fault));
    }
    if (std::optional<std::string> const reason = store.captureRefusal(payment.m_Id)) {
        throw HttpError(*reason);
    }
}

/// Why a payment in the state that it has cannot be led to `to`.
std::string reasonToRefuse(CaptureRequest const& request, Payment const& payment, PaymentState to) {
    if (payment.m_State != PaymentState::kLapsed) {
        return "the payment is " + std::string(stateName(payment.m_State)) + ", it cannot be " + stateName(to);
    }
    auto const given = std::find_if(payment.m_History.begin(), payment.m_History.end(),
                                    [](HistoryEntry const& step) { return step.m_State == PaymentState::kAuthorised; });
    return "the authorisation has lapsed: it was given at " + (given == payment.m_History.end() ? "" : given->m_Time) +
           ", DEFAULTVALIDITY is " + payment.attribute("DEFAULTVALIDITY").value_or("") + " seconds, now is " +
           request.m_Services.m_Clock.text(payment.m_Account);
}

/// A payment that may have moved since it was read, with its history.
Payment readAgain(Services const& services, Payment const& payment) {
    return services.m_Store.paymentById(payment.m_Id).value().m_Payment;
}

/// The payment of the merchant that TOKEN names, after the moves that are due. Throws HttpError.
Payment presentPayment(CaptureRequest const& request) {
    Payment const payment = namedPayment(request);
    return makeDueMoves(request.m_Services) ? readAgain(request.m_Services, payment) : payment;
}

/// Moves the payment to `to`. When it is not in one of the states `from` it must be in one of `arrived`, which makes a
/// repetition harmless. Throws HttpError otherwise. Returns the payment as it then is.
Payment lead(CaptureRequest const& request, std::vector<PaymentState> const& from, PaymentState to,
             std::vector<PaymentState> const& arrived, char const* note) {
    Payment const before = presentPayment(request);
    for (char const* name : {"AMOUNT", "CURRENCY", "ORDERID"}) {
        checkRepeated(request.m_Sent.m_Message, before, name);
    }
    if (std::find(from.begin(), from.end(), before.m_State) != from.end()) {
        checkResult(request.m_Sent.m_Message, before);
        checkRefusal(request, before);
    }
    bool const moved = request.m_Services.m_Store.advance(
        before.m_Id, from, {request.m_Services.m_Clock.text(before.m_Account), to, note});
    Payment now = before;
    if (moved) {
        now.m_State = to;
        return now;
    }
    now = readAgain(request.m_Services, before);
    if (std::find(arrived.begin(), arrived.end(), now.m_State) == arrived.end()) {
        throw HttpError(reasonToRefuse(request, now, to));
    }
    return now;
}

Payment capture(CaptureRequest const& request) {
    // Completing a payment settles it as well, so a capture that comes after it finds it done.
    return lead(request, {PaymentState::kAuthorised}, PaymentState::kCaptured,
                {PaymentState::kCaptured, PaymentState::kCompleted}, "captured by the merchant");
}

Payment complete(CaptureRequest const& request) {
    request.m_Sent.m_Message.require("ID");
    return lead(request, {PaymentState::kAuthorised, PaymentState::kCaptured}, PaymentState::kCompleted,
                {PaymentState::kCompleted}, "completed by the merchant");
}

Payment look(CaptureRequest const& request) {
    Payment const payment = presentPayment(request);
    bool const mayExpire = payment.m_State == PaymentState::kOpened && !expireWhenOverdue(request.m_Services, payment);
    return mayExpire ? readAgain(request.m_Services, payment) : payment;
}

Message captureResponse(Services const& services, Payment const& payment) {
    return confirmation(services, payment, stateName(PaymentState::kCaptured));
}

Message stateResponse(char const* type, Payment const& payment) {
    Message response(type);
    response.set("ID", payment.m_Id).set("TOKEN", payment.m_Token).set("STATE", stateName(payment.m_State));
    return response;
}

Message completionResponse(Services const&, Payment const& payment) {
    return stateResponse("PayCompleteResponse", payment);
}

Message statusResponse(Services const&, Payment const& payment) {
    return stateResponse("StatusResponse", payment);
}

/// What a request of one type does, and the response to it.
struct CaptureRow {
    char const* m_Type;
    Payment (*m_Handler)(CaptureRequest const& request);
    Message (*m_Response)(Services const& services, Payment const& payment);
};

// clang-format off
constexpr CaptureRow kRequests[] = {
    {"PayConfirm",         capture,  captureResponse},
    {"PayCompleteRequest", complete, completionResponse},
    {"StatusRequest",      look,     statusResponse},
};
// clang-format on

/// The payment that the response is about: that of the request, or the one that a fault puts in its place.
Payment reported(FaultEffect const& effect, Payment const& payment) {
    if (!effect.m_Other) {
        return payment;
    }
    Payment other = *effect.m_Other;
    other.m_State = payment.m_State;
    return other;
}

}  // namespace

HttpResponse handleCapture(RequestContext const& context) {
    SignedMessage const sent = openSignedMessage(context);
    CaptureRow const* const row = rowWith(kRequests, &CaptureRow::m_Type, sent.m_Message.type());
    if (row == nullptr) {
        throw HttpError("the capture service knows no request '" + sent.m_Message.type() + "'");
    }
    CaptureRequest const request{context.m_Services, sent, context.m_Effect, context.m_Payment};
    Payment const payment = reported(context.m_Effect, row->m_Handler(request));
    Message const response = row->m_Response(context.m_Services, payment);
    return messageResponse(withWrongContent(context.m_Effect, payment, response).text());
}

}  // namespace sandbox
