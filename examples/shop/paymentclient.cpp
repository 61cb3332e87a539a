// Starts, verifies, captures and completes payments, with one library handle per use.
//
// Order: logging of calls, reasons of refusal, then the functions of the header. A valid signature is not enough to
// accept a confirmation: verify() then compares type, signing key, order, payment, amount, currency and result. An
// unknown signing key triggers one set-up, which imports the service's current key, and one more attempt.
#include "paymentclient.h"

#include <tallowin/tallowin.h>

#include <utility>

#include "../common/libraryhandle.h"
#include "../common/missingfile.h"
#include "../common/printable.h"

namespace storefront {

namespace {

using examples::CopiedText;
using examples::FactoryHandle;
using examples::MessageHandle;
using examples::SetupHandle;

constexpr char kRefused[] = "The shop refused this payment confirmation";

/// A function and its subject: "MessageObject_SetAttribute (AMOUNT)".
std::string callFor(char const* function, char const* subject) {
    return std::string(function) + " (" + subject + ")";
}

/// Logs a call and returns whether it succeeded. Failures may be positive: compare with KVX_OK, not with "< 0".
bool logCall(CallLog& calls, std::string const& function, std::int32_t code) {
    calls.push_back({function, examples::resultText(code)});
    return code == KVX_OK;
}

/// Logs the call that copied a text and returns the text. Throws RequestError when the call failed.
std::string mustCopy(CallLog& calls, std::string const& function, CopiedText const& copied) {
    if (!logCall(calls, function, copied.m_Code)) {
        throw RequestError("The payment could not be prepared",
                           "The payment component returned: " + calls.back().m_Result, calls,
                           RequestError::kServerError);
    }
    return copied.m_Text;
}

/// Logs a call. Throws RequestError when it failed.
void must(CallLog& calls, std::string const& function, std::int32_t code) {
    mustCopy(calls, function, {code, ""});
}

/// The reason why VerifyPayConfirm failed, for the visitor.
std::string whyNotVerified(std::int32_t code) {
    switch (code) {
        case KVX_E_MISSING_SIGNATURE:
            return "It came without a signature, so anyone could have written it.";
        case KVX_E_INVALID_SIGNATURE:
            return "The signature does not match the message: the message was altered after the payment service "
                   "signed it, or someone else signed it.";
        case KVX_E_INVALID_KEY:
            return "Its SIGNATURE is not a signature.";
        case KVX_E_NO_KEY_ID:
            return "It does not name the key that signed it.";
        case KVX_E_INVALID_FORMAT:
            return "It is not a payment message.";
        default:
            return "It could not be verified: " + examples::resultText(code);
    }
}

CopiedText fromDirectory(SetupHandle const& setup, std::string const& file, char const* name) {
    return examples::copiedText([&](std::int32_t* size, char* buffer) {
        return ConfigurationSetup_GetAttribute(setup.get(), file.c_str(), name, size, buffer);
    });
}

/// Whether `key` is one of the merchant's own keys. Requires: a message with this KEYID was verified, so the key id
/// contains no path.
bool isOwnKey(std::string const& directory, std::string const& key) {
    return !examples::isMissing(directory + "/keys/private/" + key);
}

/// An attribute of a confirmation, its accepted values, and the sentence for the visitor when it has another value.
struct Requirement {
    char const* m_Name;
    std::vector<std::string> m_Values;
    std::string m_Reason;
};

/// Returns the attribute's value. Throws RequestError when it is not an accepted one.
std::string check(MessageHandle const& message, Requirement const& requirement, CallLog& calls) {
    CopiedText const found = examples::attributeOf(message, requirement.m_Name);
    bool const there = logCall(calls, callFor("MessageObject_GetAttribute", requirement.m_Name), found.m_Code);
    std::string wanted;
    for (std::string const& value : requirement.m_Values) {
        if (there && found.m_Text == value) {
            return value;
        }
        wanted += (wanted.empty() ? "\"" : " or \"") + value + "\"";
    }
    throw RequestError(
        kRefused,
        requirement.m_Reason + " " + requirement.m_Name + " is \"" + found.m_Text + "\", it must be " + wanted + ".",
        calls);
}

}  // namespace

Payment PaymentClient::openPayment(Order const& order, std::string const& orderUrl, CallLog& calls) const {
    FactoryHandle const factory(CreateMessageFactory());
    MessageHandle payment;
    must(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str()));
    must(calls, "MessageFactory_CreatePayInit", MessageFactory_CreatePayInit(factory.get(), payment.out()));
    std::pair<char const*, std::string> const attributes[] = {
        {"ORDERID", order.m_Number},
        {"AMOUNT", amountText(order.m_Cents)},
        {"CURRENCY", kCurrency},
        {"SUCCESSLINK", orderUrl + "/paid"},
        {"FAILLINK", orderUrl + "/declined"},
        {"BACKLINK", orderUrl + "/cancelled"},
        {"NOTIFYADDRESS", orderUrl + "/notified"},
    };
    for (auto const& [name, value] : attributes) {
        must(calls, callFor("MessageObject_SetAttribute", name),
             MessageObject_SetAttribute(payment.get(), name, value.c_str()));
    }
    Payment opened;
    opened.m_Token = mustCopy(calls, "MessageObject_GetAttribute (TOKEN)", examples::attributeOf(payment, "TOKEN"));
    opened.m_Expiration =
        mustCopy(calls, "MessageObject_GetAttribute (EXPIRATION)", examples::attributeOf(payment, "EXPIRATION"));
    opened.m_Url = mustCopy(calls, "MessageObject_GetURL", examples::urlOf(payment));
    opened.m_Message = examples::messageText(payment);
    return opened;
}

/// A verified message, or the result that its signing key is unknown.
struct PaymentClient::Reading {
    bool m_ByUnknownKey = false;  ///< The service may have a new key; then nothing is verified.
    std::string m_ServerKey;      ///< The service's key id in the directory.
    std::unique_ptr<MessageHandle> m_Message;
};

/// Verifies the signature. Throws RequestError when that fails for another reason than an unknown key.
PaymentClient::Reading PaymentClient::read(std::string const& data, std::string const& signature,
                                           CallLog& calls) const {
    Reading reading;
    reading.m_Message = std::make_unique<MessageHandle>();
    FactoryHandle const factory(CreateMessageFactory());
    must(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str()));
    std::int32_t const code =
        MessageFactory_VerifyPayConfirm(factory.get(), data.c_str(), signature.c_str(), reading.m_Message->out());
    bool const verified = logCall(calls, "MessageFactory_VerifyPayConfirm", code);
    reading.m_ByUnknownKey = code == KVX_E_NOT_FOUND;
    if (reading.m_ByUnknownKey) {
        return reading;
    }
    if (!verified) {
        throw RequestError(kRefused, whyNotVerified(code), calls);
    }
    SetupHandle const setup(CreateConfigurationSetup());
    must(calls, "ConfigurationSetup_SetConfiguration",
         ConfigurationSetup_SetConfiguration(setup.get(), m_Account.directory().c_str()));
    reading.m_ServerKey =
        mustCopy(calls, "ConfigurationSetup_GetAttribute (VTKEYID)", fromDirectory(setup, "config.xml", "VTKEYID"));
    std::string const key = examples::attributeOf(*reading.m_Message, "KEYID").m_Text;
    // A message signed with the shop's own key, such as the one in a payment URL, says nothing about the service's
    // keys.
    reading.m_ByUnknownKey = key != reading.m_ServerKey && !isOwnKey(m_Account.directory(), key);
    return reading;
}

Confirmation PaymentClient::verify(Order const& order, std::vector<std::string> const& results, std::string const& data,
                                   std::string const& signature, CallLog& calls) const {
    // The library reads text up to the first zero byte; the rest would not be verified.
    if (data.find('\0') != std::string::npos) {
        throw RequestError(kRefused, "It contains a zero byte, so it is not a payment message.");
    }
    if (signature.find('\0') != std::string::npos) {
        throw RequestError(kRefused, "Its SIGNATURE contains a zero byte, so it is not a signature.");
    }
    Reading reading = read(data, signature, calls);
    if (reading.m_ByUnknownKey) {
        m_Account.setUpAgain(calls);
        reading = read(data, signature, calls);
    }
    if (reading.m_ByUnknownKey) {
        throw RequestError(
            kRefused,
            "The key that signed it is not a key of the payment service. If the service has changed its key since you "
            "paid, continue from the order's page.",
            calls);
    }
    MessageHandle const& message = *reading.m_Message;
    std::vector<std::string> tokens = order.m_Superseded;
    tokens.push_back(order.m_Payment.m_Token);
    // A valid signature is not enough: messages of other types, orders and payments are signed too.
    Requirement const requirements[] = {
        {"MSGTYPE", {"PayConfirm"}, "It is genuine, but it is not a confirmation."},
        {"KEYID", {reading.m_ServerKey}, "The payment service did not sign it."},
        {"ORDERID", {order.m_Number}, "It is genuine, but it confirms another order."},
        {"TOKEN", tokens, "It is genuine, but it confirms another payment."},
        {"AMOUNT", {amountText(order.m_Cents)}, "It confirms another amount."},
        {"CURRENCY", {kCurrency}, "It confirms another currency."},
    };
    for (Requirement const& requirement : requirements) {
        check(message, requirement, calls);
    }
    std::string const token = examples::attributeOf(message, "TOKEN").m_Text;
    std::string const result =
        check(message, {"RESULT", results, "Its result does not belong to this address."}, calls);
    std::string const id = mustCopy(calls, "MessageObject_GetAttribute (ID)", examples::attributeOf(message, "ID"));
    return {token, id, result, data, signature};
}

bool PaymentClient::capture(Confirmation const& confirmation, CallLog& calls) const {
    // Open() gives the object the merchant's signing key; FromString() then fills it with the confirmation.
    MessageHandle const message(CreateMessageObject());
    return logCall(calls, "MessageObject_Open", MessageObject_Open(message.get(), m_Account.directory().c_str())) &&
           logCall(calls, "MessageObject_FromString",
                   MessageObject_FromString(message.get(), confirmation.m_Data.c_str())) &&
           logCall(calls, "MessageObject_Capture", MessageObject_Capture(message.get()));
}

bool PaymentClient::complete(Confirmation const& confirmation, CallLog& calls) const {
    FactoryHandle const factory(CreateMessageFactory());
    MessageHandle completion;
    MessageHandle answer;
    return logCall(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str())) &&
           logCall(calls, "MessageFactory_CreatePayComplete",
                   MessageFactory_CreatePayComplete(factory.get(), confirmation.m_Id.c_str(),
                                                    confirmation.m_Token.c_str(), completion.out())) &&
           logCall(calls, "MessageObject_Execute (PayComplete)", MessageObject_Execute(completion.get(), answer.out()));
}

std::string PaymentClient::state(std::string const& token, CallLog& calls) const {
    FactoryHandle const factory(CreateMessageFactory());
    MessageHandle request;
    MessageHandle answer;
    bool const answered =
        logCall(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str())) &&
        logCall(calls, "MessageFactory_CreateRequest (Status)",
                MessageFactory_CreateRequest(factory.get(), "Status", request.out())) &&
        logCall(calls, "MessageObject_SetAttribute (TOKEN)",
                MessageObject_SetAttribute(request.get(), "TOKEN", token.c_str())) &&
        logCall(calls, "MessageObject_Execute (Status)", MessageObject_Execute(request.get(), answer.out()));
    return answered ? examples::attributeOf(answer, "STATE").m_Text : "";
}

}  // namespace storefront
