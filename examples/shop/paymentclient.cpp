#include "paymentclient.h"

#include <tallowin/tallowin.h>

#include <utility>

#include "../common/libraryhandle.h"
#include "../common/printable.h"

namespace storefront {

namespace {

using examples::CopiedText;
using examples::FactoryHandle;
using examples::MessageHandle;
using examples::SetupHandle;

constexpr char kRefused[] = "This confirmation is refused";

/// A function with what it is called for: "MessageObject_SetAttribute (AMOUNT)".
std::string callFor(char const* function, char const* what) {
    return std::string(function) + " (" + what + ")";
}

/// Notes a call. True when it went well: compare with KVX_OK, never with "less than 0".
bool noted(CallLog& calls, std::string const& function, std::int32_t code) {
    calls.push_back({function, examples::resultText(code)});
    return code == KVX_OK;
}

/// A copied text, its call noted. Throws RequestError when there is none.
std::string mustCopy(CallLog& calls, std::string const& function, CopiedText const& copied) {
    if (!noted(calls, function, copied.m_Code)) {
        throw RequestError("The payment could not be prepared",
                           "The payment component answers: " + calls.back().m_Result, calls,
                           RequestError::kServerError);
    }
    return copied.m_Text;
}

/// Throws RequestError when the call went wrong.
void must(CallLog& calls, std::string const& function, std::int32_t code) {
    mustCopy(calls, function, {code, ""});
}

/// Why VerifyPayConfirm does not accept a message.
std::string whyNotVerified(std::int32_t code) {
    switch (code) {
        case KVX_E_MISSING_SIGNATURE:
            return "It came without a signature, so anybody may have written it.";
        case KVX_E_INVALID_SIGNATURE:
            return "The signature does not fit the message: the message was altered after the payment service signed "
                   "it, or somebody else signed it.";
        case KVX_E_INVALID_KEY:
            return "What came as its signature is none.";
        case KVX_E_NO_KEY_ID:
            return "It does not say that the payment service signed it.";
        case KVX_E_INVALID_FORMAT:
            return "It is not a message.";
        default:
            return "It could not be verified: " + examples::resultText(code);
    }
}

CopiedText fromDirectory(SetupHandle const& setup, std::string const& file, char const* name) {
    return examples::copiedText([&](std::int32_t* size, char* buffer) {
        return ConfigurationSetup_GetAttribute(setup.get(), file.c_str(), name, size, buffer);
    });
}

/// Requires: a message that names `key` was verified, so it is a name and not a way out of the directory.
bool isOwnKey(SetupHandle const& setup, std::string const& key) {
    return fromDirectory(setup, "keys/private/" + key, "").m_Code != KVX_E_CANNOT_OPEN;
}

/// An attribute that a confirmation must have, and why it is refused when it has another value.
struct Demand {
    char const* m_Name;
    std::vector<std::string> m_Values;
    std::string m_Otherwise;
};

/// Returns the value. Throws RequestError when it is none of those that are demanded.
std::string check(MessageHandle const& message, Demand const& demand, CallLog& calls) {
    CopiedText const found = examples::attributeOf(message, demand.m_Name);
    bool const there = noted(calls, callFor("MessageObject_GetAttribute", demand.m_Name), found.m_Code);
    std::string wanted;
    for (std::string const& value : demand.m_Values) {
        if (there && found.m_Text == value) {
            return value;
        }
        wanted += (wanted.empty() ? "\"" : " or \"") + value + "\"";
    }
    throw RequestError(
        kRefused, demand.m_Otherwise + " " + demand.m_Name + " is \"" + found.m_Text + "\", it must be " + wanted + ".",
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

/// A message, verified, unless a key signed it that may be one which the service has made since the set-up.
struct PaymentClient::Reading {
    bool m_ByUnknownKey = false;
    std::string m_ServerKey;  ///< The name of the service's key, as far as the directory knows.
    std::unique_ptr<MessageHandle> m_Message;
};

/// Throws RequestError when it is clear that the message is no good.
PaymentClient::Reading PaymentClient::read(std::string const& data, std::string const& signature,
                                           CallLog& calls) const {
    Reading reading;
    reading.m_Message = std::make_unique<MessageHandle>();
    FactoryHandle const factory(CreateMessageFactory());
    must(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str()));
    std::int32_t const code =
        MessageFactory_VerifyPayConfirm(factory.get(), data.c_str(), signature.c_str(), reading.m_Message->out());
    bool const verified = noted(calls, "MessageFactory_VerifyPayConfirm", code);
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
    // What our own key signed, as every payment message in a visitor's address, tells nothing of the service's keys.
    reading.m_ByUnknownKey = key != reading.m_ServerKey && !isOwnKey(setup, key);
    return reading;
}

Confirmation PaymentClient::verify(Order const& order, std::vector<std::string> const& results, std::string const& data,
                                   std::string const& signature, CallLog& calls) const {
    // The library takes text up to a zero byte, so what stands behind it would go unverified.
    if (data.find('\0') != std::string::npos) {
        throw RequestError(kRefused, "It holds a zero byte, so it is not a message.");
    }
    if (signature.find('\0') != std::string::npos) {
        throw RequestError(kRefused, "What came as its signature holds a zero byte, so it is none.");
    }
    Reading reading = read(data, signature, calls);
    if (reading.m_ByUnknownKey) {
        m_Account.setUpAgain(calls);
        reading = read(data, signature, calls);
    }
    if (reading.m_ByUnknownKey) {
        throw RequestError(
            kRefused,
            "It is signed by a key which the payment service does not name as its own. If it has changed "
            "its key since you paid, go on from the order's page.",
            calls);
    }
    MessageHandle const& message = *reading.m_Message;
    std::vector<std::string> tokens = order.m_Superseded;
    tokens.push_back(order.m_Payment.m_Token);
    // A good signature alone proves little: messages of other kinds and orders, and older ones, are signed as well.
    Demand const demands[] = {
        {"MSGTYPE", {"PayConfirm"}, "It is genuine, but it confirms nothing."},
        {"KEYID", {reading.m_ServerKey}, "It is not the payment service who signed it."},
        {"ORDERID", {order.m_Number}, "It is genuine, but it is the confirmation of another order."},
        {"TOKEN", tokens, "It is genuine, but it is the confirmation of another payment."},
        {"AMOUNT", {amountText(order.m_Cents)}, "It is over another amount."},
        {"CURRENCY", {kCurrency}, "It is over an amount in another currency."},
    };
    for (Demand const& demand : demands) {
        check(message, demand, calls);
    }
    std::string const token = examples::attributeOf(message, "TOKEN").m_Text;
    std::string const result =
        check(message, {"RESULT", results, "It tells of another outcome than this address."}, calls);
    std::string const id = mustCopy(calls, "MessageObject_GetAttribute (ID)", examples::attributeOf(message, "ID"));
    return {token, id, result, data, signature};
}

bool PaymentClient::capture(Confirmation const& confirmation, CallLog& calls) const {
    // Only an object that was opened on the directory has our key to sign with; it then gets the confirmation's text.
    MessageHandle const message(CreateMessageObject());
    return noted(calls, "MessageObject_Open", MessageObject_Open(message.get(), m_Account.directory().c_str())) &&
           noted(calls, "MessageObject_FromString",
                 MessageObject_FromString(message.get(), confirmation.m_Data.c_str())) &&
           noted(calls, "MessageObject_Capture", MessageObject_Capture(message.get()));
}

bool PaymentClient::complete(Confirmation const& confirmation, CallLog& calls) const {
    FactoryHandle const factory(CreateMessageFactory());
    MessageHandle completion;
    MessageHandle answer;
    return noted(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str())) &&
           noted(calls, "MessageFactory_CreatePayComplete",
                 MessageFactory_CreatePayComplete(factory.get(), confirmation.m_Id.c_str(),
                                                  confirmation.m_Token.c_str(), completion.out())) &&
           noted(calls, "MessageObject_Execute (PayComplete)", MessageObject_Execute(completion.get(), answer.out()));
}

std::string PaymentClient::state(std::string const& token, CallLog& calls) const {
    FactoryHandle const factory(CreateMessageFactory());
    MessageHandle question;
    MessageHandle answer;
    bool const answered =
        noted(calls, "MessageFactory_Open", MessageFactory_Open(factory.get(), m_Account.directory().c_str())) &&
        noted(calls, "MessageFactory_CreateRequest (Status)",
              MessageFactory_CreateRequest(factory.get(), "Status", question.out())) &&
        noted(calls, "MessageObject_SetAttribute (TOKEN)",
              MessageObject_SetAttribute(question.get(), "TOKEN", token.c_str())) &&
        noted(calls, "MessageObject_Execute (Status)", MessageObject_Execute(question.get(), answer.out()));
    return answered ? examples::attributeOf(answer, "STATE").m_Text : "";
}

}  // namespace storefront
