#include "sandbox/service/confirmation.h"

#include "sandbox/crypto/signature.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

namespace {

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
