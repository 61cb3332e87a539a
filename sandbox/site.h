#pragma once

#include <ctime>
#include <functional>
#include <string>

#include "sandbox/opensslholders.h"
#include "sandbox/payment.h"
#include "sandbox/store.h"

namespace sandbox {

/// A request as it came in, before any decoding.
struct HttpRequest {
    std::string method;
    std::string path;           ///< Without the query.
    std::string query;          ///< Without the "?", percent-encoded.
    std::string authorization;  ///< Value of that header.
    std::string body;
    std::string baseUrl;  ///< Of this service on the port that was used, without a slash at the end.
};

/// An answer. A non-empty `location` makes it a redirect.
struct HttpReply {
    int status = 200;
    std::string contentType;
    std::string body;
    std::string location = {};
};

/// What the exchanges work on, shared by all threads.
struct Site {
    Store& store;
    std::string serverKeyId;
    KeyHolder serverKey;
    std::function<std::time_t()> clock;

    /// The present in the form of the history.
    [[nodiscard]] std::string timeText() const;

    /// `message` with its signature as the query of a link: "DATA=...&SIGNATURE=...".
    [[nodiscard]] std::string signedQuery(Message const& message) const;
};

/// A message whose signature has been verified.
struct SignedMessage {
    Message message;
    std::string text;     ///< The message as it was signed.
    std::string account;  ///< Owner of the key that signed it.
};

/// Takes DATA and SIGNATURE out of the query, notes both in `record`, and verifies the signature with the merchant key
/// that KEYID names. Throws Refusal with the first thing that is wrong.
SignedMessage openSignedMessage(Site const& site, HttpRequest const& request, Exchange& record);

/// Takes DATA out of the query and notes it in `record`. Throws Refusal.
std::string takeData(HttpRequest const& request, Exchange& record);

/// A message as an answer.
HttpReply messageReply(std::string const& text);

/// The exchanges. Each throws Refusal for a request it turns down; `record` then holds what had been read so far.
HttpReply answerAuto(Site const& site, HttpRequest const& request, Exchange& record);
HttpReply answerPay(Site const& site, HttpRequest const& request, Exchange& record);
HttpReply answerDecision(Site const& site, HttpRequest const& request, Exchange& record);
HttpReply answerCapture(Site const& site, HttpRequest const& request, Exchange& record);

/// The message that confirms `payment` to its merchant, with `result` as its RESULT.
Message confirmation(Site const& site, Payment const& payment, std::string const& result);

}  // namespace sandbox
