// The message factory and its flat functions.
//
// Every creating call makes an object, opens a context of its own on the path and fills the message; an object that
// fails on the way is freed. A new payment gets, in this order: type and key id, token, defaults, expiration.
// Odd: a plain request opens a second context, which shows in the trace.

#include "api/cMessageFactory.h"

#include <cstdlib>
#include <memory>

#include "api/cMessageObject.h"
#include "api/kvxboundary.h"
#include "api/kvxlines_api.h"
#include "core/kvxctx_conversions.h"
#include "core/kvxctx_defaults.h"
#include "core/kvxlines_core.h"
#include "foundation/tblocalstring.h"

namespace {

using OwnedMessage = std::unique_ptr<KVXCIMPL_MessageObject>;

}  // namespace

KVXCIMPL_MessageFactory::KVXCIMPL_MessageFactory() {
    m_Signature.set(kKind);
}

KVXCIMPL_MessageFactory::~KVXCIMPL_MessageFactory() {
    m_Signature.clear(kKind);
}

void KVXCIMPL_MessageFactory::Open(TbString const& path) {
    m_Path = path;
}

KVXCIMPL_MessageObject* KVXCIMPL_MessageFactory::CreatePayInit() {
    KVX_Context account;
    account.Open(m_Path);
    OwnedMessage object(new KVXCIMPL_MessageObject);
    object->m_Context = account;
    kvx::kSourceCtx.trace(kvx::kLineOpen, "OPEN CONTEXT", account.path());  // the object's, published as well
    object->startOutgoing(TbBorrowed("PayInit"));
    TbShortString token;
    kvxUuidInto(token);
    object->m_Message.SetAttribute(TbBorrowed("TOKEN"), token);
    KvxPaymentDefaults const defaults(account);
    defaults.copyTo(object->m_Message);
    TbShortString seconds;
    defaults.timeToLive(seconds);
    TbShortString expiration;
    kvxTimeDateInto(std::strtod(seconds.c_str(), nullptr), expiration);
    object->m_Message.SetAttribute(TbBorrowed("EXPIRATION"), expiration);
    return object.release();
}

KVXCIMPL_MessageObject* KVXCIMPL_MessageFactory::VerifyPayConfirm(TbString const& data, TbString const& signature) {
    OwnedMessage object(new KVXCIMPL_MessageObject);
    object->m_Context.Open(m_Path);
    object->m_Message.Open(&object->m_Context, data, signature);
    return object.release();
}

KVXCIMPL_MessageObject* KVXCIMPL_MessageFactory::CreatePayComplete(TbString const& id, TbString const& token) {
    OwnedMessage object = newOutgoing(TbBorrowed("PayComplete"));
    object->m_Message.SetAttribute(TbBorrowed("ID"), id);
    object->m_Message.SetAttribute(TbBorrowed("TOKEN"), token);
    return object.release();
}

KVXCIMPL_MessageObject* KVXCIMPL_MessageFactory::CreateRequest(TbString const& type) {
    if (type.isEmpty()) {
        kvx::kSourceMessageFactory.fail(KVX_E_NO_MESSAGE_TYPE, kvx::kLineRequestWithoutType);
    }
    OwnedMessage object(new KVXCIMPL_MessageObject);
    object->m_Context.Open(m_Path);
    // Deliberate (second-context): a second context is opened on the path and dropped; the trace shows it.
    KVX_Context().Open(m_Path);
    object->startOutgoing(type);
    return object.release();
}

OwnedMessage KVXCIMPL_MessageFactory::newOutgoing(TbString const& type) {
    OwnedMessage object(new KVXCIMPL_MessageObject);
    object->m_Context.Open(m_Path);
    object->startOutgoing(type);
    return object;
}

KVX_HANDLE CreateMessageFactory() {
    return kvxCreate<KVXCIMPL_MessageFactory>();
}

void DestroyMessageFactory(KVX_HANDLE handle) {
    kvxDestroy<KVXCIMPL_MessageFactory>(handle);
}

int32_t MessageFactory_Open(KVX_HANDLE handle, char const* path) {
    return kvxRun<KVXCIMPL_MessageFactory>(handle, [&](auto& factory) { factory.Open(TbBorrowed(path)); });
}

int32_t MessageFactory_CreatePayInit(KVX_HANDLE handle, KVX_HANDLE* out) {
    return kvxMake<KVXCIMPL_MessageFactory>(handle, out, [](auto& factory) { return factory.CreatePayInit(); });
}

int32_t MessageFactory_VerifyPayConfirm(KVX_HANDLE handle, char const* data, char const* signature, KVX_HANDLE* out) {
    return kvxMake<KVXCIMPL_MessageFactory>(handle, out, [&](auto& factory) {
        // What is verified must be what is used, whatever another thread of the caller does to its buffer meanwhile.
        return factory.VerifyPayConfirm(mbstoSTRING(data), TbBorrowed(signature));
    });
}

int32_t MessageFactory_CreatePayComplete(KVX_HANDLE handle, char const* id, char const* token, KVX_HANDLE* out) {
    return kvxMake<KVXCIMPL_MessageFactory>(
        handle, out, [&](auto& factory) { return factory.CreatePayComplete(TbBorrowed(id), TbBorrowed(token)); });
}

int32_t MessageFactory_CreateRequest(KVX_HANDLE handle, char const* type, KVX_HANDLE* out) {
    return kvxMake<KVXCIMPL_MessageFactory>(handle, out,
                                            [&](auto& factory) { return factory.CreateRequest(TbBorrowed(type)); });
}
