// Payment messages.
//
// Create and Open bind a message to its context and fill it; the other members require that. Sending works in this
// order: write the element as text, read the target address from the configuration, sign the text, exchange. Odd: a
// new message is a "PayInit" first, which fixes the order of its attributes, and Request leaves its type changed.

#include "core/kvxctx.h"
#include "core/kvxctx_checks.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxfile.h"
#include "core/kvxidentifier.h"
#include "core/kvxlines_core.h"
#include "foundation/tblocalstring.h"

// clang-format off
char const* const AttributeNames[] = {
    "ALLOWCOLLECT",
    "DELIVERY",
    "LANGID",
    "SUCCESSLINK",
    "NOTIFYADDRESS",
    "DEFAULTVALIDITY",
    "BACKLINK",
    "FAILLINK",
    nullptr,
};
// clang-format on

namespace {

// Apart from their callers, which succeed mostly and would carry the room for the cause.

[[noreturn, gnu::noinline, gnu::cold]] void failForName(TbString const& name) {
    kvx::kSourceCtx.failBecause(kvxNameCause(name), KVX_E_INVALID_OPTION, kvx::kLineAttributeName);
}

[[noreturn, gnu::noinline, gnu::cold]] void failForAttribute(TbString const& name) {
    KvxCause cause;
    cause.put("the message has no attribute \"").put(name).put("\"");
    kvx::kSourceCtx.failBecause(cause, KVX_E_NOT_FOUND, kvx::kLineAttributeNotFound);
}

[[noreturn, gnu::noinline, gnu::cold]] void failForValue(KVX_Context& account, TbString const& file,
                                                         TbString const& name, std::int32_t code, long line) {
    KvxCause cause = kvxFileCause(account.path(), file, name.isEmpty() ? ": is empty" : ": has no ");
    kvx::kSourceCtx.failBecause(cause.put(name), code, line);
}

[[noreturn, gnu::noinline, gnu::cold]] void failForKeyId(TbString const& keyId, long line) {
    kvx::kSourceCtx.failBecause(kvxKeyIdCause(keyId), KVX_E_NOT_FOUND, line);
}

/// `value` becomes the value `name` in `file`, all of the file for an empty name.
void require(KVX_Context& account, TbString const& file, TbString const& name, std::int32_t codeWhenMissing, long line,
             TbString& value) {
    if (!account.QueryValue(file, name, value)) {
        failForValue(account, file, name, codeWhenMissing, line);
    }
}

/// Signs with the key `keyId`, which the current key file named: like one from outside it must stay in the directory.
void signAs(KVX_Context& account, TbString const& text, TbString const& keyId, TbString& signature) {
    if (!kvxNamesFileInDirectory(keyId)) {
        failForKeyId(keyId, kvx::kLineSignNoKey);
    }
    account.SignData(text, keyId, signature);
}

}  // namespace

KVX_Context& KVX_Message::boundContext() const {
    if (m_Context == nullptr) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineNoMessageContext);
    }
    return *m_Context;
}

void KVX_Message::requireElement(long line) const {
    if (m_Element.get() == nullptr) {
        kvx::kSourceCtx.failBecause("the object holds no message", KVX_E_UNEXPECTED, line);
    }
}

/// `value` becomes the value `name` of the account's configuration.
void KVX_Message::requireConfigured(TbString const& name, long line, TbString& value) const {
    require(boundContext(), TbBorrowed(kvx::kConfigFile), name, KVX_E_NO_CONFIGURATION, line, value);
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the key id writes its room
KVX_Message::KVX_Message(KVX_Context* context) : m_Context(context) {
    TbInPlaceText::giveRoom(m_KeyId, kKeyIdRoom);
}

void KVX_Message::Create(KVX_Context* context, TbString const& msgType) {
    m_Element.reset();
    m_Context = context;
    KVX_Context& account = boundContext();
    // Deliberate (starts-as-payinit): every message starts as a "PayInit" and gets its own type afterwards, which fixes
    // the attributes' order.
    m_Element = account.request(TbBorrowed("PayInit"));
    TbShortString keyId;
    require(account, TbBorrowed(kvx::kCurrentKeyFile), TbBorrowed(""), KVX_E_NO_KEY_ID, kvx::kLineCreateKeyId, keyId);
    m_KeyId = TbBorrowed(keyId.c_str(), kvxLengthWithoutPadding(keyId), keyId.isSecret());
    m_Element->setAttribute(TbBorrowed("MSGTYPE"), msgType);
    m_Element->setAttribute(TbBorrowed("KEYID"), m_KeyId);
    if (kvxIsWord(msgType, "PayComplete")) {
        m_Element->setAttribute(TbBorrowed("CONFIGPATH"), account.path());
    }
}

void KVX_Message::Open(KVX_Context* context, TbString const& data, TbString const& signature) {
    m_Element.reset();
    m_Context = context;
    KVX_Context& account = boundContext();
    KVX_Settings const settings = account.settingsForVerification();
    xmlHolder element = kvxParseDocument(data, settings.m_Documents);
    if (signature.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_MISSING_SIGNATURE, kvx::kLineMissingSignature);
    }
    TbShortString keyId;
    if (!element->getAttribute(TbBorrowed("KEYID"), keyId)) {
        kvx::kSourceCtx.failBecause("the confirmation has no KEYID", KVX_E_NO_KEY_ID, kvx::kLineOpenNoKeyId);
    }
    // The shopper chose this name: it must stay in the key directory.
    if (!kvxNamesFileInDirectory(keyId)) {
        failForKeyId(keyId, kvx::kLineVerifyNoKey);
    }
    account.requireVerified(settings, data, keyId, signature);
    if (settings.m_HasStrictConfirm && account.hasPrivateKey(keyId)) {
        KvxCause cause = kvxFileCause(account.path(), kvx::publicKeyFile(keyId), ": is a key of this shop, ");
        kvx::kSourceCtx.failBecause(cause.put("whose messages STRICTCONFIRM does not take for confirmations"),
                                    KVX_E_INVALID_SIGNATURE, kvx::kLineConfirmOwnKey);
    }
    TbShortString type;
    element->getAttribute(TbBorrowed("MSGTYPE"), type);
    bool const isConfirmation = kvxIsWord(type, "PayConfirm");
    if (settings.m_HasStrictConfirm && !isConfirmation) {
        KvxCause cause;
        cause.put("STRICTCONFIRM wants a PayConfirm, and the message is a \"").put(type.c_str()).put("\"");
        kvx::kSourceCtx.failBecause(cause, KVX_E_WRONG_RESPONSE, kvx::kLineConfirmType);
    }
    if (isConfirmation) {
        element->setAttribute(TbBorrowed("CONFIGPATH"), account.path());
    }
    m_Element.adopt(element.release());
}

void KVX_Message::SetAttribute(TbString const& name, TbString const& value) {
    requireElement(kvx::kLineAttributeNoElement);
    if (!kvxIsReadableName(name) && boundContext().settingsForLocalWork().m_HasStrictNames) {
        failForName(name);
    }
    m_Element->setAttribute(name, value);
}

void KVX_Message::GetAttribute(TbString const& name, TbString& value) {
    requireElement(kvx::kLineAttributeNoElement);
    if (!m_Element->getAttribute(name, value)) {
        failForAttribute(name);
    }
}

void KVX_Message::GetURL(TbString& url) {
    requireElement(kvx::kLineUrlNoElement);
    TbUncountedStream text;
    m_Element->toStream(text);
    TbLongString baseUrl;
    requireConfigured(TbBorrowed("VTURL"), kvx::kLineUrlNoConfiguration, baseUrl);
    KvxSignatureText signature;
    signAs(boundContext(), text.str(), m_KeyId, signature);
    TbUncountedString result;  // whatever the caller's string holds must not cut the URL short
    boundContext().composeUrl(baseUrl, text, signature, result);
    TbInPlaceText::handOver(result, url);
}

xmlElementPtr KVX_Message::sendSigned(TbString const& captureUrl, TbStringStream& text, TbString const& expectedType) {
    KvxSignatureText signature;
    signAs(boundContext(), text.str(), m_KeyId, signature);
    TbUncountedStream responseText;
    return boundContext().exchange(captureUrl, text, signature, expectedType, responseText);
}

void KVX_Message::Capture() {
    requireElement(kvx::kLineCaptureNoElement);
    TbUncountedStream text;
    m_Element->toStream(text);
    TbLongString captureUrl;
    requireConfigured(TbBorrowed("CAPTUREURL"), kvx::kLineCaptureNoUrl, captureUrl);
    TbShortString token;
    if (!m_Element->getAttribute(TbBorrowed("TOKEN"), token)) {
        kvx::kSourceCtx.failBecause("a message without TOKEN cannot be captured", KVX_E_UNEXPECTED,
                                    kvx::kLineCaptureToken);
    }
    sendSigned(captureUrl, text, TbBorrowed("PayConfirm"));
}

void KVX_Message::Request(KVX_Message& response) {
    requireElement(kvx::kLineRequestNoElement);
    TbShortString type;
    m_Element->getAttribute(TbBorrowed("MSGTYPE"), type);
    // Deliberate (request-keeps-type): the type stays changed, whatever follows.
    m_Element->setAttribute(TbBorrowed("MSGTYPE"), type + "Request");
    TbUncountedStream text;
    m_Element->toStream(text);
    TbLongString captureUrl;
    requireConfigured(TbBorrowed("CAPTUREURL"), kvx::kLineRequestNoUrl, captureUrl);
    response.m_Element = sendSigned(captureUrl, text, type + "Response");
}

bool KVX_Message::ToString(TbString& text) const {
    if (m_Element.get() == nullptr) {
        return false;
    }
    TbUncountedStream out;
    m_Element->toStream(out);
    text = out.str();
    return true;
}

void KVX_Message::FromString(TbString const& text) {
    m_Element.reset();
    KVX_Context& account = boundContext();  // a message without one is refused, whatever the text
    m_Element.adopt(kvxParseDocument(text, account.settingsForLocalWork().m_Documents).release());
    m_Element->setAttribute(TbBorrowed("KEYID"), m_KeyId);
}
