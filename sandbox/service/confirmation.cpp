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

KeyRing::Key signingKey(Services const& services, FaultEffect const& effect) {
    if (effect.is(FaultKind::kWrongKey)) {
        return services.m_Keys.impostor();
    }
    if (effect.is(FaultKind::kStaleKey)) {
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
                               FaultEffect const& effect) {
    KeyRing::Key const key = signingKey(services, effect);
    char const* const type = effect.is(FaultKind::kWrongType) ? kUnexpectedType : kConfirmationType;
    // What is replayed is what was confirmed then; what is swapped reports the result of this payment.
    std::string const reported =
        effect.is(FaultKind::kReplay) && effect.m_Other ? stateName(decidedState(*effect.m_Other)) : result;
    Message const message = confirmationBy(key->m_Id, type, effect.m_Other ? *effect.m_Other : payment, reported);
    std::string const text = withWrongContent(effect, payment, message).text();
    std::string signature = signText(key->m_Key.get(), text, Widening::kSign);
    if (effect.is(FaultKind::kWrongSignature)) {
        signature = flipLastBit(signature);
    }
    return "DATA=" + percentEncode(text) + "&SIGNATURE=" + signature;
}

}  // namespace sandbox
