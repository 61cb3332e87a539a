#include "sandbox/service/signedmessage.h"

#include <optional>

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

/// Throws HttpError with what is wrong, as far as that can be found out.
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

}  // namespace

std::string const& requireData(RequestContext const& context) {
    std::string const& data = context.m_Data.get();
    if (data.empty()) {
        throw HttpError("DATA is missing");
    }
    context.m_Exchange.m_Steps.push_back({"DATA is percent-encoded", std::to_string(data.size()) + " bytes"});
    return data;
}

SignedMessage openSignedMessage(RequestContext const& context) {
    std::string const& text = requireData(context);
    std::string const signature = takeSignature(context.m_Request.m_Query, context.m_Exchange);
    Message const& message = context.m_Message.get();
    context.m_Exchange.m_Steps.push_back({"DATA is a message", message.type()});
    std::string const keyId = message.require("KEYID");
    std::optional<MerchantKey> const& key = context.m_Signer;
    if (!key) {
        throw HttpError("KEYID names no merchant key that was published here: '" + keyId + "'");
    }
    context.m_Exchange.m_Steps.push_back({"KEYID names a key", keyId + " of the account " + key->m_Account});
    checkSignature(keyId, key->m_Blob, text, signature, context.m_Exchange);
    return {message, text, key->m_Account};
}

}  // namespace sandbox
