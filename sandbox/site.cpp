#include "sandbox/site.h"

#include <optional>
#include <utility>

#include "sandbox/refusal.h"
#include "sandbox/signature.h"
#include "sandbox/utctime.h"
#include "sandbox/wiretext.h"

namespace sandbox {

namespace {

/// The bytes of the signature. Throws Refusal.
std::string takeSignature(Query const& query, Exchange& record) {
    std::optional<std::string> const text = query.value("SIGNATURE");
    if (!text || text->empty()) {
        throw Refusal("SIGNATURE is missing");
    }
    record.signature = *text;
    std::optional<std::string> bytes = fromHex(*text);
    if (!bytes) {
        throw Refusal("SIGNATURE is not lower-case hexadecimal");
    }
    return *bytes;
}

/// Throws Refusal, and tells what is wrong as far as that can be found out.
void checkSignature(std::string const& keyId, std::string const& blob, std::string const& text,
                    std::string const& signature) {
    KeyHolder const key = readPublicKeyBlob(blob);
    if (verifyText(key.get(), text, Widening::Zero, signature)) {
        return;
    }
    if (verifyText(key.get(), text, Widening::Sign, signature)) {
        throw Refusal("SIGNATURE was made over sign-extended bytes, a merchant signs zero-extended ones");
    }
    throw Refusal("SIGNATURE is not one of DATA under the key '" + keyId + "'");
}

void copyIfGiven(Payment const& payment, char const* name, Message& to) {
    if (std::optional<std::string> const value = payment.attribute(name)) {
        to.set(name, *value);
    }
}

}  // namespace

std::string Site::timeText() const {
    return utcText(clock());
}

std::string Site::signedQuery(Message const& message) const {
    std::string const text = message.text();
    return "DATA=" + percentEncode(text) + "&SIGNATURE=" + signText(serverKey.get(), text, Widening::Sign);
}

std::string takeData(HttpRequest const& request, Exchange& record) {
    std::optional<std::string> const data = Query(request.query).value("DATA");
    if (!data || data->empty()) {
        throw Refusal("DATA is missing");
    }
    record.data = *data;
    return *data;
}

SignedMessage openSignedMessage(Site const& site, HttpRequest const& request, Exchange& record) {
    std::string const text = takeData(request, record);
    std::string const signature = takeSignature(Query(request.query), record);
    Message message = Message::parse(text);
    std::string const keyId = message.require("KEYID");
    std::optional<MerchantKey> const key = site.store.merchantKey(keyId);
    if (!key) {
        throw Refusal("KEYID names no merchant key that was published here: '" + keyId + "'");
    }
    checkSignature(keyId, key->blob, text, signature);
    return {std::move(message), text, key->account};
}

HttpReply messageReply(std::string const& text) {
    return {200, "text/xml", text};
}

Message confirmation(Site const& site, Payment const& payment, std::string const& result) {
    Message message("PayConfirm");
    message.set("KEYID", site.serverKeyId).set("ID", payment.id).set("TOKEN", payment.token);
    copyIfGiven(payment, "AMOUNT", message);
    copyIfGiven(payment, "CURRENCY", message);
    copyIfGiven(payment, "ORDERID", message);
    message.set("RESULT", result);
    return message;
}

}  // namespace sandbox
