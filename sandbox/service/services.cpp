#include "sandbox/service/services.h"

#include <optional>
#include <utility>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/httperror.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

/// The bytes of the signature. Throws HttpError.
std::string takeSignature(Query const& query, Exchange& exchange) {
    std::optional<std::string> const text = query.value("SIGNATURE");
    if (!text || text->empty()) {
        throw HttpError("SIGNATURE is missing");
    }
    exchange.m_Signature = *text;
    std::optional<std::string> bytes = fromHex(*text);
    if (!bytes) {
        throw HttpError("SIGNATURE is not lower-case hexadecimal");
    }
    exchange.m_Steps.push_back({"SIGNATURE is hexadecimal", std::to_string(bytes->size()) + " bytes"});
    return *bytes;
}

/// Throws HttpError, and tells what is wrong as far as that can be found out.
void checkSignature(std::string const& keyId, std::string const& blob, std::string const& text,
                    std::string const& signature, Exchange& exchange) {
    KeyHolder const key = readPublicKeyBlob(blob);
    std::optional<std::string> const held = signedDigest(key.get(), signature);
    std::string const expected = digestOf(text, Widening::kZero);
    bool const good = held == expected;
    exchange.m_Steps.push_back({"Digest of DATA, each byte zero-extended to two", toHex(expected)});
    exchange.m_Steps.push_back({"Digest that SIGNATURE holds", held ? toHex(*held) : "none under this key", good});
    if (good) {
        return;
    }
    if (verifyText(key.get(), text, Widening::kSign, signature)) {
        throw HttpError("SIGNATURE was made over sign-extended bytes, a merchant signs zero-extended ones");
    }
    throw HttpError("SIGNATURE is not one of DATA under the key '" + keyId + "'");
}

void copyIfGiven(Payment const& payment, char const* name, Message& to) {
    if (std::optional<std::string> const value = payment.attribute(name)) {
        to.set(name, *value);
    }
}

/// A signature with its last bit the other way round.
std::string flipLastBit(std::string const& signature) {
    std::string bytes = fromHex(signature).value();
    bytes.back() = static_cast<char>(static_cast<unsigned char>(bytes.back()) ^ 1U);
    return toHex(bytes);
}

KeyRing::Key signingKey(Services const& services, std::optional<Fault> const& fault) {
    if (fault && fault->m_Kind == FaultKind::kWrongKey) {
        return services.m_Keys.impostor();
    }
    if (fault && fault->m_Kind == FaultKind::kStaleKey) {
        return services.m_Keys.stale();
    }
    return services.m_Keys.current();
}

}  // namespace

std::string takeData(RequestContext const& context) {
    std::optional<std::string> const data = Query(context.m_Request.m_Query).value("DATA");
    if (!data || data->empty()) {
        throw HttpError("DATA is missing");
    }
    context.m_Exchange.m_Steps.push_back({"DATA is percent-encoded", std::to_string(data->size()) + " bytes"});
    return *data;
}

SignedMessage openSignedMessage(RequestContext const& context) {
    std::string const text = takeData(context);
    std::string const signature = takeSignature(Query(context.m_Request.m_Query), context.m_Exchange);
    Message message = Message::parse(text);
    context.m_Exchange.m_Steps.push_back({"DATA is a message", message.type()});
    std::string const keyId = message.require("KEYID");
    std::optional<MerchantKey> const key = context.m_Services.m_Store.merchantKey(keyId);
    if (!key) {
        throw HttpError("KEYID names no merchant key that was published here: '" + keyId + "'");
    }
    context.m_Exchange.m_Steps.push_back({"KEYID names a key", keyId + " of the account " + key->m_Account});
    checkSignature(keyId, key->m_Blob, text, signature, context.m_Exchange);
    return {std::move(message), text, key->m_Account};
}

HttpResponse messageResponse(std::string const& text) {
    return {200, "text/xml", text};
}

Message confirmation(Services const& services, Payment const& payment, std::string const& result) {
    return confirmationBy(services.m_Keys.current()->m_Id, kConfirmationType, payment, result);
}

Message confirmationBy(std::string const& keyId, std::string const& type, Payment const& payment,
                       std::string const& result) {
    Message message(type);
    message.set("KEYID", keyId).set("ID", payment.m_Id).set("TOKEN", payment.m_Token);
    copyIfGiven(payment, "AMOUNT", message);
    copyIfGiven(payment, "CURRENCY", message);
    copyIfGiven(payment, "ORDERID", message);
    message.set("RESULT", result);
    return message;
}

std::string signedConfirmation(Services const& services, Payment const& payment, std::string const& result,
                               std::optional<Fault> const& fault) {
    KeyRing::Key const key = signingKey(services, fault);
    char const* const type = fault && fault->m_Kind == FaultKind::kWrongType ? kUnexpectedType : kConfirmationType;
    std::string const text = confirmationBy(key->m_Id, type, payment, result).text();
    std::string signature = signText(key->m_Key.get(), text, Widening::kSign);
    if (fault && fault->m_Kind == FaultKind::kWrongSignature) {
        signature = flipLastBit(signature);
    }
    return "DATA=" + percentEncode(text) + "&SIGNATURE=" + signature;
}

}  // namespace sandbox
